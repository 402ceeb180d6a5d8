#include "ServiceContracts/Manifest.hpp"

#include <algorithm>
#include <stdexcept>

#include "Zun/Commons/Exception.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal
{

using System::Rsc::RscStringEncoding;
using System::Rsc::RscType;
using Text = System::Rsc::RscString<512>;

namespace
{

template <std::size_t N>
void WriteText(System::Rsc::RemotingWriter& writer, const System::Rsc::RscString<N>& text, bool withTag)
{
    writer.WriteStringInternal(text.CStr(), N, RscStringEncoding::Utf8, withTag);
}

template <std::size_t N>
void ReadText(System::Rsc::RemotingReader& reader, System::Rsc::RscString<N>& text, bool withTag)
{
    reader.ReadStringInternal(text.GetBuffer(), N, RscStringEncoding::Utf8, withTag);
}

bool IsUnspecified(const DateTime& date) noexcept
{
    return (date.ToBinary() >> DateTime::KindShift) == 0;
}

std::size_t ReadListCount(System::Rsc::RemotingReader& reader)
{
    const std::size_t count = reader.ReadArrayLength();
    if (count >= Manifest::MaxListCount)
    {
        throw std::length_error("vector::reserve");
    }
    return count;
}

// Smallest encodings of one element: an untagged string is its encoding byte and its length;
// a tag is two tagged strings.
constexpr std::size_t MinUntaggedStringBytes = 1 + 1;
constexpr std::size_t MinTagBytes = 2 * (1 + 1 + 1);

// Reads the next element in place at the end of `list`: a fresh, zeroed element is filled and not
// copied again. An element whose reading fails is taken out again.
template <class T, class Read>
void ReadElement(std::vector<T>& list, Read read)
{
    list.emplace_back();
    try
    {
        read(list.back());
    }
    catch (...)
    {
        list.pop_back();
        throw;
    }
}

// A count is only a claim of the stream; never reserve more than the bytes left could hold.
template <class T>
void ReserveFor(std::vector<T>& list, std::size_t count, const System::Rsc::RemotingReader& reader, std::size_t minElementBytes)
{
    list.reserve(list.size() + std::min(count, reader.GetRemaining() / minElementBytes));
}

} // namespace

Manifest::Manifest() = default;
Manifest::~Manifest() = default;

void Manifest::WriteTo(System::Rsc::RemotingWriter& writer) const
{
    WriteText(writer, ShortText, true);
    WriteText(writer, Text1, true);
    WriteText(writer, Manufacturer, true);
    WriteText(writer, ManufacturerUri, true);
    WriteText(writer, Text2, true);
    WriteText(writer, Text3, true);
    WriteText(writer, Version, true);

    if (IsUnspecified(ReleaseDate))
    {
        throw System::Commons::NotSupportedException("DateTimeKind Unspecified not supported.");
    }
    writer.WriteTag(RscType::DateTime);
    writer.WriteDateTime(ReleaseDate);

    WriteText(writer, Text4, true);

    writer.WriteTag(RscType::Array);
    writer.WriteTag(RscType::String);
    writer.WriteArrayLength(TextList.size());
    for (const Text& text : TextList)
    {
        WriteText(writer, text, false);
    }

    WriteText(writer, Text5, true);

    writer.WriteTag(RscType::UInt32);
    writer.WriteDataInternal(&UpdateBehavior, sizeof(UpdateBehavior));

    writer.WriteTag(RscType::Array);
    writer.WriteBeginStruct(Tag::FieldCount);
    writer.WriteArrayLength(Tags.size());
    System::Rsc::RemotingWriter& nested = writer.GetNestedDataWriter();
    for (const Tag& tag : Tags)
    {
        tag.Tag::WriteTo(nested);
    }
}

void Manifest::ReadFrom(System::Rsc::RemotingReader& reader)
{
    ReadText(reader, ShortText, true);
    ReadText(reader, Text1, true);
    ReadText(reader, Manufacturer, true);
    ReadText(reader, ManufacturerUri, true);
    ReadText(reader, Text2, true);
    ReadText(reader, Text3, true);
    ReadText(reader, Version, true);

    reader.ReadTag(RscType::DateTime);
    ReleaseDate = reader.ReadDateTime();
    if (IsUnspecified(ReleaseDate))
    {
        throw System::Commons::NotSupportedException("DateTimeKind Unspecified not supported.");
    }

    ReadText(reader, Text4, true);

    reader.ReadTag(RscType::Array);
    reader.ReadTag(RscType::String);
    const std::size_t textCount = ReadListCount(reader);
    ReserveFor(TextList, textCount, reader, MinUntaggedStringBytes);
    for (std::size_t i = 0; i < textCount; ++i)
    {
        ReadElement(TextList, [&](Text& text) { ReadText(reader, text, false); });
    }

    ReadText(reader, Text5, true);

    std::uint32_t behavior = 0;
    reader.ReadTag(RscType::UInt32);
    reader.ReadDataInternal(&behavior, sizeof(behavior));
    UpdateBehavior = behavior;

    reader.ReadTag(RscType::Array);
    reader.ReadBeginStruct(Tag::FieldCount);
    const std::size_t tagCount = ReadListCount(reader);
    ReserveFor(Tags, tagCount, reader, MinTagBytes);
    System::Rsc::RemotingReader& nested = reader.GetNestedDataReader();
    for (std::size_t i = 0; i < tagCount; ++i)
    {
        ReadElement(Tags, [&](Tag& tag) { tag.Tag::ReadFrom(nested); });
    }
}

// Exported here: the class attribute does not reach a friend declared inside it.
ZUN_EXPORT bool operator==(const Manifest& a, const Manifest& b) noexcept
{
    return a.ShortText == b.ShortText && a.Text1 == b.Text1 && a.Manufacturer == b.Manufacturer &&
           a.ManufacturerUri == b.ManufacturerUri && a.Text2 == b.Text2 && a.Text3 == b.Text3 && a.Version == b.Version &&
           a.ReleaseDate == b.ReleaseDate && a.Text4 == b.Text4 && a.TextList == b.TextList && a.Text5 == b.Text5 &&
           a.UpdateBehavior == b.UpdateBehavior && a.Tags == b.Tags;
}

} // namespace Zun::Services::SoftwareManager::Services::Internal
