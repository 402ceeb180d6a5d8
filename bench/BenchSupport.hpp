// What the transport benchmarks share: the software manager service on a thread of the benchmark
// (the real ManagerService and ServiceServer on a real socket, so that the counting allocator sees
// both sides of a call), and the raw round trip that each transport measurement is compared with.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "CountingAllocator.hpp"
#include "Zun/Commons/LogManager.hpp"
#include "Zun/SoftwareManager/FrameCodec.hpp"
#include "Zun/SoftwareManager/SocketChannel.hpp"
#include "Zun/SoftwareManagerService/ManagerService.hpp"
#include "Zun/SoftwareManagerService/ServiceServer.hpp"

namespace Zun::Bench
{

namespace Transport = Services::SoftwareManager::Services::Internal::Transport;

// The bytes of one request frame and of its answer, exactly as they cross the socket.
struct Exchange
{
    std::vector<std::uint8_t> request;
    std::vector<std::uint8_t> response;
};

namespace Raw
{

// What a minimal hand-written client or server does: blocking send() and recv() in loops.
inline bool SendAll(int fd, const std::uint8_t* data, std::size_t size)
{
    while (size > 0)
    {
        const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
        if (n <= 0)
        {
            return false;
        }
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

inline bool ReceiveAll(int fd, std::uint8_t* data, std::size_t size)
{
    while (size > 0)
    {
        const ssize_t n = ::recv(fd, data, size, 0);
        if (n <= 0)
        {
            return false;
        }
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

// One frame: the header, then as many payload bytes as its length field says.
inline bool ReceiveFrame(int fd, std::vector<std::uint8_t>& frame)
{
    frame.resize(Transport::FrameHeaderSize);
    if (!ReceiveAll(fd, frame.data(), Transport::FrameHeaderSize))
    {
        return false;
    }
    std::uint32_t length = 0;
    std::memcpy(&length, frame.data() + 12, sizeof length);
    frame.resize(Transport::FrameHeaderSize + length);
    return ReceiveAll(fd, frame.data() + Transport::FrameHeaderSize, length);
}

} // namespace Raw

// One request frame and its answer per iteration over a Unix socket pair with an echo thread
// that answers every request frame with `exchange.response`: the same bytes as the transport's
// call, with the framing work a hand-written client and server would do and nothing else.
inline void RawRoundTrips(benchmark::State& state, const Exchange& exchange)
{
    int fds[2];
    if (exchange.request.empty() || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
    {
        state.SkipWithError("no exchange to repeat");
        return;
    }
    std::thread echo([&] {
        std::vector<std::uint8_t> in;
        while (Raw::ReceiveFrame(fds[1], in) && Raw::SendAll(fds[1], exchange.response.data(), exchange.response.size()))
        {
        }
        ::close(fds[1]);
    });
    std::vector<std::uint8_t> response;
    response.reserve(exchange.response.size());
    const std::size_t before = Allocations();
    for (auto _ : state)
    {
        if (!Raw::SendAll(fds[0], exchange.request.data(), exchange.request.size()) || !Raw::ReceiveFrame(fds[0], response) ||
            response.size() != exchange.response.size() || response[5] != exchange.response[5])
        {
            state.SkipWithError("raw round trip failed");
            break;
        }
    }
    SetAllocationsPerCall(state, before);
    ::shutdown(fds[0], SHUT_RDWR);
    echo.join();
    ::close(fds[0]);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * (exchange.request.size() + exchange.response.size())));
    state.counters["request_bytes"] = static_cast<double>(exchange.request.size());
    state.counters["response_bytes"] = static_cast<double>(exchange.response.size());
}

// The software manager service with its sample components in a temporary folder, served on a
// thread of this process; stopped and removed again when the object goes.
class ServiceUnderTest
{
public:
    ServiceUnderTest()
    {
        System::Commons::Diagnostics::Logging::LogManager::SetAllLevels(1);
        char pattern[] = "/tmp/zun-bench-XXXXXX";
        folder = ::mkdtemp(pattern);
        socketPath = folder / "sm.sock";
        const std::filesystem::path state = folder / "state";
        Services::SoftwareManager::Service::ManagerService::EnsureStateDirectory(state);
        // Pack builds unsigned packages: the benchmarks measure the transport, not the signature check.
        service = std::make_unique<Services::SoftwareManager::Service::ManagerService>(state, Services::SoftwareManager::Service::TestControls{},
                                                                                       Services::SoftwareManager::Service::PackageTrust{{}, true});
        service->CreateSamples();
        server = std::make_unique<Services::SoftwareManager::Service::ServiceServer>(*service, String(socketPath.string()), std::nullopt);
        server->Listen();
        if (::pipe2(stopPipe, O_CLOEXEC) != 0)
        {
            throw std::runtime_error("pipe2 failed");
        }
        thread = std::thread([this] { server->Run(stopPipe[0]); });
    }
    ~ServiceUnderTest()
    {
        const char stop = 1;
        [[maybe_unused]] const ssize_t written = ::write(stopPipe[1], &stop, 1);
        thread.join();
        server.reset();
        service->Shutdown();
        service.reset();
        ::close(stopPipe[0]);
        ::close(stopPipe[1]);
        std::filesystem::remove_all(folder);
    }
    ServiceUnderTest(const ServiceUnderTest&) = delete;
    ServiceUnderTest& operator=(const ServiceUnderTest&) = delete;

    const std::filesystem::path& Folder() const noexcept { return folder; }
    const std::filesystem::path& SocketPath() const noexcept { return socketPath; }
    std::filesystem::path Incoming() const { return service->GetIncomingDirectory(); }

    // Builds `file` in the incoming folder with the service's own pack command; `fields` are extra
    // manifest members. False when the command fails.
    bool Pack(const std::string& file, const std::string& version, const std::string& fields) const
    {
        const std::filesystem::path work = folder / ("work-" + file);
        std::filesystem::create_directories(work / "payload");
        std::ofstream(work / "payload" / "version.txt") << version;
        std::ofstream(work / "manifest.json")
            << R"({"version":")" << version
            << R"(","releaseDate":"2026-11-01T12:30:00Z","manufacturer":"Zun bench","manufacturerUri":"urn:zun:bench")" << fields << "}";
        const std::string command = std::string(ZUN_SOFTWARE_MANAGER_BINARY) + " pack --manifest '" + (work / "manifest.json").string() +
                                    "' --payload '" + (work / "payload").string() + "' -o '" + (Incoming() / file).string() +
                                    "' >/dev/null";
        return std::system(command.c_str()) == 0;
    }

    // One request frame as sent and its answer as received.
    Exchange Capture(const std::vector<std::uint8_t>& request) const
    {
        Transport::SocketChannel channel;
        const Transport::Deadline deadline = Transport::Clock::now() + std::chrono::seconds(30);
        Transport::Frame answer;
        if (Transport::SocketChannel::Connect(socketPath.string(), deadline, channel) != Transport::IoResult::Ok ||
            channel.SendFrame(request, deadline) != Transport::IoResult::Ok ||
            channel.ReceiveFrame(answer, deadline, deadline) != Transport::IoResult::Ok)
        {
            return {};
        }
        std::vector<std::uint8_t> response(Transport::FrameHeaderSize);
        Transport::EncodeFrameHeader(answer.header, response.data());
        response.insert(response.end(), answer.payload.begin(), answer.payload.end());
        return {request, response};
    }

private:
    std::filesystem::path folder;
    std::filesystem::path socketPath;
    std::unique_ptr<Services::SoftwareManager::Service::ManagerService> service;
    std::unique_ptr<Services::SoftwareManager::Service::ServiceServer> server;
    int stopPipe[2] = {-1, -1};
    std::thread thread;
};

} // namespace Zun::Bench
