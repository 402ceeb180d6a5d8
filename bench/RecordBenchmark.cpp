// Encoding plus decoding of a full SoftwareInformation (both manifests filled, lists of ten) with the
// remoting writer and reader, against the same record as a Protocol Buffers message.
#include <cstdio>

#include <benchmark/benchmark.h>

#include "RatioReporter.hpp"
#include "ServiceContracts/SoftwareInformation.hpp"
#include "Zun/SoftwareManager/FrameCodec.hpp"
#include "software_information.pb.h"

namespace
{

using namespace Zun::Services::SoftwareManager::Services::Internal;
using Zun::System::Rsc::RemotingReader;
using Zun::System::Rsc::RemotingWriter;

void Fill(Manifest& manifest, int which)
{
    manifest.ShortText = Zun::String(fmt::format("Line controller {}", which));
    manifest.Text1 = Zun::String("Firmware and configuration of the packaging line controller");
    manifest.Manufacturer = Zun::String("Zun Automation");
    manifest.ManufacturerUri = Zun::String("https://example.com/zun-automation");
    manifest.Text2 = Zun::String("Requires a restart of the runtime");
    manifest.Text3 = Zun::String("Signed release build");
    manifest.Version = Zun::String(fmt::format("2026.{}.0", which));
    manifest.ReleaseDate = Zun::DateTime::FromUnixTimeMilliseconds(1'793'536'200'000);
    manifest.Text4 = Zun::String("See the release notes for details");
    for (int i = 0; i < 10; ++i)
    {
        manifest.TextList.emplace_back(fmt::format("Change {}: improved diagnostics of axis {}", i, i).c_str());
        manifest.Tags.emplace_back(fmt::format("key{}", i).c_str(), fmt::format("value number {}", i).c_str());
    }
    manifest.Text5 = Zun::String("Internal build 4711");
    manifest.UpdateBehavior = 5;
}

SoftwareInformation MakeRecord()
{
    SoftwareInformation information;
    information.Name = Zun::String("Packaging line");
    information.Kind = SoftwareKind::TesmoraEngineerProject;
    information.HasCurrentManifest = true;
    information.HasPendingManifest = true;
    Fill(information.CurrentManifest, 1);
    Fill(information.PendingManifest, 2);
    return information;
}

void ToProto(const Manifest& m, zunbench::Manifest& p)
{
    p.set_short_text(m.ShortText.CStr());
    p.set_text1(m.Text1.CStr());
    p.set_manufacturer(m.Manufacturer.CStr());
    p.set_manufacturer_uri(m.ManufacturerUri.CStr());
    p.set_text2(m.Text2.CStr());
    p.set_text3(m.Text3.CStr());
    p.set_version(m.Version.CStr());
    p.set_release_date(m.ReleaseDate.ToBinary());
    p.set_text4(m.Text4.CStr());
    for (const auto& text : m.TextList)
    {
        p.add_text_list(text.CStr());
    }
    p.set_text5(m.Text5.CStr());
    p.set_update_behavior(m.UpdateBehavior);
    for (const Tag& tag : m.Tags)
    {
        auto* t = p.add_tags();
        t->set_name(tag.Name.CStr());
        t->set_value(tag.Value.CStr());
    }
}

zunbench::SoftwareInformation MakeProto(const SoftwareInformation& information)
{
    zunbench::SoftwareInformation p;
    p.set_name(information.Name.CStr());
    p.set_kind(static_cast<int>(information.Kind));
    p.set_current_present(information.HasCurrentManifest);
    ToProto(information.CurrentManifest, *p.mutable_current_manifest());
    p.set_pending_present(information.HasPendingManifest);
    ToProto(information.PendingManifest, *p.mutable_pending_manifest());
    return p;
}

std::size_t RemotingSize()
{
    std::vector<std::uint8_t> buffer;
    RemotingWriter writer(buffer);
    Transport::WriteRecord(writer, MakeRecord());
    return buffer.size();
}

void BM_RemotingEncodeDecode(benchmark::State& state)
{
    const SoftwareInformation record = MakeRecord();
    std::vector<std::uint8_t> buffer;
    buffer.reserve(64 * 1024);
    // Writer and reader kept from call to call, as the proxy and the service keep theirs.
    RemotingWriter writer(buffer);
    RemotingReader reader(nullptr, 0);
    for (auto _ : state)
    {
        buffer.clear();
        Transport::WriteRecord(writer, record);
        reader.Reset(buffer.data(), buffer.size());
        SoftwareInformation decoded;
        Transport::ReadRecord(reader, decoded);
        if (decoded.PendingManifest.Tags.size() != 10 || decoded.PendingManifest.Version != record.PendingManifest.Version)
        {
            state.SkipWithError("decoded record differs");
            break;
        }
        benchmark::DoNotOptimize(decoded);
    }
    state.counters["wire_bytes"] = static_cast<double>(RemotingSize());
}
BENCHMARK(BM_RemotingEncodeDecode);

void BM_ProtobufEncodeDecode(benchmark::State& state)
{
    const zunbench::SoftwareInformation message = MakeProto(MakeRecord());
    std::string wire;
    for (auto _ : state)
    {
        wire.clear();
        message.SerializeToString(&wire);
        zunbench::SoftwareInformation decoded;
        if (!decoded.ParseFromString(wire) || decoded.pending_manifest().tags_size() != 10 ||
            decoded.pending_manifest().version() != message.pending_manifest().version())
        {
            state.SkipWithError("decoded message differs");
            break;
        }
        benchmark::DoNotOptimize(decoded);
    }
    state.counters["wire_bytes"] = static_cast<double>(message.ByteSizeLong());
}
BENCHMARK(BM_ProtobufEncodeDecode);

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter(RatioReporter::Clock::Cpu);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const auto remotingBytes = static_cast<double>(RemotingSize());
    const auto protobufBytes = static_cast<double>(MakeProto(MakeRecord()).ByteSizeLong());
    std::printf("\nwire size: remoting %.0f bytes, protobuf %.0f bytes\n", remotingBytes, protobufBytes);
    RatioReporter::Print("record_time_vs_protobuf", reporter.Ratio("BM_RemotingEncodeDecode", "BM_ProtobufEncodeDecode"));
    RatioReporter::Print("record_size_vs_protobuf", remotingBytes / protobufBytes);
    RatioReporter::Print("record_bytes", remotingBytes);
    RatioReporter::Print("protobuf_bytes", protobufBytes);
    benchmark::Shutdown();
    return 0;
}
