#include "Zun/UpdateService/Daemon/EventHub.hpp"

#include <algorithm>
#include <utility>

#include "Zun/UpdateService/Daemon/ClientConnection.hpp"
#include "Zun/UpdateService/Daemon/JsonRecords.hpp"
#include "Zun/UpdateService/Protocol/MessageFraming.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
{

EventHub::EventHub(std::shared_ptr<StatusStore> store) : store(std::move(store))
{
    for (const ComponentStatus& component : this->store->GetAllStatus())
    {
        known.insert(component.name);
    }
}

EventHub::~EventHub() = default;

void EventHub::OnStatusChanged(const String& name, const SoftwareUpdateStatus* status)
{
    std::lock_guard<std::mutex> lock(mutex);
    nlohmann::json event = {{"name", static_cast<const std::string&>(name)}};
    if (status == nullptr)
    {
        known.erase(name);
        event["event"] = "componentRemoved";
    }
    else
    {
        event["event"] = known.insert(name).second ? "componentAdded" : "statusChanged";
        event["status"] = JsonRecords::Status(*status);
    }
    Publish(std::move(event));
}

void EventHub::OnNotificationAppended(const StoredNotification& notification)
{
    std::lock_guard<std::mutex> lock(mutex);
    Publish({{"event", "notificationSent"}, {"notification", JsonRecords::Notification(notification)}});
}

void EventHub::Publish(nlohmann::json event)
{
    event["type"] = "event";
    event["sequence"] = ++sequence;
    if (watchers.empty())
    {
        return;
    }
    // Encoded once for every watcher; a record is far below the message limit.
    const auto frame = std::make_shared<const std::string>(Protocol::MessageFraming::Encode(event));
    for (const auto& watcher : watchers)
    {
        watcher->Enqueue(frame);
    }
}

bool EventHub::Watch(const std::shared_ptr<ClientConnection>& connection, const std::function<void(nlohmann::json)>& reply)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (std::find(watchers.begin(), watchers.end(), connection) != watchers.end())
    {
        return false;
    }
    nlohmann::json components = nlohmann::json::array();
    for (const ComponentStatus& component : store->GetAllStatus())
    {
        components.push_back({{"name", static_cast<const std::string&>(component.name)}, {"status", JsonRecords::Status(component.status)}});
    }
    reply({{"sequence", sequence}, {"lastNotificationId", store->GetLastNotificationId()}, {"components", std::move(components)}});
    watchers.push_back(connection);
    return true;
}

void EventHub::Unwatch(const ClientConnection& connection)
{
    std::lock_guard<std::mutex> lock(mutex);
    watchers.erase(std::remove_if(watchers.begin(), watchers.end(), [&](const auto& w) { return w.get() == &connection; }),
                   watchers.end());
}

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
