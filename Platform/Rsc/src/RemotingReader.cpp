#include "Zun/Rsc/RemotingReader.hpp"

#include <cstring>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Rsc/RemotingException.hpp"
#include "Zun/Rsc/RscString.hpp"

namespace Zun::System::Rsc
{

namespace
{

constexpr std::size_t MaxCount = 0x7FFFFFFF;

constexpr std::size_t MaxCountBytes = 5;

[[noreturn]] void ThrowEndOfData(std::size_t needed, std::size_t remaining)
{
    throw RemotingException("Unexpected end of data: {0} bytes needed, {1} left.", needed, remaining);
}

[[noreturn]] void ThrowUnexpectedTag(std::uint8_t tag, RscType expected)
{
    throw RemotingException("Unexpected tag {0} where {1} was expected.", static_cast<unsigned>(tag), static_cast<unsigned>(expected));
}

} // namespace

RemotingReader::RemotingReader(const std::uint8_t* data, std::size_t size) : RemotingReader(data, size, nullptr, 0)
{
    position = &ownPosition;
    Reset(data, size);
}

RemotingReader::RemotingReader(const std::uint8_t* data, std::size_t size, std::size_t* position, unsigned depth)
    : data(data), size(size), position(position), depth(depth)
{
}

void RemotingReader::Reset(const std::uint8_t* newData, std::size_t newSize)
{
    if (newData == nullptr && newSize != 0)
    {
        throw Commons::ArgumentException::Create("data", "Data to read must not be null.");
    }
    for (RemotingReader* reader = this; reader != nullptr; reader = reader->nested.get())
    {
        reader->data = newData;
        reader->size = newSize;
    }
    *position = 0;
}

RemotingReader::~RemotingReader() = default;

// Every read checks all of its bytes before it moves the position, so a failed read consumes nothing.
inline void RemotingReader::Require(std::size_t count) const
{
    if (count > GetRemaining())
    {
        ThrowEndOfData(count, GetRemaining());
    }
}

inline std::uint32_t RemotingReader::PeekCount(std::size_t offset, std::size_t& used) const
{
    // Most counts are below 128: one byte.
    if (offset < GetRemaining() && data[*position + offset] < 0x80)
    {
        used = 1;
        return data[*position + offset];
    }
    return PeekLongCount(offset, used);
}

std::uint32_t RemotingReader::PeekLongCount(std::size_t offset, std::size_t& used) const
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < MaxCountBytes; ++i)
    {
        Require(offset + i + 1);
        const std::uint8_t byte = data[*position + offset + i];
        if (i == MaxCountBytes - 1 && byte > 0x0F)
        {
            throw RemotingException("Count wider than 32 bits.");
        }
        value |= static_cast<std::uint32_t>(byte & 0x7F) << (7 * i);
        if ((byte & 0x80) == 0)
        {
            if (byte == 0 && i > 0)
            {
                throw RemotingException("Count not in its shortest form.");
            }
            used = i + 1;
            return value;
        }
    }
    throw RemotingException("Count wider than 32 bits.");
}

void RemotingReader::ReadTag(RscType expected)
{
    Require(1);
    const std::uint8_t tag = data[*position];
    if (tag != static_cast<std::uint8_t>(expected))
    {
        ThrowUnexpectedTag(tag, expected);
    }
    ++*position;
}

void RemotingReader::ReadStringInternal(char* buffer, std::size_t capacity, RscStringEncoding encoding, bool withTag)
{
    if (buffer == nullptr || capacity == 0)
    {
        throw Commons::ArgumentException::Create("buffer", "A string buffer needs room for its terminator.");
    }
    // Local copies: `buffer` may alias anything, so members would be read again after every store.
    std::size_t* const at = position;
    const std::uint8_t* const in = data + *at;
    const std::size_t left = size - *at;
    std::size_t offset = 0;
    if (withTag)
    {
        if (left < 1)
        {
            ThrowEndOfData(1, left);
        }
        if (in[0] != static_cast<std::uint8_t>(RscType::String))
        {
            ThrowUnexpectedTag(in[0], RscType::String);
        }
        offset = 1;
    }
    if (left < offset + 1)
    {
        ThrowEndOfData(offset + 1, left);
    }
    if (in[offset] != static_cast<std::uint8_t>(encoding))
    {
        throw RemotingException("Unexpected string encoding {0} where {1} was expected.", static_cast<unsigned>(in[offset]),
                                static_cast<unsigned>(encoding));
    }
    ++offset;
    std::size_t used = 1;
    const std::size_t length = left > offset && in[offset] < 0x80 ? in[offset] : PeekLongCount(offset, used);
    if (length >= capacity)
    {
        throw RemotingException("String of {0} bytes does not fit a capacity of {1} bytes with its terminator.", length, capacity);
    }
    offset += used;
    if (left < offset + length)
    {
        ThrowEndOfData(offset + length, left);
    }
    const auto* text = reinterpret_cast<const char*>(in + offset);
    if (FindZero(text, length) != length)
    {
        throw RemotingException("String of {0} bytes contains a zero byte.", length);
    }
    // Past the new terminator only the old text's bytes can be non-zero.
    const std::size_t oldLength = FindZero(buffer, capacity);
    std::memcpy(buffer, text, length);
    if (oldLength > length)
    {
        std::memset(buffer + length, 0, (oldLength < capacity ? oldLength + 1 : capacity) - length);
    }
    else
    {
        buffer[length] = '\0';
    }
    *at += offset + length;
}

std::size_t RemotingReader::ReadArrayLength()
{
    std::size_t used = 0;
    const std::uint32_t count = PeekCount(0, used);
    if (count > MaxCount)
    {
        throw RemotingException("Array count {0} is above the largest count {1}.", count, MaxCount);
    }
    *position += used;
    return count;
}

void RemotingReader::ReadDataInternal(void* buffer, std::size_t size)
{
    if (size == 0)
    {
        return;
    }
    if (buffer == nullptr)
    {
        throw Commons::ArgumentException::Create("buffer", "A data buffer must not be null.");
    }
    Require(size);
    std::memcpy(buffer, data + *position, size);
    *position += size;
}

DateTime RemotingReader::ReadDateTime()
{
    Require(8);
    std::uint64_t raw = 0;
    for (int i = 7; i >= 0; --i)
    {
        raw = (raw << 8) | data[*position + static_cast<std::size_t>(i)];
    }
    *position += 8;
    return DateTime::FromBinary(raw);
}

void RemotingReader::ReadBeginStruct(std::size_t expectedFieldCount)
{
    Require(1);
    if (data[*position] != static_cast<std::uint8_t>(RscType::Struct))
    {
        ThrowUnexpectedTag(data[*position], RscType::Struct);
    }
    std::size_t used = 0;
    const std::uint32_t fieldCount = PeekCount(1, used);
    if (fieldCount != expectedFieldCount)
    {
        throw RemotingException("Unexpected struct field count {0} where {1} was expected.", fieldCount, expectedFieldCount);
    }
    *position += 1 + used;
}

RemotingReader& RemotingReader::GetNestedDataReader()
{
    if (depth >= MaxDepth)
    {
        throw RemotingException("Nesting deeper than {0} levels.", MaxDepth);
    }
    if (!nested)
    {
        nested.reset(new RemotingReader(data, size, position, depth + 1));
    }
    return *nested;
}

} // namespace Zun::System::Rsc
