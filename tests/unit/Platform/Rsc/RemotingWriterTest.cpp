#include <cstdint>
#include <functional>
#include <vector>

#include <gtest/gtest.h>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Rsc/RemotingException.hpp"
#include "Zun/Rsc/RemotingWriter.hpp"

namespace
{

using Zun::DateTime;
using Zun::DateTimeKind;
using Zun::System::Rsc::RemotingException;
using Zun::System::Rsc::RemotingWriter;
using Zun::System::Rsc::RscStringEncoding;
using Zun::System::Rsc::RscType;
using Bytes = std::vector<std::uint8_t>;

struct EncodingCase
{
    const char* name;
    std::function<void(RemotingWriter&)> write;
    Bytes expected;
};

TEST(RemotingWriterTest, EncodesEveryOperation)
{
    const std::int32_t minusTwo = -2;
    const std::vector<EncodingCase> cases = {
        {"tag", [](RemotingWriter& w) { w.WriteTag(RscType::DateTime); }, {23}},
        {"string with tag", [](RemotingWriter& w) { w.WriteStringInternal("ab", 512, RscStringEncoding::Utf8, true); },
         {19, 2, 2, 0, 0, 0, 'a', 'b'}},
        {"string without tag", [](RemotingWriter& w) { w.WriteStringInternal("xyz", 4, RscStringEncoding::Ascii, false); },
         {1, 3, 0, 0, 0, 'x', 'y', 'z'}},
        {"empty string", [](RemotingWriter& w) { w.WriteStringInternal("", 1, RscStringEncoding::Utf8, true); },
         {19, 2, 0, 0, 0, 0}},
        {"array length", [](RemotingWriter& w) { w.WriteArrayLength(0x01020304); }, {4, 3, 2, 1}},
        {"largest array length", [](RemotingWriter& w) { w.WriteArrayLength(0x7FFFFFFF); }, {0xFF, 0xFF, 0xFF, 0x7F}},
        {"raw data", [&](RemotingWriter& w) { w.WriteDataInternal(&minusTwo, 4); }, {0xFE, 0xFF, 0xFF, 0xFF}},
        {"no data", [](RemotingWriter& w) { w.WriteDataInternal(nullptr, 0); }, {}},
        {"date", [](RemotingWriter& w) { w.WriteDateTime(DateTime(0x0102030405060708, DateTimeKind::Utc)); },
         {8, 7, 6, 5, 4, 3, 2, 0x41}},
        {"struct header", [](RemotingWriter& w) { w.WriteBeginStruct(13); }, {18, 13, 0, 0, 0}},
    };
    for (const auto& c : cases)
    {
        Bytes buffer{0xAA};
        RemotingWriter writer(buffer);
        c.write(writer);
        Bytes expected{0xAA};
        expected.insert(expected.end(), c.expected.begin(), c.expected.end());
        EXPECT_EQ(buffer, expected) << c.name;
        EXPECT_EQ(writer.GetSize(), expected.size()) << c.name;
    }
}

TEST(RemotingWriterTest, RefusedWritesLeaveTheBufferAsItWas)
{
    struct Case
    {
        const char* name;
        std::function<void(RemotingWriter&)> write;
        const char* message;
    };
    const char full[4] = {'a', 'b', 'c', 'd'};
    const std::vector<Case> cases = {
        {"string fills its capacity", [&](RemotingWriter& w) { w.WriteStringInternal(full, 4, RscStringEncoding::Utf8, true); },
         "String has no terminator within its capacity of 4 bytes."},
        {"unknown encoding", [](RemotingWriter& w) { w.WriteStringInternal("a", 8, RscStringEncoding::None, true); },
         "Unsupported string encoding 0."},
        {"array count", [](RemotingWriter& w) { w.WriteArrayLength(0x80000000u); },
         "Array count 2147483648 is above the largest count 2147483647."},
        {"struct field count", [](RemotingWriter& w) { w.WriteBeginStruct(0x80000000u); },
         "Struct field count 2147483648 is above the largest count 2147483647."},
    };
    for (const auto& c : cases)
    {
        Bytes buffer{1, 2, 3};
        RemotingWriter writer(buffer);
        try
        {
            c.write(writer);
            ADD_FAILURE() << c.name << ": no exception";
        }
        catch (const RemotingException& e)
        {
            EXPECT_STREQ(e.what(), c.message) << c.name;
        }
        EXPECT_EQ(buffer, (Bytes{1, 2, 3})) << c.name;
    }
}

TEST(RemotingWriterTest, NullArgumentsAreArgumentErrors)
{
    Bytes buffer;
    RemotingWriter writer(buffer);
    EXPECT_THROW(writer.WriteStringInternal(nullptr, 8, RscStringEncoding::Utf8, true), Zun::System::Commons::ArgumentException);
    EXPECT_THROW(writer.WriteDataInternal(nullptr, 1), Zun::System::Commons::ArgumentException);
    EXPECT_TRUE(buffer.empty());
}

TEST(RemotingWriterTest, NestedWriterAppendsToTheSameBufferOneLevelDeeper)
{
    Bytes buffer;
    RemotingWriter writer(buffer);
    RemotingWriter& nested = writer.GetNestedDataWriter();
    EXPECT_NE(&nested, &writer);
    EXPECT_EQ(&writer.GetNestedDataWriter(), &nested);
    EXPECT_EQ(writer.GetDepth(), 0u);
    EXPECT_EQ(nested.GetDepth(), 1u);

    writer.WriteTag(RscType::Bool);
    nested.WriteTag(RscType::Int32);
    writer.WriteTag(RscType::UInt32);
    EXPECT_EQ(buffer, (Bytes{2, 8, 9}));
    EXPECT_EQ(nested.GetSize(), 3u);
}

TEST(RemotingWriterTest, NestingStopsAtMaxDepth)
{
    Bytes buffer;
    RemotingWriter writer(buffer);
    RemotingWriter* current = &writer;
    for (unsigned i = 0; i < RemotingWriter::MaxDepth; ++i)
    {
        current = &current->GetNestedDataWriter();
    }
    EXPECT_EQ(current->GetDepth(), RemotingWriter::MaxDepth);
    try
    {
        current->GetNestedDataWriter();
        FAIL() << "no exception";
    }
    catch (const RemotingException& e)
    {
        EXPECT_STREQ(e.what(), "Nesting deeper than 16 levels.");
    }
}

} // namespace
