// In-memory software manager: components with manifests and an installation state that tests
// drive step by step. Thread-safe; every call is journaled.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "ServiceContracts/ISoftwareManagerService.hpp"

namespace Zun::Testing
{

class FakeSoftwareManagerService : public Services::SoftwareManager::Services::Internal::ISoftwareManagerService
{
public:
    using SoftwareKind = Services::SoftwareManager::Services::Internal::SoftwareKind;
    using InstallationState = Services::SoftwareManager::Services::Internal::InstallationState;
    using SoftwareInformation = Services::SoftwareManager::Services::Internal::SoftwareInformation;
    using Manifest = Services::SoftwareManager::Services::Internal::Manifest;
    using RscString = System::Rsc::RscString<512>;

    // A manifest with the given version and URI, a UTC release date and `updateBehavior`.
    static Manifest MakeManifest(const char* version, const char* manufacturerUri = "urn:zun:test", std::uint32_t updateBehavior = 0);

    std::vector<SoftwareInformation> GetAllSoftwareInformation() override;
    ServiceStatusCode GetSoftwareInformation(SoftwareKind kind, const Name& name, SoftwareInformation& information) override;
    ServiceStatusCode GetInstallationState(SoftwareKind kind, const Name& name, InstallationState& state, RscString& message) override;
    // Stages a package registered with AddPackage under `package`; Bad_NotFound for an unknown one.
    ServiceStatusCode SetSoftwarePackage(SoftwareKind kind, const Name& name, const RscString& package, RscString& message) override;
    // Moves an idle component with a pending package to Preparing (1).
    ServiceStatusCode StartInstallation(SoftwareKind kind, const Name& name) override;
    // Moves a failed component (2, 4, 6) back to Preparing (1).
    ServiceStatusCode ResumeInstallation(SoftwareKind kind, const Name& name) override;

    // Set-up and driving, not journaled. AddComponent replaces a component of the same name with an
    // idle one; driving a component that was never added throws std::out_of_range.
    void AddComponent(SoftwareKind kind, const char* name, const std::optional<Manifest>& current = std::nullopt,
                      const std::optional<Manifest>& pending = std::nullopt);
    void AddRawRecord(const SoftwareInformation& record); // listed as it is, for odd records
    void AddPackage(const char* package, const Manifest& manifest);
    void SetPending(SoftwareKind kind, const char* name, const std::optional<Manifest>& pending);
    void SetState(SoftwareKind kind, const char* name, InstallationState state, const char* message = "");
    // Runs `action` with the journal line of each later call before the call is carried out, outside
    // the lock, so that a test can change the manager at that moment.
    void BeforeEachCall(std::function<void(const String& call)> action);
    // Forces the result of every later call of one operation ("GetInstallationState", ...); Good clears.
    void FailOperation(const char* operation, ServiceStatusCode code);
    std::vector<String> Journal() const;
    void ClearJournal();

private:
    struct Component
    {
        SoftwareInformation information;
        InstallationState state = InstallationState::Idle;
        String message;
    };
    using Key = std::pair<SoftwareKind, String>;

    // Journals a call; its component when the call goes on (Good), else null and the code to answer.
    ServiceStatusCode Enter(std::unique_lock<std::mutex>& lock, const char* operation, SoftwareKind kind, const Name& name,
                            Component*& component, const String& more = String());

    mutable std::mutex mutex;
    std::vector<Key> order;
    std::map<Key, Component> components;
    std::vector<SoftwareInformation> rawRecords;
    std::map<String, Manifest> packages;
    std::map<String, ServiceStatusCode> failures;
    std::vector<String> journal;
    std::function<void(const String& call)> beforeEachCall;
};

} // namespace Zun::Testing
