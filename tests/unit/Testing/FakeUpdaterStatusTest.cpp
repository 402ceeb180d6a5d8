#include <gtest/gtest.h>

#include "Zun/Testing/FakeUpdaterStatus.hpp"

namespace Zun::Testing
{
namespace
{

using State = FakeUpdaterStatus::InstallationState;

const String A = "Generic files / a";

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

class FakeUpdaterStatusTransitionTest : public ::testing::TestWithParam<Transition>
{
};

// The module's tests lean on this fake keeping the host's state machine.
TEST_P(FakeUpdaterStatusTransitionTest, MovesOnlyAlongTheStateMachineAndKeepsTheRest)
{
    const Transition& t = GetParam();
    FakeUpdaterStatus store;
    store.Seed(A, t.from, "old text");
    store.SeedProperty(A, "TargetSoftwareRevision", "2.0");
    bool accepted = false;
    switch (t.operation)
    {
    case Operation::Switch:
        accepted = store.SwitchToInstalling(A, false);
        break;
    case Operation::FinishSuccess:
    case Operation::FinishFailure:
        store.FinishInstallation(A, t.operation == Operation::FinishSuccess);
        accepted = store.StateOf(A) != t.from;
        break;
    case Operation::Reset:
        accepted = store.ResetError(A);
        break;
    }
    EXPECT_EQ(accepted, t.accepted);
    EXPECT_EQ(store.StateOf(A), t.to);
    EXPECT_EQ(store.ErrorMessageOf(A), "old text");
    EXPECT_EQ(store.PropertyOf(A, "TargetSoftwareRevision"), String("2.0"));

    store.AddComponent(A); // a repeated registration keeps record, state and properties
    EXPECT_EQ(store.StateOf(A), t.to);
    EXPECT_EQ(store.ErrorMessageOf(A), "old text");
    EXPECT_EQ(store.PropertiesOf(A), (std::map<String, String>{{"TargetSoftwareRevision", "2.0"}}));
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

} // namespace
} // namespace Zun::Testing
