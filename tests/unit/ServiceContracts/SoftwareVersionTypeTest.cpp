#include <stdexcept>

#include <gtest/gtest.h>

#include "ServiceContracts/SoftwareVersionType.hpp"
#include "WireBytes.hpp"
#include "Zun/Commons/Exception.hpp"

namespace
{

using namespace Zun::Testing::Wire;
using Zun::DateTime;
using Zun::DateTimeKind;
using Zun::System::Commons::NotSupportedException;
using Zun::Services::SoftwareUpdate::Services::Internal::SoftwareVersionType;
using Text = Zun::System::Rsc::RscString<512>;

const DateTime Released(638'400'000'000'000'000, DateTimeKind::Utc);

SoftwareVersionType Version(std::initializer_list<const char*> patches = {})
{
    SoftwareVersionType version;
    version.Manufacturer = Zun::String("Tesmora");
    version.ManufacturerUri = Zun::String("urn:tesmora");
    version.SoftwareRevision = Zun::String("1.2.0");
    for (const char* patch : patches)
    {
        version.PatchIdentifiers.emplace_back(patch);
    }
    version.ReleaseDate = Released;
    version.ChangeLogReference = Zun::String("http://log");
    return version;
}

WireBytes Head()
{
    return WireBytes().Text("Tesmora").Text("urn:tesmora").Text("1.2.0");
}

TEST(SoftwareVersionTypeTest, WritesTheExactSequenceAndReadsItBack)
{
    const Bytes empty = Head()
                            .Tag(RscType::Array).Tag(RscType::String).U32(0)
                            .Tag(RscType::DateTime).Date(Released)
                            .Text("http://log")
                            .bytes;
    EXPECT_EQ(Write(Version()), empty);
    EXPECT_EQ(Read<SoftwareVersionType>(empty), Version());

    const Bytes two = Head()
                          .Tag(RscType::Array).Tag(RscType::String).U32(2).Text("p1", false).Text("p22", false)
                          .Tag(RscType::DateTime).Date(Released)
                          .Text("http://log")
                          .bytes;
    EXPECT_EQ(Write(Version({"p1", "p22"})), two);
    EXPECT_EQ(Read<SoftwareVersionType>(two), Version({"p1", "p22"}));
}

TEST(SoftwareVersionTypeTest, DefaultRecordCannotBeWrittenAfterTextsAndPatchList)
{
    Bytes buffer;
    Zun::System::Rsc::RemotingWriter writer(buffer);
    ExpectThrowWithMessage<NotSupportedException>([&] { SoftwareVersionType().WriteTo(writer); },
                                                  "DateTimeKind Unspecified not supported.");
    EXPECT_EQ(buffer, WireBytes().Text("").Text("").Text("").Tag(RscType::Array).Tag(RscType::String).U32(0).bytes);
}

TEST(SoftwareVersionTypeTest, ReadingAnUnspecifiedDateStoresItAndStops)
{
    const DateTime unspecified(42, DateTimeKind::Unspecified);
    const Bytes data = Head()
                           .Tag(RscType::Array).Tag(RscType::String).U32(0)
                           .Tag(RscType::DateTime).Date(unspecified)
                           .Text("http://log")
                           .bytes;
    SoftwareVersionType version;
    version.ChangeLogReference = Zun::String("untouched");
    Zun::System::Rsc::RemotingReader reader(data.data(), data.size());
    ExpectThrowWithMessage<NotSupportedException>([&] { version.ReadFrom(reader); }, "DateTimeKind Unspecified not supported.");
    EXPECT_EQ(version.ReleaseDate, unspecified);
    EXPECT_EQ(version.SoftwareRevision, Text("1.2.0"));
    EXPECT_EQ(version.ChangeLogReference, Text("untouched"));
}

TEST(SoftwareVersionTypeTest, ReadingAppendsToExistingPatches)
{
    SoftwareVersionType version;
    version.PatchIdentifiers = {Text("a"), Text("b")};
    const Bytes data = Write(Version({"c", "d", "e"}));
    Zun::System::Rsc::RemotingReader reader(data.data(), data.size());
    version.ReadFrom(reader);
    ASSERT_EQ(version.PatchIdentifiers.size(), 5u);
    EXPECT_EQ(version.PatchIdentifiers[0], Text("a"));
    EXPECT_EQ(version.PatchIdentifiers[4], Text("e"));
}

TEST(SoftwareVersionTypeTest, PatchCountAtTheLimitIsALengthErrorBelowItAStreamFault)
{
    const auto withCount = [](std::uint32_t count) {
        return Head().Tag(RscType::Array).Tag(RscType::String).U32(count).bytes;
    };
    const Bytes huge = withCount(SoftwareVersionType::MaxListCount);
    ExpectThrowWithMessage<std::length_error>([&] { Read<SoftwareVersionType>(huge); }, "vector::reserve");
    const Bytes largest = withCount(0x7FFFFFFF);
    EXPECT_THROW(Read<SoftwareVersionType>(largest), std::length_error);
    // Just below the limit the count is believed, but the stream runs out: no giant allocation.
    const Bytes below = withCount(SoftwareVersionType::MaxListCount - 1);
    EXPECT_THROW(Read<SoftwareVersionType>(below), Zun::System::Rsc::RemotingException);
}

TEST(SoftwareVersionTypeTest, TruncatedStreamsFailAsStreamFaults)
{
    ExpectEveryPrefixFails<SoftwareVersionType>(Write(Version({"p1"})));
}

TEST(SoftwareVersionTypeTest, ResetRestoresTheDefaultAndReleasesTheList)
{
    SoftwareVersionType version = Version({"p1", "p2"});
    version.Reset();
    EXPECT_EQ(version, SoftwareVersionType());
    EXPECT_EQ(version.PatchIdentifiers.capacity(), 0u);
    EXPECT_EQ(version.ReleaseDate.ToBinary(), 0u);
}

TEST(SoftwareVersionTypeTest, EqualityLooksAtEveryField)
{
    const SoftwareVersionType base = Version({"p"});
    std::vector<std::function<void(SoftwareVersionType&)>> changes = {
        [](SoftwareVersionType& v) { v.Manufacturer = Zun::String("x"); },
        [](SoftwareVersionType& v) { v.ManufacturerUri = Zun::String("x"); },
        [](SoftwareVersionType& v) { v.SoftwareRevision = Zun::String("x"); },
        [](SoftwareVersionType& v) { v.PatchIdentifiers.emplace_back("q"); },
        [](SoftwareVersionType& v) { v.ReleaseDate = DateTime(1, DateTimeKind::Local); },
        [](SoftwareVersionType& v) { v.ChangeLogReference = Zun::String("x"); },
    };
    for (std::size_t i = 0; i < changes.size(); ++i)
    {
        SoftwareVersionType changed = base;
        changes[i](changed);
        EXPECT_FALSE(changed == base) << "field " << i;
    }
}

} // namespace
