// The software manager itself, in process: components of the state folder, package staging from
// the incoming folder, background installations in three phases, and recovery after a kill.
//
// State folder layout:
//   incoming/                                   packages that SetSoftwarePackage may take
//   keyring/                                    public keys trusted to sign packages (the default keyring)
//   components/<kind folder>/<name>/state.json  state, message, manifests (the commit point)
//   components/<kind folder>/<name>/staged/<n>/ the pending package (manifest.json, payload/)
//   components/<kind folder>/<name>/versions/<n>/ installed content
//   components/<kind folder>/<name>/current     symbolic link to versions/<n>
// A component exists when its folder exists. Anything that state.json does not reference is a
// leftover and is removed when the service starts or an installation fails.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "ServiceContracts/ISoftwareManagerService.hpp"
#include "Zun/Commons/Loggable.hpp"

namespace Zun::Services::SoftwareManager::Service
{

using Services::Internal::InstallationState;
using Services::Internal::ISoftwareManagerService;
using Services::Internal::Manifest;
using Services::Internal::ServiceStatusCode;
using Services::Internal::SoftwareInformation;
using Services::Internal::SoftwareKind;

enum class FailPhase
{
    None,
    Prepare,
    Copy,
    Activate,
};

// Controls for end-to-end tests; they apply to every installation of the process.
struct TestControls
{
    std::uint32_t phaseDelayMilliseconds = 0;
    FailPhase failPhase = FailPhase::None;
    // End idle without making the pending version current.
    bool keepVersion = false;
};

// Which packages are staged: those signed by a key of the keyring folder (read at every staging, so
// that keys are added and withdrawn without a restart), and unsigned ones only when allowed.
struct PackageTrust
{
    // Empty: keyring/ in the state folder.
    std::filesystem::path keyring;
    // For development only: every unsigned package is staged with a warning.
    bool allowUnsigned = false;
};

class ManagerService : public ISoftwareManagerService, private System::Commons::Diagnostics::Logging::Loggable<ManagerService>
{
public:
    // Folder names of the two kinds below components/.
    static const char* GetKindFolder(SoftwareKind kind) noexcept;

    // Opens the state folder (which must exist), reports interrupted installations as failed and
    // removes their leftovers.
    ManagerService(const std::filesystem::path& stateDirectory, TestControls controls, PackageTrust trust = {});
    ~ManagerService() override;
    ManagerService(const ManagerService&) = delete;
    ManagerService& operator=(const ManagerService&) = delete;

    // Creates a missing state folder; true when it was created (then call CreateSamples).
    static bool EnsureStateDirectory(const std::filesystem::path& stateDirectory);
    // One installed component per kind, and a newer package of each in incoming/, signed by a key
    // made for them whose public half joins the keyring as samples.pem; the private half is not kept.
    void CreateSamples();
    // Ends running installations where they stand; they are reported as interrupted on the next start.
    void Shutdown();

    std::vector<SoftwareInformation> GetAllSoftwareInformation() override;
    ServiceStatusCode GetSoftwareInformation(SoftwareKind kind, const Name& name, SoftwareInformation& information) override;
    ServiceStatusCode GetInstallationState(SoftwareKind kind, const Name& name, InstallationState& state,
                                           System::Rsc::RscString<512>& message) override;
    ServiceStatusCode SetSoftwarePackage(SoftwareKind kind, const Name& name, const System::Rsc::RscString<512>& package,
                                         System::Rsc::RscString<512>& message) override;
    ServiceStatusCode RemoveSoftwarePackage(SoftwareKind kind, const Name& name) override;
    ServiceStatusCode GetPackageDirectory(System::Rsc::RscString<512>& directory) override;
    ServiceStatusCode StartInstallation(SoftwareKind kind, const Name& name) override;
    ServiceStatusCode ResumeInstallation(SoftwareKind kind, const Name& name) override;

    const std::filesystem::path& GetIncomingDirectory() const noexcept { return incomingDirectory; }
    const std::filesystem::path& GetKeyringDirectory() const noexcept { return trust.keyring; }

private:
    // What state.json holds.
    struct Record;
    struct Component;
    using Key = std::pair<SoftwareKind, std::string>;

    // The component, loaded on first use; null with `status` set when unknown or not addressable.
    Component* Find(SoftwareKind kind, const Name& name, ServiceStatusCode& status);
    Component* Load(SoftwareKind kind, const std::string& name);
    void ScanComponents();
    void Persist(const Component& component, const Record& record);
    // Writes `record` and only then makes it the component's: a failed write changes nothing.
    void Commit(Component& component, Record record);
    // Writes the failure that the component's record holds as well as a full disk allows.
    void SaveFailure(Component& component);
    // Writes a record that SaveFailure could not; quietly leaves it unsaved when that fails again.
    void TrySave(Component& component);
    // Makes the files match state.json: the `current` link, and nothing unreferenced.
    void CleanLeftovers(const Component& component);
    ServiceStatusCode Stage(Component& component, const String& reference, String& message);
    ServiceStatusCode BeginInstallation(Component& component, const char* what);
    // Runs the three phases; false when the service stopped in between.
    void Install(Component& component, const TestControls& controls);
    bool Delay(std::uint32_t milliseconds);
    void Fail(Component& component, InstallationState state, const String& message);
    void Describe(const Component& component, SoftwareInformation& information) const;

    std::filesystem::path stateDirectory;
    std::filesystem::path incomingDirectory;
    TestControls controls;
    PackageTrust trust;
    mutable std::mutex mutex;
    std::condition_variable stopSignal;
    bool stopping = false;
    std::map<Key, std::unique_ptr<Component>> components;
};

} // namespace Zun::Services::SoftwareManager::Service
