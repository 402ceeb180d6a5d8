#include "Zun/Rsc/RemotingReader.hpp"

#include <cstring>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Rsc/RemotingException.hpp"

namespace Zun::System::Rsc
{

namespace
{

constexpr std::size_t MaxCount = 0x7FFFFFFF;

std::uint32_t DecodeUInt32(const std::uint8_t* bytes) noexcept
{
    return static_cast<std::uint32_t>(bytes[0]) | (static_cast<std::uint32_t>(bytes[1]) << 8) |
           (static_cast<std::uint32_t>(bytes[2]) << 16) | (static_cast<std::uint32_t>(bytes[3]) << 24);
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
void RemotingReader::Require(std::size_t count) const
{
    const std::size_t remaining = GetRemaining();
    if (count > remaining)
    {
        throw RemotingException("Unexpected end of data: {0} bytes needed, {1} left.", count, remaining);
    }
}

void RemotingReader::ReadTag(RscType expected)
{
    Require(1);
    const std::uint8_t tag = data[*position];
    if (tag != static_cast<std::uint8_t>(expected))
    {
        throw RemotingException("Unexpected tag {0} where {1} was expected.", static_cast<unsigned>(tag), static_cast<unsigned>(expected));
    }
    ++*position;
}

void RemotingReader::ReadStringInternal(char* buffer, std::size_t capacity, RscStringEncoding encoding, bool withTag)
{
    if (buffer == nullptr || capacity == 0)
    {
        throw Commons::ArgumentException::Create("buffer", "A string buffer needs room for its terminator.");
    }
    std::size_t offset = 0;
    if (withTag)
    {
        Require(1);
        const std::uint8_t tag = data[*position];
        if (tag != static_cast<std::uint8_t>(RscType::String))
        {
            throw RemotingException("Unexpected tag {0} where {1} was expected.", static_cast<unsigned>(tag),
                                    static_cast<unsigned>(RscType::String));
        }
        offset = 1;
    }
    Require(offset + 5);
    const std::uint8_t* header = data + *position + offset;
    if (header[0] != static_cast<std::uint8_t>(encoding))
    {
        throw RemotingException("Unexpected string encoding {0} where {1} was expected.", static_cast<unsigned>(header[0]),
                                static_cast<unsigned>(encoding));
    }
    const std::size_t length = DecodeUInt32(header + 1);
    if (length >= capacity)
    {
        throw RemotingException("String of {0} bytes does not fit a capacity of {1} bytes with its terminator.", length, capacity);
    }
    offset += 5;
    Require(offset + length);
    const auto* text = reinterpret_cast<const char*>(data + *position + offset);
    if (std::memchr(text, '\0', length) != nullptr)
    {
        throw RemotingException("String of {0} bytes contains a zero byte.", length);
    }
    std::memcpy(buffer, text, length);
    std::memset(buffer + length, 0, capacity - length);
    *position += offset + length;
}

std::size_t RemotingReader::ReadArrayLength()
{
    Require(4);
    const std::uint32_t count = DecodeUInt32(data + *position);
    if (count > MaxCount)
    {
        throw RemotingException("Array count {0} is above the largest count {1}.", count, MaxCount);
    }
    return ReadUInt32();
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
    const std::uint8_t tag = data[*position];
    if (tag != static_cast<std::uint8_t>(RscType::Struct))
    {
        throw RemotingException("Unexpected tag {0} where {1} was expected.", static_cast<unsigned>(tag),
                                static_cast<unsigned>(RscType::Struct));
    }
    Require(5);
    const std::uint32_t fieldCount = DecodeUInt32(data + *position + 1);
    if (fieldCount != expectedFieldCount)
    {
        throw RemotingException("Unexpected struct field count {0} where {1} was expected.", fieldCount, expectedFieldCount);
    }
    *position += 5;
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

std::uint32_t RemotingReader::ReadUInt32()
{
    Require(4);
    const std::uint32_t value = DecodeUInt32(data + *position);
    *position += 4;
    return value;
}

} // namespace Zun::System::Rsc
