// zun-update: the command line of the update service. Each command is one short conversation with
// the running service (zun-update-service) over its local API.
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Output.hpp"
#include "ServiceClient.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/UpdateService/Protocol/Base64.hpp"
#include "Zun/UpdateService/RequestValidation.hpp"

namespace
{

using namespace Zun::Services::SoftwareUpdate::UpdateService;
using namespace Zun::Services::SoftwareUpdate::UpdateService::Cli;
using Json = nlohmann::json;
using Response = ServiceClient::Response;

constexpr int ExitSuccess = 0;
constexpr int ExitBadStatus = 1;
constexpr int ExitRefused = 2;
constexpr int ExitUnavailable = 3;

constexpr const char* Footer = R"(The service's socket: --socket, else $ZUN_UPDATE_SOCKET, else /run/zun-update/service.sock (for
users other than root, $XDG_RUNTIME_DIR/zun-update/service.sock when their own service runs there).
Exit codes: 0 done; 1 a Bad status code or an installation that ended in Error;
2 usage error or refused input (nothing was sent); 3 the update service could not be reached.
For `versions`, a missing current or pending version (Bad_NotFound) is not an error while the other exists.)";

struct Request
{
    std::string name;
    std::string package;
    std::string revision;
    std::string uri;
    std::vector<std::string> patches;
    unsigned delayMilliseconds = 0;
    bool wait = false;
};

// Collects what one command reports: human lines go out at once, JSON at the end as one object.
class Output
{
public:
    explicit Output(bool json) : json(json) {}

    bool IsJson() const { return json; }
    Json& Object() { return object; }
    void Line(const std::string& text)
    {
        if (!json)
        {
            std::cout << text << "\n";
        }
    }
    void Finish()
    {
        if (json)
        {
            std::cout << object.dump(2) << "\n";
        }
        std::cout.flush();
    }

private:
    bool json;
    Json object = Json::object();
};

std::string Text(const Json& record, const char* member)
{
    const auto found = record.find(member);
    return found != record.end() && found->is_string() ? found->get<std::string>() : std::string();
}

// The outcome and, when the service itself refused, its reason.
std::string Outcome(const Response& response)
{
    return response.error.empty() ? response.statusName : fmt::format("{}: {}", response.statusName, response.error);
}

// Status code, and the service's reason when it gave one, into the JSON object.
int Report(Output& out, const Response& response)
{
    out.Object()["statusCode"] = response.statusName;
    if (!response.error.empty())
    {
        out.Object()["error"] = response.error;
    }
    return response.IsGood() ? ExitSuccess : ExitBadStatus;
}

Json NameParams(const Request& request)
{
    return Json{{"name", request.name}};
}

Json PackageParams(const Request& request)
{
    return Json{{"name", request.name}, {"softwareRevision", request.revision}, {"manufacturerUri", request.uri}, {"patchIdentifiers", request.patches}};
}

std::optional<std::string> Revision(const Json& versionResult)
{
    if (versionResult.value("status", 1u) != 0 || !versionResult.contains("version"))
    {
        return std::nullopt;
    }
    return Text(versionResult["version"], "softwareRevision");
}

int List(ServiceClient& client, Output& out)
{
    const Response response = client.Call("list", Json{{"versions", true}});
    if (!response.IsGood())
    {
        out.Line(Outcome(response));
        return Report(out, response);
    }
    const Json components = response.result.value("components", Json::array());
    std::size_t width = std::string("COMPONENT").size();
    for (const Json& component : components)
    {
        width = std::max(width, Text(component, "name").size());
    }
    out.Line(fmt::format("{:<{}}  {:<10}  {:<10}  {:<10}  {}", "COMPONENT", width, "STATE", "CURRENT", "PENDING", "MESSAGE"));
    Json list = Json::array();
    for (const Json& component : components)
    {
        const Json status = component.value("status", Json::object());
        const auto current = Revision(component.value("current", Json::object()));
        const auto pending = Revision(component.value("pending", Json::object()));
        const std::string name = Text(component, "name");
        out.Line(fmt::format("{:<{}}  {:<10}  {:<10}  {:<10}  {}", name, width, Text(status, "state"), current.value_or("-"), pending.value_or("-"),
                             Text(status, "message")));
        list.push_back(Json{{"name", name},
                            {"state", Text(status, "state")},
                            {"message", Text(status, "message")},
                            {"percentComplete", status.value("percent", 0)},
                            {"currentRevision", current ? Json(*current) : Json(nullptr)},
                            {"pendingRevision", pending ? Json(*pending) : Json(nullptr)}});
    }
    if (components.empty())
    {
        out.Line("(no components)");
    }
    out.Object()["components"] = list;
    return ExitSuccess;
}

int Versions(ServiceClient& client, Output& out, const Request& request)
{
    out.Object()["name"] = request.name;
    out.Line(request.name);
    const Response response = client.Call("getVersions", NameParams(request));
    if (!response.IsGood())
    {
        out.Line(fmt::format("  {}", Outcome(response)));
        return Report(out, response);
    }
    int exitCode = ExitSuccess;
    int found = 0;
    for (const char* label : {"current", "pending"})
    {
        const Json result = response.result.value(label, Json::object());
        const std::uint32_t code = result.value("status", 0x80010000u);
        const std::string codeName = Text(result, "statusName");
        const Json version = result.value("version", Json::object());
        Json entry = code == 0 ? VersionJson(version) : Json::object();
        entry["statusCode"] = codeName;
        out.Object()[label] = entry;
        if (code == 0)
        {
            ++found;
            out.Line(fmt::format("  {}: {}  ({}, {}, released {})", label, Text(version, "softwareRevision"), Text(version, "manufacturer"),
                                 Text(version, "manufacturerUri"), FormatTimestamp(version.value("releaseDate", Json()))));
        }
        else
        {
            out.Line(fmt::format("  {}: none ({})", label, codeName));
            if (codeName != "Bad_NotFound")
            {
                exitCode = ExitBadStatus;
            }
        }
    }
    return found == 0 ? ExitBadStatus : exitCode;
}

int Behavior(ServiceClient& client, Output& out, const Request& request)
{
    const Response response = client.Call("getUpdateBehavior", PackageParams(request));
    out.Object()["name"] = request.name;
    out.Object()["behavior"] = response.result.value("behavior", 0u);
    out.Object()["flags"] = response.result.value("flags", Json::array());
    out.Line(response.IsGood() ? fmt::format("{}: {}", response.statusName, BehaviorText(response.result)) : Outcome(response));
    return Report(out, response);
}

std::string Sha256Hex(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    EVP_DigestInit_ex(context, EVP_sha256(), nullptr);
    std::vector<char> buffer(1 << 16);
    while (in.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) || in.gcount() > 0)
    {
        EVP_DigestUpdate(context, buffer.data(), static_cast<std::size_t>(in.gcount()));
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(context, digest, &length);
    EVP_MD_CTX_free(context);
    std::string hex;
    for (unsigned int i = 0; i < length; ++i)
    {
        hex += fmt::format("{:02x}", digest[i]);
    }
    return hex;
}

// Sends the file's bytes: begin, chunks as large as the service takes, commit. A failure on the
// way aborts the upload, so the service keeps nothing of it.
int Stage(ServiceClient& client, Output& out, const Request& request, std::uintmax_t size)
{
    out.Object()["name"] = request.name;
    const std::string fileName = std::filesystem::path(request.package).filename().string();
    Response response = client.Call("stageBegin", Json{{"name", request.name}, {"size", size}, {"sha256", Sha256Hex(request.package)}, {"fileName", fileName}});
    if (response.IsGood())
    {
        const Json upload = response.result.value("upload", Json());
        const std::size_t chunkBytes = std::min<std::size_t>(response.result.value("maxChunkBytes", 65536u), 512u * 1024u);
        std::ifstream in(request.package, std::ios::binary);
        std::vector<std::uint8_t> buffer(std::max<std::size_t>(chunkBytes, 1));
        std::uintmax_t offset = 0;
        while (response.IsGood() && offset < size)
        {
            in.read(reinterpret_cast<char*>(buffer.data()), static_cast<std::streamsize>(std::min<std::uintmax_t>(buffer.size(), size - offset)));
            const auto got = static_cast<std::size_t>(in.gcount());
            if (got == 0)
            {
                response = Response{0x80040000u, "Bad_ResourceUnavailable", Json::object(), fmt::format("{} became shorter while it was sent", request.package)};
                break;
            }
            response = client.Call("stageChunk", Json{{"upload", upload}, {"offset", offset}, {"data", Protocol::Base64::Encode(buffer.data(), got)}});
            offset += got;
        }
        if (response.IsGood())
        {
            response = client.Call("stageCommit", Json{{"upload", upload}});
        }
        else if (offset < size)
        {
            client.Call("stageAbort", Json{{"upload", upload}});
        }
    }
    const std::string message = Text(response.result, "message");
    out.Object()["message"] = message.empty() ? response.error : message;
    out.Line(message.empty() ? Outcome(response) : fmt::format("{}: {}", response.statusName, message));
    return Report(out, response);
}

const Json* FindComponent(const Json& components, const std::string& name)
{
    for (const Json& component : components)
    {
        if (Text(component, "name") == name)
        {
            return &component;
        }
    }
    return nullptr;
}

// Starts the installation while watching, then follows the component's events until it leaves
// Installing. On a terminal the line is redrawn in place with the time taken; otherwise each
// change is one line.
int InstallAndWait(ServiceClient& client, Output& out, const Request& request)
{
    const Response watch = client.Call("watch");
    if (!watch.IsGood())
    {
        out.Line(fmt::format("Watching the components failed: {}", Outcome(watch)));
        return Report(out, watch);
    }
    const Json snapshot = watch.result.value("components", Json::array());
    const Json* known = FindComponent(snapshot, request.name);
    Json status = known != nullptr ? known->value("status", Json::object()) : Json::object();
    const bool terminal = !out.IsJson() && ::isatty(STDOUT_FILENO) == 1;
    const auto started = std::chrono::steady_clock::now();
    std::string shown;
    auto show = [&] {
        const std::string line = fmt::format("{}: {}", Text(status, "state"), Text(status, "message"));
        if (terminal)
        {
            const auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started);
            std::cout << "\r\033[K" << fmt::format("[{:>3}s] {}", elapsed.count(), line) << std::flush;
        }
        else if (line != shown)
        {
            out.Line(line);
            std::cout.flush();
        }
        shown = line;
    };

    Json params = PackageParams(request);
    params["installationDelay"] = request.delayMilliseconds;
    const std::uint32_t id = client.Send("install", params);
    std::optional<Response> answer;
    bool sawInstalling = false;
    for (;;)
    {
        Json message;
        if (!client.Next(message, terminal ? std::chrono::milliseconds(1000) : std::chrono::milliseconds(-1)))
        {
            show();
            continue;
        }
        const std::string type = Text(message, "type");
        if (type == "response" && message.value("id", 0u) == id)
        {
            answer = ServiceClient::ToResponse(message);
            out.Object()["installStatusCode"] = answer->statusName;
            if (!answer->IsGood())
            {
                out.Line(fmt::format("Installation refused: {}", Outcome(*answer)));
                out.Object()["state"] = Text(status, "state");
                out.Object()["message"] = Text(status, "message");
                out.Line(fmt::format("{}: {}", Text(status, "state"), Text(status, "message")));
                return Report(out, *answer);
            }
            out.Line(fmt::format("{}: installation of {} started", answer->statusName, request.revision));
        }
        else if (type == "event" && Text(message, "name") == request.name)
        {
            if (Text(message, "event") == "componentRemoved")
            {
                out.Line(fmt::format("{} was removed by the software manager", request.name));
                out.Object()["statusCode"] = "Bad_NotFound";
                return ExitBadStatus;
            }
            status = message.value("status", Json::object());
            sawInstalling = sawInstalling || Text(status, "state") == "Installing";
        }
        if (answer)
        {
            show();
            if (sawInstalling && Text(status, "state") != "Installing")
            {
                break;
            }
        }
    }
    // The last event may precede the module's final word on the message; ask it once more.
    const Response final = client.Call("getStatus", NameParams(request));
    if (final.IsGood())
    {
        status = final.result.value("status", status);
        show();
    }
    if (terminal)
    {
        std::cout << "\n";
    }
    out.Object()["statusCode"] = answer->statusName;
    out.Object()["state"] = Text(status, "state");
    out.Object()["message"] = Text(status, "message");
    return Text(status, "state") == "Idle" ? ExitSuccess : ExitBadStatus;
}

int Install(ServiceClient& client, Output& out, const Request& request)
{
    out.Object()["name"] = request.name;
    if (request.wait)
    {
        return InstallAndWait(client, out, request);
    }
    Json params = PackageParams(request);
    params["installationDelay"] = request.delayMilliseconds;
    const Response response = client.Call("install", params);
    out.Object()["installStatusCode"] = response.statusName;
    if (!response.IsGood())
    {
        out.Line(fmt::format("Installation refused: {}", Outcome(response)));
        const Response status = client.Call("getStatus", NameParams(request));
        if (status.IsGood())
        {
            const Json record = status.result.value("status", Json::object());
            out.Object()["state"] = Text(record, "state");
            out.Object()["message"] = Text(record, "message");
            out.Line(fmt::format("{}: {}", Text(record, "state"), Text(record, "message")));
        }
        return Report(out, response);
    }
    out.Line(fmt::format("{}: installation of {} started", response.statusName, request.revision));
    out.Object()["state"] = "Installing";
    out.Line(fmt::format("The update service follows the installation to its end; see `zun-update status \"{}\"` or `zun-update watch`.", request.name));
    return Report(out, response);
}

int Resume(ServiceClient& client, Output& out, const Request& request)
{
    const Response response = client.Call("resume", NameParams(request));
    out.Object()["name"] = request.name;
    out.Line(Outcome(response));
    return Report(out, response);
}

int Status(ServiceClient& client, Output& out, const Request& request)
{
    const Response response = client.Call("getStatus", NameParams(request));
    out.Object()["name"] = request.name;
    if (response.IsGood())
    {
        const Json status = response.result.value("status", Json::object());
        out.Object()["state"] = Text(status, "state");
        out.Object()["message"] = Text(status, "message");
        out.Object()["percentComplete"] = status.value("percent", 0);
        out.Line(fmt::format("{}: {}", request.name, Text(status, "state")));
        if (!Text(status, "message").empty())
        {
            out.Line(fmt::format("  message: {}", Text(status, "message")));
        }
    }
    else
    {
        const Response list = client.Call("list");
        const bool registered = FindComponent(list.result.value("components", Json::array()), request.name) != nullptr;
        out.Line(fmt::format("{}: {}{}", request.name, Outcome(response), registered ? "" : " (not a registered component; see `zun-update list`)"));
    }
    return Report(out, response);
}

int Notifications(ServiceClient& client, Output& out)
{
    Json list = Json::array();
    std::uint64_t afterId = 0;
    for (;;)
    {
        const Response response = client.Call("getNotifications", Json{{"afterId", afterId}, {"limit", 500}});
        if (!response.IsGood())
        {
            out.Line(Outcome(response));
            out.Object()["notifications"] = list;
            return Report(out, response);
        }
        for (const Json& notification : response.result.value("notifications", Json::array()))
        {
            list.push_back(NotificationJson(notification));
            out.Line(NotificationLine(notification));
            afterId = std::max<std::uint64_t>(afterId, notification.value("id", 0u));
        }
        if (!response.result.value("more", false))
        {
            break;
        }
    }
    if (list.empty())
    {
        out.Line("(no security notifications)");
    }
    out.Object()["notifications"] = list;
    return ExitSuccess;
}

// The components as a table redrawn in place on a terminal; JSON lines otherwise (the snapshot,
// then each event). Runs until the service closes the connection or the user interrupts.
int Watch(ServiceClient& client, bool json)
{
    const Response response = client.Call("watch");
    if (!response.IsGood())
    {
        std::cerr << "zun-update: watch: " << Outcome(response) << "\n";
        return ExitBadStatus;
    }
    const bool table = !json && ::isatty(STDOUT_FILENO) == 1;
    Json components = response.result.value("components", Json::array());
    std::string lastNotification = "(none since the watch began)";
    std::size_t drawn = 0;
    auto draw = [&] {
        std::vector<std::vector<std::string>> rows{{"COMPONENT", "STATE", "PERCENT", "MESSAGE"}};
        for (const Json& component : components)
        {
            const Json status = component.value("status", Json::object());
            rows.push_back({Text(component, "name"), Text(status, "state"), fmt::format("{}%", status.value("percent", 0)), Text(status, "message")});
        }
        std::vector<std::string> lines = Table(rows);
        lines.push_back("Last notification: " + lastNotification);
        if (drawn > 0)
        {
            std::cout << fmt::format("\033[{}A", drawn);
        }
        for (const std::string& line : lines)
        {
            std::cout << "\r\033[K" << line << "\n";
        }
        std::cout << "\033[J" << std::flush;
        drawn = lines.size();
    };
    if (table)
    {
        draw();
    }
    else
    {
        Json snapshot = response.result;
        snapshot["event"] = "snapshot";
        std::cout << snapshot.dump() << std::endl;
    }
    for (;;)
    {
        Json message;
        client.Next(message);
        if (Text(message, "type") != "event")
        {
            continue;
        }
        if (!table)
        {
            message.erase("type");
            std::cout << message.dump() << std::endl;
            continue;
        }
        const std::string event = Text(message, "event");
        const std::string name = Text(message, "name");
        if (event == "componentAdded")
        {
            components.push_back(Json{{"name", name}, {"status", message.value("status", Json::object())}});
        }
        else if (event == "componentRemoved")
        {
            for (auto it = components.begin(); it != components.end(); ++it)
            {
                if (Text(*it, "name") == name)
                {
                    components.erase(it);
                    break;
                }
            }
        }
        else if (event == "statusChanged")
        {
            for (Json& component : components)
            {
                if (Text(component, "name") == name)
                {
                    component["status"] = message.value("status", Json::object());
                }
            }
        }
        else if (event == "notificationSent")
        {
            lastNotification = NotificationLine(message.value("notification", Json::object()));
        }
        draw();
    }
}

// `lines`: the output is JSON lines (watch), so the error is one line too.
void ReportError(bool json, const std::string& kind, const std::string& message, bool lines = false)
{
    std::cerr << "zun-update: " << kind << ": " << message << "\n";
    if (json)
    {
        std::cout << Json{{"error", kind}, {"message", message}}.dump(lines ? -1 : 2) << "\n";
    }
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{"zun-update: the command line of the update service. Every command talks to the running service\n"
                 "(zun-update-service) over its local API.",
                 "zun-update"};
    app.footer(Footer);
    app.require_subcommand(1);
    app.fallthrough();
    app.failure_message(CLI::FailureMessage::help);

    std::string socketPath;
    bool json = false;
    unsigned timeoutMilliseconds = 60000;
    app.add_option("--socket", socketPath, "The update service's socket (default below)");
    app.add_option("--timeout-ms", timeoutMilliseconds, "How long to wait for one answer of the service")->check(CLI::Range(1u, 3600000u));
    app.add_flag("--json", json, "Print one JSON object instead of text (watch: one JSON object per line)");

    Request request;
    CLI::App* list = app.add_subcommand("list", "Components with their state, versions and status text");
    CLI::App* versions = app.add_subcommand("versions", "Current and pending version of a component");
    versions->add_option("name", request.name, "Component, e.g. \"Generic files / Sample files\"")->required();
    CLI::App* behavior = app.add_subcommand("behavior", "Update behaviour of the pending package");
    behavior->add_option("name", request.name, "Component")->required();
    behavior->add_option("--revision", request.revision, "Software revision of the pending package")->required();
    behavior->add_option("--uri", request.uri, "Manufacturer URI of the pending package")->required();
    behavior->add_option("--patch", request.patches, "Patch identifier (repeatable)");
    CLI::App* stage = app.add_subcommand("stage", "Send a package file to the service and stage it for a component");
    stage->add_option("name", request.name, "Component")->required();
    stage->add_option("file", request.package, "Package file (a tar made by `zun-software-manager pack`)")->required();
    CLI::App* install = app.add_subcommand("install", "Install the pending package");
    install->add_option("name", request.name, "Component")->required();
    install->add_option("--revision", request.revision, "Software revision of the pending package")->required();
    install->add_option("--uri", request.uri, "Manufacturer URI of the pending package")->required();
    install->add_option("--patch", request.patches, "Patch identifier (repeatable; the pending package must have none)");
    install->add_option("--delay-ms", request.delayMilliseconds, "Installation delay (the current module supports none)");
    install->add_flag("--wait", request.wait, "Show the progress until the component is Idle or in Error");
    CLI::App* resume = app.add_subcommand("resume", "Resume a failed installation and leave the Error state");
    resume->add_option("name", request.name, "Component")->required();
    CLI::App* status = app.add_subcommand("status", "State and status text of a component, brought in step with the software manager");
    status->add_option("name", request.name, "Component")->required();
    CLI::App* notifications = app.add_subcommand("notifications", "The audit log of security notifications");
    CLI::App* watch = app.add_subcommand("watch", "Follow the components live until interrupted");

    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError& e)
    {
        if (app.get_subcommands().empty() && !app.remaining().empty())
        {
            std::cerr << "zun-update: unknown command: " << app.remaining().front() << "\n";
        }
        const int code = app.exit(e);
        return code == 0 ? ExitSuccess : ExitRefused;
    }

    // Refused input is never sent, so it cannot change anything.
    std::uintmax_t packageSize = 0;
    try
    {
        if (!*list && !*notifications && !*watch)
        {
            RequestValidation::CheckComponentName(request.name);
        }
        if (*behavior || *install)
        {
            RequestValidation::CheckText("software revision", request.revision);
            RequestValidation::CheckText("manufacturer URI", request.uri);
            for (const std::string& patch : request.patches)
            {
                RequestValidation::CheckText("patch identifier", patch);
            }
        }
        if (*stage)
        {
            std::error_code error;
            packageSize = std::filesystem::is_regular_file(request.package, error) ? std::filesystem::file_size(request.package, error) : 0;
            if (error || !std::filesystem::is_regular_file(request.package) || !std::ifstream(request.package, std::ios::binary))
            {
                throw Zun::System::Commons::ArgumentException("file", Zun::Exception::Format("The package '{0}' is not a readable file.", request.package));
            }
            if (packageSize == 0)
            {
                throw Zun::System::Commons::ArgumentException("file", Zun::Exception::Format("The package '{0}' is empty.", request.package));
            }
        }
    }
    catch (const Zun::System::Commons::ArgumentException& e)
    {
        ReportError(json, "refused", e.GetMessage());
        return ExitRefused;
    }

    // A service that goes away mid-request is reported, not a signal that kills the command.
    std::signal(SIGPIPE, SIG_IGN);
    if (socketPath.empty())
    {
        socketPath = ServiceClient::DefaultSocketPath();
    }
    Output out(json);
    out.Object()["command"] = app.get_subcommands().front()->get_name();
    try
    {
        ServiceClient client(socketPath, std::chrono::milliseconds(timeoutMilliseconds));
        int exitCode = ExitSuccess;
        if (*list)
        {
            exitCode = List(client, out);
        }
        else if (*versions)
        {
            exitCode = Versions(client, out, request);
        }
        else if (*behavior)
        {
            exitCode = Behavior(client, out, request);
        }
        else if (*stage)
        {
            exitCode = Stage(client, out, request, packageSize);
        }
        else if (*install)
        {
            exitCode = Install(client, out, request);
        }
        else if (*resume)
        {
            exitCode = Resume(client, out, request);
        }
        else if (*status)
        {
            exitCode = Status(client, out, request);
        }
        else if (*notifications)
        {
            exitCode = Notifications(client, out);
        }
        else
        {
            return Watch(client, json);
        }
        out.Finish();
        return exitCode;
    }
    catch (const ServiceClient::Unavailable& e)
    {
        std::cout.flush();
        ReportError(json, "unavailable", e.what(), watch->parsed());
        return ExitUnavailable;
    }
    catch (const nlohmann::json::exception& e)
    {
        std::cout.flush();
        ReportError(json, "failed", fmt::format("an answer of the update service has an unexpected form: {}", e.what()));
        return ExitUnavailable;
    }
}
