// Builds expected remote-call byte streams by hand, field by field, and runs records over them.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "../Platform/Expect.hpp"
#include "Zun/Commons/DateTime.hpp"
#include "Zun/Rsc/RemotingException.hpp"
#include "Zun/Rsc/RemotingReader.hpp"
#include "Zun/Rsc/RemotingWriter.hpp"
#include "Zun/Rsc/RscType.hpp"

namespace Zun::Testing::Wire
{

using Bytes = std::vector<std::uint8_t>;
using System::Rsc::RscType;

class WireBytes
{
public:
    WireBytes& Tag(RscType tag) { return Byte(static_cast<std::uint8_t>(tag)); }
    WireBytes& Byte(std::uint8_t value)
    {
        bytes.push_back(value);
        return *this;
    }
    // Little-endian, as the target stores its integers.
    WireBytes& U32(std::uint32_t value) { return Byte(value & 0xFF).Byte((value >> 8) & 0xFF).Byte((value >> 16) & 0xFF).Byte(value >> 24); }
    // Lengths and counts: 7 bits a byte, low bits first, high bit on all but the last byte.
    WireBytes& Count(std::uint32_t value)
    {
        for (; value >= 0x80; value >>= 7)
        {
            Byte(static_cast<std::uint8_t>(value | 0x80));
        }
        return Byte(static_cast<std::uint8_t>(value));
    }
    // A string: [tag 19] encoding 2, length, bytes.
    WireBytes& Text(const std::string& text, bool withTag = true)
    {
        if (withTag)
        {
            Tag(RscType::String);
        }
        Byte(2).Count(static_cast<std::uint32_t>(text.size()));
        bytes.insert(bytes.end(), text.begin(), text.end());
        return *this;
    }
    WireBytes& Date(DateTime date) { return U32(static_cast<std::uint32_t>(date.ToBinary())).U32(static_cast<std::uint32_t>(date.ToBinary() >> 32)); }
    WireBytes& Struct(std::uint32_t fieldCount) { return Tag(RscType::Struct).Count(fieldCount); }
    WireBytes& Int32(std::int32_t value) { return Tag(RscType::Int32).U32(static_cast<std::uint32_t>(value)); }
    WireBytes& UInt32(std::uint32_t value) { return Tag(RscType::UInt32).U32(value); }
    WireBytes& Bool(bool value) { return Tag(RscType::Bool).Byte(value ? 1 : 0); }
    WireBytes& TextListHeader(std::uint32_t count) { return Tag(RscType::Array).Tag(RscType::String).Count(count); }

    Bytes bytes;
};

template <class Record>
Bytes Write(const Record& record)
{
    Bytes buffer;
    System::Rsc::RemotingWriter writer(buffer);
    record.WriteTo(writer);
    return buffer;
}

template <class Record>
Record Read(const Bytes& bytes)
{
    Record record;
    System::Rsc::RemotingReader reader(bytes.data(), bytes.size());
    record.ReadFrom(reader);
    EXPECT_EQ(reader.GetRemaining(), 0u);
    return record;
}

// The message of the E that reading `bytes` into `record` throws; the record keeps what was read.
template <class E, class Record>
std::string ReadFailure(const Bytes& bytes, Record& record)
{
    System::Rsc::RemotingReader reader(bytes.data(), bytes.size());
    return ZunTest::MessageOf<E>([&] { record.ReadFrom(reader); });
}

// The message of the E that writing `record` throws; `written` gets what reached the stream.
template <class E, class Record>
std::string WriteFailure(const Record& record, Bytes& written)
{
    System::Rsc::RemotingWriter writer(written);
    return ZunTest::MessageOf<E>([&] { record.WriteTo(writer); });
}

// Every proper prefix of a valid stream must fail as a stream fault, never crash or succeed.
template <class Record>
void ExpectEveryPrefixFails(const Bytes& valid)
{
    for (std::size_t length = 0; length < valid.size(); ++length)
    {
        Record record;
        System::Rsc::RemotingReader reader(valid.data(), length);
        EXPECT_THROW(record.ReadFrom(reader), System::Rsc::RemotingException) << "prefix length " << length;
    }
}

} // namespace Zun::Testing::Wire
