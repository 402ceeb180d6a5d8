// Keeps the update service's component list equal to the software manager's.
#include <mutex>

#include "SoftwareUpdater/Internal/EnumText.hpp"
#include "SoftwareUpdater/SoftwareUpdaterModule.hpp"

namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater
{

std::vector<Internal::SoftwareComponentId> SoftwareUpdaterModule::GetManagerComponentIds() const
{
    std::vector<SoftwareComponentId> ids;
    for (const SoftwareInformation& information : softwareManagerService->GetAllSoftwareInformation())
    {
        const String name = information.Name.ToString();
        SoftwareComponentId id;
        if (SoftwareComponentId::TryCreate(information.Kind, name, id))
        {
            ids.push_back(id);
        }
        else
        {
            // A kind without display text throws while this line is formatted.
            log.Log(3, "Failed to create ID for kind {} and name {}", Internal::SoftwareKindText{information.Kind}, name);
        }
    }
    return ids;
}

void SoftwareUpdaterModule::SyncComponents() const
{
    const std::vector<SoftwareComponentId> ids = GetManagerComponentIds();
    AddExistingComponents(ids);
    RemoveNonExistingComponents(ids);
}

void SoftwareUpdaterModule::AddExistingComponents(const std::vector<SoftwareComponentId>& ids) const
{
    for (const SoftwareComponentId& id : ids)
    {
        updaterStatus->AddComponent(id.componentId);
    }
}

void SoftwareUpdaterModule::RemoveNonExistingComponents(const std::vector<SoftwareComponentId>& ids) const
{
    for (const String& name : updaterStatus->GetComponentNames())
    {
        bool listed = false;
        for (const SoftwareComponentId& id : ids)
        {
            if (id.componentId == name)
            {
                listed = true;
                break;
            }
        }
        if (!listed)
        {
            updaterStatus->RemoveComponent(name);
        }
    }
}

bool SoftwareUpdaterModule::IsInstalledByModule(const String& name)
{
    std::lock_guard<System::Commons::Threading::Mutex> lock(mutex);
    String value;
    return updaterStatus->GetProperty(name, PropertyInstallationStartedByModule, value) && value == "true";
}

} // namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater
