// Fuzzes the software manager transport's frame reader: the input is a byte stream arriving on a
// socket, read with SocketChannel::ReceiveFrame until the peer's end. The channel must hand out
// exactly the frames the bytes hold (each header encoding back to the bytes sent), refuse the first
// bad header, and end where a frame is cut. Each payload is read as its receiver reads it (requests
// as the service, responses and errors as the proxy), refused only with RemotingException,
// NotSupportedException or std::length_error; records and error payloads write and read back equal.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
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
using Text = Zun::System::Rsc::RscString<512>;
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

bool HasUnspecifiedDate(const std::vector<SoftwareInformation>& list)
{
    return std::any_of(list.begin(), list.end(), [](const auto& information) { return HasUnspecifiedDate(information); });
}

// Writing, reading back and writing again gives the same bytes; only an Unspecified date cannot be written.
template <class Value>
void CheckRoundTrip(const Value& value, void (*write)(RemotingWriter&, const Value&), void (*read)(RemotingReader&, Value&))
{
    std::vector<std::uint8_t> first;
    try
    {
        RemotingWriter writer(first);
        write(writer, value);
    }
    catch (const NotSupportedException&)
    {
        ZUN_FUZZ_CHECK(HasUnspecifiedDate(value), "a decoded value could not be encoded");
        return;
    }
    ZUN_FUZZ_CHECK(!HasUnspecifiedDate(value), "a value with an Unspecified date was encoded");
    RemotingReader reader(first.data(), first.size());
    Value again;
    try
    {
        read(reader, again);
    }
    catch (const std::exception& e)
    {
        ZUN_FUZZ_CHECK(false, e.what());
    }
    std::vector<std::uint8_t> second;
    RemotingWriter writer(second);
    write(writer, again);
    ZUN_FUZZ_CHECK(reader.GetRemaining() == 0 && first == second, "a decoded value encodes differently after a round trip");
}

void ReadPayload(const Transport::FrameHeader& header, RemotingReader& reader)
{
    Text text;
    if (header.type == FrameType::Request)
    {
        if (header.operation != Operation::None && header.operation != Operation::GetAllSoftwareInformation &&
            header.operation != Operation::GetPackageDirectory)
        {
            Transport::ReadKind(reader);
            Transport::ReadText(reader, text);
        }
        if (header.operation == Operation::SetSoftwarePackage)
        {
            Transport::ReadText(reader, text);
        }
    }
    else if (Transport::ReadStatus(reader) != Transport::StatusCodes::Good)
    {
        if (reader.GetRemaining() != 0)
        {
            Transport::ReadText(reader, text);
        }
    }
    else if (header.operation == Operation::GetAllSoftwareInformation)
    {
        std::vector<SoftwareInformation> list;
        Transport::ReadRecordList(reader, list);
        CheckRoundTrip(list, Transport::WriteRecordList, Transport::ReadRecordList);
    }
    else if (header.operation == Operation::GetSoftwareInformation)
    {
        SoftwareInformation information;
        Transport::ReadRecord(reader, information);
        CheckRoundTrip(information, Transport::WriteRecord, Transport::ReadRecord);
    }
    else if (header.operation == Operation::GetInstallationState || header.operation == Operation::SetSoftwarePackage ||
             header.operation == Operation::GetPackageDirectory)
    {
        if (header.operation == Operation::GetInstallationState)
        {
            Transport::ReadInt32(reader);
        }
        Transport::ReadText(reader, text);
    }
    Transport::ExpectEnd(reader);
}

void CheckFrame(const Transport::Frame& frame)
{
    if (frame.header.type == FrameType::Error)
    {
        const Transport::ErrorPayload error = Transport::DecodeErrorPayload(frame.payload);
        const Transport::ErrorPayload again = Transport::DecodeErrorPayload(Transport::EncodeErrorPayload(error.status, error.message));
        ZUN_FUZZ_CHECK(again.status == error.status && again.message == error.message, "an error payload does not round-trip");
        return;
    }
    RemotingReader reader(frame.payload.data(), frame.payload.size());
    ReadPayload(frame.header, reader);
}

// Receives frame by frame and compares each with the bytes at `at`.
void ReceiveAll(Transport::SocketChannel& channel, const std::uint8_t* data, std::size_t size)
{
    for (std::size_t at = 0;;)
    {
        Transport::Frame frame;
        Transport::IoResult result = Transport::IoResult::Closed;
        bool refused = false;
        try
        {
            result = channel.ReceiveFrame(frame, Transport::NoDeadline, Transport::NoDeadline);
        }
        catch (const RemotingException&)
        {
            refused = true;
        }
        if (result == Transport::IoResult::Closed && !refused)
        {
            // The bytes left are less than a header or than the payload it names.
            ZUN_FUZZ_CHECK(size - at < Transport::FrameHeaderSize ||
                               size - at - Transport::FrameHeaderSize <
                                   (data[at + 12] | data[at + 13] << 8 | data[at + 14] << 16 | std::uint32_t{data[at + 15]} << 24),
                           "the channel ended before a whole frame");
            return;
        }
        bool decodes = true;
        try
        {
            Transport::DecodeFrameHeader(data + at, size - at);
        }
        catch (const RemotingException&)
        {
            decodes = false;
        }
        ZUN_FUZZ_CHECK(refused == !decodes, "the channel refused a good header or took a bad one");
        if (refused)
        {
            return; // the stream cannot be resynchronised after a bad header
        }
        std::uint8_t header[Transport::FrameHeaderSize];
        Transport::EncodeFrameHeader(frame.header, header);
        ZUN_FUZZ_CHECK(result == Transport::IoResult::Ok && std::memcmp(header, data + at, sizeof header) == 0 &&
                           frame.payload.size() == frame.header.payloadLength &&
                           std::equal(frame.payload.begin(), frame.payload.end(), data + at + sizeof header),
                       "a frame received differs from the bytes sent");
        at += sizeof header + frame.payload.size();
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
    for (std::size_t sent = 0; sent < size;)
    {
        const ssize_t n = ::write(fds[0], data + sent, size - sent);
        ZUN_FUZZ_CHECK(n > 0, "writing the input into the socket failed");
        sent += static_cast<std::size_t>(n);
    }
    ::close(fds[0]);
    Transport::SocketChannel channel(fds[1]);
    ReceiveAll(channel, data, size);
    return 0;
}
