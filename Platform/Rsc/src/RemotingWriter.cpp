#include "Zun/Rsc/RemotingWriter.hpp"

#include <cstring>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Rsc/RemotingException.hpp"

namespace Zun::System::Rsc
{

namespace
{

constexpr std::size_t MaxCount = 0x7FFFFFFF;

bool IsKnownEncoding(RscStringEncoding encoding) noexcept
{
    return encoding == RscStringEncoding::Ascii || encoding == RscStringEncoding::Utf8;
}

void AppendUInt32(std::vector<std::uint8_t>& buffer, std::uint32_t value)
{
    for (int i = 0; i < 4; ++i)
    {
        buffer.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

} // namespace

RemotingWriter::RemotingWriter(std::vector<std::uint8_t>& buffer) : RemotingWriter(buffer, 0) {}

RemotingWriter::RemotingWriter(std::vector<std::uint8_t>& buffer, unsigned depth) : buffer(buffer), depth(depth) {}

RemotingWriter::~RemotingWriter() = default;

void RemotingWriter::WriteTag(RscType tag)
{
    buffer.push_back(static_cast<std::uint8_t>(tag));
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
    const std::size_t length = ::strnlen(text, capacity);
    if (length == capacity)
    {
        throw RemotingException("String has no terminator within its capacity of {0} bytes.", capacity);
    }
    if (length > MaxCount)
    {
        throw RemotingException("String of {0} bytes is longer than {1} bytes.", length, MaxCount);
    }
    if (withTag)
    {
        WriteTag(RscType::String);
    }
    buffer.push_back(static_cast<std::uint8_t>(encoding));
    WriteUInt32(static_cast<std::uint32_t>(length));
    buffer.insert(buffer.end(), text, text + length);
}

void RemotingWriter::WriteArrayLength(std::size_t count)
{
    if (count > MaxCount)
    {
        throw RemotingException("Array count {0} is above the largest count {1}.", count, MaxCount);
    }
    WriteUInt32(static_cast<std::uint32_t>(count));
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
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    buffer.insert(buffer.end(), bytes, bytes + size);
}

void RemotingWriter::WriteDateTime(const DateTime& value)
{
    const std::uint64_t raw = value.ToBinary();
    for (int i = 0; i < 8; ++i)
    {
        buffer.push_back(static_cast<std::uint8_t>(raw >> (8 * i)));
    }
}

void RemotingWriter::WriteBeginStruct(std::size_t fieldCount)
{
    if (fieldCount > MaxCount)
    {
        throw RemotingException("Struct field count {0} is above the largest count {1}.", fieldCount, MaxCount);
    }
    WriteTag(RscType::Struct);
    WriteUInt32(static_cast<std::uint32_t>(fieldCount));
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

void RemotingWriter::WriteUInt32(std::uint32_t value)
{
    AppendUInt32(buffer, value);
}

} // namespace Zun::System::Rsc
