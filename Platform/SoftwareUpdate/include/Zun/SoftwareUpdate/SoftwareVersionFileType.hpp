// Which version of a component a request means.
#pragma once

#include <cstdint>

namespace Zun::Services::SoftwareUpdate::Services::Internal
{

enum class SoftwareVersionFileType : std::int32_t
{
    Current = 0,
    Pending = 1,
    Fallback = 2,
};

} // namespace Zun::Services::SoftwareUpdate::Services::Internal
