// Fixed-capacity string for secrets: wiped on destruction, never formatted, streamed or logged.
#pragma once

#include <cstddef>
#include <cstring>

#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/String.hpp"

namespace Zun
{

// Overwrites memory in a way the optimiser may not remove.
ZUN_EXPORT void SecureZeroMemory(void* data, std::size_t size) noexcept;

// Copies at most `count` bytes of `source` into `destination` (capacity `destinationSize`,
// terminator included) and always terminates. Returns 0, or an errno value (EINVAL for a null
// pointer or zero capacity, ERANGE when the text had to be cut); the destination then holds
// what fitted.
ZUN_EXPORT int SecureStrncpy(char* destination, std::size_t destinationSize, const char* source, std::size_t count) noexcept;

template <std::size_t N>
class SecureString
{
    static_assert(N > 0, "a secure string needs room for its terminator");

public:
    SecureString() noexcept { SecureZeroMemory(data, N); }
    explicit SecureString(const char* text) noexcept : SecureString() { SecureStrncpy(data, N, text, N - 1); }
    SecureString(const SecureString& other) noexcept : SecureString() { std::memcpy(data, other.data, N); }
    SecureString& operator=(const SecureString& other) noexcept
    {
        if (this != &other)
        {
            std::memcpy(data, other.data, N);
        }
        return *this;
    }
    ~SecureString() { SecureZeroMemory(data, N); }

    const char* CStr() const noexcept { return data; }
    std::size_t Length() const noexcept { return ::strnlen(data, N); }
    static constexpr std::size_t Capacity() noexcept { return N; }
    // The raw bytes, for tests that prove the wipe; never for printing.
    const char* RawBuffer() const noexcept { return data; }

private:
    char data[N];
};

// Deliberately no operator<< and no usable fmt::formatter: a secret must never reach a text.
template <std::size_t N>
std::ostream& operator<<(std::ostream&, const SecureString<N>&) = delete;

} // namespace Zun

template <std::size_t N>
struct fmt::formatter<Zun::SecureString<N>>
{
    formatter() = delete;
};
