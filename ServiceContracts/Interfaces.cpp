// Out-of-line destructors and the defaults of the operations the updater module does not call.
#include "ServiceContracts/ISoftwareManagerService.hpp"
#include "ServiceContracts/IUpdaterStatus.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal
{

namespace
{
constexpr ServiceStatusCode BadNotSupported = 0x803D0000;
}

ISoftwareManagerService::~ISoftwareManagerService() = default;

ServiceStatusCode ISoftwareManagerService::RemoveSoftwarePackage(SoftwareKind /*kind*/, const Name& /*name*/)
{
    return BadNotSupported;
}

ServiceStatusCode ISoftwareManagerService::GetPackageDirectory(System::Rsc::RscString<512>& /*directory*/)
{
    return BadNotSupported;
}

} // namespace Zun::Services::SoftwareManager::Services::Internal

namespace Zun::Services::SoftwareUpdate
{

IUpdaterStatus::~IUpdaterStatus() = default;

} // namespace Zun::Services::SoftwareUpdate
