#include <gtest/gtest.h>

#include "Zun/Commons/Exception.hpp"
#include "Zun/SoftwareUpdate/StatusCode.hpp"
#include "Zun/Testing/FakeSoftwareManagerService.hpp"

namespace Zun::Testing
{
namespace
{

using Fake = FakeSoftwareManagerService;
using Kind = Fake::SoftwareKind;
using State = Fake::InstallationState;
namespace Codes = Services::SoftwareUpdate::StatusCodes;

const Fake::Name A("a");

class FakeSoftwareManagerServiceTest : public ::testing::Test
{
protected:
    Fake fake;
    Fake::RscString message;
};

TEST_F(FakeSoftwareManagerServiceTest, StartInstallationNeedsAnIdleComponentWithAPendingPackage)
{
    EXPECT_EQ(fake.StartInstallation(Kind::GenericFiles, A), Codes::BadNotFound);
    fake.AddComponent(Kind::GenericFiles, "a", Fake::MakeManifest("1.0"));
    EXPECT_EQ(fake.StartInstallation(Kind::GenericFiles, A), Codes::BadInvalidState);
    EXPECT_EQ(fake.StartInstallation(Kind::TesmoraEngineerProject, A), Codes::BadNotFound);

    fake.SetPending(Kind::GenericFiles, "a", Fake::MakeManifest("2.0"));
    EXPECT_EQ(fake.StartInstallation(Kind::GenericFiles, A), Codes::Good);
    State state = State::Idle;
    ASSERT_EQ(fake.GetInstallationState(Kind::GenericFiles, A, state, message), Codes::Good);
    EXPECT_EQ(state, State::Preparing);
    EXPECT_EQ(message.ToString(), "Preparing");
    EXPECT_EQ(fake.StartInstallation(Kind::GenericFiles, A), Codes::BadInvalidState);
}

class FakeSoftwareManagerResumeTest : public ::testing::TestWithParam<int>
{
};

TEST_P(FakeSoftwareManagerResumeTest, ResumesOnlyFailedInstallations)
{
    const auto from = static_cast<State>(GetParam());
    const bool failed = from == State::PreparingFailed || from == State::CopyingFailed || from == State::ActivatingFailed;
    Fake fake;
    fake.AddComponent(Kind::GenericFiles, "a", std::nullopt, Fake::MakeManifest("2.0"));
    fake.SetState(Kind::GenericFiles, "a", from, "failed here");

    EXPECT_EQ(fake.ResumeInstallation(Kind::GenericFiles, A), failed ? Codes::Good : Codes::BadInvalidState);
    EXPECT_EQ(fake.StateOf(Kind::GenericFiles, "a"), failed ? State::Preparing : from);
}

INSTANTIATE_TEST_SUITE_P(ManagerStates, FakeSoftwareManagerResumeTest, ::testing::Range(0, 7));

TEST_F(FakeSoftwareManagerServiceTest, SetSoftwarePackageStagesOnlyKnownPackages)
{
    fake.AddComponent(Kind::GenericFiles, "a", Fake::MakeManifest("1.0"));
    fake.AddPackage("pkg", Fake::MakeManifest("2.0", "urn:other", 0x10));

    EXPECT_EQ(fake.SetSoftwarePackage(Kind::GenericFiles, A, Fake::RscString("nope"), message), Codes::BadNotFound);
    EXPECT_EQ(message.ToString(), "Unknown package nope.");
    Fake::SoftwareInformation information;
    ASSERT_EQ(fake.GetSoftwareInformation(Kind::GenericFiles, A, information), Codes::Good);
    EXPECT_FALSE(information.HasPendingManifest);

    EXPECT_EQ(fake.SetSoftwarePackage(Kind::GenericFiles, A, Fake::RscString("pkg"), message), Codes::Good);
    EXPECT_EQ(message.ToString(), "Package pkg staged.");
    ASSERT_EQ(fake.GetSoftwareInformation(Kind::GenericFiles, A, information), Codes::Good);
    EXPECT_TRUE(information.HasPendingManifest);
    EXPECT_EQ(information.PendingManifest.Version.ToString(), "2.0");
    EXPECT_EQ(information.PendingManifest.ManufacturerUri.ToString(), "urn:other");
    EXPECT_EQ(information.PendingManifest.UpdateBehavior, 0x10u);
}

TEST_F(FakeSoftwareManagerServiceTest, CompleteInstallationInstallsOrKeepsTheVersionAndClearsPending)
{
    for (bool keepVersion : {false, true})
    {
        Fake fake;
        fake.AddComponent(Kind::GenericFiles, "a", Fake::MakeManifest("1.0"), Fake::MakeManifest("2.0"));
        ASSERT_EQ(fake.StartInstallation(Kind::GenericFiles, A), Codes::Good);
        fake.CompleteInstallation(Kind::GenericFiles, "a", keepVersion);

        Fake::SoftwareInformation information;
        State state = State::Activating;
        ASSERT_EQ(fake.GetSoftwareInformation(Kind::GenericFiles, A, information), Codes::Good);
        ASSERT_EQ(fake.GetInstallationState(Kind::GenericFiles, A, state, message), Codes::Good);
        EXPECT_EQ(information.CurrentManifest.Version.ToString(), keepVersion ? "1.0" : "2.0");
        EXPECT_FALSE(information.HasPendingManifest);
        EXPECT_EQ(state, State::Idle);
        EXPECT_EQ(message.ToString(), "");
    }
}

TEST_F(FakeSoftwareManagerServiceTest, ListsComponentsInInsertionOrderWithUtcDatesThenRawRecords)
{
    fake.AddComponent(Kind::TesmoraEngineerProject, "z");
    fake.AddComponent(Kind::GenericFiles, "a", Fake::MakeManifest("1.0"));
    Fake::SoftwareInformation raw;
    raw.Name = Fake::RscString("odd");
    fake.AddRawRecord(raw);

    const auto all = fake.GetAllSoftwareInformation();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0].Name.ToString(), "z");
    EXPECT_EQ(all[0].Kind, Kind::TesmoraEngineerProject);
    EXPECT_FALSE(all[0].HasCurrentManifest);
    EXPECT_EQ(all[1].Name.ToString(), "a");
    EXPECT_EQ(all[2].Kind, Kind::None);
    for (const auto& record : all)
    {
        EXPECT_EQ(record.CurrentManifest.ReleaseDate.GetKind(), DateTimeKind::Utc);
        EXPECT_EQ(record.PendingManifest.ReleaseDate.GetKind(), DateTimeKind::Utc);
    }
}

TEST_F(FakeSoftwareManagerServiceTest, ForcedFailureAppliesToOneOperationUntilCleared)
{
    fake.AddComponent(Kind::GenericFiles, "a");
    fake.FailOperation("GetInstallationState", Codes::BadInvalidArgument);
    State state = State::Idle;
    EXPECT_EQ(fake.GetInstallationState(Kind::GenericFiles, A, state, message), Codes::BadInvalidArgument);
    EXPECT_EQ(fake.GetInstallationState(Kind::GenericFiles, A, state, message), Codes::BadInvalidArgument);
    Fake::SoftwareInformation information;
    EXPECT_EQ(fake.GetSoftwareInformation(Kind::GenericFiles, A, information), Codes::Good);

    fake.FailOperation("GetInstallationState", Codes::Good);
    EXPECT_EQ(fake.GetInstallationState(Kind::GenericFiles, A, state, message), Codes::Good);
}

TEST_F(FakeSoftwareManagerServiceTest, JournalsKindAsNumberAndTheBareName)
{
    State state = State::Idle;
    fake.GetInstallationState(Kind::GenericFiles, A, state, message);
    fake.StartInstallation(Kind::TesmoraEngineerProject, Fake::Name("proj"));
    fake.SetSoftwarePackage(Kind::GenericFiles, A, Fake::RscString("pkg"), message);
    EXPECT_EQ(fake.Journal(), (std::vector<String>{"GetInstallationState(1, a)", "StartInstallation(2, proj)",
                                                   "SetSoftwarePackage(1, a, pkg)"}));
}

TEST_F(FakeSoftwareManagerServiceTest, DrivingAnUnknownComponentThrows)
{
    try
    {
        fake.SetState(Kind::GenericFiles, "ghost", State::Copying);
        FAIL() << "no exception";
    }
    catch (const System::Commons::InvalidOperationException& e)
    {
        EXPECT_STREQ(e.what(), "Unknown component (1, ghost).");
    }
}

} // namespace
} // namespace Zun::Testing
