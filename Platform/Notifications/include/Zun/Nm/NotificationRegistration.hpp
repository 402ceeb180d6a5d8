// A registered notification name with a typed payload. Disposing unregisters it once; a failure
// to unregister is logged, never thrown.
#pragma once

#include <utility>

#include "Zun/Commons/DateTime.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/Loggable.hpp"
#include "Zun/Commons/String.hpp"
#include "Zun/Nm/INotificationManager.hpp"
#include "Zun/Nm/Severity.hpp"

namespace Zun::System::Nm
{

template <class Payload>
class NotificationRegistration : private Commons::Diagnostics::Logging::Loggable<NotificationRegistration<Payload>>
{
    using Logger = Commons::Diagnostics::Logging::Loggable<NotificationRegistration<Payload>>;

public:
    NotificationRegistration() = default;
    // Registers `name` with `manager`, which becomes the sending interface.
    NotificationRegistration(const String& name, const String& senderName, Severity severity, INotificationManager& manager)
        : name(name), manager(&manager), id(manager.RegisterNotificationName(name, senderName, severity, Payload::TypeName))
    {
    }
    NotificationRegistration(const NotificationRegistration&) = delete;
    NotificationRegistration& operator=(const NotificationRegistration&) = delete;
    NotificationRegistration(NotificationRegistration&& other) noexcept
        : name(std::move(other.name)), manager(std::exchange(other.manager, nullptr)), id(std::exchange(other.id, 0))
    {
    }
    NotificationRegistration& operator=(NotificationRegistration&& other) noexcept
    {
        if (this != &other)
        {
            Dispose();
            name = std::move(other.name);
            manager = std::exchange(other.manager, nullptr);
            id = std::exchange(other.id, 0);
        }
        return *this;
    }
    ~NotificationRegistration() { Dispose(); }

    // Sends `text` as the payload; the notification manager's exceptions pass to the caller.
    NotificationId SendNotificationWithTimestamp(const DateTime& timestamp, String& text)
    {
        if (manager == nullptr || id == 0)
        {
            throw Commons::InvalidOperationException("Notification '{0}' is not registered.", name);
        }
        Payload payload(text);
        return manager->SendNotification(id, timestamp, payload.Serialize());
    }

    // Unregisters once; later calls do nothing.
    void Dispose() noexcept
    {
        if (manager == nullptr || id == 0)
        {
            return;
        }
        try
        {
            manager->UnregisterNotificationName(id);
        }
        catch (const Zun::Exception& e)
        {
            LogQuietly("Caught exception while unregistering notificationName={}: {}", &e);
        }
        catch (...)
        {
            LogQuietly("Caught exception while unregistering notificationName={}", nullptr);
        }
        id = 0;
    }

    NotificationNameId GetId() const noexcept { return id; }
    const String& GetName() const noexcept { return name; }

private:
    void LogQuietly(const char* format, const Zun::Exception* e) const noexcept
    {
        try
        {
            if (e != nullptr)
            {
                Logger::log.Log(3, format, name, e->GetMessage());
            }
            else
            {
                Logger::log.Log(3, format, name);
            }
        }
        catch (...)
        {
            // A failing sink must not turn a dispose into a throw.
        }
    }

    String name;
    INotificationManager* manager = nullptr;
    NotificationNameId id = 0;
};

} // namespace Zun::System::Nm
