#include "Zun/SoftwareManager/SocketChannel.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "Zun/Commons/PosixCall.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal::Transport
{

using System::Commons::PosixCall;
using System::Commons::PosixCallAllowing;

namespace
{

int MillisecondsUntil(Deadline deadline)
{
    if (deadline == NoDeadline)
    {
        return -1;
    }
    const auto now = Clock::now();
    if (deadline <= now)
    {
        return 0;
    }
    // Rounded up so that a wait never ends just before its deadline and spins.
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
    return left > 60'000 ? 60'000 : static_cast<int>(left);
}

bool IsClosedError(int error)
{
    return error == EPIPE || error == ECONNRESET || error == ECONNREFUSED || error == ENOENT || error == ENOTDIR || error == EACCES ||
           error == ENAMETOOLONG || error == ENOTSOCK || error == EPROTOTYPE;
}

} // namespace

SocketChannel::~SocketChannel()
{
    Close();
}

SocketChannel::SocketChannel(SocketChannel&& other) noexcept : fd(other.fd)
{
    other.fd = -1;
}

SocketChannel& SocketChannel::operator=(SocketChannel&& other) noexcept
{
    if (this != &other)
    {
        Close();
        fd = other.fd;
        other.fd = -1;
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
        SocketChannel candidate(PosixCall("socket", ::socket, AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        int error = 0;
        PosixCallAllowing("connect", {EAGAIN, EINPROGRESS, ECONNREFUSED, ENOENT, ENOTDIR, EACCES, ENAMETOOLONG, EPROTOTYPE, ENOTSOCK}, error,
                          ::connect, candidate.fd, reinterpret_cast<const sockaddr*>(&address), static_cast<socklen_t>(sizeof address));
        if (error == 0)
        {
            channel = std::move(candidate);
            return IoResult::Ok;
        }
        if (error == EINPROGRESS)
        {
            const IoResult ready = candidate.Wait(POLLOUT, deadline, -1);
            if (ready != IoResult::Ok)
            {
                return ready;
            }
            int socketError = 0;
            socklen_t length = sizeof socketError;
            PosixCall("getsockopt", ::getsockopt, candidate.fd, SOL_SOCKET, SO_ERROR, static_cast<void*>(&socketError), &length);
            if (socketError != 0)
            {
                return IoResult::Closed;
            }
            channel = std::move(candidate);
            return IoResult::Ok;
        }
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

IoResult SocketChannel::Wait(short events, Deadline deadline, int wakeFd) const
{
    pollfd fds[2] = {{fd, events, 0}, {wakeFd, POLLIN, 0}};
    const nfds_t count = wakeFd >= 0 ? 2 : 1;
    for (;;)
    {
        const int timeout = MillisecondsUntil(deadline);
        const int ready = PosixCall("poll", ::poll, fds, count, timeout);
        if (count == 2 && (fds[1].revents & POLLIN) != 0)
        {
            return IoResult::Woken;
        }
        if (ready > 0)
        {
            // Errors and hang-ups are left to the following send/recv, which reports them precisely.
            return IoResult::Ok;
        }
        if (deadline != NoDeadline && Clock::now() >= deadline)
        {
            return IoResult::Timeout;
        }
    }
}

IoResult SocketChannel::SendAll(const std::uint8_t* data, std::size_t size, Deadline deadline)
{
    std::size_t sent = 0;
    while (sent < size)
    {
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
        const IoResult ready = Wait(POLLOUT, deadline, -1);
        if (ready != IoResult::Ok)
        {
            return ready;
        }
    }
    return IoResult::Ok;
}

IoResult SocketChannel::ReceiveExact(std::uint8_t* data, std::size_t size, Deadline deadline, int wakeFd)
{
    std::size_t received = 0;
    while (received < size)
    {
        const IoResult ready = Wait(POLLIN, deadline, wakeFd);
        if (ready != IoResult::Ok)
        {
            return ready;
        }
        int error = 0;
        const ssize_t count = PosixCallAllowing("recv", {EAGAIN, EWOULDBLOCK, ECONNRESET}, error, ::recv, fd,
                                                static_cast<void*>(data + received), size - received, 0);
        if (count == 0 || error == ECONNRESET)
        {
            return IoResult::Closed;
        }
        if (count > 0)
        {
            received += static_cast<std::size_t>(count);
        }
    }
    return IoResult::Ok;
}

IoResult SocketChannel::ReceiveFrame(Frame& frame, Deadline headerDeadline, Deadline bodyDeadline, int wakeFd)
{
    std::uint8_t header[FrameHeaderSize];
    IoResult result = ReceiveExact(header, 1, headerDeadline, wakeFd);
    if (result != IoResult::Ok)
    {
        return result;
    }
    result = ReceiveExact(header + 1, FrameHeaderSize - 1, bodyDeadline, wakeFd);
    if (result != IoResult::Ok)
    {
        return result;
    }
    frame.header = DecodeFrameHeader(header, FrameHeaderSize);
    frame.payload.assign(frame.header.payloadLength, 0);
    return ReceiveExact(frame.payload.data(), frame.payload.size(), bodyDeadline, wakeFd);
}

bool SocketChannel::IsStale() const
{
    if (fd < 0)
    {
        return true;
    }
    pollfd pfd{fd, POLLIN, 0};
    const int ready = PosixCall("poll", ::poll, &pfd, nfds_t{1}, 0);
    // Readable while idle means end of stream, a reset or unsolicited data: none of them is usable.
    return ready != 0;
}

} // namespace Zun::Services::SoftwareManager::Services::Internal::Transport
