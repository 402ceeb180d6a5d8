// The update service library with the real plug-in file and the real software manager process.
#include "Zun/UpdateService/ServiceHost.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/Singleton.hpp"
#include "Zun/Nm/INotificationManager.hpp"
#include "tests/integration/Support/Processes.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService
{
namespace
{

using namespace Zun::Testing::Integration;
using ::testing::UnorderedElementsAre;
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

// One service per process, started again after a stop; a plug-in that cannot be loaded leaves
// nothing behind. (Texts that cannot reach the manager: the command-line test.)
TEST_F(ServiceHostTest, OnePerProcessStartsAgainAfterAStopAndLeavesNothingBehindAFailure)
{
    AppDomain* const before = Singleton<AppDomain>::pInstance;
    ServiceHost host(Options());
    ServiceHost second(Options("other.db"));
    ServiceHostOptions options = Options();
    options.pluginPath = (folder / "missing.so").string();
    ServiceHost broken(options);
    options.pluginPath = ZUN_PLUGIN_PATH;
    options.moduleName = "NoSuchModule";
    ServiceHost wrongName(options);
    for (int start = 0; start < 2; ++start)
    {
        host.Start();
        ASSERT_TRUE(host.IsStarted());
        EXPECT_NE(Singleton<AppDomain>::pInstance->FindSingleton<System::Nm::INotificationManager>(), nullptr);
        EXPECT_THAT(Names(host.GetComponents()), UnorderedElementsAre(Files, Project));
        SoftwareVersionType version;
        EXPECT_EQ(host.GetSoftwareVersion(Files, SoftwareVersionFileType::Current, version), StatusCodes::Good);
        EXPECT_EQ(version.SoftwareRevision.ToString(), "1.0.0");
        EXPECT_EQ(host.GetSoftwareVersion(Files, SoftwareVersionFileType::Pending, version), StatusCodes::BadNotFound);
        ExpectThrow<InvalidOperationException>([&] { second.Start(); }, "Another update service is already started in this process.");
        ExpectThrow<InvalidOperationException>([&] { host.Start(); }, "The update service is already started.");
        host.Stop();
        EXPECT_FALSE(host.IsStarted());
        EXPECT_EQ(static_cast<AppDomain*>(Singleton<AppDomain>::pInstance), before);
    }
    SoftwareUpdateStatus status;
    ExpectThrow<InvalidOperationException>([&] { host.GetStatus(Files, status); }, "The update service is not started.");
    EXPECT_THAT(Names(host.GetStore()->GetAllStatus()), UnorderedElementsAre(Files, Project)) << "the store outlives the service";
    ExpectThrow<InvalidOperationException>([&] { broken.Start(); },
                                           fmt::format("Cannot load the updater plug-in '{0}': {0}: cannot open shared object file: No such file or directory",
                                                       (folder / "missing.so").string()));
    ExpectThrow<InvalidOperationException>([&] { wrongName.Start(); },
                                           fmt::format("The updater plug-in '{0}' offers no module 'NoSuchModule'.", ZUN_PLUGIN_PATH));
    EXPECT_FALSE(broken.IsStarted() || wrongName.IsStarted());

    second.Start();
    EXPECT_TRUE(second.IsStarted());
}

} // namespace
} // namespace Zun::Services::SoftwareUpdate::UpdateService
