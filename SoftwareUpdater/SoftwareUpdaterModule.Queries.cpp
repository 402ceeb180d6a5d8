// Current and pending versions of a component, and the update behaviour of its pending package.
#include "SoftwareUpdater/SoftwareUpdaterModule.hpp"
#include "Zun/Rsc/RscString.hpp"

namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater
{

namespace StatusCodes = Services::SoftwareUpdate::StatusCodes;
using Services::SoftwareUpdate::StatusCode;
using Services::SoftwareManager::Services::Internal::Manifest;
using RscName = System::Rsc::RscString<512>;

StatusCode SoftwareUpdaterModule::GetSoftwareVersion(const String& name, SoftwareVersionFileType fileType, SoftwareVersionType& version) noexcept
{
    version.Reset();
    SoftwareComponentId id;
    SoftwareInformation information;
    const StatusCode result = ParseAndReadInformation(name, id, information);
    if (result != StatusCodes::Good)
    {
        return result;
    }

    const Manifest* chosen = nullptr;
    if (fileType == SoftwareVersionFileType::Current && information.HasCurrentManifest)
    {
        chosen = &information.CurrentManifest;
    }
    else if (fileType == SoftwareVersionFileType::Pending && information.HasPendingManifest)
    {
        chosen = &information.PendingManifest;
    }
    if (chosen == nullptr)
    {
        return StatusCodes::BadNotFound;
    }

    const Manifest manifest = *chosen;
    version.Manufacturer = manifest.Manufacturer;
    version.ManufacturerUri = manifest.ManufacturerUri;
    version.SoftwareRevision = manifest.Version;
    version.ReleaseDate = manifest.ReleaseDate;
    return StatusCodes::Good;
}

StatusCode SoftwareUpdaterModule::GetUpdateBehavior(const String& name, const String& manufacturerUri, const String& softwareRevision,
                                                    const std::vector<String>& /*patchIdentifiers*/, UpdateBehavior& behavior) noexcept
{
    behavior = UpdateBehavior::None;
    SoftwareComponentId id;
    SoftwareInformation information;
    const StatusCode result = ParseAndReadInformation(name, id, information);
    if (result != StatusCodes::Good)
    {
        return result;
    }

    const Manifest& pending = information.PendingManifest;
    if (!information.HasPendingManifest || pending.Version.ToString() != softwareRevision)
    {
        log.Log(7, "No pending software package: componentId={0}; softwareRevision={1}", name, softwareRevision);
        return StatusCodes::BadNotFound;
    }
    if (pending.ManufacturerUri.ToString() != manufacturerUri)
    {
        log.Log(7, "Unknown manufacturerUri: {0}", manufacturerUri);
        return StatusCodes::BadNotFound;
    }
    behavior = static_cast<UpdateBehavior>(pending.UpdateBehavior);
    return StatusCodes::Good;
}

StatusCode SoftwareUpdaterModule::ReadInformation(const SoftwareComponentId& id, SoftwareInformation& information) const
{
    return softwareManagerService->GetSoftwareInformation(id.kind, RscName(id.name), information);
}

StatusCode SoftwareUpdaterModule::ParseAndReadInformation(const String& name, SoftwareComponentId& id, SoftwareInformation& information) const
{
    if (!SoftwareComponentId::TryCreate(name, id))
    {
        return StatusCodes::BadInvalidArgument;
    }
    return ReadInformation(id, information);
}

StatusCode SoftwareUpdaterModule::IsPendingVersionAvailable(const SoftwareInformation& information, const SoftwareVersionType& version) const
{
    const Manifest& pending = information.PendingManifest;
    if (!information.HasPendingManifest)
    {
        log.Log(7, "Has no pending software package.");
        return StatusCodes::BadNotFound;
    }
    if (pending.Version.ToString() != version.SoftwareRevision.ToString())
    {
        log.Log(7, "SoftwareRevision mismatch. Pending version is {} but requested {}", pending.Version, version.SoftwareRevision);
        return StatusCodes::BadNotFound;
    }
    if (pending.ManufacturerUri.ToString() != version.ManufacturerUri.ToString())
    {
        log.Log(7, "ManufacturerUri mismatch. Pending ManufacturerUri is {} but must be {}.", pending.ManufacturerUri, version.ManufacturerUri);
        return StatusCodes::BadNotFound;
    }
    if (!version.PatchIdentifiers.empty())
    {
        log.Log(7, "PatchIdentifiers mismatch. Must be empty");
        return StatusCodes::BadNotFound;
    }
    return StatusCodes::Good;
}

} // namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater
