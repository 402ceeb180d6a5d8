#include <cstdint>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "../Expect.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/Rsc/RemotingException.hpp"
#include "Zun/Rsc/RemotingReader.hpp"
#include "Zun/Rsc/RemotingWriter.hpp"

namespace
{

using Zun::System::Rsc::RemotingException;
using Zun::System::Rsc::RemotingReader;
using Zun::System::Rsc::RemotingWriter;
using Zun::System::Rsc::RscType;
using ZunTest::MessageOf;
using Bytes = std::vector<std::uint8_t>;
using Encoding = Zun::System::Rsc::RscStringEncoding;

// The whole buffer after the read, so that what follows the text is checked too. The buffer held a
// longer text before, which must not show behind the new one.
std::string ReadText(RemotingReader& reader, std::size_t capacity, Encoding encoding, bool withTag)
{
    std::string buffer(capacity, 'x');
    buffer.back() = '\0';
    reader.ReadStringInternal(buffer.data(), capacity, encoding, withTag);
    return buffer;
}

// Tags, UTF-8 texts, dates and struct headers are checked byte for byte with the records that use them.
TEST(RemotingTest, TextsCountsAndDataEncodeExactlyAfterWhatIsThereAndReadBack)
{
    Bytes buffer{0xAA};
    RemotingWriter writer(buffer);
    const std::int32_t minusTwo = -2;
    writer.WriteStringInternal("xyz", 4, Encoding::Ascii, false);
    writer.WriteStringInternal("", 1, Encoding::Utf8, true);
    writer.WriteArrayLength(300);
    writer.WriteArrayLength(0x7FFFFFFF);
    writer.WriteDataInternal(&minusTwo, 4);
    EXPECT_EQ(buffer, (Bytes{0xAA, 1, 3, 'x', 'y', 'z', 19, 2, 0, 0xAC, 0x02, 0xFF, 0xFF, 0xFF, 0xFF, 0x07, 0xFE, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(writer.GetSize(), buffer.size());

    RemotingReader reader(buffer.data() + 1, buffer.size() - 1);
    EXPECT_EQ(ReadText(reader, 4, Encoding::Ascii, false), std::string("xyz\0", 4));
    EXPECT_EQ(ReadText(reader, 3, Encoding::Utf8, true), std::string(3, '\0'));
    EXPECT_EQ(reader.ReadArrayLength(), 300u);
    EXPECT_EQ(reader.ReadArrayLength(), 0x7FFFFFFFu);
    std::int32_t value = 0;
    reader.ReadDataInternal(&value, 4);
    EXPECT_EQ(value, -2);
    EXPECT_EQ(reader.GetRemaining(), 0u);
    EXPECT_EQ(reader.GetPosition(), buffer.size() - 1);
}

TEST(RemotingTest, EveryInputFaultIsARemotingExceptionThatConsumesNothing)
{
    const auto text = [](std::size_t capacity, bool withTag) {
        return [=](RemotingReader& r) { ReadText(r, capacity, Encoding::Utf8, withTag); };
    };
    const auto count = [](RemotingReader& r) { r.ReadArrayLength(); };
    // Past the first 32 bytes a text is scanned differently.
    Bytes longWithZero{2, 40};
    longWithZero.resize(42, 'a');
    longWithZero[2 + 36] = 0;
    const std::vector<std::tuple<const char*, Bytes, std::function<void(RemotingReader&)>, const char*>> cases = {
        {"wrong tag", {8}, [](RemotingReader& r) { r.ReadTag(RscType::Bool); }, "Unexpected tag 8 where 2 was expected."},
        {"string encoding", {19, 1, 0}, text(8, true), "Unexpected string encoding 1 where 2 was expected."},
        {"string huge length", {2, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F}, text(512, false),
         "String of 4294967295 bytes does not fit a capacity of 512 bytes with its terminator."},
        {"string with zero byte", {2, 3, 'a', 0, 'b'}, text(8, false), "String of 3 bytes contains a zero byte."},
        {"long string with zero byte", longWithZero, text(64, false), "String of 40 bytes contains a zero byte."},
        {"string body cut", {19, 2, 3, 'a', 'b'}, text(8, true), "Unexpected end of data: 6 bytes needed, 5 left."},
        {"array count", {0x80, 0x80, 0x80, 0x80, 0x08}, count, "Array count 2147483648 is above the largest count 2147483647."},
        {"count cut", {0x81, 0x80}, count, "Unexpected end of data: 3 bytes needed, 2 left."},
        {"count not in its shortest form", {0x81, 0x00}, count, "Count not in its shortest form."},
        {"count wider than 32 bits", {0xFF, 0xFF, 0xFF, 0xFF, 0x10}, count, "Count wider than 32 bits."},
        {"data cut", {1, 2, 3}, [](RemotingReader& r) { std::uint32_t v; r.ReadDataInternal(&v, 4); },
         "Unexpected end of data: 4 bytes needed, 3 left."},
        {"struct tag", {20, 2}, [](RemotingReader& r) { r.ReadBeginStruct(2); }, "Unexpected tag 20 where 18 was expected."},
        {"struct field count", {18, 3}, [](RemotingReader& r) { r.ReadBeginStruct(2); },
         "Unexpected struct field count 3 where 2 was expected."},
    };
    for (const auto& [name, data, read, message] : cases)
    {
        RemotingReader reader(data.data(), data.size());
        EXPECT_EQ(MessageOf<RemotingException>([&, &read = read] { read(reader); }), message) << name;
        EXPECT_EQ(reader.GetPosition(), 0u) << name;
    }
}

} // namespace
