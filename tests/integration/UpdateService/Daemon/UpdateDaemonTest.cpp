#include <sys/socket.h>
#include <sys/un.h>

#include <gmock/gmock.h>

#include "Zun/Commons/PosixCall.hpp"
#include "Zun/UpdateService/Protocol/Base64.hpp"
#include "Zun/UpdateService/Protocol/MessageFraming.hpp"
#include "tests/integration/Support/Processes.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
{
namespace
{

using namespace Zun::Testing::Integration;
using Protocol::MessageFraming;
using Json = nlohmann::json;

const std::string Files = "Generic files / Sample files";
const std::string Project = "Tesmora Engineer project / Sample project";

// A client of the local API over blocking calls; every read is bounded by the test's patience.
class Client
{
public:
    explicit Client(const fs::path& socket, bool hello = true)
    {
        fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, socket.c_str(), sizeof address.sun_path - 1);
        const timeval patience{static_cast<time_t>(std::chrono::duration_cast<std::chrono::seconds>(Zun::Testing::Patience()).count()), 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        connected = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        if (connected && hello)
        {
            MessageFraming::WriteMessage(fd, {{"type", "hello"}, {"protocol", 1}, {"client", "test"}});
            Read();
        }
    }
    ~Client() { ::close(fd); }

    Json Read()
    {
        Json message;
        return MessageFraming::ReadMessage(fd, message) ? message : Json();
    }
    // The response, with the events that came before it left for Read.
    Json Call(const std::string& op, Json params = Json::object())
    {
        MessageFraming::WriteMessage(fd, {{"type", "request"}, {"id", ++id}, {"op", op}, {"params", params}});
        for (Json message = Read();; message = Read())
        {
            if (message.is_null() || message["type"] != "event")
            {
                return message;
            }
            events.push_back(message);
        }
    }
    // Stages the bytes of `file` for `name`; the commit's response.
    Json Stage(const std::string& name, const fs::path& file)
    {
        const std::string bytes = ReadText(file);
        const Json begin = Call("stageBegin", {{"name", name}, {"size", bytes.size()}, {"fileName", "upload.tar"}});
        const auto upload = begin["result"]["upload"];
        for (std::size_t offset = 0; offset < bytes.size(); offset += 100000)
        {
            const std::string chunk = bytes.substr(offset, 100000);
            Call("stageChunk", {{"upload", upload}, {"offset", offset},
                                {"data", Protocol::Base64::Encode(reinterpret_cast<const std::uint8_t*>(chunk.data()), chunk.size())}});
        }
        return Call("stageCommit", {{"upload", upload}});
    }

    int fd = -1;
    bool connected = false;
    std::uint32_t id = 0;
    std::vector<Json> events;
};

class UpdateDaemonTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(manager.Start({"--phase-delay-ms", ScaledOption(100)})) << manager.Log(); }

    std::unique_ptr<Child> StartDaemon(const std::vector<std::string>& extra = {})
    {
        std::vector<std::string> arguments{BinaryPath("zun-update-service"), "--state-dir", (folder / "service").string(), "--socket",
                                           socket.string(), "--manager-socket", manager.Socket().string()};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        auto daemon = std::make_unique<Child>(arguments, folder / "service.log", folder / "service.log");
        EXPECT_TRUE(Eventually([&] { return daemon->HasEnded() || Client(socket, false).connected; })) << ReadText(folder / "service.log");
        return daemon;
    }

    std::vector<std::string> Notifications()
    {
        std::vector<std::string> names;
        const Json response = Client(socket).Call("getNotifications");
        for (const Json& entry : response["result"]["notifications"])
        {
            names.push_back(entry["name"]);
        }
        return names;
    }

    TemporaryFolder folder;
    fs::path socket = folder / "service.sock";
    ManagerProcess manager{folder / "manager", folder / "manager.sock", folder / "manager.log"};
};

TEST_F(UpdateDaemonTest, AWatcherSeesTheInstallationThatAClientStartedAndLeftRunToItsEnd)
{
    auto daemon = StartDaemon();
    Client watcher(socket);
    const Json snapshot = watcher.Call("watch");
    ASSERT_EQ(0, snapshot["status"]) << snapshot;
    {
        Client installer(socket);
        const Json staged = installer.Stage(Files, folder / "manager" / "incoming" / "sample-files-1.1.0.tar");
        ASSERT_EQ(0, staged["status"]) << staged;
        const Json installed = installer.Call("install", {{"name", Files}, {"softwareRevision", "1.1.0"}, {"manufacturerUri", "https://example.com/zun"}});
        ASSERT_EQ(0, installed["status"]) << installed;
    }
    std::vector<std::string> states;
    std::uint64_t sequence = snapshot["result"]["sequence"];
    while (states.empty() || states.back() == "Installing")
    {
        const Json event = watcher.Read();
        ASSERT_EQ("event", event.value("type", "")) << event;
        EXPECT_EQ(++sequence, event["sequence"]);
        if (event["event"] == "statusChanged" && event["name"] == Files && (states.empty() || states.back() != event["status"]["state"]))
        {
            states.push_back(event["status"]["state"]);
        }
    }
    EXPECT_THAT(states, ::testing::ElementsAre("Installing", "Idle"));
    EXPECT_EQ(0, daemon->Kill(SIGTERM));
}

TEST_F(UpdateDaemonTest, AnInstallationThatOutlivesAKilledDaemonIsSettledAndAnnouncedOnceAfterTheRestart)
{
    auto daemon = StartDaemon();
    Child second({BinaryPath("zun-update-service"), "--state-dir", (folder / "service").string(), "--socket", (folder / "other.sock").string(),
                  "--manager-socket", manager.Socket().string()},
                 folder / "second.log", folder / "second.log");
    EXPECT_EQ(1, second.Wait());
    EXPECT_THAT(ReadText(folder / "second.log"), ::testing::HasSubstr("Another update service (process"));
    {
        Client client(socket);
        ASSERT_EQ(0, client.Stage(Project, folder / "manager" / "incoming" / "sample-project-1.1.0.tar")["status"]);
        ASSERT_EQ(0, client.Call("install", {{"name", Project}, {"softwareRevision", "1.1.0"}, {"manufacturerUri", "https://example.com/zun"}})["status"]);
    }
    daemon->Kill(SIGKILL);
    ASSERT_TRUE(manager.WaitUntilSettled(Manager::SoftwareKind::TesmoraEngineerProject, "Sample project"));
    for (int start = 0; start < 2; ++start)
    {
        daemon = StartDaemon();
        const Json components = Client(socket).Call("list")["result"]["components"];
        ASSERT_EQ(Project, components[1]["name"]);
        EXPECT_EQ("Idle", components[1]["status"]["state"]) << components;
        EXPECT_THAT(Notifications(), ::testing::ElementsAre("Security.Zun.Services.SoftwareUpdate.Tesmora Engineer project.Installation.Succeeded"));
        EXPECT_EQ(0, daemon->Kill(SIGTERM));
    }
}

TEST_F(UpdateDaemonTest, AnUploadNameThatNoPackageFileCouldCarryIsRefusedAtTheBeginning)
{
    auto daemon = StartDaemon();
    Client client(socket);
    for (const std::string& fileName : {std::string(201, 'n'), "dir/" + std::string(201, 'n'), std::string(".."), std::string("a\0b", 3)})
    {
        EXPECT_EQ("Bad_InvalidArgument", client.Call("stageBegin", {{"name", Files}, {"size", 10}, {"fileName", fileName}})["statusName"])
            << fileName.size();
    }
    EXPECT_EQ(0, client.Call("stageBegin", {{"name", Files}, {"size", 10}, {"fileName", "dir/" + std::string(200, 'n')}})["status"]);
    EXPECT_EQ(0, daemon->Kill(SIGTERM));
}

TEST_F(UpdateDaemonTest, AClientThatSendsGarbageOrStopsReadingDisturbsNoOther)
{
    auto daemon = StartDaemon({"--client-queue", "16"});
    Client garbage(socket);
    ASSERT_EQ(7, ::send(garbage.fd, "\x03\x00\x00\x00{x}", 7, MSG_NOSIGNAL));
    EXPECT_EQ("Bad_DecodingError", garbage.Read()["statusName"]);
    // Requests without reading a response: the socket fills, then the queue, then the client is dropped.
    Client stalled(socket);
    try
    {
        for (int i = 0; i < 100000; ++i)
        {
            MessageFraming::WriteMessage(stalled.fd, {{"type", "request"}, {"id", i}, {"op", "list"}});
        }
        ADD_FAILURE() << "the stalled client was never dropped";
    }
    catch (const Zun::System::Commons::SystemException&)
    {
    }
    Client healthy(socket);
    EXPECT_EQ(0, healthy.Call("getStatus", {{"name", Files}})["status"]);
    // The stalled connection ends; a time-out (EAGAIN) would mean it is still open.
    try
    {
        while (!stalled.Read().is_null())
        {
        }
    }
    catch (const Zun::System::Commons::SystemException& e)
    {
        EXPECT_EQ(ECONNRESET, e.GetErrorCode()) << e.what();
    }
    EXPECT_EQ(0, healthy.Call("list")["status"]);
    EXPECT_EQ(0, daemon->Kill(SIGTERM));
}

} // namespace
} // namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
