// Readable type names through the C++ ABI demangler.
#include <cxxabi.h>

#include <cstdlib>
#include <memory>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/RuntimeTypeInfo.hpp"

namespace Zun
{

String RuntimeTypeInfo::DemangleSymbol(const char* symbol)
{
    if (symbol == nullptr)
    {
        throw Exception("Demangling of type name '{0}' failed.", String());
    }
    int status = 0;
    std::unique_ptr<char, decltype(&std::free)> demangled(abi::__cxa_demangle(symbol, nullptr, nullptr, &status), &std::free);
    if (status != 0 || demangled == nullptr)
    {
        throw Exception("Demangling of type name '{0}' failed.", String(symbol));
    }
    return String(demangled.get());
}

String RuntimeTypeInfo::RemoveTypeKeywords(String typeName)
{
    for (const char* keyword : {"class ", "struct ", "enum "})
    {
        const std::size_t length = std::char_traits<char>::length(keyword);
        for (std::size_t position = typeName.find(keyword); position != String::npos; position = typeName.find(keyword, position))
        {
            typeName.erase(position, length);
        }
    }
    return typeName;
}

String RuntimeTypeInfo::GetTypeName(const std::type_info& type)
{
    return RemoveTypeKeywords(DemangleSymbol(type.name()));
}

} // namespace Zun
