#include "Zun/SoftwareManager/SocketChannel.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <thread>

#include "Zun/Commons/PosixCall.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal::Transport
{

using System::Commons::PosixCall;
using System::Commons::PosixCallAllowing;

namespace
{

// Large enough for the header and payload of every answer except whole component lists.
constexpr std::size_t InboxSize = 16 * 1024;
// A payload is allocated in steps of at least this, as its bytes arrive.
constexpr std::size_t PayloadStep = 64 * 1024;
// A time-out in force that differs from the wanted one by less than this is left as it is.
constexpr std::int64_t TimeoutSlackMicroseconds = 1000;

bool IsClosedError(int error)
{
    return error == EPIPE || error == ECONNRESET || error == ECONNREFUSED || error == ENOENT || error == ENOTDIR || error == EACCES ||
           error == ENAMETOOLONG || error == ENOTSOCK || error == EPROTOTYPE;
}

void MakeBlocking(int fd)
{
    const int flags = PosixCall("fcntl", ::fcntl, fd, F_GETFL, 0);
    if ((flags & O_NONBLOCK) != 0)
    {
        PosixCall("fcntl", ::fcntl, fd, F_SETFL, flags & ~O_NONBLOCK);
    }
}

} // namespace

SocketChannel::SocketChannel() noexcept = default;

SocketChannel::SocketChannel(int fdIn) : fd(fdIn)
{
    if (fd >= 0)
    {
        MakeBlocking(fd);
    }
}

SocketChannel::~SocketChannel()
{
    Close();
}

SocketChannel::SocketChannel(SocketChannel&& other) noexcept
    : fd(other.fd), receiveTimeout(other.receiveTimeout), sendTimeout(other.sendTimeout), inbox(std::move(other.inbox)),
      inBegin(other.inBegin), inEnd(other.inEnd)
{
    other.fd = -1;
    other.inBegin = other.inEnd = 0;
}

SocketChannel& SocketChannel::operator=(SocketChannel&& other) noexcept
{
    if (this != &other)
    {
        Close();
        fd = other.fd;
        receiveTimeout = other.receiveTimeout;
        sendTimeout = other.sendTimeout;
        inbox = std::move(other.inbox);
        inBegin = other.inBegin;
        inEnd = other.inEnd;
        other.fd = -1;
        other.inBegin = other.inEnd = 0;
    }
    return *this;
}

void SocketChannel::Close() noexcept
{
    if (fd >= 0)
    {
        // close() is not retried on EINTR: the descriptor is gone either way on Linux.
        ::close(fd);
        fd = -1;
    }
    inBegin = inEnd = 0;
    receiveTimeout = sendTimeout = -1;
}

int SocketChannel::Release() noexcept
{
    const int released = fd;
    fd = -1;
    inBegin = inEnd = 0;
    receiveTimeout = sendTimeout = -1;
    return released;
}

IoResult SocketChannel::Connect(const String& path, Deadline deadline, SocketChannel& channel)
{
    channel.Close();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path)
    {
        return IoResult::Closed;
    }
    std::memcpy(address.sun_path, path.data(), path.size());

    for (;;)
    {
        // Non-blocking only while connecting: a full listener queue is then EAGAIN, not a wait without bound.
        const int candidate = PosixCall("socket", ::socket, AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        int error = 0;
        PosixCallAllowing("connect", {EAGAIN, ECONNREFUSED, ENOENT, ENOTDIR, EACCES, ENAMETOOLONG, EPROTOTYPE, ENOTSOCK}, error, ::connect,
                          candidate, reinterpret_cast<const sockaddr*>(&address), static_cast<socklen_t>(sizeof address));
        if (error == 0)
        {
            SocketChannel connected(candidate);
            channel = std::move(connected);
            return IoResult::Ok;
        }
        ::close(candidate);
        if (error != EAGAIN)
        {
            return IoResult::Closed;
        }
        // The listener's queue is full; a Unix socket cannot be polled for that, so retry shortly.
        if (Clock::now() >= deadline)
        {
            return IoResult::Timeout;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

bool SocketChannel::ArmTimeout(int option, Deadline deadline, std::int64_t& armed)
{
    std::int64_t wanted = 0;
    if (deadline != NoDeadline)
    {
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
        if (left <= 0)
        {
            return false;
        }
        wanted = left;
    }
    // A deadline set afresh for each call differs from the last one by microseconds: the time-out in
    // force stays, and a call costs no extra system call.
    const bool keep =
        armed >= 0 &&
        (wanted == 0 ? armed == 0
                     : (armed != 0 && armed - wanted <= TimeoutSlackMicroseconds && wanted - armed <= TimeoutSlackMicroseconds));
    if (!keep)
    {
        timeval value{};
        value.tv_sec = static_cast<time_t>(wanted / 1'000'000);
        value.tv_usec = static_cast<suseconds_t>(wanted % 1'000'000);
        PosixCall("setsockopt", ::setsockopt, fd, SOL_SOCKET, option, static_cast<const void*>(&value),
                  static_cast<socklen_t>(sizeof value));
        armed = wanted;
    }
    return true;
}

IoResult SocketChannel::SendAll(const std::uint8_t* data, std::size_t size, Deadline deadline)
{
    std::size_t sent = 0;
    while (sent < size)
    {
        if (!ArmTimeout(SO_SNDTIMEO, deadline, sendTimeout))
        {
            return IoResult::Timeout;
        }
        int error = 0;
        const ssize_t count = PosixCallAllowing("send", {EAGAIN, EWOULDBLOCK, EPIPE, ECONNRESET}, error, ::send, fd,
                                                static_cast<const void*>(data + sent), size - sent, MSG_NOSIGNAL);
        if (count >= 0)
        {
            sent += static_cast<std::size_t>(count);
            continue;
        }
        if (IsClosedError(error))
        {
            return IoResult::Closed;
        }
        // EAGAIN: the time-out in force ran out; the loop checks the deadline.
    }
    return IoResult::Ok;
}

IoResult SocketChannel::ReceiveSome(std::uint8_t* data, std::size_t size, Deadline deadline, std::size_t& received)
{
    for (;;)
    {
        if (!ArmTimeout(SO_RCVTIMEO, deadline, receiveTimeout))
        {
            return IoResult::Timeout;
        }
        int error = 0;
        const ssize_t count =
            PosixCallAllowing("recv", {EAGAIN, EWOULDBLOCK, ECONNRESET}, error, ::recv, fd, static_cast<void*>(data), size, 0);
        if (count > 0)
        {
            received = static_cast<std::size_t>(count);
            return IoResult::Ok;
        }
        if (count == 0 || error == ECONNRESET)
        {
            return IoResult::Closed;
        }
    }
}

IoResult SocketChannel::Fill(std::size_t count, Deadline deadline)
{
    if (!inbox)
    {
        inbox.reset(new std::uint8_t[InboxSize]);
    }
    if (inBegin == inEnd)
    {
        inBegin = inEnd = 0;
    }
    else if (InboxSize - inBegin < count)
    {
        std::memmove(inbox.get(), inbox.get() + inBegin, inEnd - inBegin);
        inEnd -= inBegin;
        inBegin = 0;
    }
    while (inEnd - inBegin < count)
    {
        std::size_t received = 0;
        const IoResult result = ReceiveSome(inbox.get() + inEnd, InboxSize - inEnd, deadline, received);
        if (result != IoResult::Ok)
        {
            return result;
        }
        inEnd += received;
    }
    return IoResult::Ok;
}

IoResult SocketChannel::ReceiveExact(std::uint8_t* data, std::size_t size, Deadline deadline)
{
    const std::size_t buffered = std::min(size, inEnd - inBegin);
    if (buffered != 0)
    {
        std::memcpy(data, inbox.get() + inBegin, buffered);
        inBegin += buffered;
    }
    std::size_t received = buffered;
    while (received < size)
    {
        std::size_t count = 0;
        const IoResult result = ReceiveSome(data + received, size - received, deadline, count);
        if (result != IoResult::Ok)
        {
            return result;
        }
        received += count;
    }
    return IoResult::Ok;
}

IoResult SocketChannel::ReceiveFrame(Frame& frame, Deadline headerDeadline, Deadline bodyDeadline)
{
    return ReceiveFrame(frame, headerDeadline, bodyDeadline, std::chrono::milliseconds(0));
}

IoResult SocketChannel::ReceiveFrameWithin(Frame& frame, std::chrono::milliseconds frameTime)
{
    return ReceiveFrame(frame, NoDeadline, NoDeadline, frameTime);
}

IoResult SocketChannel::ReceiveFrame(Frame& frame, Deadline headerDeadline, Deadline bodyDeadline, std::chrono::milliseconds frameTime)
{
    IoResult result = Fill(1, headerDeadline);
    if (result != IoResult::Ok)
    {
        return result;
    }
    if (frameTime.count() > 0)
    {
        bodyDeadline = Clock::now() + frameTime;
    }
    result = Fill(FrameHeaderSize, bodyDeadline);
    if (result != IoResult::Ok)
    {
        return result;
    }
    frame.header = DecodeFrameHeader(inbox.get() + inBegin, FrameHeaderSize);
    inBegin += FrameHeaderSize;

    const std::size_t length = frame.header.payloadLength;
    std::size_t have = std::min(length, inEnd - inBegin);
    frame.payload.assign(inbox.get() + inBegin, inbox.get() + inBegin + have);
    inBegin += have;
    while (have < length)
    {
        // Grown with what arrives: a header's claim alone allocates nothing large.
        const std::size_t target = std::min(length, std::max(have * 2, have + PayloadStep));
        frame.payload.resize(target);
        while (have < target)
        {
            std::size_t count = 0;
            result = ReceiveSome(frame.payload.data() + have, target - have, bodyDeadline, count);
            if (result != IoResult::Ok)
            {
                return result;
            }
            have += count;
        }
    }
    return IoResult::Ok;
}

} // namespace Zun::Services::SoftwareManager::Services::Internal::Transport
