// Lifecycle of the module: construction, Initialize, the service lookup and the status thread.
#include "SoftwareUpdater/SoftwareUpdaterModule.hpp"

#include <memory>
#include <mutex>

#include "SoftwareUpdater/Internal/Security/SecurityNotifications.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/RuntimeTypeInfo.hpp"
#include "Zun/Commons/Singleton.hpp"
#include "Zun/Rsc/ServiceManager.hpp"
#include "Zun/SoftwareManager/SoftwareManagerServiceProxyFactory.hpp"

namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater
{

using Internal::Security::SecurityNotifications;
using System::Commons::Threading::Thread;
using System::Commons::Threading::ThreadSettings;

const String SoftwareUpdaterModule::ModuleName = "SoftwareUpdater";
const String SoftwareUpdaterModule::PropertyTargetSoftwareRevision = "TargetSoftwareRevision";
const String SoftwareUpdaterModule::PropertyInstallationStartedByModule = "InstallationStartedByModule";

namespace
{
const char* const ProviderName = "Zun";
const char* const StatusThreadName = "SUUpdateStatus";
} // namespace

SoftwareUpdaterModule::SoftwareUpdaterModule()
{
    log.Log(7, "Create ({0})", "SoftwareUpdaterModule");
    if (Singleton<SecurityNotifications>::pInstance == nullptr)
    {
        Singleton<SecurityNotifications>::pInstance = new SecurityNotifications();
    }
}

SoftwareUpdaterModule::~SoftwareUpdaterModule()
{
    log.Log(7, "Dispose ({0})", "~SoftwareUpdaterModule");
    Disable();
    if (statusThread != nullptr && statusThread->GetState() == Thread::StateNotActive && statusThread->IsJoinable())
    {
        statusThread->Join();
    }
    if (SecurityNotifications* notifications = Singleton<SecurityNotifications>::pInstance)
    {
        notifications->Dispose();
        delete notifications;
        Singleton<SecurityNotifications>::pInstance = nullptr;
    }
    // A thread that still runs ends within its pause now that the module is disabled; the
    // thread object waits for it before the members it uses go away. It is taken out under the
    // mutex, because a last poll of that thread may still look at it, and destroyed outside it,
    // because that poll needs the mutex to finish.
    std::unique_ptr<Thread> thread;
    {
        std::lock_guard<System::Commons::Threading::Mutex> lock(mutex);
        thread = std::move(statusThread);
    }
    thread.reset();
}

void SoftwareUpdaterModule::Initialize(const String& name, std::shared_ptr<IUpdaterStatus> updaterStatus)
{
    log.Log(7, "{0}: {1}", "Initialize", name);
    if (!updaterStatus)
    {
        throw Exception(String("updaterStatus is null."));
    }
    this->updaterStatus = std::move(updaterStatus);
    LoadSettings(name);
    Subscribe();
    SyncComponents();
    InitializeState();
}

void SoftwareUpdaterModule::Subscribe()
{
    using Services::SoftwareManager::Services::Internal::SoftwareManagerServiceProxyFactory;

    auto& proxyFactory = SoftwareManagerServiceProxyFactory::GetInstance();
    std::unique_ptr<System::Rsc::IRscService> service(System::Rsc::ServiceManager::GetService(ProviderName, proxyFactory));
    if (service == nullptr)
    {
        throw System::Commons::InvalidOperationException("Could not retrieve service '{0}' from service provider '{1}'.",
                                                         RuntimeTypeInfo::GetTypeName<ISoftwareManagerService>(), ProviderName);
    }
    if (dynamic_cast<ISoftwareManagerService*>(service.get()) == nullptr)
    {
        throw System::Commons::InvalidCastException("The service does not implement service interface '{0}'.",
                                                    proxyFactory.GetServiceInterfaceName());
    }
    softwareManagerService = std::shared_ptr<ISoftwareManagerService>(dynamic_cast<ISoftwareManagerService*>(service.release()));
}

void SoftwareUpdaterModule::StartStatusThread()
{
    std::lock_guard<System::Commons::Threading::Mutex> lock(mutex);
    if (statusThread != nullptr)
    {
        const int state = statusThread->GetState();
        if ((state == Thread::StateRunning || state == Thread::StateNotActive) && isRunning)
        {
            return;
        }
    }
    if (!isEnabled)
    {
        return;
    }
    if (statusThread != nullptr && statusThread->IsJoinable())
    {
        // The old thread takes the mutex only before it clears isRunning, so this cannot deadlock.
        log.Log(7, "Wait until UpdateStatus thread stopped");
        statusThread->Join();
        log.Log(7, "UpdateStatus thread stopped");
    }
    isRunning = true;
    ThreadSettings settings(StatusThreadName, 0, 0, 0, System::Commons::Threading::ThreadDelegate(this, &SoftwareUpdaterModule::UpdateStatus));
    statusThread = std::make_unique<Thread>(std::move(settings), nullptr);
    statusThread->Start();
}

void SoftwareUpdaterModule::Disable()
{
    std::lock_guard<System::Commons::Threading::Mutex> lock(mutex);
    isEnabled = false;
}

void SoftwareUpdaterModule::LoadSettings(const String& /*name*/)
{
    // The module has no settings.
}

void SoftwareUpdaterModule::UpdateStatus(void* /*module*/)
{
    log.Log(7, "Start of UpdateStatus Thread");
    std::unordered_set<String> names = CopyOfSyncListAndUpdateRunningState();
    while (isEnabled && isRunning)
    {
        for (const String& name : names)
        {
            if (!isEnabled)
            {
                log.Log(7, "Stop UpdateStatus Thread");
                return;
            }
            SoftwareUpdateStatus status;
            GetStatus(name, status);
        }
        Thread::Sleep(1000);
        names = CopyOfSyncListAndUpdateRunningState();
    }
    log.Log(7, "Stop UpdateStatus Thread");
}

std::unordered_set<String> SoftwareUpdaterModule::CopyOfSyncListAndUpdateRunningState()
{
    std::lock_guard<System::Commons::Threading::Mutex> lock(mutex);
    std::unordered_set<String> copy = syncList;
    isRunning = !copy.empty();
    return copy;
}

std::unordered_set<String> SoftwareUpdaterModule::GetSyncList()
{
    std::lock_guard<System::Commons::Threading::Mutex> lock(mutex);
    return syncList;
}

bool SoftwareUpdaterModule::IsStateInitialized()
{
    std::lock_guard<System::Commons::Threading::Mutex> lock(mutex);
    return isStateInitialized;
}

int SoftwareUpdaterModule::GetStatusThreadState()
{
    std::lock_guard<System::Commons::Threading::Mutex> lock(mutex);
    return statusThread == nullptr ? -1 : statusThread->GetState();
}

} // namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater
