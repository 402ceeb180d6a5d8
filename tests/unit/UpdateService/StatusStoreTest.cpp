#include "Zun/UpdateService/StatusStore.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Testing/Latch.hpp"
#include "Zun/Testing/LogCapture.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService
{
namespace
{

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using State = UpdateInstallationState;

const String App = "Generic files / app.tar";
const String Project = "Tesmora Engineer project / plant";

class TemporaryFolder
{
public:
    TemporaryFolder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "zun-store-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr)
        {
            throw std::runtime_error("mkdtemp failed");
        }
        path = pattern;
    }
    ~TemporaryFolder() { std::filesystem::remove_all(path); }
    String File(const char* name) const { return String((path / name).string()); }

private:
    std::filesystem::path path;
};

SoftwareUpdateStatus StatusOf(StatusStore& store, const String& name)
{
    SoftwareUpdateStatus status;
    EXPECT_TRUE(store.GetStatus(name, status)) << name;
    return status;
}

class StatusStoreTest : public ::testing::Test
{
protected:
    TemporaryFolder folder;
    String path = folder.File("store.db");
    std::unique_ptr<StatusStore> store = std::make_unique<StatusStore>(path);

    void Reopen()
    {
        store.reset();
        store = std::make_unique<StatusStore>(path);
    }
    // Brings App into `state` through the state machine's own operations.
    void Seed(State state)
    {
        store->AddComponent(App);
        store->SetUpdateStatus(App, "seeded", true);
        if (state != State::Idle)
        {
            ASSERT_TRUE(store->SwitchToInstalling(App, true));
        }
        if (state == State::Error)
        {
            store->FinishInstallation(App, false);
        }
        ASSERT_EQ(StatusOf(*store, App).InstallationState, state);
    }
};

struct Transition
{
    const char* operation;
    State from;
    bool accepted;
    State to;
};

class StatusStoreTransitionTest : public StatusStoreTest, public ::testing::WithParamInterface<Transition>
{
};

// Only the transitions of the state machine are taken; everything else is refused and changes nothing.
TEST_P(StatusStoreTransitionTest, TakesOnlyTheStateMachinesTransitions)
{
    const Transition& transition = GetParam();
    Seed(transition.from);
    const SoftwareUpdateStatus before = StatusOf(*store, App);

    bool result = true;
    const String operation = transition.operation;
    if (operation == "SwitchToInstalling")
    {
        result = store->SwitchToInstalling(App, false);
    }
    else if (operation == "FinishInstallation(true)")
    {
        store->FinishInstallation(App, true);
    }
    else if (operation == "FinishInstallation(false)")
    {
        store->FinishInstallation(App, false);
    }
    else
    {
        result = store->ResetError(App);
    }

    const SoftwareUpdateStatus after = StatusOf(*store, App);
    EXPECT_EQ(after.InstallationState, transition.to);
    if (operation == "SwitchToInstalling" || operation == "ResetError")
    {
        EXPECT_EQ(result, transition.accepted);
    }
    if (!transition.accepted)
    {
        EXPECT_EQ(after.ErrorMessage, before.ErrorMessage);
        EXPECT_EQ(after.StatusWord1, before.StatusWord1);
        EXPECT_EQ(after.StatusFlag, before.StatusFlag);
    }
    // The record's text is the status callback's business, never the state machine's.
    EXPECT_EQ(after.ErrorMessage.ToString(), "seeded");
}

INSTANTIATE_TEST_SUITE_P(AllStates, StatusStoreTransitionTest,
                         ::testing::Values(Transition{"SwitchToInstalling", State::Idle, true, State::Installing},
                                           Transition{"SwitchToInstalling", State::Installing, false, State::Installing},
                                           Transition{"SwitchToInstalling", State::Error, false, State::Error},
                                           Transition{"FinishInstallation(true)", State::Installing, true, State::Idle},
                                           Transition{"FinishInstallation(false)", State::Installing, true, State::Error},
                                           Transition{"FinishInstallation(true)", State::Idle, false, State::Idle},
                                           Transition{"FinishInstallation(false)", State::Idle, false, State::Idle},
                                           Transition{"FinishInstallation(true)", State::Error, false, State::Error},
                                           Transition{"ResetError", State::Error, true, State::Idle},
                                           Transition{"ResetError", State::Idle, false, State::Idle},
                                           Transition{"ResetError", State::Installing, false, State::Installing}));

TEST_F(StatusStoreTest, SwitchToInstallingRecordsThePreparationFlagAndRestartsProgress)
{
    store->AddComponent(App);
    store->SetPercentComplete(App, 40);
    ASSERT_TRUE(store->SwitchToInstalling(App, true));
    SoftwareUpdateStatus status = StatusOf(*store, App);
    EXPECT_TRUE(status.StatusFlag);
    EXPECT_EQ(status.StatusWord1, 0);

    store->SetPercentComplete(App, 250);
    EXPECT_EQ(StatusOf(*store, App).StatusWord1, 100);
}

TEST_F(StatusStoreTest, KeepsRecordsPropertiesAndAuditLogAcrossReopening)
{
    store->AddComponent(Project);
    store->AddComponent(App);
    ASSERT_TRUE(store->SwitchToInstalling(Project, false));
    store->SetUpdateStatus(Project, "Copying", false);
    store->SetProperty(Project, "TargetSoftwareRevision", "2.0", true);
    store->SetProperty(Project, "Scratch", "x", false);
    StoredNotification sent;
    sent.timestamp = DateTime::FromUnixTimeMilliseconds(1'790'000'000'123);
    sent.name = "Security.Zun.Services.SoftwareUpdate.Tesmora Engineer project.Installation.Succeeded";
    sent.senderName = "Software Update";
    sent.severity = 1;
    sent.text = "Installation of 'plant' (version: 2.0) successful.";
    const std::int64_t id = store->AppendNotification(sent);

    Reopen();

    EXPECT_THAT(store->GetComponentNames(), ElementsAre(Project, App));
    const SoftwareUpdateStatus status = StatusOf(*store, Project);
    EXPECT_EQ(status.InstallationState, State::Installing);
    EXPECT_EQ(status.ErrorMessage.ToString(), "Copying");
    // Only the persistent property outlives the session that set it.
    EXPECT_THAT(store->GetProperties(Project), ElementsAre(std::pair<const String, String>("TargetSoftwareRevision", "2.0")));
    const auto notifications = store->GetNotifications();
    ASSERT_EQ(notifications.size(), 1u);
    EXPECT_EQ(notifications[0].id, id);
    EXPECT_EQ(notifications[0].timestamp, sent.timestamp);
    EXPECT_EQ(notifications[0].name, sent.name);
    EXPECT_EQ(notifications[0].senderName, sent.senderName);
    EXPECT_EQ(notifications[0].severity, 1u);
    EXPECT_EQ(notifications[0].text, sent.text);
    EXPECT_EQ(store->GetLastNotificationId(), id);
    EXPECT_THAT(store->GetNotifications(id), IsEmpty());
}

TEST_F(StatusStoreTest, UsesWriteAheadLogging)
{
    store->AddComponent(App);
    EXPECT_TRUE(std::filesystem::exists(std::string(path) + "-wal"));
}

TEST_F(StatusStoreTest, RepeatedRegistrationKeepsRecordStateAndProperties)
{
    store->AddComponent(App);
    store->AddComponent(Project);
    ASSERT_TRUE(store->SwitchToInstalling(App, false));
    store->SetUpdateStatus(App, "Preparing", false);
    store->SetProperty(App, "InstallationStartedByModule", "true", true);

    store->AddComponent(App);

    EXPECT_THAT(store->GetComponentNames(), ElementsAre(App, Project));
    const SoftwareUpdateStatus status = StatusOf(*store, App);
    EXPECT_EQ(status.InstallationState, State::Installing);
    EXPECT_EQ(status.ErrorMessage.ToString(), "Preparing");
    String value;
    EXPECT_TRUE(store->GetProperty(App, "InstallationStartedByModule", value));
    EXPECT_EQ(value, "true");
}

TEST_F(StatusStoreTest, RemovingDropsRecordAndPropertiesAndIsHarmlessForUnknownNames)
{
    store->AddComponent(App);
    ASSERT_TRUE(store->SwitchToInstalling(App, false));
    store->SetProperty(App, "TargetSoftwareRevision", "2.0", true);

    store->RemoveComponent("Generic files / never.tar");
    store->RemoveComponent(App);
    store->RemoveComponent(App);
    EXPECT_THAT(store->GetComponentNames(), IsEmpty());

    // A component registered again starts afresh.
    store->AddComponent(App);
    EXPECT_EQ(StatusOf(*store, App).InstallationState, State::Idle);
    EXPECT_THAT(store->GetProperties(App), IsEmpty());
}

TEST_F(StatusStoreTest, RequestsForUnregisteredComponentsChangeNothing)
{
    Testing::LogCapture log(5);
    SoftwareUpdateStatus status;
    status.ErrorMessage = String("untouched");

    EXPECT_FALSE(store->GetStatus(App, status));
    EXPECT_EQ(status.ErrorMessage.ToString(), "untouched");
    store->SetUpdateStatus(App, "text", true);
    store->SetPercentComplete(App, 10);
    EXPECT_FALSE(store->SwitchToInstalling(App, false));
    store->FinishInstallation(App, true);
    EXPECT_FALSE(store->ResetError(App));
    store->SetProperty(App, "TargetSoftwareRevision", "2.0", true);
    store->RemoveProperty(App, "TargetSoftwareRevision");
    String value = "kept";
    EXPECT_FALSE(store->GetProperty(App, "TargetSoftwareRevision", value));
    EXPECT_EQ(value, "kept");

    EXPECT_THAT(store->GetComponentNames(), IsEmpty());
    EXPECT_THAT(store->GetProperties(App), IsEmpty());
    EXPECT_TRUE(log.Contains(5, "Component 'Generic files / app.tar' is not registered; request ignored."));
}

TEST_F(StatusStoreTest, PropertiesAreOverwrittenAndRemovedPerComponent)
{
    store->AddComponent(App);
    store->AddComponent(Project);
    store->SetProperty(App, "TargetSoftwareRevision", "1.0", true);
    store->SetProperty(Project, "TargetSoftwareRevision", "9.9", true);
    store->SetProperty(App, "TargetSoftwareRevision", "2.0", true);
    store->RemoveProperty(App, "Absent");

    String value;
    ASSERT_TRUE(store->GetProperty(App, "TargetSoftwareRevision", value));
    EXPECT_EQ(value, "2.0");
    store->RemoveProperty(App, "TargetSoftwareRevision");
    EXPECT_FALSE(store->GetProperty(App, "TargetSoftwareRevision", value));
    ASSERT_TRUE(store->GetProperty(Project, "TargetSoftwareRevision", value));
    EXPECT_EQ(value, "9.9");
}

TEST_F(StatusStoreTest, KeepsTheMessageToWhatTheRecordHoldsWithoutSplittingACharacter)
{
    store->AddComponent(App);
    // 510 ASCII bytes, then a two-byte character that would end one byte past the limit.
    const String text = String(510, 'a') + "\xC3\xA9" + String(40, 'b');
    store->SetUpdateStatus(App, text, false);

    EXPECT_EQ(StatusOf(*store, App).ErrorMessage.ToString(), String(510, 'a'));
    EXPECT_EQ(store->GetAllStatus().at(0).status.ErrorMessage.ToString(), String(510, 'a'));
}

class RecordingListener : public IStatusStoreListener
{
public:
    explicit RecordingListener(StatusStore* store = nullptr) : store(store) {}
    void OnStatusChanged(const String& name, const SoftwareUpdateStatus* status) override
    {
        if (store != nullptr)
        {
            // Calling back into the store from a listener must not deadlock.
            store->GetComponentNames();
        }
        events.push_back(status == nullptr ? name + ": removed"
                                           : fmt::format("{}: {} '{}'", name, static_cast<int>(status->InstallationState),
                                                         status->ErrorMessage.ToString()));
    }
    StatusStore* store;
    std::vector<std::string> events;
};

TEST_F(StatusStoreTest, TellsListenersAboutEveryChangedRecordOnly)
{
    auto listener = std::make_shared<RecordingListener>(store.get());
    store->AddListener(listener);

    store->AddComponent(App);
    store->AddComponent(App);
    store->SetUpdateStatus(App, "ready", true);
    store->SetUpdateStatus(App, "ready", true);
    ASSERT_TRUE(store->SwitchToInstalling(App, false));
    EXPECT_FALSE(store->SwitchToInstalling(App, false));
    EXPECT_FALSE(store->ResetError(App));
    store->FinishInstallation(App, false);
    store->SetProperty(App, "TargetSoftwareRevision", "2.0", true);
    store->RemoveComponent(App);
    store->RemoveComponent(App);

    EXPECT_THAT(listener->events, ElementsAre("Generic files / app.tar: 0 ''", "Generic files / app.tar: 0 'ready'",
                                              "Generic files / app.tar: 1 'ready'", "Generic files / app.tar: 2 'ready'",
                                              "Generic files / app.tar: removed"));

    store->RemoveListener(listener);
    store->AddComponent(App);
    EXPECT_EQ(listener->events.size(), 5u);
}

class ThrowingListener : public IStatusStoreListener
{
public:
    void OnStatusChanged(const String&, const SoftwareUpdateStatus*) override { throw std::runtime_error("listener broke"); }
};

TEST_F(StatusStoreTest, AFailingListenerNeitherUndoesTheChangeNorThrows)
{
    Testing::LogCapture log(3);
    store->AddListener(std::make_shared<ThrowingListener>());
    store->AddComponent(App);
    EXPECT_NO_THROW(EXPECT_TRUE(store->SwitchToInstalling(App, false)));
    EXPECT_EQ(StatusOf(*store, App).InstallationState, State::Installing);
    EXPECT_TRUE(log.Contains(3, "Status listener failed for 'Generic files / app.tar': listener broke"));
}

TEST_F(StatusStoreTest, TwoOpenStoresOnOneFileSeeEachOthersChanges)
{
    StatusStore other(path);
    store->AddComponent(App);
    ASSERT_TRUE(other.SwitchToInstalling(App, false));
    EXPECT_FALSE(store->SwitchToInstalling(App, false));
    EXPECT_EQ(StatusOf(*store, App).InstallationState, State::Installing);
}

TEST_F(StatusStoreTest, ExactlyOneOfConcurrentSwitchesWins)
{
    constexpr int Threads = 6;
    store->AddComponent(App);
    std::vector<std::unique_ptr<StatusStore>> connections;
    for (int i = 0; i < Threads; ++i)
    {
        // Half share the fixture's connection, half bring their own, as other processes would.
        connections.push_back(i % 2 == 0 ? nullptr : std::make_unique<StatusStore>(path));
    }
    Testing::Latch start(Threads);
    std::atomic<int> wins{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < Threads; ++i)
    {
        threads.emplace_back([&, i] {
            StatusStore& target = connections[i] ? *connections[i] : *store;
            start.ArriveAndWait();
            if (target.SwitchToInstalling(App, false))
            {
                ++wins;
            }
        });
    }
    for (auto& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(wins.load(), 1);
}

TEST(StatusStoreOpenTest, RefusesAFileThatIsNotAStore)
{
    TemporaryFolder folder;
    const String path = folder.File("notes.txt");
    std::ofstream(std::string(path)) << "these are not the records you are looking for, not at all, not one of them\n";
    try
    {
        StatusStore store(path);
        FAIL() << "opened";
    }
    catch (const System::Commons::InvalidOperationException& e)
    {
        EXPECT_EQ(e.GetMessage(), fmt::format("Status store '{}': PRAGMA journal_mode=WAL failed: file is not a database", path));
    }
}

TEST(StatusStoreOpenTest, RefusesAFolderThatDoesNotExist)
{
    TemporaryFolder folder;
    const String path = folder.File("missing/store.db");
    try
    {
        StatusStore store(path);
        FAIL() << "opened";
    }
    catch (const System::Commons::InvalidOperationException& e)
    {
        EXPECT_EQ(e.GetMessage(), fmt::format("Cannot open the status store '{}': unable to open database file", path));
    }
}

} // namespace
} // namespace Zun::Services::SoftwareUpdate::UpdateService
