// In-memory status store of the update service: records, properties, registrations and the
// Idle / Installing / Error state machine (a refused switch returns false and changes nothing).
// Every call is journaled, so tests can assert the order of calls. Thread-safe.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
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

    // Set-up and inspection, not journaled; a property of an unknown component throws std::out_of_range.
    void Seed(const String& name, InstallationState state, const String& errorMessage = String());
    void SeedProperty(const String& name, const String& key, const String& value);
    // Makes the next call journaled as `call`, such as "ResetError(Generic files / a)", answer false;
    // `carriedOut`: it changes the store or hands out its value all the same.
    void Refuse(const String& call, bool carriedOut = false);
    std::optional<InstallationState> StateOf(const String& name) const;
    String ErrorMessageOf(const String& name) const;
    std::optional<String> PropertyOf(const String& name, const String& key) const;
    std::map<String, String> PropertiesOf(const String& name) const;
    // Journal lines such as "SwitchToInstalling(Generic files / a, false)".
    std::vector<String> Journal() const;
    void ClearJournal();

private:
    struct Component
    {
        SoftwareUpdateStatus status;
        std::map<String, String> properties;
    };

    // Journals a call on `name` and carries it out on the component unless there is none or the call
    // is refused; the body's answer, false when not carried out or refused.
    bool Call(const String& line, const String& name, const std::function<bool(Component&)>& body);
    const Component* Find(const String& name) const;

    mutable std::mutex mutex;
    std::vector<String> order; // registration order
    std::map<String, Component> components;
    std::map<String, bool> refusals;
    std::vector<String> journal;
};

} // namespace Zun::Testing
