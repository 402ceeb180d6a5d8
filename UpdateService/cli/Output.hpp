// Text and JSON forms of the update service's records, as the command line prints them.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Zun/Commons/DateTime.hpp"
#include "Zun/UpdateService/ServiceHost.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Cli
{

// "Idle", "Installing", "Error", or the number of an unknown state.
std::string StateName(UpdateInstallationState state);
// ISO 8601 in UTC to the second ("2026-11-01T08:00:00Z"); empty for a date that was never set.
std::string FormatTimestamp(const DateTime& timestamp);
// The names of the set bits ("KeepsParameters", ...), in bit order; unknown bits as hex.
std::vector<std::string> BehaviorFlags(UpdateBehavior behavior);
// The flags joined with " | ", or "None".
std::string BehaviorText(UpdateBehavior behavior);

nlohmann::json ToJson(const SoftwareVersionType& version);
nlohmann::json ToJson(const StoredNotification& notification);
// One line: time stamp, severity, outcome and text.
std::string NotificationLine(const StoredNotification& notification);

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Cli
