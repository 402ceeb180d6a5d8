#include "ServiceContracts/SoftwareUpdateStatus.hpp"

namespace Zun::Services::SoftwareUpdate::Services::Internal
{

using System::Rsc::RscStringEncoding;
using System::Rsc::RscType;

SoftwareUpdateStatus::~SoftwareUpdateStatus() = default;

void SoftwareUpdateStatus::WriteTo(System::Rsc::RemotingWriter& writer) const
{
    writer.WriteStringInternal(ErrorMessage.CStr(), ErrorMessage.Capacity, RscStringEncoding::Utf8, true);
    writer.WriteTag(RscType::Int32);
    writer.WriteDataInternal(&StatusWord1, sizeof(StatusWord1));
    writer.WriteTag(RscType::Int32);
    writer.WriteDataInternal(&StatusWord2, sizeof(StatusWord2));
    const auto state = static_cast<std::int32_t>(InstallationState);
    writer.WriteTag(RscType::Int32);
    writer.WriteDataInternal(&state, sizeof(state));
    const std::uint8_t flag = StatusFlag ? 1 : 0;
    writer.WriteTag(RscType::Bool);
    writer.WriteDataInternal(&flag, sizeof(flag));
}

void SoftwareUpdateStatus::ReadFrom(System::Rsc::RemotingReader& reader)
{
    reader.ReadStringInternal(ErrorMessage.GetBuffer(), ErrorMessage.Capacity, RscStringEncoding::Utf8, true);
    reader.ReadTag(RscType::Int32);
    reader.ReadDataInternal(&StatusWord1, sizeof(StatusWord1));
    reader.ReadTag(RscType::Int32);
    reader.ReadDataInternal(&StatusWord2, sizeof(StatusWord2));
    std::int32_t state = 0;
    reader.ReadTag(RscType::Int32);
    reader.ReadDataInternal(&state, sizeof(state));
    InstallationState = static_cast<Services::Internal::InstallationState>(state);
    // Read as a byte: any byte other than 0 would not be a valid bool object.
    std::uint8_t flag = 0;
    reader.ReadTag(RscType::Bool);
    reader.ReadDataInternal(&flag, sizeof(flag));
    StatusFlag = flag != 0;
}

// Exported here: the class attribute does not reach a friend declared inside it.
ZUN_EXPORT bool operator==(const SoftwareUpdateStatus& a, const SoftwareUpdateStatus& b) noexcept
{
    return a.ErrorMessage == b.ErrorMessage && a.StatusWord1 == b.StatusWord1 && a.StatusWord2 == b.StatusWord2 &&
           a.InstallationState == b.InstallationState && a.StatusFlag == b.StatusFlag;
}

} // namespace Zun::Services::SoftwareUpdate::Services::Internal
