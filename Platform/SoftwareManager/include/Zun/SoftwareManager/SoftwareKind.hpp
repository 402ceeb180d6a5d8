// Kinds of software that the software manager manages, and their text output.
#pragma once

#include <cstdint>
#include <ostream>

#include "Zun/Commons/Export.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal
{

enum class SoftwareKind : std::int32_t
{
    None = 0,
    GenericFiles = 1,
    TesmoraEngineerProject = 2,
};

// Writes "None", "Generic files" or "Tesmora Engineer project"; any other value sets failbit.
ZUN_EXPORT std::ostream& operator<<(std::ostream& stream, SoftwareKind kind);

} // namespace Zun::Services::SoftwareManager::Services::Internal
