// The records of the local API in JSON: status records, software versions, update behaviours and
// audit-log entries as the protocol writes them.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "Zun/Commons/Export.hpp"
#include "Zun/UpdateService/ServiceHost.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
{

class ZUN_EXPORT JsonRecords
{
public:
    static nlohmann::json Status(const SoftwareUpdateStatus& status);
    static nlohmann::json Version(const SoftwareVersionType& version);
    // {"status", "statusName"} and, when Good, "version".
    static nlohmann::json VersionResult(StatusCode code, const SoftwareVersionType& version);
    static nlohmann::json Behavior(UpdateBehavior behavior);
    static nlohmann::json Notification(const StoredNotification& notification);
    // UTC "YYYY-MM-DDTHH:MM:SS.mmmZ".
    static std::string Timestamp(const DateTime& time);
};

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
