// Text and JSON forms of the update service's records, as the command line prints them. The
// records arrive in the local API's JSON form.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace Zun::Services::SoftwareUpdate::UpdateService::Cli
{

// ISO 8601 in UTC to the second ("2026-11-01T08:00:00Z") from the API's "...:00.000Z"; empty for
// null (a date that was never set).
std::string FormatTimestamp(const nlohmann::json& timestamp);
// The flag names of an UpdateBehavior joined with " | ", or "None".
std::string BehaviorText(const nlohmann::json& behavior);

// A SoftwareVersion as the command line's JSON shows it.
nlohmann::json VersionJson(const nlohmann::json& version);
nlohmann::json NotificationJson(const nlohmann::json& notification);
// One line: time stamp, severity, outcome and text.
std::string NotificationLine(const nlohmann::json& notification);

// Rows of left-aligned columns, each as wide as its widest cell; the last column is not padded.
std::vector<std::string> Table(const std::vector<std::vector<std::string>>& rows);

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Cli
