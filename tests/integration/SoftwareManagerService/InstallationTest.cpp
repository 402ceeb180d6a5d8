#include <gtest/gtest.h>

#include "ServiceProcess.hpp"
#include "Zun/SoftwareManager/FrameCodec.hpp"

namespace
{

using namespace Zun::Testing::SoftwareManagerProcess;
using namespace Zun::Services::SoftwareManager::Services::Internal::Transport;
using Text = Zun::System::Rsc::RscString<512>;

const Text Alpha("Alpha");

std::string ReadText(const fs::path& path)
{
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> Names(const fs::path& folder)
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder))
    {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

class InstallationTest : public ServiceFixture
{
protected:
    fs::path AlphaFolder() const { return ComponentFolder("generic-files", "Alpha"); }

    // Version 1.0.0 installed, version 2.0.0 staged.
    void InstallFirstAndStageSecond(const std::vector<std::string>& options = {})
    {
        Pack("alpha-1.tar", "1.0.0", "one");
        Pack("alpha-2.tar", "2.0.0", "two");
        StartService(options);
        proxy = MakeProxy(socket);
        Text message;
        ASSERT_EQ(StatusCodes::Good, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Alpha, Text("alpha-1.tar"), message)) << message.CStr();
        if (options.empty())
        {
            ASSERT_EQ(StatusCodes::Good, proxy->StartInstallation(SoftwareKind::GenericFiles, Alpha));
            ASSERT_TRUE(WaitForState([](InstallationState s) { return s == InstallationState::Idle; }));
        }
        else
        {
            // The test controls apply to every installation of the run: install 1.0.0 in a plain run first.
            process->Kill(SIGTERM);
            StartService();
            proxy = MakeProxy(socket);
            ASSERT_EQ(StatusCodes::Good, proxy->StartInstallation(SoftwareKind::GenericFiles, Alpha));
            ASSERT_TRUE(WaitForState([](InstallationState s) { return s == InstallationState::Idle; }));
            process->Kill(SIGTERM);
            StartService(options);
            proxy = MakeProxy(socket);
        }
        ASSERT_EQ(StatusCodes::Good, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Alpha, Text("alpha-2.tar"), message)) << message.CStr();
    }

    bool WaitForState(const std::function<bool(InstallationState)>& wanted)
    {
        return Eventually([&] {
            return proxy->GetInstallationState(SoftwareKind::GenericFiles, Alpha, state, message) == StatusCodes::Good && wanted(state);
        });
    }

    SoftwareInformation Information()
    {
        SoftwareInformation information;
        EXPECT_EQ(StatusCodes::Good, proxy->GetSoftwareInformation(SoftwareKind::GenericFiles, Alpha, information));
        return information;
    }

    // The installed content is exactly version `version`: link, folders and files agree.
    void ExpectInstalled(const std::string& version)
    {
        const SoftwareInformation information = Information();
        EXPECT_EQ(version, information.CurrentManifest.Version.ToString());
        const fs::path link = AlphaFolder() / "current";
        ASSERT_TRUE(fs::is_symlink(link));
        EXPECT_EQ(std::vector<std::string>{fs::read_symlink(link).filename().string()}, Names(AlphaFolder() / "versions"));
        EXPECT_EQ(version, ReadText(link / "version.txt"));
        EXPECT_EQ(std::vector<std::string>({"bin", "version.txt"}), Names(link));
    }

    std::unique_ptr<ISoftwareManagerService> proxy;
    InstallationState state = InstallationState::Idle;
    Text message;
};

TEST_F(InstallationTest, InstallationPassesThroughThePhasesAndSwitchesVersions)
{
    InstallFirstAndStageSecond({"--phase-delay-ms", "150"});
    ExpectInstalled("1.0.0");
    ASSERT_EQ(StatusCodes::Good, proxy->StartInstallation(SoftwareKind::GenericFiles, Alpha));
    EXPECT_EQ(StatusCodes::BadInvalidState, proxy->StartInstallation(SoftwareKind::GenericFiles, Alpha));
    EXPECT_EQ(StatusCodes::BadInvalidState, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Alpha, Text("alpha-1.tar"), message));
    std::vector<InstallationState> seen;
    ASSERT_TRUE(WaitForState([&](InstallationState s) {
        if (seen.empty() || seen.back() != s)
        {
            seen.push_back(s);
        }
        return s == InstallationState::Idle;
    }));
    EXPECT_EQ(std::vector<InstallationState>({InstallationState::Preparing, InstallationState::Copying, InstallationState::Activating,
                                              InstallationState::Idle}),
              seen);
    EXPECT_EQ("Installed version 2.0.0.", message.ToString());
    ExpectInstalled("2.0.0");
    EXPECT_FALSE(Information().HasPendingManifest);
    EXPECT_TRUE(Names(AlphaFolder() / "staged").empty());
}

class FailPhaseTest : public InstallationTest, public ::testing::WithParamInterface<std::pair<const char*, InstallationState>>
{
};

TEST_P(FailPhaseTest, AFailedPhaseKeepsTheOldVersionAndCanBeResumed)
{
    const auto [phase, failed] = GetParam();
    InstallFirstAndStageSecond({"--fail-phase", phase});
    ASSERT_EQ(StatusCodes::Good, proxy->StartInstallation(SoftwareKind::GenericFiles, Alpha));
    ASSERT_TRUE(WaitForState([](InstallationState s) { return s == InstallationState::PreparingFailed || s == InstallationState::CopyingFailed ||
                                                              s == InstallationState::ActivatingFailed; }));
    EXPECT_EQ(failed, state);
    const std::string words = std::string(phase) == "prepare" ? "preparing" : std::string(phase) == "copy" ? "copying" : "activating";
    EXPECT_EQ("Installation failed while " + words + ": failure injected for testing.", message.ToString());
    ExpectInstalled("1.0.0");
    EXPECT_TRUE(Information().HasPendingManifest);
    EXPECT_EQ(StatusCodes::BadInvalidState, proxy->StartInstallation(SoftwareKind::GenericFiles, Alpha));

    process->Kill(SIGTERM);
    StartService();
    proxy = MakeProxy(socket);
    ASSERT_EQ(StatusCodes::Good, proxy->ResumeInstallation(SoftwareKind::GenericFiles, Alpha));
    ASSERT_TRUE(WaitForState([](InstallationState s) { return s == InstallationState::Idle; }));
    ExpectInstalled("2.0.0");
}

INSTANTIATE_TEST_SUITE_P(Phases, FailPhaseTest,
                         ::testing::Values(std::make_pair("prepare", InstallationState::PreparingFailed),
                                           std::make_pair("copy", InstallationState::CopyingFailed),
                                           std::make_pair("activate", InstallationState::ActivatingFailed)));

TEST_F(InstallationTest, KeepVersionEndsIdleWithoutActivating)
{
    InstallFirstAndStageSecond({"--keep-version"});
    ASSERT_EQ(StatusCodes::Good, proxy->StartInstallation(SoftwareKind::GenericFiles, Alpha));
    ASSERT_TRUE(WaitForState([](InstallationState s) { return s == InstallationState::Idle; }));
    EXPECT_EQ("Installation of version 2.0.0 ended without activating it.", message.ToString());
    ExpectInstalled("1.0.0");
    EXPECT_EQ("2.0.0", Information().PendingManifest.Version.ToString());
}

class KillTest : public InstallationTest, public ::testing::WithParamInterface<std::pair<InstallationState, const char*>>
{
};

TEST_P(KillTest, AKilledInstallationIsReportedInterruptedCleanedAndResumable)
{
    const auto [phase, words] = GetParam();
    InstallFirstAndStageSecond({"--phase-delay-ms", "1000"});
    ASSERT_EQ(StatusCodes::Good, proxy->StartInstallation(SoftwareKind::GenericFiles, Alpha));
    ASSERT_TRUE(WaitForState([phase = phase](InstallationState s) { return s == phase; }));
    process->Kill(SIGKILL);

    StartService();
    proxy = MakeProxy(socket);
    ASSERT_EQ(StatusCodes::Good, proxy->GetInstallationState(SoftwareKind::GenericFiles, Alpha, state, message));
    EXPECT_EQ(InstallationState::CopyingFailed, state);
    EXPECT_EQ(std::string("Installation was interrupted while ") + words + ": the service stopped before it ended. Resume to retry.",
              message.ToString());
    ExpectInstalled("1.0.0");
    EXPECT_EQ(1u, Names(AlphaFolder() / "staged").size()) << "the pending package stays for the retry";
    EXPECT_FALSE(fs::exists(AlphaFolder() / "current.tmp"));

    ASSERT_EQ(StatusCodes::Good, proxy->ResumeInstallation(SoftwareKind::GenericFiles, Alpha));
    ASSERT_TRUE(WaitForState([](InstallationState s) { return s == InstallationState::Idle; }));
    ExpectInstalled("2.0.0");
}

INSTANTIATE_TEST_SUITE_P(Phases, KillTest,
                         ::testing::Values(std::make_pair(InstallationState::Preparing, "preparing"),
                                           std::make_pair(InstallationState::Copying, "copying"),
                                           std::make_pair(InstallationState::Activating, "activating")));

struct RefusalCase
{
    const char* name;
    std::function<std::string(const fs::path& incoming, const fs::path& outside)> make; // returns the reference
    std::uint32_t status;
    const char* message; // the part after "The package '<ref>' "
};

TEST_F(InstallationTest, RefusedPackagesLeaveThePreviousPendingPackageInPlace)
{
    Pack("good.tar", "1.5.0", "good");
    Pack("outside.tar", "6.6.6", "evil");
    const fs::path outside = temp.Get() / "outside.tar";
    fs::rename(Incoming() / "outside.tar", outside);
    StartService();
    proxy = MakeProxy(socket);
    ASSERT_EQ(StatusCodes::Good, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Alpha, Text("good.tar"), message));
    const auto stagedBefore = Names(AlphaFolder() / "staged");

    auto tar = [](const fs::path& path, const std::function<void(TarWriter&)>& fill) {
        TarWriter writer;
        fill(writer);
        writer.Save(path);
    };
    const std::string emptyDigest = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
    const RefusalCase cases[] = {
        {"dot-dot", [](auto&, auto&) { return std::string("../outside.tar"); }, StatusCodes::BadInvalidArgument, "is outside the package folder"},
        {"absolute", [](auto&, auto& o) { return o.string(); }, StatusCodes::BadInvalidArgument, "is outside the package folder"},
        {"symlink out",
         [](auto& i, auto& o) {
             fs::create_symlink(o, i / "link.tar");
             return std::string("link.tar");
         },
         StatusCodes::BadInvalidArgument, "leads outside the package folder"},
        {"missing", [](auto&, auto&) { return std::string("missing.tar"); }, StatusCodes::BadNotFound, "does not exist in the package folder"},
        {"folder",
         [](auto& i, auto&) {
             fs::create_directories(i / "sub.tar");
             return std::string("sub.tar");
         },
         StatusCodes::BadInvalidArgument, "is not a readable regular file."},
        {"not a tar",
         [](auto& i, auto&) {
             std::ofstream(i / "junk.tar") << std::string(2000, 'j');
             return std::string("junk.tar");
         },
         StatusCodes::BadInvalidArgument, "was refused: The package cannot be opened: Unrecognized archive format"},
        {"checksum",
         [&](auto& i, auto&) {
             tar(i / "sum.tar", [&](TarWriter& w) {
                 w.File("manifest.json", R"({"version":"7","payloadSha256":")" + emptyDigest + "\"}");
                 w.File("payload/a.txt", "content");
             });
             return std::string("sum.tar");
         },
         StatusCodes::BadInvalidArgument, "was refused: Payload checksum mismatch: the manifest says e3b0"},
        {"escaping entry",
         [&](auto& i, auto&) {
             tar(i / "escape.tar", [&](TarWriter& w) { w.File("payload/../../escape.txt", "x"); });
             return std::string("escape.tar");
         },
         StatusCodes::BadInvalidArgument, "was refused: The package holds an unsafe entry 'payload/../../escape.txt'."},
        {"link entry",
         [&](auto& i, auto&) {
             tar(i / "linkentry.tar", [&](TarWriter& w) { w.Symlink("payload/passwd", "/etc/passwd"); });
             return std::string("linkentry.tar");
         },
         StatusCodes::BadInvalidArgument, "was refused: The package entry 'payload/passwd' is not a regular file or folder."},
        {"no manifest",
         [&](auto& i, auto&) {
             tar(i / "nomanifest.tar", [&](TarWriter& w) { w.File("payload/a.txt", "a"); });
             return std::string("nomanifest.tar");
         },
         StatusCodes::BadInvalidArgument, "was refused: The package has no manifest.json."},
        {"unknown field",
         [&](auto& i, auto&) {
             tar(i / "field.tar", [&](TarWriter& w) { w.File("manifest.json", R"({"version":"7","colour":"red"})"); });
             return std::string("field.tar");
         },
         StatusCodes::BadInvalidArgument, "was refused: Unknown manifest field 'colour'."},
        {"local date",
         [&](auto& i, auto&) {
             tar(i / "date.tar", [&](TarWriter& w) { w.File("manifest.json", R"({"version":"7","releaseDate":"2026-01-01T00:00:00+02:00"})"); });
             return std::string("date.tar");
         },
         StatusCodes::BadInvalidArgument, "was refused: Release date '2026-01-01T00:00:00+02:00' must be in UTC (ending in Z)."},
        {"stray entry",
         [&](auto& i, auto&) {
             tar(i / "stray.tar", [&](TarWriter& w) { w.File("readme", "x"); });
             return std::string("stray.tar");
         },
         StatusCodes::BadInvalidArgument, "was refused: Unexpected entry 'readme' in the package; only manifest.json and payload/ belong there."},
    };
    for (const RefusalCase& c : cases)
    {
        SCOPED_TRACE(c.name);
        const std::string reference = c.make(Incoming(), outside);
        Text text;
        EXPECT_EQ(c.status, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Alpha, Text(reference.c_str()), text));
        EXPECT_EQ(0u, text.ToString().rfind("The package '" + reference + "' " + c.message, 0)) << text.CStr();
        const SoftwareInformation information = Information();
        EXPECT_EQ("1.5.0", information.PendingManifest.Version.ToString());
        EXPECT_EQ(stagedBefore, Names(AlphaFolder() / "staged"));
    }
    EXPECT_FALSE(fs::exists(temp.Get() / "escape.txt"));
}

TEST(FirstRunTest, AMissingStateFolderIsCreatedWithSamples)
{
    TemporaryFolder temp;
    ServiceProcess process(temp.Get() / "fresh", temp.Get() / "sm.sock", temp.Get() / "service.log");
    ASSERT_TRUE(process.Start()) << process.ReadLog();
    auto proxy = MakeProxy(temp.Get() / "sm.sock");
    const auto all = proxy->GetAllSoftwareInformation();
    ASSERT_EQ(2u, all.size());
    for (const SoftwareInformation& information : all)
    {
        EXPECT_TRUE(information.HasCurrentManifest);
        EXPECT_EQ("1.0.0", information.CurrentManifest.Version.ToString());
    }
    EXPECT_EQ(std::vector<std::string>({"sample-files-1.1.0.tar", "sample-project-1.1.0.tar"}), Names(temp.Get() / "fresh" / "incoming"));
    Text message;
    EXPECT_EQ(StatusCodes::Good, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Text("Sample files"), Text("sample-files-1.1.0.tar"), message));
    EXPECT_EQ(fs::perms::owner_all, fs::status(temp.Get() / "fresh").permissions());
    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, fs::symlink_status(temp.Get() / "sm.sock").permissions() & fs::perms::all);
}

} // namespace
