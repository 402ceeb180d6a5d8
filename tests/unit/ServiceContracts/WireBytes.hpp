// Builds expected remote-call byte streams by hand, field by field, for the record tests.
#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>

#include <gtest/gtest.h>

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
    WireBytes& Tag(RscType tag)
    {
        bytes.push_back(static_cast<std::uint8_t>(tag));
        return *this;
    }
    WireBytes& Byte(std::uint8_t value)
    {
        bytes.push_back(value);
        return *this;
    }
    // Little-endian, as counts and field counts travel and as the target stores its integers.
    WireBytes& U32(std::uint32_t value)
    {
        for (int i = 0; i < 4; ++i)
        {
            bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
        }
        return *this;
    }
    // A string: [tag 19] encoding 2, length, bytes.
    WireBytes& Text(const char* text, bool withTag = true)
    {
        if (withTag)
        {
            Tag(RscType::String);
        }
        Byte(2);
        U32(static_cast<std::uint32_t>(std::strlen(text)));
        bytes.insert(bytes.end(), text, text + std::strlen(text));
        return *this;
    }
    WireBytes& Date(DateTime date)
    {
        const std::uint64_t raw = date.ToBinary();
        for (int i = 0; i < 8; ++i)
        {
            bytes.push_back(static_cast<std::uint8_t>(raw >> (8 * i)));
        }
        return *this;
    }
    WireBytes& Struct(std::uint32_t fieldCount)
    {
        Tag(RscType::Struct);
        return U32(fieldCount);
    }
    WireBytes& Int32(std::int32_t value) { return Tag(RscType::Int32).U32(static_cast<std::uint32_t>(value)); }
    WireBytes& UInt32(std::uint32_t value) { return Tag(RscType::UInt32).U32(value); }
    WireBytes& Bool(bool value) { return Tag(RscType::Bool).Byte(value ? 1 : 0); }

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

template <class Exception>
void ExpectThrowWithMessage(const std::function<void()>& action, const char* message)
{
    try
    {
        action();
        ADD_FAILURE() << "no exception";
    }
    catch (const Exception& e)
    {
        EXPECT_STREQ(e.what(), message);
    }
}

} // namespace Zun::Testing::Wire
