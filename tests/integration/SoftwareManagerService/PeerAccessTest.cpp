// Who may talk to the service: its socket folder keeps other users out, and a peer that gets
// through anyway (root, for which folder modes mean nothing) is refused by its user id.
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>

#include <gtest/gtest.h>

#include "ServiceProcess.hpp"
#include "Zun/SoftwareManager/FrameCodec.hpp"

namespace
{

using namespace Zun::Testing::SoftwareManagerProcess;
using namespace Zun::Services::SoftwareManager::Services::Internal::Transport;

constexpr uid_t Nobody = 65534;

// Runs the service as user `uid` with `extra` options; returns its pid once its socket answers, or -1.
pid_t StartAs(uid_t uid, const fs::path& state, const fs::path& socket, const fs::path& log, const std::vector<std::string>& extra)
{
    std::vector<std::string> arguments{BinaryPath(), "--state-dir", state.string(), "--socket", socket.string(), "--log-level", "6"};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    std::vector<char*> argv;
    for (std::string& a : arguments)
    {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    const int logFd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    const pid_t pid = ::fork();
    if (pid == 0)
    {
        ::dup2(logFd, 1);
        ::dup2(logFd, 2);
        if (::setgroups(0, nullptr) != 0 || ::setgid(uid) != 0 || ::setuid(uid) != 0)
        {
            ::_exit(126);
        }
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(logFd);
    const bool ready = Eventually([&] {
        SocketChannel channel;
        return ::waitpid(pid, nullptr, WNOHANG) == 0 &&
               SocketChannel::Connect(socket.string(), Clock::now() + std::chrono::milliseconds(100), channel) == IoResult::Ok;
    });
    if (!ready)
    {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        return -1;
    }
    return pid;
}

std::string ReadLog(const fs::path& path)
{
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void Stop(pid_t pid)
{
    ::kill(pid, SIGTERM);
    ::waitpid(pid, nullptr, 0);
}

class PeerAccessTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
        {
            GTEST_SKIP() << "needs root to run the service and its peer under different user ids";
        }
    }

    TemporaryFolder temp;
    fs::path state = temp.Get() / "state";
    fs::path socket = temp.Get() / "run" / "sm.sock";
    fs::path log = temp.Get() / "service.log";
};

TEST_F(PeerAccessTest, APeerWithAnotherUserIdIsRefusedUnlessAllowed)
{
    // The service runs as nobody and root connects: root passes any folder mode, so only the
    // service's own check of the peer's user id stands in the way.
    ASSERT_EQ(0, ::chown(temp.Get().c_str(), Nobody, Nobody));
    struct Case
    {
        std::vector<std::string> options;
        bool refused;
    };
    for (const Case& c : {Case{{}, true}, Case{{"--allow-uid", "0"}, false}, Case{{"--allow-uid", "1000"}, true}})
    {
        SCOPED_TRACE(c.options.empty() ? std::string("own user only") : c.options[1]);
        const pid_t pid = StartAs(Nobody, state, socket, log, c.options);
        ASSERT_NE(-1, pid) << ReadLog(log);
        // The service really runs as nobody: the state folder it made is nobody's.
        struct stat info
        {
        };
        ASSERT_EQ(0, ::stat(state.c_str(), &info));
        EXPECT_EQ(Nobody, info.st_uid);

        if (c.refused)
        {
            // The refusal comes at once, before the peer sends anything.
            SocketChannel channel;
            ASSERT_EQ(IoResult::Ok, SocketChannel::Connect(socket.string(), Clock::now() + std::chrono::seconds(5), channel));
            Frame frame;
            ASSERT_EQ(IoResult::Ok, channel.ReceiveFrame(frame, Clock::now() + std::chrono::seconds(5), Clock::now() + std::chrono::seconds(5)));
            EXPECT_EQ(FrameType::Error, frame.header.type);
            EXPECT_EQ(0u, frame.header.requestId);
            const ErrorPayload error = DecodeErrorPayload(frame.payload);
            EXPECT_EQ(StatusCodes::BadUserAccessDenied, error.status);
            EXPECT_EQ("User id 0 may not use the software manager service.", error.message);
        }
        else
        {
            EXPECT_EQ(2u, MakeProxy(socket)->GetAllSoftwareInformation().size());
        }
        Stop(pid);
        EXPECT_EQ(c.refused, ReadLog(log).find("Refused a connection from user id 0") != std::string::npos);
        fs::remove(log);
    }
}

TEST_F(PeerAccessTest, AnotherUserCannotReachTheSocketOfAServiceRunningAsRoot)
{
    // The folders above the service's own are open to everybody, so that only its socket folder decides.
    fs::permissions(temp.Get(), fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
    const pid_t pid = StartAs(0, state, socket, log, {"--allow-uid", std::to_string(Nobody)});
    ASSERT_NE(-1, pid) << ReadLog(log);

    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", socket.c_str());
    const pid_t client = ::fork();
    if (client == 0)
    {
        // Only async-signal-safe calls in the child of a threaded process.
        if (::setgroups(0, nullptr) != 0 || ::setgid(Nobody) != 0 || ::setuid(Nobody) != 0)
        {
            ::_exit(2);
        }
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        const int connected = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        ::_exit(connected == 0 ? 0 : errno == EACCES ? 1 : 3);
    }
    int status = 0;
    ASSERT_EQ(client, ::waitpid(client, &status, 0));
    Stop(pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(1, WEXITSTATUS(status)) << "1: EACCES, 0: connected, 2: could not change user, 3: another error";
    EXPECT_EQ(fs::perms::owner_all, fs::status(socket.parent_path()).permissions() & fs::perms::all);
}

} // namespace
