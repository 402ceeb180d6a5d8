// zun-update: the update service's command line. Every invocation is one start of the update
// service: it loads the plug-in, whose first pass settles (and announces) what ended while no
// update service ran, runs one command and stops again.
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Output.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/LogManager.hpp"
#include "Zun/SoftwareUpdate/StatusCode.hpp"
#include "Zun/UpdateService/RequestValidation.hpp"
#include "Zun/UpdateService/ServiceHost.hpp"

namespace
{

using namespace Zun::Services::SoftwareUpdate;
using namespace Zun::Services::SoftwareUpdate::UpdateService;
using namespace Zun::Services::SoftwareUpdate::UpdateService::Cli;
using Json = nlohmann::json;

constexpr int ExitSuccess = 0;
constexpr int ExitBadStatus = 1;
constexpr int ExitRefused = 2;
constexpr int ExitUnavailable = 3;

constexpr const char* Footer = R"(Exit codes: 0 done; 1 a Bad status code or an installation that ended in Error;
2 usage error or refused input (nothing was changed); 3 the update service could not start.
For `versions`, a missing current or pending version (Bad_NotFound) is not an error while the other exists.)";

struct Request
{
    std::string name;
    std::string package;
    std::string revision;
    std::string uri;
    std::vector<std::string> patches;
    bool wait = false;
    unsigned intervalMilliseconds = 250;
};

std::vector<Zun::String> ToStrings(const std::vector<std::string>& texts)
{
    return std::vector<Zun::String>(texts.begin(), texts.end());
}

std::string CodeName(StatusCode code)
{
    return StatusCodes::ToString(code);
}

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

int ExitFor(StatusCode code)
{
    return StatusCodes::IsBad(code) ? ExitBadStatus : ExitSuccess;
}

std::optional<std::string> RevisionOf(ServiceHost& host, const std::string& name, SoftwareVersionFileType fileType)
{
    SoftwareVersionType version;
    if (host.GetSoftwareVersion(name, fileType, version) != StatusCodes::Good)
    {
        return std::nullopt;
    }
    return version.SoftwareRevision.ToString();
}

int List(ServiceHost& host, Output& out)
{
    const std::vector<ComponentStatus> components = host.GetComponents();
    Json list = Json::array();
    std::size_t width = std::string("COMPONENT").size();
    for (const ComponentStatus& component : components)
    {
        width = std::max(width, component.name.size());
    }
    out.Line(fmt::format("{:<{}}  {:<10}  {:<10}  {:<10}  {}", "COMPONENT", width, "STATE", "CURRENT", "PENDING", "MESSAGE"));
    for (const ComponentStatus& component : components)
    {
        const auto current = RevisionOf(host, component.name, SoftwareVersionFileType::Current);
        const auto pending = RevisionOf(host, component.name, SoftwareVersionFileType::Pending);
        const std::string state = StateName(component.status.InstallationState);
        const std::string message = component.status.ErrorMessage.ToString();
        out.Line(fmt::format("{:<{}}  {:<10}  {:<10}  {:<10}  {}", component.name, width, state, current.value_or("-"),
                             pending.value_or("-"), message));
        list.push_back(Json{{"name", component.name},
                            {"state", state},
                            {"message", message},
                            {"percentComplete", component.status.StatusWord1},
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

int Versions(ServiceHost& host, Output& out, const Request& request)
{
    out.Object()["name"] = request.name;
    out.Line(request.name);
    int exitCode = ExitSuccess;
    int found = 0;
    for (const auto& [fileType, label] : {std::pair{SoftwareVersionFileType::Current, "current"}, std::pair{SoftwareVersionFileType::Pending, "pending"}})
    {
        SoftwareVersionType version;
        const StatusCode code = host.GetSoftwareVersion(request.name, fileType, version);
        Json entry = code == StatusCodes::Good ? ToJson(version) : Json::object();
        entry["statusCode"] = CodeName(code);
        out.Object()[label] = entry;
        if (code == StatusCodes::Good)
        {
            ++found;
            out.Line(fmt::format("  {}: {}  ({}, {}, released {})", label, version.SoftwareRevision.ToString(), version.Manufacturer.ToString(),
                                 version.ManufacturerUri.ToString(), FormatTimestamp(version.ReleaseDate)));
        }
        else
        {
            out.Line(fmt::format("  {}: none ({})", label, CodeName(code)));
            if (code != StatusCodes::BadNotFound)
            {
                exitCode = ExitBadStatus;
            }
        }
    }
    return found == 0 ? ExitBadStatus : exitCode;
}

int Behavior(ServiceHost& host, Output& out, const Request& request)
{
    UpdateBehavior behavior = UpdateBehavior::None;
    const StatusCode code = host.GetUpdateBehavior(request.name, request.uri, request.revision, ToStrings(request.patches), behavior);
    out.Object()["name"] = request.name;
    out.Object()["statusCode"] = CodeName(code);
    out.Object()["behavior"] = static_cast<std::uint32_t>(behavior);
    out.Object()["flags"] = BehaviorFlags(behavior);
    out.Line(code == StatusCodes::Good ? fmt::format("{}: {}", CodeName(code), BehaviorText(behavior)) : CodeName(code));
    return ExitFor(code);
}

int Stage(ServiceHost& host, Output& out, const Request& request)
{
    Zun::String message;
    const StatusCode code = host.SetSoftwarePackage(request.name, request.package, message);
    out.Object()["name"] = request.name;
    out.Object()["statusCode"] = CodeName(code);
    out.Object()["message"] = message;
    out.Line(message.empty() ? CodeName(code) : fmt::format("{}: {}", CodeName(code), message));
    return ExitFor(code);
}

// Follows the installation through the module's GetStatus until it leaves Installing. On a
// terminal the line is redrawn in place; otherwise each change is one line.
int Wait(ServiceHost& host, Output& out, const Request& request)
{
    const bool terminal = !out.IsJson() && ::isatty(STDOUT_FILENO) == 1;
    std::string shown;
    const auto started = std::chrono::steady_clock::now();
    SoftwareUpdateStatus status;
    StatusCode code = StatusCodes::Good;
    for (;;)
    {
        code = host.GetStatus(request.name, status);
        if (code != StatusCodes::Good)
        {
            break;
        }
        const std::string line = fmt::format("{}: {}", StateName(status.InstallationState), status.ErrorMessage.ToString());
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
        if (status.InstallationState != UpdateInstallationState::Installing)
        {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(request.intervalMilliseconds));
    }
    if (terminal)
    {
        std::cout << "\n";
    }
    out.Object()["statusCode"] = CodeName(code);
    if (code != StatusCodes::Good)
    {
        out.Line(fmt::format("Status query failed: {}", CodeName(code)));
        return ExitBadStatus;
    }
    out.Object()["state"] = StateName(status.InstallationState);
    out.Object()["message"] = status.ErrorMessage.ToString();
    return status.InstallationState == UpdateInstallationState::Idle ? ExitSuccess : ExitBadStatus;
}

int Install(ServiceHost& host, Output& out, const Request& request)
{
    const StatusCode code = host.InstallSoftwarePackage(request.name, request.revision, request.uri, ToStrings(request.patches));
    out.Object()["name"] = request.name;
    out.Object()["installStatusCode"] = CodeName(code);
    out.Object()["statusCode"] = CodeName(code);
    if (code != StatusCodes::Good)
    {
        out.Line(fmt::format("Installation refused: {}", CodeName(code)));
        SoftwareUpdateStatus status;
        if (host.GetStatus(request.name, status) == StatusCodes::Good)
        {
            out.Object()["state"] = StateName(status.InstallationState);
            out.Object()["message"] = status.ErrorMessage.ToString();
            out.Line(fmt::format("{}: {}", StateName(status.InstallationState), status.ErrorMessage.ToString()));
        }
        return ExitBadStatus;
    }
    out.Line(fmt::format("{}: installation of {} started", CodeName(code), request.revision));
    if (!request.wait)
    {
        out.Object()["state"] = StateName(UpdateInstallationState::Installing);
        out.Line("The software manager goes on installing; the next start of the update service settles the result.");
        return ExitSuccess;
    }
    return Wait(host, out, request);
}

int Resume(ServiceHost& host, Output& out, const Request& request)
{
    const StatusCode code = host.ResumeInstall(request.name);
    out.Object()["name"] = request.name;
    out.Object()["statusCode"] = CodeName(code);
    out.Line(CodeName(code));
    return ExitFor(code);
}

int Status(ServiceHost& host, Output& out, const Request& request)
{
    SoftwareUpdateStatus status;
    const StatusCode code = host.GetStatus(request.name, status);
    out.Object()["name"] = request.name;
    out.Object()["statusCode"] = CodeName(code);
    if (code == StatusCodes::Good)
    {
        out.Object()["state"] = StateName(status.InstallationState);
        out.Object()["message"] = status.ErrorMessage.ToString();
        out.Object()["percentComplete"] = status.StatusWord1;
        out.Line(fmt::format("{}: {}", request.name, StateName(status.InstallationState)));
        if (!status.ErrorMessage.IsEmpty())
        {
            out.Line(fmt::format("  message: {}", status.ErrorMessage.ToString()));
        }
    }
    else
    {
        SoftwareUpdateStatus stored;
        const bool registered = host.GetStore()->GetStatus(request.name, stored);
        out.Line(fmt::format("{}: {}{}", request.name, CodeName(code), registered ? "" : " (not a registered component; see `zun-update list`)"));
    }
    return ExitFor(code);
}

int Notifications(ServiceHost& host, Output& out)
{
    Json list = Json::array();
    const auto notifications = host.GetStore()->GetNotifications();
    for (const StoredNotification& notification : notifications)
    {
        list.push_back(ToJson(notification));
        out.Line(NotificationLine(notification));
    }
    if (notifications.empty())
    {
        out.Line("(no security notifications)");
    }
    out.Object()["notifications"] = list;
    return ExitSuccess;
}

void ReportError(bool json, const std::string& kind, const std::string& message)
{
    std::cerr << "zun-update: " << kind << ": " << message << "\n";
    if (json)
    {
        std::cout << Json{{"error", kind}, {"message", message}}.dump(2) << "\n";
    }
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{"zun-update: the update service. Each invocation starts the update service once, which settles and announces\n"
                 "installations that ended while it was stopped, runs one command and stops.",
                 "zun-update"};
    app.footer(Footer);
    app.require_subcommand(1);
    app.fallthrough();
    app.failure_message(CLI::FailureMessage::help);

    ServiceHostOptions options;
    std::string storePath;
    std::string socketPath;
    std::string pluginPath;
    int logLevel = Zun::System::Commons::Diagnostics::Logging::LogManager::DefaultLevel;
    bool json = false;
    unsigned timeoutMilliseconds = options.timeoutMilliseconds;
    app.add_option("--store", storePath, "Status store (default $XDG_STATE_HOME/zun-update/store.db or ~/.local/state/zun-update/store.db)");
    app.add_option("--socket", socketPath, "Software manager socket (default: the software manager's default socket)");
    app.add_option("--plugin", pluginPath, "Updater plug-in (default: the one beside this program, else the one this build made)");
    app.add_option("--timeout-ms", timeoutMilliseconds, "Deadline of one call to the software manager")->check(CLI::Range(1u, 600000u));
    app.add_option("--log-level", logLevel, "Log level to standard error, 0 (off) to 7 (trace)")->check(CLI::Range(0, 7));
    app.add_flag("--json", json, "Print one JSON object instead of text");

    Request request;
    CLI::App* list = app.add_subcommand("list", "Components with their state, versions and status text");
    CLI::App* versions = app.add_subcommand("versions", "Current and pending version of a component");
    versions->add_option("name", request.name, "Component, e.g. \"Generic files / Sample files\"")->required();
    CLI::App* behavior = app.add_subcommand("behavior", "Update behaviour of the pending package");
    behavior->add_option("name", request.name, "Component")->required();
    behavior->add_option("--revision", request.revision, "Software revision of the pending package")->required();
    behavior->add_option("--uri", request.uri, "Manufacturer URI of the pending package")->required();
    behavior->add_option("--patch", request.patches, "Patch identifier (repeatable)");
    CLI::App* stage = app.add_subcommand("stage", "Hand a package of the software manager's incoming folder to a component");
    stage->add_option("name", request.name, "Component")->required();
    stage->add_option("package", request.package, "Package file name in the incoming folder")->required();
    CLI::App* install = app.add_subcommand("install", "Install the pending package");
    install->add_option("name", request.name, "Component")->required();
    install->add_option("--revision", request.revision, "Software revision of the pending package")->required();
    install->add_option("--uri", request.uri, "Manufacturer URI of the pending package")->required();
    install->add_option("--patch", request.patches, "Patch identifier (repeatable; the pending package must have none)");
    install->add_flag("--wait", request.wait, "Show the progress until the component is Idle or in Error");
    install->add_option("--interval-ms", request.intervalMilliseconds, "Polling interval of --wait")->check(CLI::Range(10u, 60000u));
    CLI::App* resume = app.add_subcommand("resume", "Resume a failed installation and leave the Error state");
    resume->add_option("name", request.name, "Component")->required();
    CLI::App* status = app.add_subcommand("status", "State and status text of a component, brought in step with the software manager");
    status->add_option("name", request.name, "Component")->required();
    CLI::App* notifications = app.add_subcommand("notifications", "The audit log of security notifications");

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

    Zun::System::Commons::Diagnostics::Logging::LogManager::SetAllLevels(logLevel);

    // Refused input never starts the service, so it cannot change the store.
    try
    {
        if (!*list && !*notifications)
        {
            RequestValidation::CheckComponentName(request.name);
        }
        if (*stage)
        {
            RequestValidation::CheckText("package reference", request.package);
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
    }
    catch (const Zun::System::Commons::ArgumentException& e)
    {
        ReportError(json, "refused", e.GetMessage());
        return ExitRefused;
    }

    options.storePath = storePath;
    options.socketPath = socketPath;
    options.pluginPath = pluginPath;
    options.timeoutMilliseconds = timeoutMilliseconds;
    ServiceHost host(options);
    try
    {
        host.Start();
    }
    catch (const std::exception& e)
    {
        ReportError(json, "unavailable", fmt::format("the update service could not start: {}", e.what()));
        return ExitUnavailable;
    }

    Output out(json);
    const auto announcements = host.GetAnnouncements();
    Json announced = Json::array();
    for (const StoredNotification& notification : announcements)
    {
        announced.push_back(ToJson(notification));
        out.Line("Announced: " + NotificationLine(notification));
    }
    out.Object()["command"] = app.get_subcommands().front()->get_name();
    out.Object()["announcements"] = announced;

    int exitCode = ExitSuccess;
    try
    {
        if (*list)
        {
            exitCode = List(host, out);
        }
        else if (*versions)
        {
            exitCode = Versions(host, out, request);
        }
        else if (*behavior)
        {
            exitCode = Behavior(host, out, request);
        }
        else if (*stage)
        {
            exitCode = Stage(host, out, request);
        }
        else if (*install)
        {
            exitCode = Install(host, out, request);
        }
        else if (*resume)
        {
            exitCode = Resume(host, out, request);
        }
        else if (*status)
        {
            exitCode = Status(host, out, request);
        }
        else
        {
            exitCode = Notifications(host, out);
        }
    }
    catch (const std::exception& e)
    {
        out.Finish();
        ReportError(json, "failed", e.what());
        host.Stop();
        return ExitUnavailable;
    }
    out.Finish();
    host.Stop();
    return exitCode;
}
