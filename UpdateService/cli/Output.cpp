#include "Output.hpp"

#include <ctime>
#include <sstream>

#include <fmt/format.h>

#include "Zun/Nm/Severity.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Cli
{

namespace
{
const char* SeverityName(std::uint32_t severity)
{
    switch (static_cast<System::Nm::Severity>(severity))
    {
    case System::Nm::Severity::Verbose:
        return "Verbose";
    case System::Nm::Severity::Info:
        return "Info";
    case System::Nm::Severity::Warning:
        return "Warning";
    case System::Nm::Severity::Error:
        return "Error";
    case System::Nm::Severity::Critical:
        return "Critical";
    }
    return "Unknown";
}
} // namespace

std::string StateName(UpdateInstallationState state)
{
    std::ostringstream text;
    text << state;
    return text ? text.str() : std::to_string(static_cast<int>(state));
}

std::string FormatTimestamp(const DateTime& timestamp)
{
    if (timestamp.GetTicks() == 0)
    {
        return std::string();
    }
    const std::int64_t milliseconds = timestamp.ToUnixTimeMilliseconds();
    std::time_t seconds = static_cast<std::time_t>(milliseconds / 1000 - (milliseconds % 1000 < 0 ? 1 : 0));
    std::tm parts{};
    if (::gmtime_r(&seconds, &parts) == nullptr)
    {
        return std::string();
    }
    char buffer[32];
    const std::size_t length = std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return std::string(buffer, length);
}

std::vector<std::string> BehaviorFlags(UpdateBehavior behavior)
{
    static const std::pair<UpdateBehavior, const char*> names[] = {
        {UpdateBehavior::KeepsParameters, "KeepsParameters"}, {UpdateBehavior::WillDisconnect, "WillDisconnect"},
        {UpdateBehavior::RequiresPowerCycle, "RequiresPowerCycle"}, {UpdateBehavior::WillReboot, "WillReboot"},
        {UpdateBehavior::NeedsPreparation, "NeedsPreparation"}};
    std::vector<std::string> flags;
    std::uint32_t rest = static_cast<std::uint32_t>(behavior);
    for (const auto& [flag, name] : names)
    {
        if (HasFlag(behavior, flag))
        {
            flags.emplace_back(name);
            rest &= ~static_cast<std::uint32_t>(flag);
        }
    }
    if (rest != 0)
    {
        flags.push_back(fmt::format("0x{:X}", rest));
    }
    return flags;
}

std::string BehaviorText(UpdateBehavior behavior)
{
    const std::vector<std::string> flags = BehaviorFlags(behavior);
    return flags.empty() ? std::string("None") : fmt::format("{}", fmt::join(flags, " | "));
}

nlohmann::json ToJson(const SoftwareVersionType& version)
{
    return nlohmann::json{{"manufacturer", version.Manufacturer.ToString()},
                          {"manufacturerUri", version.ManufacturerUri.ToString()},
                          {"softwareRevision", version.SoftwareRevision.ToString()},
                          {"releaseDate", FormatTimestamp(version.ReleaseDate)}};
}

nlohmann::json ToJson(const StoredNotification& notification)
{
    return nlohmann::json{{"id", notification.id},
                          {"timestamp", FormatTimestamp(notification.timestamp)},
                          {"name", notification.name},
                          {"sender", notification.senderName},
                          {"severity", notification.severity},
                          {"severityName", SeverityName(notification.severity)},
                          {"text", notification.text}};
}

std::string NotificationLine(const StoredNotification& notification)
{
    return fmt::format("{}  {:<7}  {}  {}", FormatTimestamp(notification.timestamp), SeverityName(notification.severity),
                       notification.name, notification.text);
}

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Cli
