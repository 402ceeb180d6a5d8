#include "Zun/Testing/ServiceMocks.hpp"

namespace Zun::Testing
{

using ::testing::Invoke;

void MockUpdaterStatus::DelegateTo(FakeUpdaterStatus& fake)
{
    using Fake = FakeUpdaterStatus;
    ON_CALL(*this, GetComponentNames).WillByDefault(Invoke(&fake, &Fake::GetComponentNames));
    ON_CALL(*this, GetStatus).WillByDefault(Invoke(&fake, &Fake::GetStatus));
    ON_CALL(*this, SetUpdateStatus).WillByDefault(Invoke(&fake, &Fake::SetUpdateStatus));
    ON_CALL(*this, SetPercentComplete).WillByDefault(Invoke(&fake, &Fake::SetPercentComplete));
    ON_CALL(*this, SwitchToInstalling).WillByDefault(Invoke(&fake, &Fake::SwitchToInstalling));
    ON_CALL(*this, FinishInstallation).WillByDefault(Invoke(&fake, &Fake::FinishInstallation));
    ON_CALL(*this, ResetError).WillByDefault(Invoke(&fake, &Fake::ResetError));
    ON_CALL(*this, SetProperty).WillByDefault(Invoke(&fake, &Fake::SetProperty));
    ON_CALL(*this, RemoveProperty).WillByDefault(Invoke(&fake, &Fake::RemoveProperty));
    ON_CALL(*this, GetProperty).WillByDefault(Invoke(&fake, &Fake::GetProperty));
    ON_CALL(*this, AddComponent).WillByDefault(Invoke(&fake, &Fake::AddComponent));
    ON_CALL(*this, RemoveComponent).WillByDefault(Invoke(&fake, &Fake::RemoveComponent));
}

void MockSoftwareManagerService::DelegateTo(FakeSoftwareManagerService& fake)
{
    using Fake = FakeSoftwareManagerService;
    ON_CALL(*this, GetAllSoftwareInformation).WillByDefault(Invoke(&fake, &Fake::GetAllSoftwareInformation));
    ON_CALL(*this, GetSoftwareInformation).WillByDefault(Invoke(&fake, &Fake::GetSoftwareInformation));
    ON_CALL(*this, GetInstallationState).WillByDefault(Invoke(&fake, &Fake::GetInstallationState));
    ON_CALL(*this, SetSoftwarePackage).WillByDefault(Invoke(&fake, &Fake::SetSoftwarePackage));
    ON_CALL(*this, StartInstallation).WillByDefault(Invoke(&fake, &Fake::StartInstallation));
    ON_CALL(*this, ResumeInstallation).WillByDefault(Invoke(&fake, &Fake::ResumeInstallation));
}

} // namespace Zun::Testing
