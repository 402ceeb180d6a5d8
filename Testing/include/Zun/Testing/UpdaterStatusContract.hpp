// The installation state machine that every IUpdaterStatus keeps (the update service's store and the
// in-memory fake alike), as one table and one check, so that both are held to the same rules.
#pragma once

#include <ostream>
#include <vector>

#include "ServiceContracts/IUpdaterStatus.hpp"

namespace Zun::Testing
{

struct StateTransition
{
    using State = Services::SoftwareUpdate::Services::Internal::InstallationState;
    enum class Operation
    {
        Switch,
        FinishSuccess,
        FinishFailure,
        Reset
    };

    State from;
    Operation operation;
    bool accepted;
    State to;
};

// Every state with every operation: only Idle -> Installing, Installing -> Idle or Error and
// Error -> Idle are taken.
const std::vector<StateTransition>& StateMachineTransitions();

// Registers `name` with text "seeded" and a property, brings it into `transition.from` through the
// interface alone, applies the operation, and checks (gtest) that a refusal returns false and
// changes nothing, an accepted switch moves the state only, and a repeated AddComponent keeps the
// record and its properties.
void ExpectStateMachineTransition(Services::SoftwareUpdate::IUpdaterStatus& status, const String& name,
                                  const StateTransition& transition);

void PrintTo(const StateTransition& transition, std::ostream* stream);

} // namespace Zun::Testing
