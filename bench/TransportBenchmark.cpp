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

#include "BenchSupport.hpp"
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

using Zun::Bench::Exchange;
using Zun::Bench::RawRoundTrips;

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
    const Zun::Bench::ManagerProcess manager;
    socketPath = manager.SocketPath();
    proxy = std::make_unique<SoftwareManagerServiceProxy>(Zun::System::Rsc::RscEndpoint{Zun::String(socketPath.string()), 5000});
    const bool ready = manager.WaitUntilReady();
    RatioReporter reporter;
    if (ready)
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
    benchmark::Shutdown();
    return ready ? 0 : 1;
}
