#include <functional>
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
using Zun::Services::SoftwareUpdate::Services::Internal::SoftwareVersionType;
using Zun::System::Commons::NotSupportedException;
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

WireBytes Head(std::uint32_t patchCount)
{
    return WireBytes().Text("Tesmora").Text("urn:tesmora").Text("1.2.0").TextListHeader(patchCount);
}

TEST(SoftwareVersionTypeTest, WritesTheExactSequenceReadsItBackAndAppendsPatches)
{
    const Bytes two = Head(2).Text("p1", false).Text("p22", false).Tag(RscType::DateTime).Date(Released).Text("http://log").bytes;
    EXPECT_EQ(Write(Version({"p1", "p22"})), two);
    EXPECT_EQ(Read<SoftwareVersionType>(two), Version({"p1", "p22"}));
    ExpectEveryPrefixFails<SoftwareVersionType>(two);

    SoftwareVersionType version;
    version.PatchIdentifiers = {Text("a")};
    Zun::System::Rsc::RemotingReader reader(two.data(), two.size());
    version.ReadFrom(reader);
    EXPECT_EQ(version.PatchIdentifiers, (std::vector<Text>{Text("a"), Text("p1"), Text("p22")}));
}

TEST(SoftwareVersionTypeTest, UnspecifiedDateIsRefusedAfterWhatPrecedesIt)
{
    Bytes written;
    EXPECT_EQ(WriteFailure<NotSupportedException>(SoftwareVersionType(), written), "DateTimeKind Unspecified not supported.");
    EXPECT_EQ(written, WireBytes().Text("").Text("").Text("").TextListHeader(0).bytes);

    const DateTime unspecified(42, DateTimeKind::Unspecified);
    SoftwareVersionType version;
    version.ChangeLogReference = Zun::String("untouched");
    EXPECT_EQ(ReadFailure<NotSupportedException>(Head(0).Tag(RscType::DateTime).Date(unspecified).Text("http://log").bytes, version),
              "DateTimeKind Unspecified not supported.");
    EXPECT_EQ(version.ReleaseDate, unspecified);
    EXPECT_EQ(version.SoftwareRevision, Text("1.2.0"));
    EXPECT_EQ(version.ChangeLogReference, Text("untouched"));
}

TEST(SoftwareVersionTypeTest, PatchCountAtTheLimitIsALengthErrorBelowItAStreamFault)
{
    SoftwareVersionType version;
    EXPECT_EQ(ReadFailure<std::length_error>(Head(SoftwareVersionType::MaxListCount).bytes, version), "vector::reserve");
    EXPECT_EQ(ReadFailure<std::length_error>(Head(0x7FFFFFFF).bytes, version), "vector::reserve");
    EXPECT_EQ(version.SoftwareRevision, Text("1.2.0"));
    // Just below the limit the count is believed, but the stream runs out: no giant allocation.
    EXPECT_EQ(ReadFailure<Zun::System::Rsc::RemotingException>(Head(SoftwareVersionType::MaxListCount - 1).bytes, version),
              "Unexpected end of data: 1 bytes needed, 0 left.");
}

TEST(SoftwareVersionTypeTest, ResetAndEqualityCoverEveryField)
{
    SoftwareVersionType version = Version({"p1", "p2"});
    version.Reset();
    EXPECT_EQ(version, SoftwareVersionType());
    EXPECT_EQ(version.PatchIdentifiers.capacity(), 0u);
    EXPECT_EQ(version.ReleaseDate.ToBinary(), 0u);

    const std::function<void(SoftwareVersionType&)> changes[] = {
        [](SoftwareVersionType& v) { v.Manufacturer = Zun::String("x"); },
        [](SoftwareVersionType& v) { v.ManufacturerUri = Zun::String("x"); },
        [](SoftwareVersionType& v) { v.SoftwareRevision = Zun::String("x"); },
        [](SoftwareVersionType& v) { v.PatchIdentifiers.emplace_back("q"); },
        [](SoftwareVersionType& v) { v.ReleaseDate = DateTime(1, DateTimeKind::Local); },
        [](SoftwareVersionType& v) { v.ChangeLogReference = Zun::String("x"); },
    };
    for (const auto& change : changes)
    {
        SoftwareVersionType changed = Version({"p"});
        change(changed);
        EXPECT_FALSE(changed == Version({"p"}));
    }
}

} // namespace
