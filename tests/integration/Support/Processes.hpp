// Support of the integration tests: temporary folders, the built programs as child processes,
// bounded polls, proxies to the software manager, and packages made with its "pack" command.
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "ServiceContracts/ISoftwareManagerService.hpp"
#include "Zun/SoftwareManager/SocketChannel.hpp"
#include "Zun/SoftwareManager/SoftwareManagerServiceProxyFactory.hpp"

extern char** environ;

namespace Zun::Testing::Integration
{

namespace fs = std::filesystem;
namespace Manager = Zun::Services::SoftwareManager::Services::Internal;
using Text = System::Rsc::RscString<512>;

inline std::string BinaryPath(const char* name)
{
    return std::string(ZUN_BINARY_DIR "/bin/") + name;
}

inline std::string ReadText(const fs::path& path)
{
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// The sorted names in `folder`.
inline std::vector<std::string> Names(const fs::path& folder)
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder))
    {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Waits on another process are bounded polls: there is no event to wait on across processes.
template <class Condition>
bool Eventually(Condition done)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline)
    {
        if (done())
        {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return done();
}

class TemporaryFolder
{
public:
    TemporaryFolder()
    {
        std::string pattern = (fs::temp_directory_path() / "zun-it-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr)
        {
            throw std::runtime_error("mkdtemp failed");
        }
        path = pattern;
    }
    ~TemporaryFolder()
    {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
    fs::path operator/(const std::string& name) const { return path / name; }
    const fs::path& Get() const { return path; }

private:
    fs::path path;
};

// A built program run as a child. Standard error, and standard output unless captured, append to
// `log`; HOME and XDG_STATE_HOME point at the log's folder so that default paths stay in the test.
class Child
{
public:
    Child(std::vector<std::string> arguments, const fs::path& log, bool captureOutput = false, int user = -1)
    {
        std::vector<std::string> environment;
        for (char** entry = environ; *entry != nullptr; ++entry)
        {
            const std::string text = *entry;
            if (text.rfind("HOME=", 0) != 0 && text.rfind("XDG_STATE_HOME=", 0) != 0 && text.rfind("ZUN_SOFTWARE_MANAGER_SOCKET=", 0) != 0)
            {
                environment.push_back(text);
            }
        }
        environment.push_back("HOME=" + log.parent_path().string());
        environment.push_back("XDG_STATE_HOME=" + (log.parent_path() / "state").string());
        std::vector<char*> argv;
        std::vector<char*> envp;
        for (std::string& a : arguments)
        {
            argv.push_back(a.data());
        }
        for (std::string& e : environment)
        {
            envp.push_back(e.data());
        }
        argv.push_back(nullptr);
        envp.push_back(nullptr);
        int ends[2] = {-1, -1};
        if (captureOutput && ::pipe2(ends, O_CLOEXEC) != 0)
        {
            throw std::runtime_error("pipe2 failed");
        }
        const int logFd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        pid = ::fork();
        if (pid == 0)
        {
            // Only async-signal-safe calls in the child of a threaded process.
            const int devNull = ::open("/dev/null", O_RDONLY);
            ::dup2(devNull, 0);
            ::dup2(captureOutput ? ends[1] : logFd, 1);
            ::dup2(logFd, 2);
            if (user >= 0 && (::setgroups(0, nullptr) != 0 || ::setgid(user) != 0 || ::setuid(user) != 0))
            {
                ::_exit(126);
            }
            ::execve(argv[0], argv.data(), envp.data());
            ::_exit(127);
        }
        ::close(logFd);
        if (captureOutput)
        {
            ::close(ends[1]);
            output = ends[0];
        }
    }
    ~Child()
    {
        Kill(SIGKILL);
        if (output >= 0)
        {
            ::close(output);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t Pid() const { return pid; }
    bool HasEnded()
    {
        int status = 0;
        if (pid > 0 && ::waitpid(pid, &status, WNOHANG) == pid)
        {
            Ended(status);
        }
        return pid < 0;
    }
    // The exit code, or 128 + the signal that ended it.
    int Wait()
    {
        int status = 0;
        if (pid > 0)
        {
            while (::waitpid(pid, &status, 0) < 0 && errno == EINTR)
            {
            }
            Ended(status);
        }
        return exitCode;
    }
    int Kill(int signal)
    {
        if (pid > 0)
        {
            ::kill(pid, signal);
        }
        return Wait();
    }

    // The next line of the captured output; false at its end or after the time limit.
    bool ReadLine(std::string& line)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        std::size_t end = 0;
        while ((end = buffer.find('\n')) == std::string::npos)
        {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
            pollfd entry{output, POLLIN, 0};
            if (left <= 0 || ::poll(&entry, 1, static_cast<int>(left)) <= 0 || !Append())
            {
                return false;
            }
        }
        line = buffer.substr(0, end);
        buffer.erase(0, end + 1);
        return true;
    }
    // The rest of the captured output, up to its end.
    std::string ReadAll()
    {
        while (Append())
        {
        }
        return std::exchange(buffer, {});
    }

private:
    bool Append()
    {
        char chunk[4096];
        const ssize_t count = ::read(output, chunk, sizeof chunk);
        buffer.append(chunk, count > 0 ? static_cast<std::size_t>(count) : 0);
        return count > 0;
    }
    void Ended(int status)
    {
        exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        pid = -1;
    }

    pid_t pid = -1;
    int exitCode = -1;
    int output = -1;
    std::string buffer;
};

inline std::unique_ptr<Manager::ISoftwareManagerService> MakeProxy(const fs::path& socket, std::uint32_t timeoutMilliseconds = 5000)
{
    System::Rsc::IRscService* service =
        Manager::SoftwareManagerServiceProxyFactory::GetInstance().CreateProxy(System::Rsc::RscEndpoint{String(socket.string()), timeoutMilliseconds});
    return std::unique_ptr<Manager::ISoftwareManagerService>(dynamic_cast<Manager::ISoftwareManagerService*>(service));
}

inline bool IsInProgress(Manager::InstallationState state)
{
    return state == Manager::InstallationState::Preparing || state == Manager::InstallationState::Copying ||
           state == Manager::InstallationState::Activating;
}

// The software manager process on a state folder (made with samples when missing) and a socket of the test's own.
class ManagerProcess
{
public:
    ManagerProcess(fs::path state, fs::path socket, fs::path log) : state(std::move(state)), socket(std::move(socket)), log(std::move(log)) {}

    // Starts the program as `user` and waits until its socket answers; false when it ends first.
    bool Start(const std::vector<std::string>& extra = {}, int user = -1)
    {
        std::vector<std::string> arguments{BinaryPath("zun-software-manager"), "--state-dir", state.string(), "--socket", socket.string(), "--log-level", "6"};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        child = std::make_unique<Child>(arguments, log, false, user);
        return Eventually([&] {
            Manager::Transport::SocketChannel channel;
            return child->HasEnded() ||
                   Manager::Transport::SocketChannel::Connect(socket.string(), Manager::Transport::Clock::now() + std::chrono::milliseconds(100),
                                                              channel) == Manager::Transport::IoResult::Ok;
        }) && !child->HasEnded();
    }
    // Ends the process with `signal`; its exit code, or 128 + the signal.
    int Kill(int signal) { return child ? child->Kill(signal) : -1; }
    pid_t Pid() const { return child ? child->Pid() : -1; }
    const fs::path& Socket() const { return socket; }
    std::string Log() const { return ReadText(log); }

    // The manager's own state of a component, asked without any module in between.
    Manager::InstallationState StateOf(Manager::SoftwareKind kind, const std::string& name, std::string* message = nullptr) const
    {
        Manager::InstallationState result = Manager::InstallationState::Idle;
        Text text;
        const auto code = MakeProxy(socket)->GetInstallationState(kind, Text(name.c_str()), result, text);
        if (code != 0)
        {
            throw std::runtime_error(fmt::format("GetInstallationState: 0x{:08X}", code));
        }
        if (message != nullptr)
        {
            *message = text.ToString();
        }
        return result;
    }
    bool WaitUntilSettled(Manager::SoftwareKind kind, const std::string& name) const
    {
        return Eventually([&] { return !IsInProgress(StateOf(kind, name)); });
    }

private:
    fs::path state;
    fs::path socket;
    fs::path log;
    std::unique_ptr<Child> child;
};

// A state folder without samples, holding components Alpha (kind 1) and Beta (kind 2); the manager on demand.
class ManagerFixture : public ::testing::Test
{
protected:
    void SetUp() override
    {
        fs::create_directories(state / "components" / "generic-files" / "Alpha");
        fs::create_directories(state / "components" / "engineer-projects" / "Beta");
        fs::create_directories(Incoming());
    }

    void StartService(const std::vector<std::string>& extra = {})
    {
        ASSERT_TRUE(manager.Start(extra)) << manager.Log();
    }

    fs::path Incoming() const { return state / "incoming"; }
    fs::path AlphaFolder() const { return state / "components" / "generic-files" / "Alpha"; }

    // Builds incoming/<file> with the program's pack command; `fields` are extra manifest members.
    void Pack(const std::string& file, const std::string& version, const std::string& content, const std::string& fields = "")
    {
        const fs::path work = temp / ("work-" + file);
        fs::create_directories(work / "payload" / "bin");
        std::ofstream(work / "payload" / "bin" / "app.txt") << content;
        std::ofstream(work / "payload" / "version.txt") << version;
        std::ofstream(work / "manifest.json") << R"({"version":")" << version
                                              << R"(","releaseDate":"2026-11-01T12:30:00Z","manufacturer":"Zun test","manufacturerUri":"urn:zun:test")"
                                              << fields << "}";
        Child pack({BinaryPath("zun-software-manager"), "pack", "--manifest", (work / "manifest.json").string(), "--payload",
                    (work / "payload").string(), "-o", (Incoming() / file).string()},
                   temp / "pack.log");
        ASSERT_EQ(0, pack.Wait()) << ReadText(temp / "pack.log");
    }

    TemporaryFolder temp;
    fs::path state = temp / "state";
    fs::path socket = temp / "sm.sock";
    ManagerProcess manager{state, socket, temp / "service.log"};
};

} // namespace Zun::Testing::Integration
