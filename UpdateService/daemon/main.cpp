// zun-update-service: the update service daemon. Serves the local API (PROTOCOL.md) until SIGTERM
// or SIGINT.
#include <pthread.h>
#include <signal.h>

#include <iostream>

#include <CLI/CLI.hpp>

#include "Zun/Commons/LogManager.hpp"
#include "Zun/UpdateService/Daemon/UpdateDaemon.hpp"

using Zun::Services::SoftwareUpdate::UpdateService::Daemon::DaemonOptions;
using Zun::Services::SoftwareUpdate::UpdateService::Daemon::UpdateDaemon;

int main(int argc, char** argv)
{
    CLI::App app("The update service: hosts the updater module and serves the local API on a Unix socket", "zun-update-service");
    DaemonOptions options;
    int logLevel = 5;
    app.add_option("--state-dir", options.stateDirectory, "State directory: store, lock, upload spool (default $STATE_DIRECTORY, else ~/.local/state/zun-update)");
    app.add_option("--socket", options.socketPath, "Socket to serve (default $RUNTIME_DIRECTORY/service.sock, /run/zun-update/service.sock for root, else $XDG_RUNTIME_DIR/zun-update/service.sock)");
    app.add_option("--group", options.group, "Group of the socket whose members are served (default: the service's own group)");
    app.add_option("--manager-socket", options.managerSocketPath, "Software manager socket (default: the software manager's default)");
    app.add_option("--plugin", options.pluginPath, "Updater plug-in (default: the one beside this program)");
    app.add_option("--timeout-ms", options.managerTimeoutMilliseconds, "Deadline of one call to the software manager")->check(CLI::Range(1u, 600000u));
    app.add_option("--max-clients", options.maxClients, "Connections served at once")->check(CLI::Range(1, 65536));
    app.add_option("--client-queue", options.clientQueue, "Messages waiting per connection before it is dropped")->check(CLI::Range(16, 1 << 20));
    app.add_option("--max-package-bytes", options.maxPackageBytes, "Largest package accepted by stageBegin")->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1} << 40));
    app.add_option("--log-level", logLevel, "Log level to standard error, 0 (off) to 7 (trace)")->check(CLI::Range(0, 7));
    CLI11_PARSE(app, argc, argv);

    Zun::System::Commons::Diagnostics::Logging::LogManager::SetAllLevels(logLevel);
    // Every thread inherits the mask: only sigwait below sees the stop signals.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    ::signal(SIGPIPE, SIG_IGN);

    UpdateDaemon daemon(options);
    try
    {
        daemon.Start();
    }
    catch (const std::exception& e)
    {
        std::cerr << "zun-update-service: " << e.what() << "\n";
        return 1;
    }
    int received = 0;
    sigwait(&stopSignals, &received);
    daemon.Stop();
    return 0;
}
