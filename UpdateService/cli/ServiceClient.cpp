#include "ServiceClient.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fmt/format.h>

#include "Zun/UpdateService/Protocol/MessageFraming.hpp"
#include "Zun/UpdateService/Protocol/StatusNames.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Cli
{

namespace
{
using Json = nlohmann::json;
using Protocol::MessageFraming;
using Protocol::StatusNames;

constexpr const char* SystemSocket = "/run/zun-update/service.sock";

bool IsSocket(const std::string& path)
{
    struct stat info
    {
    };
    return ::stat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
}

std::string HowToStart(const std::string& path)
{
    return path == SystemSocket ? std::string("start it with `systemctl start zun-update-service`, or run zun-update-service yourself and name its "
                                              "socket with --socket")
                                : fmt::format("start it with `zun-update-service --socket {}` or name another with --socket", path);
}

// The service's closing `error` message as one line.
std::string ClosingReason(const Json& message)
{
    return fmt::format("the update service closed the connection: {}: {}", message.value("statusName", std::string("?")),
                       message.value("message", std::string()));
}
} // namespace

std::string ServiceClient::DefaultSocketPath()
{
    if (const char* path = std::getenv("ZUN_UPDATE_SOCKET"); path != nullptr && *path != '\0')
    {
        return path;
    }
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (::geteuid() != 0 && runtime != nullptr && runtime[0] == '/')
    {
        std::string own = std::string(runtime) + "/zun-update/service.sock";
        if (IsSocket(own))
        {
            return own;
        }
    }
    return SystemSocket;
}

ServiceClient::ServiceClient(const std::string& socketPath, std::chrono::milliseconds timeoutIn) : timeout(timeoutIn)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath.empty() || socketPath.size() >= sizeof address.sun_path)
    {
        throw Unavailable(fmt::format("'{}' cannot be a socket path", socketPath));
    }
    std::memcpy(address.sun_path, socketPath.data(), socketPath.size());
    fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
    {
        throw Unavailable(fmt::format("socket: {}", std::strerror(errno)));
    }
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    {
        const int error = errno;
        ::close(fd);
        fd = -1;
        throw Unavailable(fmt::format("no update service at {} ({}); {}", socketPath, std::strerror(error), HowToStart(socketPath)));
    }
    try
    {
        MessageFraming::WriteMessage(fd, Json{{"type", "hello"}, {"protocol", MessageFraming::ProtocolVersion}, {"client", "zun-update 1.0.0"}});
        const Json hello = Answer();
        if (hello.value("type", std::string()) != "hello")
        {
            throw Unavailable(fmt::format("the update service at {} did not answer the hello", socketPath));
        }
        limits = hello.value("limits", Json::object());
    }
    catch (...)
    {
        ::close(fd);
        fd = -1;
        throw;
    }
}

ServiceClient::~ServiceClient()
{
    if (fd >= 0)
    {
        ::close(fd);
    }
}

std::uint32_t ServiceClient::Send(const std::string& operation, const Json& params)
{
    const std::uint32_t id = nextId++;
    try
    {
        MessageFraming::WriteMessage(fd, Json{{"type", "request"}, {"id", id}, {"op", operation}, {"params", params}});
    }
    catch (const std::exception& e)
    {
        throw Unavailable(fmt::format("sending {} failed: {}", operation, e.what()));
    }
    return id;
}

ServiceClient::Response ServiceClient::Call(const std::string& operation, const Json& params)
{
    const std::uint32_t id = Send(operation, params);
    for (;;)
    {
        Json message = Answer();
        if (message.value("type", std::string()) == "response" && message.value("id", 0u) == id)
        {
            return ToResponse(message);
        }
        pending.push_back(std::move(message));
    }
}

bool ServiceClient::Next(Json& message, std::chrono::milliseconds wait)
{
    if (!pending.empty())
    {
        message = std::move(pending.front());
        pending.pop_front();
        return true;
    }
    message = Read(wait);
    return !message.is_null();
}

ServiceClient::Response ServiceClient::ToResponse(const Json& message)
{
    Response response;
    response.status = message.value("status", StatusNames::BadUnexpectedError);
    response.statusName = message.value("statusName", StatusNames::GetName(response.status));
    if (message.contains("result") && message["result"].is_object())
    {
        response.result = message["result"];
    }
    response.error = message.value("error", std::string());
    return response;
}

Json ServiceClient::Answer()
{
    Json message = Read(timeout);
    if (message.is_null())
    {
        throw Unavailable(fmt::format("the update service did not answer within {} ms", timeout.count()));
    }
    return message;
}

// One message, or null when `wait` (negative: no bound) passed first. The connection's end and
// the service's closing error are thrown as Unavailable.
Json ServiceClient::Read(std::chrono::milliseconds wait)
{
    pollfd watched{fd, POLLIN, 0};
    int ready = 0;
    do
    {
        ready = ::poll(&watched, 1, wait.count() < 0 ? -1 : static_cast<int>(wait.count()));
    } while (ready < 0 && errno == EINTR);
    if (ready == 0)
    {
        return Json();
    }
    Json message;
    try
    {
        if (ready < 0 || !MessageFraming::ReadMessage(fd, message))
        {
            throw Unavailable("the update service closed the connection");
        }
    }
    catch (const Unavailable&)
    {
        throw;
    }
    catch (const std::exception& e)
    {
        throw Unavailable(fmt::format("the connection to the update service failed: {}", e.what()));
    }
    if (message.value("type", std::string()) == "error")
    {
        throw Unavailable(ClosingReason(message));
    }
    return message;
}

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Cli
