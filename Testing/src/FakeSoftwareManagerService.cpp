#include "Zun/Testing/FakeSoftwareManagerService.hpp"

#include <algorithm>

#include <fmt/format.h>

#include "Zun/Commons/DateTime.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/SoftwareUpdate/StatusCode.hpp"

namespace Zun::Testing
{

namespace
{
namespace Codes = Services::SoftwareUpdate::StatusCodes;

using Manifest = FakeSoftwareManagerService::Manifest;
using SoftwareKind = FakeSoftwareManagerService::SoftwareKind;
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

int KindNumber(SoftwareKind kind)
{
    return static_cast<int>(kind);
}

// Driving a component that was never added is a mistake in the test, not a state to simulate.
[[noreturn]] void ThrowUnknownComponent(SoftwareKind kind, const char* name)
{
    throw System::Commons::InvalidOperationException("Unknown component ({0}, {1}).", KindNumber(kind), name);
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
    Note("GetAllSoftwareInformation()");
    std::vector<SoftwareInformation> result;
    result.reserve(order.size() + rawRecords.size());
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
    std::lock_guard<std::mutex> lock(mutex);
    Note(fmt::format("GetSoftwareInformation({}, {})", KindNumber(kind), name));
    if (auto code = Forced("GetSoftwareInformation"))
    {
        return code;
    }
    Component* component = Find(kind, name);
    if (component == nullptr)
    {
        return Codes::BadNotFound;
    }
    information = component->information;
    return Codes::Good;
}

FakeSoftwareManagerService::ServiceStatusCode FakeSoftwareManagerService::GetInstallationState(SoftwareKind kind, const Name& name,
                                                                                                InstallationState& state, RscString& message)
{
    std::lock_guard<std::mutex> lock(mutex);
    Note(fmt::format("GetInstallationState({}, {})", KindNumber(kind), name));
    if (auto code = Forced("GetInstallationState"))
    {
        return code;
    }
    Component* component = Find(kind, name);
    if (component == nullptr)
    {
        return Codes::BadNotFound;
    }
    state = component->state;
    message = component->message;
    return Codes::Good;
}

FakeSoftwareManagerService::ServiceStatusCode FakeSoftwareManagerService::SetSoftwarePackage(SoftwareKind kind, const Name& name,
                                                                                              const RscString& package, RscString& message)
{
    std::lock_guard<std::mutex> lock(mutex);
    Note(fmt::format("SetSoftwarePackage({}, {}, {})", KindNumber(kind), name, package));
    if (auto code = Forced("SetSoftwarePackage"))
    {
        return code;
    }
    Component* component = Find(kind, name);
    if (component == nullptr)
    {
        message = String(fmt::format("Unknown component {}.", name));
        return Codes::BadNotFound;
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
    std::lock_guard<std::mutex> lock(mutex);
    Note(fmt::format("StartInstallation({}, {})", KindNumber(kind), name));
    if (auto code = Forced("StartInstallation"))
    {
        return code;
    }
    Component* component = Find(kind, name);
    if (component == nullptr)
    {
        return Codes::BadNotFound;
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
    std::lock_guard<std::mutex> lock(mutex);
    Note(fmt::format("ResumeInstallation({}, {})", KindNumber(kind), name));
    if (auto code = Forced("ResumeInstallation"))
    {
        return code;
    }
    Component* component = Find(kind, name);
    if (component == nullptr)
    {
        return Codes::BadNotFound;
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

void FakeSoftwareManagerService::RemoveComponent(SoftwareKind kind, const char* name)
{
    std::lock_guard<std::mutex> lock(mutex);
    Key key(kind, String(name));
    if (components.erase(key) > 0)
    {
        order.erase(std::find(order.begin(), order.end(), key));
    }
}

void FakeSoftwareManagerService::AddPackage(const char* package, const Manifest& manifest)
{
    std::lock_guard<std::mutex> lock(mutex);
    packages[String(package)] = WithUtcDate(manifest);
}

void FakeSoftwareManagerService::SetPending(SoftwareKind kind, const char* name, const std::optional<Manifest>& pending)
{
    std::lock_guard<std::mutex> lock(mutex);
    Component* found = Find(kind, Name(name));
    if (found == nullptr)
    {
        ThrowUnknownComponent(kind, name);
    }
    Component& component = *found;
    SetManifest(component.information.HasPendingManifest, component.information.PendingManifest, pending);
}

void FakeSoftwareManagerService::SetCurrent(SoftwareKind kind, const char* name, const std::optional<Manifest>& current)
{
    std::lock_guard<std::mutex> lock(mutex);
    Component* found = Find(kind, Name(name));
    if (found == nullptr)
    {
        ThrowUnknownComponent(kind, name);
    }
    Component& component = *found;
    SetManifest(component.information.HasCurrentManifest, component.information.CurrentManifest, current);
}

void FakeSoftwareManagerService::SetState(SoftwareKind kind, const char* name, InstallationState state, const char* message)
{
    std::lock_guard<std::mutex> lock(mutex);
    Component* found = Find(kind, Name(name));
    if (found == nullptr)
    {
        ThrowUnknownComponent(kind, name);
    }
    Component& component = *found;
    component.state = state;
    component.message = message;
}

void FakeSoftwareManagerService::CompleteInstallation(SoftwareKind kind, const char* name, bool keepVersion)
{
    std::lock_guard<std::mutex> lock(mutex);
    Component* found = Find(kind, Name(name));
    if (found == nullptr)
    {
        ThrowUnknownComponent(kind, name);
    }
    Component& component = *found;
    SoftwareInformation& information = component.information;
    if (information.HasPendingManifest && !keepVersion)
    {
        information.HasCurrentManifest = true;
        information.CurrentManifest = information.PendingManifest;
    }
    SetManifest(information.HasPendingManifest, information.PendingManifest, std::nullopt);
    component.state = InstallationState::Idle;
    component.message.clear();
}

void FakeSoftwareManagerService::FailOperation(const char* operation, ServiceStatusCode code)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (code == Codes::Good)
    {
        failures.erase(String(operation));
    }
    else
    {
        failures[String(operation)] = code;
    }
}

std::optional<FakeSoftwareManagerService::InstallationState> FakeSoftwareManagerService::StateOf(SoftwareKind kind, const char* name) const
{
    std::lock_guard<std::mutex> lock(mutex);
    auto found = components.find(Key(kind, String(name)));
    if (found == components.end())
    {
        return std::nullopt;
    }
    return found->second.state;
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

FakeSoftwareManagerService::Component* FakeSoftwareManagerService::Find(SoftwareKind kind, const Name& name)
{
    auto found = components.find(Key(kind, name.ToString()));
    return found == components.end() ? nullptr : &found->second;
}

FakeSoftwareManagerService::ServiceStatusCode FakeSoftwareManagerService::Forced(const char* operation) const
{
    auto found = failures.find(String(operation));
    return found == failures.end() ? Codes::Good : found->second;
}

void FakeSoftwareManagerService::Note(String line)
{
    journal.push_back(std::move(line));
}

} // namespace Zun::Testing
