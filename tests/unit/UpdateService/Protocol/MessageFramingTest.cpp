#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include <gtest/gtest.h>

#include "Zun/UpdateService/Protocol/MessageFraming.hpp"
#include "Zun/UpdateService/Protocol/MessageReader.hpp"
#include "Zun/UpdateService/Protocol/ProtocolError.hpp"
#include "Zun/UpdateService/Protocol/StatusNames.hpp"

using namespace Zun::Services::SoftwareUpdate::UpdateService::Protocol;

namespace
{

std::string Frame(const std::string& body)
{
    const auto n = static_cast<std::uint32_t>(body.size());
    return std::string{char(n & 0xFF), char(n >> 8 & 0xFF), char(n >> 16 & 0xFF), char(n >> 24)} + body;
}

struct BadStream
{
    const char* what;
    std::string bytes;
    std::uint32_t status;
};

class MessageReaderRefuses : public testing::TestWithParam<BadStream>
{
};

TEST_P(MessageReaderRefuses, WithItsStatus)
{
    MessageReader reader;
    reader.Append(GetParam().bytes.data(), GetParam().bytes.size());
    nlohmann::json message;
    try
    {
        reader.Next(message);
        FAIL() << "accepted";
    }
    catch (const ProtocolError& e)
    {
        EXPECT_EQ(StatusNames::GetName(GetParam().status), StatusNames::GetName(e.GetStatus())) << e.what();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Streams, MessageReaderRefuses,
    testing::Values(BadStream{"empty", std::string(4, '\0'), StatusNames::BadDecodingError},
                    // refused from the header alone, before the body arrives
                    BadStream{"too large", std::string("\x01\x00\x10\x00", 4), StatusNames::BadRequestTooLarge},
                    BadStream{"array", Frame("[1]"), StatusNames::BadDecodingError},
                    BadStream{"byte-order mark", Frame("\xEF\xBB\xBF{}"), StatusNames::BadDecodingError},
                    BadStream{"ill-formed UTF-8", Frame("{\"a\":\"\xC3\x28\"}"), StatusNames::BadDecodingError},
                    BadStream{"trailing bytes", Frame("{} x"), StatusNames::BadDecodingError}),
    [](const auto& info) {
        std::string name = info.param.what;
        std::replace_if(name.begin(), name.end(), [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); }, '_');
        return name;
    });

TEST(MessageReader, SplitsAStreamThatArrivesByteByByte)
{
    const std::string stream = MessageFraming::Encode({{"type", "hello"}, {"protocol", 1}}) +
                               MessageFraming::Encode({{"text", "ü\u20ac"}, {"id", 4294967295u}});
    MessageReader reader;
    std::vector<nlohmann::json> messages;
    for (char c : stream)
    {
        reader.Append(&c, 1);
        nlohmann::json message;
        while (reader.Next(message))
        {
            messages.push_back(message);
            EXPECT_FALSE(reader.IsInsideMessage());
        }
    }
    ASSERT_EQ(2u, messages.size());
    EXPECT_EQ("hello", messages[0]["type"]);
    EXPECT_EQ(4294967295u, messages[1]["id"].get<std::uint32_t>());
}

TEST(MessageFraming, EncodeRefusesAboveTheLimitAndReadsBackOverASocket)
{
    EXPECT_THROW(MessageFraming::Encode({{"a", std::string(MessageFraming::MaxMessageBytes, 'x')}}), ProtocolError);
    int fds[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
    const nlohmann::json sent = {{"a", std::string(MessageFraming::MaxMessageBytes - 8, 'x')}};
    std::thread writer([&] { MessageFraming::WriteMessage(fds[0], sent); });
    nlohmann::json received;
    EXPECT_TRUE(MessageFraming::ReadMessage(fds[1], received));
    writer.join();
    EXPECT_EQ(sent, received);
    ASSERT_EQ(2, ::write(fds[0], "\x05\x00", 2));
    ::close(fds[0]);
    EXPECT_THROW(MessageFraming::ReadMessage(fds[1], received), ProtocolError);
    EXPECT_FALSE(MessageFraming::ReadMessage(fds[1], received));
    ::close(fds[1]);
}

TEST(StatusNames, NamesAndParsesBothWays)
{
    for (std::uint32_t code : {StatusNames::Good, StatusNames::BadShutdown, StatusNames::BadProtocolVersionUnsupported, 0x80AC0000u})
    {
        std::uint32_t parsed = 1;
        EXPECT_TRUE(StatusNames::TryParse(StatusNames::GetName(code), parsed));
        EXPECT_EQ(code, parsed);
    }
    EXPECT_EQ("0x80AC0000", StatusNames::GetName(0x80AC0000u));
    std::uint32_t parsed = 0;
    EXPECT_FALSE(StatusNames::TryParse("0x80ac0000", parsed));
}

} // namespace
