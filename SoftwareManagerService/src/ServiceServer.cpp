#include "Zun/SoftwareManagerService/ServiceServer.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "Zun/Commons/PosixCall.hpp"
#include "Zun/Rsc/RemotingException.hpp"

namespace Zun::Services::SoftwareManager::Service
{

namespace fs = std::filesystem;
using namespace Services::Internal::Transport;
using Services::Internal::InstallationState;
using Services::Internal::SoftwareInformation;
using System::Commons::PosixCall;
using System::Rsc::RemotingReader;
using System::Rsc::RemotingWriter;
using System::Rsc::RscString;

namespace
{

std::vector<std::uint8_t> ErrorFrame(Operation operation, std::uint32_t requestId, std::uint32_t status, const String& message)
{
    return EncodeFrame(FrameType::Error, operation, requestId, EncodeErrorPayload(status, message));
}

void PrepareSocketDirectory(const fs::path& directory)
{
    const bool created = fs::create_directories(directory);
    struct stat info
    {
    };
    PosixCall("lstat", ::lstat, directory.c_str(), &info);
    if (!S_ISDIR(info.st_mode) || info.st_uid != ::getuid())
    {
        throw System::Commons::InvalidOperationException("The socket folder '{0}' is not a folder owned by this user.", directory.string());
    }
    // Only a folder of its own: a shared one such as /tmp must keep its mode (the socket is 0600 anyway).
    if (created)
    {
        PosixCall("chmod", ::chmod, directory.c_str(), static_cast<mode_t>(0700));
    }
}

} // namespace

ServiceServer::ServiceServer(Services::Internal::ISoftwareManagerService& service, String socketPath, std::optional<uid_t> allowedUid)
    : service(service), socketPath(std::move(socketPath)), allowedUid(allowedUid)
{
}

ServiceServer::~ServiceServer()
{
    for (auto& connection : connections)
    {
        if (connection->thread.joinable())
        {
            connection->thread.join();
        }
    }
    if (listenFd >= 0)
    {
        ::close(listenFd);
        ::unlink(socketPath.c_str());
    }
}

void ServiceServer::Listen()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof address.sun_path)
    {
        throw System::Commons::InvalidOperationException("The socket path '{0}' is longer than {1} bytes.", socketPath,
                                                         sizeof address.sun_path - 1);
    }
    std::memcpy(address.sun_path, socketPath.data(), socketPath.size());
    PrepareSocketDirectory(fs::path(static_cast<const std::string&>(socketPath)).parent_path());

    struct stat info
    {
    };
    if (::lstat(socketPath.c_str(), &info) == 0)
    {
        if (!S_ISSOCK(info.st_mode))
        {
            throw System::Commons::InvalidOperationException("'{0}' exists and is not a socket.", socketPath);
        }
        SocketChannel probe;
        if (SocketChannel::Connect(socketPath, Clock::now() + std::chrono::milliseconds(500), probe) == IoResult::Ok)
        {
            throw System::Commons::InvalidOperationException("Another software manager service already listens at '{0}'.", socketPath);
        }
        // Left behind by a process that was killed.
        PosixCall("unlink", ::unlink, socketPath.c_str());
    }

    listenFd = PosixCall("socket", ::socket, AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const mode_t previous = ::umask(0177);
    int bindError = 0;
    System::Commons::PosixCallAllowing("bind", {EADDRINUSE, EACCES}, bindError, ::bind, listenFd,
                                       reinterpret_cast<const sockaddr*>(&address), static_cast<socklen_t>(sizeof address));
    ::umask(previous);
    if (bindError != 0)
    {
        throw System::Commons::SystemException("bind", bindError);
    }
    PosixCall("chmod", ::chmod, socketPath.c_str(), static_cast<mode_t>(0600));
    PosixCall("listen", ::listen, listenFd, 64);
    log.Log(5, "Listening at {0}", socketPath);
}

bool ServiceServer::IsAllowed(int fd, uid_t& peer) const
{
    ucred credentials{};
    socklen_t length = sizeof credentials;
    PosixCall("getsockopt", ::getsockopt, fd, SOL_SOCKET, SO_PEERCRED, static_cast<void*>(&credentials), &length);
    peer = credentials.uid;
    return credentials.uid == ::getuid() || (allowedUid && credentials.uid == *allowedUid);
}

void ServiceServer::ReapFinished()
{
    for (auto it = connections.begin(); it != connections.end();)
    {
        if ((*it)->done.load())
        {
            (*it)->thread.join();
            it = connections.erase(it);
        }
        else
        {
            ++it;
        }
    }
}

void ServiceServer::Run(int stopFd)
{
    for (;;)
    {
        pollfd fds[2] = {{listenFd, POLLIN, 0}, {stopFd, POLLIN, 0}};
        PosixCall("poll", ::poll, fds, nfds_t{2}, -1);
        if ((fds[1].revents & POLLIN) != 0)
        {
            break;
        }
        if ((fds[0].revents & POLLIN) == 0)
        {
            continue;
        }
        int acceptError = 0;
        const int fd = System::Commons::PosixCallAllowing("accept4", {EAGAIN, EWOULDBLOCK, ECONNABORTED, EMFILE, ENFILE}, acceptError,
                                                          ::accept4, listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
        {
            if (acceptError == EMFILE || acceptError == ENFILE)
            {
                log.Log(3, "Cannot accept a connection: out of file descriptors");
            }
            continue;
        }
        SocketChannel channel(fd);
        uid_t peer = 0;
        if (!IsAllowed(fd, peer))
        {
            log.Log(3, "Refused a connection from user id {0}", peer);
            channel.SendFrame(ErrorFrame(Operation::None, 0, StatusCodes::BadUserAccessDenied,
                                         Exception::Format("User id {0} may not use the software manager service.", peer)),
                              Clock::now() + std::chrono::milliseconds(FrameTimeoutMilliseconds));
            continue;
        }
        ReapFinished();
        if (connections.size() >= MaxConnections)
        {
            log.Log(3, "Refused a connection: {0} connections are open already", connections.size());
            channel.SendFrame(
                ErrorFrame(Operation::None, 0, StatusCodes::BadTooManyOperations, "Too many connections to the software manager service."),
                Clock::now() + std::chrono::milliseconds(FrameTimeoutMilliseconds));
            continue;
        }
        auto connection = std::make_unique<Connection>();
        Connection& ref = *connection;
        connections.push_back(std::move(connection));
        ref.fd = channel.Release();
        ref.thread = std::thread([this, &ref] { Serve(ref); });
    }
    for (auto& connection : connections)
    {
        {
            // Ends a wait for the next request; an answer being sent fails and ends its thread too.
            std::lock_guard<std::mutex> lock(connection->mutex);
            if (connection->fd >= 0)
            {
                ::shutdown(connection->fd, SHUT_RDWR);
            }
        }
        connection->thread.join();
    }
    connections.clear();
    ::close(listenFd);
    listenFd = -1;
    ::unlink(socketPath.c_str());
}

void ServiceServer::Serve(Connection& connection)
{
    SocketChannel channel;
    try
    {
        channel = SocketChannel(connection.fd);
        // Kept from request to request, so that serving a connection allocates nothing in the steady state.
        Frame request;
        Reply reply;
        for (;;)
        {
            IoResult result = IoResult::Ok;
            try
            {
                // Idle between frames for as long as the client likes; a begun frame must finish in time.
                result = channel.ReceiveFrameWithin(request, std::chrono::milliseconds(FrameTimeoutMilliseconds));
            }
            catch (const System::Rsc::RemotingException& e)
            {
                // A header that does not decode leaves no frame boundary to continue from.
                log.Log(3, "Closing a connection after a bad frame: {0}", e.GetMessage());
                channel.SendFrame(ErrorFrame(Operation::None, 0, StatusCodes::BadDecodingError, e.GetMessage()),
                                  Clock::now() + std::chrono::milliseconds(FrameTimeoutMilliseconds));
                break;
            }
            if (result != IoResult::Ok)
            {
                if (result == IoResult::Timeout)
                {
                    log.Log(3, "Closing a connection whose frame did not arrive within {0} ms", FrameTimeoutMilliseconds);
                    channel.SendFrame(ErrorFrame(Operation::None, 0, StatusCodes::BadTimeout,
                                                 Exception::Format("The frame did not arrive within {0} ms.", FrameTimeoutMilliseconds)),
                                      Clock::now() + std::chrono::milliseconds(FrameTimeoutMilliseconds));
                }
                break;
            }
            Dispatch(request, reply);
            if (channel.SendFrame(reply.frame, Clock::now() + std::chrono::milliseconds(FrameTimeoutMilliseconds)) != IoResult::Ok)
            {
                break;
            }
        }
    }
    catch (const std::exception& e)
    {
        log.Log(3, "Connection ended by an error: {0}", e.what());
    }
    {
        std::lock_guard<std::mutex> lock(connection.mutex);
        channel.Release();
        ::close(connection.fd);
        connection.fd = -1;
    }
    connection.done.store(true);
}

void ServiceServer::Dispatch(const Frame& request, Reply& reply)
{
    std::vector<std::uint8_t>& response = reply.frame;
    RemotingWriter& writer = reply.writer;
    const Operation operation = request.header.operation;
    const std::uint32_t id = request.header.requestId;
    const auto fail = [&](std::uint32_t status, const String& message) {
        BeginFrame(response);
        WriteErrorPayload(writer, status, message);
        FinishFrame(response, FrameType::Error, operation, id);
    };
    if (request.header.type != FrameType::Request || operation == Operation::None)
    {
        fail(StatusCodes::BadDecodingError, "Only request frames of a known operation are accepted.");
        return;
    }
    BeginFrame(response);
    try
    {
        RemotingReader reader(request.payload.data(), request.payload.size());
        switch (operation)
        {
        case Operation::GetAllSoftwareInformation: {
            ExpectEnd(reader);
            const std::vector<SoftwareInformation> list = service.GetAllSoftwareInformation();
            WriteStatus(writer, StatusCodes::Good);
            WriteRecordList(writer, list);
            break;
        }
        case Operation::GetSoftwareInformation: {
            const auto kind = ReadKind(reader);
            RscString<512> name;
            ReadText(reader, name);
            ExpectEnd(reader);
            const auto status = service.GetSoftwareInformation(kind, name, reply.information);
            WriteStatus(writer, status);
            if (status == StatusCodes::Good)
            {
                WriteRecord(writer, reply.information);
            }
            break;
        }
        case Operation::GetInstallationState: {
            const auto kind = ReadKind(reader);
            RscString<512> name;
            ReadText(reader, name);
            ExpectEnd(reader);
            InstallationState state = InstallationState::Idle;
            RscString<512> message;
            const auto status = service.GetInstallationState(kind, name, state, message);
            WriteStatus(writer, status);
            if (status == StatusCodes::Good)
            {
                WriteInt32(writer, static_cast<std::int32_t>(state));
                WriteText(writer, message);
            }
            break;
        }
        case Operation::SetSoftwarePackage: {
            const auto kind = ReadKind(reader);
            RscString<512> name;
            RscString<512> package;
            ReadText(reader, name);
            ReadText(reader, package);
            ExpectEnd(reader);
            RscString<512> message;
            const auto status = service.SetSoftwarePackage(kind, name, package, message);
            WriteStatus(writer, status);
            WriteText(writer, message);
            break;
        }
        case Operation::GetPackageDirectory: {
            ExpectEnd(reader);
            RscString<512> directory;
            const auto status = service.GetPackageDirectory(directory);
            WriteStatus(writer, status);
            if (status == StatusCodes::Good)
            {
                WriteText(writer, directory);
            }
            break;
        }
        case Operation::RemoveSoftwarePackage:
        case Operation::StartInstallation:
        case Operation::ResumeInstallation: {
            const auto kind = ReadKind(reader);
            RscString<512> name;
            ReadText(reader, name);
            ExpectEnd(reader);
            const auto status = operation == Operation::RemoveSoftwarePackage ? service.RemoveSoftwarePackage(kind, name)
                                : operation == Operation::StartInstallation   ? service.StartInstallation(kind, name)
                                                                              : service.ResumeInstallation(kind, name);
            WriteStatus(writer, status);
            break;
        }
        case Operation::None:
            break;
        }
    }
    catch (const System::Rsc::RemotingException& e)
    {
        log.Log(3, "{0}: malformed request: {1}", GetOperationName(operation), e.GetMessage());
        fail(StatusCodes::BadDecodingError, Exception::Format("Malformed request: {0}", e.GetMessage()));
        return;
    }
    catch (const std::exception& e)
    {
        log.Log(3, "{0} failed: {1}", GetOperationName(operation), e.what());
        fail(StatusCodes::BadInternalError, Exception::Format("{0} failed: {1}", GetOperationName(operation), e.what()));
        return;
    }
    const std::size_t payloadSize = response.size() - FrameHeaderSize;
    if (payloadSize > MaxPayloadSize)
    {
        fail(StatusCodes::BadResponseTooLarge,
             Exception::Format("The response of {0} bytes exceeds the limit of {1} bytes.", payloadSize, MaxPayloadSize));
        return;
    }
    FinishFrame(response, FrameType::Response, operation, id);
}

} // namespace Zun::Services::SoftwareManager::Service
