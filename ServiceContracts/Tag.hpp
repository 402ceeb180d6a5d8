// A name/value pair of texts carried in a manifest.
#pragma once

#include "Zun/Commons/Export.hpp"
#include "Zun/Rsc/IRscSerializable.hpp"
#include "Zun/Rsc/RscString.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal
{

class ZUN_EXPORT Tag : public System::Rsc::IRscSerializable
{
public:
    static constexpr std::size_t FieldCount = 2;

    // Defined out of line: value-initialisation (emplace_back()) of a class without a user-provided
    // constructor would zero all of its texts once more before constructing them.
    Tag();
    Tag(const char* name, const char* value) : Name(name), Value(value) {}
    ~Tag() override;
    Tag(const Tag&) = default;
    Tag& operator=(const Tag&) = default;
    Tag(Tag&&) = default;
    Tag& operator=(Tag&&) = default;

    void WriteTo(System::Rsc::RemotingWriter& writer) const override;
    void ReadFrom(System::Rsc::RemotingReader& reader) override;

    friend ZUN_EXPORT bool operator==(const Tag& a, const Tag& b) noexcept { return a.Name == b.Name && a.Value == b.Value; }

    System::Rsc::RscString<512> Name;
    System::Rsc::RscString<512> Value;
};

} // namespace Zun::Services::SoftwareManager::Services::Internal
