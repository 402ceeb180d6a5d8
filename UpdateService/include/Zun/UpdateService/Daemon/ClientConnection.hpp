// One client of the local API on its own thread: reads and checks messages, runs its requests one
// after another, and writes its bounded queue of outgoing messages without ever blocking the
// threads that queue them. Any fault closes this connection only, after an `error` message.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

#include "Zun/Commons/Export.hpp"
#include "Zun/UpdateService/Daemon/PackageUpload.hpp"
#include "Zun/UpdateService/Protocol/MessageReader.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
{

class EventHub;
class RequestHandler;

class ZUN_EXPORT ClientConnection : public std::enable_shared_from_this<ClientConnection>
{
public:
    using Frame = std::shared_ptr<const std::string>;
    static constexpr std::chrono::seconds MessageTimeout{10};
    // How long a closing connection may take to write its last messages.
    static constexpr std::chrono::seconds CloseTimeout{1};

    // Takes `fd` (a connected stream socket).
    ClientConnection(int fd, std::string peer, RequestHandler& handler, EventHub& events, std::size_t maxQueuedMessages);
    ~ClientConnection();
    ClientConnection(const ClientConnection&) = delete;
    ClientConnection& operator=(const ClientConnection&) = delete;

    void Start();
    // Queues one encoded message; never blocks. When the queue is full the connection is dropped.
    void Enqueue(Frame frame);
    // Encodes and queues; a response above the message limit becomes Bad_ResponseTooLarge.
    void Send(const nlohmann::json& message);
    // The service stops: the running request finishes, then Bad_Shutdown and close.
    void Stop();
    void Join();
    bool IsFinished() const noexcept { return finished; }
    const std::string& GetPeer() const noexcept { return peer; }

    // The connection's upload; used by the request handler on this connection's thread only.
    std::unique_ptr<PackageUpload> upload;

private:
    void Run();
    void Loop();
    // False when the connection must close (an error is queued then).
    bool Handle(const nlohmann::json& message);
    void QueueError(std::uint32_t status, const std::string& text, nlohmann::json extra = nlohmann::json::object());
    // Writes what the socket takes; false when the peer is gone.
    bool Flush();
    void WriteDropped();
    void Wake();

    int fd;
    int wakeFd;
    std::string peer;
    RequestHandler& handler;
    EventHub& events;
    std::size_t maxQueuedMessages;
    Protocol::MessageReader reader;
    bool helloDone = false;

    std::mutex queueMutex;
    std::deque<Frame> queue;
    std::size_t frontWritten = 0;
    bool dropped = false;

    std::atomic<bool> stopRequested{false};
    std::atomic<bool> finished{false};
    std::atomic<std::thread::id> owner{};
    std::thread thread;
};

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
