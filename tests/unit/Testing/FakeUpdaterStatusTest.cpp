#include <gtest/gtest.h>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Testing/FakeUpdaterStatus.hpp"

namespace Zun::Testing
{
namespace
{

using State = FakeUpdaterStatus::InstallationState;

const String A = "Generic files / a";
const String B = "Generic files / b";

enum class Operation
{
    Switch,
    FinishSuccess,
    FinishFailure,
    Reset
};

struct Transition
{
    State from;
    Operation operation;
    bool accepted;
    State to;
};

// Runs the operation; the void ones report whether the state moved.
bool Apply(FakeUpdaterStatus& store, Operation operation)
{
    const auto before = store.StateOf(A);
    switch (operation)
    {
    case Operation::Switch:
        return store.SwitchToInstalling(A, false);
    case Operation::FinishSuccess:
        store.FinishInstallation(A, true);
        break;
    case Operation::FinishFailure:
        store.FinishInstallation(A, false);
        break;
    case Operation::Reset:
        return store.ResetError(A);
    }
    return store.StateOf(A) != before;
}

class FakeUpdaterStatusTransitionTest : public ::testing::TestWithParam<Transition>
{
};

TEST_P(FakeUpdaterStatusTransitionTest, MovesOnlyAlongTheStateMachine)
{
    const Transition& t = GetParam();
    FakeUpdaterStatus store;
    store.Seed(A, t.from, "old text");
    store.SeedProperty(A, "TargetSoftwareRevision", "2.0");

    EXPECT_EQ(Apply(store, t.operation), t.accepted);
    EXPECT_EQ(store.StateOf(A), t.to);
    EXPECT_EQ(store.ErrorMessageOf(A), "old text");
    EXPECT_EQ(store.PropertyOf(A, "TargetSoftwareRevision"), String("2.0"));
}

INSTANTIATE_TEST_SUITE_P(
    AllStatesAndOperations, FakeUpdaterStatusTransitionTest,
    ::testing::Values(Transition{State::Idle, Operation::Switch, true, State::Installing},
                      Transition{State::Installing, Operation::Switch, false, State::Installing},
                      Transition{State::Error, Operation::Switch, false, State::Error},
                      Transition{State::Idle, Operation::FinishSuccess, false, State::Idle},
                      Transition{State::Installing, Operation::FinishSuccess, true, State::Idle},
                      Transition{State::Error, Operation::FinishSuccess, false, State::Error},
                      Transition{State::Idle, Operation::FinishFailure, false, State::Idle},
                      Transition{State::Installing, Operation::FinishFailure, true, State::Error},
                      Transition{State::Error, Operation::FinishFailure, false, State::Error},
                      Transition{State::Idle, Operation::Reset, false, State::Idle},
                      Transition{State::Installing, Operation::Reset, false, State::Installing},
                      Transition{State::Error, Operation::Reset, true, State::Idle}));

TEST(FakeUpdaterStatusTest, UnknownComponentIsRefusedAndNotCreated)
{
    FakeUpdaterStatus store;
    FakeUpdaterStatus::SoftwareUpdateStatus status;
    String value = "untouched";

    EXPECT_FALSE(store.GetStatus(A, status));
    EXPECT_FALSE(store.SwitchToInstalling(A, false));
    EXPECT_FALSE(store.ResetError(A));
    store.FinishInstallation(A, true);
    store.SetUpdateStatus(A, "text", true);
    store.SetProperty(A, "key", "value", true);
    EXPECT_FALSE(store.GetProperty(A, "key", value));
    store.RemoveComponent(A);

    EXPECT_EQ(value, "untouched");
    EXPECT_FALSE(store.Has(A));
    EXPECT_TRUE(store.GetComponentNames().empty());
    EXPECT_THROW(store.SeedProperty(A, "key", "value"), System::Commons::InvalidOperationException);
}

TEST(FakeUpdaterStatusTest, RepeatedAddKeepsRecordAndRemoveDropsEverything)
{
    FakeUpdaterStatus store;
    store.AddComponent(A);
    store.AddComponent(B);
    ASSERT_TRUE(store.SwitchToInstalling(A, true));
    store.SetUpdateStatus(A, "Preparing", false);
    store.SetProperty(A, "InstallationStartedByModule", "true", true);

    store.AddComponent(A);
    EXPECT_EQ(store.StateOf(A), State::Installing);
    EXPECT_EQ(store.ErrorMessageOf(A), "Preparing");
    EXPECT_EQ(store.PropertiesOf(A), (std::map<String, String>{{"InstallationStartedByModule", "true"}}));
    EXPECT_EQ(store.GetComponentNames(), (std::vector<String>{A, B}));

    store.RemoveComponent(A);
    store.RemoveComponent("Generic files / never added");
    store.AddComponent(A);
    EXPECT_EQ(store.StateOf(A), State::Idle);
    EXPECT_EQ(store.ErrorMessageOf(A), "");
    EXPECT_TRUE(store.PropertiesOf(A).empty());
    EXPECT_EQ(store.GetComponentNames(), (std::vector<String>{B, A}));
}

TEST(FakeUpdaterStatusTest, GetStatusCopiesTheRecordUnlessToldToFail)
{
    FakeUpdaterStatus store;
    store.Seed(A, State::Error, "disk full");
    store.FailNextGetStatus(2);

    FakeUpdaterStatus::SoftwareUpdateStatus status;
    EXPECT_FALSE(store.GetStatus(A, status));
    EXPECT_FALSE(store.GetStatus(A, status));
    EXPECT_EQ(status.InstallationState, State::Idle);
    ASSERT_TRUE(store.GetStatus(A, status));
    EXPECT_EQ(status.InstallationState, State::Error);
    EXPECT_EQ(status.ErrorMessage.ToString(), "disk full");
}

TEST(FakeUpdaterStatusTest, JournalsEveryCallInOrder)
{
    FakeUpdaterStatus store;
    FakeUpdaterStatus::SoftwareUpdateStatus status;
    String value;
    store.AddComponent(A);
    store.GetComponentNames();
    store.GetStatus(A, status);
    store.SwitchToInstalling(A, false);
    store.SetUpdateStatus(A, "text", true);
    store.SetPercentComplete(A, 50);
    store.SetProperty(A, "TargetSoftwareRevision", "2.0", true);
    store.GetProperty(A, "InstallationStartedByModule", value);
    store.RemoveProperty(A, "InstallationStartedByModule");
    store.FinishInstallation(A, true);
    store.ResetError(A);
    store.RemoveComponent(A);

    EXPECT_EQ(store.Journal(), (std::vector<String>{
                                   "AddComponent(Generic files / a)",
                                   "GetComponentNames()",
                                   "GetStatus(Generic files / a)",
                                   "SwitchToInstalling(Generic files / a, false)",
                                   "SetUpdateStatus(Generic files / a, text, true)",
                                   "SetPercentComplete(Generic files / a, 50)",
                                   "SetProperty(Generic files / a, TargetSoftwareRevision, 2.0, true)",
                                   "GetProperty(Generic files / a, InstallationStartedByModule)",
                                   "RemoveProperty(Generic files / a, InstallationStartedByModule)",
                                   "FinishInstallation(Generic files / a, true)",
                                   "ResetError(Generic files / a)",
                                   "RemoveComponent(Generic files / a)",
                               }));
    store.ClearJournal();
    EXPECT_TRUE(store.Journal().empty());
}

} // namespace
} // namespace Zun::Testing
