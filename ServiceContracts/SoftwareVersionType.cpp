#include "ServiceContracts/SoftwareVersionType.hpp"

#include <algorithm>
#include <stdexcept>

#include "Zun/Commons/Exception.hpp"

namespace Zun::Services::SoftwareUpdate::Services::Internal
{

using System::Rsc::RscStringEncoding;
using System::Rsc::RscType;
using Text = System::Rsc::RscString<512>;

namespace
{

void WriteText(System::Rsc::RemotingWriter& writer, const Text& text, bool withTag)
{
    writer.WriteStringInternal(text.CStr(), Text::Capacity, RscStringEncoding::Utf8, withTag);
}

void ReadText(System::Rsc::RemotingReader& reader, Text& text, bool withTag)
{
    reader.ReadStringInternal(text.GetBuffer(), Text::Capacity, RscStringEncoding::Utf8, withTag);
}

bool IsUnspecified(const DateTime& date) noexcept
{
    return (date.ToBinary() >> DateTime::KindShift) == 0;
}

} // namespace

SoftwareVersionType::~SoftwareVersionType() = default;

void SoftwareVersionType::WriteTo(System::Rsc::RemotingWriter& writer) const
{
    WriteText(writer, Manufacturer, true);
    WriteText(writer, ManufacturerUri, true);
    WriteText(writer, SoftwareRevision, true);

    writer.WriteTag(RscType::Array);
    writer.WriteTag(RscType::String);
    writer.WriteArrayLength(PatchIdentifiers.size());
    for (const Text& patch : PatchIdentifiers)
    {
        WriteText(writer, patch, false);
    }

    if (IsUnspecified(ReleaseDate))
    {
        throw System::Commons::NotSupportedException("DateTimeKind Unspecified not supported.");
    }
    writer.WriteTag(RscType::DateTime);
    writer.WriteDateTime(ReleaseDate);

    WriteText(writer, ChangeLogReference, true);
}

void SoftwareVersionType::ReadFrom(System::Rsc::RemotingReader& reader)
{
    ReadText(reader, Manufacturer, true);
    ReadText(reader, ManufacturerUri, true);
    ReadText(reader, SoftwareRevision, true);

    reader.ReadTag(RscType::Array);
    reader.ReadTag(RscType::String);
    const std::size_t count = reader.ReadArrayLength();
    if (count >= MaxListCount)
    {
        throw std::length_error("vector::reserve");
    }
    // A count is only a claim of the stream; never reserve more than the bytes left could hold
    // (an untagged string takes at least its encoding byte and its length).
    constexpr std::size_t minElementBytes = 1 + 1;
    PatchIdentifiers.reserve(PatchIdentifiers.size() + std::min(count, reader.GetRemaining() / minElementBytes));
    for (std::size_t i = 0; i < count; ++i)
    {
        Text patch;
        ReadText(reader, patch, false);
        PatchIdentifiers.push_back(patch);
    }

    reader.ReadTag(RscType::DateTime);
    ReleaseDate = reader.ReadDateTime();
    if (IsUnspecified(ReleaseDate))
    {
        throw System::Commons::NotSupportedException("DateTimeKind Unspecified not supported.");
    }

    ReadText(reader, ChangeLogReference, true);
}

void SoftwareVersionType::Reset() noexcept
{
    Manufacturer = Text();
    ManufacturerUri = Text();
    SoftwareRevision = Text();
    std::vector<Text>().swap(PatchIdentifiers);
    ReleaseDate = DateTime();
    ChangeLogReference = Text();
}

// Exported here: the class attribute does not reach a friend declared inside it.
ZUN_EXPORT bool operator==(const SoftwareVersionType& a, const SoftwareVersionType& b) noexcept
{
    return a.Manufacturer == b.Manufacturer && a.ManufacturerUri == b.ManufacturerUri &&
           a.SoftwareRevision == b.SoftwareRevision && a.PatchIdentifiers == b.PatchIdentifiers &&
           a.ReleaseDate == b.ReleaseDate && a.ChangeLogReference == b.ChangeLogReference;
}

} // namespace Zun::Services::SoftwareUpdate::Services::Internal
