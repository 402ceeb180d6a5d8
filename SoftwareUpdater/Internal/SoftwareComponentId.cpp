#include "SoftwareUpdater/Internal/SoftwareComponentId.hpp"

#include <cstring>
#include <sstream>

#include <fmt/format.h>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/RuntimeTypeInfo.hpp"

namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal
{

const String SoftwareComponentId::ComponentIdDelimiter = " / ";

const EnumDictionaryBase<SoftwareKind> SoftwareComponentId::SoftwareKindDictionary = {
    {SoftwareKind::None, "None"},
    {SoftwareKind::GenericFiles, "Generic files"},
    {SoftwareKind::TesmoraEngineerProject, "Tesmora Engineer project"},
};

SoftwareComponentId::SoftwareComponentId(const String& componentId, SoftwareKind kind, const String& name)
    : componentId(componentId), kind(kind), name(name)
{
}

bool SoftwareComponentId::SplitComponentId(const String& componentId, String& name, SoftwareKind& kind)
{
    const std::size_t position = componentId.find(ComponentIdDelimiter);
    if (position == String::npos)
    {
        return false;
    }
    const String prefix = componentId.substr(0, position);
    name = componentId.substr(position + ComponentIdDelimiter.size());

    // Compared as NUL-terminated texts, as the dictionary's texts are.
    for (const auto& [value, text] : SoftwareKindDictionary.GetEntries())
    {
        if (std::strcmp(text.c_str(), prefix.c_str()) == 0)
        {
            kind = value;
            return true;
        }
    }
    return false;
}

bool SoftwareComponentId::TryCreate(const String& componentId, SoftwareComponentId& result)
{
    String name;
    SoftwareKind kind = SoftwareKind::None;
    if (!SplitComponentId(componentId, name, kind))
    {
        return false;
    }
    const SoftwareComponentId created(componentId, kind, name);
    result.componentId = created.componentId;
    result.kind = created.kind;
    result.name = created.name;
    return true;
}

bool SoftwareComponentId::TryCreate(SoftwareKind kind, const String& name, SoftwareComponentId& result)
{
    if (kind == SoftwareKind::None || name.empty())
    {
        return false;
    }
    std::ostringstream kindText;
    kindText << kind;
    if (kindText.fail() || kindText.bad())
    {
        throw Exception("Invalid value for Enum '{0}' occurs: {1}", RuntimeTypeInfo::GetTypeName<Enum<SoftwareKind>>(),
                        static_cast<std::int32_t>(kind));
    }
    const String textForm = fmt::format("{}{}{}", kindText.str(), ComponentIdDelimiter, name);
    const SoftwareComponentId created(textForm, kind, name);
    result.componentId = created.componentId;
    result.kind = created.kind;
    result.name = created.name;
    return true;
}

} // namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal
