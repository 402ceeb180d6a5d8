// The software manager process installing packages: phases, failures, kills at any phase with the
// restart that follows, resume, packages refused at staging, those of an untrusted signer too, and a
// full disk.
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <tuple>

#include <gtest/gtest.h>

#include "tests/integration/Support/Processes.hpp"

namespace
{

using namespace Zun::Testing::Integration;
using namespace Manager;
using namespace Manager::Transport;

const Text Alpha("Alpha");

// (name, type '0' file / '2' symbolic link / 'B' a file whose header claims the size in the text but
// holds no data, as a compression bomb's would, content or link target)
using TarEntry = std::tuple<std::string, char, std::string>;

// A ustar archive written by hand, for packages that the pack command would never produce.
void WriteTar(const fs::path& path, const std::vector<TarEntry>& entries)
{
    std::string data;
    for (const auto& [name, type, text] : entries)
    {
        const std::string content = type == '0' ? text : "";
        char header[512] = {};
        std::snprintf(header, 100, "%s", name.c_str());
        std::snprintf(header + 100, 8, "%07o", 0644);
        std::snprintf(header + 124, 12, "%011llo", type == 'B' ? std::stoull(text) : static_cast<unsigned long long>(content.size()));
        std::memset(header + 148, ' ', 8);
        header[156] = type == 'B' ? '0' : type;
        std::snprintf(header + 157, 100, "%s", type == '2' ? text.c_str() : "");
        std::memcpy(header + 257, "ustar\00000", 8);
        unsigned sum = 0;
        for (unsigned char c : header)
        {
            sum += c;
        }
        std::snprintf(header + 148, 8, "%06o", sum);
        data.append(header, 512).append(content).append((512 - content.size() % 512) % 512, '\0');
    }
    std::ofstream(path, std::ios::binary) << data << std::string(1024, '\0');
}

// Replaces the byte `offset` after `marker` by '0' ('1' if it is '0'); the tar's headers stay valid.
void ChangeByte(const fs::path& file, const std::string& marker, std::size_t offset)
{
    std::string bytes = ReadText(file);
    char& byte = bytes.at(bytes.find(marker) + offset);
    byte = byte == '0' ? '1' : '0';
    std::ofstream(file, std::ios::binary) << bytes;
}

class InstallationTest : public ManagerFixture
{
protected:
    // Version 1.0.0 installed in a plain run and 2.0.0 staged; then the manager restarts with
    // `options`, since its test controls apply to every installation of a run.
    void InstallFirstAndStageSecond(const std::vector<std::string>& options = {}, const std::string& second = "two")
    {
        Pack("alpha-1.tar", "1.0.0", "one");
        Pack("alpha-2.tar", "2.0.0", second);
        StartService();
        proxy = MakeProxy(socket);
        ASSERT_EQ(StatusCodes::Good, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Alpha, Text("alpha-1.tar"), message)) << message.CStr();
        ASSERT_EQ(StatusCodes::Good, proxy->StartInstallation(SoftwareKind::GenericFiles, Alpha));
        ASSERT_TRUE(WaitFor([](InstallationState s) { return s == InstallationState::Idle; }));
        ASSERT_EQ(StatusCodes::Good, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Alpha, Text("alpha-2.tar"), message)) << message.CStr();
        manager.Kill(SIGTERM);
        StartService(options);
    }

    template <class Wanted>
    bool WaitFor(Wanted wanted)
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

    // The installed content is exactly `version`: manifest, link, folders and files agree.
    void ExpectInstalled(const std::string& version)
    {
        EXPECT_EQ(version, Information().CurrentManifest.Version.ToString());
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

// How an installation ends without switching: a fault injected in a phase, no activation, a staged
// payload changed on disk, or the manager killed in a phase (killAt) and started again.
struct EndCase
{
    const char* name;
    std::vector<std::string> options;
    InstallationState killAt; // Idle: not killed
    InstallationState end;
    std::string message;
    bool damage = false; // a staged file is changed before the start, so a resume fails again
};

void PrintTo(const EndCase& c, std::ostream* out)
{
    *out << c.name;
}

class InstallationEndTest : public InstallationTest, public ::testing::WithParamInterface<EndCase>
{
};

// The old version stays whole and the package pending; a failed installation is only resumed.
TEST_P(InstallationEndTest, AnInstallationThatDoesNotSwitchKeepsTheOldVersion)
{
    const EndCase& c = GetParam();
    InstallFirstAndStageSecond(c.options);
    if (c.damage)
    {
        std::ofstream(AlphaFolder() / "staged" / Names(AlphaFolder() / "staged").at(0) / "payload" / "version.txt") << "6.6.6";
    }
    ASSERT_EQ(StatusCodes::Good, proxy->StartInstallation(SoftwareKind::GenericFiles, Alpha));
    if (c.killAt != InstallationState::Idle)
    {
        ASSERT_TRUE(WaitFor([&](InstallationState s) { return s == c.killAt; }));
        manager.Kill(SIGKILL);
        // Whatever the moment, one version is in place whole; only activation may already have switched.
        const std::string onDisk = ReadText(AlphaFolder() / "current" / "version.txt");
        EXPECT_TRUE(onDisk == "1.0.0" || (c.killAt == InstallationState::Activating && onDisk == "2.0.0")) << onDisk;
        EXPECT_EQ(std::vector<std::string>({"bin", "version.txt"}), Names(AlphaFolder() / "current"));
        StartService();
        EXPECT_FALSE(fs::exists(AlphaFolder() / "current.tmp"));
    }
    ASSERT_TRUE(WaitFor([](InstallationState s) { return !IsInProgress(s); }));
    EXPECT_EQ(c.end, state);
    EXPECT_EQ(c.message, message.ToString());
    ExpectInstalled("1.0.0");
    EXPECT_EQ("2.0.0", Information().PendingManifest.Version.ToString());
    EXPECT_EQ(1u, Names(AlphaFolder() / "staged").size());
    if (c.end == InstallationState::Idle)
    {
        EXPECT_EQ(StatusCodes::BadInvalidState, proxy->ResumeInstallation(SoftwareKind::GenericFiles, Alpha)) << "pending, but nothing failed";
        return;
    }
    EXPECT_EQ(StatusCodes::BadInvalidState, proxy->StartInstallation(SoftwareKind::GenericFiles, Alpha));
    if (c.damage)
    {
        return;
    }
    // Resumed in a plain run, the installation passes through the phases, refusing changes meanwhile.
    manager.Kill(SIGTERM);
    StartService({"--phase-delay-ms", ScaledOption(150)});
    ASSERT_EQ(StatusCodes::Good, proxy->ResumeInstallation(SoftwareKind::GenericFiles, Alpha));
    EXPECT_EQ(StatusCodes::BadInvalidState, proxy->StartInstallation(SoftwareKind::GenericFiles, Alpha));
    EXPECT_EQ(StatusCodes::BadInvalidState, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Alpha, Text("alpha-1.tar"), message));
    std::vector<InstallationState> seen;
    ASSERT_TRUE(WaitFor([&](InstallationState s) {
        seen.insert(seen.end(), seen.empty() || seen.back() != s ? 1 : 0, s);
        return s == InstallationState::Idle;
    }));
    EXPECT_EQ(std::vector<InstallationState>(
                  {InstallationState::Preparing, InstallationState::Copying, InstallationState::Activating, InstallationState::Idle}),
              seen);
    EXPECT_EQ("Installed version 2.0.0.", message.ToString());
    ExpectInstalled("2.0.0");
    EXPECT_FALSE(Information().HasPendingManifest);
    EXPECT_TRUE(Names(AlphaFolder() / "staged").empty());
}

const std::vector<std::string> Slow = {"--phase-delay-ms", ScaledOption(1000)};
const auto Interrupted = [](const char* phase) {
    return std::string("Installation was interrupted while ") + phase + ": the service stopped before it ended. Resume to retry.";
};

INSTANTIATE_TEST_SUITE_P(
    Ends, InstallationEndTest,
    ::testing::Values(
        EndCase{"FailPrepare", {"--fail-phase", "prepare"}, InstallationState::Idle, InstallationState::PreparingFailed,
                "Installation failed while preparing: failure injected for testing."},
        EndCase{"FailCopy", {"--fail-phase", "copy"}, InstallationState::Idle, InstallationState::CopyingFailed,
                "Installation failed while copying: failure injected for testing."},
        EndCase{"FailActivate", {"--fail-phase", "activate"}, InstallationState::Idle, InstallationState::ActivatingFailed,
                "Installation failed while activating: failure injected for testing."},
        EndCase{"Damaged", {}, InstallationState::Idle, InstallationState::PreparingFailed,
                "Installation failed while preparing: the staged payload of version 2.0.0 is damaged.", true},
        EndCase{"KeepVersion", {"--keep-version"}, InstallationState::Idle, InstallationState::Idle, "Installation of version 2.0.0 ended without activating it."},
        EndCase{"KillPreparing", Slow, InstallationState::Preparing, InstallationState::CopyingFailed, Interrupted("preparing")},
        EndCase{"KillCopying", Slow, InstallationState::Copying, InstallationState::CopyingFailed, Interrupted("copying")},
        EndCase{"KillActivating", Slow, InstallationState::Activating, InstallationState::CopyingFailed, Interrupted("activating")}),
    [](const auto& info) { return std::string(info.param.name); });

// The state folder on a file system of its own, 4 MiB, that the test fills (skipped where it cannot be mounted).
class FullDiskTest : public InstallationTest, public ::testing::WithParamInterface<std::uintmax_t>
{
protected:
    void SetUp() override
    {
        fs::create_directories(Disk());
        if (::mount("tmpfs", Disk().c_str(), "tmpfs", 0, "size=4m") != 0)
        {
            ASSERT_EQ(EPERM, errno) << std::strerror(errno);
            GTEST_SKIP() << "needs to mount a small file system (root with CAP_SYS_ADMIN)";
        }
        mounted = true;
        InstallationTest::SetUp();
    }
    void TearDown() override
    {
        manager.Kill(SIGKILL);
        if (mounted)
        {
            ::umount2(Disk().c_str(), MNT_DETACH);
        }
    }
    // Leaves `room` bytes free.
    void Fill(std::uintmax_t room)
    {
        const int fd = ::open((Disk() / "filler").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        ASSERT_LE(0, fd);
        EXPECT_EQ(0, ::posix_fallocate(fd, 0, static_cast<off_t>(fs::space(Disk()).available - room)));
        ::close(fd);
    }
    // The state folder (the fixture's `state` is hidden by the installation state).
    fs::path Disk() const { return ManagerFixture::state; }
    std::string StateOnDisk() const { return ReadText(AlphaFolder() / "state.json"); }

    bool mounted = false;
};

// Staging and installing fail as such and leave nothing half-written, whether or not the failure
// itself finds room on the disk; with room again the installation resumes.
TEST_P(FullDiskTest, AFullDiskFailsClearlyAndTheInstallationResumesWithRoom)
{
    InstallFirstAndStageSecond(Slow, std::string(std::size_t{1} << 20, 'x'));
    const std::string noSpace = "not enough disk space (write failed: No space left on device (errno 28)). Free space, then ";
    const std::string before = StateOnDisk();
    Fill(0);
    EXPECT_EQ(StatusCodes::BadResourceUnavailable, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Alpha, Text("alpha-1.tar"), message));
    EXPECT_EQ("The package 'alpha-1.tar' could not be staged: " + noSpace + "stage it again.", std::string(message.CStr()));
    EXPECT_EQ(1u, Names(AlphaFolder() / "staged").size());
    EXPECT_EQ(before, StateOnDisk());
    fs::remove(Disk() / "filler");

    ASSERT_EQ(StatusCodes::Good, proxy->StartInstallation(SoftwareKind::GenericFiles, Alpha));
    // While it prepares: room for state.json but not for the copy, or none at all.
    Fill(GetParam());
    ASSERT_TRUE(WaitFor([](InstallationState s) { return !IsInProgress(s); }));
    EXPECT_EQ(InstallationState::CopyingFailed, state);
    EXPECT_EQ("Installation failed while copying: " + noSpace + "resume.", std::string(message.CStr()));
    ExpectInstalled("1.0.0");
    EXPECT_EQ(1u, Names(AlphaFolder() / "staged").size());
    EXPECT_FALSE(fs::exists(AlphaFolder() / "state.json.tmp"));
    fs::remove(Disk() / "filler");
    ASSERT_EQ(StatusCodes::Good, proxy->GetInstallationState(SoftwareKind::GenericFiles, Alpha, state, message));
    EXPECT_NE(std::string::npos, StateOnDisk().find("\"state\": 4\n")) << StateOnDisk();
    ASSERT_EQ(StatusCodes::Good, proxy->ResumeInstallation(SoftwareKind::GenericFiles, Alpha));
    ASSERT_TRUE(WaitFor([](InstallationState s) { return s == InstallationState::Idle; })) << message.CStr();
    ExpectInstalled("2.0.0");
}

INSTANTIATE_TEST_SUITE_P(Room, FullDiskTest, ::testing::Values(std::uintmax_t{64} << 10, std::uintmax_t{0}));

// Every refusal leaves the pending package, the staged folders and state.json as they were. A package
// whose signature does not hold, or whose signer the keyring does not trust, is refused before any of
// it is written; unsigned packages are allowed here, so the hand-made ones reach the checks behind it.
TEST_F(InstallationTest, RefusedPackagesLeaveThePreviousPendingPackageInPlace)
{
    Pack("good.tar", "1.5.0", "good");
    for (const char* name : {"manifest.tar", "payload.tar", "withdrawn.tar"})
    {
        Pack(name, "2.0.0", "sample content");
    }
    ChangeByte(Incoming() / "manifest.tar", "\"2.0.0\"", 1);
    ChangeByte(Incoming() / "payload.tar", "sample content", 0);
    signingKey = temp / "stranger.pem";
    ASSERT_EQ(0, RunTool({"keygen", "--private", signingKey.string(), "--public", (temp / "stranger.pub").string()}, temp / "log"));
    Pack("stranger.tar", "2.0.0", "sample content");
    Pack("outside.tar", "6.6.6", "evil");
    const fs::path outside = temp / "outside.tar";
    fs::rename(Incoming() / "outside.tar", outside);
    fs::create_symlink(outside, Incoming() / "link.tar");
    StartService({"--allow-unsigned"});
    proxy = MakeProxy(socket);
    ASSERT_EQ(StatusCodes::Good, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Alpha, Text("good.tar"), message));
    const auto stagedBefore = Names(AlphaFolder() / "staged");
    const std::string stateBefore = ReadText(AlphaFolder() / "state.json");
    const int watch = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(::inotify_add_watch(watch, (AlphaFolder() / "staged").c_str(), IN_CREATE), 0);

    const std::string emptyDigest = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
    const std::string refused = "was refused: ";
    struct Refusal
    {
        std::string reference;
        std::vector<TarEntry> tar; // written to incoming/<reference> first when not empty
        std::string message; // after "The package '<reference>' "
        bool extracts = false; // the signature holds, so the payload is written before its digest is checked
    };
    const Refusal refusals[] = {
        {"../outside.tar", {}, "is outside the package folder"},
        {"link.tar", {}, "leads outside the package folder"},
        {"sum.tar", {{"manifest.json", '0', R"({"version":"7","payloadSha256":")" + emptyDigest + "\"}"}, {"payload/a.txt", '0', "content"}},
         refused + "Payload checksum mismatch: the manifest says e3b0", true},
        {"escape.tar", {{"payload/../../escape.txt", '0', "x"}}, refused + "The package holds an unsafe entry 'payload/../../escape.txt'."},
        {"linkentry.tar", {{"payload/passwd", '2', "/etc/passwd"}}, refused + "The package entry 'payload/passwd' is not a regular file or folder."},
        {"bomb.tar", {{"payload/zeros", 'B', std::to_string(std::uint64_t{3} << 29)}}, refused + "The payload is larger than 1073741824 bytes."},
        {"field.tar", {{"manifest.json", '0', R"({"version":"7","colour":"red"})"}}, refused + "Unknown manifest field 'colour'."},
        {"date.tar", {{"manifest.json", '0', R"({"version":"7","releaseDate":"2026-01-01T00:00:00+02:00"})"}},
         refused + "Release date '2026-01-01T00:00:00+02:00' must be in UTC (ending in Z)."},
        {"manifest.tar", {}, refused + "The signature does not match manifest.json for key "},
        {"payload.tar", {}, refused + "Payload checksum mismatch", true},
        {"stranger.tar", {}, refused + "manifest.json is signed by key "},
        // The keyring is read at every staging: a key taken out of it while the manager runs is not trusted.
        {"withdrawn.tar", {}, refused + "manifest.json is signed by key "},
    };
    for (const Refusal& r : refusals)
    {
        SCOPED_TRACE(r.reference);
        if (!r.tar.empty())
        {
            WriteTar(Incoming() / r.reference, r.tar);
        }
        if (r.reference == "withdrawn.tar")
        {
            fs::remove(Keyring() / "test.pem");
        }
        Text text;
        EXPECT_EQ(StatusCodes::BadInvalidArgument, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Alpha, Text(r.reference.c_str()), text));
        EXPECT_EQ(0u, text.ToString().rfind("The package '" + r.reference + "' " + r.message, 0)) << text.CStr();
        char events[4096];
        EXPECT_EQ(r.extracts, ::read(watch, events, sizeof events) > 0);
        EXPECT_EQ("1.5.0", Information().PendingManifest.Version.ToString());
        EXPECT_EQ(stagedBefore, Names(AlphaFolder() / "staged"));
        EXPECT_EQ(stateBefore, ReadText(AlphaFolder() / "state.json"));
    }
    ::close(watch);
    EXPECT_FALSE(fs::exists(temp / "escape.txt"));
}

} // namespace
