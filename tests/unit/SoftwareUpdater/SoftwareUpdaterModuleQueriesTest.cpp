#include <optional>

#include "UpdaterModuleFixture.hpp"

namespace Zun::Testing::UpdaterModule
{
namespace
{

using RscText = System::Rsc::RscString<512>;
using Behavior = Su::UpdateBehavior;

// "Generic files / app": 1.0 installed, 2.0 pending.
class QueriesTest : public UpdaterModuleTest
{
public:
    void SetUp() override
    {
        env.managerFake->AddComponent(Kind::GenericFiles, "app", Manifest("1.0", "urn:current"), Manifest("2.0", "urn:pending", 0x1F));
        Start();
    }

    // Every field set, so that a missed reset shows.
    static Su::SoftwareVersionType Junk()
    {
        Su::SoftwareVersionType version = Request("9.9", "urn:junk");
        version.Manufacturer = RscText("junk manufacturer");
        version.PatchIdentifiers = {RscText("KB1"), RscText("KB2")};
        version.ReleaseDate = DateTime::FromUnixTimeMilliseconds(42);
        version.ChangeLogReference = RscText("https://junk/changes");
        return version;
    }

    // The out value's revision, or "reset" when every field was reset.
    std::string Version(const String& name, std::int32_t fileType, StatusCode code)
    {
        Su::SoftwareVersionType version = Junk();
        EXPECT_EQ(module->GetSoftwareVersion(name, static_cast<FileType>(fileType), version), code) << name << " " << fileType;
        const bool reset = version == Su::SoftwareVersionType() && version.PatchIdentifiers.capacity() == 0u;
        return reset ? "reset" : version.SoftwareRevision.ToString() + " " + version.ManufacturerUri.ToString();
    }

    std::string BehaviorOf(const char* uri, const char* revision, StatusCode code, std::vector<String> patches = {})
    {
        logs.Clear();
        auto behavior = static_cast<Behavior>(0xFFFFFFFFu);
        EXPECT_EQ(module->GetUpdateBehavior(App, uri, revision, patches, behavior), code) << uri << " " << revision;
        return fmt::format("{:#x} {}", static_cast<std::uint32_t>(behavior), Log());
    }
};

TEST_F(QueriesTest, GetSoftwareVersionChoosesTheManifestAndResetsTheOutValueFirst)
{
    EXPECT_EQ(Version(App, 0, Codes::Good), "1.0 urn:current");
    EXPECT_EQ(Version(App, 1, Codes::Good), "2.0 urn:pending");
    for (std::int32_t fileType : {2, 3, -1})
    {
        EXPECT_EQ(Version(App, fileType, Codes::BadNotFound), "reset");
    }
    EXPECT_EQ(ManagerJournal(), "GetSoftwareInformation(1, app); GetSoftwareInformation(1, app); GetSoftwareInformation(1, app); "
                                "GetSoftwareInformation(1, app); GetSoftwareInformation(1, app)");
    env.managerFake->SetCurrent(Kind::GenericFiles, "app", std::nullopt);
    env.managerFake->SetPending(Kind::GenericFiles, "app", std::nullopt);
    EXPECT_EQ(Version(App, 0, Codes::BadNotFound), "reset");
    EXPECT_EQ(Version(App, 1, Codes::BadNotFound), "reset");
    EXPECT_EQ(Journal() + Log(), "");
}

TEST_F(QueriesTest, GetSoftwareVersionRefusesInvalidNamesAndPassesManagerFailuresOnWithTheOutValueReset)
{
    for (const char* name : {"", "app", "Unknown kind / app", "Generic files/app"})
    {
        EXPECT_EQ(Version(name, 0, Codes::BadInvalidArgument), "reset");
    }
    EXPECT_EQ(ManagerJournal(), "");
    EXPECT_EQ(Version("Generic files / ghost", 0, Codes::BadNotFound), "reset");
    env.managerFake->FailOperation("GetSoftwareInformation", Codes::BadNoCommunication);
    EXPECT_EQ(Version(App, 0, Codes::BadNoCommunication), "reset");
    EXPECT_EQ(Log(), "");
}

TEST_F(QueriesTest, GetSoftwareVersionMapsTheManifestFieldByFieldForTheKindAndBareName)
{
    // Every manifest text distinct, so that a field read from the wrong place shows.
    Sm::Manifest manifest;
    manifest.ShortText = System::Rsc::RscString<64>("short");
    manifest.Text1 = RscText("text1");
    manifest.Manufacturer = RscText(String(511, 'm'));
    manifest.ManufacturerUri = RscText("urn:zun:long");
    manifest.Text2 = RscText("text2");
    manifest.Text3 = RscText("text3");
    manifest.Version = RscText("3.1.4-rc1");
    manifest.ReleaseDate = DateTime::FromUnixTimeMilliseconds(1'700'000'000'123, DateTimeKind::Local);
    manifest.Text4 = RscText("text4");
    manifest.TextList = {RscText("KB-100"), RscText("KB-200")};
    manifest.Text5 = RscText("text5");
    env.managerFake->AddComponent(Kind::TesmoraEngineerProject, "plant / line 1", std::nullopt, manifest);
    Su::SoftwareVersionType version = Junk();

    ASSERT_EQ(module->GetSoftwareVersion("Tesmora Engineer project / plant / line 1", FileType::Pending, version), Codes::Good);

    EXPECT_EQ(ManagerJournal(), "GetSoftwareInformation(2, plant / line 1)");
    EXPECT_EQ(version.Manufacturer.ToString(), String(511, 'm'));
    EXPECT_EQ(version.ManufacturerUri.ToString(), "urn:zun:long");
    EXPECT_EQ(version.SoftwareRevision.ToString(), "3.1.4-rc1");
    EXPECT_TRUE(version.ReleaseDate == manifest.ReleaseDate);
    EXPECT_EQ(version.ReleaseDate.GetKind(), DateTimeKind::Local);
    EXPECT_TRUE(version.PatchIdentifiers.empty());
    EXPECT_EQ(version.ChangeLogReference.ToString(), "");
}

TEST_F(QueriesTest, GetUpdateBehaviorChecksRevisionThenUriAndIgnoresPatchIdentifiers)
{
    EXPECT_EQ(BehaviorOf("urn:pending", "2.0", Codes::Good, {"KB1", "KB2"}), "0x1f ");
    EXPECT_EQ(BehaviorOf("urn:other", "1.0", Codes::BadNotFound),
              "0x0 7 No pending software package: componentId=%; softwareRevision=1.0");
    EXPECT_EQ(BehaviorOf("URN:PENDING", "2.0", Codes::BadNotFound), "0x0 7 Unknown manufacturerUri: URN:PENDING");
    EXPECT_EQ(BehaviorOf("", "2.0", Codes::BadNotFound), "0x0 7 Unknown manufacturerUri: ");
    EXPECT_EQ(BehaviorOf("urn:pending", "2.0.0", Codes::BadNotFound),
              "0x0 7 No pending software package: componentId=%; softwareRevision=2.0.0");
    // The stored bits pass through unchanged.
    for (std::uint32_t bits : {0x00u, 0x10u, 0x80000001u, 0xFFFFFFFFu})
    {
        env.managerFake->SetPending(Kind::GenericFiles, "app", Manifest("2.0", "urn:pending", bits));
        EXPECT_EQ(BehaviorOf("urn:pending", "2.0", Codes::Good), fmt::format("{:#x} ", bits));
    }
    // An empty pending revision matches an empty request; an absent manifest's empty revision does not.
    env.managerFake->SetPending(Kind::GenericFiles, "app", Manifest("", "urn:pending", 0x04));
    EXPECT_EQ(BehaviorOf("urn:pending", "", Codes::Good), "0x4 ");
    env.managerFake->SetPending(Kind::GenericFiles, "app", std::nullopt);
    EXPECT_EQ(BehaviorOf("", "", Codes::BadNotFound), "0x0 7 No pending software package: componentId=%; softwareRevision=");
}

TEST_F(QueriesTest, GetUpdateBehaviorRefusesInvalidNamesAndPassesManagerFailuresWithBehaviorZero)
{
    auto behavior = Behavior::WillReboot;
    EXPECT_EQ(module->GetUpdateBehavior("Generic files:app", "urn:pending", "2.0", {}, behavior), Codes::BadInvalidArgument);
    EXPECT_EQ(behavior, Behavior::None);
    EXPECT_EQ(ManagerJournal(), "");

    env.managerFake->FailOperation("GetSoftwareInformation", Codes::BadNoCommunication);
    EXPECT_EQ(BehaviorOf("urn:pending", "2.0", Codes::BadNoCommunication), "0x0 ");
    EXPECT_EQ(ManagerJournal() + Journal(), "GetSoftwareInformation(1, app)");
}

// IsPendingVersionAvailable: the first failing check decides; fields that are not compared make no difference.
TEST_F(QueriesTest, PendingVersionChecksPresenceRevisionUriAndPatchesInThatOrder)
{
    for (const auto& [pending, revision, uri, patches, log] :
         {std::tuple(true, "1.0", "urn:a", 0, ""), std::tuple(false, "1.0", "urn:a", 0, "7 Has no pending software package."),
          std::tuple(false, "x", "y", 2, "7 Has no pending software package."),
          std::tuple(true, "1.0.0", "urn:a", 0, "7 SoftwareRevision mismatch. Pending version is 1.0 but requested 1.0.0"),
          std::tuple(true, "2.0", "URN:A", 1, "7 SoftwareRevision mismatch. Pending version is 1.0 but requested 2.0"),
          std::tuple(true, "1.0", "URN:A", 0, "7 ManufacturerUri mismatch. Pending ManufacturerUri is urn:a but must be URN:A."),
          std::tuple(true, "1.0", "urn:a ", 3, "7 ManufacturerUri mismatch. Pending ManufacturerUri is urn:a but must be urn:a ."),
          std::tuple(true, "1.0", "urn:a", 1, "7 PatchIdentifiers mismatch. Must be empty")})
    {
        Sm::SoftwareInformation information;
        information.HasPendingManifest = pending;
        information.PendingManifest = Manifest("1.0", "urn:a");
        Su::SoftwareVersionType version = Junk();
        version.SoftwareRevision = RscText(revision);
        version.ManufacturerUri = RscText(uri);
        version.PatchIdentifiers.assign(patches, RscText("KB1"));
        Clear();

        EXPECT_EQ(module->IsPendingVersionAvailable(information, version), *log ? Codes::BadNotFound : Codes::Good) << log;
        EXPECT_EQ(Log(), log);
    }
    EXPECT_EQ(ManagerJournal() + Journal(), "");
}

} // namespace
} // namespace Zun::Testing::UpdaterModule
