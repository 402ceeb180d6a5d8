// The update service library with the real plug-in file and the real software manager process.
#include "Zun/UpdateService/ServiceHost.hpp"

#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/Singleton.hpp"
#include "Zun/Nm/INotificationManager.hpp"
#include "Zun/Testing/Latch.hpp"
#include "Zun/Testing/ManualSleep.hpp"
#include "tests/integration/Support/Processes.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService
{
namespace
{

using namespace Zun::Testing::Integration;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;
using System::Commons::ArgumentException;
using System::Commons::InvalidOperationException;

const String Files = "Generic files / Sample files";
const String Project = "Tesmora Engineer project / Sample project";

std::vector<String> Names(const std::vector<ComponentStatus>& components)
{
    std::vector<String> names;
    for (const ComponentStatus& component : components)
    {
        names.push_back(component.name);
    }
    return names;
}

class ServiceHostTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(manager.Start({"--phase-delay-ms", ScaledOption(50)})) << manager.Log(); }

    ServiceHostOptions Options(const std::string& store = "state/zun-update/store.db") const
    {
        ServiceHostOptions options;
        options.pluginPath = ZUN_PLUGIN_PATH;
        options.storePath = (folder / store).string();
        options.socketPath = manager.Socket().string();
        options.timeoutMilliseconds = ScaledMilliseconds(5000);
        return options;
    }

    TemporaryFolder folder;
    ManagerProcess manager{folder / "manager", folder / "manager.sock", folder / "manager.log"};
};

TEST_F(ServiceHostTest, LoadsThePluginRegistersTheManagersComponentsAndCanStartAgain)
{
    AppDomain* const before = Singleton<AppDomain>::pInstance;
    ServiceHost host(Options());
    for (int start = 0; start < 2; ++start)
    {
        host.Start();
        ASSERT_TRUE(host.IsStarted());
        ASSERT_NE(Singleton<AppDomain>::pInstance, nullptr);
        EXPECT_NE(Singleton<AppDomain>::pInstance->FindSingleton<System::Nm::INotificationManager>(), nullptr);
        EXPECT_THAT(Names(host.GetComponents()), UnorderedElementsAre(Files, Project));
        SoftwareVersionType version;
        EXPECT_EQ(host.GetSoftwareVersion(Files, SoftwareVersionFileType::Current, version), StatusCodes::Good);
        EXPECT_EQ(version.SoftwareRevision.ToString(), "1.0.0");
        EXPECT_EQ(host.GetSoftwareVersion(Files, SoftwareVersionFileType::Pending, version), StatusCodes::BadNotFound);
        host.Stop();
        EXPECT_FALSE(host.IsStarted());
        EXPECT_EQ(static_cast<AppDomain*>(Singleton<AppDomain>::pInstance), before);
    }
    SoftwareUpdateStatus status;
    ExpectThrow<InvalidOperationException>([&] { host.GetStatus(Files, status); }, "The update service is not started.");
    EXPECT_THAT(Names(host.GetStore()->GetAllStatus()), UnorderedElementsAre(Files, Project)) << "the store outlives the service";
}

TEST_F(ServiceHostTest, OneServicePerProcessAndAPluginThatCannotBeLoadedLeavesNothingBehind)
{
    ServiceHost first(Options());
    first.Start();
    ServiceHost second(Options("other.db"));
    ExpectThrow<InvalidOperationException>([&] { second.Start(); }, "Another update service is already started in this process.");
    ExpectThrow<InvalidOperationException>([&] { first.Start(); }, "The update service is already started.");
    EXPECT_EQ(first.GetComponents().size(), 2u);
    first.Stop();

    ServiceHostOptions options = Options();
    options.pluginPath = (folder / "missing.so").string();
    ServiceHost broken(options);
    ExpectThrow<InvalidOperationException>([&] { broken.Start(); },
                                           fmt::format("Cannot load the updater plug-in '{0}': {0}: cannot open shared object file: No such file or directory",
                                                       options.pluginPath));
    options.pluginPath = ZUN_PLUGIN_PATH;
    options.moduleName = "NoSuchModule";
    ServiceHost wrongName(options);
    ExpectThrow<InvalidOperationException>([&] { wrongName.Start(); },
                                           fmt::format("The updater plug-in '{0}' offers no module 'NoSuchModule'.", ZUN_PLUGIN_PATH));
    EXPECT_FALSE(broken.IsStarted() || wrongName.IsStarted());
    second.Start();
    EXPECT_TRUE(second.IsStarted());
}

TEST_F(ServiceHostTest, TextsThatCannotReachTheManagerAreRefusedBeforeTheModule)
{
    ServiceHost host(Options());
    host.Start();
    const auto before = host.GetStore()->GetAllStatus();
    SoftwareUpdateStatus status;
    String message;
    // 511 bytes pass to the module (which asks the manager), 512 do not; only the name part
    // counts, since a long kind text is the module's to refuse.
    EXPECT_EQ(host.GetStatus("Generic files / " + String(511, 'n'), status), StatusCodes::BadInternalError);
    EXPECT_EQ(host.GetStatus(String(600, 'k') + " / x", status), StatusCodes::BadInvalidArgument);
    const std::pair<std::function<void()>, const char*> refusals[] = {
        {[&] { host.GetStatus("Generic files / " + String(512, 'n'), status); },
         "The component name after ' / ' is 512 bytes long; at most 511 are allowed."},
        {[&] { host.SetSoftwarePackage(Files, String("pkg\0x.tar", 9), message); }, "The package reference holds a NUL byte at offset 3."},
        {[&] { host.SetSoftwarePackage(Files, String(512, 'p'), message); }, "The package reference is 512 bytes long; at most 511 are allowed."},
        {[&] { host.ResumeInstall(String("Generic files / a\0b", 19)); }, "The name holds a NUL byte at offset 17."},
        {[&] { host.InstallSoftwarePackage(Files, "1.1.0", String(512, 'u'), {}); }, "The manufacturer URI is 512 bytes long; at most 511 are allowed."},
    };
    for (const auto& [action, text] : refusals)
    {
        ExpectThrow<ArgumentException>(action, text);
    }
    const auto after = host.GetStore()->GetAllStatus();
    ASSERT_EQ(after.size(), before.size());
    for (std::size_t i = 0; i < after.size(); ++i)
    {
        EXPECT_EQ(after[i].name, before[i].name);
        EXPECT_EQ(after[i].status, before[i].status);
    }
}

// Keeps the successive states of the sample files and tells when they are Idle again.
class StateListener : public IStatusStoreListener
{
public:
    void OnStatusChanged(const String& name, const SoftwareUpdateStatus* status) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (name == Files && status != nullptr && (states.empty() || states.back() != status->InstallationState))
        {
            states.push_back(status->InstallationState);
            if (states.size() > 1 && status->InstallationState == UpdateInstallationState::Idle)
            {
                idleAgain.Notify();
            }
        }
    }
    std::mutex mutex;
    std::vector<UpdateInstallationState> states;
    Testing::Notification idleAgain;
};

TEST_F(ServiceHostTest, ListenersFollowAnInstallationThatTheStatusThreadSeesToItsEnd)
{
    // The module's status thread pauses through the sleep seam; here it polls without pausing.
    Testing::ManualSleep sleep(true);
    ServiceHost host(Options());
    host.Start();
    auto listener = std::make_shared<StateListener>();
    host.GetStore()->AddListener(listener);
    String message;
    ASSERT_EQ(host.SetSoftwarePackage(Files, "sample-files-1.1.0.tar", message), StatusCodes::Good);
    EXPECT_EQ(message, "Package 'sample-files-1.1.0.tar' staged: version 1.1.0.");
    ASSERT_EQ(host.InstallSoftwarePackage(Files, "1.1.0", "https://example.com/zun", {}), StatusCodes::Good);

    ASSERT_TRUE(listener->idleAgain.WaitFor());
    {
        std::lock_guard<std::mutex> lock(listener->mutex);
        EXPECT_THAT(listener->states, ElementsAre(UpdateInstallationState::Installing, UpdateInstallationState::Idle));
    }
    SoftwareVersionType version;
    ASSERT_EQ(host.GetSoftwareVersion(Files, SoftwareVersionFileType::Current, version), StatusCodes::Good);
    EXPECT_EQ(version.SoftwareRevision.ToString(), "1.1.0");
    // Not an engineer project, and not the first pass: nothing is announced.
    EXPECT_TRUE(host.GetAnnouncements().empty());
    host.GetStore()->RemoveListener(listener);
}

} // namespace
} // namespace Zun::Services::SoftwareUpdate::UpdateService
