#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "ServiceContracts/Manifest.hpp"
#include "WireBytes.hpp"
#include "Zun/Commons/Exception.hpp"

namespace
{

using namespace Zun::Testing::Wire;
using namespace Zun::Services::SoftwareManager::Services::Internal;
using Zun::DateTime;
using Zun::DateTimeKind;
using Zun::System::Commons::NotSupportedException;
using Zun::System::Rsc::RemotingException;
using Text = Zun::System::Rsc::RscString<512>;

const DateTime Released(638'400'000'000'000'000, DateTimeKind::Local);

// A manifest whose thirteen fields all differ, up to its release date.
WireBytes HeadUpToDate(DateTime date = Released, const char* shortText = "short")
{
    return WireBytes()
        .Text(shortText).Text("t1").Text("Tesmora").Text("urn:tesmora").Text("t2").Text("t3").Text("2.0")
        .Tag(RscType::DateTime).Date(date);
}

Manifest Filled()
{
    Manifest manifest;
    manifest.ShortText = Zun::String("short");
    manifest.Text1 = Zun::String("t1");
    manifest.Manufacturer = Zun::String("Tesmora");
    manifest.ManufacturerUri = Zun::String("urn:tesmora");
    manifest.Text2 = Zun::String("t2");
    manifest.Text3 = Zun::String("t3");
    manifest.Version = Zun::String("2.0");
    manifest.ReleaseDate = Released;
    return manifest;
}

TEST(ManifestTest, EmptyListsWriteOnlyTheirHeaders)
{
    const Bytes expected = HeadUpToDate()
                               .Text("")
                               .Tag(RscType::Array).Tag(RscType::String).U32(0)
                               .Text("")
                               .UInt32(0x11)
                               .Tag(RscType::Array).Struct(2).U32(0)
                               .bytes;
    Manifest manifest = Filled();
    manifest.UpdateBehavior = 0x11;
    EXPECT_EQ(Write(manifest), expected);
    EXPECT_EQ(Read<Manifest>(expected), manifest);
}

TEST(ManifestTest, UnspecifiedDateIsRefusedOnWritingAfterTheSevenTexts)
{
    Manifest manifest = Filled();
    manifest.ReleaseDate = DateTime();
    Bytes buffer;
    Zun::System::Rsc::RemotingWriter writer(buffer);
    ExpectThrowWithMessage<NotSupportedException>([&] { manifest.WriteTo(writer); }, "DateTimeKind Unspecified not supported.");
    EXPECT_EQ(buffer, WireBytes().Text("short").Text("t1").Text("Tesmora").Text("urn:tesmora").Text("t2").Text("t3").Text("2.0").bytes);
}

TEST(ManifestTest, UnspecifiedDateIsRefusedOnReadingAndLaterFieldsStayUntouched)
{
    const DateTime unspecified(7, DateTimeKind::Unspecified);
    const Bytes data = HeadUpToDate(unspecified)
                           .Text("t4").Tag(RscType::Array).Tag(RscType::String).U32(1).Text("x", false)
                           .Text("t5").UInt32(3).Tag(RscType::Array).Struct(2).U32(0)
                           .bytes;
    Manifest manifest;
    manifest.Text4 = Zun::String("old4");
    manifest.TextList = {Text("old")};
    manifest.Text5 = Zun::String("old5");
    manifest.UpdateBehavior = 9;
    manifest.Tags = {Tag("k", "v")};
    const Manifest before = manifest;
    Zun::System::Rsc::RemotingReader reader(data.data(), data.size());
    ExpectThrowWithMessage<NotSupportedException>([&] { manifest.ReadFrom(reader); }, "DateTimeKind Unspecified not supported.");
    EXPECT_EQ(manifest.ReleaseDate, unspecified);
    EXPECT_EQ(manifest.Version, Text("2.0"));
    EXPECT_EQ(manifest.Text4, before.Text4);
    EXPECT_EQ(manifest.TextList, before.TextList);
    EXPECT_EQ(manifest.Text5, before.Text5);
    EXPECT_EQ(manifest.UpdateBehavior, before.UpdateBehavior);
    EXPECT_EQ(manifest.Tags, before.Tags);
}

TEST(ManifestTest, ShortTextIsReadWithCapacity64)
{
    const std::string fits(63, 's');
    const std::string tooLong(64, 's');
    const auto stream = [](const std::string& shortText) {
        return HeadUpToDate(Released, shortText.c_str())
            .Text("").Tag(RscType::Array).Tag(RscType::String).U32(0).Text("").UInt32(0)
            .Tag(RscType::Array).Struct(2).U32(0)
            .bytes;
    };
    EXPECT_EQ(Read<Manifest>(stream(fits)).ShortText.ToString(), fits);
    ExpectThrowWithMessage<RemotingException>([&] { Read<Manifest>(stream(tooLong)); },
                                              "String of 64 bytes does not fit a capacity of 64 bytes with its terminator.");
}

TEST(ManifestTest, ListReadersAppend)
{
    Manifest source = Filled();
    source.TextList = {Text("c")};
    source.Tags = {Tag("n2", "v2")};
    const Bytes data = Write(source);
    Manifest manifest;
    manifest.TextList = {Text("a"), Text("b")};
    manifest.Tags = {Tag("n1", "v1")};
    Zun::System::Rsc::RemotingReader reader(data.data(), data.size());
    manifest.ReadFrom(reader);
    EXPECT_EQ(manifest.TextList, (std::vector<Text>{Text("a"), Text("b"), Text("c")}));
    EXPECT_EQ(manifest.Tags, (std::vector<Tag>{Tag("n1", "v1"), Tag("n2", "v2")}));
}

TEST(ManifestTest, ListCountsAtTheLimitAreLengthErrors)
{
    const Bytes textList = HeadUpToDate().Text("").Tag(RscType::Array).Tag(RscType::String).U32(Manifest::MaxListCount).bytes;
    ExpectThrowWithMessage<std::length_error>([&] { Read<Manifest>(textList); }, "vector::reserve");
    const Bytes tags = HeadUpToDate()
                           .Text("").Tag(RscType::Array).Tag(RscType::String).U32(0).Text("").UInt32(0)
                           .Tag(RscType::Array).Struct(2).U32(Manifest::MaxListCount)
                           .bytes;
    ExpectThrowWithMessage<std::length_error>([&] { Read<Manifest>(tags); }, "vector::reserve");
}

TEST(TagTest, WritesNameAndValueAndReadsThemBack)
{
    const Bytes expected = WireBytes().Text("name").Text("value").bytes;
    EXPECT_EQ(Write(Tag("name", "value")), expected);
    EXPECT_EQ(Read<Tag>(expected), Tag("name", "value"));
    ExpectEveryPrefixFails<Tag>(expected);
}

} // namespace
