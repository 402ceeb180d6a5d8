// Fuzzes the local API's message reader: the input is a byte stream as the update service receives
// it. It is fed once whole and once in pieces of varying size; both must yield the same messages and
// end the same way, refusals may only be ProtocolError, and every message must encode and parse back
// to itself.
#include <exception>
#include <string>
#include <vector>

#include "FuzzCheck.hpp"
#include "Zun/UpdateService/Protocol/MessageFraming.hpp"
#include "Zun/UpdateService/Protocol/MessageReader.hpp"
#include "Zun/UpdateService/Protocol/ProtocolError.hpp"

using Zun::Services::SoftwareUpdate::UpdateService::Protocol::MessageFraming;
using Zun::Services::SoftwareUpdate::UpdateService::Protocol::MessageReader;
using Zun::Services::SoftwareUpdate::UpdateService::Protocol::ProtocolError;

namespace
{

struct Outcome
{
    std::vector<nlohmann::json> messages;
    std::uint32_t failure = 0;
};

// Reads everything; `step` 0 feeds the input whole, otherwise in pieces of 1 … step bytes.
Outcome ReadAll(const std::uint8_t* data, std::size_t size, std::size_t step)
{
    Outcome outcome;
    MessageReader reader;
    std::size_t fed = 0;
    std::size_t piece = 1;
    while (fed < size)
    {
        const std::size_t n = step == 0 ? size : std::min(size - fed, piece);
        piece = step == 0 ? piece : piece % step + 1;
        reader.Append(reinterpret_cast<const char*>(data) + fed, n);
        fed += n;
        try
        {
            nlohmann::json message;
            while (reader.Next(message))
            {
                outcome.messages.push_back(std::move(message));
            }
        }
        catch (const ProtocolError& e)
        {
            ZUN_FUZZ_CHECK(e.GetStatus() != 0, "a refusal without a bad status");
            outcome.failure = e.GetStatus();
            return outcome;
        }
    }
    return outcome;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const Outcome whole = ReadAll(data, size, 0);
    const Outcome pieces = ReadAll(data, size, size > 0 ? data[0] % 7 + 1 : 1);
    ZUN_FUZZ_CHECK(whole.failure == pieces.failure, "feeding in pieces ends differently");
    ZUN_FUZZ_CHECK(whole.messages == pieces.messages, "feeding in pieces yields other messages");
    for (const nlohmann::json& message : whole.messages)
    {
        ZUN_FUZZ_CHECK(message.is_object(), "a message that is not an object was accepted");
        std::string framed;
        try
        {
            framed = MessageFraming::Encode(message);
        }
        catch (const ProtocolError&)
        {
            ZUN_FUZZ_CHECK(false, "a message that was read cannot be written");
        }
        MessageReader again;
        again.Append(framed.data(), framed.size());
        nlohmann::json back;
        ZUN_FUZZ_CHECK(again.Next(back) && back == message && !again.IsInsideMessage(), "a message does not round-trip");
    }
    return 0;
}
