#include "Zun/Nm/NotificationManager.hpp"

#include <algorithm>
#include <utility>

#include "Zun/Commons/Exception.hpp"

namespace Zun::System::Nm
{

NotificationManager::NotificationManager() = default;

NotificationManager::~NotificationManager() = default;

NotificationNameId NotificationManager::RegisterNotificationName(const String& name, const String& senderName,
                                                                 Severity severity, const String& payloadTypeName)
{
    std::lock_guard<std::mutex> lock(mutex);
    // 0 means "no registration"; skip it should the counter ever wrap.
    if (nextRegistration == 0)
    {
        ++nextRegistration;
    }
    const NotificationNameId id = nextRegistration++;
    registrations.emplace(id, NotificationRegistrationInfo{id, name, senderName, severity, payloadTypeName});
    return id;
}

void NotificationManager::UnregisterNotificationName(NotificationNameId id)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (registrations.erase(id) == 0)
    {
        throw Commons::InvalidOperationException("Unknown notification registration {0}.", id);
    }
}

NotificationId NotificationManager::SendNotification(NotificationNameId id, const DateTime& timestamp, const String& payload)
{
    NotificationRecord record;
    std::vector<std::shared_ptr<INotificationListener>> currentListeners;
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto it = registrations.find(id);
        if (it == registrations.end())
        {
            throw Commons::InvalidOperationException("Unknown notification registration {0}.", id);
        }
        const NotificationRegistrationInfo& info = it->second;
        record.id = nextNotification;
        record.registration = id;
        record.name = info.name;
        record.senderName = info.senderName;
        record.severity = info.severity;
        record.payloadTypeName = info.payloadTypeName;
        record.timestamp = timestamp;
        record.payload = payload;
        sent.push_back(record);
        ++nextNotification;
        currentListeners = listeners;
    }
    // Outside the lock, so that a listener may send or inspect in turn.
    for (const auto& listener : currentListeners)
    {
        listener->OnNotificationSent(record);
    }
    return record.id;
}

void NotificationManager::AddListener(std::shared_ptr<INotificationListener> listener)
{
    if (!listener)
    {
        throw Commons::ArgumentException::Create("listener", "A listener must not be null.");
    }
    std::lock_guard<std::mutex> lock(mutex);
    listeners.push_back(std::move(listener));
}

void NotificationManager::RemoveListener(const std::shared_ptr<INotificationListener>& listener)
{
    std::lock_guard<std::mutex> lock(mutex);
    listeners.erase(std::remove(listeners.begin(), listeners.end(), listener), listeners.end());
}

std::vector<NotificationRegistrationInfo> NotificationManager::GetRegistrations() const
{
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<NotificationRegistrationInfo> result;
    result.reserve(registrations.size());
    for (const auto& entry : registrations)
    {
        result.push_back(entry.second);
    }
    return result;
}

std::vector<NotificationRecord> NotificationManager::GetSentNotifications() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return sent;
}

} // namespace Zun::System::Nm
