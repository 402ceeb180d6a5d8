#include "Zun/Testing/FakeSoftwareManagerService.hpp"

#include <algorithm>

#include <fmt/format.h>

#include "Zun/Commons/DateTime.hpp"
#include "Zun/SoftwareUpdate/StatusCode.hpp"

namespace Zun::Testing
{

namespace
{
namespace Codes = Services::SoftwareUpdate::StatusCodes;

using Manifest = FakeSoftwareManagerService::Manifest;
using InstallationState = FakeSoftwareManagerService::InstallationState;

// 2026-01-15T12:00:00Z, a fixed date so that records compare equal across runs.
constexpr std::int64_t FixedReleaseMilliseconds = 1'768'478'400'000;

// Records travel over the wire, which refuses dates of kind Unspecified, absent manifests included.
Manifest WithUtcDate(Manifest manifest)
{
    if (manifest.ReleaseDate.GetKind() == DateTimeKind::Unspecified)
    {
        manifest.ReleaseDate = DateTime::FromUnixTimeMilliseconds(FixedReleaseMilliseconds);
    }
    return manifest;
}

void SetManifest(bool& has, Manifest& target, const std::optional<Manifest>& manifest)
{
    has = manifest.has_value();
    target = WithUtcDate(manifest.value_or(Manifest()));
}
} // namespace

Manifest FakeSoftwareManagerService::MakeManifest(const char* version, const char* manufacturerUri, std::uint32_t updateBehavior)
{
    Manifest manifest;
    manifest.Manufacturer = RscString("Zun test manufacturer");
    manifest.ManufacturerUri = RscString(manufacturerUri);
    manifest.Version = RscString(version);
    manifest.ReleaseDate = DateTime::FromUnixTimeMilliseconds(FixedReleaseMilliseconds);
    manifest.UpdateBehavior = updateBehavior;
    return manifest;
}

std::vector<FakeSoftwareManagerService::SoftwareInformation> FakeSoftwareManagerService::GetAllSoftwareInformation()
{
    std::lock_guard<std::mutex> lock(mutex);
    journal.emplace_back("GetAllSoftwareInformation()");
    std::vector<SoftwareInformation> result;
    for (const auto& key : order)
    {
        result.push_back(components.at(key).information);
    }
    result.insert(result.end(), rawRecords.begin(), rawRecords.end());
    return result;
}

FakeSoftwareManagerService::ServiceStatusCode FakeSoftwareManagerService::GetSoftwareInformation(SoftwareKind kind, const Name& name,
                                                                                                 SoftwareInformation& information)
{
    std::unique_lock<std::mutex> lock(mutex);
    Component* component = nullptr;
    const ServiceStatusCode code = Enter(lock, "GetSoftwareInformation", kind, name, component);
    if (component != nullptr)
    {
        information = component->information;
    }
    return code;
}

FakeSoftwareManagerService::ServiceStatusCode FakeSoftwareManagerService::GetInstallationState(SoftwareKind kind, const Name& name,
                                                                                               InstallationState& state, RscString& message)
{
    std::unique_lock<std::mutex> lock(mutex);
    Component* component = nullptr;
    const ServiceStatusCode code = Enter(lock, "GetInstallationState", kind, name, component);
    if (component != nullptr)
    {
        state = component->state;
        message = component->message;
    }
    return code;
}

FakeSoftwareManagerService::ServiceStatusCode FakeSoftwareManagerService::SetSoftwarePackage(SoftwareKind kind, const Name& name,
                                                                                             const RscString& package, RscString& message)
{
    std::unique_lock<std::mutex> lock(mutex);
    Component* component = nullptr;
    const ServiceStatusCode code = Enter(lock, "SetSoftwarePackage", kind, name, component, fmt::format(", {}", package));
    if (component == nullptr)
    {
        return code;
    }
    auto staged = packages.find(package.ToString());
    if (staged == packages.end())
    {
        message = String(fmt::format("Unknown package {}.", package));
        return Codes::BadNotFound;
    }
    SetManifest(component->information.HasPendingManifest, component->information.PendingManifest, staged->second);
    message = String(fmt::format("Package {} staged.", package));
    return Codes::Good;
}

FakeSoftwareManagerService::ServiceStatusCode FakeSoftwareManagerService::StartInstallation(SoftwareKind kind, const Name& name)
{
    std::unique_lock<std::mutex> lock(mutex);
    Component* component = nullptr;
    const ServiceStatusCode code = Enter(lock, "StartInstallation", kind, name, component);
    if (component == nullptr)
    {
        return code;
    }
    if (component->state != InstallationState::Idle || !component->information.HasPendingManifest)
    {
        return Codes::BadInvalidState;
    }
    component->state = InstallationState::Preparing;
    component->message = "Preparing";
    return Codes::Good;
}

FakeSoftwareManagerService::ServiceStatusCode FakeSoftwareManagerService::ResumeInstallation(SoftwareKind kind, const Name& name)
{
    std::unique_lock<std::mutex> lock(mutex);
    Component* component = nullptr;
    const ServiceStatusCode code = Enter(lock, "ResumeInstallation", kind, name, component);
    if (component == nullptr)
    {
        return code;
    }
    switch (component->state)
    {
    case InstallationState::PreparingFailed:
    case InstallationState::CopyingFailed:
    case InstallationState::ActivatingFailed:
        component->state = InstallationState::Preparing;
        component->message = "Preparing";
        return Codes::Good;
    default:
        return Codes::BadInvalidState;
    }
}

void FakeSoftwareManagerService::AddComponent(SoftwareKind kind, const char* name, const std::optional<Manifest>& current,
                                              const std::optional<Manifest>& pending)
{
    std::lock_guard<std::mutex> lock(mutex);
    Key key(kind, String(name));
    Component component;
    component.information.Name = RscString(name);
    component.information.Kind = kind;
    SetManifest(component.information.HasCurrentManifest, component.information.CurrentManifest, current);
    SetManifest(component.information.HasPendingManifest, component.information.PendingManifest, pending);
    if (components.count(key) == 0)
    {
        order.push_back(key);
    }
    components[key] = std::move(component);
}

void FakeSoftwareManagerService::AddRawRecord(const SoftwareInformation& record)
{
    std::lock_guard<std::mutex> lock(mutex);
    SoftwareInformation copy = record;
    copy.CurrentManifest = WithUtcDate(copy.CurrentManifest);
    copy.PendingManifest = WithUtcDate(copy.PendingManifest);
    rawRecords.push_back(std::move(copy));
}

void FakeSoftwareManagerService::AddPackage(const char* package, const Manifest& manifest)
{
    std::lock_guard<std::mutex> lock(mutex);
    packages[String(package)] = WithUtcDate(manifest);
}

void FakeSoftwareManagerService::SetPending(SoftwareKind kind, const char* name, const std::optional<Manifest>& pending)
{
    std::lock_guard<std::mutex> lock(mutex);
    SoftwareInformation& information = components.at(Key(kind, String(name))).information;
    SetManifest(information.HasPendingManifest, information.PendingManifest, pending);
}

void FakeSoftwareManagerService::SetState(SoftwareKind kind, const char* name, InstallationState state, const char* message)
{
    std::lock_guard<std::mutex> lock(mutex);
    Component& component = components.at(Key(kind, String(name)));
    component.state = state;
    component.message = message;
}

void FakeSoftwareManagerService::BeforeEachCall(std::function<void(const String& call)> action)
{
    std::lock_guard<std::mutex> lock(mutex);
    beforeEachCall = std::move(action);
}

void FakeSoftwareManagerService::FailOperation(const char* operation, ServiceStatusCode code)
{
    std::lock_guard<std::mutex> lock(mutex);
    failures[String(operation)] = code;
}

std::vector<String> FakeSoftwareManagerService::Journal() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return journal;
}

void FakeSoftwareManagerService::ClearJournal()
{
    std::lock_guard<std::mutex> lock(mutex);
    journal.clear();
}

FakeSoftwareManagerService::ServiceStatusCode FakeSoftwareManagerService::Enter(std::unique_lock<std::mutex>& lock, const char* operation,
                                                                                SoftwareKind kind, const Name& name, Component*& component,
                                                                                const String& more)
{
    const String line = fmt::format("{}({}, {}{})", operation, static_cast<int>(kind), name, more);
    if (const std::function<void(const String&)> action = beforeEachCall)
    {
        lock.unlock();
        action(line);
        lock.lock();
    }
    journal.push_back(line);
    auto failure = failures.find(String(operation));
    if (failure != failures.end() && failure->second != Codes::Good)
    {
        return failure->second;
    }
    auto found = components.find(Key(kind, name.ToString()));
    component = found == components.end() ? nullptr : &found->second;
    return component == nullptr ? Codes::BadNotFound : Codes::Good;
}

} // namespace Zun::Testing
