// Staging trusts only the keyring: a package that is unsigned, altered after signing or signed by a
// key outside the keyring is refused with its reason, by the manager and by "verify" alike, and
// nothing of it stays staged; one that is not trusted is refused before anything of it is written.
#include <sys/inotify.h>
#include <unistd.h>

#include <functional>

#include <gtest/gtest.h>

#include "Zun/SoftwareManager/FrameCodec.hpp"
#include "tests/integration/Support/Processes.hpp"

namespace
{

using namespace Zun::Testing::Integration;
using namespace Manager;
using namespace Manager::Transport;

// Replaces the byte `offset` after `marker` by '0' ('1' if it is '0'); the tar's headers stay valid.
void ChangeByte(const fs::path& file, const std::string& marker, std::size_t offset)
{
    std::string bytes = ReadText(file);
    char& byte = bytes.at(bytes.find(marker) + offset);
    byte = byte == '0' ? '1' : '0';
    std::ofstream(file, std::ios::binary) << bytes;
}

struct Refusal
{
    const char* name;
    const char* key; // signs the package: "signing" (in the keyring), "stranger" (not), "" (none)
    std::function<void(const fs::path& package, const fs::path& keyring)> alter;
    const char* reason; // after "The package '<name>.tar' was refused: "
    bool extracts = false; // the signature holds, so the payload is written before its digest is checked
};

void PrintTo(const Refusal& refusal, std::ostream* out)
{
    *out << refusal.name;
}

class SigningTest : public ManagerFixture, public ::testing::WithParamInterface<Refusal>
{
};

TEST_P(SigningTest, OnlyWhatAKeyOfTheKeyringSignedIsStaged)
{
    const Refusal& refusal = GetParam();
    const std::string file = std::string(refusal.name) + ".tar";
    const Text alpha("Alpha");
    Pack("good.tar", "1.0.0", "sample content");
    ASSERT_EQ(0, RunTool({"keygen", "--private", (temp / "stranger.pem").string(), "--public", (temp / "stranger.pub").string()}, temp / "log"));
    signingKey = *refusal.key != '\0' ? temp / (std::string(refusal.key) + ".pem") : fs::path();
    Pack(file, "2.0.0", "sample content");
    StartService();
    const auto proxy = MakeProxy(socket);
    Text message;
    ASSERT_EQ(StatusCodes::Good, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, alpha, Text("good.tar"), message)) << message.CStr();
    const auto staged = Names(AlphaFolder() / "staged");
    if (refusal.alter)
    {
        refusal.alter(Incoming() / file, Keyring()); // while the manager runs: it reads the keyring at every staging
    }

    const int watch = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(watch, 0);
    ASSERT_GE(::inotify_add_watch(watch, (AlphaFolder() / "staged").c_str(), IN_CREATE), 0);
    EXPECT_EQ(StatusCodes::BadInvalidArgument, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, alpha, Text(file.c_str()), message));
    char events[4096];
    EXPECT_EQ(refusal.extracts, ::read(watch, events, sizeof events) > 0);
    ::close(watch);
    EXPECT_EQ(0u, message.ToString().rfind("The package '" + file + "' was refused: " + refusal.reason, 0)) << message.CStr();
    SoftwareInformation information;
    ASSERT_EQ(StatusCodes::Good, proxy->GetSoftwareInformation(SoftwareKind::GenericFiles, alpha, information));
    EXPECT_EQ("1.0.0", information.PendingManifest.Version.ToString());
    EXPECT_EQ(staged, Names(AlphaFolder() / "staged"));
    EXPECT_EQ(1, RunTool({"verify", (Incoming() / file).string(), "--keyring", Keyring().string()}, temp / "verify.log"));
    EXPECT_NE(std::string::npos, ReadText(temp / "verify.log").find(refusal.reason)) << ReadText(temp / "verify.log");
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, SigningTest,
    ::testing::Values(Refusal{"unsigned", "", nullptr, "The package is not signed (it has no manifest.sig)"},
                      Refusal{"manifest", "signing", [](auto& package, auto&) { ChangeByte(package, "\"2.0.0\"", 1); },
                              "The signature does not match manifest.json for key "},
                      Refusal{"payload", "signing", [](auto& package, auto&) { ChangeByte(package, "sample content", 0); },
                              "Payload checksum mismatch", true},
                      Refusal{"stranger", "stranger", nullptr, "manifest.json is signed by key "},
                      Refusal{"withdrawn", "signing", [](auto&, auto& keyring) { fs::remove(keyring / "test.pem"); },
                              "manifest.json is signed by key "}),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
