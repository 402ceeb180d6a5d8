#include <optional>

#include "UpdaterModuleFixture.hpp"

namespace Zun::Testing::UpdaterModule
{
namespace
{

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using RscText = System::Rsc::RscString<512>;
using Behavior = Su::UpdateBehavior;

constexpr StatusCode BadNoCommunication = 0x80310000;

// Every field set, so that a missed reset shows.
Su::SoftwareVersionType Junk()
{
    Su::SoftwareVersionType version;
    version.Manufacturer = RscText("junk manufacturer");
    version.ManufacturerUri = RscText("urn:junk");
    version.SoftwareRevision = RscText("9.9");
    version.PatchIdentifiers = {RscText("KB1"), RscText("KB2")};
    version.ReleaseDate = DateTime::FromUnixTimeMilliseconds(42);
    version.ChangeLogReference = RscText("https://junk/changes");
    return version;
}

void ExpectReset(const Su::SoftwareVersionType& version)
{
    EXPECT_TRUE(version == Su::SoftwareVersionType());
    EXPECT_EQ(0u, version.PatchIdentifiers.capacity());
    EXPECT_TRUE(version.ReleaseDate == DateTime());
}

using QueriesTest = UpdaterModuleTest;

struct VersionCase
{
    const char* label;
    std::int32_t fileType;
    bool hasCurrent;
    bool hasPending;
    StatusCode code;
    const char* revision; // expected on Good
};

class QueriesVersionTest : public UpdaterModuleTest, public ::testing::WithParamInterface<VersionCase>
{
};

TEST_P(QueriesVersionTest, ChoosesTheManifestAndResetsTheOutValueFirst)
{
    const VersionCase& c = GetParam();
    env.managerFake->SetCurrent(SoftwareKind::GenericFiles, BareName,
                                c.hasCurrent ? std::optional<Sm::Manifest>(MakeManifest("1.0", "urn:current")) : std::nullopt);
    env.managerFake->SetPending(SoftwareKind::GenericFiles, BareName,
                                c.hasPending ? std::optional<Sm::Manifest>(MakeManifest("2.0", "urn:pending")) : std::nullopt);
    Su::SoftwareVersionType version = Junk();

    EXPECT_EQ(c.code, module->GetSoftwareVersion(Name, static_cast<FileType>(c.fileType), version));

    EXPECT_THAT(env.managerFake->Journal(), ElementsAre("GetSoftwareInformation(1, app)"));
    if (c.code == Codes::Good)
    {
        EXPECT_EQ(c.revision, version.SoftwareRevision.ToString());
        EXPECT_EQ(c.fileType == 0 ? "urn:current" : "urn:pending", version.ManufacturerUri.ToString());
    }
    else
    {
        ExpectReset(version);
    }
    EXPECT_THAT(ModuleLines(), IsEmpty());
    EXPECT_THAT(env.statusFake->Journal(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(FileTypes, QueriesVersionTest,
                         ::testing::Values(VersionCase{"Current", 0, true, true, Codes::Good, "1.0"},
                                           VersionCase{"Pending", 1, true, true, Codes::Good, "2.0"},
                                           VersionCase{"CurrentWithoutCurrent", 0, false, true, Codes::BadNotFound, nullptr},
                                           VersionCase{"PendingWithoutPending", 1, true, false, Codes::BadNotFound, nullptr},
                                           VersionCase{"Fallback", 2, true, true, Codes::BadNotFound, nullptr},
                                           VersionCase{"Three", 3, true, true, Codes::BadNotFound, nullptr},
                                           VersionCase{"Negative", -1, true, true, Codes::BadNotFound, nullptr}),
                         [](const auto& info) { return String(info.param.label); });

TEST_F(QueriesTest, GetSoftwareVersionMapsTheManifestFieldByField)
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
    manifest.UpdateBehavior = 0x1F;
    env.managerFake->SetPending(SoftwareKind::GenericFiles, BareName, manifest);
    Su::SoftwareVersionType version = Junk();

    ASSERT_EQ(Codes::Good, module->GetSoftwareVersion(Name, FileType::Pending, version));

    EXPECT_EQ(String(511, 'm'), version.Manufacturer.ToString());
    EXPECT_EQ("urn:zun:long", version.ManufacturerUri.ToString());
    EXPECT_EQ("3.1.4-rc1", version.SoftwareRevision.ToString());
    EXPECT_TRUE(version.ReleaseDate == manifest.ReleaseDate);
    EXPECT_EQ(DateTimeKind::Local, version.ReleaseDate.GetKind());
    EXPECT_THAT(version.PatchIdentifiers, IsEmpty());
    EXPECT_EQ("", version.ChangeLogReference.ToString());
}

TEST_F(QueriesTest, GetSoftwareVersionAsksForTheKindAndBareName)
{
    env.managerFake->AddComponent(SoftwareKind::TesmoraEngineerProject, "plant / line 1", MakeManifest("7.0"));
    Su::SoftwareVersionType version;

    ASSERT_EQ(Codes::Good, module->GetSoftwareVersion("Tesmora Engineer project / plant / line 1", FileType::Current, version));

    EXPECT_EQ("7.0", version.SoftwareRevision.ToString());
    EXPECT_THAT(env.managerFake->Journal(), ElementsAre("GetSoftwareInformation(2, plant / line 1)"));
}

TEST_F(QueriesTest, GetSoftwareVersionRefusesAnInvalidNameWithoutAskingTheManager)
{
    for (const String& name : {String(), String("app"), String("Unknown kind / app"), String("Generic files/app")})
    {
        Su::SoftwareVersionType version = Junk();
        EXPECT_EQ(Codes::BadInvalidArgument, module->GetSoftwareVersion(name, FileType::Current, version)) << name;
        ExpectReset(version);
    }
    EXPECT_THAT(env.managerFake->Journal(), IsEmpty());
    EXPECT_THAT(ModuleLines(), IsEmpty());
}

TEST_F(QueriesTest, GetSoftwareVersionPassesAManagerFailureThroughWithTheOutValueReset)
{
    Su::SoftwareVersionType version = Junk();
    EXPECT_EQ(Codes::BadNotFound, module->GetSoftwareVersion("Generic files / ghost", FileType::Current, version));
    ExpectReset(version);

    env.managerFake->FailOperation("GetSoftwareInformation", BadNoCommunication);
    version = Junk();
    EXPECT_EQ(BadNoCommunication, module->GetSoftwareVersion(Name, FileType::Current, version));
    ExpectReset(version);
    EXPECT_THAT(ModuleLines(), IsEmpty());
}

struct BehaviorCase
{
    const char* label;
    const char* uri;
    const char* revision;
    std::vector<String> patches;
    StatusCode code;
    std::uint32_t behavior;
    const char* logLine; // the one level-7 line, or null
};

class QueriesBehaviorTest : public UpdaterModuleTest, public ::testing::WithParamInterface<BehaviorCase>
{
};

TEST_P(QueriesBehaviorTest, ChecksRevisionThenUriAndIgnoresPatchIdentifiers)
{
    const BehaviorCase& c = GetParam();
    env.managerFake->SetPending(SoftwareKind::GenericFiles, BareName, MakeManifest("2.0", "urn:zun:test", 0x1F));
    auto behavior = static_cast<Behavior>(0xFFFFFFFFu);

    EXPECT_EQ(c.code, module->GetUpdateBehavior(Name, c.uri, c.revision, c.patches, behavior));

    EXPECT_EQ(c.behavior, static_cast<std::uint32_t>(behavior));
    if (c.logLine == nullptr)
    {
        EXPECT_THAT(ModuleLines(), IsEmpty());
    }
    else
    {
        EXPECT_THAT(ModuleMessages(7), ElementsAre(c.logLine));
        EXPECT_EQ(1u, ModuleLines().size());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Requests, QueriesBehaviorTest,
    ::testing::Values(
        BehaviorCase{"Matching", "urn:zun:test", "2.0", {}, Codes::Good, 0x1F, nullptr},
        BehaviorCase{"PatchIdentifiersIgnored", "urn:zun:test", "2.0", {"KB1", "KB2"}, Codes::Good, 0x1F, nullptr},
        BehaviorCase{"OtherRevision", "urn:zun:test", "2.0.0", {}, Codes::BadNotFound, 0,
                     "No pending software package: componentId=Generic files / app; softwareRevision=2.0.0"},
        BehaviorCase{"BothWrongReportsRevision", "urn:other", "1.0", {}, Codes::BadNotFound, 0,
                     "No pending software package: componentId=Generic files / app; softwareRevision=1.0"},
        BehaviorCase{"UriOtherCase", "URN:ZUN:TEST", "2.0", {}, Codes::BadNotFound, 0, "Unknown manufacturerUri: URN:ZUN:TEST"},
        BehaviorCase{"EmptyUri", "", "2.0", {}, Codes::BadNotFound, 0, "Unknown manufacturerUri: "}),
    [](const auto& info) { return String(info.param.label); });

TEST_F(QueriesTest, GetUpdateBehaviorPassesTheStoredBitsThroughUnchanged)
{
    for (std::uint32_t bits : {0x00u, 0x01u, 0x10u, 0x1Fu, 0x80000001u, 0xFFFFFFFFu})
    {
        env.managerFake->SetPending(SoftwareKind::GenericFiles, BareName, MakeManifest("2.0", "urn:zun:test", bits));
        Behavior behavior = Behavior::WillReboot;
        EXPECT_EQ(Codes::Good, module->GetUpdateBehavior(Name, "urn:zun:test", "2.0", {}, behavior));
        EXPECT_EQ(bits, static_cast<std::uint32_t>(behavior));
    }
}

TEST_F(QueriesTest, GetUpdateBehaviorWithoutPendingPackageReportsTheRequestedRevision)
{
    env.managerFake->SetPending(SoftwareKind::GenericFiles, BareName, std::nullopt);
    Behavior behavior = Behavior::KeepsParameters;

    // The absent manifest's empty revision must not count as a match for an empty request.
    EXPECT_EQ(Codes::BadNotFound, module->GetUpdateBehavior(Name, "", "", {}, behavior));

    EXPECT_EQ(Behavior::None, behavior);
    EXPECT_THAT(ModuleMessages(7), ElementsAre("No pending software package: componentId=Generic files / app; softwareRevision="));
}

TEST_F(QueriesTest, GetUpdateBehaviorMatchesAnEmptyPendingRevision)
{
    env.managerFake->SetPending(SoftwareKind::GenericFiles, BareName, MakeManifest("", "urn:zun:test", 0x04));
    Behavior behavior = Behavior::None;

    EXPECT_EQ(Codes::Good, module->GetUpdateBehavior(Name, "urn:zun:test", "", {}, behavior));
    EXPECT_EQ(Behavior::RequiresPowerCycle, behavior);
}

TEST_F(QueriesTest, GetUpdateBehaviorRefusesInvalidNamesAndPassesManagerFailuresWithBehaviorZero)
{
    Behavior behavior = Behavior::WillReboot;
    EXPECT_EQ(Codes::BadInvalidArgument, module->GetUpdateBehavior("Generic files:app", "urn:zun:test", "2.0", {}, behavior));
    EXPECT_EQ(Behavior::None, behavior);
    EXPECT_THAT(env.managerFake->Journal(), IsEmpty());

    env.managerFake->FailOperation("GetSoftwareInformation", BadNoCommunication);
    behavior = Behavior::WillReboot;
    EXPECT_EQ(BadNoCommunication, module->GetUpdateBehavior(Name, "urn:zun:test", "2.0", {}, behavior));
    EXPECT_EQ(Behavior::None, behavior);
    EXPECT_THAT(env.managerFake->Journal(), ElementsAre("GetSoftwareInformation(1, app)"));
    EXPECT_THAT(ModuleLines(), IsEmpty());
    EXPECT_THAT(env.statusFake->Journal(), IsEmpty());
}

struct PendingCase
{
    const char* label;
    bool hasPending;
    const char* revision;
    const char* uri;
    std::size_t patchCount;
    StatusCode code;
    const char* logLine;
};

class QueriesPendingTest : public UpdaterModuleTest, public ::testing::WithParamInterface<PendingCase>
{
};

TEST_P(QueriesPendingTest, FirstFailingCheckDecides)
{
    const PendingCase& c = GetParam();
    Sm::SoftwareInformation information;
    information.HasPendingManifest = c.hasPending;
    information.PendingManifest = MakeManifest("1.0", "urn:a");
    Su::SoftwareVersionType version = Request(c.revision, c.uri);
    version.PatchIdentifiers.assign(c.patchCount, RscText("KB1"));
    // Not compared: none of these may make a difference.
    version.Manufacturer = RscText("someone else");
    version.ReleaseDate = DateTime::FromUnixTimeMilliseconds(1);
    version.ChangeLogReference = RscText("changes");

    EXPECT_EQ(c.code, module->IsPendingVersionAvailable(information, version));

    if (c.logLine == nullptr)
    {
        EXPECT_THAT(ModuleLines(), IsEmpty());
    }
    else
    {
        EXPECT_THAT(ModuleMessages(7), ElementsAre(c.logLine));
        EXPECT_EQ(1u, ModuleLines().size());
    }
    EXPECT_THAT(env.managerFake->Journal(), IsEmpty());
    EXPECT_THAT(env.statusFake->Journal(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Requests, QueriesPendingTest,
    ::testing::Values(
        PendingCase{"Exact", true, "1.0", "urn:a", 0, Codes::Good, nullptr},
        PendingCase{"NoPendingEvenIfAllElseMatches", false, "1.0", "urn:a", 0, Codes::BadNotFound, "Has no pending software package."},
        PendingCase{"NoPendingBeforeEverything", false, "x", "y", 2, Codes::BadNotFound, "Has no pending software package."},
        PendingCase{"LongerRevision", true, "1.0.0", "urn:a", 0, Codes::BadNotFound,
                    "SoftwareRevision mismatch. Pending version is 1.0 but requested 1.0.0"},
        PendingCase{"RevisionBeforeUriAndPatches", true, "2.0", "URN:A", 1, Codes::BadNotFound,
                    "SoftwareRevision mismatch. Pending version is 1.0 but requested 2.0"},
        PendingCase{"UriCase", true, "1.0", "URN:A", 0, Codes::BadNotFound,
                    "ManufacturerUri mismatch. Pending ManufacturerUri is urn:a but must be URN:A."},
        PendingCase{"UriBeforePatches", true, "1.0", "urn:a ", 3, Codes::BadNotFound,
                    "ManufacturerUri mismatch. Pending ManufacturerUri is urn:a but must be urn:a ."},
        PendingCase{"OnePatch", true, "1.0", "urn:a", 1, Codes::BadNotFound, "PatchIdentifiers mismatch. Must be empty"}),
    [](const auto& info) { return String(info.param.label); });

} // namespace
} // namespace Zun::Testing::UpdaterModule
