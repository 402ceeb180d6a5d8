// The installation status of one component as the update service keeps it.
#pragma once

#include <cstdint>

#include "Zun/Commons/Export.hpp"
#include "Zun/Rsc/IRscSerializable.hpp"
#include "Zun/Rsc/RscString.hpp"
#include "Zun/SoftwareUpdate/InstallationState.hpp"

namespace Zun::Services::SoftwareUpdate::Services::Internal
{

class ZUN_EXPORT SoftwareUpdateStatus : public System::Rsc::IRscSerializable
{
public:
    static constexpr std::size_t FieldCount = 5;

    SoftwareUpdateStatus() = default;
    ~SoftwareUpdateStatus() override;
    SoftwareUpdateStatus(const SoftwareUpdateStatus&) = default;
    SoftwareUpdateStatus& operator=(const SoftwareUpdateStatus&) = default;
    SoftwareUpdateStatus(SoftwareUpdateStatus&&) = default;
    SoftwareUpdateStatus& operator=(SoftwareUpdateStatus&&) = default;

    void WriteTo(System::Rsc::RemotingWriter& writer) const override;
    void ReadFrom(System::Rsc::RemotingReader& reader) override;

    friend ZUN_EXPORT bool operator==(const SoftwareUpdateStatus& a, const SoftwareUpdateStatus& b) noexcept;

    System::Rsc::RscString<512> ErrorMessage;
    std::int32_t StatusWord1 = 0;
    std::int32_t StatusWord2 = 0;
    Services::Internal::InstallationState InstallationState = Services::Internal::InstallationState::Idle;
    bool StatusFlag = false;
};

} // namespace Zun::Services::SoftwareUpdate::Services::Internal
