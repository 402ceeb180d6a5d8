#include "Zun/SoftwareManager/SoftwareManagerServiceProxy.hpp"

#include <atomic>
#include <functional>
#include <mutex>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/Loggable.hpp"
#include "Zun/Rsc/RemotingException.hpp"
#include "Zun/SoftwareManager/DefaultPaths.hpp"
#include "Zun/SoftwareManager/FrameCodec.hpp"
#include "Zun/SoftwareManager/SocketChannel.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal
{

using System::Rsc::RemotingReader;
using System::Rsc::RemotingWriter;
using namespace Transport;

namespace
{

// Connections kept open between calls; more concurrent callers open extra ones and close them after.
constexpr std::size_t MaxIdleConnections = 4;

struct CallResult
{
    ServiceStatusCode status = StatusCodes::Good;
    String message;
};

} // namespace

struct SoftwareManagerServiceProxy::Impl : System::Commons::Diagnostics::Logging::Loggable<SoftwareManagerServiceProxy>
{
    explicit Impl(System::Rsc::RscEndpoint endpointIn) : endpoint(std::move(endpointIn))
    {
        if (endpoint.socketPath.empty())
        {
            endpoint.socketPath = GetDefaultSocketPath();
        }
    }

    // A pooled connection that is still usable, or a new one; `reused` tells which.
    IoResult Take(Deadline deadline, SocketChannel& channel, bool& reused)
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            while (!idle.empty())
            {
                channel = std::move(idle.back());
                idle.pop_back();
                if (!channel.IsStale())
                {
                    reused = true;
                    return IoResult::Ok;
                }
                channel.Close();
            }
        }
        reused = false;
        return SocketChannel::Connect(endpoint.socketPath, deadline, channel);
    }

    void Give(SocketChannel&& channel)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (idle.size() < MaxIdleConnections)
        {
            idle.push_back(std::move(channel));
        }
    }

    CallResult Failure(IoResult result, Operation operation) const
    {
        CallResult failure;
        if (result == IoResult::Timeout)
        {
            failure.status = StatusCodes::BadTimeout;
            failure.message = Exception::Format("The software manager service at '{0}' did not answer {1} within {2} ms.", endpoint.socketPath,
                                                GetOperationName(operation), endpoint.timeoutMilliseconds);
        }
        else
        {
            failure.status = StatusCodes::BadNoCommunication;
            failure.message = Exception::Format("The software manager service at '{0}' cannot be reached.", endpoint.socketPath);
        }
        log.Log(5, "{0} failed: {1}", GetOperationName(operation), failure.message);
        return failure;
    }

    // Sends one request and waits for its answer. On Good, `decode` has read the response payload.
    CallResult Call(Operation operation, const std::function<void(RemotingWriter&)>& encode, const std::function<void(RemotingReader&)>& decode)
    {
        try
        {
            return CallUnchecked(operation, encode, decode);
        }
        catch (const System::Rsc::RemotingException& e)
        {
            log.Log(3, "{0}: malformed response: {1}", GetOperationName(operation), e.GetMessage());
            return CallResult{StatusCodes::BadDecodingError, Exception::Format("Malformed response from the software manager service: {0}", e.GetMessage())};
        }
        catch (const std::exception& e)
        {
            log.Log(3, "{0} failed: {1}", GetOperationName(operation), e.what());
            return CallResult{StatusCodes::BadNoCommunication, Exception::Format("The software manager service cannot be reached: {0}", e.what())};
        }
    }

    CallResult CallUnchecked(Operation operation, const std::function<void(RemotingWriter&)>& encode,
                             const std::function<void(RemotingReader&)>& decode)
    {
        std::vector<std::uint8_t> payload;
        {
            RemotingWriter writer(payload);
            encode(writer);
        }
        const std::uint32_t requestId = nextRequestId.fetch_add(1) | 1u; // never 0, which marks connection-level errors
        const std::vector<std::uint8_t> request = EncodeFrame(FrameType::Request, operation, requestId, payload);
        const Deadline deadline = Clock::now() + std::chrono::milliseconds(endpoint.timeoutMilliseconds);

        SocketChannel channel;
        bool reused = false;
        IoResult result = Take(deadline, channel, reused);
        if (result == IoResult::Ok)
        {
            result = channel.SendFrame(request, deadline);
            if (result == IoResult::Closed && reused)
            {
                // The service went away since this connection was last used; the request never left.
                result = SocketChannel::Connect(endpoint.socketPath, deadline, channel);
                if (result == IoResult::Ok)
                {
                    result = channel.SendFrame(request, deadline);
                }
            }
        }
        if (result != IoResult::Ok)
        {
            return Failure(result, operation);
        }

        Frame response;
        result = channel.ReceiveFrame(response, deadline, deadline);
        if (result != IoResult::Ok)
        {
            return Failure(result, operation);
        }
        if (response.header.type == FrameType::Error && response.header.requestId == 0)
        {
            // The service refused the connection itself (for example the peer's user id).
            const ErrorPayload error = DecodeErrorPayload(response.payload);
            log.Log(3, "{0}: connection refused by the service: {1}", GetOperationName(operation), error.message);
            return CallResult{error.status == StatusCodes::Good ? StatusCodes::BadUnexpectedError : error.status, error.message};
        }
        if (response.header.requestId != requestId || response.header.operation != operation || response.header.type == FrameType::Request)
        {
            throw System::Rsc::RemotingException("Response {0} of {1} does not answer request {2} of {3}.", response.header.requestId,
                                                 GetOperationName(response.header.operation), requestId, GetOperationName(operation));
        }
        if (response.header.type == FrameType::Error)
        {
            const ErrorPayload error = DecodeErrorPayload(response.payload);
            Give(std::move(channel));
            return CallResult{error.status == StatusCodes::Good ? StatusCodes::BadUnexpectedError : error.status, error.message};
        }
        RemotingReader reader(response.payload.data(), response.payload.size());
        CallResult answer;
        answer.status = ReadStatus(reader);
        if (answer.status == StatusCodes::Good)
        {
            decode(reader);
        }
        else if (reader.GetRemaining() != 0)
        {
            // A refusal may carry the service's message in place of the results.
            System::Rsc::RscString<512> text;
            ReadText(reader, text);
            answer.message = text.ToString();
        }
        ExpectEnd(reader);
        Give(std::move(channel));
        return answer;
    }

    System::Rsc::RscEndpoint endpoint;
    std::mutex mutex;
    std::vector<SocketChannel> idle;
    std::atomic<std::uint32_t> nextRequestId{1};
};

SoftwareManagerServiceProxy::SoftwareManagerServiceProxy(System::Rsc::RscEndpoint endpoint) : impl(std::make_unique<Impl>(std::move(endpoint)))
{
}

SoftwareManagerServiceProxy::~SoftwareManagerServiceProxy() = default;

const System::Rsc::RscEndpoint& SoftwareManagerServiceProxy::GetEndpoint() const noexcept
{
    return impl->endpoint;
}

std::vector<SoftwareInformation> SoftwareManagerServiceProxy::GetAllSoftwareInformation()
{
    std::vector<SoftwareInformation> list;
    const CallResult result = impl->Call(
        Operation::GetAllSoftwareInformation, [](RemotingWriter&) {}, [&list](RemotingReader& reader) { ReadRecordList(reader, list); });
    if (result.status != StatusCodes::Good)
    {
        throw System::Commons::InvalidOperationException("GetAllSoftwareInformation failed with status 0x{0:08X}: {1}", result.status, result.message);
    }
    return list;
}

ServiceStatusCode SoftwareManagerServiceProxy::GetSoftwareInformation(SoftwareKind kind, const Name& name, SoftwareInformation& information)
{
    SoftwareInformation received;
    const CallResult result = impl->Call(
        Operation::GetSoftwareInformation,
        [&](RemotingWriter& writer) {
            WriteKind(writer, kind);
            WriteText(writer, name);
        },
        [&](RemotingReader& reader) { ReadRecord(reader, received); });
    if (result.status == StatusCodes::Good)
    {
        information = std::move(received);
    }
    return result.status;
}

ServiceStatusCode SoftwareManagerServiceProxy::GetInstallationState(SoftwareKind kind, const Name& name, InstallationState& state,
                                                                    System::Rsc::RscString<512>& message)
{
    std::int32_t receivedState = 0;
    System::Rsc::RscString<512> receivedMessage;
    const CallResult result = impl->Call(
        Operation::GetInstallationState,
        [&](RemotingWriter& writer) {
            WriteKind(writer, kind);
            WriteText(writer, name);
        },
        [&](RemotingReader& reader) {
            receivedState = ReadInt32(reader);
            ReadText(reader, receivedMessage);
        });
    if (result.status == StatusCodes::Good)
    {
        state = static_cast<InstallationState>(receivedState);
        message = receivedMessage;
    }
    return result.status;
}

ServiceStatusCode SoftwareManagerServiceProxy::SetSoftwarePackage(SoftwareKind kind, const Name& name, const System::Rsc::RscString<512>& package,
                                                                  System::Rsc::RscString<512>& message)
{
    System::Rsc::RscString<512> receivedMessage;
    const CallResult result = impl->Call(
        Operation::SetSoftwarePackage,
        [&](RemotingWriter& writer) {
            WriteKind(writer, kind);
            WriteText(writer, name);
            WriteText(writer, package);
        },
        [&](RemotingReader& reader) { ReadText(reader, receivedMessage); });
    if (result.status == StatusCodes::Good)
    {
        message = receivedMessage;
    }
    else
    {
        // The update service shows this text on failure too; cut rather than lose it.
        message = System::Rsc::RscString<512>();
        SecureStrncpy(message.GetBuffer(), 512, result.message.data(), result.message.size() < 511 ? result.message.size() : 511);
    }
    return result.status;
}

ServiceStatusCode SoftwareManagerServiceProxy::RemoveSoftwarePackage(SoftwareKind kind, const Name& name)
{
    return impl
        ->Call(
            Operation::RemoveSoftwarePackage,
            [&](RemotingWriter& writer) {
                WriteKind(writer, kind);
                WriteText(writer, name);
            },
            [](RemotingReader&) {})
        .status;
}

ServiceStatusCode SoftwareManagerServiceProxy::GetPackageDirectory(System::Rsc::RscString<512>& directory)
{
    System::Rsc::RscString<512> received;
    const CallResult result = impl->Call(
        Operation::GetPackageDirectory, [](RemotingWriter&) {}, [&](RemotingReader& reader) { ReadText(reader, received); });
    if (result.status == StatusCodes::Good)
    {
        directory = received;
    }
    return result.status;
}

ServiceStatusCode SoftwareManagerServiceProxy::StartInstallation(SoftwareKind kind, const Name& name)
{
    return impl
        ->Call(
            Operation::StartInstallation,
            [&](RemotingWriter& writer) {
                WriteKind(writer, kind);
                WriteText(writer, name);
            },
            [](RemotingReader&) {})
        .status;
}

ServiceStatusCode SoftwareManagerServiceProxy::ResumeInstallation(SoftwareKind kind, const Name& name)
{
    return impl
        ->Call(
            Operation::ResumeInstallation,
            [&](RemotingWriter& writer) {
                WriteKind(writer, kind);
                WriteText(writer, name);
            },
            [](RemotingReader&) {})
        .status;
}

} // namespace Zun::Services::SoftwareManager::Services::Internal
