#include "Zun/UpdateService/Daemon/JsonRecords.hpp"

#include <ctime>

#include <fmt/format.h>

#include "Zun/UpdateService/Protocol/StatusNames.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
{

using Protocol::StatusNames;

namespace
{
const std::string& Text(const String& text)
{
    return text;
}

const char* StateName(UpdateInstallationState state)
{
    switch (state)
    {
    case UpdateInstallationState::Idle:
        return "Idle";
    case UpdateInstallationState::Installing:
        return "Installing";
    case UpdateInstallationState::Error:
        return "Error";
    }
    return "Unknown";
}

const char* SeverityName(std::uint32_t severity)
{
    static const char* const names[] = {"Verbose", "Info", "Warning", "Error", "Critical"};
    return severity < 5 ? names[severity] : "Unknown";
}
} // namespace

nlohmann::json JsonRecords::Status(const SoftwareUpdateStatus& status)
{
    const int percent = status.StatusWord1 < 0 ? 0 : status.StatusWord1 > 100 ? 100 : status.StatusWord1;
    return {{"state", StateName(status.InstallationState)},
            {"stateValue", static_cast<int>(status.InstallationState)},
            {"percent", percent},
            {"message", Text(status.ErrorMessage.ToString())},
            {"needsPreparation", status.StatusFlag}};
}

nlohmann::json JsonRecords::Version(const SoftwareVersionType& version)
{
    nlohmann::json patches = nlohmann::json::array();
    for (const auto& patch : version.PatchIdentifiers)
    {
        patches.push_back(patch.ToString().c_str());
    }
    return {{"manufacturer", Text(version.Manufacturer.ToString())},
            {"manufacturerUri", Text(version.ManufacturerUri.ToString())},
            {"softwareRevision", Text(version.SoftwareRevision.ToString())},
            {"patchIdentifiers", std::move(patches)},
            {"releaseDate", version.ReleaseDate.GetTicks() == 0 ? nlohmann::json(nullptr) : nlohmann::json(Timestamp(version.ReleaseDate))},
            {"changeLogReference", Text(version.ChangeLogReference.ToString())},
            {"hash", ""}};
}

nlohmann::json JsonRecords::VersionResult(StatusCode code, const SoftwareVersionType& version)
{
    nlohmann::json result = {{"status", code}, {"statusName", StatusNames::GetName(code)}};
    if (code == StatusNames::Good)
    {
        result["version"] = Version(version);
    }
    return result;
}

nlohmann::json JsonRecords::Behavior(UpdateBehavior behavior)
{
    static const char* const names[] = {"KeepsParameters", "WillDisconnect", "RequiresPowerCycle", "WillReboot", "NeedsPreparation"};
    const auto bits = static_cast<std::uint32_t>(behavior);
    nlohmann::json flags = nlohmann::json::array();
    for (unsigned bit = 0; bit < 32; ++bit)
    {
        if ((bits >> bit & 1u) != 0)
        {
            flags.push_back(bit < 5 ? std::string(names[bit]) : fmt::format("0x{:X}", 1u << bit));
        }
    }
    return {{"behavior", bits}, {"flags", std::move(flags)}};
}

nlohmann::json JsonRecords::Notification(const StoredNotification& notification)
{
    return {{"id", notification.id},
            {"timestamp", Timestamp(notification.timestamp)},
            {"name", static_cast<const std::string&>(notification.name)},
            {"sender", static_cast<const std::string&>(notification.senderName)},
            {"severity", notification.severity},
            {"severityName", SeverityName(notification.severity)},
            {"text", static_cast<const std::string&>(notification.text)}};
}

std::string JsonRecords::Timestamp(const DateTime& time)
{
    const std::int64_t milliseconds = time.ToUnixTimeMilliseconds();
    const std::int64_t fraction = (milliseconds % 1000 + 1000) % 1000;
    const auto seconds = static_cast<std::time_t>((milliseconds - fraction) / 1000);
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday,
                       parts.tm_hour, parts.tm_min, parts.tm_sec, fraction);
}

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
