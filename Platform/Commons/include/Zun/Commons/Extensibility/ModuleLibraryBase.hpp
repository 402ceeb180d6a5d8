// Base of a plug-in's library object: it owns the plug-in's module factory.
#pragma once

#include "Zun/Commons/Extensibility/ModuleFactory.hpp"

namespace Zun::System::Commons::Extensibility
{

template <class T>
class ModuleLibraryBase
{
public:
    virtual ~ModuleLibraryBase() = default;

    ModuleFactory<T>& GetFactory() noexcept { return factory; }
    const ModuleFactory<T>& GetFactory() const noexcept { return factory; }

protected:
    ModuleLibraryBase() = default;

    ModuleFactory<T> factory;
};

} // namespace Zun::System::Commons::Extensibility
