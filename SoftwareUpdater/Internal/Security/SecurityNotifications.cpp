#include "SoftwareUpdater/Internal/Security/SecurityNotifications.hpp"

#include <exception>

#include <fmt/format.h>
#include <fmt/ostream.h>

#include "Zun/Commons/DateTime.hpp"
#include "Zun/Commons/FormatExceptionHandler.hpp"
#include "Zun/Commons/Singleton.hpp"
#include "Zun/Nm/INotificationManager.hpp"
#include "Zun/SoftwareManager/SoftwareKind.hpp"

namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::Security
{

namespace
{
using System::Nm::Severity;

const char* const SucceededSuffix = "Succeeded";
const char* const FailedSuffix = "Failed";
const char* const SucceededFormat = "Installation of '{}' (version: {}) successful.";
const char* const FailedFormat = "Failed to install '{}' (version: {}). Reason: {}.";

// A failing format yields the handler's text instead, so that the notification still goes out.
template <class... Args>
String FormatMessage(const char* format, const Args&... args)
{
    try
    {
        return String(fmt::vformat(format, fmt::make_format_args(args...)));
    }
    catch (const std::exception& e)
    {
        return System::Commons::FormatExceptionHandler::Handle(format, e.what());
    }
}
} // namespace

const String SecurityNotifications::NotificationNameTemplate = "Security.Zun.Services.SoftwareUpdate.{}.Installation.";
const String SecurityNotifications::SenderName = "Software Update";

SecurityNotifications::SecurityNotifications()
{
    auto& manager = AppDomainSingleton<System::Nm::INotificationManager>::GetInstance();
    succeeded = Registration(MakeNotificationName(SucceededSuffix), SenderName, Severity::Info, manager);
    try
    {
        failed = Registration(MakeNotificationName(FailedSuffix), SenderName, Severity::Error, manager);
    }
    catch (...)
    {
        succeeded.Dispose();
        throw;
    }
}

SecurityNotifications::~SecurityNotifications()
{
    Dispose();
}

void SecurityNotifications::Dispose() noexcept
{
    failed.Dispose();
    succeeded.Dispose();
}

String SecurityNotifications::MakeNotificationName(const char* suffix)
{
    String name = fmt::format(fmt::runtime(NotificationNameTemplate), fmt::streamed(SoftwareKind::TesmoraEngineerProject));
    name += suffix;
    return name;
}

bool SecurityNotifications::IsSupported(const SoftwareComponentId& id)
{
    if (id.kind != SoftwareKind::TesmoraEngineerProject)
    {
        log.Log(5, "SecurityNotification is not implemented for {}", fmt::streamed(id.kind));
        return false;
    }
    return true;
}

void SecurityNotifications::SendInstallationSucceededNotification(const SoftwareComponentId& id, const String& version)
{
    if (!IsSupported(id))
    {
        return;
    }
    String text = FormatMessage(SucceededFormat, id.name, version);
    SecurityNotifications& instance = Singleton<SecurityNotifications>::GetInstance();
    instance.succeeded.SendNotificationWithTimestamp(DateTime::GetUtcNow(), text);
}

void SecurityNotifications::SendInstallationFailedNotification(const SoftwareComponentId& id, const String& version, const String& reason)
{
    if (!IsSupported(id))
    {
        return;
    }
    String text = FormatMessage(FailedFormat, id.name, version, reason);
    SecurityNotifications& instance = Singleton<SecurityNotifications>::GetInstance();
    instance.failed.SendNotificationWithTimestamp(DateTime::GetUtcNow(), text);
}

} // namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::Security
