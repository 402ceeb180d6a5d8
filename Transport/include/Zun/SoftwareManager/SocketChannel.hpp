// One connected Unix domain stream socket with deadline-bounded connect, send and receive of
// whole frames. Shared by the service proxy and the service process.
//
// The socket blocks, with the kernel's send and receive time-outs as the deadline, so that a
// round trip costs one send and one receive (a poll before every read would double that). Frames
// are read through a buffer that takes whatever has arrived, so a header and a small payload come
// in one call; a payload is allocated as its bytes arrive, never on the header's word alone.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/String.hpp"
#include "Zun/SoftwareManager/FrameCodec.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal::Transport
{

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;
// A deadline that never passes.
constexpr Deadline NoDeadline = Deadline::max();

enum class IoResult
{
    Ok,
    // The peer closed the connection (or reset it, or refused it), or the socket was shut down.
    Closed,
    Timeout,
};

struct Frame
{
    FrameHeader header;
    std::vector<std::uint8_t> payload;
};

class ZUN_EXPORT SocketChannel
{
public:
    SocketChannel() noexcept;
    // Takes ownership of a connected socket and switches it to blocking mode.
    explicit SocketChannel(int fd);
    ~SocketChannel();
    SocketChannel(SocketChannel&& other) noexcept;
    SocketChannel& operator=(SocketChannel&& other) noexcept;
    SocketChannel(const SocketChannel&) = delete;
    SocketChannel& operator=(const SocketChannel&) = delete;

    // Closed when nobody listens at `path` (or the path is unusable), Timeout when the listener's
    // queue stays full until the deadline. Unexpected OS failures are SystemExceptions.
    static IoResult Connect(const String& path, Deadline deadline, SocketChannel& channel);

    IoResult SendAll(const std::uint8_t* data, std::size_t size, Deadline deadline);
    // Takes buffered bytes first.
    IoResult ReceiveExact(std::uint8_t* data, std::size_t size, Deadline deadline);

    IoResult SendFrame(const std::vector<std::uint8_t>& frame, Deadline deadline) { return SendAll(frame.data(), frame.size(), deadline); }
    // Waits for the header's first byte until `headerDeadline`, then for the rest until
    // `bodyDeadline`. A header that does not decode is a RemotingException (the stream cannot be
    // resynchronised after it). `frame`'s payload storage is reused.
    IoResult ReceiveFrame(Frame& frame, Deadline headerDeadline, Deadline bodyDeadline);
    // Waits for the first byte as long as it takes; the whole frame must then arrive within `frameTime`.
    IoResult ReceiveFrameWithin(Frame& frame, std::chrono::milliseconds frameTime);

    // Bytes already received and not yet taken: after a whole answer, a sign of a peer that sent
    // more than was asked for.
    std::size_t GetBuffered() const noexcept { return inEnd - inBegin; }

    bool IsOpen() const noexcept { return fd >= 0; }
    int GetDescriptor() const noexcept { return fd; }
    void Close() noexcept;
    // Gives up ownership of the descriptor (buffered bytes are dropped).
    int Release() noexcept;

private:
    IoResult ReceiveFrame(Frame& frame, Deadline headerDeadline, Deadline bodyDeadline, std::chrono::milliseconds frameTime);
    // Reads until at least `count` bytes are buffered.
    IoResult Fill(std::size_t count, Deadline deadline);
    // One receive into `data` of at most `size` bytes; `received` is what came.
    IoResult ReceiveSome(std::uint8_t* data, std::size_t size, Deadline deadline, std::size_t& received);
    // Sets the kernel's time-out for the next call (SO_RCVTIMEO or SO_SNDTIMEO) when the one in
    // force differs noticeably; false when the deadline has passed.
    bool ArmTimeout(int option, Deadline deadline, std::int64_t& armed);

    int fd = -1;
    // Microseconds of the time-outs in force; 0 waits for ever (as the kernel takes it), -1 unknown.
    std::int64_t receiveTimeout = -1;
    std::int64_t sendTimeout = -1;
    std::unique_ptr<std::uint8_t[]> inbox;
    std::size_t inBegin = 0;
    std::size_t inEnd = 0;
};

} // namespace Zun::Services::SoftwareManager::Services::Internal::Transport
