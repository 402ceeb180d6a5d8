// The updater module, loaded from the built plug-in file, against a running software manager
// process through the real transport: installation, a killed service, and a service that is gone.
#include <dlfcn.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "SoftwareUpdater/EntryPoint.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/Singleton.hpp"
#include "Zun/Nm/NotificationManager.hpp"
#include "Zun/Rsc/ServiceManager.hpp"
#include "Zun/Testing/FakeUpdaterStatus.hpp"
#include "Zun/Testing/LogCapture.hpp"
#include "Zun/Testing/ManualSleep.hpp"
#include "Zun/Testing/Watchdog.hpp"
#include "tests/integration/Support/Processes.hpp"

namespace
{

using namespace Zun::Testing::Integration;
using ::testing::UnorderedElementsAre;
using Zun::AppDomain;
using Zun::Singleton;
using Zun::String;
namespace Codes = Zun::Services::SoftwareUpdate::StatusCodes;
namespace Host = Zun::Services::SoftwareUpdate::Services::Internal;
using FileType = Host::SoftwareVersionFileType;
using EntryFunction = decltype(&CreateSoftwareUpdateModuleLibrary);

const String Alpha = "Generic files / Alpha";
const String Beta = "Tesmora Engineer project / Beta";
const String StartedByModule = "InstallationStartedByModule";

class ModuleEndToEndTest : public ManagerFixture
{
protected:
    void SetUp() override
    {
        ManagerFixture::SetUp();
        appDomain.SetSingleton<Zun::System::Nm::INotificationManager>(&notifications);
        previousDomain = Singleton<AppDomain>::pInstance;
        Singleton<AppDomain>::pInstance = &appDomain;
        void* handle = ::dlopen(ZUN_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL); // stays loaded, as on the device
        ASSERT_NE(handle, nullptr) << ::dlerror();
        entry = reinterpret_cast<EntryFunction>(::dlsym(handle, "CreateSoftwareUpdateModuleLibrary"));
        ASSERT_NE(entry, nullptr) << ::dlerror();
        Pack("alpha-1.tar", "1.0.0", "one");
        Pack("alpha-2.tar", "2.0.0", "two");
        StartService();
        Zun::System::Rsc::ServiceManager::RegisterEndpoint("Zun", {String(socket.string()), ScaledMilliseconds(5000)});
        module = CreateModule();
        module->Initialize(String("SoftwareUpdater"), statusFake);
    }

    void TearDown() override
    {
        // The status thread may wait in its pause; let it run out before the module joins it.
        sleep.SetAutomatic(true);
        module.reset();
        Zun::System::Rsc::ServiceManager::UnregisterProvider("Zun");
        Singleton<AppDomain>::pInstance = previousDomain;
        appDomain.RemoveSingleton<Zun::System::Nm::INotificationManager>();
    }

    std::unique_ptr<Zun::Services::SoftwareUpdate::IUpdaterModule> CreateModule()
    {
        return entry(appDomain)->GetFactory().CreateModule(String("SoftwareUpdater"));
    }

    Host::SoftwareVersionType Version(FileType type)
    {
        Host::SoftwareVersionType version;
        EXPECT_EQ(Codes::Good, module->GetSoftwareVersion(Alpha, type, version));
        return version;
    }

    // Drives the synchronisation by the host's own GetStatus calls until the record is Idle with
    // `revision` installed; the status thread stays in its first pause meanwhile.
    bool PollUntilInstalled(const std::string& revision)
    {
        return Eventually([&] {
            Host::SoftwareUpdateStatus record;
            Host::SoftwareVersionType current;
            return module->GetStatus(Alpha, record) == Codes::Good && record.InstallationState == Host::InstallationState::Idle &&
                   module->GetSoftwareVersion(Alpha, FileType::Current, current) == Codes::Good && current.SoftwareRevision.ToString() == revision;
        });
    }

    // Stages `file` and starts the installation of its pending version through the module.
    void StartThroughModule(const std::string& file, const std::string& revision)
    {
        String message;
        ASSERT_EQ(Codes::Good, module->SetSoftwarePackage(Alpha, FileType::Pending, String(file), message)) << message;
        const Host::SoftwareVersionType pending = Version(FileType::Pending);
        ASSERT_EQ(revision, pending.SoftwareRevision.ToString());
        EXPECT_EQ("urn:zun:test", pending.ManufacturerUri.ToString());
        ASSERT_EQ(Codes::Good, module->InstallSoftwarePackage(Alpha, pending, 0));
        EXPECT_EQ(Host::InstallationState::Installing, statusFake->StateOf(Alpha));
        EXPECT_EQ(String("true"), statusFake->PropertyOf(Alpha, StartedByModule));
        EXPECT_EQ(String(revision), statusFake->PropertyOf(Alpha, "TargetSoftwareRevision"));
    }

    // The installed content is exactly `revision` with `content` in its file.
    void ExpectOnDisk(const std::string& revision, const std::string& content)
    {
        const fs::path current = AlphaFolder() / "current";
        EXPECT_EQ(revision, ReadText(current / "version.txt"));
        EXPECT_EQ(content, ReadText(current / "bin" / "app.txt"));
        EXPECT_EQ(std::vector<std::string>({"bin", "version.txt"}), Names(current));
        EXPECT_EQ(std::vector<std::string>({"app.txt"}), Names(current / "bin"));
        EXPECT_EQ(1u, Names(AlphaFolder() / "versions").size());
    }

    Zun::Testing::Watchdog watchdog{std::chrono::seconds(100)};
    Zun::Testing::ManualSleep sleep;
    AppDomain appDomain;
    AppDomain* previousDomain = nullptr;
    Zun::System::Nm::NotificationManager notifications;
    std::shared_ptr<Zun::Testing::FakeUpdaterStatus> statusFake = std::make_shared<Zun::Testing::FakeUpdaterStatus>();
    EntryFunction entry = nullptr;
    std::unique_ptr<Zun::Services::SoftwareUpdate::IUpdaterModule> module;
};

// A first installation ends Idle with the new revision; the service killed during the second
// leaves the old version, and the module reports the interrupted installation as Error.
TEST_F(ModuleEndToEndTest, InstallsAndReportsAnInstallationKilledWithTheServiceAsError)
{
    Host::SoftwareVersionType none;
    EXPECT_EQ(Codes::BadNotFound, module->GetSoftwareVersion(Alpha, FileType::Current, none));
    StartThroughModule("alpha-1.tar", "1.0.0");
    ASSERT_TRUE(PollUntilInstalled("1.0.0")) << statusFake->ErrorMessageOf(Alpha) << "\n" << manager.Log();
    ExpectOnDisk("1.0.0", "one");
    Host::SoftwareUpdateStatus record;
    ASSERT_EQ(Codes::Good, module->GetStatus(Alpha, record));
    EXPECT_EQ("Installed version 1.0.0.", record.ErrorMessage.ToString());
    EXPECT_EQ(std::nullopt, statusFake->PropertyOf(Alpha, StartedByModule));
    EXPECT_EQ(Codes::BadNotFound, module->GetSoftwareVersion(Alpha, FileType::Pending, none));
    EXPECT_EQ(Host::InstallationState::Idle, statusFake->StateOf(Beta));

    // The test controls apply to a whole run: restart slowed; the module reconnects by itself.
    manager.Kill(SIGTERM);
    StartService({"--phase-delay-ms", ScaledOption(1000)});
    StartThroughModule("alpha-2.tar", "2.0.0");
    ASSERT_TRUE(Eventually([&] { return manager.StateOf(Manager::SoftwareKind::GenericFiles, "Alpha") == Manager::InstallationState::Copying; }));
    manager.Kill(SIGKILL);
    EXPECT_EQ(Codes::BadNoCommunication, module->GetStatus(Alpha, record));
    EXPECT_EQ(Host::InstallationState::Installing, statusFake->StateOf(Alpha));

    Zun::Testing::LogCapture logs;
    StartService();
    ASSERT_EQ(Codes::Good, module->GetStatus(Alpha, record));
    EXPECT_EQ(Host::InstallationState::Error, record.InstallationState);
    EXPECT_EQ("Installation was interrupted while copying: the service stopped before it ended. Resume to retry.", record.ErrorMessage.ToString());
    EXPECT_TRUE(logs.Contains(7, "Sync status: Switch " + Alpha + " from Installing to Error."));
    // Started by the module: the Error stays until the host acts, however often it asks.
    ASSERT_EQ(Codes::Good, module->GetStatus(Alpha, record));
    EXPECT_EQ(Host::InstallationState::Error, record.InstallationState);
    ExpectOnDisk("1.0.0", "one");
    EXPECT_EQ("1.0.0", Version(FileType::Current).SoftwareRevision.ToString());
    EXPECT_EQ("2.0.0", Version(FileType::Pending).SoftwareRevision.ToString());

    ASSERT_EQ(Codes::Good, module->ResumeInstall(Alpha));
    EXPECT_EQ(Host::InstallationState::Idle, statusFake->StateOf(Alpha));
    EXPECT_EQ(std::nullopt, statusFake->PropertyOf(Alpha, StartedByModule));
    ASSERT_TRUE(PollUntilInstalled("2.0.0")) << statusFake->ErrorMessageOf(Alpha);
    ExpectOnDisk("2.0.0", "two");
}

} // namespace
