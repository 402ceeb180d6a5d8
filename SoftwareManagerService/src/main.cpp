// zun-software-manager: the software manager service process, and the package builder ("pack").
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <optional>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "Zun/Commons/LogManager.hpp"
#include "Zun/Commons/PosixCall.hpp"
#include "Zun/SoftwareManager/DefaultPaths.hpp"
#include "Zun/SoftwareManagerService/FileSystem.hpp"
#include "Zun/SoftwareManagerService/ManagerService.hpp"
#include "Zun/SoftwareManagerService/PackageFormat.hpp"
#include "Zun/SoftwareManagerService/ServiceServer.hpp"

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

int Pack(const std::string& manifestPath, const std::string& payloadPath, const std::string& outputPath)
{
    const nlohmann::json manifest = nlohmann::json::parse(ReadFile(manifestPath), nullptr, false);
    if (manifest.is_discarded())
    {
        throw PackageException("'{0}' is not valid JSON.", manifestPath);
    }
    WritePackage(manifest, payloadPath, outputPath);
    std::cout << "Wrote " << outputPath << "\n";
    return 0;
}

int Serve(const std::string& stateOption, const std::string& socketOption, std::optional<uid_t> allowUid, const TestControls& controls)
{
    const fs::path stateDirectory = stateOption.empty() ? fs::path(Zun::Services::SoftwareManager::Services::Internal::Transport::GetDefaultStateDirectory())
                                                        : fs::path(stateOption);
    const bool created = ManagerService::EnsureStateDirectory(stateDirectory);
    ManagerService service(stateDirectory, controls);
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
                  << service.GetIncomingDirectory().string() << "\n";
    }
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

    std::string manifestPath;
    std::string payloadPath;
    std::string outputPath;
    CLI::App* pack = app.add_subcommand("pack", "Build a package from a manifest and a payload file or folder");
    pack->add_option("--manifest", manifestPath, "Manifest JSON (payloadSha256 is filled in)")->required()->check(CLI::ExistingFile);
    pack->add_option("--payload", payloadPath, "Payload file or folder")->required()->check(CLI::ExistingPath);
    pack->add_option("-o,--output", outputPath, "Package to write (tar)")->required();

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
            return Pack(manifestPath, payloadPath, outputPath);
        }
        return Serve(stateDirectory, socketPath, allowUid >= 0 ? std::optional<uid_t>(static_cast<uid_t>(allowUid)) : std::nullopt, controls);
    }
    catch (const std::exception& e)
    {
        std::cerr << "zun-software-manager: " << e.what() << "\n";
        return 1;
    }
}
