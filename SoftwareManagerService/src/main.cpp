// zun-software-manager: the software manager service process, the package builder ("pack"), its
// key maker ("keygen") and the offline package check ("verify").
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <optional>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "Zun/Commons/LogManager.hpp"
#include "Zun/Commons/PosixCall.hpp"
#include "Zun/SoftwareManager/DefaultPaths.hpp"
#include "Zun/SoftwareManagerService/FileSystem.hpp"
#include "Zun/SoftwareManagerService/Keyring.hpp"
#include "Zun/SoftwareManagerService/ManagerService.hpp"
#include "Zun/SoftwareManagerService/PackageFormat.hpp"
#include "Zun/SoftwareManagerService/ServiceServer.hpp"
#include "Zun/SoftwareManagerService/SigningKey.hpp"

namespace fs = std::filesystem;
using namespace Zun::Services::SoftwareManager::Service;
using Zun::System::Commons::PosixCall;

namespace
{

int stopPipe[2] = {-1, -1};

extern "C" void OnStopSignal(int)
{
    const int saved = errno;
    const char byte = 1;
    // Nothing to do when the pipe is full: one byte already wakes the loop.
    [[maybe_unused]] const ssize_t ignored = ::write(stopPipe[1], &byte, 1);
    errno = saved;
}

void InstallSignalHandlers()
{
    PosixCall("pipe2", ::pipe2, stopPipe, O_CLOEXEC | O_NONBLOCK);
    struct sigaction action
    {
    };
    action.sa_handler = OnStopSignal;
    sigemptyset(&action.sa_mask);
    PosixCall("sigaction", ::sigaction, SIGTERM, static_cast<const struct sigaction*>(&action), static_cast<struct sigaction*>(nullptr));
    PosixCall("sigaction", ::sigaction, SIGINT, static_cast<const struct sigaction*>(&action), static_cast<struct sigaction*>(nullptr));
    action.sa_handler = SIG_IGN;
    PosixCall("sigaction", ::sigaction, SIGPIPE, static_cast<const struct sigaction*>(&action), static_cast<struct sigaction*>(nullptr));
}

int Pack(const std::string& manifestPath, const std::string& payloadPath, const std::string& outputPath, const std::string& keyPath)
{
    const nlohmann::json manifest = nlohmann::json::parse(ReadFile(manifestPath), nullptr, false);
    if (manifest.is_discarded())
    {
        throw PackageException("'{0}' is not valid JSON.", manifestPath);
    }
    std::optional<SigningKey> key;
    if (!keyPath.empty())
    {
        key = SigningKey::Load(keyPath);
    }
    WritePackage(manifest, payloadPath, outputPath, key ? &*key : nullptr);
    std::cout << "Wrote " << outputPath << (key ? ", signed by key " + key->GetKeyId() : std::string(", unsigned")) << "\n";
    return 0;
}

void WriteNewFile(const std::string& path, const std::string& content, mode_t mode)
{
    FileDescriptor fd(PosixCall("open", ::open, path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    WriteAll(fd.Get(), content.data(), content.size());
    PosixCall("fsync", ::fsync, fd.Get());
}

int MakeKeyPair(const std::string& privatePath, const std::string& publicPath)
{
    const SigningKey key = SigningKey::Generate();
    WriteNewFile(privatePath, key.PrivatePem(), 0600);
    WriteNewFile(publicPath, key.PublicPem(), 0644);
    std::cout << "Key " << key.GetKeyId() << ": private key in " << privatePath << " (keep it secret; sign with pack --key), public key in "
              << publicPath << " (copy it into the software manager's keyring).\n";
    return 0;
}

int Verify(const std::string& packagePath, const std::string& keyringPath)
{
    const Keyring keyring = Keyring::Load(keyringPath);
    FileDescriptor fd(PosixCall("open", ::open, packagePath.c_str(), O_RDONLY | O_CLOEXEC));
    std::string work = (fs::temp_directory_path() / "zun-verify-XXXXXX").string();
    if (::mkdtemp(work.data()) == nullptr)
    {
        throw PackageException("Cannot create a temporary folder in {0}.", fs::temp_directory_path().string());
    }
    int result = 1;
    try
    {
        const ExtractedPackage package = ExtractPackage(fd.Get(), fs::path(work) / "package", keyring, false);
        std::cout << packagePath << ": good: version " << package.manifest.Version.CStr() << ", signed by " << package.signer
                  << " of the keyring, payload intact.\n";
        result = 0;
    }
    catch (const PackageException& e)
    {
        std::cerr << packagePath << ": refused: " << e.GetMessage() << "\n";
    }
    catch (...)
    {
        RemoveAll(work);
        throw;
    }
    RemoveAll(work);
    return result;
}

// What an operator must hear of before the first package is refused, or wrongly trusted.
void WarnAboutKeyring(const fs::path& keyring)
{
    if ((fs::status(keyring).permissions() & (fs::perms::group_write | fs::perms::others_write)) != fs::perms::none)
    {
        std::cerr << "zun-software-manager: warning: other users may write to the keyring " << keyring.string()
                  << " and so make the manager trust their keys\n";
    }
    if (Keyring::Load(keyring).Size() == 0)
    {
        std::cerr << "zun-software-manager: warning: the keyring " << keyring.string()
                  << " holds no public key (*.pem): no signed package is accepted until one is added\n";
    }
}

int Serve(const std::string& stateOption, const std::string& socketOption, std::optional<uid_t> allowUid, const TestControls& controls,
          const PackageTrust& trust)
{
    const fs::path stateDirectory = stateOption.empty() ? fs::path(Zun::Services::SoftwareManager::Services::Internal::Transport::GetDefaultStateDirectory())
                                                        : fs::path(stateOption);
    const bool created = ManagerService::EnsureStateDirectory(stateDirectory);
    ManagerService service(stateDirectory, controls, trust);
    if (created)
    {
        try
        {
            service.CreateSamples();
        }
        catch (...)
        {
            // Half a first run would look like a real state folder next time.
            RemoveAll(stateDirectory);
            throw;
        }
        std::cerr << "zun-software-manager: created " << stateDirectory.string() << " with two sample components and their packages in "
                  << service.GetIncomingDirectory().string() << ", signed by a key made for them (public key "
                  << (service.GetKeyringDirectory() / "samples.pem").string() << ")\n";
    }
    WarnAboutKeyring(service.GetKeyringDirectory());
    const std::string socketPath = socketOption.empty()
                                       ? Zun::Services::SoftwareManager::Services::Internal::Transport::GetSocketPathIn(fs::canonical(stateDirectory).string())
                                       : socketOption;
    InstallSignalHandlers();
    ServiceServer server(service, socketPath, allowUid);
    server.Listen();
    server.Run(stopPipe[0]);
    service.Shutdown();
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{"The Zun software manager service: stages and installs software packages of generic files and engineer projects."};
    std::string stateDirectory;
    std::string socketPath;
    long long allowUid = -1;
    int logLevel = Zun::System::Commons::Diagnostics::Logging::LogManager::DefaultLevel;
    TestControls controls;
    std::string failPhase = "none";
    app.add_option("--state-dir", stateDirectory, "State folder (default $XDG_STATE_HOME/zun-software-manager or ~/.local/state/zun-software-manager)");
    app.add_option("--socket", socketPath, "Socket path (default <state-dir>/run/software-manager.sock)");
    app.add_option("--allow-uid", allowUid, "A user id allowed besides the service's own")->check(CLI::Range(0LL, 4294967294LL));
    app.add_option("--log-level", logLevel, "Log level, 1 (fatal) to 7 (trace)")->check(CLI::Range(0, 7));
    app.add_option("--phase-delay-ms", controls.phaseDelayMilliseconds, "Test control: each installation phase lasts this long");
    app.add_option("--fail-phase", failPhase, "Test control: make every installation fail in this phase")
        ->check(CLI::IsMember({"none", "prepare", "copy", "activate"}));
    app.add_flag("--keep-version", controls.keepVersion, "Test control: end installations idle without making the pending version current");
    PackageTrust trust;
    std::string keyringPath;
    app.add_option("--keyring", keyringPath, "Folder of the public keys (*.pem) trusted to sign packages (default <state-dir>/keyring)");
    app.add_flag("--allow-unsigned", trust.allowUnsigned, "Development only: stage unsigned packages too, each with a warning");

    std::string manifestPath;
    std::string payloadPath;
    std::string outputPath;
    CLI::App* pack = app.add_subcommand("pack", "Build a package from a manifest and a payload file or folder");
    pack->add_option("--manifest", manifestPath, "Manifest JSON (payloadSha256 is filled in)")->required()->check(CLI::ExistingFile);
    pack->add_option("--payload", payloadPath, "Payload file or folder")->required()->check(CLI::ExistingPath);
    pack->add_option("-o,--output", outputPath, "Package to write (tar)")->required();
    std::string keyPath;
    pack->add_option("--key", keyPath, "Ed25519 private key (PEM) that signs the package; without it the package is unsigned")
        ->check(CLI::ExistingFile);

    std::string privatePath;
    std::string publicPath;
    CLI::App* keygen = app.add_subcommand("keygen", "Make an Ed25519 key pair for signing packages");
    keygen->add_option("--private", privatePath, "Private key to write (PEM, mode 0600; must not exist)")->required();
    keygen->add_option("--public", publicPath, "Public key to write (PEM; must not exist)")->required();

    std::string packagePath;
    std::string verifyKeyring;
    CLI::App* verify = app.add_subcommand("verify", "Check a package offline: its signature against a keyring, its manifest and payload");
    verify->add_option("package", packagePath, "Package (tar)")->required()->check(CLI::ExistingFile);
    verify->add_option("--keyring", verifyKeyring, "Folder of the trusted public keys (*.pem)")->required()->check(CLI::ExistingDirectory);

    CLI11_PARSE(app, argc, argv);
    Zun::System::Commons::Diagnostics::Logging::LogManager::SetAllLevels(logLevel);
    controls.failPhase = failPhase == "prepare"    ? FailPhase::Prepare
                         : failPhase == "copy"     ? FailPhase::Copy
                         : failPhase == "activate" ? FailPhase::Activate
                                                   : FailPhase::None;
    try
    {
        if (*pack)
        {
            return Pack(manifestPath, payloadPath, outputPath, keyPath);
        }
        if (*keygen)
        {
            return MakeKeyPair(privatePath, publicPath);
        }
        if (*verify)
        {
            return Verify(packagePath, verifyKeyring);
        }
        trust.keyring = keyringPath;
        return Serve(stateDirectory, socketPath, allowUid >= 0 ? std::optional<uid_t>(static_cast<uid_t>(allowUid)) : std::nullopt, controls, trust);
    }
    catch (const std::exception& e)
    {
        std::cerr << "zun-software-manager: " << e.what() << "\n";
        return 1;
    }
}
