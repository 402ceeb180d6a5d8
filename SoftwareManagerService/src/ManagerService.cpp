#include "Zun/SoftwareManagerService/ManagerService.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <fstream>
#include <thread>

#include <nlohmann/json.hpp>

#include "Zun/Commons/PosixCall.hpp"
#include "Zun/SoftwareManager/FrameCodec.hpp"
#include "Zun/SoftwareManagerService/FileSystem.hpp"
#include "Zun/SoftwareManagerService/Keyring.hpp"
#include "Zun/SoftwareManagerService/PackageFormat.hpp"
#include "Zun/SoftwareManagerService/SigningKey.hpp"

namespace Zun::Services::SoftwareManager::Service
{

namespace fs = std::filesystem;
namespace Codes = Services::Internal::Transport::StatusCodes;
using System::Commons::PosixCall;

struct ManagerService::Record
{
    InstallationState state = InstallationState::Idle;
    String message;
    std::optional<Manifest> current;
    std::uint64_t currentVersion = 0;
    std::optional<Manifest> pending;
    std::uint64_t pendingSerial = 0;
    std::uint64_t nextSerial = 1;
};

struct ManagerService::Component
{
    SoftwareKind kind = SoftwareKind::None;
    std::string name;
    fs::path directory;

    // Mirrors state.json, unless `unsaved`: a failure that could not be written yet.
    Record record;
    bool unsaved = false;

    // Staging or installing right now; other changes are refused meanwhile.
    bool busy = false;
    std::thread worker;
};

namespace
{

bool IsInProgress(InstallationState state)
{
    return state == InstallationState::Preparing || state == InstallationState::Copying || state == InstallationState::Activating;
}

bool IsFailed(InstallationState state)
{
    return state == InstallationState::PreparingFailed || state == InstallationState::CopyingFailed ||
           state == InstallationState::ActivatingFailed;
}

const char* PhaseName(InstallationState state)
{
    switch (state)
    {
    case InstallationState::Preparing:
        return "preparing";
    case InstallationState::Copying:
        return "copying";
    case InstallationState::Activating:
        return "activating";
    default:
        return "idle";
    }
}

// A name that is one plain folder name: not empty, no '/', no leading dot (temporary and hidden names).
bool IsAddressableName(const std::string& name)
{
    return !name.empty() && name.find('/') == std::string::npos && name.front() != '.';
}

// A manifest that travels although absent still needs a date of a known kind.
Manifest AbsentManifest()
{
    Manifest manifest;
    manifest.ReleaseDate = DateTime(DateTime::UnixEpochTicks, DateTimeKind::Utc);
    return manifest;
}

// A write refused for want of space, which the operator can remedy, unlike other failures.
bool IsOutOfSpace(const std::exception& e)
{
    const auto* system = dynamic_cast<const System::Commons::SystemException*>(&e);
    return system != nullptr && (system->GetErrorCode() == ENOSPC || system->GetErrorCode() == EDQUOT);
}

// Why an operation failed, with the remedy when the disk is full.
String Reason(const std::exception& e, const char* remedy)
{
    if (IsOutOfSpace(e))
    {
        return Exception::Format("not enough disk space ({0}). Free space, then {1}.", e.what(), remedy);
    }
    return String(e.what());
}

template <std::size_t N>
void CopyText(System::Rsc::RscString<N>& target, const String& text)
{
    target = System::Rsc::RscString<N>();
    SecureStrncpy(target.GetBuffer(), N, text.data(), text.size() < N - 1 ? text.size() : N - 1);
}

} // namespace

const char* ManagerService::GetKindFolder(SoftwareKind kind) noexcept
{
    switch (kind)
    {
    case SoftwareKind::GenericFiles:
        return "generic-files";
    case SoftwareKind::TesmoraEngineerProject:
        return "engineer-projects";
    default:
        return nullptr;
    }
}

bool ManagerService::EnsureStateDirectory(const fs::path& stateDirectory)
{
    if (fs::exists(stateDirectory))
    {
        return false;
    }
    fs::create_directories(stateDirectory);
    fs::permissions(stateDirectory, fs::perms::owner_all);
    return true;
}

ManagerService::ManagerService(const fs::path& stateDirectoryIn, TestControls controlsIn, PackageTrust trustIn)
    : stateDirectory(fs::canonical(stateDirectoryIn)), incomingDirectory(stateDirectory / "incoming"), controls(controlsIn), trust(std::move(trustIn))
{
    if (trust.keyring.empty())
    {
        trust.keyring = stateDirectory / "keyring";
    }
    fs::create_directories(incomingDirectory);
    fs::create_directories(trust.keyring);
    if (trust.allowUnsigned)
    {
        log.Log(3, "Unsigned packages are accepted (--allow-unsigned): for development only.");
    }
    for (SoftwareKind kind : {SoftwareKind::GenericFiles, SoftwareKind::TesmoraEngineerProject})
    {
        fs::create_directories(stateDirectory / "components" / GetKindFolder(kind));
    }
    std::lock_guard<std::mutex> lock(mutex);
    ScanComponents();
}

ManagerService::~ManagerService()
{
    Shutdown();
}

void ManagerService::Shutdown()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    stopSignal.notify_all();
    for (auto& [key, component] : components)
    {
        if (component->worker.joinable())
        {
            component->worker.join();
        }
    }
}

void ManagerService::ScanComponents()
{
    for (SoftwareKind kind : {SoftwareKind::GenericFiles, SoftwareKind::TesmoraEngineerProject})
    {
        for (const fs::directory_entry& entry : fs::directory_iterator(stateDirectory / "components" / GetKindFolder(kind)))
        {
            const std::string name = entry.path().filename().string();
            if (entry.is_directory() && !entry.is_symlink() && IsAddressableName(name) && components.count({kind, name}) == 0)
            {
                Load(kind, name);
            }
        }
    }
}

ManagerService::Component* ManagerService::Load(SoftwareKind kind, const std::string& name)
{
    auto component = std::make_unique<Component>();
    component->kind = kind;
    component->name = name;
    component->directory = stateDirectory / "components" / GetKindFolder(kind) / name;
    const fs::path stateFile = component->directory / "state.json";
    try
    {
        if (fs::exists(stateFile))
        {
            const nlohmann::json json = nlohmann::json::parse(ReadFile(stateFile));
            component->record.state = static_cast<InstallationState>(json.at("state").get<int>());
            component->record.message = json.at("message").get<std::string>();
            component->record.nextSerial = json.at("nextSerial").get<std::uint64_t>();
            if (!json.at("current").is_null())
            {
                component->record.current = ManifestFromJson(json["current"].at("manifest"));
                component->record.currentVersion = json["current"].at("version").get<std::uint64_t>();
            }
            if (!json.at("pending").is_null())
            {
                component->record.pending = ManifestFromJson(json["pending"].at("manifest"));
                component->record.pendingSerial = json["pending"].at("serial").get<std::uint64_t>();
            }
        }
        fs::create_directories(component->directory / "versions");
        fs::create_directories(component->directory / "staged");
        if (IsInProgress(component->record.state))
        {
            const char* phase = PhaseName(component->record.state);
            component->record.state = InstallationState::CopyingFailed;
            component->record.message =
                Exception::Format("Installation was interrupted while {0}: the service stopped before it ended. Resume to retry.", phase);
            log.Log(3, "{0} / {1}: {2}", GetKindFolder(kind), name, component->record.message);
            SaveFailure(*component);
        }
        else
        {
            CleanLeftovers(*component);
        }
    }
    catch (const std::exception& e)
    {
        // One damaged component must not take the others down; it stays invisible until repaired.
        log.Log(1, "Component '{0}' of kind {1} cannot be loaded and is ignored: {2}", name, static_cast<int>(kind), e.what());
        return nullptr;
    }
    Component* raw = component.get();
    components[{kind, name}] = std::move(component);
    return raw;
}

void ManagerService::Persist(const Component& component, const Record& record)
{
    nlohmann::json json;
    json["state"] = static_cast<int>(record.state);
    json["message"] = record.message;
    json["nextSerial"] = record.nextSerial;
    json["current"] =
        record.current ? nlohmann::json{{"manifest", ManifestToJson(*record.current)}, {"version", record.currentVersion}} : nlohmann::json();
    json["pending"] =
        record.pending ? nlohmann::json{{"manifest", ManifestToJson(*record.pending)}, {"serial", record.pendingSerial}} : nlohmann::json();
    WriteFileAtomically(component.directory / "state.json", json.dump(2) + "\n");
}

void ManagerService::Commit(Component& component, Record record)
{
    Persist(component, record);
    component.record = std::move(record);
    component.unsaved = false;
}

// A failure must be told even on a full disk, where writing it may fail too. The attempt's leftovers
// go first: they hold the space that the write needs (unreferenced by state.json, they may go at any
// time). Should the write fail still, the failure is answered from memory and written at a later
// call on the component (TrySave). Until then state.json shows the phase that was running, which a
// restart reports as interrupted, so a kill in between also ends in a failed installation with the
// old version in place. Space kept in reserve would be one more file to keep right after a kill.
void ManagerService::SaveFailure(Component& component)
{
    try
    {
        CleanLeftovers(component);
    }
    catch (const std::exception& e)
    {
        log.Log(1, "{0} / {1}: removing what the failed installation left failed: {2}", GetKindFolder(component.kind), component.name, e.what());
    }
    component.unsaved = true;
    try
    {
        Persist(component, component.record);
        component.unsaved = false;
    }
    catch (const std::exception& e)
    {
        log.Log(2, "{0} / {1}: the failure is not written yet, it is written when there is space: {2}", GetKindFolder(component.kind),
                component.name, e.what());
    }
}

void ManagerService::TrySave(Component& component)
{
    try
    {
        Persist(component, component.record);
        component.unsaved = false;
        log.Log(5, "{0} / {1}: the failure is written now.", GetKindFolder(component.kind), component.name);
    }
    catch (const std::exception&)
    {
        // Still no space: the caller is answered from memory as before.
    }
}

void ManagerService::CleanLeftovers(const Component& component)
{
    const fs::path link = component.directory / "current";
    if (component.record.current)
    {
        const fs::path target = fs::path("versions") / std::to_string(component.record.currentVersion);
        std::error_code error;
        if (fs::read_symlink(link, error) != target)
        {
            ReplaceSymlink(link, target);
        }
    }
    else if (fs::is_symlink(fs::symlink_status(link)))
    {
        RemoveAll(link);
    }
    RemoveAll(component.directory / "current.tmp");
    RemoveAll(component.directory / "state.json.tmp");
    auto prune = [](const fs::path& folder, bool keep, std::uint64_t kept) {
        for (const fs::directory_entry& entry : fs::directory_iterator(folder))
        {
            if (!(keep && entry.path().filename() == std::to_string(kept)))
            {
                RemoveAll(entry.path());
            }
        }
    };
    prune(component.directory / "versions", component.record.current.has_value(), component.record.currentVersion);
    prune(component.directory / "staged", component.record.pending.has_value(), component.record.pendingSerial);
}

ManagerService::Component* ManagerService::Find(SoftwareKind kind, const Name& name, ServiceStatusCode& status)
{
    if (GetKindFolder(kind) == nullptr)
    {
        status = Codes::BadInvalidArgument;
        return nullptr;
    }
    const std::string text = name.ToString();
    if (!IsAddressableName(text))
    {
        status = Codes::BadInvalidArgument;
        return nullptr;
    }
    const auto found = components.find({kind, text});
    if (found != components.end())
    {
        if (found->second->unsaved)
        {
            TrySave(*found->second);
        }
        return found->second.get();
    }
    const fs::path directory = stateDirectory / "components" / GetKindFolder(kind) / text;
    const fs::file_status fileStatus = fs::symlink_status(directory);
    Component* component = fs::is_directory(fileStatus) ? Load(kind, text) : nullptr;
    status = component != nullptr ? Codes::Good : Codes::BadNotFound;
    return component;
}

// Assigns into `information`, so that a record kept by the caller reuses its lists' storage.
void ManagerService::Describe(const Component& component, SoftwareInformation& information) const
{
    information.Name = String(component.name);
    information.Kind = component.kind;
    information.HasCurrentManifest = component.record.current.has_value();
    if (component.record.current)
    {
        information.CurrentManifest = *component.record.current;
    }
    else
    {
        information.CurrentManifest = AbsentManifest();
    }
    information.HasPendingManifest = component.record.pending.has_value();
    if (component.record.pending)
    {
        information.PendingManifest = *component.record.pending;
    }
    else
    {
        information.PendingManifest = AbsentManifest();
    }
}

std::vector<SoftwareInformation> ManagerService::GetAllSoftwareInformation()
{
    std::lock_guard<std::mutex> lock(mutex);
    ScanComponents();
    std::vector<SoftwareInformation> list;
    for (auto it = components.begin(); it != components.end();)
    {
        // A component whose folder was removed while idle is forgotten.
        if (!it->second->busy && !fs::exists(it->second->directory))
        {
            if (it->second->worker.joinable())
            {
                it->second->worker.join();
            }
            it = components.erase(it);
            continue;
        }
        Describe(*it->second, list.emplace_back());
        ++it;
    }
    return list;
}

ServiceStatusCode ManagerService::GetSoftwareInformation(SoftwareKind kind, const Name& name, SoftwareInformation& information)
{
    std::lock_guard<std::mutex> lock(mutex);
    ServiceStatusCode status = Codes::Good;
    Component* component = Find(kind, name, status);
    if (component == nullptr)
    {
        return status;
    }
    Describe(*component, information);
    return Codes::Good;
}

ServiceStatusCode ManagerService::GetInstallationState(SoftwareKind kind, const Name& name, InstallationState& state,
                                                       System::Rsc::RscString<512>& message)
{
    std::lock_guard<std::mutex> lock(mutex);
    ServiceStatusCode status = Codes::Good;
    Component* component = Find(kind, name, status);
    if (component == nullptr)
    {
        return status;
    }
    state = component->record.state;
    CopyText(message, component->record.message);
    return Codes::Good;
}

ServiceStatusCode ManagerService::SetSoftwarePackage(SoftwareKind kind, const Name& name, const System::Rsc::RscString<512>& package,
                                                     System::Rsc::RscString<512>& message)
{
    Component* component = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex);
        ServiceStatusCode status = Codes::Good;
        component = Find(kind, name, status);
        if (component == nullptr)
        {
            CopyText(message, Exception::Format("Unknown component '{0}' of kind {1}.", name, static_cast<int>(kind)));
            return status;
        }
        if (component->busy || IsInProgress(component->record.state))
        {
            CopyText(message, String("An installation or staging of this component is running; try again when it has ended."));
            return Codes::BadInvalidState;
        }
        component->busy = true;
    }
    String text;
    ServiceStatusCode status = Codes::BadInternalError;
    try
    {
        status = Stage(*component, package.ToString(), text);
    }
    catch (const std::exception& e)
    {
        text = Exception::Format("The package '{0}' could not be staged: {1}", package, Reason(e, "stage it again"));
        status = IsOutOfSpace(e) ? Codes::BadResourceUnavailable : Codes::BadInternalError;
    }
    log.Log(status == Codes::Good ? 6 : 3, "{0} / {1}: {2}", GetKindFolder(kind), name, text);
    CopyText(message, text);
    std::lock_guard<std::mutex> lock(mutex);
    component->busy = false;
    return status;
}

ServiceStatusCode ManagerService::Stage(Component& component, const String& reference, String& message)
{
    if (reference.empty())
    {
        message = "No package given.";
        return Codes::BadInvalidArgument;
    }
    const fs::path incoming = incomingDirectory;
    const fs::path referencePath(static_cast<const std::string&>(reference));
    const fs::path requested = referencePath.is_absolute() ? referencePath.lexically_normal() : (incoming / referencePath).lexically_normal();
    const std::string incomingPrefix = incoming.string() + "/";
    if (requested.string().rfind(incomingPrefix, 0) != 0)
    {
        message = Exception::Format("The package '{0}' is outside the package folder {1}.", reference, incoming.string());
        return Codes::BadInvalidArgument;
    }
    char resolved[PATH_MAX];
    if (::realpath(requested.c_str(), resolved) == nullptr)
    {
        message = Exception::Format("The package '{0}' does not exist in the package folder {1}.", reference, incoming.string());
        return Codes::BadNotFound;
    }
    if (std::string(resolved).rfind(incomingPrefix, 0) != 0)
    {
        message = Exception::Format("The package '{0}' leads outside the package folder {1}.", reference, incoming.string());
        return Codes::BadInvalidArgument;
    }
    // O_NOFOLLOW on the resolved path: a link swapped in after realpath is refused, not followed.
    int openError = 0;
    FileDescriptor fd(System::Commons::PosixCallAllowing("open", {ELOOP, ENOENT, EACCES}, openError, ::open, static_cast<const char*>(resolved),
                                                         O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    struct stat info
    {
    };
    if (fd.Get() < 0 || ::fstat(fd.Get(), &info) != 0 || !S_ISREG(info.st_mode))
    {
        message = Exception::Format("The package '{0}' is not a readable regular file.", reference);
        return Codes::BadInvalidArgument;
    }

    // The serial is committed with the pending package: a refused package leaves state.json as it was.
    // A folder of this serial can only be left over from a stop before that commit.
    std::uint64_t serial = 0;
    {
        std::lock_guard<std::mutex> lock(mutex);
        serial = component.record.nextSerial++;
    }
    const fs::path staged = component.directory / "staged" / std::to_string(serial);
    const fs::path temporary = component.directory / "staged" / (std::to_string(serial) + ".tmp");
    ExtractedPackage package;
    try
    {
        RemoveAll(temporary);
        RemoveAll(staged);
        package = ExtractPackage(fd.Get(), temporary, Keyring::Load(trust.keyring), trust.allowUnsigned);
        PosixCall("rename", ::rename, temporary.c_str(), staged.c_str());
        SyncDirectory(staged.parent_path());
    }
    catch (const PackageException& e)
    {
        RemoveAll(temporary);
        message = Exception::Format("The package '{0}' was refused: {1}", reference, e.GetMessage());
        return Codes::BadInvalidArgument;
    }
    catch (...)
    {
        RemoveAll(temporary);
        throw;
    }
    if (package.signer.empty())
    {
        log.Log(3, "{0} / {1}: the package '{2}' is NOT signed; it is staged only because unsigned packages are allowed.",
                GetKindFolder(component.kind), component.name, reference);
    }
    else
    {
        log.Log(6, "{0} / {1}: the package '{2}' is signed by {3}.", GetKindFolder(component.kind), component.name, reference, package.signer);
    }
    const Manifest& manifest = package.manifest;
    std::optional<std::uint64_t> previous;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (component.record.pending)
        {
            previous = component.record.pendingSerial;
        }
        Record next = component.record;
        next.pending = manifest;
        next.pendingSerial = serial;
        try
        {
            Commit(component, std::move(next));
        }
        catch (...)
        {
            RemoveAll(staged);
            throw;
        }
    }
    if (previous)
    {
        RemoveAll(component.directory / "staged" / std::to_string(*previous));
    }
    message = Exception::Format("Package '{0}' staged: version {1}.", reference, manifest.Version);
    return Codes::Good;
}

ServiceStatusCode ManagerService::RemoveSoftwarePackage(SoftwareKind kind, const Name& name)
{
    std::lock_guard<std::mutex> lock(mutex);
    ServiceStatusCode status = Codes::Good;
    Component* component = Find(kind, name, status);
    if (component == nullptr)
    {
        return status;
    }
    if (component->busy || IsInProgress(component->record.state))
    {
        return Codes::BadInvalidState;
    }
    if (component->record.pending)
    {
        Record next = component->record;
        next.pending.reset();
        Commit(*component, std::move(next));
        CleanLeftovers(*component);
    }
    return Codes::Good;
}

ServiceStatusCode ManagerService::GetPackageDirectory(System::Rsc::RscString<512>& directory)
{
    if (incomingDirectory.native().size() >= 512)
    {
        return Codes::BadResponseTooLarge;
    }
    directory = System::Rsc::RscString<512>(incomingDirectory.c_str());
    return Codes::Good;
}

ServiceStatusCode ManagerService::StartInstallation(SoftwareKind kind, const Name& name)
{
    std::lock_guard<std::mutex> lock(mutex);
    ServiceStatusCode status = Codes::Good;
    Component* component = Find(kind, name, status);
    if (component == nullptr)
    {
        return status;
    }
    if (IsFailed(component->record.state))
    {
        // A failed installation is retried through ResumeInstallation, which starts from scratch too.
        return Codes::BadInvalidState;
    }
    return BeginInstallation(*component, "Installation started");
}

ServiceStatusCode ManagerService::ResumeInstallation(SoftwareKind kind, const Name& name)
{
    std::lock_guard<std::mutex> lock(mutex);
    ServiceStatusCode status = Codes::Good;
    Component* component = Find(kind, name, status);
    if (component == nullptr)
    {
        return status;
    }
    if (!IsFailed(component->record.state))
    {
        return Codes::BadInvalidState;
    }
    return BeginInstallation(*component, "Installation resumed");
}

ServiceStatusCode ManagerService::BeginInstallation(Component& component, const char* what)
{
    if (stopping || component.busy || IsInProgress(component.record.state) || !component.record.pending)
    {
        return Codes::BadInvalidState;
    }
    if (component.worker.joinable())
    {
        component.worker.join();
    }
    Record next = component.record;
    next.state = InstallationState::Preparing;
    next.message = Exception::Format("{0}: preparing version {1}.", what, next.pending->Version);
    try
    {
        // Nothing of an earlier attempt is trusted: its leftovers go before the new one starts.
        CleanLeftovers(component);
        Commit(component, std::move(next));
    }
    catch (const std::exception& e)
    {
        if (!IsOutOfSpace(e))
        {
            throw;
        }
        log.Log(3, "{0} / {1}: the installation cannot start: {2}", GetKindFolder(component.kind), component.name, Reason(e, "try again"));
        return Codes::BadResourceUnavailable;
    }
    component.busy = true;
    log.Log(6, "{0} / {1}: {2}", GetKindFolder(component.kind), component.name, component.record.message);
    component.worker = std::thread([this, &component] { Install(component, controls); });
    return Codes::Good;
}

bool ManagerService::Delay(std::uint32_t milliseconds)
{
    std::unique_lock<std::mutex> lock(mutex);
    stopSignal.wait_for(lock, std::chrono::milliseconds(milliseconds), [this] { return stopping; });
    return !stopping;
}

void ManagerService::Fail(Component& component, InstallationState state, const String& message)
{
    std::lock_guard<std::mutex> lock(mutex);
    component.record.state = state;
    component.record.message = message;
    component.busy = false;
    log.Log(3, "{0} / {1}: {2}", GetKindFolder(component.kind), component.name, message);
    SaveFailure(component);
}

void ManagerService::Install(Component& component, const TestControls& installControls)
{
    InstallationState phase = InstallationState::Preparing;
    auto enter = [&](InstallationState next, const String& message) {
        std::lock_guard<std::mutex> lock(mutex);
        phase = next;
        Record record = component.record;
        record.state = next;
        record.message = message;
        Commit(component, std::move(record));
    };
    auto failed = [](InstallationState state) { return static_cast<InstallationState>(static_cast<int>(state) + 1); };
    auto injected = [&](FailPhase which) {
        if (installControls.failPhase != which)
        {
            return false;
        }
        Fail(component, failed(phase), Exception::Format("Installation failed while {0}: failure injected for testing.", PhaseName(phase)));
        return true;
    };
    try
    {
        Manifest manifest;
        fs::path staged;
        {
            std::lock_guard<std::mutex> lock(mutex);
            manifest = *component.record.pending;
            staged = component.directory / "staged" / std::to_string(component.record.pendingSerial);
        }
        const String version = manifest.Version.ToString();

        // Preparing: the staged package must still be whole.
        const String expected = PayloadDigestFromJson(nlohmann::json::parse(ReadFile(staged / "manifest.json")));
        const String actual = ComputePayloadDigest(staged / "payload");
        if (expected != actual)
        {
            Fail(component, InstallationState::PreparingFailed,
                 Exception::Format("Installation failed while preparing: the staged payload of version {0} is damaged.", version));
            return;
        }
        if (injected(FailPhase::Prepare) || !Delay(installControls.phaseDelayMilliseconds))
        {
            return;
        }

        // Copying: the new content goes beside the old one.
        std::uint64_t target = 0;
        {
            std::lock_guard<std::mutex> lock(mutex);
            target = component.record.nextSerial++;
        }
        enter(InstallationState::Copying, Exception::Format("Copying version {0}.", version));
        const fs::path versions = component.directory / "versions";
        const fs::path temporary = versions / (std::to_string(target) + ".tmp");
        CopyTree(staged / "payload", temporary);
        PosixCall("rename", ::rename, temporary.c_str(), (versions / std::to_string(target)).c_str());
        SyncDirectory(versions);
        if (injected(FailPhase::Copy) || !Delay(installControls.phaseDelayMilliseconds))
        {
            return;
        }

        // Activating: one rename of the link switches versions; state.json then commits it.
        enter(InstallationState::Activating, Exception::Format("Activating version {0}.", version));
        if (installControls.keepVersion)
        {
            if (!Delay(installControls.phaseDelayMilliseconds))
            {
                return;
            }
            std::lock_guard<std::mutex> lock(mutex);
            Record record = component.record;
            record.state = InstallationState::Idle;
            record.message = Exception::Format("Installation of version {0} ended without activating it.", version);
            Commit(component, std::move(record));
            component.busy = false;
            CleanLeftovers(component);
            return;
        }
        if (injected(FailPhase::Activate))
        {
            return;
        }
        ReplaceSymlink(component.directory / "current", fs::path("versions") / std::to_string(target));
        if (!Delay(installControls.phaseDelayMilliseconds))
        {
            return;
        }
        // Written before it is kept: a failed write leaves the old version current, to which the
        // failure's clean-up turns the link back.
        std::lock_guard<std::mutex> lock(mutex);
        Record record = component.record;
        record.current = manifest;
        record.currentVersion = target;
        record.pending.reset();
        record.state = InstallationState::Idle;
        record.message = Exception::Format("Installed version {0}.", version);
        Commit(component, std::move(record));
        component.busy = false;
        CleanLeftovers(component);
        log.Log(6, "{0} / {1}: {2}", GetKindFolder(component.kind), component.name, component.record.message);
    }
    catch (const std::exception& e)
    {
        Fail(component, failed(phase), Exception::Format("Installation failed while {0}: {1}", PhaseName(phase), Reason(e, "resume")));
    }
}

void ManagerService::CreateSamples()
{
    struct Sample
    {
        SoftwareKind kind;
        const char* name;
        const char* file;
        const char* shortText;
    };
    const Sample samples[] = {
        {SoftwareKind::GenericFiles, "Sample files", "sample-files", "Sample files"},
        {SoftwareKind::TesmoraEngineerProject, "Sample project", "sample-project", "Sample engineer project"},
    };
    const fs::path work = stateDirectory / ".samples";
    RemoveAll(work);
    fs::create_directories(work);
    const SigningKey key = SigningKey::Generate();
    WriteFileAtomically(trust.keyring / "samples.pem", key.PublicPem());
    for (const Sample& sample : samples)
    {
        fs::create_directories(stateDirectory / "components" / GetKindFolder(sample.kind) / sample.name);
        for (const char* version : {"1.0.0", "1.1.0"})
        {
            const fs::path payload = work / fmt::format("{}-{}", sample.file, version);
            fs::create_directories(payload);
            std::ofstream(payload / "readme.txt") << sample.shortText << " " << version << "\n";
            const nlohmann::json manifest = {
                {"shortText", sample.shortText},
                {"text1", fmt::format("{} in version {}", sample.shortText, version)},
                {"manufacturer", "Zun sample manufacturer"},
                {"manufacturerUri", "https://example.com/zun"},
                {"version", version},
                {"releaseDate", version == std::string("1.0.0") ? "2026-01-15T08:00:00Z" : "2026-11-01T08:00:00Z"},
                {"updateBehavior", 0},
                {"tags", nlohmann::json::array({{{"name", "channel"}, {"value", "sample"}}})},
            };
            WritePackage(manifest, payload, incomingDirectory / fmt::format("{}-{}.tar", sample.file, version), &key);
        }
        Name name{sample.name};
        System::Rsc::RscString<512> message;
        if (SetSoftwarePackage(sample.kind, name, System::Rsc::RscString<512>(fmt::format("{}-1.0.0.tar", sample.file).c_str()), message) !=
            Codes::Good)
        {
            throw System::Commons::InvalidOperationException(message.ToString());
        }
        Component* component = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex);
            ServiceStatusCode status = Codes::Good;
            component = Find(sample.kind, name, status);
            component->busy = true;
            component->record.state = InstallationState::Preparing;
            Persist(*component, component->record);
        }
        Install(*component, TestControls{});
        fs::remove(incomingDirectory / fmt::format("{}-1.0.0.tar", sample.file));
    }
    RemoveAll(work);
}

} // namespace Zun::Services::SoftwareManager::Service
