// In-memory status store of the update service: records, properties, registrations and the
// Idle / Installing / Error state machine (a refused switch returns false and changes nothing).
// Every call is journaled, so tests can assert the order of calls. Thread-safe.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <vector>

#include "ServiceContracts/IUpdaterStatus.hpp"

namespace Zun::Testing
{

class FakeUpdaterStatus : public Services::SoftwareUpdate::IUpdaterStatus
{
public:
    using InstallationState = Services::SoftwareUpdate::Services::Internal::InstallationState;

    std::vector<String> GetComponentNames() override;
    bool GetStatus(const String& name, SoftwareUpdateStatus& status) override;
    void SetUpdateStatus(const String& name, const String& text, bool idle) override;
    void SetPercentComplete(const String& name, std::uint8_t percent) override;
    bool SwitchToInstalling(const String& name, bool needsPreparation) override;
    void FinishInstallation(const String& name, bool success) override;
    bool ResetError(const String& name) override;
    void SetProperty(const String& name, const String& key, const String& value, bool persistent) override;
    void RemoveProperty(const String& name, const String& key) override;
    bool GetProperty(const String& name, const String& key, String& value) override;
    // A repeated AddComponent keeps the record, state and properties.
    void AddComponent(const String& name) override;
    // Drops the record and the properties; harmless for an unknown name.
    void RemoveComponent(const String& name) override;

    // Test set-up and inspection (not journaled).
    void Seed(const String& name, InstallationState state, const String& errorMessage = String());
    void SeedProperty(const String& name, const String& key, const String& value);
    bool Has(const String& name) const;
    std::optional<InstallationState> StateOf(const String& name) const;
    String ErrorMessageOf(const String& name) const;
    std::optional<String> PropertyOf(const String& name, const String& key) const;
    std::map<String, String> PropertiesOf(const String& name) const;
    // Journal lines such as "SwitchToInstalling(Generic files / a, false)".
    std::vector<String> Journal() const;
    void ClearJournal();
    // Makes the next GetStatus calls for any name return false (0: normal).
    void FailNextGetStatus(std::size_t count);

private:
    struct Component
    {
        SoftwareUpdateStatus status;
        std::map<String, String> properties;
    };

    void Note(String line);

    mutable std::mutex mutex;
    std::vector<String> order; // registration order
    std::map<String, Component> components;
    std::vector<String> journal;
    std::size_t failGetStatus = 0;
};

} // namespace Zun::Testing
