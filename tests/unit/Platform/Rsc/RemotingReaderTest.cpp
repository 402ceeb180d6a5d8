#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>

#include <gtest/gtest.h>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Rsc/RemotingException.hpp"
#include "Zun/Rsc/RemotingReader.hpp"
#include "Zun/Rsc/RemotingWriter.hpp"

namespace
{

using Zun::DateTime;
using Zun::DateTimeKind;
using Zun::System::Rsc::RemotingException;
using Zun::System::Rsc::RemotingReader;
using Zun::System::Rsc::RemotingWriter;
using Zun::System::Rsc::RscStringEncoding;
using Zun::System::Rsc::RscType;
using Bytes = std::vector<std::uint8_t>;

TEST(RemotingReaderTest, ReadsBackWhatTheWriterWrote)
{
    const DateTime date(637'000'000'000'000'000, DateTimeKind::Local);
    const std::uint32_t word = 0xDEADBEEF;
    Bytes buffer;
    RemotingWriter writer(buffer);
    writer.WriteTag(RscType::Bool);
    writer.WriteStringInternal("h\xC3\xA9llo", 512, RscStringEncoding::Utf8, true);
    writer.WriteStringInternal("", 64, RscStringEncoding::Utf8, false);
    writer.WriteArrayLength(0x7FFFFFFF);
    writer.WriteDataInternal(&word, sizeof(word));
    writer.WriteDateTime(date);
    writer.WriteBeginStruct(5);
    writer.GetNestedDataWriter().WriteStringInternal("in", 8, RscStringEncoding::Ascii, true);

    RemotingReader reader(buffer.data(), buffer.size());
    reader.ReadTag(RscType::Bool);
    std::array<char, 512> text{};
    reader.ReadStringInternal(text.data(), text.size(), RscStringEncoding::Utf8, true);
    EXPECT_STREQ(text.data(), "h\xC3\xA9llo");
    std::array<char, 64> empty{};
    empty.fill('x');
    reader.ReadStringInternal(empty.data(), empty.size(), RscStringEncoding::Utf8, false);
    EXPECT_TRUE(std::all_of(empty.begin(), empty.end(), [](char c) { return c == '\0'; }));
    EXPECT_EQ(reader.ReadArrayLength(), 0x7FFFFFFFu);
    std::uint32_t readWord = 0;
    reader.ReadDataInternal(&readWord, sizeof(readWord));
    EXPECT_EQ(readWord, word);
    EXPECT_EQ(reader.ReadDateTime(), date);
    reader.ReadBeginStruct(5);
    std::array<char, 8> inner{};
    reader.GetNestedDataReader().ReadStringInternal(inner.data(), inner.size(), RscStringEncoding::Ascii, true);
    EXPECT_STREQ(inner.data(), "in");
    EXPECT_EQ(reader.GetRemaining(), 0u);
    EXPECT_EQ(reader.GetPosition(), buffer.size());
}

TEST(RemotingReaderTest, StringFillsTheRestOfTheBufferWithZeros)
{
    const Bytes data{1, 2, 0, 0, 0, 'o', 'k'};
    RemotingReader reader(data.data(), data.size());
    std::array<char, 6> buffer;
    buffer.fill('x');
    reader.ReadStringInternal(buffer.data(), buffer.size(), RscStringEncoding::Ascii, false);
    EXPECT_EQ(std::memcmp(buffer.data(), "ok\0\0\0\0", 6), 0);
}

struct FaultCase
{
    const char* name;
    Bytes data;
    std::function<void(RemotingReader&)> read;
    const char* message;
};

void ReadText(RemotingReader& reader, std::size_t capacity, bool withTag)
{
    std::vector<char> buffer(capacity, 'x');
    reader.ReadStringInternal(buffer.data(), capacity, RscStringEncoding::Utf8, withTag);
}

TEST(RemotingReaderTest, EveryInputFaultIsARemotingExceptionThatConsumesNothing)
{
    const std::vector<FaultCase> cases = {
        {"wrong tag", {8}, [](RemotingReader& r) { r.ReadTag(RscType::Bool); }, "Unexpected tag 8 where 2 was expected."},
        {"tag at end", {}, [](RemotingReader& r) { r.ReadTag(RscType::Bool); },
         "Unexpected end of data: 1 bytes needed, 0 left."},
        {"string tag", {20, 2, 0, 0, 0, 0}, [](RemotingReader& r) { ReadText(r, 8, true); },
         "Unexpected tag 20 where 19 was expected."},
        {"string encoding", {19, 1, 0, 0, 0, 0}, [](RemotingReader& r) { ReadText(r, 8, true); },
         "Unexpected string encoding 1 where 2 was expected."},
        {"string no room for terminator", {2, 4, 0, 0, 0, 'a', 'b', 'c', 'd'}, [](RemotingReader& r) { ReadText(r, 4, false); },
         "String of 4 bytes does not fit a capacity of 4 bytes with its terminator."},
        {"string huge length", {2, 0xFF, 0xFF, 0xFF, 0xFF}, [](RemotingReader& r) { ReadText(r, 512, false); },
         "String of 4294967295 bytes does not fit a capacity of 512 bytes with its terminator."},
        {"string with zero byte", {2, 3, 0, 0, 0, 'a', 0, 'b'}, [](RemotingReader& r) { ReadText(r, 8, false); },
         "String of 3 bytes contains a zero byte."},
        {"string header cut", {19, 2, 3, 0}, [](RemotingReader& r) { ReadText(r, 8, true); },
         "Unexpected end of data: 6 bytes needed, 4 left."},
        {"string body cut", {19, 2, 3, 0, 0, 0, 'a', 'b'}, [](RemotingReader& r) { ReadText(r, 8, true); },
         "Unexpected end of data: 9 bytes needed, 8 left."},
        {"array count", {0, 0, 0, 0x80}, [](RemotingReader& r) { r.ReadArrayLength(); },
         "Array count 2147483648 is above the largest count 2147483647."},
        {"array count cut", {1, 0, 0}, [](RemotingReader& r) { r.ReadArrayLength(); },
         "Unexpected end of data: 4 bytes needed, 3 left."},
        {"data cut", {1, 2, 3}, [](RemotingReader& r) { std::uint32_t v; r.ReadDataInternal(&v, 4); },
         "Unexpected end of data: 4 bytes needed, 3 left."},
        {"date cut", {1, 2, 3, 4, 5, 6, 7}, [](RemotingReader& r) { r.ReadDateTime(); },
         "Unexpected end of data: 8 bytes needed, 7 left."},
        {"struct tag", {20, 2, 0, 0, 0}, [](RemotingReader& r) { r.ReadBeginStruct(2); },
         "Unexpected tag 20 where 18 was expected."},
        {"struct field count", {18, 3, 0, 0, 0}, [](RemotingReader& r) { r.ReadBeginStruct(2); },
         "Unexpected struct field count 3 where 2 was expected."},
        {"struct header cut", {18, 2, 0}, [](RemotingReader& r) { r.ReadBeginStruct(2); },
         "Unexpected end of data: 5 bytes needed, 3 left."},
    };
    for (const auto& c : cases)
    {
        RemotingReader reader(c.data.data(), c.data.size());
        try
        {
            c.read(reader);
            ADD_FAILURE() << c.name << ": no exception";
        }
        catch (const RemotingException& e)
        {
            EXPECT_STREQ(e.what(), c.message) << c.name;
        }
        EXPECT_EQ(reader.GetPosition(), 0u) << c.name;
    }
}

TEST(RemotingReaderTest, ProgrammingErrorsAreArgumentErrors)
{
    using Zun::System::Commons::ArgumentException;
    EXPECT_THROW(RemotingReader(nullptr, 1), ArgumentException);
    const Bytes data{2, 0, 0, 0, 0};
    RemotingReader reader(data.data(), data.size());
    EXPECT_THROW(reader.ReadStringInternal(nullptr, 8, RscStringEncoding::Utf8, false), ArgumentException);
    char one = 'x';
    EXPECT_THROW(reader.ReadStringInternal(&one, 0, RscStringEncoding::Utf8, false), ArgumentException);
    EXPECT_THROW(reader.ReadDataInternal(nullptr, 1), ArgumentException);
    EXPECT_EQ(reader.GetPosition(), 0u);
}

TEST(RemotingReaderTest, NestedReaderSharesThePositionOneLevelDeeper)
{
    const Bytes data{2, 8, 9};
    RemotingReader reader(data.data(), data.size());
    RemotingReader& nested = reader.GetNestedDataReader();
    EXPECT_NE(&nested, &reader);
    EXPECT_EQ(&reader.GetNestedDataReader(), &nested);
    EXPECT_EQ(nested.GetDepth(), 1u);

    reader.ReadTag(RscType::Bool);
    nested.ReadTag(RscType::Int32);
    EXPECT_EQ(reader.GetPosition(), 2u);
    reader.ReadTag(RscType::UInt32);
    EXPECT_EQ(nested.GetRemaining(), 0u);

    RemotingReader* current = &reader;
    for (unsigned i = 0; i < RemotingReader::MaxDepth; ++i)
    {
        current = &current->GetNestedDataReader();
    }
    try
    {
        current->GetNestedDataReader();
        FAIL() << "no exception";
    }
    catch (const RemotingException& e)
    {
        EXPECT_STREQ(e.what(), "Nesting deeper than 16 levels.");
    }
}

} // namespace
