#include "Zun/Rsc/RemotingWriter.hpp"

#include <cstring>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Rsc/RemotingException.hpp"
#include "Zun/Rsc/RscString.hpp"

namespace Zun::System::Rsc
{

namespace
{

std::size_t CountSize(std::uint32_t value) noexcept
{
    std::size_t size = 1;
    while (value >= 0x80)
    {
        value >>= 7;
        ++size;
    }
    return size;
}

std::uint8_t* EncodeCount(std::uint32_t value, std::uint8_t* out) noexcept
{
    while (value >= 0x80)
    {
        *out++ = static_cast<std::uint8_t>(value | 0x80);
        value >>= 7;
    }
    *out++ = static_cast<std::uint8_t>(value);
    return out;
}

constexpr std::size_t MaxCount = 0x7FFFFFFF;

bool IsKnownEncoding(RscStringEncoding encoding) noexcept
{
    return encoding == RscStringEncoding::Ascii || encoding == RscStringEncoding::Utf8;
}


} // namespace

RemotingWriter::RemotingWriter(std::vector<std::uint8_t>& buffer) : RemotingWriter(buffer, 0) {}

RemotingWriter::RemotingWriter(std::vector<std::uint8_t>& buffer, unsigned depth) : buffer(buffer), depth(depth) {}

RemotingWriter::~RemotingWriter() = default;

std::uint8_t* RemotingWriter::Grow(std::size_t count)
{
    const std::size_t at = buffer.size();
    buffer.resize(at + count);
    return buffer.data() + at;
}

void RemotingWriter::WriteTag(RscType tag)
{
    *Grow(1) = static_cast<std::uint8_t>(tag);
}

void RemotingWriter::WriteStringInternal(const char* text, std::size_t capacity, RscStringEncoding encoding, bool withTag)
{
    if (text == nullptr)
    {
        throw Commons::ArgumentException::Create("text", "A string to write must not be null.");
    }
    if (!IsKnownEncoding(encoding))
    {
        throw RemotingException("Unsupported string encoding {0}.", static_cast<unsigned>(encoding));
    }
    // Everything is checked before the first byte goes out, so that a refused string leaves the
    // buffer as it was.
    // strnlen, not the word scan: a caller's text may end before its nominal capacity (a literal).
    const std::size_t length = ::strnlen(text, capacity);
    if (length == capacity)
    {
        throw RemotingException("String has no terminator within its capacity of {0} bytes.", capacity);
    }
    if (length > MaxCount)
    {
        throw RemotingException("String of {0} bytes is longer than {1} bytes.", length, MaxCount);
    }
    // Header and text in one growth of the buffer.
    const std::size_t headSize = (withTag ? 1 : 0) + 1 + CountSize(static_cast<std::uint32_t>(length));
    std::uint8_t* out = Grow(headSize + length);
    if (withTag)
    {
        *out++ = static_cast<std::uint8_t>(RscType::String);
    }
    *out++ = static_cast<std::uint8_t>(encoding);
    out = EncodeCount(static_cast<std::uint32_t>(length), out);
    std::memcpy(out, text, length);
}

void RemotingWriter::WriteArrayLength(std::size_t count)
{
    if (count > MaxCount)
    {
        throw RemotingException("Array count {0} is above the largest count {1}.", count, MaxCount);
    }
    WriteCount(static_cast<std::uint32_t>(count));
}

void RemotingWriter::WriteDataInternal(const void* data, std::size_t size)
{
    if (size == 0)
    {
        return;
    }
    if (data == nullptr)
    {
        throw Commons::ArgumentException::Create("data", "Data to write must not be null.");
    }
    std::memcpy(Grow(size), data, size);
}

void RemotingWriter::WriteDateTime(const DateTime& value)
{
    const std::uint64_t raw = value.ToBinary();
    std::uint8_t* out = Grow(8);
    for (int i = 0; i < 8; ++i)
    {
        out[i] = static_cast<std::uint8_t>(raw >> (8 * i));
    }
}

void RemotingWriter::WriteBeginStruct(std::size_t fieldCount)
{
    if (fieldCount > MaxCount)
    {
        throw RemotingException("Struct field count {0} is above the largest count {1}.", fieldCount, MaxCount);
    }
    std::uint8_t* out = Grow(1 + CountSize(static_cast<std::uint32_t>(fieldCount)));
    *out++ = static_cast<std::uint8_t>(RscType::Struct);
    EncodeCount(static_cast<std::uint32_t>(fieldCount), out);
}

RemotingWriter& RemotingWriter::GetNestedDataWriter()
{
    if (depth >= MaxDepth)
    {
        throw RemotingException("Nesting deeper than {0} levels.", MaxDepth);
    }
    if (!nested)
    {
        nested.reset(new RemotingWriter(buffer, depth + 1));
    }
    return *nested;
}

void RemotingWriter::WriteCount(std::uint32_t value)
{
    EncodeCount(value, Grow(CountSize(value)));
}

} // namespace Zun::System::Rsc
