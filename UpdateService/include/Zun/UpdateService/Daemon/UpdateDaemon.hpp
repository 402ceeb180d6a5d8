// The update service as a daemon: locks its state directory, hosts the updater module once, and
// serves the local API on a Unix socket to the local users it admits, one thread per connection.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Zun/Commons/Export.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService
{
class ServiceHost;
}

namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
{

class ClientConnection;
class EventHub;
class RequestHandler;
class StateDirectoryLock;

struct DaemonOptions
{
    std::string stateDirectory;    // empty: DefaultStateDirectory()
    std::string socketPath;        // empty: DefaultSocketPath()
    std::string managerSocketPath; // empty: the software manager's default
    std::string pluginPath;        // empty: the default plug-in
    std::string group;             // empty: the service's own group
    std::uint32_t managerTimeoutMilliseconds = 5000;
    std::size_t maxClients = 128;
    std::size_t clientQueue = 1024;
    std::uint64_t maxPackageBytes = 256u * 1024u * 1024u;
};

class ZUN_EXPORT UpdateDaemon
{
public:
    explicit UpdateDaemon(DaemonOptions options);
    ~UpdateDaemon();
    UpdateDaemon(const UpdateDaemon&) = delete;
    UpdateDaemon& operator=(const UpdateDaemon&) = delete;

    // $STATE_DIRECTORY, else the folder of the update service's default store.
    static std::string DefaultStateDirectory();
    // $RUNTIME_DIRECTORY/service.sock, /run/zun-update/service.sock for root, else
    // $XDG_RUNTIME_DIR/zun-update/service.sock.
    static std::string DefaultSocketPath();

    // Locks the state directory, starts the module (which settles and announces what ended while
    // no service ran), then listens; the socket exists only once the service is ready. Throws
    // InvalidOperationException or SystemException with the reason; nothing is left running then.
    void Start();
    // Stops accepting, lets running requests finish, sends Bad_Shutdown to every connection, then
    // destroys the module and closes the store. Safe to call more than once.
    void Stop();

    const DaemonOptions& GetOptions() const noexcept { return options; }

private:
    void AcceptLoop();
    void Admit(int client);
    void Reap(bool all);

    DaemonOptions options;
    unsigned groupId = 0;
    std::unique_ptr<StateDirectoryLock> stateLock;
    std::unique_ptr<ServiceHost> host;
    std::shared_ptr<EventHub> events;
    std::unique_ptr<RequestHandler> handler;
    int listenFd = -1;
    int stopFd = -1;
    std::thread acceptThread;
    std::mutex connectionsMutex;
    std::vector<std::shared_ptr<ClientConnection>> connections;
    std::atomic<bool> stopping{false};
};

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
