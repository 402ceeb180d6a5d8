#include "Zun/UpdateService/Daemon/UpdateDaemon.hpp"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>

#include <fmt/format.h>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/Loggable.hpp"
#include "Zun/Commons/PosixCall.hpp"
#include "Zun/UpdateService/Daemon/ClientConnection.hpp"
#include "Zun/UpdateService/Daemon/EventHub.hpp"
#include "Zun/UpdateService/Daemon/RequestHandler.hpp"
#include "Zun/UpdateService/Daemon/StateDirectoryLock.hpp"
#include "Zun/UpdateService/DefaultPaths.hpp"
#include "Zun/UpdateService/Protocol/MessageFraming.hpp"
#include "Zun/UpdateService/Protocol/StatusNames.hpp"
#include "Zun/UpdateService/ServiceHost.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
{

using Protocol::MessageFraming;
using Protocol::StatusNames;
using System::Commons::InvalidOperationException;
using System::Commons::PosixCall;

namespace
{
struct Log : System::Commons::Diagnostics::Logging::Loggable<UpdateDaemon>
{
    using Loggable::log;
};

std::string Environment(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr ? std::string(value) : std::string();
}

std::string NewInstance()
{
    std::random_device random;
    return fmt::format("{:08x}-{:x}", random(), static_cast<unsigned>(::getpid()));
}

// One message and close, for a connection that is not served; a peer that does not read loses it.
void Refuse(int fd, std::uint32_t status, const std::string& text)
{
    const std::string framed = MessageFraming::Encode(
        {{"type", "error"}, {"status", status}, {"statusName", StatusNames::GetName(status)}, {"message", text}});
    [[maybe_unused]] const ssize_t n = ::send(fd, framed.data(), framed.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    ::close(fd);
}

// Removes a socket file no service answers on; refuses one that is in use.
void ClaimSocketPath(const std::string& path)
{
    struct stat info{};
    if (::lstat(path.c_str(), &info) != 0)
    {
        return;
    }
    if (!S_ISSOCK(info.st_mode))
    {
        throw InvalidOperationException("'{0}' exists and is not a socket.", path);
    }
    const int probe = PosixCall("socket", ::socket, AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const bool inUse = ::connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(probe);
    if (inUse)
    {
        throw InvalidOperationException("Another service listens on the socket '{0}'.", path);
    }
    ::unlink(path.c_str());
}
} // namespace

UpdateDaemon::UpdateDaemon(DaemonOptions options) : options(std::move(options)) {}

UpdateDaemon::~UpdateDaemon()
{
    Stop();
}

std::string UpdateDaemon::DefaultStateDirectory()
{
    const std::string state = Environment("STATE_DIRECTORY");
    if (!state.empty())
    {
        return state.substr(0, state.find(':'));
    }
    return std::filesystem::path(static_cast<const std::string&>(DefaultPaths::StorePath())).parent_path().string();
}

std::string UpdateDaemon::DefaultSocketPath()
{
    const std::string runtime = Environment("RUNTIME_DIRECTORY");
    if (!runtime.empty())
    {
        return runtime.substr(0, runtime.find(':')) + "/service.sock";
    }
    if (::geteuid() == 0)
    {
        return "/run/zun-update/service.sock";
    }
    const std::string user = Environment("XDG_RUNTIME_DIR");
    if (user.empty())
    {
        throw InvalidOperationException("No socket path: XDG_RUNTIME_DIR is not set; give --socket.");
    }
    return user + "/zun-update/service.sock";
}

void UpdateDaemon::Start()
{
    if (options.stateDirectory.empty())
    {
        options.stateDirectory = DefaultStateDirectory();
    }
    if (options.socketPath.empty())
    {
        options.socketPath = DefaultSocketPath();
    }
    if (options.socketPath.size() >= sizeof(sockaddr_un::sun_path))
    {
        throw InvalidOperationException("The socket path '{0}' is too long.", options.socketPath);
    }
    groupId = ::getegid();
    if (!options.group.empty())
    {
        const group* entry = ::getgrnam(options.group.c_str());
        if (entry == nullptr)
        {
            throw InvalidOperationException("There is no group '{0}'.", options.group);
        }
        groupId = entry->gr_gid;
    }
    try
    {
        stateLock = std::make_unique<StateDirectoryLock>(options.stateDirectory);
        // What a killed service was receiving is of no use to anyone.
        const std::string spool = options.stateDirectory + "/uploads";
        std::error_code ignored;
        std::filesystem::remove_all(spool, ignored);

        ServiceHostOptions hostOptions;
        hostOptions.storePath = options.stateDirectory + "/store.db";
        hostOptions.socketPath = options.managerSocketPath;
        hostOptions.pluginPath = options.pluginPath;
        hostOptions.timeoutMilliseconds = options.managerTimeoutMilliseconds;
        host = std::make_unique<ServiceHost>(hostOptions);
        host->Start();
        events = std::make_shared<EventHub>(host->GetStore());
        host->GetStore()->AddListener(events);

        RequestLimits limits;
        limits.maxPackageBytes = options.maxPackageBytes;
        limits.maxQueuedMessages = options.clientQueue;
        limits.spoolDirectory = spool;
        limits.instance = NewInstance();
        handler = std::make_unique<RequestHandler>(*host, *events, limits);

        std::filesystem::create_directories(std::filesystem::path(options.socketPath).parent_path(), ignored);
        ClaimSocketPath(options.socketPath);
        stopFd = PosixCall("eventfd", ::eventfd, 0u, EFD_CLOEXEC | EFD_NONBLOCK);
        listenFd = PosixCall("socket", ::socket, AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, options.socketPath.c_str(), sizeof address.sun_path - 1);
        // Bound under a restrictive umask, so that no one else can connect before the mode is set.
        const mode_t previous = ::umask(0177);
        const int bound = ::bind(listenFd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        const int bindError = errno;
        ::umask(previous);
        if (bound != 0)
        {
            throw System::Commons::SystemException("bind", bindError);
        }
        if (::chown(options.socketPath.c_str(), static_cast<uid_t>(-1), groupId) != 0 && !options.group.empty())
        {
            throw System::Commons::SystemException("chown", errno);
        }
        PosixCall("chmod", ::chmod, options.socketPath.c_str(), static_cast<mode_t>(0660));
        PosixCall("listen", ::listen, listenFd, 128);
    }
    catch (...)
    {
        Stop();
        throw;
    }
    stopping = false;
    acceptThread = std::thread([this] { AcceptLoop(); });
    Log::log.Log(5, "Update service listening on {0} (state directory {1})", options.socketPath, options.stateDirectory);
}

void UpdateDaemon::AcceptLoop()
{
    for (;;)
    {
        pollfd fds[2] = {{listenFd, POLLIN, 0}, {stopFd, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0 && errno != EINTR)
        {
            Log::log.Log(3, "poll failed: {0}", std::strerror(errno));
            return;
        }
        if (stopping)
        {
            return;
        }
        if ((fds[0].revents & POLLIN) == 0)
        {
            continue;
        }
        const int client = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0)
        {
            if (errno == EMFILE || errno == ENFILE)
            {
                Log::log.Log(3, "Cannot accept a connection: {0}", std::strerror(errno));
            }
            continue;
        }
        Admit(client);
    }
}

void UpdateDaemon::Admit(int client)
{
    ucred peer{};
    socklen_t length = sizeof peer;
    if (::getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0)
    {
        ::close(client);
        return;
    }
    bool allowed = peer.uid == 0 || peer.uid == ::geteuid() || peer.gid == groupId;
    if (!allowed)
    {
        gid_t groups[256];
        socklen_t size = sizeof groups;
        if (::getsockopt(client, SOL_SOCKET, SO_PEERGROUPS, groups, &size) == 0)
        {
            allowed = std::find(groups, groups + size / sizeof(gid_t), groupId) != groups + size / sizeof(gid_t);
        }
    }
    const std::string name = fmt::format("pid {} uid {}", peer.pid, peer.uid);
    if (!allowed)
    {
        Log::log.Log(5, "Refused {0}: not root, the service's user or a member of its group", name);
        Refuse(client, StatusNames::BadUserAccessDenied, "This user may not use the update service.");
        return;
    }
    Reap(false);
    std::lock_guard<std::mutex> lock(connectionsMutex);
    if (connections.size() >= options.maxClients)
    {
        Log::log.Log(5, "Refused {0}: {1} connections are open", name, connections.size());
        Refuse(client, StatusNames::BadTooManySessions, fmt::format("The update service serves at most {} connections.", options.maxClients));
        return;
    }
    auto connection = std::make_shared<ClientConnection>(client, name, *handler, *events, options.clientQueue);
    connections.push_back(connection);
    connection->Start();
}

void UpdateDaemon::Reap(bool all)
{
    std::vector<std::shared_ptr<ClientConnection>> ended;
    {
        std::lock_guard<std::mutex> lock(connectionsMutex);
        const auto split = std::stable_partition(connections.begin(), connections.end(),
                                                 [all](const auto& c) { return !all && !c->IsFinished(); });
        ended.assign(split, connections.end());
        connections.erase(split, connections.end());
    }
    for (const auto& connection : ended)
    {
        connection->Join();
    }
}

void UpdateDaemon::Stop()
{
    stopping = true;
    if (stopFd >= 0)
    {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t n = ::write(stopFd, &one, sizeof one);
    }
    if (acceptThread.joinable())
    {
        acceptThread.join();
        Log::log.Log(5, "Update service stopping");
    }
    if (listenFd >= 0)
    {
        ::close(listenFd);
        listenFd = -1;
        ::unlink(options.socketPath.c_str());
    }
    {
        std::lock_guard<std::mutex> lock(connectionsMutex);
        for (const auto& connection : connections)
        {
            connection->Stop();
        }
    }
    Reap(true);
    if (host && events && host->GetStore())
    {
        host->GetStore()->RemoveListener(events);
    }
    handler.reset();
    // Destroys the module, which joins its status thread; the store closes with the host.
    host.reset();
    events.reset();
    stateLock.reset();
    if (stopFd >= 0)
    {
        ::close(stopFd);
        stopFd = -1;
    }
}

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
