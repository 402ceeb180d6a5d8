// Calls through the real transport to a running zun-software-manager process, against a raw
// request/response of the same byte counts over a Unix socket pair.
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <thread>

#include <benchmark/benchmark.h>

#include "RatioReporter.hpp"
#include "Zun/SoftwareManager/FrameCodec.hpp"
#include "Zun/SoftwareManager/SocketChannel.hpp"
#include "Zun/SoftwareManager/SoftwareManagerServiceProxy.hpp"

namespace
{

namespace fs = std::filesystem;
using namespace Zun::Services::SoftwareManager::Services::Internal;
using namespace Zun::Services::SoftwareManager::Services::Internal::Transport;
using Text = Zun::System::Rsc::RscString<512>;

fs::path socketPath;
std::unique_ptr<SoftwareManagerServiceProxy> proxy;

struct Exchange
{
    std::size_t request = 0;
    std::size_t response = 0;
};

// Sizes of one request and its response, measured on the wire.
Exchange Measure(Operation operation)
{
    std::vector<std::uint8_t> payload;
    Zun::System::Rsc::RemotingWriter writer(payload);
    WriteKind(writer, SoftwareKind::GenericFiles);
    WriteText(writer, Text("Sample files"));
    const auto request = EncodeFrame(FrameType::Request, operation, 1, payload);
    SocketChannel channel;
    const Deadline deadline = Clock::now() + std::chrono::seconds(5);
    Frame answer;
    if (SocketChannel::Connect(socketPath.string(), deadline, channel) != IoResult::Ok || channel.SendFrame(request, deadline) != IoResult::Ok ||
        channel.ReceiveFrame(answer, deadline, deadline) != IoResult::Ok)
    {
        return {};
    }
    return {request.size(), FrameHeaderSize + answer.payload.size()};
}

// One request of `exchange.request` bytes and one answer of `exchange.response` bytes per iteration.
void RawRoundTrips(benchmark::State& state, Exchange exchange)
{
    int fds[2];
    ::socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
    std::thread echo([&] {
        std::vector<std::uint8_t> in(exchange.request);
        std::vector<std::uint8_t> out(exchange.response, 1);
        SocketChannel peer(fds[1]);
        while (peer.ReceiveExact(in.data(), in.size(), NoDeadline) == IoResult::Ok &&
               peer.SendAll(out.data(), out.size(), NoDeadline) == IoResult::Ok)
        {
        }
    });
    {
        SocketChannel channel(fds[0]);
        std::vector<std::uint8_t> request(exchange.request, 2);
        std::vector<std::uint8_t> response(exchange.response);
        for (auto _ : state)
        {
            const Deadline deadline = Clock::now() + std::chrono::seconds(5);
            channel.SendAll(request.data(), request.size(), deadline);
            channel.ReceiveExact(response.data(), response.size(), deadline);
        }
    }
    echo.join();
    state.counters["request_bytes"] = static_cast<double>(exchange.request);
    state.counters["response_bytes"] = static_cast<double>(exchange.response);
}

void BM_ProxyGetInstallationState(benchmark::State& state)
{
    InstallationState installationState = InstallationState::Idle;
    Text message;
    for (auto _ : state)
    {
        if (proxy->GetInstallationState(SoftwareKind::GenericFiles, Text("Sample files"), installationState, message) != 0)
        {
            state.SkipWithError("GetInstallationState failed");
            break;
        }
    }
}
BENCHMARK(BM_ProxyGetInstallationState);

void BM_RawGetInstallationStateSizes(benchmark::State& state)
{
    RawRoundTrips(state, Measure(Operation::GetInstallationState));
}
BENCHMARK(BM_RawGetInstallationStateSizes);

void BM_ProxyGetSoftwareInformation(benchmark::State& state)
{
    for (auto _ : state)
    {
        SoftwareInformation information;
        if (proxy->GetSoftwareInformation(SoftwareKind::GenericFiles, Text("Sample files"), information) != 0)
        {
            state.SkipWithError("GetSoftwareInformation failed");
            break;
        }
    }
}
BENCHMARK(BM_ProxyGetSoftwareInformation);

void BM_RawGetSoftwareInformationSizes(benchmark::State& state)
{
    RawRoundTrips(state, Measure(Operation::GetSoftwareInformation));
}
BENCHMARK(BM_RawGetSoftwareInformationSizes);

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    char pattern[] = "/tmp/zun-bench-XXXXXX";
    const fs::path folder = ::mkdtemp(pattern);
    socketPath = folder / "sm.sock";
    const std::string stateArgument = (folder / "state").string();
    const std::string socketArgument = socketPath.string();
    const pid_t pid = ::fork();
    if (pid == 0)
    {
        // A state folder that does not exist yet gets the sample components.
        ::execl(ZUN_SOFTWARE_MANAGER_BINARY, ZUN_SOFTWARE_MANAGER_BINARY, "--state-dir", stateArgument.c_str(), "--socket", socketArgument.c_str(),
                "--log-level", "1", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    proxy = std::make_unique<SoftwareManagerServiceProxy>(Zun::System::Rsc::RscEndpoint{Zun::String(socketPath.string()), 5000});
    int ready = 0;
    for (int attempt = 0; attempt < 2000 && ready == 0; ++attempt)
    {
        SocketChannel channel;
        ready = SocketChannel::Connect(socketPath.string(), Clock::now() + std::chrono::milliseconds(100), channel) == IoResult::Ok;
        if (ready == 0)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    RatioReporter reporter;
    if (ready != 0)
    {
        benchmark::RunSpecifiedBenchmarks(&reporter);
        std::printf("\nGetInstallationState, transport / raw: %.2f\n", reporter.Ratio("BM_ProxyGetInstallationState", "BM_RawGetInstallationStateSizes"));
        std::printf("GetSoftwareInformation, transport / raw: %.2f\n",
                    reporter.Ratio("BM_ProxyGetSoftwareInformation", "BM_RawGetSoftwareInformationSizes"));
    }
    else
    {
        std::fprintf(stderr, "the software manager service did not start\n");
    }
    proxy.reset();
    ::kill(pid, SIGTERM);
    ::waitpid(pid, nullptr, 0);
    fs::remove_all(folder);
    benchmark::Shutdown();
    return ready != 0 ? 0 : 1;
}
