// Identity of a software component: its kind and name as the software manager knows them, and the
// text form "<kind display name> / <name>" that the update service uses.
#pragma once

#include "Zun/Commons/EnumDictionaryBase.hpp"
#include "Zun/Commons/String.hpp"
#include "Zun/SoftwareManager/SoftwareKind.hpp"

namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal
{

using SoftwareKind = Services::SoftwareManager::Services::Internal::SoftwareKind;

class SoftwareComponentId
{
public:
    static const String ComponentIdDelimiter;
    // Display names of the kinds, in ascending value order; parsing goes through it.
    static const EnumDictionaryBase<SoftwareKind> SoftwareKindDictionary;

    SoftwareComponentId() = default;
    SoftwareComponentId(const String& componentId, SoftwareKind kind, const String& name);
    virtual ~SoftwareComponentId() = default;
    SoftwareComponentId(const SoftwareComponentId&) = default;
    SoftwareComponentId& operator=(const SoftwareComponentId&) = default;

    // Splits at the first delimiter. On false, `kind` is unchanged but `name` may already be
    // overwritten: callers must not rely on it.
    static bool SplitComponentId(const String& componentId, String& name, SoftwareKind& kind);
    // From a text form; "None / x" is accepted. `result` changes only on true.
    static bool TryCreate(const String& componentId, SoftwareComponentId& result);
    // From kind and name; false for kind None or an empty name. Throws Zun::Exception
    // "Invalid value for Enum '{0}' occurs: {1}" for a kind without display name.
    static bool TryCreate(SoftwareKind kind, const String& name, SoftwareComponentId& result);

    String componentId;
    SoftwareKind kind = SoftwareKind::None;
    String name;
};

} // namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal
