#include "ServiceContracts/Tag.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal
{

using System::Rsc::RscStringEncoding;

Tag::Tag() = default;
Tag::~Tag() = default;

void Tag::WriteTo(System::Rsc::RemotingWriter& writer) const
{
    writer.WriteStringInternal(Name.CStr(), Name.Capacity, RscStringEncoding::Utf8, true);
    writer.WriteStringInternal(Value.CStr(), Value.Capacity, RscStringEncoding::Utf8, true);
}

void Tag::ReadFrom(System::Rsc::RemotingReader& reader)
{
    reader.ReadStringInternal(Name.GetBuffer(), Name.Capacity, RscStringEncoding::Utf8, true);
    reader.ReadStringInternal(Value.GetBuffer(), Value.Capacity, RscStringEncoding::Utf8, true);
}

} // namespace Zun::Services::SoftwareManager::Services::Internal
