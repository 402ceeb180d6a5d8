#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "../Expect.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/Rsc/RemotingException.hpp"
#include "Zun/Rsc/RemotingReader.hpp"
#include "Zun/Rsc/RemotingWriter.hpp"

namespace
{

using Zun::System::Commons::ArgumentException;
using Zun::System::Rsc::RemotingException;
using Zun::System::Rsc::RemotingReader;
using Zun::System::Rsc::RemotingWriter;
using Zun::System::Rsc::RscStringEncoding;
using Zun::System::Rsc::RscType;
using ZunTest::MessageOf;
using Bytes = std::vector<std::uint8_t>;
using Encoding = RscStringEncoding;

// The whole buffer after the read, so that what follows the text is checked too. The buffer held a
// longer text before, which must not show behind the new one.
std::string ReadText(RemotingReader& reader, std::size_t capacity, Encoding encoding, bool withTag)
{
    std::string buffer(capacity, 'x');
    buffer.back() = '\0';
    reader.ReadStringInternal(buffer.data(), capacity, encoding, withTag);
    return buffer;
}

struct EncodingCase
{
    const char* name;
    std::function<void(RemotingWriter&)> write;
    Bytes bytes;
    std::function<void(RemotingReader&)> readBack;
};

// Tags, UTF-8 texts, dates and struct headers are checked byte for byte with the records that use them.
TEST(RemotingTest, EveryOperationEncodesExactlyAndReadsBack)
{
    const std::int32_t minusTwo = -2;
    const std::vector<EncodingCase> cases = {
        {"string without tag", [](RemotingWriter& w) { w.WriteStringInternal("xyz", 4, Encoding::Ascii, false); }, {1, 3, 'x', 'y', 'z'},
         [](RemotingReader& r) { EXPECT_EQ(ReadText(r, 4, Encoding::Ascii, false), std::string("xyz\0", 4)); }},
        {"empty string", [](RemotingWriter& w) { w.WriteStringInternal("", 1, Encoding::Utf8, true); }, {19, 2, 0},
         [](RemotingReader& r) { EXPECT_EQ(ReadText(r, 3, Encoding::Utf8, true), std::string(3, '\0')); }},
        {"two-byte array length", [](RemotingWriter& w) { w.WriteArrayLength(300); }, {0xAC, 0x02},
         [](RemotingReader& r) { EXPECT_EQ(r.ReadArrayLength(), 300u); }},
        {"largest array length", [](RemotingWriter& w) { w.WriteArrayLength(0x7FFFFFFF); }, {0xFF, 0xFF, 0xFF, 0xFF, 0x07},
         [](RemotingReader& r) { EXPECT_EQ(r.ReadArrayLength(), 0x7FFFFFFFu); }},
        {"raw data", [&](RemotingWriter& w) { w.WriteDataInternal(&minusTwo, 4); }, {0xFE, 0xFF, 0xFF, 0xFF},
         [](RemotingReader& r) {
             std::int32_t value = 0;
             r.ReadDataInternal(&value, 4);
             EXPECT_EQ(value, -2);
         }},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        Bytes buffer{0xAA};
        RemotingWriter writer(buffer);
        c.write(writer);
        Bytes expected{0xAA};
        expected.insert(expected.end(), c.bytes.begin(), c.bytes.end());
        EXPECT_EQ(buffer, expected);
        EXPECT_EQ(writer.GetSize(), expected.size());

        RemotingReader reader(c.bytes.data(), c.bytes.size());
        c.readBack(reader);
        EXPECT_EQ(reader.GetRemaining(), 0u);
        EXPECT_EQ(reader.GetPosition(), c.bytes.size());
    }
}

struct FaultCase
{
    const char* name;
    Bytes data;
    std::function<void(RemotingReader&)> read;
    const char* message;
};

TEST(RemotingTest, EveryInputFaultIsARemotingExceptionThatConsumesNothing)
{
    const auto text = [](std::size_t capacity, bool withTag) {
        return [=](RemotingReader& r) { ReadText(r, capacity, Encoding::Utf8, withTag); };
    };
    // Past the first 32 bytes a text is scanned differently.
    Bytes longWithZero{2, 40};
    longWithZero.resize(42, 'a');
    longWithZero[2 + 36] = 0;
    const std::vector<FaultCase> cases = {
        {"wrong tag", {8}, [](RemotingReader& r) { r.ReadTag(RscType::Bool); }, "Unexpected tag 8 where 2 was expected."},
        {"string encoding", {19, 1, 0}, text(8, true), "Unexpected string encoding 1 where 2 was expected."},
        {"string huge length", {2, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F}, text(512, false),
         "String of 4294967295 bytes does not fit a capacity of 512 bytes with its terminator."},
        {"string with zero byte", {2, 3, 'a', 0, 'b'}, text(8, false), "String of 3 bytes contains a zero byte."},
        {"long string with zero byte", longWithZero, text(64, false), "String of 40 bytes contains a zero byte."},
        {"string body cut", {19, 2, 3, 'a', 'b'}, text(8, true), "Unexpected end of data: 6 bytes needed, 5 left."},
        {"array count", {0x80, 0x80, 0x80, 0x80, 0x08}, [](RemotingReader& r) { r.ReadArrayLength(); },
         "Array count 2147483648 is above the largest count 2147483647."},
        {"count cut", {0x81, 0x80}, [](RemotingReader& r) { r.ReadArrayLength(); }, "Unexpected end of data: 3 bytes needed, 2 left."},
        {"count not in its shortest form", {0x81, 0x00}, [](RemotingReader& r) { r.ReadArrayLength(); }, "Count not in its shortest form."},
        {"count wider than 32 bits", {0xFF, 0xFF, 0xFF, 0xFF, 0x10}, [](RemotingReader& r) { r.ReadArrayLength(); }, "Count wider than 32 bits."},
        {"data cut", {1, 2, 3}, [](RemotingReader& r) { std::uint32_t v; r.ReadDataInternal(&v, 4); },
         "Unexpected end of data: 4 bytes needed, 3 left."},
        {"struct tag", {20, 2}, [](RemotingReader& r) { r.ReadBeginStruct(2); }, "Unexpected tag 20 where 18 was expected."},
        {"struct field count", {18, 3}, [](RemotingReader& r) { r.ReadBeginStruct(2); },
         "Unexpected struct field count 3 where 2 was expected."},
    };
    for (const auto& c : cases)
    {
        RemotingReader reader(c.data.data(), c.data.size());
        EXPECT_EQ(MessageOf<RemotingException>([&] { c.read(reader); }), c.message) << c.name;
        EXPECT_EQ(reader.GetPosition(), 0u) << c.name;
    }
}

} // namespace
