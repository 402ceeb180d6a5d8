// One software version of a component as the update service reports it.
#pragma once

#include <vector>

#include "Zun/Commons/DateTime.hpp"
#include "Zun/Commons/Export.hpp"
#include "Zun/Rsc/IRscSerializable.hpp"
#include "Zun/Rsc/RscString.hpp"

namespace Zun::Services::SoftwareUpdate::Services::Internal
{

class ZUN_EXPORT SoftwareVersionType : public System::Rsc::IRscSerializable
{
public:
    static constexpr std::size_t FieldCount = 6;
    static constexpr std::size_t MaxListCount = 4'194'304;

    SoftwareVersionType() = default;
    ~SoftwareVersionType() override;
    SoftwareVersionType(const SoftwareVersionType&) = default;
    SoftwareVersionType& operator=(const SoftwareVersionType&) = default;
    SoftwareVersionType(SoftwareVersionType&&) = default;
    SoftwareVersionType& operator=(SoftwareVersionType&&) = default;

    // Throws NotSupportedException "DateTimeKind Unspecified not supported." for a ReleaseDate of
    // kind Unspecified, after the three texts and the patch list.
    void WriteTo(System::Rsc::RemotingWriter& writer) const override;
    // Appends to PatchIdentifiers; read into a default record.
    void ReadFrom(System::Rsc::RemotingReader& reader) override;

    // Back to the default state, the list's storage released.
    void Reset() noexcept;

    friend ZUN_EXPORT bool operator==(const SoftwareVersionType& a, const SoftwareVersionType& b) noexcept;

    System::Rsc::RscString<512> Manufacturer;
    System::Rsc::RscString<512> ManufacturerUri;
    System::Rsc::RscString<512> SoftwareRevision;
    std::vector<System::Rsc::RscString<512>> PatchIdentifiers;
    DateTime ReleaseDate;
    System::Rsc::RscString<512> ChangeLogReference;
};

} // namespace Zun::Services::SoftwareUpdate::Services::Internal
