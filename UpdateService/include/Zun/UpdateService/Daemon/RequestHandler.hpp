// The operations of the local API: checks each request's parameters, runs it through the service
// host (and so the updater module) and builds the response.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "Zun/Commons/Export.hpp"
#include "Zun/UpdateService/ServiceHost.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
{

class ClientConnection;
class EventHub;

struct RequestLimits
{
    std::uint64_t maxPackageBytes = 256u * 1024u * 1024u;
    std::uint32_t maxChunkBytes = 512u * 1024u;
    std::size_t maxQueuedMessages = 1024;
    std::string spoolDirectory; // uploads are spooled here
    std::string instance;       // differs for every start
};

class ZUN_EXPORT RequestHandler
{
public:
    RequestHandler(ServiceHost& host, EventHub& events, RequestLimits limits);

    // The service's hello.
    nlohmann::json Hello() const;
    // The response to one request, or nothing when it has been queued already (watch). Never throws
    // for a request's fault: that is the response's status and `error`.
    std::optional<nlohmann::json> Handle(ClientConnection& connection, std::uint32_t id, const nlohmann::json& request);

private:
    nlohmann::json Run(ClientConnection& connection, const std::string& op, const nlohmann::json& params, bool& sent,
                       std::uint32_t id);
    nlohmann::json StageBegin(ClientConnection& connection, const nlohmann::json& params);
    nlohmann::json StageChunk(ClientConnection& connection, const nlohmann::json& params);
    nlohmann::json StageCommit(ClientConnection& connection, const nlohmann::json& params, StatusCode& status);

    ServiceHost& host;
    EventHub& events;
    RequestLimits limits;
    std::atomic<std::uint64_t> nextUpload{1};
};

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
