// Readable type names: demangling of typeid names, without "class ", "struct " and "enum ".
#pragma once

#include <typeinfo>

#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/String.hpp"

namespace Zun
{

class ZUN_EXPORT RuntimeTypeInfo
{
public:
    // Demangles an ABI symbol; throws Zun::Exception "Demangling of type name '{0}' failed.".
    static String DemangleSymbol(const char* symbol);
    // Removes every "class ", "struct " and "enum " (each with its blank).
    static String RemoveTypeKeywords(String typeName);
    static String GetTypeName(const std::type_info& type);

    template <class T>
    static String GetTypeName()
    {
        return GetTypeName(typeid(T));
    }
};

} // namespace Zun
