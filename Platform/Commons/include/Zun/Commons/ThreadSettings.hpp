// What a framework thread is made of: its name, three numeric settings (0 = default) and its body.
#pragma once

#include "Zun/Commons/Delegate.hpp"
#include "Zun/Commons/String.hpp"

namespace Zun::System::Commons::Threading
{

using ThreadDelegate = Delegate<void(void*)>;

struct ThreadSettings
{
    ThreadSettings(String name, int priority, int cpuAffinity, int stackSize, ThreadDelegate function)
        : name(std::move(name)), priority(priority), cpuAffinity(cpuAffinity), stackSize(stackSize), function(std::move(function))
    {
    }

    String name;
    int priority = 0;    // 0: inherit
    int cpuAffinity = 0; // 0: any core
    int stackSize = 0;   // bytes; 0: the system default
    ThreadDelegate function;
};

} // namespace Zun::System::Commons::Threading
