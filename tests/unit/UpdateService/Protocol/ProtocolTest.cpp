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

TEST(MessageReader, RefusesABadStreamWithItsStatus)
{
    const std::tuple<const char*, std::string, std::uint32_t> cases[] = {
        {"empty", std::string(4, '\0'), StatusNames::BadDecodingError},
        // refused from the header alone, before the body arrives
        {"too large", std::string("\x01\x00\x10\x00", 4), StatusNames::BadRequestTooLarge},
        {"array", Frame("[1]"), StatusNames::BadDecodingError},
        {"byte-order mark", Frame("\xEF\xBB\xBF{}"), StatusNames::BadDecodingError},
        {"ill-formed UTF-8", Frame("{\"a\":\"\xC3\x28\"}"), StatusNames::BadDecodingError},
        {"trailing bytes", Frame("{} x"), StatusNames::BadDecodingError},
    };
    for (const auto& [what, bytes, status] : cases)
    {
        MessageReader reader;
        reader.Append(bytes.data(), bytes.size());
        nlohmann::json message;
        try
        {
            reader.Next(message);
            ADD_FAILURE() << what << " accepted";
        }
        catch (const ProtocolError& e)
        {
            EXPECT_EQ(StatusNames::GetName(status), StatusNames::GetName(e.GetStatus())) << what << ": " << e.what();
        }
    }
}

TEST(MessageReader, SplitsAStreamThatArrivesByteByByte)
{
    const std::string stream =
        MessageFraming::Encode({{"type", "hello"}, {"protocol", 1}}) + MessageFraming::Encode({{"text", "ü\u20ac"}, {"id", 4294967295u}});
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

} // namespace
