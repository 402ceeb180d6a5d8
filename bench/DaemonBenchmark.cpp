// The update service daemon's cost: one getStatus through zun-update-service (protocol, module,
// software manager) against the software manager's GetInstallationState alone, measured in one run;
// and the daemon's threads while nothing installs (no status thread then).
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <thread>

#include <benchmark/benchmark.h>

#include "BenchSupport.hpp"
#include "RatioReporter.hpp"
#include "Zun/SoftwareManager/SoftwareManagerServiceProxy.hpp"
#include "Zun/UpdateService/Protocol/MessageFraming.hpp"

namespace
{

using Zun::Services::SoftwareManager::Services::Internal::InstallationState;
using Zun::Services::SoftwareManager::Services::Internal::SoftwareKind;
using Zun::Services::SoftwareManager::Services::Internal::SoftwareManagerServiceProxy;
using Zun::Services::SoftwareUpdate::UpdateService::Protocol::MessageFraming;

int client = -1;
std::unique_ptr<SoftwareManagerServiceProxy> proxy;

int Connect(const std::filesystem::path& socket)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socket.c_str(), sizeof address.sun_path - 1);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
    {
        ::close(fd);
        return -1;
    }
    return fd;
}

std::size_t Threads(pid_t pid)
{
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task"))
    {
        ++count;
    }
    return count;
}

void BM_DaemonGetStatus(benchmark::State& state)
{
    const nlohmann::json request = {{"type", "request"}, {"id", 1}, {"op", "getStatus"}, {"params", {{"name", "Generic files / Sample files"}}}};
    nlohmann::json response;
    for (auto _ : state)
    {
        MessageFraming::WriteMessage(client, request);
        if (!MessageFraming::ReadMessage(client, response) || response["status"] != 0)
        {
            state.SkipWithError("getStatus failed");
            break;
        }
    }
}
BENCHMARK(BM_DaemonGetStatus);

void BM_ManagerGetInstallationState(benchmark::State& state)
{
    InstallationState installationState = InstallationState::Preparing;
    const Zun::System::Rsc::RscString<512> name("Sample files");
    Zun::System::Rsc::RscString<512> message;
    for (auto _ : state)
    {
        if (proxy->GetInstallationState(SoftwareKind::GenericFiles, name, installationState, message) != 0)
        {
            state.SkipWithError("GetInstallationState failed");
            break;
        }
    }
}
BENCHMARK(BM_ManagerGetInstallationState);

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    int result = 1;
    const Zun::Bench::ServiceUnderTest manager;
    const std::filesystem::path socket = manager.Folder() / "service.sock";
    const std::string state = (manager.Folder() / "service").string();
    const pid_t daemon = ::fork();
    if (daemon == 0)
    {
        ::execl(ZUN_UPDATE_SERVICE_BINARY, "zun-update-service", "--state-dir", state.c_str(), "--socket", socket.c_str(),
                "--manager-socket", manager.SocketPath().c_str(), "--log-level", "1", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    for (int attempt = 0; attempt < 3000 && client < 0; ++attempt)
    {
        client = Connect(socket);
        if (client < 0)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    nlohmann::json hello;
    if (client < 0 || (MessageFraming::WriteMessage(client, {{"type", "hello"}, {"protocol", 1}}), !MessageFraming::ReadMessage(client, hello)))
    {
        std::fprintf(stderr, "zun-update-service did not answer on %s\n", socket.c_str());
    }
    else
    {
        // Main thread, accept thread, this connection's thread: nothing installs, so no status thread.
        const std::size_t idleThreads = Threads(daemon);
        proxy = std::make_unique<SoftwareManagerServiceProxy>(Zun::System::Rsc::RscEndpoint{Zun::String(manager.SocketPath().string()), 30000});
        RatioReporter reporter;
        benchmark::RunSpecifiedBenchmarks(&reporter);
        RatioReporter::Print("daemon_getstatus_vs_manager_call", reporter.Ratio("BM_DaemonGetStatus", "BM_ManagerGetInstallationState"));
        RatioReporter::Print("daemon_idle_threads", static_cast<double>(idleThreads));
        result = 0;
    }
    proxy.reset();
    if (client >= 0)
    {
        ::close(client);
    }
    ::kill(daemon, SIGTERM);
    ::waitpid(daemon, nullptr, 0);
    benchmark::Shutdown();
    return result;
}
