// The update service's status callback: per-component status records, state machine and properties.
#pragma once

#include <cstdint>
#include <vector>

#include "ServiceContracts/SoftwareUpdateStatus.hpp"
#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/String.hpp"

namespace Zun::Services::SoftwareUpdate
{

class ZUN_EXPORT IUpdaterStatus
{
public:
    using SoftwareUpdateStatus = Services::Internal::SoftwareUpdateStatus;

    virtual ~IUpdaterStatus();

    virtual std::vector<String> GetComponentNames() = 0;
    // Copies the stored record out; false when there is none for `name`.
    virtual bool GetStatus(const String& name, SoftwareUpdateStatus& status) = 0;
    // Stores `text` as the record's error message; `idle` is true exactly when the component is Idle.
    virtual void SetUpdateStatus(const String& name, const String& text, bool idle) = 0;
    // Progress of a running installation, in percent. The updater module does not call it.
    virtual void SetPercentComplete(const String& name, std::uint8_t percent) = 0;
    // Idle to Installing; false when refused. `needsPreparation` mirrors the package's update behaviour.
    virtual bool SwitchToInstalling(const String& name, bool needsPreparation) = 0;
    // Installing to Idle (true) or to Error (false).
    virtual void FinishInstallation(const String& name, bool success) = 0;
    // Error to Idle; false when refused.
    virtual bool ResetError(const String& name) = 0;
    virtual void SetProperty(const String& name, const String& key, const String& value, bool persistent) = 0;
    virtual void RemoveProperty(const String& name, const String& key) = 0;
    virtual bool GetProperty(const String& name, const String& key, String& value) = 0;
    virtual void AddComponent(const String& name) = 0;
    virtual void RemoveComponent(const String& name) = 0;
};

} // namespace Zun::Services::SoftwareUpdate
