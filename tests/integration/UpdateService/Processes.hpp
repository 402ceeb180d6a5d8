// Helpers of the update service's end-to-end tests: a temporary state folder, the real software
// manager process, runs of the real command line, and a direct line to the manager that does not
// start an update service.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "ServiceContracts/ISoftwareManagerService.hpp"
#include "Zun/SoftwareManager/SoftwareManagerServiceProxyFactory.hpp"

extern char** environ;

namespace Zun::Services::SoftwareUpdate::UpdateService::EndToEnd
{

namespace Manager = ::Zun::Services::SoftwareManager::Services::Internal;
using Clock = std::chrono::steady_clock;

// Waits on another process are bounded polls: there is no event to wait on across processes.
constexpr std::chrono::milliseconds PollStep{20};
constexpr std::chrono::seconds PollLimit{30};

inline std::string BinaryPath(const char* name)
{
    return std::string(ZUN_BINARY_DIR) + "/bin/" + name;
}

class TemporaryFolder
{
public:
    TemporaryFolder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "zun-e2e-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr)
        {
            throw std::runtime_error("mkdtemp failed");
        }
        path = pattern;
    }
    ~TemporaryFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::string operator/(const std::string& name) const { return (path / name).string(); }
    const std::filesystem::path& Path() const { return path; }

private:
    std::filesystem::path path;
};

// A child process whose standard output is a pipe and whose standard error goes to a file.
class Process
{
public:
    Process(const std::vector<std::string>& arguments, const std::string& home, const std::string& errorFile)
    {
        int pipeEnds[2];
        if (::pipe2(pipeEnds, O_CLOEXEC) != 0)
        {
            throw std::runtime_error("pipe2 failed");
        }
        output = pipeEnds[0];
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errorFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);

        std::vector<std::string> environment;
        for (char** entry = environ; *entry != nullptr; ++entry)
        {
            const std::string text = *entry;
            if (text.rfind("HOME=", 0) != 0 && text.rfind("XDG_STATE_HOME=", 0) != 0 && text.rfind("ZUN_SOFTWARE_MANAGER_SOCKET=", 0) != 0)
            {
                environment.push_back(text);
            }
        }
        environment.push_back("HOME=" + home);
        environment.push_back("XDG_STATE_HOME=" + home + "/state");
        std::vector<char*> argv;
        for (const std::string& argument : arguments)
        {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        std::vector<char*> envp;
        for (std::string& entry : environment)
        {
            envp.push_back(entry.data());
        }
        envp.push_back(nullptr);
        const int result = ::posix_spawn(&pid, arguments.front().c_str(), &actions, nullptr, argv.data(), envp.data());
        posix_spawn_file_actions_destroy(&actions);
        ::close(pipeEnds[1]);
        if (result != 0)
        {
            ::close(output);
            throw std::runtime_error("posix_spawn failed for " + arguments.front());
        }
    }
    ~Process()
    {
        if (pid > 0)
        {
            ::kill(pid, SIGKILL);
            Wait();
        }
        ::close(output);
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // The next line of standard output; false at its end or after the time limit.
    bool ReadLine(std::string& line)
    {
        const auto deadline = Clock::now() + PollLimit;
        for (;;)
        {
            const std::size_t end = buffer.find('\n');
            if (end != std::string::npos)
            {
                line = buffer.substr(0, end);
                buffer.erase(0, end + 1);
                return true;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            pollfd entry{output, POLLIN, 0};
            if (left <= 0 || ::poll(&entry, 1, static_cast<int>(left)) <= 0)
            {
                return false;
            }
            char chunk[4096];
            const ssize_t count = ::read(output, chunk, sizeof chunk);
            if (count <= 0)
            {
                return false;
            }
            buffer.append(chunk, static_cast<std::size_t>(count));
        }
    }
    // The rest of standard output.
    std::string ReadAll()
    {
        std::string text = std::move(buffer);
        buffer.clear();
        char chunk[4096];
        ssize_t count = 0;
        while ((count = ::read(output, chunk, sizeof chunk)) > 0)
        {
            text.append(chunk, static_cast<std::size_t>(count));
        }
        return text;
    }
    void Signal(int signal) { ::kill(pid, signal); }
    // The exit code, or 128 + signal.
    int Wait()
    {
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR)
        {
        }
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t pid = -1;
    int output = -1;
    std::string buffer;
};

inline std::string ReadFile(const std::string& path)
{
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

template <class Condition>
bool PollUntil(Condition condition)
{
    const auto deadline = Clock::now() + PollLimit;
    while (Clock::now() < deadline)
    {
        if (condition())
        {
            return true;
        }
        std::this_thread::sleep_for(PollStep);
    }
    return condition();
}

// The software manager process with its own state folder (created with the two samples).
class ManagerProcess
{
public:
    ManagerProcess(const TemporaryFolder& folder, std::vector<std::string> extraArguments)
        : stateDirectory(folder / "manager"), socketPath(folder / "manager.sock"), errorFile(folder / "manager.err")
    {
        std::vector<std::string> arguments{BinaryPath("zun-software-manager"), "--state-dir", stateDirectory, "--socket", socketPath};
        arguments.insert(arguments.end(), extraArguments.begin(), extraArguments.end());
        std::error_code ignored;
        std::filesystem::remove(socketPath, ignored);
        process = std::make_unique<Process>(arguments, folder.Path().string(), errorFile);
        if (!PollUntil([this] { return std::filesystem::exists(socketPath); }))
        {
            throw std::runtime_error("the software manager did not come up: " + ReadFile(errorFile));
        }
    }
    ~ManagerProcess() { Stop(); }

    void Stop()
    {
        if (process)
        {
            process->Signal(SIGTERM);
            process->Wait();
            process.reset();
        }
    }
    const std::string& Socket() const { return socketPath; }

    // The manager's own state of a component, asked without any update service.
    Manager::InstallationState StateOf(Manager::SoftwareKind kind, const std::string& name, std::string* message = nullptr)
    {
        std::unique_ptr<System::Rsc::IRscService> service(
            Manager::SoftwareManagerServiceProxyFactory::GetInstance().CreateProxy(System::Rsc::RscEndpoint{socketPath, 5000}));
        auto* manager = dynamic_cast<Manager::ISoftwareManagerService*>(service.get());
        if (manager == nullptr)
        {
            throw std::runtime_error("no software manager proxy");
        }
        Manager::InstallationState state = Manager::InstallationState::Idle;
        System::Rsc::RscString<512> text;
        const auto code = manager->GetInstallationState(kind, Manager::ISoftwareManagerService::Name(name.c_str()), state, text);
        if (code != 0)
        {
            throw std::runtime_error(fmt::format("GetInstallationState: 0x{:08X}", code));
        }
        if (message != nullptr)
        {
            *message = text.ToString();
        }
        return state;
    }
    static bool IsInProgress(Manager::InstallationState state)
    {
        return state == Manager::InstallationState::Preparing || state == Manager::InstallationState::Copying ||
               state == Manager::InstallationState::Activating;
    }
    // Waits until the manager has no installation of the component running.
    bool WaitUntilSettled(Manager::SoftwareKind kind, const std::string& name)
    {
        return PollUntil([&] { return !IsInProgress(StateOf(kind, name)); });
    }

private:
    std::string stateDirectory;
    std::string socketPath;
    std::string errorFile;
    std::unique_ptr<Process> process;
};

struct CliResult
{
    int exitCode = -1;
    std::string output;
    std::string errors;
};

} // namespace Zun::Services::SoftwareUpdate::UpdateService::EndToEnd
