// gmock doubles of the two neighbouring services, for call-sequence tests; each can hand its
// calls on to an in-memory fake so that a test asserts the order without scripting every answer.
#pragma once

#include <gmock/gmock.h>

#include "ServiceContracts/ISoftwareManagerService.hpp"
#include "ServiceContracts/IUpdaterStatus.hpp"
#include "Zun/Testing/FakeSoftwareManagerService.hpp"
#include "Zun/Testing/FakeUpdaterStatus.hpp"

namespace Zun::Testing
{

class MockUpdaterStatus : public Services::SoftwareUpdate::IUpdaterStatus
{
public:
    MOCK_METHOD(std::vector<String>, GetComponentNames, (), (override));
    MOCK_METHOD(bool, GetStatus, (const String& name, SoftwareUpdateStatus& status), (override));
    MOCK_METHOD(void, SetUpdateStatus, (const String& name, const String& text, bool idle), (override));
    MOCK_METHOD(void, SetPercentComplete, (const String& name, std::uint8_t percent), (override));
    MOCK_METHOD(bool, SwitchToInstalling, (const String& name, bool needsPreparation), (override));
    MOCK_METHOD(void, FinishInstallation, (const String& name, bool success), (override));
    MOCK_METHOD(bool, ResetError, (const String& name), (override));
    MOCK_METHOD(void, SetProperty, (const String& name, const String& key, const String& value, bool persistent), (override));
    MOCK_METHOD(void, RemoveProperty, (const String& name, const String& key), (override));
    MOCK_METHOD(bool, GetProperty, (const String& name, const String& key, String& value), (override));
    MOCK_METHOD(void, AddComponent, (const String& name), (override));
    MOCK_METHOD(void, RemoveComponent, (const String& name), (override));

    // Every call not otherwise expected goes to `fake`.
    void DelegateTo(FakeUpdaterStatus& fake);
};

class MockSoftwareManagerService : public Services::SoftwareManager::Services::Internal::ISoftwareManagerService
{
public:
    using SoftwareKind = Services::SoftwareManager::Services::Internal::SoftwareKind;
    using InstallationState = Services::SoftwareManager::Services::Internal::InstallationState;
    using SoftwareInformation = Services::SoftwareManager::Services::Internal::SoftwareInformation;
    using RscString = System::Rsc::RscString<512>;

    MOCK_METHOD(std::vector<SoftwareInformation>, GetAllSoftwareInformation, (), (override));
    MOCK_METHOD(ServiceStatusCode, GetSoftwareInformation, (SoftwareKind kind, const Name& name, SoftwareInformation& information),
                (override));
    MOCK_METHOD(ServiceStatusCode, GetInstallationState,
                (SoftwareKind kind, const Name& name, InstallationState& state, RscString& message), (override));
    MOCK_METHOD(ServiceStatusCode, SetSoftwarePackage,
                (SoftwareKind kind, const Name& name, const RscString& package, RscString& message), (override));
    MOCK_METHOD(ServiceStatusCode, StartInstallation, (SoftwareKind kind, const Name& name), (override));
    MOCK_METHOD(ServiceStatusCode, ResumeInstallation, (SoftwareKind kind, const Name& name), (override));

    void DelegateTo(FakeSoftwareManagerService& fake);
};

} // namespace Zun::Testing
