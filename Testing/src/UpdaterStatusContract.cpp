#include "Zun/Testing/UpdaterStatusContract.hpp"

#include <gtest/gtest.h>

namespace Zun::Testing
{

namespace
{
using State = StateTransition::State;
using Operation = StateTransition::Operation;
using Status = Services::SoftwareUpdate::IUpdaterStatus::SoftwareUpdateStatus;

const char* const PropertyKey = "TargetSoftwareRevision";

const char* const OperationNames[] = {"Switch", "FinishSuccess", "FinishFailure", "Reset"};

Status Read(Services::SoftwareUpdate::IUpdaterStatus& status, const String& name)
{
    Status record;
    EXPECT_TRUE(status.GetStatus(name, record)) << name;
    return record;
}
} // namespace

const std::vector<StateTransition>& StateMachineTransitions()
{
    static const std::vector<StateTransition> transitions = {
        {State::Idle, Operation::Switch, true, State::Installing},        {State::Installing, Operation::Switch, false, State::Installing},
        {State::Error, Operation::Switch, false, State::Error},           {State::Idle, Operation::FinishSuccess, false, State::Idle},
        {State::Installing, Operation::FinishSuccess, true, State::Idle}, {State::Error, Operation::FinishSuccess, false, State::Error},
        {State::Idle, Operation::FinishFailure, false, State::Idle},      {State::Installing, Operation::FinishFailure, true, State::Error},
        {State::Error, Operation::FinishFailure, false, State::Error},    {State::Idle, Operation::Reset, false, State::Idle},
        {State::Installing, Operation::Reset, false, State::Installing},  {State::Error, Operation::Reset, true, State::Idle},
    };
    return transitions;
}

void ExpectStateMachineTransition(Services::SoftwareUpdate::IUpdaterStatus& status, const String& name, const StateTransition& transition)
{
    status.AddComponent(name);
    status.SetUpdateStatus(name, "seeded", true);
    status.SetProperty(name, PropertyKey, "2.0", true);
    if (transition.from != State::Idle)
    {
        ASSERT_TRUE(status.SwitchToInstalling(name, false));
    }
    if (transition.from == State::Error)
    {
        status.FinishInstallation(name, false);
    }
    const Status before = Read(status, name);
    ASSERT_EQ(before.InstallationState, transition.from);

    bool accepted = false;
    switch (transition.operation)
    {
    case Operation::Switch:
        accepted = status.SwitchToInstalling(name, false);
        break;
    case Operation::FinishSuccess:
    case Operation::FinishFailure:
        status.FinishInstallation(name, transition.operation == Operation::FinishSuccess);
        accepted = Read(status, name).InstallationState != transition.from;
        break;
    case Operation::Reset:
        accepted = status.ResetError(name);
        break;
    }

    const Status after = Read(status, name);
    EXPECT_EQ(accepted, transition.accepted);
    EXPECT_EQ(after.InstallationState, transition.to);
    if (!transition.accepted)
    {
        EXPECT_EQ(after, before);
    }
    // The text is the status callback's business, never the state machine's.
    EXPECT_EQ(after.ErrorMessage.ToString(), "seeded");

    status.AddComponent(name);
    EXPECT_EQ(Read(status, name), after) << "a repeated registration keeps the record";
    String value;
    EXPECT_TRUE(status.GetProperty(name, PropertyKey, value));
    EXPECT_EQ(value, "2.0");
}

void PrintTo(const StateTransition& transition, std::ostream* stream)
{
    *stream << transition.from << "_" << OperationNames[static_cast<int>(transition.operation)];
}

} // namespace Zun::Testing
