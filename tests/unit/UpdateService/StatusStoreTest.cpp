#include "Zun/UpdateService/StatusStore.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "Zun/Testing/FakeUpdaterStatus.hpp"
#include "Zun/Testing/LogCapture.hpp"
#include "Zun/Testing/UpdaterStatusContract.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService
{
namespace
{

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using State = UpdateInstallationState;

const String App = "Generic files / app.tar";
const String Project = "Tesmora Engineer project / plant";

std::filesystem::path MakeFolder()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "zun-store-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr)
    {
        throw std::runtime_error("mkdtemp failed");
    }
    return pattern;
}

SoftwareUpdateStatus StatusOf(StatusStore& store, const String& name)
{
    SoftwareUpdateStatus status;
    EXPECT_TRUE(store.GetStatus(name, status)) << name;
    return status;
}

class StatusStoreTest : public ::testing::Test
{
protected:
    ~StatusStoreTest() override
    {
        store.reset();
        std::filesystem::remove_all(folder);
    }
    const std::filesystem::path folder = MakeFolder();
    const String path = String((folder / "store.db").string());
    std::unique_ptr<StatusStore> store = std::make_unique<StatusStore>(path);
};

class StatusStoreTransitionTest : public StatusStoreTest, public ::testing::WithParamInterface<Zun::Testing::StateTransition>
{
};

// The module's tests lean on the fake keeping the same state machine as the store.
TEST_P(StatusStoreTransitionTest, StoreAndFakeKeepTheStateMachine)
{
    Zun::Testing::ExpectStateMachineTransition(*store, App, GetParam());
    Zun::Testing::FakeUpdaterStatus fake;
    Zun::Testing::ExpectStateMachineTransition(fake, App, GetParam());
}

INSTANTIATE_TEST_SUITE_P(AllStatesAndOperations, StatusStoreTransitionTest, ::testing::ValuesIn(Zun::Testing::StateMachineTransitions()),
                         [](const auto& info) { return ::testing::PrintToString(info.param); });

TEST_F(StatusStoreTest, SwitchRecordsThePreparationFlagAndRestartsProgressAndTheMessageIsCutOnACharacter)
{
    store->AddComponent(App);
    store->SetPercentComplete(App, 40);
    ASSERT_TRUE(store->SwitchToInstalling(App, true));
    EXPECT_TRUE(StatusOf(*store, App).StatusFlag);
    EXPECT_EQ(StatusOf(*store, App).StatusWord1, 0);
    store->SetPercentComplete(App, 250);
    EXPECT_EQ(StatusOf(*store, App).StatusWord1, 100);
    // 510 ASCII bytes, then a two-byte character that would end one byte past the record's limit.
    store->SetUpdateStatus(App, String(510, 'a') + "\xC3\xA9" + String(40, 'b'), false);
    EXPECT_EQ(StatusOf(*store, App).ErrorMessage.ToString(), String(510, 'a'));
}

TEST_F(StatusStoreTest, KeepsRecordsAndPersistentPropertiesAcrossReopening)
{
    store->AddComponent(Project);
    store->AddComponent(App);
    ASSERT_TRUE(store->SwitchToInstalling(Project, false));
    store->SetUpdateStatus(Project, "Copying", false);
    store->SetProperty(Project, "TargetSoftwareRevision", "2.0", true);
    store->SetProperty(Project, "Scratch", "x", false);

    store = std::make_unique<StatusStore>(path);
    EXPECT_THAT(store->GetComponentNames(), ElementsAre(Project, App));
    EXPECT_EQ(StatusOf(*store, Project).InstallationState, State::Installing);
    EXPECT_EQ(StatusOf(*store, Project).ErrorMessage.ToString(), "Copying");
    EXPECT_THAT(store->GetProperties(Project), ElementsAre(std::pair<const String, String>("TargetSoftwareRevision", "2.0")));
}

class RecordingListener : public IStatusStoreListener
{
public:
    explicit RecordingListener(StatusStore& store) : store(store) {}
    void OnStatusChanged(const String& name, const SoftwareUpdateStatus* status) override
    {
        store.GetComponentNames(); // calling back into the store must not deadlock
        EXPECT_EQ(name, App);
        events.push_back(status == nullptr
                             ? "removed"
                             : fmt::format("{} '{}'", static_cast<int>(status->InstallationState), status->ErrorMessage.ToString()));
    }
    StatusStore& store;
    std::vector<std::string> events;
};

TEST_F(StatusStoreTest, TellsListenersAboutEveryChangedRecordOnly)
{
    auto listener = std::make_shared<RecordingListener>(*store);
    store->AddListener(listener);
    store->AddComponent(App);
    store->AddComponent(App);
    store->SetUpdateStatus(App, "ready", true);
    store->SetUpdateStatus(App, "ready", true);
    ASSERT_TRUE(store->SwitchToInstalling(App, false));
    EXPECT_FALSE(store->SwitchToInstalling(App, false));
    store->FinishInstallation(App, false);
    store->SetProperty(App, "TargetSoftwareRevision", "2.0", true);
    store->RemoveComponent(App);
    store->RemoveComponent(App);
    EXPECT_THAT(listener->events, ElementsAre("0 ''", "0 'ready'", "1 'ready'", "2 'ready'", "removed"));

    // A removed record took its properties along.
    store->AddComponent(App);
    EXPECT_TRUE(store->GetProperties(App).empty());
}

// A full disk (here: no file may grow) must not end the process: the module calls the store from
// non-throwing operations. The writes that failed changed nothing; once there is room they succeed.
TEST_F(StatusStoreTest, AFailingWriteIsLoggedAndChangesNothing)
{
    store->AddComponent(App);
    store->SetUpdateStatus(App, "before", true);
    Testing::LogCapture log(3);
    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
    const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit full = saved;
    full.rlim_cur = 0;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &full), 0);
    bool switched = true;
    for (int i = 0; i < 50; ++i)
    {
        EXPECT_NO_THROW({
            store->SetUpdateStatus(App, String(400, static_cast<char>('a' + i % 26)), false);
            store->SetProperty(App, "key", String(400, 'k'), true);
            switched = switched && store->SwitchToInstalling(App, false);
            store->FinishInstallation(App, false);
        });
    }
    ::setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, previousHandler);
    EXPECT_FALSE(switched);
    EXPECT_THAT(log.Messages(3), Contains(HasSubstr("failed; the record stays as it was")));
    store->SetUpdateStatus(App, "after", true);
    EXPECT_EQ(StatusOf(*store, App).ErrorMessage.ToString(), "after");
}

// Run with the realtime clock moved to 2040 by the ClockAfter2038 test (tests/CMakeLists.txt), also
// under qemu on the device's 32-bit build: a notification stamped by the clock keeps its time.
TEST(ClockAfter2038Test, TheStoreKeepsANotificationsStampPast2038)
{
    if (std::getenv("ZUN_CLOCK_SHIFT_TO") == nullptr)
    {
        GTEST_SKIP() << "the realtime clock is not shifted";
    }
    const std::filesystem::path folder = MakeFolder();
    const String path((folder / "store.db").string());
    StoredNotification sent;
    sent.timestamp = DateTime::GetUtcNow();
    sent.name = "Security.Clock.Tick";
    StatusStore(path).AppendNotification(sent);
    const auto kept = StatusStore(path).GetNotifications();
    std::filesystem::remove_all(folder);
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_GE(kept[0].timestamp.ToUnixTimeMilliseconds(), std::atoll(std::getenv("ZUN_CLOCK_SHIFT_TO")) * 1000);
    EXPECT_EQ(kept[0].timestamp.ToUnixTimeMilliseconds(), sent.timestamp.ToUnixTimeMilliseconds()); // kept to the millisecond
}

} // namespace
} // namespace Zun::Services::SoftwareUpdate::UpdateService
