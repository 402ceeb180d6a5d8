// Description of one version of a software component: texts, version, release date, update behaviour, tags.
#pragma once

#include <cstdint>
#include <vector>

#include "ServiceContracts/Tag.hpp"
#include "Zun/Commons/DateTime.hpp"
#include "Zun/Commons/Export.hpp"
#include "Zun/Rsc/IRscSerializable.hpp"
#include "Zun/Rsc/RscString.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal
{

class ZUN_EXPORT Manifest : public System::Rsc::IRscSerializable
{
public:
    static constexpr std::size_t FieldCount = 13;
    // Counts at or above this are refused with std::length_error, as on the 32-bit target.
    static constexpr std::size_t MaxListCount = 4'194'304;

    // Defined out of line: value-initialisation (emplace_back()) of a class without a user-provided
    // constructor would zero all of its texts once more before constructing them.
    Manifest();
    ~Manifest() override;
    Manifest(const Manifest&) = default;
    Manifest& operator=(const Manifest&) = default;
    Manifest(Manifest&&) = default;
    Manifest& operator=(Manifest&&) = default;

    // Throws NotSupportedException "DateTimeKind Unspecified not supported." for a ReleaseDate
    // of kind Unspecified, after the first seven texts.
    void WriteTo(System::Rsc::RemotingWriter& writer) const override;
    // Appends to TextList and Tags; read into a default record.
    void ReadFrom(System::Rsc::RemotingReader& reader) override;

    friend ZUN_EXPORT bool operator==(const Manifest& a, const Manifest& b) noexcept;

    System::Rsc::RscString<64> ShortText;
    System::Rsc::RscString<512> Text1;
    System::Rsc::RscString<512> Manufacturer;
    System::Rsc::RscString<512> ManufacturerUri;
    System::Rsc::RscString<512> Text2;
    System::Rsc::RscString<512> Text3;
    System::Rsc::RscString<512> Version;
    DateTime ReleaseDate;
    System::Rsc::RscString<512> Text4;
    std::vector<System::Rsc::RscString<512>> TextList;
    System::Rsc::RscString<512> Text5;
    std::uint32_t UpdateBehavior = 0;
    std::vector<Tag> Tags;
};

} // namespace Zun::Services::SoftwareManager::Services::Internal
