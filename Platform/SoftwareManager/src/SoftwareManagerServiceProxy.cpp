#include "Zun/SoftwareManager/SoftwareManagerServiceProxy.hpp"

#include "Zun/Commons/Exception.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal
{

namespace
{
constexpr ServiceStatusCode BadNoCommunication = 0x80310000u;
}

struct SoftwareManagerServiceProxy::Impl
{
    System::Rsc::RscEndpoint endpoint;
};

SoftwareManagerServiceProxy::SoftwareManagerServiceProxy(System::Rsc::RscEndpoint endpoint)
    : impl(std::make_unique<Impl>(Impl{std::move(endpoint)}))
{
}

SoftwareManagerServiceProxy::~SoftwareManagerServiceProxy() = default;

const System::Rsc::RscEndpoint& SoftwareManagerServiceProxy::GetEndpoint() const noexcept
{
    return impl->endpoint;
}

std::vector<SoftwareInformation> SoftwareManagerServiceProxy::GetAllSoftwareInformation()
{
    throw System::Commons::InvalidOperationException("The software manager service at '{0}' cannot be reached.", impl->endpoint.socketPath);
}

ServiceStatusCode SoftwareManagerServiceProxy::GetSoftwareInformation(SoftwareKind, const Name&, SoftwareInformation&)
{
    return BadNoCommunication;
}

ServiceStatusCode SoftwareManagerServiceProxy::GetInstallationState(SoftwareKind, const Name&, InstallationState&, System::Rsc::RscString<512>&)
{
    return BadNoCommunication;
}

ServiceStatusCode SoftwareManagerServiceProxy::SetSoftwarePackage(SoftwareKind, const Name&, const System::Rsc::RscString<512>&,
                                                                  System::Rsc::RscString<512>&)
{
    return BadNoCommunication;
}

ServiceStatusCode SoftwareManagerServiceProxy::RemoveSoftwarePackage(SoftwareKind, const Name&)
{
    return BadNoCommunication;
}

ServiceStatusCode SoftwareManagerServiceProxy::GetPackageDirectory(System::Rsc::RscString<512>&)
{
    return BadNoCommunication;
}

ServiceStatusCode SoftwareManagerServiceProxy::StartInstallation(SoftwareKind, const Name&)
{
    return BadNoCommunication;
}

ServiceStatusCode SoftwareManagerServiceProxy::ResumeInstallation(SoftwareKind, const Name&)
{
    return BadNoCommunication;
}

} // namespace Zun::Services::SoftwareManager::Services::Internal
