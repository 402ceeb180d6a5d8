// Writes the seed corpora of the fuzz targets (run once; its output is committed under fuzz/corpus):
// well-formed records and identifiers, plus a few truncated and corrupted variants.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ServiceContracts/Manifest.hpp"
#include "ServiceContracts/SoftwareInformation.hpp"
#include "ServiceContracts/SoftwareUpdateStatus.hpp"
#include "ServiceContracts/SoftwareVersionType.hpp"
#include "ServiceContracts/Tag.hpp"
#include "Zun/Rsc/RemotingWriter.hpp"
#include "Zun/SoftwareManager/FrameCodec.hpp"

namespace Manager = Zun::Services::SoftwareManager::Services::Internal;
namespace Update = Zun::Services::SoftwareUpdate::Services::Internal;
using Zun::System::Rsc::RemotingWriter;
using Zun::System::Rsc::RscString;
namespace Transport = Zun::Services::SoftwareManager::Services::Internal::Transport;

namespace
{

std::filesystem::path root;

void Put(const std::string& target, const std::string& name, const std::vector<std::uint8_t>& bytes)
{
    const auto directory = root / target;
    std::filesystem::create_directories(directory);
    std::ofstream(directory / name, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

void PutText(const std::string& name, const std::string& text)
{
    Put("FuzzComponentId", name, std::vector<std::uint8_t>(text.begin(), text.end()));
}

// The record's selector byte followed by its stream; also a truncated and a bit-flipped copy.
void PutRecord(const std::string& name, std::uint8_t selector, const Zun::System::Rsc::IRscSerializable& record)
{
    std::vector<std::uint8_t> bytes{selector};
    RemotingWriter writer(bytes);
    record.WriteTo(writer);
    Put("FuzzRecords", name, bytes);
    Put("FuzzRecords", name + "-truncated", std::vector<std::uint8_t>(bytes.begin(), bytes.begin() + bytes.size() / 2));
    auto flipped = bytes;
    flipped[flipped.size() / 3] ^= 0x80;
    Put("FuzzRecords", name + "-flipped", flipped);
}

Manager::Manifest MakeManifest(const char* version)
{
    Manager::Manifest m;
    m.ShortText = RscString<64>("app");
    m.Manufacturer = RscString<512>("Zun");
    m.ManufacturerUri = RscString<512>("https://zun.example/");
    m.Version = RscString<512>(version);
    m.ReleaseDate = Zun::DateTime::FromUnixTimeMilliseconds(1'700'000'000'000);
    m.TextList.emplace_back("patch-1");
    m.TextList.emplace_back("patch-2");
    m.UpdateBehavior = 5;
    m.Tags.emplace_back("key", "value");
    return m;
}

template <class Encode>
std::vector<std::uint8_t> MakeFrame(Transport::FrameType type, Transport::Operation operation, Encode encode)
{
    std::vector<std::uint8_t> payload;
    {
        RemotingWriter writer(payload);
        encode(writer);
    }
    return Transport::EncodeFrame(type, operation, 7, payload);
}

void PutFrames(const Manager::SoftwareInformation& information)
{
    using Transport::FrameType;
    using Transport::Operation;
    const RscString<512> name("app.tar");
    const auto kindAndName = [&](RemotingWriter& w) {
        Transport::WriteKind(w, Manager::SoftwareKind::GenericFiles);
        Transport::WriteText(w, name);
    };
    Put("FuzzFrame", "request-get-all", MakeFrame(FrameType::Request, Operation::GetAllSoftwareInformation, [](RemotingWriter&) {}));
    Put("FuzzFrame", "request-get-one", MakeFrame(FrameType::Request, Operation::GetSoftwareInformation, kindAndName));
    Put("FuzzFrame", "request-set-package", MakeFrame(FrameType::Request, Operation::SetSoftwarePackage, [&](RemotingWriter& w) {
            kindAndName(w);
            Transport::WriteText(w, RscString<512>("/tmp/package.zip"));
        }));
    Put("FuzzFrame", "request-start", MakeFrame(FrameType::Request, Operation::StartInstallation, kindAndName));
    Put("FuzzFrame", "response-get-all", MakeFrame(FrameType::Response, Operation::GetAllSoftwareInformation, [&](RemotingWriter& w) {
            Transport::WriteStatus(w, Transport::StatusCodes::Good);
            Transport::WriteRecordList(w, {information, information});
        }));
    Put("FuzzFrame", "response-get-one", MakeFrame(FrameType::Response, Operation::GetSoftwareInformation, [&](RemotingWriter& w) {
            Transport::WriteStatus(w, Transport::StatusCodes::Good);
            Transport::WriteRecord(w, information);
        }));
    Put("FuzzFrame", "response-state", MakeFrame(FrameType::Response, Operation::GetInstallationState, [&](RemotingWriter& w) {
            Transport::WriteStatus(w, Transport::StatusCodes::Good);
            Transport::WriteInt32(w, 3);
            Transport::WriteText(w, RscString<512>("installing"));
        }));
    Put("FuzzFrame", "response-refused", MakeFrame(FrameType::Response, Operation::StartInstallation, [&](RemotingWriter& w) {
            Transport::WriteStatus(w, Transport::StatusCodes::BadInvalidState);
            Transport::WriteText(w, RscString<512>("busy"));
        }));
    auto error = Transport::EncodeFrame(FrameType::Error, Operation::None, 0,
                                        Transport::EncodeErrorPayload(Transport::StatusCodes::BadUserAccessDenied, "denied"));
    Put("FuzzFrame", "error", error);
    auto stream = MakeFrame(FrameType::Request, Operation::GetPackageDirectory, [](RemotingWriter&) {});
    stream.insert(stream.end(), error.begin(), error.end());
    Put("FuzzFrame", "two-frames", stream);
    auto badMagic = error;
    badMagic[0] ^= 0xFF;
    Put("FuzzFrame", "bad-magic", badMagic);
    Put("FuzzFrame", "truncated", std::vector<std::uint8_t>(error.begin(), error.begin() + 20));
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
    {
        std::fprintf(stderr, "usage: %s CORPUS_ROOT\n", argv[0]);
        return 2;
    }
    root = argv[1];

    PutText("generic", "Generic files / app.tar");
    PutText("project", "Tesmora Engineer project / proj");
    PutText("none", "None / x");
    PutText("nested-delimiter", "Generic files / a / b");
    PutText("empty-name", "Generic files / ");
    PutText("no-spaces", "Generic files/a");
    PutText("lower-case", "generic files / a");
    PutText("empty-prefix", " / a");
    PutText("kind-byte", std::string("\x01name", 5));
    PutText("bad-kind-byte", std::string("\x03name", 5));
    PutText("nul-prefix", std::string("Generic files\0x / n", 19));

    PutRecord("tag", 0, Manager::Tag("name", "value"));
    PutRecord("manifest", 1, MakeManifest("1.2.3"));
    Manager::SoftwareInformation information;
    information.Name = RscString<512>("app.tar");
    information.Kind = Manager::SoftwareKind::GenericFiles;
    information.HasCurrentManifest = true;
    information.CurrentManifest = MakeManifest("1.0.0");
    information.HasPendingManifest = true;
    information.PendingManifest = MakeManifest("2.0.0");
    PutRecord("information", 2, information);
    PutFrames(information);
    Update::SoftwareVersionType version;
    version.Manufacturer = RscString<512>("Zun");
    version.SoftwareRevision = RscString<512>("2.0.0");
    version.PatchIdentifiers.emplace_back("p1");
    version.ReleaseDate = Zun::DateTime::FromUnixTimeMilliseconds(1'700'000'000'000);
    version.ChangeLogReference = RscString<512>("https://zun.example/changes");
    PutRecord("version", 3, version);
    Update::SoftwareUpdateStatus status;
    status.ErrorMessage = RscString<512>("Expected version is 2 but current version is 1.");
    status.StatusWord1 = -1;
    status.StatusWord2 = 7;
    status.InstallationState = Update::InstallationState::Error;
    status.StatusFlag = true;
    PutRecord("status", 4, status);
    return 0;
}
