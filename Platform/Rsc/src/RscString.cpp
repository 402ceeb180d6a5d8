#include "Zun/Rsc/RscString.hpp"

namespace Zun::System::Rsc
{

void ClearText(char* data, std::size_t size) noexcept
{
    std::memset(data, 0, size);
}

} // namespace Zun::System::Rsc
