// Test support for the software manager service process: a temporary state folder, the built
// binary started and stopped from the test, proxies to it, packages built with its "pack"
// command, and a minimal tar writer for packages that the builder would never produce.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ServiceContracts/ISoftwareManagerService.hpp"
#include "Zun/SoftwareManager/SocketChannel.hpp"
#include "Zun/SoftwareManager/SoftwareManagerServiceProxyFactory.hpp"

namespace Zun::Testing::SoftwareManagerProcess
{

namespace fs = std::filesystem;
using namespace Zun::Services::SoftwareManager::Services::Internal;

inline const char* BinaryPath()
{
    return ZUN_BINARY_DIR "/bin/zun-software-manager";
}

// Runs the binary with `arguments` to its end; returns the exit status.
inline int RunToEnd(const std::vector<std::string>& arguments, const fs::path& log)
{
    const pid_t pid = ::fork();
    if (pid == 0)
    {
        const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        ::dup2(fd, 1);
        ::dup2(fd, 2);
        std::vector<char*> argv{const_cast<char*>(BinaryPath())};
        for (const std::string& a : arguments)
        {
            argv.push_back(const_cast<char*>(a.c_str()));
        }
        argv.push_back(nullptr);
        ::execv(BinaryPath(), argv.data());
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

class TemporaryFolder
{
public:
    TemporaryFolder()
    {
        char pattern[] = "/tmp/zun-sm-XXXXXX";
        path = ::mkdtemp(pattern);
    }
    ~TemporaryFolder() { fs::remove_all(path); }
    const fs::path& Get() const { return path; }

private:
    fs::path path;
};

class ServiceProcess
{
public:
    ServiceProcess(fs::path stateDirectory, fs::path socketPath, fs::path log)
        : stateDirectory(std::move(stateDirectory)), socketPath(std::move(socketPath)), log(std::move(log))
    {
    }
    ~ServiceProcess() { Kill(SIGKILL); }

    // Starts the binary and waits until its socket answers; false when it exits first or stays silent.
    bool Start(const std::vector<std::string>& extra = {})
    {
        std::vector<std::string> arguments{"--state-dir", stateDirectory.string(), "--socket", socketPath.string(), "--log-level", "6"};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        pid = ::fork();
        if (pid == 0)
        {
            const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            ::dup2(fd, 1);
            ::dup2(fd, 2);
            std::vector<char*> argv{const_cast<char*>(BinaryPath())};
            for (const std::string& a : arguments)
            {
                argv.push_back(const_cast<char*>(a.c_str()));
            }
            argv.push_back(nullptr);
            ::execv(BinaryPath(), argv.data());
            ::_exit(127);
        }
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (std::chrono::steady_clock::now() < deadline)
        {
            int status = 0;
            if (::waitpid(pid, &status, WNOHANG) == pid)
            {
                pid = -1;
                exitStatus = status;
                return false;
            }
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

    void Kill(int signal)
    {
        if (pid > 0)
        {
            ::kill(pid, signal);
            ::waitpid(pid, &exitStatus, 0);
            pid = -1;
        }
    }

    int GetExitStatus() const { return exitStatus; }
    std::string ReadLog() const
    {
        std::ifstream in(log);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

private:
    fs::path stateDirectory;
    fs::path socketPath;
    fs::path log;
    pid_t pid = -1;
    int exitStatus = 0;
};

inline std::unique_ptr<ISoftwareManagerService> MakeProxy(const fs::path& socketPath, std::uint32_t timeoutMilliseconds = 5000)
{
    System::Rsc::IRscService* service =
        SoftwareManagerServiceProxyFactory::GetInstance().CreateProxy(System::Rsc::RscEndpoint{String(socketPath.string()), timeoutMilliseconds});
    return std::unique_ptr<ISoftwareManagerService>(dynamic_cast<ISoftwareManagerService*>(service));
}

// Polls until `done` holds or 20 s pass.
inline bool Eventually(const std::function<bool()>& done)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline)
    {
        if (done())
        {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

// A ustar archive of regular files, symbolic links and folders, written by hand.
class TarWriter
{
public:
    void File(const std::string& name, const std::string& content) { Entry(name, '0', content, ""); }
    void Symlink(const std::string& name, const std::string& target) { Entry(name, '2', "", target); }
    void Folder(const std::string& name) { Entry(name, '5', "", ""); }
    void Save(const fs::path& path) const
    {
        std::ofstream out(path, std::ios::binary);
        out << data << std::string(1024, '\0');
    }

private:
    void Entry(const std::string& name, char type, const std::string& content, const std::string& link)
    {
        char header[512] = {};
        std::snprintf(header, 100, "%s", name.c_str());
        std::snprintf(header + 100, 8, "%07o", 0644);
        std::snprintf(header + 108, 8, "%07o", 0);
        std::snprintf(header + 116, 8, "%07o", 0);
        std::snprintf(header + 124, 12, "%011lo", static_cast<unsigned long>(content.size()));
        std::snprintf(header + 136, 12, "%011o", 0);
        std::memset(header + 148, ' ', 8);
        header[156] = type;
        std::snprintf(header + 157, 100, "%s", link.c_str());
        std::memcpy(header + 257, "ustar", 6);
        std::memcpy(header + 263, "00", 2);
        unsigned sum = 0;
        for (unsigned char c : header)
        {
            sum += c;
        }
        std::snprintf(header + 148, 8, "%06o", sum);
        data.append(header, 512);
        data += content;
        data.append((512 - content.size() % 512) % 512, '\0');
    }

    std::string data;
};

// A state folder without samples, components Alpha (kind 1) and Beta (kind 2), and the service on demand.
class ServiceFixture : public ::testing::Test
{
protected:
    void SetUp() override
    {
        fs::create_directories(state / "components" / "generic-files" / "Alpha");
        fs::create_directories(state / "components" / "engineer-projects" / "Beta");
        fs::create_directories(state / "incoming");
    }

    void StartService(const std::vector<std::string>& extra = {})
    {
        process = std::make_unique<ServiceProcess>(state, socket, temp.Get() / "service.log");
        ASSERT_TRUE(process->Start(extra)) << process->ReadLog();
    }

    fs::path Incoming() const { return state / "incoming"; }
    fs::path ComponentFolder(const char* kindFolder, const char* name) const { return state / "components" / kindFolder / name; }

    // Builds incoming/<file> with the binary's pack command; `fields` are extra manifest members.
    void Pack(const std::string& file, const std::string& version, const std::string& content, const std::string& fields = "")
    {
        const fs::path work = temp.Get() / ("work-" + file);
        fs::create_directories(work / "payload" / "bin");
        std::ofstream(work / "payload" / "bin" / "app.txt") << content;
        std::ofstream(work / "payload" / "version.txt") << version;
        std::ofstream(work / "manifest.json") << R"({"version":")" << version
                                              << R"(","releaseDate":"2026-11-01T12:30:00Z","manufacturer":"Zun test","manufacturerUri":"urn:zun:test")"
                                              << fields << "}";
        ASSERT_EQ(0, RunToEnd({"pack", "--manifest", (work / "manifest.json").string(), "--payload", (work / "payload").string(), "-o",
                               (Incoming() / file).string()},
                              temp.Get() / "pack.log"));
    }

    TemporaryFolder temp;
    fs::path state = temp.Get() / "state";
    fs::path socket = temp.Get() / "sm.sock";
    std::unique_ptr<ServiceProcess> process;
};

} // namespace Zun::Testing::SoftwareManagerProcess
