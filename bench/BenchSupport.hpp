// What the transport benchmarks share: a software manager process in a temporary state folder, and
// the raw socket round trip that each transport measurement is compared with.
#pragma once

#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "Zun/SoftwareManager/SocketChannel.hpp"

namespace Zun::Bench
{

namespace Transport = Services::SoftwareManager::Services::Internal::Transport;

// Bytes of one request and of its answer on the wire.
struct Exchange
{
    std::size_t request = 0;
    std::size_t response = 0;
};

// One request of `exchange.request` bytes and one answer of `exchange.response` bytes per iteration,
// over a Unix socket pair with an echo thread.
inline void RawRoundTrips(benchmark::State& state, Exchange exchange)
{
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
    {
        state.SkipWithError("socketpair failed");
        return;
    }
    std::thread echo([&] {
        std::vector<std::uint8_t> in(exchange.request);
        std::vector<std::uint8_t> out(exchange.response, 1);
        Transport::SocketChannel peer(fds[1]);
        while (peer.ReceiveExact(in.data(), in.size(), Transport::NoDeadline) == Transport::IoResult::Ok &&
               peer.SendAll(out.data(), out.size(), Transport::NoDeadline) == Transport::IoResult::Ok)
        {
        }
    });
    {
        Transport::SocketChannel channel(fds[0]);
        std::vector<std::uint8_t> request(exchange.request, 2);
        std::vector<std::uint8_t> response(exchange.response);
        for (auto _ : state)
        {
            const Transport::Deadline deadline = Transport::Clock::now() + std::chrono::seconds(5);
            if (channel.SendAll(request.data(), request.size(), deadline) != Transport::IoResult::Ok ||
                channel.ReceiveExact(response.data(), response.size(), deadline) != Transport::IoResult::Ok)
            {
                state.SkipWithError("raw round trip failed");
                break;
            }
        }
    }
    echo.join();
    state.counters["request_bytes"] = static_cast<double>(exchange.request);
    state.counters["response_bytes"] = static_cast<double>(exchange.response);
}

// zun-software-manager with its sample components in a temporary folder, stopped and removed again
// when the object goes.
class ManagerProcess
{
public:
    ManagerProcess()
    {
        char pattern[] = "/tmp/zun-bench-XXXXXX";
        folder = ::mkdtemp(pattern);
        socketPath = folder / "sm.sock";
        const std::string state = (folder / "state").string();
        const std::string socket = socketPath.string();
        pid = ::fork();
        if (pid == 0)
        {
            // A state folder that does not exist yet gets the sample components.
            ::execl(ZUN_SOFTWARE_MANAGER_BINARY, ZUN_SOFTWARE_MANAGER_BINARY, "--state-dir", state.c_str(), "--socket", socket.c_str(), "--log-level",
                    "1", static_cast<char*>(nullptr));
            ::_exit(127);
        }
    }
    ~ManagerProcess()
    {
        if (pid > 0)
        {
            ::kill(pid, SIGTERM);
            ::waitpid(pid, nullptr, 0);
        }
        std::filesystem::remove_all(folder);
    }
    ManagerProcess(const ManagerProcess&) = delete;
    ManagerProcess& operator=(const ManagerProcess&) = delete;

    // Polls until the service accepts connections (at most about ten seconds).
    bool WaitUntilReady() const
    {
        for (int attempt = 0; attempt < 2000; ++attempt)
        {
            Transport::SocketChannel channel;
            if (Transport::SocketChannel::Connect(socketPath.string(), Transport::Clock::now() + std::chrono::milliseconds(100), channel) ==
                Transport::IoResult::Ok)
            {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return false;
    }

    const std::filesystem::path& Folder() const noexcept { return folder; }
    const std::filesystem::path& SocketPath() const noexcept { return socketPath; }

private:
    std::filesystem::path folder;
    std::filesystem::path socketPath;
    pid_t pid = -1;
};

} // namespace Zun::Bench
