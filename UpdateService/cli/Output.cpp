#include "Output.hpp"

#include <algorithm>

#include <fmt/format.h>

namespace Zun::Services::SoftwareUpdate::UpdateService::Cli
{

namespace
{
std::string Text(const nlohmann::json& record, const char* member)
{
    const auto found = record.find(member);
    return found != record.end() && found->is_string() ? found->get<std::string>() : std::string();
}
} // namespace

std::string FormatTimestamp(const nlohmann::json& timestamp)
{
    if (!timestamp.is_string())
    {
        return std::string();
    }
    // "YYYY-MM-DDTHH:MM:SS.mmmZ": the seconds are enough on a command line.
    std::string text = timestamp.get<std::string>();
    if (text.size() == 24 && text[19] == '.' && text.back() == 'Z')
    {
        text = text.substr(0, 19) + "Z";
    }
    return text;
}

std::string BehaviorText(const nlohmann::json& behavior)
{
    std::vector<std::string> flags;
    for (const nlohmann::json& flag : behavior.value("flags", nlohmann::json::array()))
    {
        flags.push_back(flag.is_string() ? flag.get<std::string>() : flag.dump());
    }
    return flags.empty() ? std::string("None") : fmt::format("{}", fmt::join(flags, " | "));
}

nlohmann::json VersionJson(const nlohmann::json& version)
{
    return nlohmann::json{{"manufacturer", Text(version, "manufacturer")},
                          {"manufacturerUri", Text(version, "manufacturerUri")},
                          {"softwareRevision", Text(version, "softwareRevision")},
                          {"releaseDate", FormatTimestamp(version.value("releaseDate", nlohmann::json()))}};
}

nlohmann::json NotificationJson(const nlohmann::json& notification)
{
    return nlohmann::json{{"id", notification.value("id", 0u)},
                          {"timestamp", FormatTimestamp(notification.value("timestamp", nlohmann::json()))},
                          {"name", Text(notification, "name")},
                          {"sender", Text(notification, "sender")},
                          {"severity", notification.value("severity", 0u)},
                          {"severityName", Text(notification, "severityName")},
                          {"text", Text(notification, "text")}};
}

std::string NotificationLine(const nlohmann::json& notification)
{
    return fmt::format("{}  {:<7}  {}  {}", FormatTimestamp(notification.value("timestamp", nlohmann::json())), Text(notification, "severityName"),
                       Text(notification, "name"), Text(notification, "text"));
}

std::vector<std::string> Table(const std::vector<std::vector<std::string>>& rows)
{
    std::vector<std::size_t> widths;
    for (const auto& row : rows)
    {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t column = 0; column < row.size(); ++column)
        {
            widths[column] = std::max(widths[column], row[column].size());
        }
    }
    std::vector<std::string> lines;
    for (const auto& row : rows)
    {
        std::string line;
        for (std::size_t column = 0; column < row.size(); ++column)
        {
            line += column + 1 == row.size() ? row[column] : fmt::format("{:<{}}  ", row[column], widths[column]);
        }
        lines.push_back(std::move(line));
    }
    return lines;
}

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Cli
