// The update service: loads the updater plug-in, gives it the framework services (application
// domain, notification manager, the software manager's endpoint) and the persistent status store,
// and offers the module's operations with the boundary checks that the module itself cannot make.
// Fronts (the command line, a server) embed it.
#pragma once

#include <cstdint>
#include <memory>
#include <shared_mutex>
#include <vector>

#include "Zun/Commons/AppDomain.hpp"
#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/String.hpp"
#include "Zun/Nm/NotificationManager.hpp"
#include "Zun/SoftwareUpdate/IUpdaterModule.hpp"
#include "Zun/SoftwareUpdate/StatusCode.hpp"
#include "Zun/UpdateService/NotificationAuditLog.hpp"
#include "Zun/UpdateService/StatusStore.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService
{

using SoftwareVersionType = Services::Internal::SoftwareVersionType;
using SoftwareVersionFileType = Services::Internal::SoftwareVersionFileType;
using UpdateBehavior = Services::Internal::UpdateBehavior;

struct ServiceHostOptions
{
    String pluginPath;     // empty: DefaultPaths::PluginPath()
    String storePath;      // empty: DefaultPaths::StorePath(); its folder is created
    String socketPath;     // empty: DefaultPaths::SoftwareManagerSocketPath()
    std::uint32_t timeoutMilliseconds = 5000;
    String moduleName = "SoftwareUpdater";
};

class ZUN_EXPORT ServiceHost
{
public:
    static constexpr const char* EntryPointName = "CreateSoftwareUpdateModuleLibrary";
    static constexpr const char* ProviderName = "Zun";

    explicit ServiceHost(ServiceHostOptions options);
    // Stops the service if it runs.
    ~ServiceHost();
    ServiceHost(const ServiceHost&) = delete;
    ServiceHost& operator=(const ServiceHost&) = delete;

    // Opens the store, loads the plug-in, creates the module and initialises it, which registers the
    // software manager's components and settles what ended while no update service ran (the only
    // time the module announces installation results). Only one service runs in a process at a
    // time: the framework's singletons and the provider "Zun" are process-wide. Throws
    // InvalidOperationException (already running, plug-in not loadable, store not openable) or
    // what the module's Initialize throws; nothing stays set up then.
    void Start();
    // Destroys the module (which stops its status thread) and takes the framework services back.
    void Stop();
    bool IsStarted() const;

    const ServiceHostOptions& GetOptions() const noexcept { return options; }
    // The store; it stays usable after Stop. Null before the first Start.
    std::shared_ptr<StatusStore> GetStore() const;
    // Security notifications sent since the last Start, oldest first.
    std::vector<StoredNotification> GetAnnouncements() const;

    // The module's operations. Names and texts are checked first (RequestValidation), which throws
    // ArgumentException and leaves everything unchanged; before Start they throw
    // InvalidOperationException. The results are the module's status codes.
    StatusCode GetStatus(const String& name, SoftwareUpdateStatus& status);
    StatusCode GetSoftwareVersion(const String& name, SoftwareVersionFileType fileType, SoftwareVersionType& version);
    StatusCode GetUpdateBehavior(const String& name, const String& manufacturerUri, const String& softwareRevision,
                                 const std::vector<String>& patchIdentifiers, UpdateBehavior& behavior);
    StatusCode SetSoftwarePackage(const String& name, const String& package, String& message);
    // Reading a package back; the package reference is where it would be written.
    StatusCode GetSoftwarePackage(const String& name, SoftwareVersionFileType fileType, const String& package);
    StatusCode InstallSoftwarePackage(const String& name, const String& softwareRevision, const String& manufacturerUri,
                                      const std::vector<String>& patchIdentifiers, long long installationDelay = 0);
    StatusCode ResumeInstall(const String& name);
    // The key is checked like any text and never logged.
    StatusCode SetUpdateKey(const String& name, const String& key);
    // The software manager's folder for packages to stage (asked of the software manager).
    StatusCode GetPackageDirectory(String& directory);

    // Records of the registered components as stored, without asking the module.
    std::vector<ComponentStatus> GetComponents();

private:
    IUpdaterModule& Module();
    void TearDown() noexcept;

    ServiceHostOptions options;
    mutable std::shared_mutex lifecycle;
    Zun::AppDomain appDomain;
    System::Nm::NotificationManager notificationManager;
    std::shared_ptr<StatusStore> store;
    std::shared_ptr<NotificationAuditLog> auditLog;
    void* pluginHandle = nullptr;
    Zun::AppDomain* previousAppDomain = nullptr;
    bool endpointRegistered = false;
    bool ownsProcess = false;
    std::unique_ptr<IUpdaterModule> module;
};

} // namespace Zun::Services::SoftwareUpdate::UpdateService
