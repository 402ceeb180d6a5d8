// Support of the integration tests: temporary folders, the built programs as child processes,
// bounded polls, proxies to the software manager, and signed packages made with its "pack" command.
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ServiceContracts/ISoftwareManagerService.hpp"
#include "Zun/SoftwareManager/FrameCodec.hpp"
#include "Zun/SoftwareManager/SocketChannel.hpp"
#include "Zun/SoftwareManager/SoftwareManagerServiceProxyFactory.hpp"
#include "Zun/Testing/TimeScale.hpp"
#include "tests/unit/Platform/Expect.hpp"

namespace Zun::Testing::Integration
{

namespace fs = std::filesystem;
namespace Manager = Zun::Services::SoftwareManager::Services::Internal;
using Text = System::Rsc::RscString<512>;
using ZunTest::MessageOf;

inline std::string BinaryPath(const char* name)
{
    return std::string(ZUN_BINARY_DIR "/bin/") + name;
}

inline std::string ReadText(const fs::path& path)
{
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

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
    const auto deadline = std::chrono::steady_clock::now() + Zun::Testing::Patience();
    while (!done())
    {
        if (std::chrono::steady_clock::now() >= deadline)
        {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// A bound in milliseconds for a program's option (a call's time-out, a test's phase delay).
inline std::uint32_t ScaledMilliseconds(std::uint32_t base)
{
    return static_cast<std::uint32_t>(Zun::Testing::Scaled(std::chrono::milliseconds(base)).count());
}

inline std::string ScaledOption(std::uint32_t baseMilliseconds)
{
    return std::to_string(ScaledMilliseconds(baseMilliseconds));
}

// A fresh folder, removed with everything in it at the end.
class TemporaryFolder
{
public:
    TemporaryFolder() : path((fs::temp_directory_path() / "zun-it-XXXXXX").string())
    {
        if (::mkdtemp(path.data()) == nullptr)
        {
            throw std::runtime_error("mkdtemp failed");
        }
    }
    ~TemporaryFolder()
    {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
    fs::path operator/(const std::string& name) const { return fs::path(path) / name; }
    fs::path Get() const { return path; }

private:
    std::string path;
};

// A built program run as a child (as `user` when not -1), its output and errors appended to files.
class Child
{
public:
    Child(std::vector<std::string> arguments, const fs::path& output, const fs::path& errors, int user = -1)
    {
        std::vector<char*> argv;
        for (std::string& a : arguments)
        {
            argv.push_back(a.data());
        }
        argv.push_back(nullptr);
        const int outFd = ::open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        const int errFd = ::open(errors.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        pid = ::fork();
        if (pid == 0)
        {
            // Only async-signal-safe calls in the child of a threaded process.
            ::dup2(outFd, 1);
            ::dup2(errFd, 2);
            if (user >= 0 && (::setgroups(0, nullptr) != 0 || ::setgid(user) != 0 || ::setuid(user) != 0))
            {
                ::_exit(126);
            }
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        ::close(outFd);
        ::close(errFd);
    }
    ~Child() { Kill(SIGKILL); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t Pid() const { return pid; }
    bool HasEnded() { return pid < 0 || Reap(WNOHANG); }
    // The exit code, or 128 + the signal that ended it.
    int Wait()
    {
        while (pid > 0 && !Reap(0))
        {
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

private:
    bool Reap(int options)
    {
        int status = 0;
        const pid_t reaped = ::waitpid(pid, &status, options);
        if (reaped == 0 || (reaped < 0 && errno == EINTR))
        {
            return false;
        }
        exitCode = reaped < 0 ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        pid = -1;
        return true;
    }

    pid_t pid = -1;
    int exitCode = -1;
};

// Starts `arguments` and waits until it accepts connections on `socket`; null (and a failure) when it ends first.
inline std::unique_ptr<Child> StartServer(const std::vector<std::string>& arguments, const fs::path& socket, const fs::path& log, int user = -1)
{
    auto child = std::make_unique<Child>(arguments, log, log, user);
    namespace T = Manager::Transport;
    const bool up = Eventually([&] {
        T::SocketChannel channel;
        return child->HasEnded() ||
               T::SocketChannel::Connect(socket.string(), T::Clock::now() + Zun::Testing::Scaled(std::chrono::milliseconds(100)), channel) == T::IoResult::Ok;
    }) && !child->HasEnded();
    EXPECT_TRUE(up) << ReadText(log);
    return up ? std::move(child) : nullptr;
}

// The default time-out is one that a healthy service never reaches.
inline std::unique_ptr<Manager::ISoftwareManagerService> MakeProxy(const fs::path& socket, std::uint32_t timeoutMilliseconds = ScaledMilliseconds(5000))
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

    // False when the program ends before its socket answers.
    bool Start(const std::vector<std::string>& extra = {}, int user = -1)
    {
        std::vector<std::string> arguments{BinaryPath("zun-software-manager"), "--state-dir", state.string(), "--socket", socket.string(), "--log-level", "6"};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        child = StartServer(arguments, socket, log, user);
        return child != nullptr;
    }
    int Kill(int signal) { return child ? child->Kill(signal) : -1; }
    pid_t Pid() const { return child ? child->Pid() : -1; }
    const fs::path& Socket() const { return socket; }
    std::string Log() const { return ReadText(log); }

    // The manager's own state of a component, and its message, asked without any module in between.
    Manager::InstallationState StateOf(Manager::SoftwareKind kind, const std::string& name, std::string* message = nullptr) const
    {
        Manager::InstallationState result = Manager::InstallationState::Idle;
        Text text;
        EXPECT_EQ(0u, MakeProxy(socket)->GetInstallationState(kind, Text(name.c_str()), result, text)) << text.CStr();
        if (message != nullptr)
        {
            *message = text.ToString();
        }
        return result;
    }

private:
    fs::path state;
    fs::path socket;
    fs::path log;
    std::unique_ptr<Child> child;
};

// Runs the program's `command` (keygen, pack, verify) and returns its exit code; its output goes to `output`.
inline int RunTool(std::vector<std::string> arguments, const fs::path& output)
{
    arguments.insert(arguments.begin(), BinaryPath("zun-software-manager"));
    fs::remove(output);
    return Child(arguments, output, output).Wait();
}

// A state folder without samples, holding components Alpha (kind 1) and Beta (kind 2), and a keyring
// beside it that trusts the key `signingKey`, which signs what Pack builds; the manager on demand.
class ManagerFixture : public ::testing::Test
{
protected:
    void SetUp() override
    {
        fs::create_directories(AlphaFolder());
        fs::create_directories(state / "components" / "engineer-projects" / "Beta");
        fs::create_directories(Incoming());
        fs::create_directories(Keyring());
        ASSERT_EQ(0, RunTool({"keygen", "--private", signingKey.string(), "--public", (Keyring() / "test.pem").string()}, temp / "keygen.log"))
            << ReadText(temp / "keygen.log");
    }

    void StartService(std::vector<std::string> extra = {})
    {
        extra.insert(extra.end(), {"--keyring", Keyring().string()});
        ASSERT_TRUE(manager.Start(extra)) << manager.Log();
    }

    fs::path Incoming() const { return state / "incoming"; }
    fs::path Keyring() const { return temp / "keyring"; }
    fs::path AlphaFolder() const { return state / "components" / "generic-files" / "Alpha"; }

    // Builds incoming/<file> with the program's pack command, signed with `signingKey` unless it is
    // empty; `fields` are extra manifest members.
    void Pack(const std::string& file, const std::string& version, const std::string& content, const std::string& fields = "")
    {
        const fs::path work = temp / ("work-" + file);
        fs::create_directories(work / "payload" / "bin");
        std::ofstream(work / "payload" / "bin" / "app.txt") << content;
        std::ofstream(work / "payload" / "version.txt") << version;
        std::ofstream(work / "manifest.json") << R"({"version":")" << version
                                              << R"(","releaseDate":"2026-11-01T12:30:00Z","manufacturer":"Zun test","manufacturerUri":"urn:zun:test")"
                                              << fields << "}";
        std::vector<std::string> arguments{"pack", "--manifest", (work / "manifest.json").string(), "--payload", (work / "payload").string(),
                                           "-o", (Incoming() / file).string()};
        if (!signingKey.empty())
        {
            arguments.insert(arguments.end(), {"--key", signingKey.string()});
        }
        ASSERT_EQ(0, RunTool(arguments, temp / "pack.log")) << ReadText(temp / "pack.log");
    }

    TemporaryFolder temp;
    fs::path signingKey = temp / "signing.pem";
    fs::path state = temp / "state";
    fs::path socket = temp / "sm.sock";
    ManagerProcess manager{state, socket, temp / "service.log"};
};

} // namespace Zun::Testing::Integration
