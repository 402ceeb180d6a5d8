// Base that gives a class its class-wide logger `log`, named after the class's full type name.
#pragma once

#include "Zun/Commons/LogAdapter.hpp"
#include "Zun/Commons/LogManager.hpp"
#include "Zun/Commons/RuntimeTypeInfo.hpp"

namespace Zun::System::Commons::Diagnostics::Logging
{

template <class T>
class Loggable
{
protected:
    // Resolves the logger on first use, so that it is usable from any static initialisation.
    struct ClassLogger
    {
        LogAdapter& Get() const
        {
            static LogAdapter& adapter = LogManager::GetLogger(RuntimeTypeInfo::GetTypeName<T>());
            return adapter;
        }
        bool IsEnabled(int level) const { return Get().IsEnabled(level); }
        template <class... Args>
        void Log(int level, const char* format, const Args&... args) const
        {
            Get().Log(level, format, args...);
        }
    };

    static constexpr ClassLogger log{};
};

} // namespace Zun::System::Commons::Diagnostics::Logging
