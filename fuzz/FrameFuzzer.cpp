// Fuzzes the software manager transport's frame parser: the input is a byte stream that arrives on a
// socket, read frame by frame with SocketChannel::ReceiveFrame until the peer's end. Each frame that
// decodes has its payload read the way its receiver reads it (requests as the service does, responses
// and error frames as the proxy does). Refusals may only be RemotingException, NotSupportedException
// or std::length_error; every header and value that decodes must encode back to what was decoded.
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <exception>
#include <stdexcept>
#include <vector>

#include "FuzzCheck.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/Rsc/RemotingException.hpp"
#include "Zun/SoftwareManager/FrameCodec.hpp"
#include "Zun/SoftwareManager/SocketChannel.hpp"

namespace Transport = Zun::Services::SoftwareManager::Services::Internal::Transport;
using Zun::Services::SoftwareManager::Services::Internal::SoftwareInformation;
using Zun::System::Commons::NotSupportedException;
using Zun::System::Rsc::RemotingException;
using Zun::System::Rsc::RemotingReader;
using Zun::System::Rsc::RemotingWriter;
using Zun::System::Rsc::RscString;
using Transport::FrameType;
using Transport::Operation;

namespace
{

// Larger inputs would not fit the socket buffer before the reader starts.
constexpr std::size_t MaxInput = 64 * 1024;

bool HasUnspecifiedDate(const SoftwareInformation& information)
{
    return information.CurrentManifest.ReleaseDate.GetKind() == Zun::DateTimeKind::Unspecified ||
           information.PendingManifest.ReleaseDate.GetKind() == Zun::DateTimeKind::Unspecified;
}

// Writing, reading back and writing again must give the same bytes (unless a date cannot be written).
template <class Write, class Read>
void CheckRoundTrip(Write write, Read read, bool unwritable)
{
    std::vector<std::uint8_t> first;
    try
    {
        RemotingWriter writer(first);
        write(writer);
    }
    catch (const NotSupportedException&)
    {
        ZUN_FUZZ_CHECK(unwritable, "a decoded value could not be encoded");
        return;
    }
    ZUN_FUZZ_CHECK(!unwritable, "a value with an Unspecified date was encoded");
    RemotingReader reader(first.data(), first.size());
    std::vector<std::uint8_t> second;
    try
    {
        read(reader, second);
    }
    catch (const std::exception& e)
    {
        std::fprintf(stderr, "re-read failed: %s\n", e.what());
        std::abort();
    }
    ZUN_FUZZ_CHECK(reader.GetRemaining() == 0, "the re-read left bytes");
    ZUN_FUZZ_CHECK(first == second, "a decoded value encodes differently after a round trip");
}

void CheckRecord(const SoftwareInformation& information)
{
    CheckRoundTrip([&](RemotingWriter& w) { Transport::WriteRecord(w, information); },
                   [](RemotingReader& r, std::vector<std::uint8_t>& out) {
                       SoftwareInformation again;
                       Transport::ReadRecord(r, again);
                       RemotingWriter w(out);
                       Transport::WriteRecord(w, again);
                   },
                   HasUnspecifiedDate(information));
}

void CheckRecordList(const std::vector<SoftwareInformation>& list)
{
    bool unwritable = false;
    for (const auto& information : list)
    {
        unwritable = unwritable || HasUnspecifiedDate(information);
    }
    CheckRoundTrip([&](RemotingWriter& w) { Transport::WriteRecordList(w, list); },
                   [](RemotingReader& r, std::vector<std::uint8_t>& out) {
                       std::vector<SoftwareInformation> again;
                       Transport::ReadRecordList(r, again);
                       RemotingWriter w(out);
                       Transport::WriteRecordList(w, again);
                   },
                   unwritable);
}

// Arguments of a request, as the service reads them.
void ReadRequest(Operation operation, RemotingReader& reader)
{
    switch (operation)
    {
    case Operation::None:
    case Operation::GetAllSoftwareInformation:
    case Operation::GetPackageDirectory:
        break;
    case Operation::SetSoftwarePackage:
    {
        Transport::ReadKind(reader);
        RscString<512> name;
        RscString<512> package;
        Transport::ReadText(reader, name);
        Transport::ReadText(reader, package);
        break;
    }
    default:
    {
        Transport::ReadKind(reader);
        RscString<512> name;
        Transport::ReadText(reader, name);
        break;
    }
    }
    Transport::ExpectEnd(reader);
}

// Results of a response, as the proxy reads them.
void ReadResponse(Operation operation, RemotingReader& reader)
{
    const std::uint32_t status = Transport::ReadStatus(reader);
    if (status != Transport::StatusCodes::Good)
    {
        if (reader.GetRemaining() != 0)
        {
            RscString<512> text;
            Transport::ReadText(reader, text);
        }
        Transport::ExpectEnd(reader);
        return;
    }
    switch (operation)
    {
    case Operation::GetAllSoftwareInformation:
    {
        std::vector<SoftwareInformation> list;
        Transport::ReadRecordList(reader, list);
        Transport::ExpectEnd(reader);
        CheckRecordList(list);
        return;
    }
    case Operation::GetSoftwareInformation:
    {
        SoftwareInformation information;
        Transport::ReadRecord(reader, information);
        Transport::ExpectEnd(reader);
        CheckRecord(information);
        return;
    }
    case Operation::GetInstallationState:
    {
        Transport::ReadInt32(reader);
        RscString<512> text;
        Transport::ReadText(reader, text);
        break;
    }
    case Operation::SetSoftwarePackage:
    case Operation::GetPackageDirectory:
    {
        RscString<512> text;
        Transport::ReadText(reader, text);
        break;
    }
    default:
        break;
    }
    Transport::ExpectEnd(reader);
}

void CheckFrame(const Transport::Frame& frame)
{
    ZUN_FUZZ_CHECK(frame.header.payloadLength <= Transport::MaxPayloadSize, "a payload above the bound was accepted");
    ZUN_FUZZ_CHECK(frame.payload.size() == frame.header.payloadLength, "the payload length differs from the header");

    // A decoded header encodes back to a header that decodes to the same fields.
    std::uint8_t encoded[Transport::FrameHeaderSize];
    Transport::EncodeFrameHeader(frame.header, encoded);
    const Transport::FrameHeader again = Transport::DecodeFrameHeader(encoded, sizeof encoded);
    ZUN_FUZZ_CHECK(again.type == frame.header.type && again.operation == frame.header.operation &&
                       again.requestId == frame.header.requestId && again.payloadLength == frame.header.payloadLength,
                   "a decoded header does not round-trip");

    switch (frame.header.type)
    {
    case FrameType::Error:
    {
        const Transport::ErrorPayload error = Transport::DecodeErrorPayload(frame.payload);
        const Transport::ErrorPayload decoded =
            Transport::DecodeErrorPayload(Transport::EncodeErrorPayload(error.status, error.message));
        ZUN_FUZZ_CHECK(decoded.status == error.status && decoded.message == error.message, "an error payload does not round-trip");
        break;
    }
    case FrameType::Request:
    {
        RemotingReader reader(frame.payload.data(), frame.payload.size());
        ReadRequest(frame.header.operation, reader);
        break;
    }
    case FrameType::Response:
    {
        RemotingReader reader(frame.payload.data(), frame.payload.size());
        ReadResponse(frame.header.operation, reader);
        break;
    }
    default:
        ZUN_FUZZ_CHECK(false, "a frame of unknown type was accepted");
    }
}

void ReceiveAll(Transport::SocketChannel& channel)
{
    for (;;)
    {
        Transport::Frame frame;
        Transport::IoResult result;
        try
        {
            result = channel.ReceiveFrame(frame, Transport::NoDeadline, Transport::NoDeadline);
        }
        catch (const RemotingException&)
        {
            return; // the stream cannot be resynchronised after a bad header
        }
        if (result == Transport::IoResult::Closed)
        {
            return;
        }
        ZUN_FUZZ_CHECK(result == Transport::IoResult::Ok, "a blocking receive ended neither Ok nor Closed");
        try
        {
            CheckFrame(frame);
        }
        catch (const RemotingException&)
        {
        }
        catch (const NotSupportedException&)
        {
        }
        catch (const std::length_error&)
        {
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size > MaxInput)
    {
        return 0;
    }
    int fds[2];
    ZUN_FUZZ_CHECK(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0, "socketpair failed");
    const int sendBuffer = static_cast<int>(2 * MaxInput);
    ::setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);
    std::size_t sent = 0;
    while (sent < size)
    {
        const ssize_t n = ::write(fds[0], data + sent, size - sent);
        ZUN_FUZZ_CHECK(n > 0, "writing the input into the socket failed");
        sent += static_cast<std::size_t>(n);
    }
    ::close(fds[0]);
    Transport::SocketChannel channel(fds[1]);
    ReceiveAll(channel);
    return 0;
}
