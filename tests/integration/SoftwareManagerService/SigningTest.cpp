// Staging trusts only the keyring: a signed package is staged, and a package that is unsigned,
// altered after signing or signed by a key outside the keyring is refused with its reason, by the
// manager and by the offline "verify" alike, and nothing of it stays staged.
#include <functional>

#include <gtest/gtest.h>

#include "Zun/SoftwareManager/FrameCodec.hpp"
#include "tests/integration/Support/Processes.hpp"

namespace
{

using namespace Zun::Testing::Integration;
using namespace Manager;
using namespace Manager::Transport;

const Text Alpha("Alpha");

// Replaces the byte `offset` after the first `marker` in the file by '0' ('1' if it is '0'); the
// tar's headers stay valid.
void ChangeByte(const fs::path& file, const std::string& marker, std::size_t offset)
{
    std::string bytes = ReadText(file);
    const std::size_t at = bytes.find(marker);
    ASSERT_NE(std::string::npos, at) << marker;
    bytes[at + offset] = bytes[at + offset] == '0' ? '1' : '0';
    std::ofstream(file, std::ios::binary) << bytes;
}

enum class Signer
{
    Trusted,
    None,
    Stranger,
};

struct Refusal
{
    const char* name;
    Signer signer;
    std::function<void(const fs::path& package, const fs::path& keyring)> alter;
    const char* reason; // after "The package '<name>.tar' was refused: "
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
    const std::string file = std::string(GetParam().name) + ".tar";
    Pack("good.tar", "1.0.0", "sample content");
    if (GetParam().signer == Signer::Stranger)
    {
        signingKey = temp / "stranger.pem";
        ASSERT_EQ(0, RunTool({"keygen", "--private", signingKey.string(), "--public", (temp / "stranger.pub").string()}, temp / "log"));
    }
    else if (GetParam().signer == Signer::None)
    {
        signingKey.clear();
    }
    Pack(file, "2.0.0", "sample content");
    StartService();
    const auto proxy = MakeProxy(socket);
    Text message;
    ASSERT_EQ(StatusCodes::Good, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Alpha, Text("good.tar"), message)) << message.CStr();
    const auto staged = Names(AlphaFolder() / "staged");
    if (GetParam().alter)
    {
        // While the manager runs: it reads the keyring at every staging.
        GetParam().alter(Incoming() / file, Keyring());
    }

    EXPECT_EQ(StatusCodes::BadInvalidArgument, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Alpha, Text(file.c_str()), message));
    EXPECT_EQ(0u, message.ToString().rfind("The package '" + file + "' was refused: " + GetParam().reason, 0)) << message.CStr();
    SoftwareInformation information;
    ASSERT_EQ(StatusCodes::Good, proxy->GetSoftwareInformation(SoftwareKind::GenericFiles, Alpha, information));
    EXPECT_EQ("1.0.0", information.PendingManifest.Version.ToString());
    EXPECT_EQ(staged, Names(AlphaFolder() / "staged"));

    const fs::path output = temp / "verify.log";
    EXPECT_EQ(1, RunTool({"verify", (Incoming() / file).string(), "--keyring", Keyring().string()}, output));
    EXPECT_NE(std::string::npos, ReadText(output).find(GetParam().reason)) << ReadText(output);
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, SigningTest,
    ::testing::Values(Refusal{"unsigned", Signer::None, nullptr, "The package is not signed (it has no manifest.sig)"},
                      Refusal{"manifest", Signer::Trusted, [](auto& package, auto&) { ChangeByte(package, "\"2.0.0\"", 1); },
                              "The signature does not match manifest.json for key "},
                      Refusal{"signature", Signer::Trusted, [](auto& package, auto&) { ChangeByte(package, "\"signature\": \"", 14); },
                              "The signature does not match manifest.json for key "},
                      Refusal{"payload", Signer::Trusted, [](auto& package, auto&) { ChangeByte(package, "sample content", 0); },
                              "Payload checksum mismatch"},
                      Refusal{"stranger", Signer::Stranger, nullptr, "manifest.json is signed by key "},
                      Refusal{"withdrawn", Signer::Trusted, [](auto&, auto& keyring) { fs::remove(keyring / "test.pem"); },
                              "manifest.json is signed by key "}),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
