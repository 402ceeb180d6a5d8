// The listening side of the software manager transport: accepts local connections from allowed
// users, decodes request frames, calls the service and answers each with one response frame.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "ServiceContracts/ISoftwareManagerService.hpp"
#include "Zun/Commons/Loggable.hpp"
#include "Zun/Commons/String.hpp"
#include "Zun/SoftwareManager/FrameCodec.hpp"
#include "Zun/SoftwareManager/SocketChannel.hpp"

namespace Zun::Services::SoftwareManager::Service
{

class ServiceServer : private System::Commons::Diagnostics::Logging::Loggable<ServiceServer>
{
public:
    static constexpr std::size_t MaxConnections = 64;
    // A frame that has begun must be complete within this time.
    static constexpr std::uint32_t FrameTimeoutMilliseconds = 10'000;

    // Connections from the own user id and from `allowedUid` are served; others are refused.
    ServiceServer(Services::Internal::ISoftwareManagerService& service, String socketPath, std::optional<uid_t> allowedUid);
    ~ServiceServer();
    ServiceServer(const ServiceServer&) = delete;
    ServiceServer& operator=(const ServiceServer&) = delete;

    // Creates the socket's folder (mode 0700) and the socket (mode 0600). Throws InvalidOperationException
    // when another process already listens there.
    void Listen();
    // Serves until `stopFd` becomes readable; then closes every connection and removes the socket.
    void Run(int stopFd);

    // What answering requests needs, kept from request to request of a connection so that a
    // request in the steady state allocates nothing.
    struct Reply
    {
        Reply() : writer(frame) {}
        // The whole response frame (a Response or an Error frame).
        std::vector<std::uint8_t> frame;
        // Appends to `frame`.
        System::Rsc::RemotingWriter writer;
        // The record asked for, assigned by the service so that its lists reuse their storage.
        Services::Internal::SoftwareInformation information;
    };

    // Answers one request into `reply.frame`.
    void Dispatch(const Services::Internal::Transport::Frame& request, Reply& reply);

private:
    struct Connection
    {
        std::thread thread;
        std::atomic<bool> done{false};
        // The served socket until its thread closes it; shut down to end a wait for the next request.
        std::mutex mutex;
        int fd = -1;
    };

    void Serve(Connection& connection);
    bool IsAllowed(int fd, uid_t& peer) const;
    void ReapFinished();

    Services::Internal::ISoftwareManagerService& service;
    String socketPath;
    std::optional<uid_t> allowedUid;
    int listenFd = -1;
    std::list<std::unique_ptr<Connection>> connections;
};

} // namespace Zun::Services::SoftwareManager::Service
