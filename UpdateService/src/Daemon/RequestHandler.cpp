#include "Zun/UpdateService/Daemon/RequestHandler.hpp"

#include <filesystem>
#include <utility>

#include <fmt/format.h>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/Loggable.hpp"
#include "Zun/UpdateService/Daemon/ClientConnection.hpp"
#include "Zun/UpdateService/Daemon/EventHub.hpp"
#include "Zun/UpdateService/Daemon/JsonRecords.hpp"
#include "Zun/UpdateService/Protocol/Base64.hpp"
#include "Zun/UpdateService/Protocol/MessageFraming.hpp"
#include "Zun/UpdateService/Protocol/ProtocolError.hpp"
#include "Zun/UpdateService/Protocol/StatusNames.hpp"
#include "Zun/UpdateService/RequestValidation.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
{

using Protocol::ProtocolError;
using Protocol::StatusNames;
using System::Commons::ArgumentException;
using Json = nlohmann::json;

namespace
{

constexpr std::size_t MaxUploadFileNameBytes = 200;
struct Log : System::Commons::Diagnostics::Logging::Loggable<RequestHandler>
{
    using Loggable::log;
};

// A refusal of the service itself: the response carries `error`.
[[noreturn]] void Refuse(std::uint32_t status, std::string text)
{
    throw ProtocolError(status, String(std::move(text)));
}

[[noreturn]] void Invalid(const std::string& text)
{
    Refuse(StatusNames::BadInvalidArgument, text);
}

const Json* Find(const Json& params, const char* key)
{
    const auto it = params.find(key);
    return it == params.end() ? nullptr : &*it;
}

String Text(const Json& params, const char* key, bool required = true)
{
    const Json* value = Find(params, key);
    if (value == nullptr)
    {
        if (required)
        {
            Invalid(fmt::format("The parameter '{}' is missing.", key));
        }
        return String();
    }
    if (!value->is_string())
    {
        Invalid(fmt::format("The parameter '{}' must be a text.", key));
    }
    return String(value->get<std::string>());
}

String Name(const Json& params)
{
    String name = Text(params, "name");
    if (name.size() > 1023)
    {
        Invalid("The parameter 'name' is longer than 1023 bytes.");
    }
    RequestValidation::CheckComponentName(name);
    return name;
}

std::uint64_t Unsigned(const Json& params, const char* key, std::uint64_t fallback, bool required = false)
{
    const Json* value = Find(params, key);
    if (value == nullptr)
    {
        if (required)
        {
            Invalid(fmt::format("The parameter '{}' is missing.", key));
        }
        return fallback;
    }
    if (!value->is_number_integer() || *value < 0)
    {
        Invalid(fmt::format("The parameter '{}' must be an integer of at least 0.", key));
    }
    return value->get<std::uint64_t>();
}

std::vector<String> Patches(const Json& params)
{
    std::vector<String> patches;
    const Json* value = Find(params, "patchIdentifiers");
    if (value == nullptr)
    {
        return patches;
    }
    if (!value->is_array() || value->size() > 256)
    {
        Invalid("The parameter 'patchIdentifiers' must be an array of at most 256 texts.");
    }
    for (const Json& entry : *value)
    {
        if (!entry.is_string())
        {
            Invalid("The parameter 'patchIdentifiers' must be an array of texts.");
        }
        patches.emplace_back(entry.get<std::string>());
        RequestValidation::CheckText("patchIdentifiers", patches.back());
    }
    return patches;
}

Json Version(ServiceHost& host, const String& name, SoftwareVersionFileType fileType)
{
    SoftwareVersionType version;
    const StatusCode code = host.GetSoftwareVersion(name, fileType, version);
    return JsonRecords::VersionResult(code, version);
}

Json Versions(ServiceHost& host, const String& name)
{
    return {{"current", Version(host, name, SoftwareVersionFileType::Current)}, {"pending", Version(host, name, SoftwareVersionFileType::Pending)}};
}

bool Flag(const Json& params, const char* key)
{
    const Json* value = Find(params, key);
    if (value != nullptr && !value->is_boolean())
    {
        Invalid(fmt::format("The parameter '{}' must be true or false.", key));
    }
    return value != nullptr && value->get<bool>();
}

SoftwareVersionFileType FileType(const Json& params)
{
    const String text = Text(params, "fileType");
    if (text == "Current")
    {
        return SoftwareVersionFileType::Current;
    }
    if (text == "Pending")
    {
        return SoftwareVersionFileType::Pending;
    }
    if (text == "Fallback")
    {
        return SoftwareVersionFileType::Fallback;
    }
    Invalid("The parameter 'fileType' must be \"Current\", \"Pending\" or \"Fallback\".");
}

Json Response(std::uint32_t id, std::uint32_t status)
{
    return {{"type", "response"}, {"id", id}, {"status", status}, {"statusName", StatusNames::GetName(status)}};
}
} // namespace

RequestHandler::RequestHandler(ServiceHost& host, EventHub& events, RequestLimits limits)
    : host(host), events(events), limits(std::move(limits))
{
}

Json RequestHandler::Hello() const
{
    return {{"type", "hello"},
            {"protocol", Protocol::MessageFraming::ProtocolVersion},
            {"server", "zun-update-service 1.0.0"},
            {"instance", limits.instance},
            {"limits",
             {{"maxMessageBytes", Protocol::MessageFraming::MaxMessageBytes},
              {"maxChunkBytes", limits.maxChunkBytes},
              {"maxPackageBytes", limits.maxPackageBytes},
              {"maxQueuedMessages", limits.maxQueuedMessages}}}};
}

std::optional<Json> RequestHandler::Handle(ClientConnection& connection, std::uint32_t id, const Json& request)
{
    const Json* op = Find(request, "op");
    if (op == nullptr || !op->is_string())
    {
        Json response = Response(id, StatusNames::BadServiceUnsupported);
        response["error"] = "The request has no 'op' text.";
        return response;
    }
    static const Json noParams = Json::object();
    const Json* params = Find(request, "params");
    if (params != nullptr && !params->is_object())
    {
        Json response = Response(id, StatusNames::BadInvalidArgument);
        response["error"] = "The member 'params' must be an object.";
        return response;
    }
    const std::string& name = op->get_ref<const std::string&>();
    try
    {
        bool sent = false;
        StatusCode status = StatusNames::Good;
        Json result;
        if (name == "stageCommit")
        {
            result = StageCommit(connection, params != nullptr ? *params : noParams, status);
        }
        else
        {
            result = Run(connection, name, params != nullptr ? *params : noParams, sent, id);
            if (result.contains("$status"))
            {
                status = result["$status"].get<StatusCode>();
                result.erase("$status");
            }
        }
        if (sent)
        {
            return std::nullopt;
        }
        Json response = Response(id, status);
        if (status == StatusNames::Good || name == "stageCommit")
        {
            response["result"] = std::move(result);
        }
        return response;
    }
    catch (const ProtocolError& e)
    {
        Json response = Response(id, e.GetStatus());
        response["error"] = e.GetMessage();
        return response;
    }
    catch (const ArgumentException& e)
    {
        Json response = Response(id, StatusNames::BadInvalidArgument);
        response["error"] = e.GetMessage();
        return response;
    }
    catch (const std::exception& e)
    {
        Log::log.Log(3, "Request '{0}' failed: {1}", name, e.what());
        Json response = Response(id, StatusNames::BadInternalError);
        response["error"] = e.what();
        return response;
    }
}

Json RequestHandler::Run(ClientConnection& connection, const std::string& op, const Json& params, bool& sent, std::uint32_t id)
{
    // A module answer that is not Good travels as the response's status without `error`.
    const auto answer = [](StatusCode code, Json result = Json::object()) {
        result["$status"] = code;
        return result;
    };
    if (op == "list")
    {
        const bool versions = Flag(params, "versions");
        Json components = Json::array();
        for (const ComponentStatus& component : host.GetComponents())
        {
            Json entry = {{"name", static_cast<const std::string&>(component.name)}, {"status", JsonRecords::Status(component.status)}};
            if (versions)
            {
                entry.update(Versions(host, component.name));
            }
            components.push_back(std::move(entry));
        }
        return {{"components", std::move(components)}};
    }
    if (op == "getVersions")
    {
        const String name = Name(params);
        Json result = Versions(host, name);
        if (Flag(params, "fallback"))
        {
            result["fallback"] = Version(host, name, SoftwareVersionFileType::Fallback);
        }
        return result;
    }
    if (op == "getPackage")
    {
        const String name = Name(params);
        return answer(host.GetSoftwarePackage(name, FileType(params), Text(params, "package", false)));
    }
    if (op == "getUpdateBehavior")
    {
        const String name = Name(params);
        const String uri = Text(params, "manufacturerUri");
        const String revision = Text(params, "softwareRevision");
        UpdateBehavior behavior{};
        const StatusCode code = host.GetUpdateBehavior(name, uri, revision, Patches(params), behavior);
        return answer(code, code == StatusNames::Good ? JsonRecords::Behavior(behavior) : Json::object());
    }
    if (op == "stageBegin")
    {
        return StageBegin(connection, params);
    }
    if (op == "stageChunk")
    {
        return StageChunk(connection, params);
    }
    if (op == "stageAbort")
    {
        const std::uint64_t upload = Unsigned(params, "upload", 0, true);
        if (!connection.upload || connection.upload->GetId() != upload)
        {
            Refuse(StatusNames::BadNotFound, fmt::format("There is no upload {} on this connection.", upload));
        }
        connection.upload.reset();
        return Json::object();
    }
    if (op == "install")
    {
        const String name = Name(params);
        const String revision = Text(params, "softwareRevision");
        const String uri = Text(params, "manufacturerUri");
        const std::vector<String> patches = Patches(params);
        long long delay = 0;
        if (const Json* value = Find(params, "installationDelay"))
        {
            if (!value->is_number() || *value < 0 || *value > 9.2e18)
            {
                Invalid("The parameter 'installationDelay' must be a number of milliseconds of at least 0.");
            }
            delay = value->is_number_float() ? static_cast<long long>(value->get<double>()) : value->get<long long>();
        }
        return answer(host.InstallSoftwarePackage(name, revision, uri, patches, delay));
    }
    if (op == "resume")
    {
        return answer(host.ResumeInstall(Name(params)));
    }
    if (op == "getStatus")
    {
        SoftwareUpdateStatus status;
        const StatusCode code = host.GetStatus(Name(params), status);
        return answer(code, code == StatusNames::Good ? Json{{"status", JsonRecords::Status(status)}} : Json::object());
    }
    if (op == "setUpdateKey")
    {
        const String name = Name(params);
        return answer(host.SetUpdateKey(name, Text(params, "key")));
    }
    if (op == "getNotifications")
    {
        const std::uint64_t after = Unsigned(params, "afterId", 0);
        const std::uint64_t limit = Unsigned(params, "limit", 100);
        if (limit < 1 || limit > 500)
        {
            Invalid("The parameter 'limit' must be 1 to 500.");
        }
        const auto store = host.GetStore();
        const std::vector<StoredNotification> entries = store->GetNotifications(static_cast<std::int64_t>(std::min<std::uint64_t>(after, INT64_MAX)));
        Json notifications = Json::array();
        for (std::size_t i = 0; i < entries.size() && i < limit; ++i)
        {
            notifications.push_back(JsonRecords::Notification(entries[i]));
        }
        return {{"notifications", std::move(notifications)}, {"more", entries.size() > limit}};
    }
    if (op == "watch")
    {
        const bool watching = events.Watch(connection.shared_from_this(), [&](Json snapshot) {
            Json response = Response(id, StatusNames::Good);
            response["result"] = std::move(snapshot);
            connection.Send(response);
        });
        if (!watching)
        {
            Refuse(StatusNames::BadInvalidState, "This connection watches already.");
        }
        sent = true;
        return Json::object();
    }
    if (op == "unwatch")
    {
        events.Unwatch(connection);
        return Json::object();
    }
    Refuse(StatusNames::BadServiceUnsupported, fmt::format("Unknown operation '{}'.", op));
}

Json RequestHandler::StageBegin(ClientConnection& connection, const Json& params)
{
    const String name = Name(params);
    const std::uint64_t size = Unsigned(params, "size", 0, true);
    if (size < 1)
    {
        Invalid("The parameter 'size' must be at least 1.");
    }
    std::string sha256;
    if (Find(params, "sha256") != nullptr)
    {
        sha256 = Text(params, "sha256");
        if (sha256.size() != 64 || sha256.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        {
            Invalid("The parameter 'sha256' must be 64 hex digits.");
        }
    }
    std::string fileName = "package.tar";
    if (Find(params, "fileName") != nullptr)
    {
        fileName = std::filesystem::path(static_cast<const std::string&>(Text(params, "fileName"))).filename().string();
        RequestValidation::CheckText("fileName", fileName);
        if (fileName.empty() || fileName == "." || fileName == "..")
        {
            Invalid("The parameter 'fileName' names no file.");
        }
        // A file name takes at most 255 bytes, and the upload's own prefix may be put before it.
        if (fileName.size() > MaxUploadFileNameBytes)
        {
            Invalid(fmt::format("The parameter 'fileName' ends in a name of {} bytes; at most {} are allowed.", fileName.size(),
                                MaxUploadFileNameBytes));
        }
    }
    if (size > limits.maxPackageBytes)
    {
        Refuse(StatusNames::BadRequestTooLarge,
               fmt::format("The package of {} bytes is larger than the limit of {} bytes.", size, limits.maxPackageBytes));
    }
    if (connection.upload)
    {
        Refuse(StatusNames::BadInvalidState, fmt::format("Upload {} is still open on this connection.", connection.upload->GetId()));
    }
    bool registered = false;
    for (const ComponentStatus& component : host.GetComponents())
    {
        registered = registered || component.name == name;
    }
    if (!registered)
    {
        Refuse(StatusNames::BadNotFound, fmt::format("The component '{}' is not registered.", name));
    }
    String directory;
    const StatusCode code = host.GetPackageDirectory(directory);
    if (code != StatusNames::Good)
    {
        Refuse(code, "The software manager could not be asked where packages go.");
    }
    connection.upload = std::make_unique<PackageUpload>(limits.spoolDirectory, nextUpload++, name, size, sha256, fileName);
    return {{"upload", connection.upload->GetId()}, {"maxChunkBytes", limits.maxChunkBytes}};
}

Json RequestHandler::StageChunk(ClientConnection& connection, const Json& params)
{
    const std::uint64_t upload = Unsigned(params, "upload", 0, true);
    const std::uint64_t offset = Unsigned(params, "offset", 0, true);
    const String data = Text(params, "data");
    if (!connection.upload || connection.upload->GetId() != upload)
    {
        Refuse(StatusNames::BadNotFound, fmt::format("There is no upload {} on this connection.", upload));
    }
    std::vector<std::uint8_t> bytes;
    if (Protocol::Base64::DecodedSizeBound(data.size()) > limits.maxChunkBytes + 2u || !Protocol::Base64::Decode(data, bytes) ||
        bytes.empty() || bytes.size() > limits.maxChunkBytes)
    {
        Invalid(fmt::format("The parameter 'data' must be base64 of 1 to {} bytes.", limits.maxChunkBytes));
    }
    try
    {
        connection.upload->Write(offset, bytes);
    }
    catch (const ProtocolError& e)
    {
        if (e.GetStatus() == StatusNames::BadResourceUnavailable)
        {
            connection.upload.reset();
        }
        throw;
    }
    return {{"received", connection.upload->GetReceived()}};
}

Json RequestHandler::StageCommit(ClientConnection& connection, const Json& params, StatusCode& status)
{
    const std::uint64_t upload = Unsigned(params, "upload", 0, true);
    if (!connection.upload || connection.upload->GetId() != upload)
    {
        Refuse(StatusNames::BadNotFound, fmt::format("There is no upload {} on this connection.", upload));
    }
    std::unique_ptr<PackageUpload> ending;
    String directory;
    std::string reference;
    try
    {
        const StatusCode code = host.GetPackageDirectory(directory);
        if (code != StatusNames::Good)
        {
            Refuse(code, "The software manager could not be asked where packages go.");
        }
        reference = connection.upload->Place(directory);
    }
    catch (const ProtocolError& e)
    {
        // Incomplete: the upload stays open to receive the rest.
        if (e.GetStatus() != StatusNames::BadInvalidState)
        {
            connection.upload.reset();
        }
        throw;
    }
    ending = std::move(connection.upload);
    String message;
    status = host.SetSoftwarePackage(ending->GetComponent(), String(reference), message);
    return {{"message", static_cast<const std::string&>(message)}};
}

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
