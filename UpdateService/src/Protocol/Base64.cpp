#include "Zun/UpdateService/Protocol/Base64.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Protocol
{

namespace
{
constexpr char Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int Value(char c) noexcept
{
    if (c >= 'A' && c <= 'Z')
    {
        return c - 'A';
    }
    if (c >= 'a' && c <= 'z')
    {
        return c - 'a' + 26;
    }
    if (c >= '0' && c <= '9')
    {
        return c - '0' + 52;
    }
    return c == '+' ? 62 : c == '/' ? 63 : -1;
}
} // namespace

std::string Base64::Encode(const std::uint8_t* data, std::size_t size)
{
    std::string text;
    text.reserve((size + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= size; i += 3)
    {
        const std::uint32_t v = std::uint32_t(data[i]) << 16 | std::uint32_t(data[i + 1]) << 8 | data[i + 2];
        text += Alphabet[v >> 18 & 63];
        text += Alphabet[v >> 12 & 63];
        text += Alphabet[v >> 6 & 63];
        text += Alphabet[v & 63];
    }
    if (size - i == 1)
    {
        const std::uint32_t v = std::uint32_t(data[i]) << 16;
        text += Alphabet[v >> 18 & 63];
        text += Alphabet[v >> 12 & 63];
        text += "==";
    }
    else if (size - i == 2)
    {
        const std::uint32_t v = std::uint32_t(data[i]) << 16 | std::uint32_t(data[i + 1]) << 8;
        text += Alphabet[v >> 18 & 63];
        text += Alphabet[v >> 12 & 63];
        text += Alphabet[v >> 6 & 63];
        text += '=';
    }
    return text;
}

bool Base64::Decode(const std::string& text, std::vector<std::uint8_t>& out)
{
    out.clear();
    if (text.size() % 4 != 0)
    {
        return false;
    }
    out.reserve(DecodedSizeBound(text.size()));
    for (std::size_t i = 0; i < text.size(); i += 4)
    {
        const bool last = i + 4 == text.size();
        const int padding = last ? (text[i + 3] == '=') + (text[i + 2] == '=') : 0;
        if (padding == 1 && text[i + 2] == '=')
        {
            out.clear();
            return false;
        }
        std::uint32_t v = 0;
        for (int k = 0; k < 4; ++k)
        {
            const int d = k >= 4 - padding ? 0 : Value(text[i + static_cast<std::size_t>(k)]);
            if (d < 0)
            {
                out.clear();
                return false;
            }
            v = v << 6 | static_cast<std::uint32_t>(d);
        }
        // Bits below the last encoded byte must be zero, so every byte sequence has one text.
        if ((padding == 1 && (v & 0xFF) != 0) || (padding == 2 && (v & 0xFFFF) != 0))
        {
            out.clear();
            return false;
        }
        out.push_back(static_cast<std::uint8_t>(v >> 16));
        if (padding < 2)
        {
            out.push_back(static_cast<std::uint8_t>(v >> 8));
        }
        if (padding < 1)
        {
            out.push_back(static_cast<std::uint8_t>(v));
        }
    }
    return true;
}

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Protocol
