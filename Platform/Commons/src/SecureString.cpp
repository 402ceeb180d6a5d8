// Wiping and bounded copying of secrets.
#include <cerrno>
#include <cstring>

#include "Zun/Commons/SecureString.hpp"

namespace Zun
{

void SecureZeroMemory(void* data, std::size_t size) noexcept
{
    if (data != nullptr)
    {
        ::explicit_bzero(data, size);
    }
}

int SecureStrncpy(char* destination, std::size_t destinationSize, const char* source, std::size_t count) noexcept
{
    if (destination == nullptr || destinationSize == 0)
    {
        return EINVAL;
    }
    if (source == nullptr)
    {
        destination[0] = '\0';
        return EINVAL;
    }
    const std::size_t wanted = ::strnlen(source, count);
    const std::size_t copied = wanted < destinationSize ? wanted : destinationSize - 1;
    std::memmove(destination, source, copied);
    destination[copied] = '\0';
    return copied == wanted ? 0 : ERANGE;
}

} // namespace Zun
