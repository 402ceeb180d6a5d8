#include "Zun/SoftwareManager/SoftwareManagerServiceProxy.hpp"

#include <atomic>
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

// One connection with everything a call needs, kept for the next call so that a call in the steady
// state allocates nothing: the request is built in place, the answer read into reused storage.
struct Connection
{
    Connection() : writer(request), reader(nullptr, 0) {}

    SocketChannel channel;
    std::vector<std::uint8_t> request;
    RemotingWriter writer;
    Frame response;
    RemotingReader reader;
    // A record is read here first, so that a fault found after it leaves the caller's record alone.
    SoftwareInformation record;
};

void ClearLists(Manifest& manifest)
{
    manifest.TextList.clear();
    manifest.Tags.clear();
}

void ClearLists(SoftwareInformation& information)
{
    ClearLists(information.CurrentManifest);
    ClearLists(information.PendingManifest);
}

// The lists of a record, which change hands rather than being copied.
struct Lists
{
    std::vector<System::Rsc::RscString<512>> currentTexts;
    std::vector<Tag> currentTags;
    std::vector<System::Rsc::RscString<512>> pendingTexts;
    std::vector<Tag> pendingTags;
};

Lists TakeLists(SoftwareInformation& information)
{
    return Lists{std::move(information.CurrentManifest.TextList), std::move(information.CurrentManifest.Tags),
                 std::move(information.PendingManifest.TextList), std::move(information.PendingManifest.Tags)};
}

void PutLists(SoftwareInformation& information, Lists&& lists)
{
    information.CurrentManifest.TextList = std::move(lists.currentTexts);
    information.CurrentManifest.Tags = std::move(lists.currentTags);
    information.PendingManifest.TextList = std::move(lists.pendingTexts);
    information.PendingManifest.Tags = std::move(lists.pendingTags);
}

// Gives `from`'s content to `to`: the lists change hands, the fixed-size fields are copied, and
// `from` gets `to`'s former lists to read into next time. No list is copied, nothing is allocated.
void HandOver(SoftwareInformation& from, SoftwareInformation& to)
{
    Lists spare = TakeLists(to);
    Lists fresh = TakeLists(from);
    to = from;
    PutLists(to, std::move(fresh));
    PutLists(from, std::move(spare));
}

struct NoCommit
{
    void operator()(Connection& /*connection*/) const {}
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
        idle.reserve(MaxIdleConnections);
    }

    // An idle connection, or a new one that is not connected yet.
    std::unique_ptr<Connection> Take()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (!idle.empty())
            {
                std::unique_ptr<Connection> connection = std::move(idle.back());
                idle.pop_back();
                return connection;
            }
        }
        return std::make_unique<Connection>();
    }

    void Give(std::unique_ptr<Connection> connection)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (idle.size() < MaxIdleConnections)
        {
            idle.push_back(std::move(connection));
        }
    }

    CallResult Failure(IoResult result, Operation operation) const
    {
        CallResult failure;
        if (result == IoResult::Timeout)
        {
            failure.status = StatusCodes::BadTimeout;
            failure.message = Exception::Format("The software manager service at '{0}' did not answer {1} within {2} ms.",
                                                endpoint.socketPath, GetOperationName(operation), endpoint.timeoutMilliseconds);
        }
        else
        {
            failure.status = StatusCodes::BadNoCommunication;
            failure.message = Exception::Format("The software manager service at '{0}' cannot be reached.", endpoint.socketPath);
        }
        log.Log(5, "{0} failed: {1}", GetOperationName(operation), failure.message);
        return failure;
    }

    // Sends one request and waits for its answer. On Good, `decode` has read the response payload
    // and, once the whole payload has been found right, `commit` has taken the connection's record.
    template <class Encode, class Decode, class Commit = NoCommit>
    CallResult Call(Operation operation, const Encode& encode, const Decode& decode, const Commit& commit = Commit())
    {
        try
        {
            return CallUnchecked(operation, encode, decode, commit);
        }
        catch (const System::Rsc::RemotingException& e)
        {
            log.Log(3, "{0}: malformed response: {1}", GetOperationName(operation), e.GetMessage());
            return CallResult{StatusCodes::BadDecodingError,
                              Exception::Format("Malformed response from the software manager service: {0}", e.GetMessage())};
        }
        catch (const std::exception& e)
        {
            log.Log(3, "{0} failed: {1}", GetOperationName(operation), e.what());
            return CallResult{StatusCodes::BadNoCommunication,
                              Exception::Format("The software manager service cannot be reached: {0}", e.what())};
        }
    }

    template <class Encode, class Decode, class Commit>
    CallResult CallUnchecked(Operation operation, const Encode& encode, const Decode& decode, const Commit& commit)
    {
        // A connection that fails in any way is closed with this object, never pooled again.
        std::unique_ptr<Connection> connection = Take();
        std::vector<std::uint8_t>& request = connection->request;
        BeginFrame(request);
        encode(connection->writer);
        const std::uint32_t requestId =
            nextRequestId.fetch_add(1, std::memory_order_relaxed) | 1u; // never 0, which marks connection-level errors
        FinishFrame(request, FrameType::Request, operation, requestId);
        const Deadline deadline = Clock::now() + std::chrono::milliseconds(endpoint.timeoutMilliseconds);

        SocketChannel& channel = connection->channel;
        const bool reused = channel.IsOpen();
        IoResult result = reused ? IoResult::Ok : SocketChannel::Connect(endpoint.socketPath, deadline, channel);
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

        Frame& response = connection->response;
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
        CallResult answer;
        if (response.header.type == FrameType::Error)
        {
            const ErrorPayload error = DecodeErrorPayload(response.payload);
            answer = CallResult{error.status == StatusCodes::Good ? StatusCodes::BadUnexpectedError : error.status, error.message};
        }
        else
        {
            RemotingReader& reader = connection->reader;
            reader.Reset(response.payload.data(), response.payload.size());
            answer.status = ReadStatus(reader);
            if (answer.status == StatusCodes::Good)
            {
                decode(reader, *connection);
            }
            else if (reader.GetRemaining() != 0)
            {
                // A refusal may carry the service's message in place of the results.
                System::Rsc::RscString<512> text;
                ReadText(reader, text);
                answer.message = text.ToString();
            }
            ExpectEnd(reader);
            if (answer.status == StatusCodes::Good)
            {
                commit(*connection);
            }
        }
        // Bytes beyond the answer are nobody's: such a connection is not used again.
        if (channel.GetBuffered() == 0)
        {
            Give(std::move(connection));
        }
        return answer;
    }

    System::Rsc::RscEndpoint endpoint;
    std::mutex mutex;
    std::vector<std::unique_ptr<Connection>> idle;
    std::atomic<std::uint32_t> nextRequestId{1};
};

SoftwareManagerServiceProxy::SoftwareManagerServiceProxy(System::Rsc::RscEndpoint endpoint)
    : impl(std::make_unique<Impl>(std::move(endpoint)))
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
        Operation::GetAllSoftwareInformation, [](RemotingWriter&) {},
        [&list](RemotingReader& reader, Connection&) { ReadRecordList(reader, list); });
    if (result.status != StatusCodes::Good)
    {
        throw System::Commons::InvalidOperationException("GetAllSoftwareInformation failed with status 0x{0:08X}: {1}", result.status,
                                                         result.message);
    }
    return list;
}

ServiceStatusCode SoftwareManagerServiceProxy::GetSoftwareInformation(SoftwareKind kind, const Name& name, SoftwareInformation& information)
{
    return impl
        ->Call(
            Operation::GetSoftwareInformation,
            [&](RemotingWriter& writer) {
                WriteKind(writer, kind);
                WriteText(writer, name);
            },
            [](RemotingReader& reader, Connection& connection) {
                // The connection's record keeps its lists' storage from call to call.
                ClearLists(connection.record);
                ReadRecord(reader, connection.record);
            },
            [&](Connection& connection) { HandOver(connection.record, information); })
        .status;
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
        [&](RemotingReader& reader, Connection&) {
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

ServiceStatusCode SoftwareManagerServiceProxy::SetSoftwarePackage(SoftwareKind kind, const Name& name,
                                                                  const System::Rsc::RscString<512>& package,
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
        [&](RemotingReader& reader, Connection&) { ReadText(reader, receivedMessage); });
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
            [](RemotingReader&, Connection&) {})
        .status;
}

ServiceStatusCode SoftwareManagerServiceProxy::GetPackageDirectory(System::Rsc::RscString<512>& directory)
{
    System::Rsc::RscString<512> received;
    const CallResult result = impl->Call(
        Operation::GetPackageDirectory, [](RemotingWriter&) {}, [&](RemotingReader& reader, Connection&) { ReadText(reader, received); });
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
            [](RemotingReader&, Connection&) {})
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
            [](RemotingReader&, Connection&) {})
        .status;
}

} // namespace Zun::Services::SoftwareManager::Services::Internal
