// The updater module, loaded from the built plug-in file, against a running software manager
// process through the real transport: installation, a killed service, and a service that is gone.
#include <dlfcn.h>
#include <sys/socket.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ServiceProcess.hpp"
#include "SoftwareUpdater/EntryPoint.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/Singleton.hpp"
#include "Zun/Nm/NotificationManager.hpp"
#include "Zun/Rsc/ServiceManager.hpp"
#include "Zun/Testing/FakeUpdaterStatus.hpp"
#include "Zun/Testing/LogCapture.hpp"
#include "Zun/Testing/ManualSleep.hpp"
#include "Zun/Testing/Watchdog.hpp"

namespace
{

using namespace Zun::Testing::SoftwareManagerProcess;
using ::testing::UnorderedElementsAre;
using Zun::AppDomain;
using Zun::Singleton;
using Zun::String;
using Zun::Services::SoftwareUpdate::IUpdaterModule;
namespace Codes = Zun::Services::SoftwareUpdate::StatusCodes;
using HostState = Zun::Services::SoftwareUpdate::Services::Internal::InstallationState;
using FileType = Zun::Services::SoftwareUpdate::Services::Internal::SoftwareVersionFileType;
using Record = Zun::Services::SoftwareUpdate::Services::Internal::SoftwareUpdateStatus;
using Version = Zun::Services::SoftwareUpdate::Services::Internal::SoftwareVersionType;
using ManagerState = InstallationState;
using Text = Zun::System::Rsc::RscString<512>;
using EntryFunction = decltype(&CreateSoftwareUpdateModuleLibrary);

const String Alpha = "Generic files / Alpha";
const String Beta = "Tesmora Engineer project / Beta";
const String TargetRevision = "TargetSoftwareRevision";
const String StartedByModule = "InstallationStartedByModule";

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

class ModuleEndToEndTest : public ServiceFixture
{
protected:
    void SetUp() override
    {
        ServiceFixture::SetUp();
        appDomain.SetSingleton<Zun::System::Nm::INotificationManager>(&notifications);
        previousDomain = Singleton<AppDomain>::pInstance;
        Singleton<AppDomain>::pInstance = &appDomain;
        handle = ::dlopen(ZUN_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(handle, nullptr) << ::dlerror();
        entry = reinterpret_cast<EntryFunction>(::dlsym(handle, "CreateSoftwareUpdateModuleLibrary"));
        ASSERT_NE(entry, nullptr) << ::dlerror();
    }

    void TearDown() override
    {
        // The status thread may wait in its pause; let it run out before the module joins it.
        sleep.SetAutomatic(true);
        module.reset();
        Zun::System::Rsc::ServiceManager::UnregisterProvider("Zun");
        Singleton<AppDomain>::pInstance = previousDomain;
        appDomain.RemoveSingleton<Zun::System::Nm::INotificationManager>();
        // The plug-in stays loaded, as on the device.
    }

    std::unique_ptr<IUpdaterModule> CreateModule()
    {
        return entry(*Singleton<AppDomain>::pInstance)->GetFactory().CreateModule(String("SoftwareUpdater"));
    }

    void InitializeModule(std::uint32_t timeoutMilliseconds = 5000)
    {
        Zun::System::Rsc::ServiceManager::RegisterEndpoint("Zun", {String(socket.string()), timeoutMilliseconds});
        module = CreateModule();
        module->Initialize(String("SoftwareUpdater"), statusFake);
    }

    fs::path AlphaFolder() const { return ComponentFolder("generic-files", "Alpha"); }

    Version PendingVersion()
    {
        Version version;
        EXPECT_EQ(Codes::Good, module->GetSoftwareVersion(Alpha, FileType::Pending, version));
        return version;
    }

    std::string CurrentRevision()
    {
        Version version;
        return module->GetSoftwareVersion(Alpha, FileType::Current, version) == Codes::Good ? version.SoftwareRevision.ToString() : "none";
    }

    // Drives the synchronisation by the host's own GetStatus calls until the record is Idle with
    // `revision` installed; the status thread stays in its first pause meanwhile.
    bool PollUntilInstalled(const std::string& revision)
    {
        return Eventually([&] {
            Record record;
            return module->GetStatus(Alpha, record) == Codes::Good && record.InstallationState == HostState::Idle && CurrentRevision() == revision;
        });
    }

    void Stage(const std::string& file)
    {
        String message;
        ASSERT_EQ(Codes::Good, module->SetSoftwarePackage(Alpha, FileType::Pending, String(file), message)) << message;
    }

    // Stages `file`, installs its pending version through the module and follows it to Idle.
    void InstallThroughModule(const std::string& file, const std::string& revision)
    {
        Stage(file);
        const Version pending = PendingVersion();
        ASSERT_EQ(revision, pending.SoftwareRevision.ToString());
        ASSERT_EQ(Codes::Good, module->InstallSoftwarePackage(Alpha, pending, 0));
        EXPECT_EQ(HostState::Installing, statusFake->StateOf(Alpha));
        EXPECT_EQ(String("true"), statusFake->PropertyOf(Alpha, StartedByModule));
        EXPECT_EQ(String(revision), statusFake->PropertyOf(Alpha, TargetRevision));
        ASSERT_TRUE(PollUntilInstalled(revision)) << "state " << static_cast<int>(*statusFake->StateOf(Alpha)) << ", "
                                                  << statusFake->ErrorMessageOf(Alpha) << "\n"
                                                  << process->ReadLog();
    }

    // The installed content is exactly `revision` with `content` in its file.
    void ExpectOnDisk(const std::string& revision, const std::string& content)
    {
        const fs::path current = AlphaFolder() / "current";
        ASSERT_TRUE(fs::is_symlink(current));
        EXPECT_EQ(revision, ReadText(current / "version.txt"));
        EXPECT_EQ(content, ReadText(current / "bin" / "app.txt"));
        EXPECT_EQ(std::vector<std::string>({"bin", "version.txt"}), Names(current));
        EXPECT_EQ(std::vector<std::string>({"app.txt"}), Names(current / "bin"));
    }

    Zun::Testing::Watchdog watchdog{std::chrono::seconds(100)};
    Zun::Testing::ManualSleep sleep;
    AppDomain appDomain;
    AppDomain* previousDomain = nullptr;
    Zun::System::Nm::NotificationManager notifications;
    std::shared_ptr<Zun::Testing::FakeUpdaterStatus> statusFake = std::make_shared<Zun::Testing::FakeUpdaterStatus>();
    void* handle = nullptr;
    EntryFunction entry = nullptr;
    std::unique_ptr<IUpdaterModule> module;
};

TEST_F(ModuleEndToEndTest, InstallsStagedPackagesAndEndsIdleWithTheNewRevision)
{
    Pack("alpha-1.tar", "1.0.0", "one");
    Pack("alpha-2.tar", "2.0.0", "two");
    StartService();
    InitializeModule();
    EXPECT_THAT(statusFake->GetComponentNames(), UnorderedElementsAre(Alpha, Beta));
    EXPECT_EQ("none", CurrentRevision());

    // A refused package leaves the record as it was.
    String message;
    EXPECT_EQ(Codes::BadInvalidArgument, module->SetSoftwarePackage(Alpha, FileType::Pending, String("../alpha-1.tar"), message));
    EXPECT_EQ(0u, message.rfind("The package '../alpha-1.tar' is outside the package folder", 0)) << message;
    EXPECT_EQ(HostState::Idle, statusFake->StateOf(Alpha));

    Stage("alpha-1.tar");
    const Version pending = PendingVersion();
    EXPECT_EQ("Zun test", pending.Manufacturer.ToString());
    EXPECT_EQ("urn:zun:test", pending.ManufacturerUri.ToString());

    InstallThroughModule("alpha-1.tar", "1.0.0");
    ExpectOnDisk("1.0.0", "one");
    InstallThroughModule("alpha-2.tar", "2.0.0");
    ExpectOnDisk("2.0.0", "two");

    Record record;
    ASSERT_EQ(Codes::Good, module->GetStatus(Alpha, record));
    EXPECT_EQ("Installed version 2.0.0.", record.ErrorMessage.ToString());
    EXPECT_EQ(std::nullopt, statusFake->PropertyOf(Alpha, StartedByModule));
    EXPECT_EQ(String("2.0.0"), statusFake->PropertyOf(Alpha, TargetRevision));
    Version none;
    EXPECT_EQ(Codes::BadNotFound, module->GetSoftwareVersion(Alpha, FileType::Pending, none));
    EXPECT_EQ(HostState::Idle, statusFake->StateOf(Beta));
}

class ModuleKillTest : public ModuleEndToEndTest, public ::testing::WithParamInterface<std::pair<ManagerState, const char*>>
{
};

TEST_P(ModuleKillTest, AKilledServiceLeavesTheOldVersionAndTheModuleReportsError)
{
    const auto [phase, words] = GetParam();
    Pack("alpha-1.tar", "1.0.0", "one");
    Pack("alpha-2.tar", "2.0.0", "two");
    StartService();
    InitializeModule();
    InstallThroughModule("alpha-1.tar", "1.0.0");

    // The test controls apply to a whole run: restart slowed; the module reconnects by itself.
    process->Kill(SIGTERM);
    StartService({"--phase-delay-ms", "500"});
    Stage("alpha-2.tar");
    ASSERT_EQ(Codes::Good, module->InstallSoftwarePackage(Alpha, PendingVersion(), 0));
    const auto watcher = MakeProxy(socket);
    ASSERT_TRUE(Eventually([&, phase = phase] {
        ManagerState state = ManagerState::Idle;
        Text text;
        return watcher->GetInstallationState(SoftwareKind::GenericFiles, Text("Alpha"), state, text) == Codes::Good && state == phase;
    }));
    process->Kill(SIGKILL);

    Record record;
    EXPECT_EQ(Codes::BadNoCommunication, module->GetStatus(Alpha, record));
    EXPECT_EQ(HostState::Installing, statusFake->StateOf(Alpha));
    // Before activation the old version is in place; activation switches the link to the new one,
    // whole, before it commits, so a kill then leaves either.
    if (phase == ManagerState::Activating && ReadText(AlphaFolder() / "current" / "version.txt") == "2.0.0")
    {
        ExpectOnDisk("2.0.0", "two");
    }
    else
    {
        ExpectOnDisk("1.0.0", "one");
    }

    Zun::Testing::LogCapture logs;
    StartService();
    ASSERT_EQ(Codes::Good, module->GetStatus(Alpha, record));
    const std::string interrupted = std::string("Installation was interrupted while ") + words + ": the service stopped before it ended. Resume to retry.";
    EXPECT_EQ(HostState::Error, record.InstallationState);
    EXPECT_EQ(interrupted, record.ErrorMessage.ToString());
    EXPECT_TRUE(logs.Contains(7, "Sync status: Switch " + Alpha + " from Installing to Error."));
    // Started by the module: the Error stays until the host acts, however often it asks.
    EXPECT_EQ(String("true"), statusFake->PropertyOf(Alpha, StartedByModule));
    ASSERT_EQ(Codes::Good, module->GetStatus(Alpha, record));
    EXPECT_EQ(HostState::Error, record.InstallationState);
    // The uncommitted version is rolled back and its leftovers are gone.
    ExpectOnDisk("1.0.0", "one");
    EXPECT_EQ(1u, Names(AlphaFolder() / "versions").size());
    EXPECT_EQ("1.0.0", CurrentRevision());
    EXPECT_EQ("2.0.0", PendingVersion().SoftwareRevision.ToString());

    ASSERT_EQ(Codes::Good, module->ResumeInstall(Alpha));
    EXPECT_EQ(HostState::Idle, statusFake->StateOf(Alpha));
    EXPECT_EQ(std::nullopt, statusFake->PropertyOf(Alpha, StartedByModule));
    ASSERT_TRUE(PollUntilInstalled("2.0.0")) << statusFake->ErrorMessageOf(Alpha);
    ExpectOnDisk("2.0.0", "two");
}

INSTANTIATE_TEST_SUITE_P(Phases, ModuleKillTest,
                         ::testing::Values(std::make_pair(ManagerState::Preparing, "preparing"), std::make_pair(ManagerState::Copying, "copying"),
                                           std::make_pair(ManagerState::Activating, "activating")),
                         [](const auto& info) { return std::string(info.param.second); });

TEST_F(ModuleEndToEndTest, WithTheServiceDownCallsReturnNoCommunicationAndWorkAfterARestart)
{
    Pack("alpha-1.tar", "1.0.0", "one");
    StartService();
    InitializeModule();
    Stage("alpha-1.tar");
    const Version pending = PendingVersion();
    process->Kill(SIGKILL);

    Zun::Testing::LogCapture logs;
    Record record;
    EXPECT_EQ(Codes::BadNoCommunication, module->GetStatus(Alpha, record));
    Version version;
    EXPECT_EQ(Codes::BadNoCommunication, module->GetSoftwareVersion(Alpha, FileType::Pending, version));
    String message;
    EXPECT_EQ(Codes::BadNoCommunication, module->SetSoftwarePackage(Alpha, FileType::Pending, String("alpha-1.tar"), message));
    EXPECT_EQ(Codes::BadNoCommunication, module->InstallSoftwarePackage(Alpha, pending, 0));
    EXPECT_EQ(HostState::Idle, statusFake->StateOf(Alpha));
    EXPECT_TRUE(statusFake->PropertiesOf(Alpha).empty());
    EXPECT_TRUE(logs.Contains(5, "GetInstallationState failed: The software manager service at '" + socket.string() + "' cannot be reached."));

    // A module initialised now fails instead of unregistering every component.
    auto second = CreateModule();
    try
    {
        second->Initialize(String("SoftwareUpdater"), statusFake);
        ADD_FAILURE() << "Initialize succeeded without the service";
    }
    catch (const Zun::System::Commons::InvalidOperationException& e)
    {
        EXPECT_EQ("GetAllSoftwareInformation failed with status 0x80310000: The software manager service at '" + socket.string() +
                      "' cannot be reached.",
                  e.GetMessage());
    }
    second.reset();
    EXPECT_THAT(statusFake->GetComponentNames(), UnorderedElementsAre(Alpha, Beta));

    StartService();
    ASSERT_EQ(Codes::Good, module->GetStatus(Alpha, record));
    EXPECT_EQ(HostState::Idle, record.InstallationState);
    ASSERT_EQ(Codes::Good, module->InstallSoftwarePackage(Alpha, pending, 0));
    EXPECT_TRUE(PollUntilInstalled("1.0.0"));
}

TEST_F(ModuleEndToEndTest, AServiceThatStopsAnsweringGivesTimeoutAndWorksWhenItGoesOn)
{
    StartService();
    InitializeModule(300);
    // The service's process id, from the peer credentials of a connection to it.
    Transport::SocketChannel channel;
    ASSERT_EQ(Transport::IoResult::Ok,
              Transport::SocketChannel::Connect(socket.string(), Transport::Clock::now() + std::chrono::seconds(5), channel));
    ucred peer{};
    socklen_t length = sizeof peer;
    ASSERT_EQ(0, ::getsockopt(channel.GetDescriptor(), SOL_SOCKET, SO_PEERCRED, &peer, &length));
    channel.Close();

    ASSERT_EQ(0, ::kill(peer.pid, SIGSTOP));
    // The service is this process's child: wait until it has really stopped.
    int stopped = 0;
    ASSERT_EQ(peer.pid, ::waitpid(peer.pid, &stopped, WUNTRACED));
    ASSERT_TRUE(WIFSTOPPED(stopped));
    Record record;
    const auto result = module->GetStatus(Alpha, record);
    ::kill(peer.pid, SIGCONT);
    EXPECT_EQ(Codes::BadTimeout, result);

    ASSERT_EQ(Codes::Good, module->GetStatus(Alpha, record));
    EXPECT_EQ(HostState::Idle, record.InstallationState);
}

} // namespace
