#include <functional>
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
const DateTime Unspecified(7, DateTimeKind::Unspecified);

// The seven texts, all different.
WireBytes Texts(const std::string& shortText = "short")
{
    return WireBytes().Text(shortText).Text("t1").Text("Tesmora").Text("urn:tesmora").Text("t2").Text("t3").Text("2.0");
}

// A manifest as the head of Texts() and `date` make it, over `manifest`.
Manifest WithHead(Manifest manifest, DateTime date)
{
    manifest.ShortText = Zun::String("short");
    manifest.Text1 = Zun::String("t1");
    manifest.Manufacturer = Zun::String("Tesmora");
    manifest.ManufacturerUri = Zun::String("urn:tesmora");
    manifest.Text2 = Zun::String("t2");
    manifest.Text3 = Zun::String("t3");
    manifest.Version = Zun::String("2.0");
    manifest.ReleaseDate = date;
    return manifest;
}

// Every field set, so that a read which stops early shows what it left alone.
Manifest Old()
{
    Manifest manifest;
    manifest.ShortText = Zun::String("old");
    manifest.Text4 = Zun::String("old4");
    manifest.TextList = {Text("old")};
    manifest.Text5 = Zun::String("old5");
    manifest.UpdateBehavior = 9;
    manifest.Tags = {Tag("k", "v")};
    return manifest;
}

TEST(ManifestTest, UnspecifiedDateIsRefusedOnWritingAfterTheSevenTexts)
{
    Bytes written;
    EXPECT_EQ(WriteFailure<NotSupportedException>(WithHead(Manifest(), DateTime()), written), "DateTimeKind Unspecified not supported.");
    EXPECT_EQ(written, Texts().bytes);
}

struct ReadFailureCase
{
    const char* name;
    Bytes data;
    std::function<std::string(const Bytes&, Manifest&)> read;
    const char* message;
    Manifest expected; // what the record holds afterwards
};

TEST(ManifestTest, ReadFailuresKeepWhatWasReadAndLeaveTheRest)
{
    const auto remoting = ReadFailure<RemotingException, Manifest>;
    const auto notSupported = ReadFailure<NotSupportedException, Manifest>;
    const auto lengthError = ReadFailure<std::length_error, Manifest>;
    Manifest afterText4 = WithHead(Old(), Released);
    afterText4.Text4 = Zun::String();
    Manifest afterText5 = afterText4;
    afterText5.Text5 = Zun::String();
    Manifest afterBehavior = afterText5;
    afterBehavior.UpdateBehavior = 0;
    Manifest afterTags = afterBehavior; // a tag whose reading failed is not kept
    afterTags.Tags.emplace_back("n", "v");
    const ReadFailureCase cases[] = {
        {"unspecified date", Texts().Tag(RscType::DateTime).Date(Unspecified).Text("t4").TextListHeader(0).bytes, notSupported,
         "DateTimeKind Unspecified not supported.", WithHead(Old(), Unspecified)},
        {"short text beyond capacity 64", Texts(std::string(64, 's')).bytes, remoting,
         "String of 64 bytes does not fit a capacity of 64 bytes with its terminator.", Old()},
        {"text list count at the limit", Texts().Tag(RscType::DateTime).Date(Released).Text("").TextListHeader(Manifest::MaxListCount).bytes,
         lengthError, "vector::reserve", afterText4},
        {"wrong tag for the behaviour", Texts().Tag(RscType::DateTime).Date(Released).Text("").TextListHeader(0).Text("").Int32(0).bytes,
         remoting, "Unexpected tag 8 where 9 was expected.", afterText5},
        {"tag count at the limit",
         Texts().Tag(RscType::DateTime).Date(Released).Text("").TextListHeader(0).Text("").UInt32(0).Tag(RscType::Array).Struct(2)
             .Count(Manifest::MaxListCount).bytes,
         lengthError, "vector::reserve", afterBehavior},
        {"second tag cut short",
         Texts().Tag(RscType::DateTime).Date(Released).Text("").TextListHeader(0).Text("").UInt32(0).Tag(RscType::Array).Struct(2)
             .Count(2).Text("n").Text("v").Text("m").bytes,
         remoting, "Unexpected end of data: 1 bytes needed, 0 left.", afterTags},
    };
    for (const auto& c : cases)
    {
        Manifest manifest = Old();
        EXPECT_EQ(c.read(c.data, manifest), c.message) << c.name;
        EXPECT_EQ(manifest, c.expected) << c.name;
    }
    // One byte less fits.
    Manifest fits;
    EXPECT_EQ(remoting(Texts(std::string(63, 's')).bytes, fits), "Unexpected end of data: 1 bytes needed, 0 left.");
    EXPECT_EQ(fits.ShortText.ToString(), std::string(63, 's'));
}

TEST(ManifestTest, ListReadersAppend)
{
    Manifest source = WithHead(Manifest(), Released);
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

} // namespace
