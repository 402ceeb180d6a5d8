// Who may talk to the service: its socket folder keeps other users out, and a peer that gets
// through anyway (root, for which folder modes mean nothing) is refused by its user id.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "Zun/SoftwareManager/FrameCodec.hpp"
#include "tests/integration/Support/Processes.hpp"

namespace
{

using namespace Zun::Testing::Integration;
using namespace Manager::Transport;

constexpr uid_t Nobody = 65534;

TEST(PeerAccessTest, APeerWithAnotherUserIdIsRefusedUnlessAllowed)
{
    if (::geteuid() != 0)
    {
        GTEST_SKIP() << "needs root to run the service and its peer under different user ids";
    }
    // The service runs as nobody and root connects: root passes any folder mode, so only the
    // service's own check of the peer's user id stands in the way.
    TemporaryFolder temp;
    ASSERT_EQ(0, ::chown(temp.Get().c_str(), Nobody, Nobody));
    const fs::path socket = temp / "run" / "sm.sock";
    const fs::path log = temp / "service.log";
    const std::pair<std::vector<std::string>, bool> cases[] = {{{}, true}, {{"--allow-uid", "0"}, false}, {{"--allow-uid", "1000"}, true}};
    for (const auto& [options, refused] : cases)
    {
        SCOPED_TRACE(options.empty() ? std::string("own user only") : options[1]);
        ManagerProcess manager(temp / "state", socket, log);
        ASSERT_TRUE(manager.Start(options, Nobody)) << manager.Log();
        // Other users cannot even reach the socket: it sits in a folder of the service's user alone.
        struct stat folder
        {
        };
        ASSERT_EQ(0, ::stat(socket.parent_path().c_str(), &folder));
        EXPECT_EQ(Nobody, folder.st_uid);
        EXPECT_EQ(0700u, folder.st_mode & 0777u);
        if (refused)
        {
            // The refusal comes at once, before the peer sends anything.
            SocketChannel channel;
            const Deadline deadline = Clock::now() + Zun::Testing::Patience();
            ASSERT_EQ(IoResult::Ok, SocketChannel::Connect(socket.string(), deadline, channel));
            Frame frame;
            ASSERT_EQ(IoResult::Ok, channel.ReceiveFrame(frame, deadline, deadline));
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
        manager.Kill(SIGTERM);
        EXPECT_EQ(refused, manager.Log().find("Refused a connection from user id 0") != std::string::npos);
        fs::remove(log);
    }
}

} // namespace
