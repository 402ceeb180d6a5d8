#include "Zun/Testing/FakeUpdaterStatus.hpp"

#include <algorithm>

#include <fmt/format.h>

namespace Zun::Testing
{

using State = FakeUpdaterStatus::InstallationState;

namespace
{
// Moves a record from `from` to `to`; false, and nothing changed, in any other state.
bool Move(FakeUpdaterStatus::SoftwareUpdateStatus& status, State from, State to)
{
    if (status.InstallationState != from)
    {
        return false;
    }
    status.InstallationState = to;
    return true;
}
} // namespace

std::vector<String> FakeUpdaterStatus::GetComponentNames()
{
    std::lock_guard<std::mutex> lock(mutex);
    journal.emplace_back("GetComponentNames()");
    return order;
}

bool FakeUpdaterStatus::GetStatus(const String& name, SoftwareUpdateStatus& status)
{
    return Call(fmt::format("GetStatus({})", name), name, [&](Component& component) {
        status = component.status;
        return true;
    });
}

void FakeUpdaterStatus::SetUpdateStatus(const String& name, const String& text, bool idle)
{
    Call(fmt::format("SetUpdateStatus({}, {}, {})", name, text, idle), name, [&](Component& component) {
        component.status.ErrorMessage = text;
        return true;
    });
}

void FakeUpdaterStatus::SetPercentComplete(const String& name, std::uint8_t percent)
{
    Call(fmt::format("SetPercentComplete({}, {})", name, static_cast<unsigned>(percent)), name, [](Component&) { return true; });
}

bool FakeUpdaterStatus::SwitchToInstalling(const String& name, bool needsPreparation)
{
    return Call(fmt::format("SwitchToInstalling({}, {})", name, needsPreparation), name,
                [](Component& component) { return Move(component.status, State::Idle, State::Installing); });
}

void FakeUpdaterStatus::FinishInstallation(const String& name, bool success)
{
    Call(fmt::format("FinishInstallation({}, {})", name, success), name,
         [&](Component& component) { return Move(component.status, State::Installing, success ? State::Idle : State::Error); });
}

bool FakeUpdaterStatus::ResetError(const String& name)
{
    return Call(fmt::format("ResetError({})", name), name,
                [](Component& component) { return Move(component.status, State::Error, State::Idle); });
}

void FakeUpdaterStatus::SetProperty(const String& name, const String& key, const String& value, bool persistent)
{
    Call(fmt::format("SetProperty({}, {}, {}, {})", name, key, value, persistent), name, [&](Component& component) {
        component.properties[key] = value;
        return true;
    });
}

void FakeUpdaterStatus::RemoveProperty(const String& name, const String& key)
{
    Call(fmt::format("RemoveProperty({}, {})", name, key), name, [&](Component& component) { return component.properties.erase(key) > 0; });
}

bool FakeUpdaterStatus::GetProperty(const String& name, const String& key, String& value)
{
    return Call(fmt::format("GetProperty({}, {})", name, key), name, [&](Component& component) {
        auto property = component.properties.find(key);
        const bool found = property != component.properties.end();
        value = found ? property->second : value;
        return found;
    });
}

void FakeUpdaterStatus::AddComponent(const String& name)
{
    std::lock_guard<std::mutex> lock(mutex);
    journal.emplace_back(fmt::format("AddComponent({})", name));
    if (components.emplace(name, Component{}).second)
    {
        order.push_back(name);
    }
}

void FakeUpdaterStatus::RemoveComponent(const String& name)
{
    std::lock_guard<std::mutex> lock(mutex);
    journal.emplace_back(fmt::format("RemoveComponent({})", name));
    if (components.erase(name) > 0)
    {
        order.erase(std::find(order.begin(), order.end(), name));
    }
}

void FakeUpdaterStatus::Seed(const String& name, InstallationState state, const String& errorMessage)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (components.count(name) == 0)
    {
        order.push_back(name);
    }
    components[name].status.InstallationState = state;
    components[name].status.ErrorMessage = errorMessage;
}

void FakeUpdaterStatus::SeedProperty(const String& name, const String& key, const String& value)
{
    std::lock_guard<std::mutex> lock(mutex);
    components.at(name).properties[key] = value;
}

void FakeUpdaterStatus::Refuse(const String& call, bool carriedOut)
{
    std::lock_guard<std::mutex> lock(mutex);
    refusals[call] = carriedOut;
}

std::optional<State> FakeUpdaterStatus::StateOf(const String& name) const
{
    std::lock_guard<std::mutex> lock(mutex);
    const Component* component = Find(name);
    return component == nullptr ? std::nullopt : std::optional(component->status.InstallationState);
}

String FakeUpdaterStatus::ErrorMessageOf(const String& name) const
{
    std::lock_guard<std::mutex> lock(mutex);
    const Component* component = Find(name);
    return component == nullptr ? String() : component->status.ErrorMessage.ToString();
}

std::optional<String> FakeUpdaterStatus::PropertyOf(const String& name, const String& key) const
{
    const std::map<String, String> properties = PropertiesOf(name);
    auto property = properties.find(key);
    return property == properties.end() ? std::nullopt : std::optional(property->second);
}

std::map<String, String> FakeUpdaterStatus::PropertiesOf(const String& name) const
{
    std::lock_guard<std::mutex> lock(mutex);
    const Component* component = Find(name);
    return component == nullptr ? std::map<String, String>() : component->properties;
}

std::vector<String> FakeUpdaterStatus::Journal() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return journal;
}

void FakeUpdaterStatus::ClearJournal()
{
    std::lock_guard<std::mutex> lock(mutex);
    journal.clear();
}

bool FakeUpdaterStatus::Call(const String& line, const String& name, const std::function<bool(Component&)>& body)
{
    std::lock_guard<std::mutex> lock(mutex);
    journal.push_back(line);
    auto refusal = refusals.find(line);
    const bool refused = refusal != refusals.end();
    const bool carriedOut = !refused || refusal->second;
    if (refused)
    {
        refusals.erase(refusal);
    }
    auto found = components.find(name);
    const bool answer = found != components.end() && carriedOut && body(found->second);
    return answer && !refused;
}

const FakeUpdaterStatus::Component* FakeUpdaterStatus::Find(const String& name) const
{
    auto found = components.find(name);
    return found == components.end() ? nullptr : &found->second;
}

} // namespace Zun::Testing
