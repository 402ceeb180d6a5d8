// What the software manager knows of one component: name, kind, current and pending manifests.
#pragma once

#include "ServiceContracts/Manifest.hpp"
#include "Zun/Commons/Export.hpp"
#include "Zun/Rsc/IRscSerializable.hpp"
#include "Zun/Rsc/RscString.hpp"
#include "Zun/SoftwareManager/SoftwareKind.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal
{

class ZUN_EXPORT SoftwareInformation : public System::Rsc::IRscSerializable
{
public:
    static constexpr std::size_t FieldCount = 6;

    // Defined out of line: value-initialisation (emplace_back()) of a class without a user-provided
    // constructor would zero all of its texts once more before constructing them.
    SoftwareInformation();
    ~SoftwareInformation() override;
    SoftwareInformation(const SoftwareInformation&) = default;
    SoftwareInformation& operator=(const SoftwareInformation&) = default;
    SoftwareInformation(SoftwareInformation&&) = default;
    SoftwareInformation& operator=(SoftwareInformation&&) = default;

    // Both manifests travel whatever the flags say.
    void WriteTo(System::Rsc::RemotingWriter& writer) const override;
    void ReadFrom(System::Rsc::RemotingReader& reader) override;

    friend ZUN_EXPORT bool operator==(const SoftwareInformation& a, const SoftwareInformation& b) noexcept;

    System::Rsc::RscString<512> Name;
    SoftwareKind Kind = SoftwareKind::None;
    bool HasCurrentManifest = false;
    Manifest CurrentManifest;
    bool HasPendingManifest = false;
    Manifest PendingManifest;
};

} // namespace Zun::Services::SoftwareManager::Services::Internal
