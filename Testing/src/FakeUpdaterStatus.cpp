#include "Zun/Testing/FakeUpdaterStatus.hpp"

#include <algorithm>

#include <fmt/format.h>

#include "Zun/Commons/Exception.hpp"

namespace Zun::Testing
{

namespace
{
const char* BoolText(bool value)
{
    return value ? "true" : "false";
}
} // namespace

std::vector<String> FakeUpdaterStatus::GetComponentNames()
{
    std::lock_guard<std::mutex> lock(mutex);
    Note("GetComponentNames()");
    return order;
}

bool FakeUpdaterStatus::GetStatus(const String& name, SoftwareUpdateStatus& status)
{
    std::lock_guard<std::mutex> lock(mutex);
    Note(fmt::format("GetStatus({})", name));
    if (failGetStatus > 0)
    {
        --failGetStatus;
        return false;
    }
    auto found = components.find(name);
    if (found == components.end())
    {
        return false;
    }
    status = found->second.status;
    return true;
}

void FakeUpdaterStatus::SetUpdateStatus(const String& name, const String& text, bool idle)
{
    std::lock_guard<std::mutex> lock(mutex);
    Note(fmt::format("SetUpdateStatus({}, {}, {})", name, text, BoolText(idle)));
    auto found = components.find(name);
    if (found != components.end())
    {
        found->second.status.ErrorMessage = text;
    }
}

void FakeUpdaterStatus::SetPercentComplete(const String& name, std::uint8_t percent)
{
    std::lock_guard<std::mutex> lock(mutex);
    Note(fmt::format("SetPercentComplete({}, {})", name, static_cast<unsigned>(percent)));
}

bool FakeUpdaterStatus::SwitchToInstalling(const String& name, bool needsPreparation)
{
    std::lock_guard<std::mutex> lock(mutex);
    Note(fmt::format("SwitchToInstalling({}, {})", name, BoolText(needsPreparation)));
    auto found = components.find(name);
    if (found == components.end() || found->second.status.InstallationState != InstallationState::Idle)
    {
        return false;
    }
    found->second.status.InstallationState = InstallationState::Installing;
    return true;
}

void FakeUpdaterStatus::FinishInstallation(const String& name, bool success)
{
    std::lock_guard<std::mutex> lock(mutex);
    Note(fmt::format("FinishInstallation({}, {})", name, BoolText(success)));
    auto found = components.find(name);
    if (found != components.end() && found->second.status.InstallationState == InstallationState::Installing)
    {
        found->second.status.InstallationState = success ? InstallationState::Idle : InstallationState::Error;
    }
}

bool FakeUpdaterStatus::ResetError(const String& name)
{
    std::lock_guard<std::mutex> lock(mutex);
    Note(fmt::format("ResetError({})", name));
    auto found = components.find(name);
    if (found == components.end() || found->second.status.InstallationState != InstallationState::Error)
    {
        return false;
    }
    found->second.status.InstallationState = InstallationState::Idle;
    return true;
}

void FakeUpdaterStatus::SetProperty(const String& name, const String& key, const String& value, bool persistent)
{
    std::lock_guard<std::mutex> lock(mutex);
    Note(fmt::format("SetProperty({}, {}, {}, {})", name, key, value, BoolText(persistent)));
    auto found = components.find(name);
    if (found != components.end())
    {
        found->second.properties[key] = value;
    }
}

void FakeUpdaterStatus::RemoveProperty(const String& name, const String& key)
{
    std::lock_guard<std::mutex> lock(mutex);
    Note(fmt::format("RemoveProperty({}, {})", name, key));
    auto found = components.find(name);
    if (found != components.end())
    {
        found->second.properties.erase(key);
    }
}

bool FakeUpdaterStatus::GetProperty(const String& name, const String& key, String& value)
{
    std::lock_guard<std::mutex> lock(mutex);
    Note(fmt::format("GetProperty({}, {})", name, key));
    auto found = components.find(name);
    if (found == components.end())
    {
        return false;
    }
    auto property = found->second.properties.find(key);
    if (property == found->second.properties.end())
    {
        return false;
    }
    value = property->second;
    return true;
}

void FakeUpdaterStatus::AddComponent(const String& name)
{
    std::lock_guard<std::mutex> lock(mutex);
    Note(fmt::format("AddComponent({})", name));
    if (components.emplace(name, Component{}).second)
    {
        order.push_back(name);
    }
}

void FakeUpdaterStatus::RemoveComponent(const String& name)
{
    std::lock_guard<std::mutex> lock(mutex);
    Note(fmt::format("RemoveComponent({})", name));
    if (components.erase(name) > 0)
    {
        order.erase(std::find(order.begin(), order.end(), name));
    }
}

void FakeUpdaterStatus::Seed(const String& name, InstallationState state, const String& errorMessage)
{
    std::lock_guard<std::mutex> lock(mutex);
    auto inserted = components.emplace(name, Component{});
    if (inserted.second)
    {
        order.push_back(name);
    }
    inserted.first->second.status.InstallationState = state;
    inserted.first->second.status.ErrorMessage = errorMessage;
}

void FakeUpdaterStatus::SeedProperty(const String& name, const String& key, const String& value)
{
    std::lock_guard<std::mutex> lock(mutex);
    auto found = components.find(name);
    if (found == components.end())
    {
        // A property without its component would be invisible to every lookup.
        throw System::Commons::InvalidOperationException("Cannot seed property '{0}' of unknown component '{1}'.", key, name);
    }
    found->second.properties[key] = value;
}

bool FakeUpdaterStatus::Has(const String& name) const
{
    std::lock_guard<std::mutex> lock(mutex);
    return components.count(name) > 0;
}

std::optional<FakeUpdaterStatus::InstallationState> FakeUpdaterStatus::StateOf(const String& name) const
{
    std::lock_guard<std::mutex> lock(mutex);
    auto found = components.find(name);
    if (found == components.end())
    {
        return std::nullopt;
    }
    return found->second.status.InstallationState;
}

String FakeUpdaterStatus::ErrorMessageOf(const String& name) const
{
    std::lock_guard<std::mutex> lock(mutex);
    auto found = components.find(name);
    return found == components.end() ? String() : found->second.status.ErrorMessage.ToString();
}

std::optional<String> FakeUpdaterStatus::PropertyOf(const String& name, const String& key) const
{
    std::lock_guard<std::mutex> lock(mutex);
    auto found = components.find(name);
    if (found == components.end())
    {
        return std::nullopt;
    }
    auto property = found->second.properties.find(key);
    if (property == found->second.properties.end())
    {
        return std::nullopt;
    }
    return property->second;
}

std::map<String, String> FakeUpdaterStatus::PropertiesOf(const String& name) const
{
    std::lock_guard<std::mutex> lock(mutex);
    auto found = components.find(name);
    return found == components.end() ? std::map<String, String>() : found->second.properties;
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

void FakeUpdaterStatus::FailNextGetStatus(std::size_t count)
{
    std::lock_guard<std::mutex> lock(mutex);
    failGetStatus = count;
}

void FakeUpdaterStatus::Note(String line)
{
    journal.push_back(std::move(line));
}

} // namespace Zun::Testing
