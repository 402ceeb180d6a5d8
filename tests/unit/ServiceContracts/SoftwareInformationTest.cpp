#include <gtest/gtest.h>

#include "ServiceContracts/SoftwareInformation.hpp"
#include "WireBytes.hpp"

namespace
{

using namespace Zun::Testing::Wire;
using namespace Zun::Services::SoftwareManager::Services::Internal;
using Zun::DateTime;
using Zun::DateTimeKind;
using Text = Zun::System::Rsc::RscString<512>;

const DateTime CurrentDate(638'000'000'000'000'000, DateTimeKind::Utc);
const DateTime PendingDate(638'100'000'000'000'000, DateTimeKind::Local);

Manifest MakeManifest(const char* version, DateTime date, std::uint32_t behavior)
{
    Manifest manifest;
    manifest.ShortText = Zun::String("pkg");
    manifest.Text1 = Zun::String("one");
    manifest.Manufacturer = Zun::String("Tesmora");
    manifest.ManufacturerUri = Zun::String("urn:tesmora");
    manifest.Text2 = Zun::String("two");
    manifest.Text3 = Zun::String("three");
    manifest.Version = Zun::String(version);
    manifest.ReleaseDate = date;
    manifest.Text4 = Zun::String("four");
    manifest.TextList = {Text("l1"), Text("l2")};
    manifest.Text5 = Zun::String("five");
    manifest.UpdateBehavior = behavior;
    manifest.Tags = {Tag("os", "linux"), Tag("arch", "armhf")};
    return manifest;
}

SoftwareInformation MakeInformation(bool hasPending)
{
    SoftwareInformation information;
    information.Name = Zun::String("app");
    information.Kind = SoftwareKind::TesmoraEngineerProject;
    information.HasCurrentManifest = true;
    information.CurrentManifest = MakeManifest("1.0", CurrentDate, 0x01);
    information.HasPendingManifest = hasPending;
    information.PendingManifest = MakeManifest("1.1", PendingDate, 0x19);
    return information;
}

// The manifest's thirteen fields, as they follow its struct header.
void AppendManifest(WireBytes& wire, const char* version, DateTime date, std::uint32_t behavior)
{
    wire.Text("pkg").Text("one").Text("Tesmora").Text("urn:tesmora").Text("two").Text("three").Text(version)
        .Tag(RscType::DateTime).Date(date)
        .Text("four")
        .TextListHeader(2).Text("l1", false).Text("l2", false)
        .Text("five")
        .UInt32(behavior)
        .Tag(RscType::Array).Struct(2).Count(2).Text("os").Text("linux").Text("arch").Text("armhf");
}

Bytes Expected(bool hasPending)
{
    WireBytes wire;
    wire.Text("app").Int32(2).Bool(true).Struct(13);
    AppendManifest(wire, "1.0", CurrentDate, 0x01);
    wire.Bool(hasPending).Struct(13); // the pending manifest travels whole even when flagged absent
    AppendManifest(wire, "1.1", PendingDate, 0x19);
    return wire.bytes;
}

TEST(SoftwareInformationTest, WritesBothManifestsByteForByteAndReadsThemBack)
{
    for (bool hasPending : {true, false})
    {
        const Bytes expected = Expected(hasPending);
        EXPECT_EQ(Write(MakeInformation(hasPending)), expected) << "hasPending " << hasPending;
        EXPECT_EQ(Read<SoftwareInformation>(expected), MakeInformation(hasPending)) << "hasPending " << hasPending;
    }
    ExpectEveryPrefixFails<SoftwareInformation>(Expected(true));
}

} // namespace
