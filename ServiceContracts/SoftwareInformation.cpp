#include "ServiceContracts/SoftwareInformation.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal
{

using System::Rsc::RscStringEncoding;
using System::Rsc::RscType;

namespace
{

void WriteFlag(System::Rsc::RemotingWriter& writer, bool value)
{
    const std::uint8_t byte = value ? 1 : 0;
    writer.WriteTag(RscType::Bool);
    writer.WriteDataInternal(&byte, sizeof(byte));
}

bool ReadFlag(System::Rsc::RemotingReader& reader)
{
    // Read as a byte: any byte other than 0 would not be a valid bool object.
    std::uint8_t byte = 0;
    reader.ReadTag(RscType::Bool);
    reader.ReadDataInternal(&byte, sizeof(byte));
    return byte != 0;
}

} // namespace

SoftwareInformation::SoftwareInformation() = default;
SoftwareInformation::~SoftwareInformation() = default;

void SoftwareInformation::WriteTo(System::Rsc::RemotingWriter& writer) const
{
    writer.WriteStringInternal(Name.CStr(), Name.Capacity, RscStringEncoding::Utf8, true);
    const auto kind = static_cast<std::int32_t>(Kind);
    writer.WriteTag(RscType::Int32);
    writer.WriteDataInternal(&kind, sizeof(kind));

    WriteFlag(writer, HasCurrentManifest);
    writer.WriteBeginStruct(Manifest::FieldCount);
    CurrentManifest.WriteTo(writer.GetNestedDataWriter());

    WriteFlag(writer, HasPendingManifest);
    writer.WriteBeginStruct(Manifest::FieldCount);
    PendingManifest.WriteTo(writer.GetNestedDataWriter());
}

void SoftwareInformation::ReadFrom(System::Rsc::RemotingReader& reader)
{
    reader.ReadStringInternal(Name.GetBuffer(), Name.Capacity, RscStringEncoding::Utf8, true);
    std::int32_t kind = 0;
    reader.ReadTag(RscType::Int32);
    reader.ReadDataInternal(&kind, sizeof(kind));
    Kind = static_cast<SoftwareKind>(kind);

    HasCurrentManifest = ReadFlag(reader);
    reader.ReadBeginStruct(Manifest::FieldCount);
    CurrentManifest.ReadFrom(reader.GetNestedDataReader());

    HasPendingManifest = ReadFlag(reader);
    reader.ReadBeginStruct(Manifest::FieldCount);
    PendingManifest.ReadFrom(reader.GetNestedDataReader());
}

// Exported here: the class attribute does not reach a friend declared inside it.
ZUN_EXPORT bool operator==(const SoftwareInformation& a, const SoftwareInformation& b) noexcept
{
    return a.Name == b.Name && a.Kind == b.Kind && a.HasCurrentManifest == b.HasCurrentManifest &&
           a.CurrentManifest == b.CurrentManifest && a.HasPendingManifest == b.HasPendingManifest &&
           a.PendingManifest == b.PendingManifest;
}

} // namespace Zun::Services::SoftwareManager::Services::Internal
