// One connected Unix domain stream socket with deadline-bounded connect, send and receive of
// whole frames. Shared by the service proxy and the service process.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
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
    // The peer closed the connection (or reset it, or refused it).
    Closed,
    Timeout,
    // Interrupted through the wake descriptor.
    Woken,
};

struct Frame
{
    FrameHeader header;
    std::vector<std::uint8_t> payload;
};

class ZUN_EXPORT SocketChannel
{
public:
    SocketChannel() noexcept = default;
    // Takes ownership of a connected socket.
    explicit SocketChannel(int fd) noexcept : fd(fd) {}
    ~SocketChannel();
    SocketChannel(SocketChannel&& other) noexcept;
    SocketChannel& operator=(SocketChannel&& other) noexcept;
    SocketChannel(const SocketChannel&) = delete;
    SocketChannel& operator=(const SocketChannel&) = delete;

    // Closed when nobody listens at `path` (or the path is unusable), Timeout when the listener's
    // queue stays full until the deadline. Unexpected OS failures are SystemExceptions.
    static IoResult Connect(const String& path, Deadline deadline, SocketChannel& channel);

    IoResult SendAll(const std::uint8_t* data, std::size_t size, Deadline deadline);
    // `wakeFd`, when not -1, ends the wait with Woken as soon as it becomes readable.
    IoResult ReceiveExact(std::uint8_t* data, std::size_t size, Deadline deadline, int wakeFd = -1);

    IoResult SendFrame(const std::vector<std::uint8_t>& frame, Deadline deadline) { return SendAll(frame.data(), frame.size(), deadline); }
    // Waits for the header until `headerDeadline`, then for the rest until `bodyDeadline`. A header
    // that does not decode is a RemotingException (the stream cannot be resynchronised after it).
    IoResult ReceiveFrame(Frame& frame, Deadline headerDeadline, Deadline bodyDeadline, int wakeFd = -1);

    // True when the peer has gone or has sent bytes nobody asked for: a pooled connection that must
    // not carry another request.
    bool IsStale() const;

    bool IsOpen() const noexcept { return fd >= 0; }
    int GetDescriptor() const noexcept { return fd; }
    void Close() noexcept;
    // Gives up ownership of the descriptor.
    int Release() noexcept
    {
        const int released = fd;
        fd = -1;
        return released;
    }

private:
    // Waits for `events`; Ok when ready.
    IoResult Wait(short events, Deadline deadline, int wakeFd) const;

    int fd = -1;
};

} // namespace Zun::Services::SoftwareManager::Services::Internal::Transport
