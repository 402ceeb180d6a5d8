#include "Zun/UpdateService/ServiceHost.hpp"

#include <dlfcn.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <system_error>
#include <utility>

#include "ServiceContracts/ISoftwareManagerService.hpp"
#include "SoftwareUpdater/EntryPoint.hpp"
#include "Zun/Commons/SecureString.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/LogManager.hpp"
#include "Zun/Commons/Loggable.hpp"
#include "Zun/Commons/Singleton.hpp"
#include "Zun/Rsc/ServiceManager.hpp"
#include "Zun/SoftwareManager/SoftwareManagerServiceProxyFactory.hpp"
#include "Zun/UpdateService/DefaultPaths.hpp"
#include "Zun/UpdateService/RequestValidation.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService
{

using System::Commons::InvalidOperationException;
using SoftwareManagerService = Zun::Services::SoftwareManager::Services::Internal::ISoftwareManagerService;
using Zun::Services::SoftwareManager::Services::Internal::SoftwareManagerServiceProxyFactory;

namespace
{
struct Log : System::Commons::Diagnostics::Logging::Loggable<ServiceHost>
{
    using Loggable::log;
};

using EntryFunction = decltype(&CreateSoftwareUpdateModuleLibrary);

// The application-domain singleton, the provider "Zun" and the plug-in's notifications instance are
// process-wide: one started host per process.
std::atomic<bool> hostRunning{false};

void CheckName(const String& name)
{
    RequestValidation::CheckComponentName(name);
}
} // namespace

ServiceHost::ServiceHost(ServiceHostOptions options) : options(std::move(options)) {}

ServiceHost::~ServiceHost()
{
    Stop();
}

void ServiceHost::Start()
{
    std::unique_lock<std::shared_mutex> lock(lifecycle);
    if (module)
    {
        throw InvalidOperationException("The update service is already started.");
    }
    bool expected = false;
    if (!hostRunning.compare_exchange_strong(expected, true))
    {
        throw InvalidOperationException("Another update service is already started in this process.");
    }
    ownsProcess = true;
    try
    {
        const String storePath = options.storePath.empty() ? DefaultPaths::StorePath() : options.storePath;
        const String socketPath = options.socketPath.empty() ? DefaultPaths::SoftwareManagerSocketPath() : options.socketPath;
        const String pluginPath = options.pluginPath.empty() ? DefaultPaths::PluginPath() : options.pluginPath;

        if (!store || store->GetPath() != storePath)
        {
            const std::filesystem::path folder = std::filesystem::path(static_cast<const std::string&>(storePath)).parent_path();
            std::error_code error;
            if (!folder.empty() && !std::filesystem::create_directories(folder, error) && error)
            {
                throw InvalidOperationException("Cannot create the folder of the status store '{0}': {1}", folder.string(), error.message());
            }
            store = std::make_shared<StatusStore>(storePath);
        }
        auditLog = std::make_shared<NotificationAuditLog>(store);
        notificationManager.AddListener(auditLog);

        appDomain.SetSingleton<System::Nm::INotificationManager>(&notificationManager);
        previousAppDomain = Singleton<AppDomain>::pInstance;
        Singleton<AppDomain>::pInstance = &appDomain;
        System::Commons::Diagnostics::Logging::LogManager::AssignAppDomain(appDomain);
        System::Rsc::ServiceManager::RegisterEndpoint(ProviderName, System::Rsc::RscEndpoint{socketPath, options.timeoutMilliseconds});
        endpointRegistered = true;
        Log::log.Log(7, "Software manager endpoint: {0}", socketPath);

        // Never unloaded: the library object is a process-lifetime static of the plug-in.
        pluginHandle = ::dlopen(pluginPath.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
        if (pluginHandle == nullptr)
        {
            const char* reason = ::dlerror();
            throw InvalidOperationException("Cannot load the updater plug-in '{0}': {1}", pluginPath, reason != nullptr ? reason : "");
        }
        auto entry = reinterpret_cast<EntryFunction>(::dlsym(pluginHandle, EntryPointName));
        if (entry == nullptr)
        {
            throw InvalidOperationException("The updater plug-in '{0}' does not export '{1}'.", pluginPath, EntryPointName);
        }
        auto* library = entry(appDomain);
        if (library == nullptr || !library->GetFactory().Contains(options.moduleName))
        {
            throw InvalidOperationException("The updater plug-in '{0}' offers no module '{1}'.", pluginPath, options.moduleName);
        }
        Log::log.Log(7, "Loaded {0}", pluginPath);
        module = library->GetFactory().CreateModule(options.moduleName);
        module->Initialize(options.moduleName, store);
        Log::log.Log(7, "Update service started with store {0}", storePath);
    }
    catch (...)
    {
        TearDown();
        throw;
    }
}

void ServiceHost::Stop()
{
    std::unique_lock<std::shared_mutex> lock(lifecycle);
    TearDown();
}

void ServiceHost::TearDown() noexcept
{
    // The module first: its destructor stops its status thread and unregisters its notifications.
    module.reset();
    if (auditLog)
    {
        notificationManager.RemoveListener(auditLog);
    }
    appDomain.RemoveSingleton<System::Nm::INotificationManager>();
    if (Singleton<AppDomain>::pInstance == &appDomain)
    {
        Singleton<AppDomain>::pInstance = previousAppDomain;
    }
    previousAppDomain = nullptr;
    if (endpointRegistered)
    {
        System::Rsc::ServiceManager::UnregisterProvider(ProviderName);
        endpointRegistered = false;
    }
    if (pluginHandle != nullptr)
    {
        ::dlclose(pluginHandle);
        pluginHandle = nullptr;
    }
    if (ownsProcess)
    {
        ownsProcess = false;
        hostRunning = false;
    }
}

bool ServiceHost::IsStarted() const
{
    std::shared_lock<std::shared_mutex> lock(lifecycle);
    return module != nullptr;
}

std::shared_ptr<StatusStore> ServiceHost::GetStore() const
{
    std::shared_lock<std::shared_mutex> lock(lifecycle);
    return store;
}

std::vector<StoredNotification> ServiceHost::GetAnnouncements() const
{
    std::shared_lock<std::shared_mutex> lock(lifecycle);
    return auditLog ? auditLog->GetWritten() : std::vector<StoredNotification>{};
}

IUpdaterModule& ServiceHost::Module()
{
    if (!module)
    {
        throw InvalidOperationException("The update service is not started.");
    }
    return *module;
}

StatusCode ServiceHost::GetStatus(const String& name, SoftwareUpdateStatus& status)
{
    CheckName(name);
    std::shared_lock<std::shared_mutex> lock(lifecycle);
    return Module().GetStatus(name, status);
}

StatusCode ServiceHost::GetSoftwareVersion(const String& name, SoftwareVersionFileType fileType, SoftwareVersionType& version)
{
    CheckName(name);
    std::shared_lock<std::shared_mutex> lock(lifecycle);
    return Module().GetSoftwareVersion(name, fileType, version);
}

StatusCode ServiceHost::GetUpdateBehavior(const String& name, const String& manufacturerUri, const String& softwareRevision,
                                          const std::vector<String>& patchIdentifiers, UpdateBehavior& behavior)
{
    CheckName(name);
    RequestValidation::CheckText("manufacturer URI", manufacturerUri);
    RequestValidation::CheckText("software revision", softwareRevision);
    for (const String& patch : patchIdentifiers)
    {
        RequestValidation::CheckText("patch identifier", patch);
    }
    std::shared_lock<std::shared_mutex> lock(lifecycle);
    return Module().GetUpdateBehavior(name, manufacturerUri, softwareRevision, patchIdentifiers, behavior);
}

StatusCode ServiceHost::SetSoftwarePackage(const String& name, const String& package, String& message)
{
    CheckName(name);
    RequestValidation::CheckText("package reference", package);
    std::shared_lock<std::shared_mutex> lock(lifecycle);
    return Module().SetSoftwarePackage(name, SoftwareVersionFileType::Pending, package, message);
}

StatusCode ServiceHost::GetSoftwarePackage(const String& name, SoftwareVersionFileType fileType, const String& package)
{
    CheckName(name);
    RequestValidation::CheckText("package reference", package);
    std::shared_lock<std::shared_mutex> lock(lifecycle);
    return Module().GetSoftwarePackage(name, fileType, package);
}

StatusCode ServiceHost::InstallSoftwarePackage(const String& name, const String& softwareRevision, const String& manufacturerUri,
                                               const std::vector<String>& patchIdentifiers, long long installationDelay)
{
    CheckName(name);
    RequestValidation::CheckText("software revision", softwareRevision);
    RequestValidation::CheckText("manufacturer URI", manufacturerUri);
    SoftwareVersionType version;
    version.SoftwareRevision = softwareRevision;
    version.ManufacturerUri = manufacturerUri;
    for (const String& patch : patchIdentifiers)
    {
        RequestValidation::CheckText("patch identifier", patch);
        version.PatchIdentifiers.emplace_back(patch);
    }
    std::shared_lock<std::shared_mutex> lock(lifecycle);
    return Module().InstallSoftwarePackage(name, version, installationDelay);
}

StatusCode ServiceHost::SetUpdateKey(const String& name, const String& key)
{
    CheckName(name);
    RequestValidation::CheckText("key", key);
    const SecureString<512> secret(key.c_str());
    std::shared_lock<std::shared_mutex> lock(lifecycle);
    return Module().SetUpdateKey(name, secret);
}

StatusCode ServiceHost::GetPackageDirectory(String& directory)
{
    std::shared_lock<std::shared_mutex> lock(lifecycle);
    Module();
    std::unique_ptr<System::Rsc::IRscService> service(
        System::Rsc::ServiceManager::GetService(ProviderName, SoftwareManagerServiceProxyFactory::GetInstance()));
    auto* manager = dynamic_cast<SoftwareManagerService*>(service.get());
    if (manager == nullptr)
    {
        return StatusCodes::BadNoCommunication;
    }
    System::Rsc::RscString<512> folder;
    const StatusCode code = manager->GetPackageDirectory(folder);
    directory = folder.ToString();
    return code;
}

StatusCode ServiceHost::ResumeInstall(const String& name)
{
    CheckName(name);
    std::shared_lock<std::shared_mutex> lock(lifecycle);
    return Module().ResumeInstall(name);
}

std::vector<ComponentStatus> ServiceHost::GetComponents()
{
    std::shared_lock<std::shared_mutex> lock(lifecycle);
    if (!store)
    {
        throw InvalidOperationException("The update service is not started.");
    }
    return store->GetAllStatus();
}

} // namespace Zun::Services::SoftwareUpdate::UpdateService
