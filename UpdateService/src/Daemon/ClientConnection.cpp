#include "Zun/UpdateService/Daemon/ClientConnection.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fmt/format.h>

#include "Zun/Commons/Loggable.hpp"
#include "Zun/Commons/PosixCall.hpp"
#include "Zun/UpdateService/Daemon/EventHub.hpp"
#include "Zun/UpdateService/Daemon/RequestHandler.hpp"
#include "Zun/UpdateService/Protocol/MessageFraming.hpp"
#include "Zun/UpdateService/Protocol/ProtocolError.hpp"
#include "Zun/UpdateService/Protocol/StatusNames.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
{

using Protocol::MessageFraming;
using Protocol::ProtocolError;
using Protocol::StatusNames;
using Clock = std::chrono::steady_clock;

namespace
{
struct Log : System::Commons::Diagnostics::Logging::Loggable<ClientConnection>
{
    using Loggable::log;
};

int Remaining(Clock::time_point deadline)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left <= 0 ? 0 : static_cast<int>(std::min<long long>(left, 60000));
}
} // namespace

ClientConnection::ClientConnection(int fd, std::string peer, RequestHandler& handler, EventHub& events, std::size_t maxQueuedMessages)
    : fd(fd), wakeFd(System::Commons::PosixCall("eventfd", ::eventfd, 0u, EFD_CLOEXEC | EFD_NONBLOCK)), peer(std::move(peer)),
      handler(handler), events(events), maxQueuedMessages(maxQueuedMessages)
{
}

ClientConnection::~ClientConnection()
{
    Join();
    ::close(wakeFd);
}

void ClientConnection::Start()
{
    thread = std::thread([self = shared_from_this()] { self->Run(); });
}

void ClientConnection::Join()
{
    if (thread.joinable() && thread.get_id() != std::this_thread::get_id())
    {
        thread.join();
    }
}

void ClientConnection::Wake()
{
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = ::write(wakeFd, &one, sizeof one);
}

void ClientConnection::Stop()
{
    stopRequested = true;
    Wake();
}

void ClientConnection::Enqueue(Frame frame)
{
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        if (dropped)
        {
            return;
        }
        if (queue.size() >= maxQueuedMessages)
        {
            dropped = true;
        }
        else
        {
            queue.push_back(std::move(frame));
        }
    }
    // The connection's own thread writes its queue before it waits again.
    if (std::this_thread::get_id() != owner.load())
    {
        Wake();
    }
}

void ClientConnection::Send(const nlohmann::json& message)
{
    try
    {
        Enqueue(std::make_shared<const std::string>(MessageFraming::Encode(message)));
    }
    catch (const ProtocolError& e)
    {
        if (message.value("type", "") != "response")
        {
            throw;
        }
        Enqueue(std::make_shared<const std::string>(MessageFraming::Encode(
            {{"type", "response"},
             {"id", message["id"]},
             {"status", StatusNames::BadResponseTooLarge},
             {"statusName", StatusNames::GetName(StatusNames::BadResponseTooLarge)},
             {"error", std::string("The answer would exceed the message limit: ") + e.what()}})));
    }
}

void ClientConnection::QueueError(std::uint32_t status, const std::string& text, nlohmann::json extra)
{
    Log::log.Log(6, "Closing the connection of {0}: {1}", peer, text);
    extra["type"] = "error";
    extra["status"] = status;
    extra["statusName"] = StatusNames::GetName(status);
    extra["message"] = text;
    // An error always goes out, even behind a full queue: it is the last message.
    std::lock_guard<std::mutex> lock(queueMutex);
    queue.push_back(std::make_shared<const std::string>(MessageFraming::Encode(extra)));
}

void ClientConnection::Run()
{
    owner = std::this_thread::get_id();
    Log::log.Log(7, "Connection of {0} opened", peer);
    try
    {
        Loop();
    }
    catch (const std::exception& e)
    {
        Log::log.Log(3, "The connection of {0} failed: {1}", peer, e.what());
    }
    events.Unwatch(*this);
    upload.reset();
    ::close(fd);
    Log::log.Log(7, "Connection of {0} closed", peer);
    finished = true;
}

bool ClientConnection::Flush()
{
    std::unique_lock<std::mutex> lock(queueMutex);
    while (!queue.empty())
    {
        const Frame frame = queue.front();
        const std::size_t offset = frontWritten;
        lock.unlock();
        const ssize_t n = ::send(fd, frame->data() + offset, frame->size() - offset, MSG_NOSIGNAL | MSG_DONTWAIT);
        const int error = errno;
        lock.lock();
        if (n < 0)
        {
            return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
        }
        frontWritten += static_cast<std::size_t>(n);
        if (frontWritten == frame->size())
        {
            queue.pop_front();
            frontWritten = 0;
        }
    }
    return true;
}

void ClientConnection::WriteDropped()
{
    std::string rest;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        if (!queue.empty())
        {
            rest = queue.front()->substr(frontWritten);
        }
        queue.clear();
    }
    const std::string text = fmt::format("The client fell behind: {} messages were waiting; the connection is closed.", maxQueuedMessages);
    Log::log.Log(5, "Dropping {0}: {1}", peer, text);
    rest += MessageFraming::Encode({{"type", "error"},
                                    {"status", StatusNames::BadResourceUnavailable},
                                    {"statusName", StatusNames::GetName(StatusNames::BadResourceUnavailable)},
                                    {"message", text}});
    // Only what the socket takes now: the client is not reading.
    [[maybe_unused]] const ssize_t n = ::send(fd, rest.data(), rest.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

void ClientConnection::Loop()
{
    std::vector<char> buffer(64 * 1024);
    bool closing = false;
    Clock::time_point closeDeadline;
    Clock::time_point messageDeadline;
    for (;;)
    {
        bool pending = false;
        {
            std::lock_guard<std::mutex> lock(queueMutex);
            if (dropped)
            {
                break;
            }
            pending = !queue.empty();
        }
        if (stopRequested && !closing)
        {
            QueueError(StatusNames::BadShutdown, "The update service is stopping.");
            pending = true;
        }
        if (closing || stopRequested)
        {
            if (!closing)
            {
                closing = true;
                closeDeadline = Clock::now() + CloseTimeout;
            }
            if (!pending || Clock::now() >= closeDeadline)
            {
                return;
            }
        }
        pollfd fds[2] = {{fd, static_cast<short>((closing ? 0 : POLLIN) | (pending ? POLLOUT : 0)), 0}, {wakeFd, POLLIN, 0}};
        int timeout = -1;
        if (closing)
        {
            timeout = Remaining(closeDeadline);
        }
        else if (reader.IsInsideMessage())
        {
            timeout = Remaining(messageDeadline);
        }
        const int ready = ::poll(fds, 2, timeout);
        if (ready < 0 && errno != EINTR)
        {
            throw System::Commons::SystemException("poll", errno);
        }
        if (ready == 0 && !closing && reader.IsInsideMessage())
        {
            QueueError(StatusNames::BadTimeout, "The message was not completed within 10 seconds.");
            closing = true;
            closeDeadline = Clock::now() + CloseTimeout;
            continue;
        }
        if ((fds[1].revents & POLLIN) != 0)
        {
            std::uint64_t count = 0;
            [[maybe_unused]] const ssize_t n = ::read(wakeFd, &count, sizeof count);
        }
        if ((fds[0].revents & (POLLERR | POLLNVAL)) != 0 || ((fds[0].revents & POLLHUP) != 0 && (fds[0].revents & POLLIN) == 0))
        {
            return;
        }
        if ((fds[0].revents & POLLOUT) != 0 && !Flush())
        {
            return;
        }
        if ((fds[0].revents & POLLIN) == 0 || closing)
        {
            continue;
        }
        const ssize_t n = ::recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (n == 0)
        {
            return;
        }
        if (n < 0)
        {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)
            {
                continue;
            }
            return;
        }
        const bool wasInside = reader.IsInsideMessage();
        reader.Append(buffer.data(), static_cast<std::size_t>(n));
        bool completed = false;
        try
        {
            nlohmann::json message;
            while (!closing && !stopRequested && reader.Next(message))
            {
                completed = true;
                closing = !Handle(message);
            }
        }
        catch (const ProtocolError& e)
        {
            QueueError(e.GetStatus(), e.GetMessage());
            closing = true;
        }
        // Answers leave at once rather than after another wait.
        if (!Flush())
        {
            return;
        }
        if (closing)
        {
            closeDeadline = Clock::now() + CloseTimeout;
        }
        else if (reader.IsInsideMessage() && (!wasInside || completed))
        {
            messageDeadline = Clock::now() + MessageTimeout;
        }
    }
    WriteDropped();
}

bool ClientConnection::Handle(const nlohmann::json& message)
{
    const auto type = message.find("type");
    if (type == message.end() || !type->is_string())
    {
        QueueError(StatusNames::BadDecodingError, "The message has no 'type'.");
        return false;
    }
    const std::string& kind = type->get_ref<const std::string&>();
    if (!helloDone)
    {
        if (kind != "hello")
        {
            QueueError(StatusNames::BadInvalidState, "The first message must be a hello.");
            return false;
        }
        const auto protocol = message.find("protocol");
        if (protocol == message.end() || !protocol->is_number_integer())
        {
            QueueError(StatusNames::BadDecodingError, "The hello has no integer 'protocol'.");
            return false;
        }
        if (*protocol != MessageFraming::ProtocolVersion)
        {
            QueueError(StatusNames::BadProtocolVersionUnsupported, fmt::format("Protocol version {} is not supported.", protocol->dump()),
                       {{"supported", {MessageFraming::ProtocolVersion}}});
            return false;
        }
        std::string client = message.value("client", nlohmann::json("")).is_string() ? message.value("client", std::string()) : "";
        if (client.size() > 256)
        {
            client.resize(256);
        }
        Log::log.Log(7, "Client {0}: {1}", peer, client);
        helloDone = true;
        Send(handler.Hello());
        return true;
    }
    if (kind == "hello")
    {
        QueueError(StatusNames::BadInvalidState, "A second hello on one connection.");
        return false;
    }
    if (kind != "request")
    {
        QueueError(StatusNames::BadDecodingError, fmt::format("A client sends no '{}' messages.", kind));
        return false;
    }
    const auto id = message.find("id");
    if (id == message.end() || !id->is_number_integer() || *id < 0 || *id > 4294967295LL)
    {
        QueueError(StatusNames::BadDecodingError, "The request has no valid 'id' (an integer 0 to 4294967295).");
        return false;
    }
    auto response = handler.Handle(*this, id->get<std::uint32_t>(), message);
    if (response)
    {
        Send(*response);
    }
    return true;
}

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
