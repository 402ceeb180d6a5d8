#include <gtest/gtest.h>

#include "Zun/Testing/FakeUpdaterStatus.hpp"
#include "Zun/Testing/UpdaterStatusContract.hpp"

namespace Zun::Testing
{
namespace
{

class FakeUpdaterStatusTransitionTest : public ::testing::TestWithParam<StateTransition>
{
};

// The module's tests lean on this fake keeping the host's state machine.
TEST_P(FakeUpdaterStatusTransitionTest, KeepsTheStateMachine)
{
    FakeUpdaterStatus store;
    ExpectStateMachineTransition(store, "Generic files / a", GetParam());
}

INSTANTIATE_TEST_SUITE_P(AllStatesAndOperations, FakeUpdaterStatusTransitionTest, ::testing::ValuesIn(StateMachineTransitions()),
                         [](const auto& info) { return ::testing::PrintToString(info.param); });

} // namespace
} // namespace Zun::Testing
