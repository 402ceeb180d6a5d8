// GetStatus of the updater module, loaded from the plug-in file, against the software manager
// service on a thread of this process, compared with a raw round trip of the same bytes over a Unix
// socket pair. A counting relay first checks that one GetStatus puts exactly one GetInstallationState
// exchange on the socket; the raw side repeats that exchange's bytes.
#include <dlfcn.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <benchmark/benchmark.h>

#include "BenchSupport.hpp"
#include "RatioReporter.hpp"
#include "SoftwareUpdater/EntryPoint.hpp"
#include "Zun/Commons/Singleton.hpp"
#include "Zun/Nm/NotificationManager.hpp"
#include "Zun/Rsc/ServiceManager.hpp"
#include "Zun/SoftwareManager/SocketChannel.hpp"
#include "Zun/SoftwareManager/SoftwareManagerServiceProxy.hpp"

namespace
{

namespace fs = std::filesystem;
using namespace Zun::Services::SoftwareManager::Services::Internal;
using namespace Zun::Services::SoftwareManager::Services::Internal::Transport;
using Zun::String;
using Zun::Services::SoftwareUpdate::IUpdaterModule;
using Zun::Services::SoftwareUpdate::IUpdaterStatus;
using Record = Zun::Services::SoftwareUpdate::Services::Internal::SoftwareUpdateStatus;
using HostState = Zun::Services::SoftwareUpdate::Services::Internal::InstallationState;
using EntryFunction = decltype(&CreateSoftwareUpdateModuleLibrary);
using Zun::Bench::Exchange;

const String Component = "Generic files / Sample files";

// The update service's status store, in memory: the benchmark is about the module and the transport.
class MemoryStatus : public IUpdaterStatus
{
public:
    std::vector<String> GetComponentNames() override
    {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<String> names;
        for (const auto& entry : records)
        {
            names.push_back(entry.first);
        }
        return names;
    }
    bool GetStatus(const String& name, Record& status) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        const auto it = records.find(name);
        if (it == records.end())
        {
            return false;
        }
        status = it->second.status;
        return true;
    }
    void SetUpdateStatus(const String& name, const String& text, bool /*idle*/) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        records[name].status.ErrorMessage = Zun::System::Rsc::RscString<512>(text);
    }
    void SetPercentComplete(const String& /*name*/, std::uint8_t /*percent*/) override {}
    bool SwitchToInstalling(const String& name, bool /*needsPreparation*/) override
    {
        return Switch(name, HostState::Idle, HostState::Installing);
    }
    void FinishInstallation(const String& name, bool success) override
    {
        Switch(name, HostState::Installing, success ? HostState::Idle : HostState::Error);
    }
    bool ResetError(const String& name) override { return Switch(name, HostState::Error, HostState::Idle); }
    void SetProperty(const String& name, const String& key, const String& value, bool /*persistent*/) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        records[name].properties[key] = value;
    }
    void RemoveProperty(const String& name, const String& key) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        records[name].properties.erase(key);
    }
    bool GetProperty(const String& name, const String& key, String& value) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        const auto& properties = records[name].properties;
        const auto it = properties.find(key);
        if (it == properties.end())
        {
            return false;
        }
        value = it->second;
        return true;
    }
    void AddComponent(const String& name) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        records[name];
    }
    void RemoveComponent(const String& name) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        records.erase(name);
    }

private:
    struct Entry
    {
        Record status;
        std::map<String, String> properties;
    };

    bool Switch(const String& name, HostState from, HostState to)
    {
        std::lock_guard<std::mutex> lock(mutex);
        Record& status = records[name].status;
        if (status.InstallationState != from)
        {
            return false;
        }
        status.InstallationState = to;
        return true;
    }

    std::mutex mutex;
    std::map<String, Entry> records;
};

// Forwards one connection at a time between `listenPath` and the service, counting the bytes.
class CountingRelay
{
public:
    CountingRelay(const fs::path& listenPath, fs::path servicePath) : servicePath(std::move(servicePath))
    {
        listenFd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "%s", listenPath.c_str());
        if (::bind(listenFd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || ::listen(listenFd, 4) != 0 ||
            ::pipe(stopPipe) != 0)
        {
            throw std::runtime_error(std::string("relay: ") + std::strerror(errno));
        }
        thread = std::thread([this] { Run(); });
    }
    ~CountingRelay()
    {
        const char stop = 0;
        (void)::write(stopPipe[1], &stop, 1);
        thread.join();
        ::close(listenFd);
        ::close(stopPipe[0]);
        ::close(stopPipe[1]);
    }

    std::atomic<std::size_t> toService{0};
    std::atomic<std::size_t> fromService{0};

private:
    void Run()
    {
        for (;;)
        {
            pollfd waiting[2] = {{listenFd, POLLIN, 0}, {stopPipe[0], POLLIN, 0}};
            ::poll(waiting, 2, -1);
            if ((waiting[1].revents & POLLIN) != 0)
            {
                return;
            }
            SocketChannel client(::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC));
            SocketChannel service;
            if (SocketChannel::Connect(servicePath.string(), Clock::now() + std::chrono::seconds(5), service) != IoResult::Ok)
            {
                continue;
            }
            if (!Forward(client.GetDescriptor(), service.GetDescriptor()))
            {
                return;
            }
        }
    }

    // False when asked to stop.
    bool Forward(int client, int service)
    {
        std::uint8_t buffer[65536];
        for (;;)
        {
            pollfd fds[3] = {{client, POLLIN, 0}, {service, POLLIN, 0}, {stopPipe[0], POLLIN, 0}};
            ::poll(fds, 3, -1);
            if ((fds[2].revents & POLLIN) != 0)
            {
                return false;
            }
            for (int side = 0; side < 2; ++side)
            {
                if (fds[side].revents == 0)
                {
                    continue;
                }
                const ssize_t n = ::recv(fds[side].fd, buffer, sizeof buffer, 0);
                if (n <= 0)
                {
                    return true;
                }
                SocketChannel other(side == 0 ? service : client);
                const IoResult sent = other.SendAll(buffer, static_cast<std::size_t>(n), Clock::now() + std::chrono::seconds(5));
                other.Release();
                if (sent != IoResult::Ok)
                {
                    return true;
                }
                (side == 0 ? toService : fromService) += static_cast<std::size_t>(n);
            }
        }
    }

    fs::path servicePath;
    int listenFd = -1;
    int stopPipe[2] = {-1, -1};
    std::thread thread;
};

fs::path socketPath;
EntryFunction entry = nullptr;
std::shared_ptr<MemoryStatus> statusStore;
std::unique_ptr<IUpdaterModule> module;
std::unique_ptr<SoftwareManagerServiceProxy> proxy;
Exchange exchange;

std::unique_ptr<IUpdaterModule> InitializedModule(const fs::path& endpoint)
{
    Zun::System::Rsc::ServiceManager::RegisterEndpoint("Zun", {String(endpoint.string()), 30000});
    auto created = entry(*Zun::Singleton<Zun::AppDomain>::pInstance)->GetFactory().CreateModule(String("SoftwareUpdater"));
    created->Initialize(String("SoftwareUpdater"), statusStore);
    return created;
}

// Bytes that cross the socket for one module GetStatus, averaged over many calls.
std::pair<std::size_t, std::size_t> MeasureGetStatus(const fs::path& folder)
{
    constexpr std::size_t Calls = 100;
    const fs::path relayPath = folder / "relay.sock";
    CountingRelay relay(relayPath, socketPath);
    auto measured = InitializedModule(relayPath);
    relay.toService = 0;
    relay.fromService = 0;
    for (std::size_t i = 0; i < Calls; ++i)
    {
        Record record;
        if (measured->GetStatus(Component, record) != 0)
        {
            return {};
        }
    }
    return {relay.toService / Calls, relay.fromService / Calls};
}

void BM_ModuleGetStatus(benchmark::State& state)
{
    Record record;
    const std::size_t before = Zun::Bench::Allocations();
    for (auto _ : state)
    {
        if (module->GetStatus(Component, record) != 0 || record.InstallationState != HostState::Idle)
        {
            state.SkipWithError("GetStatus failed");
            break;
        }
    }
    Zun::Bench::SetAllocationsPerCall(state, before);
    state.counters["request_bytes"] = static_cast<double>(exchange.request.size());
    state.counters["response_bytes"] = static_cast<double>(exchange.response.size());
}
BENCHMARK(BM_ModuleGetStatus);

// The transport alone for the same call, to split the module's share from the transport's.
void BM_ProxyGetInstallationState(benchmark::State& state)
{
    InstallationState installationState = InstallationState::Preparing;
    const Zun::System::Rsc::RscString<512> name("Sample files");
    Zun::System::Rsc::RscString<512> message;
    const std::size_t before = Zun::Bench::Allocations();
    for (auto _ : state)
    {
        if (proxy->GetInstallationState(SoftwareKind::GenericFiles, name, installationState, message) != 0 ||
            installationState != InstallationState::Idle)
        {
            state.SkipWithError("GetInstallationState failed");
            break;
        }
    }
    Zun::Bench::SetAllocationsPerCall(state, before);
}
BENCHMARK(BM_ProxyGetInstallationState);

void BM_RawSameBytes(benchmark::State& state)
{
    Zun::Bench::RawRoundTrips(state, exchange);
}
BENCHMARK(BM_RawSameBytes);

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    int result = 1;
    {
        const Zun::Bench::ServiceUnderTest service;
        socketPath = service.SocketPath();

        // The host side: an application domain with a notification manager, and the plug-in.
        Zun::AppDomain appDomain;
        Zun::System::Nm::NotificationManager notifications;
        appDomain.SetSingleton<Zun::System::Nm::INotificationManager>(&notifications);
        Zun::Singleton<Zun::AppDomain>::pInstance = &appDomain;
        void* handle = ::dlopen(ZUN_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
        entry = handle == nullptr ? nullptr : reinterpret_cast<EntryFunction>(::dlsym(handle, "CreateSoftwareUpdateModuleLibrary"));
        statusStore = std::make_shared<MemoryStatus>();

        if (entry == nullptr)
        {
            std::fprintf(stderr, "cannot load the plug-in: %s\n", ::dlerror());
        }
        else
        {
            const auto [toService, fromService] = MeasureGetStatus(service.Folder());
            // What one GetInstallationState of the component puts on the wire, byte for byte.
            std::vector<std::uint8_t> request;
            Zun::System::Rsc::RemotingWriter writer(request);
            BeginFrame(request);
            WriteKind(writer, SoftwareKind::GenericFiles);
            WriteText(writer, Zun::System::Rsc::RscString<512>("Sample files"));
            FinishFrame(request, FrameType::Request, Operation::GetInstallationState, 1);
            exchange = service.Capture(request);
            module = InitializedModule(socketPath);
            proxy = std::make_unique<SoftwareManagerServiceProxy>(Zun::System::Rsc::RscEndpoint{String(socketPath.string()), 30000});
            if (toService == 0 || toService != exchange.request.size() || fromService != exchange.response.size())
            {
                std::fprintf(stderr, "one GetStatus put %zu bytes to the service and %zu back; one GetInstallationState is %zu and %zu\n",
                             toService, fromService, exchange.request.size(), exchange.response.size());
            }
            else
            {
                RatioReporter reporter;
                benchmark::RunSpecifiedBenchmarks(&reporter);
                std::printf("\nBytes per module GetStatus: %zu to the service, %zu back\n", toService, fromService);
                RatioReporter::Print("module_getstatus_vs_raw", reporter.Ratio("BM_ModuleGetStatus", "BM_RawSameBytes"));
                RatioReporter::Print("module_share_of_proxy_call", reporter.Ratio("BM_ModuleGetStatus", "BM_ProxyGetInstallationState"));
                RatioReporter::Print("allocations_per_call/ModuleGetStatus",
                                     reporter.Counter("BM_ModuleGetStatus", "allocations_per_call"));
                result = 0;
            }
        }
        module.reset();
        proxy.reset();
        Zun::System::Rsc::ServiceManager::UnregisterProvider("Zun");
        Zun::Singleton<Zun::AppDomain>::pInstance = nullptr;
        appDomain.RemoveSingleton<Zun::System::Nm::INotificationManager>();
    }
    benchmark::Shutdown();
    return result;
}
