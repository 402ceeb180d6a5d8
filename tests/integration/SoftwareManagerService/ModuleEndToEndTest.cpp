// The updater module, loaded from the built plug-in file, against a running software manager
// process through the real transport: an installation that the service's kill interrupts.
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
using Zun::AppDomain;
using Zun::Singleton;
using Zun::String;
namespace Codes = Zun::Services::SoftwareUpdate::StatusCodes;
namespace Host = Zun::Services::SoftwareUpdate::Services::Internal;
using FileType = Host::SoftwareVersionFileType;
using EntryFunction = decltype(&CreateSoftwareUpdateModuleLibrary);

const String Alpha = "Generic files / Alpha";
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
        Pack("alpha-2.tar", "2.0.0", "two");
        StartService({"--phase-delay-ms", ScaledOption(1000)});
        Zun::System::Rsc::ServiceManager::RegisterEndpoint("Zun", {String(socket.string()), ScaledMilliseconds(5000)});
        module = entry(appDomain)->GetFactory().CreateModule(String("SoftwareUpdater"));
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

    Host::SoftwareVersionType Version(FileType type)
    {
        Host::SoftwareVersionType version;
        EXPECT_EQ(Codes::Good, module->GetSoftwareVersion(Alpha, type, version));
        return version;
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

// The service killed during an installation that the module started: the module reports it as
// Error, which stays until the host resumes it; the resumed installation ends Idle.
TEST_F(ModuleEndToEndTest, ReportsAnInstallationKilledWithTheServiceAsErrorUntilResumed)
{
    String message;
    ASSERT_EQ(Codes::Good, module->SetSoftwarePackage(Alpha, FileType::Pending, String("alpha-2.tar"), message)) << message;
    const Host::SoftwareVersionType pending = Version(FileType::Pending);
    ASSERT_EQ("2.0.0", pending.SoftwareRevision.ToString());
    EXPECT_EQ("urn:zun:test", pending.ManufacturerUri.ToString());
    ASSERT_EQ(Codes::Good, module->InstallSoftwarePackage(Alpha, pending, 0));
    EXPECT_EQ(Host::InstallationState::Installing, statusFake->StateOf(Alpha));
    EXPECT_EQ(String("true"), statusFake->PropertyOf(Alpha, StartedByModule));
    ASSERT_TRUE(Eventually([&] { return manager.StateOf(Manager::SoftwareKind::GenericFiles, "Alpha") == Manager::InstallationState::Copying; }));
    manager.Kill(SIGKILL);
    Host::SoftwareUpdateStatus record;
    EXPECT_EQ(Codes::BadNoCommunication, module->GetStatus(Alpha, record));
    EXPECT_EQ(Host::InstallationState::Installing, statusFake->StateOf(Alpha));

    Zun::Testing::LogCapture logs;
    StartService();
    for (int ask = 0; ask < 2; ++ask)
    {
        ASSERT_EQ(Codes::Good, module->GetStatus(Alpha, record));
        EXPECT_EQ(Host::InstallationState::Error, record.InstallationState);
    }
    EXPECT_EQ("Installation was interrupted while copying: the service stopped before it ended. Resume to retry.", record.ErrorMessage.ToString());
    EXPECT_TRUE(logs.Contains(7, "Sync status: Switch " + Alpha + " from Installing to Error."));
    EXPECT_EQ("2.0.0", Version(FileType::Pending).SoftwareRevision.ToString());

    ASSERT_EQ(Codes::Good, module->ResumeInstall(Alpha));
    EXPECT_EQ(Host::InstallationState::Idle, statusFake->StateOf(Alpha));
    EXPECT_EQ(std::nullopt, statusFake->PropertyOf(Alpha, StartedByModule));
    ASSERT_TRUE(Eventually([&] {
        Host::SoftwareVersionType current;
        return module->GetStatus(Alpha, record) == Codes::Good && record.InstallationState == Host::InstallationState::Idle &&
               module->GetSoftwareVersion(Alpha, FileType::Current, current) == Codes::Good && current.SoftwareRevision.ToString() == "2.0.0";
    })) << statusFake->ErrorMessageOf(Alpha);
    EXPECT_EQ("two", ReadText(AlphaFolder() / "current" / "bin" / "app.txt"));
}

} // namespace
