// Calls through the real proxy, socket and service server (the software manager on a thread of this
// process), each against a raw round trip of the very same bytes over a Unix socket pair. A large
// case carries a component whose pending manifest holds about 1 MB of texts and tags.
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>

#include "BenchSupport.hpp"
#include "RatioReporter.hpp"
#include "Zun/SoftwareManager/FrameCodec.hpp"
#include "Zun/SoftwareManager/SoftwareManagerServiceProxy.hpp"

namespace
{

using namespace Zun::Services::SoftwareManager::Services::Internal;
using namespace Zun::Services::SoftwareManager::Services::Internal::Transport;
using Text = Zun::System::Rsc::RscString<512>;
using Zun::Bench::Allocations;
using Zun::Bench::Exchange;
using Zun::Bench::SetAllocationsPerCall;

constexpr int LargeCount = 1000;
const Text Files("Sample files");
const Text Large("Alpha");

std::unique_ptr<SoftwareManagerServiceProxy> proxy;
const Zun::Bench::ServiceUnderTest* service = nullptr;

std::vector<std::uint8_t> Request(Operation operation, SoftwareKind kind, const Text& name)
{
    std::vector<std::uint8_t> frame;
    Zun::System::Rsc::RemotingWriter writer(frame);
    BeginFrame(frame);
    if (operation != Operation::GetAllSoftwareInformation && operation != Operation::GetPackageDirectory)
    {
        WriteKind(writer, kind);
        WriteText(writer, name);
    }
    FinishFrame(frame, FrameType::Request, operation, 1);
    return frame;
}

// The raw side of each comparison repeats what one call puts on the socket, captured once.
void RawSame(benchmark::State& state, Operation operation, SoftwareKind kind, const Text& name)
{
    static std::map<int, Exchange> captured;
    Exchange& exchange = captured[static_cast<int>(operation) * 16 + static_cast<int>(kind) + (name == Large ? 8 : 0)];
    if (exchange.request.empty())
    {
        exchange = service->Capture(Request(operation, kind, name));
    }
    Zun::Bench::RawRoundTrips(state, exchange);
}

void BM_ProxyGetInstallationState(benchmark::State& state)
{
    InstallationState installationState = InstallationState::Preparing;
    Text message;
    const std::size_t before = Allocations();
    for (auto _ : state)
    {
        if (proxy->GetInstallationState(SoftwareKind::GenericFiles, Files, installationState, message) != StatusCodes::Good ||
            installationState != InstallationState::Idle)
        {
            state.SkipWithError("GetInstallationState failed");
            break;
        }
    }
    SetAllocationsPerCall(state, before);
}
BENCHMARK(BM_ProxyGetInstallationState);

void BM_RawGetInstallationState(benchmark::State& state)
{
    RawSame(state, Operation::GetInstallationState, SoftwareKind::GenericFiles, Files);
}
BENCHMARK(BM_RawGetInstallationState);

void BM_ProxyGetSoftwareInformation(benchmark::State& state)
{
    SoftwareInformation information;
    const std::size_t before = Allocations();
    for (auto _ : state)
    {
        if (proxy->GetSoftwareInformation(SoftwareKind::GenericFiles, Files, information) != StatusCodes::Good || information.Name != Files)
        {
            state.SkipWithError("GetSoftwareInformation failed");
            break;
        }
    }
    SetAllocationsPerCall(state, before);
}
BENCHMARK(BM_ProxyGetSoftwareInformation);

void BM_RawGetSoftwareInformation(benchmark::State& state)
{
    RawSame(state, Operation::GetSoftwareInformation, SoftwareKind::GenericFiles, Files);
}
BENCHMARK(BM_RawGetSoftwareInformation);

void BM_ProxyGetPackageDirectory(benchmark::State& state)
{
    Text directory;
    const std::size_t before = Allocations();
    for (auto _ : state)
    {
        if (proxy->GetPackageDirectory(directory) != StatusCodes::Good || directory.IsEmpty())
        {
            state.SkipWithError("GetPackageDirectory failed");
            break;
        }
    }
    SetAllocationsPerCall(state, before);
}
BENCHMARK(BM_ProxyGetPackageDirectory);

void BM_RawGetPackageDirectory(benchmark::State& state)
{
    RawSame(state, Operation::GetPackageDirectory, SoftwareKind::None, Text());
}
BENCHMARK(BM_RawGetPackageDirectory);

// The interface returns a new list by value, so this one allocates by its contract.
void BM_ProxyGetAllSoftwareInformation(benchmark::State& state)
{
    const std::size_t before = Allocations();
    for (auto _ : state)
    {
        if (proxy->GetAllSoftwareInformation().size() != 3)
        {
            state.SkipWithError("GetAllSoftwareInformation failed");
            break;
        }
    }
    SetAllocationsPerCall(state, before);
}
BENCHMARK(BM_ProxyGetAllSoftwareInformation);

void BM_RawGetAllSoftwareInformation(benchmark::State& state)
{
    RawSame(state, Operation::GetAllSoftwareInformation, SoftwareKind::None, Text());
}
BENCHMARK(BM_RawGetAllSoftwareInformation);

void BM_ProxyGetSoftwareInformationLarge(benchmark::State& state)
{
    SoftwareInformation information;
    const std::size_t before = Allocations();
    for (auto _ : state)
    {
        if (proxy->GetSoftwareInformation(SoftwareKind::GenericFiles, Large, information) != StatusCodes::Good ||
            information.PendingManifest.Tags.size() != LargeCount || information.PendingManifest.TextList.size() != LargeCount)
        {
            state.SkipWithError("GetSoftwareInformation of the large record failed");
            break;
        }
    }
    SetAllocationsPerCall(state, before);
}
BENCHMARK(BM_ProxyGetSoftwareInformationLarge)->Unit(benchmark::kMicrosecond);

void BM_RawGetSoftwareInformationLarge(benchmark::State& state)
{
    RawSame(state, Operation::GetSoftwareInformation, SoftwareKind::GenericFiles, Large);
}
BENCHMARK(BM_RawGetSoftwareInformationLarge)->Unit(benchmark::kMicrosecond);

// Alpha, a generic-files component with a staged package whose manifest holds LargeCount texts of
// about 500 bytes and as many tags with 500-byte values: a record of about 1 MB on the wire.
bool StageLargeRecord(const Zun::Bench::ServiceUnderTest& underTest)
{
    std::filesystem::create_directories(underTest.Folder() / "state" / "components" / "generic-files" / "Alpha");
    std::string list = ",\"textList\":[";
    std::string tags = ",\"tags\":[";
    for (int i = 0; i < LargeCount; ++i)
    {
        list += (i ? ",\"" : "\"") + std::to_string(i) + std::string(500, 'x') + "\"";
        tags += std::string(i ? "," : "") + R"({"name":"n)" + std::to_string(i) + R"(","value":")" + std::string(500, 'v') + "\"}";
    }
    Text message;
    return underTest.Pack("large.tar", "9.9.9", list + "]" + tags + "]") &&
           proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Large, Text("large.tar"), message) == StatusCodes::Good;
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    int result = 1;
    {
        const Zun::Bench::ServiceUnderTest underTest;
        service = &underTest;
        proxy = std::make_unique<SoftwareManagerServiceProxy>(
            Zun::System::Rsc::RscEndpoint{Zun::String(underTest.SocketPath().string()), 30000});
        if (!StageLargeRecord(underTest))
        {
            std::fprintf(stderr, "staging the large record failed\n");
        }
        else
        {
            RatioReporter reporter;
            benchmark::RunSpecifiedBenchmarks(&reporter);
            std::printf("\n");
            for (const char* operation : {"GetInstallationState", "GetSoftwareInformation", "GetPackageDirectory",
                                          "GetAllSoftwareInformation", "GetSoftwareInformationLarge"})
            {
                const std::string proxyName = std::string("BM_Proxy") + operation;
                const std::string rawName = std::string("BM_Raw") + operation;
                RatioReporter::Print((std::string("transport_vs_raw/") + operation).c_str(), reporter.Ratio(proxyName, rawName));
                RatioReporter::Print((std::string("allocations_per_call/") + operation).c_str(),
                                     reporter.Counter(proxyName, "allocations_per_call"));
            }
            // Throughput of the large record relative to the raw socket's for the same bytes.
            RatioReporter::Print("large_throughput_vs_raw",
                                 reporter.Ratio("BM_RawGetSoftwareInformationLarge", "BM_ProxyGetSoftwareInformationLarge"));
            RatioReporter::Print("large_response_bytes", reporter.Counter("BM_RawGetSoftwareInformationLarge", "response_bytes"));
            result = 0;
        }
        proxy.reset();
    }
    benchmark::Shutdown();
    return result;
}
