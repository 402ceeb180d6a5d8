// The remote-call records on the wire: their exact bytes, reading them back, and what a faulty stream
// leaves behind.
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "../Platform/Expect.hpp"
#include "ServiceContracts/SoftwareInformation.hpp"
#include "ServiceContracts/SoftwareUpdateStatus.hpp"
#include "ServiceContracts/SoftwareVersionType.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/Rsc/RemotingException.hpp"
#include "Zun/Rsc/RemotingReader.hpp"
#include "Zun/Rsc/RemotingWriter.hpp"
#include "Zun/Rsc/RscType.hpp"

namespace
{

using namespace Zun::Services::SoftwareManager::Services::Internal;
using Zun::DateTime;
using Zun::DateTimeKind;
using Zun::Services::SoftwareUpdate::Services::Internal::SoftwareUpdateStatus;
using Zun::Services::SoftwareUpdate::Services::Internal::SoftwareVersionType;
using Zun::System::Commons::NotSupportedException;
using Zun::System::Rsc::RemotingException;
using Zun::System::Rsc::RemotingReader;
using Zun::System::Rsc::RemotingWriter;
using Zun::System::Rsc::RscType;
using Bytes = std::vector<std::uint8_t>;
using Text = Zun::System::Rsc::RscString<512>;

const DateTime Released(638'400'000'000'000'000, DateTimeKind::Utc);
const DateTime Pending(638'100'000'000'000'000, DateTimeKind::Local);
const DateTime Unspecified(7, DateTimeKind::Unspecified);

// The expected streams, built field by field: integers little-endian, counts 7 bits a byte with the
// low bits first and the high bit on all but the last byte.
Bytes operator+(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
const auto Type = [](RscType tag) -> Bytes { return {static_cast<std::uint8_t>(tag)}; };
const auto Le32 = [](std::uint32_t v) -> Bytes {
    return {static_cast<std::uint8_t>(v), static_cast<std::uint8_t>(v >> 8), static_cast<std::uint8_t>(v >> 16),
            static_cast<std::uint8_t>(v >> 24)};
};
Bytes Count(std::uint32_t value)
{
    Bytes bytes;
    for (; value >= 0x80; value >>= 7)
    {
        bytes.push_back(static_cast<std::uint8_t>(value | 0x80));
    }
    return bytes + Bytes{static_cast<std::uint8_t>(value)};
}
const auto Str = [](const std::string& text, bool withTag = true) -> Bytes {
    return (withTag ? Type(RscType::String) : Bytes()) + Bytes{2} + Count(static_cast<std::uint32_t>(text.size())) +
           Bytes(text.begin(), text.end());
};
const auto Date = [](DateTime date) -> Bytes {
    return Type(RscType::DateTime) + Le32(static_cast<std::uint32_t>(date.ToBinary())) +
           Le32(static_cast<std::uint32_t>(date.ToBinary() >> 32));
};
const auto Int32 = [](std::int32_t value) -> Bytes { return Type(RscType::Int32) + Le32(static_cast<std::uint32_t>(value)); };
const auto UInt32 = [](std::uint32_t value) -> Bytes { return Type(RscType::UInt32) + Le32(value); };
const auto Bool = [](std::uint8_t value) -> Bytes { return Type(RscType::Bool) + Bytes{value}; };
const auto Struct = [](std::uint32_t fieldCount) -> Bytes { return Type(RscType::Struct) + Count(fieldCount); };
const auto StrList = [](std::uint32_t count) -> Bytes { return Type(RscType::Array) + Type(RscType::String) + Count(count); };
const auto TagList = [](std::uint32_t count) -> Bytes { return Type(RscType::Array) + Struct(2) + Count(count); };

// The seven texts that open a manifest.
const auto Head = [](const char* version, const std::string& shortText = "pkg") -> Bytes {
    return Str(shortText) + Str("one") + Str("Tesmora") + Str("urn:tesmora") + Str("two") + Str("three") + Str(version);
};

Bytes ManifestBytes(const char* version, DateTime date, std::uint32_t behavior)
{
    return Head(version) + Date(date) + Str("four") + StrList(2) + Str("l1", false) + Str("l2", false) + Str("five") + UInt32(behavior) +
           TagList(2) + Str("os") + Str("linux") + Str("arch") + Str("armhf");
}

// `manifest` with what Head(version) and `date` hold.
Manifest WithHead(Manifest manifest, const char* version, DateTime date)
{
    manifest.ShortText = Zun::String("pkg");
    manifest.Text1 = Zun::String("one");
    manifest.Manufacturer = Zun::String("Tesmora");
    manifest.ManufacturerUri = Zun::String("urn:tesmora");
    manifest.Text2 = Zun::String("two");
    manifest.Text3 = Zun::String("three");
    manifest.Version = Zun::String(version);
    manifest.ReleaseDate = date;
    return manifest;
}

Manifest MakeManifest(const char* version, DateTime date, std::uint32_t behavior)
{
    Manifest manifest = WithHead(Manifest(), version, date);
    manifest.Text4 = Zun::String("four");
    manifest.TextList = {Text("l1"), Text("l2")};
    manifest.Text5 = Zun::String("five");
    manifest.UpdateBehavior = behavior;
    manifest.Tags = {Tag("os", "linux"), Tag("arch", "armhf")};
    return manifest;
}

SoftwareInformation MakeInformation()
{
    SoftwareInformation information;
    information.Name = Zun::String("app");
    information.Kind = SoftwareKind::TesmoraEngineerProject;
    information.HasCurrentManifest = true;
    information.CurrentManifest = MakeManifest("1.0", Released, 0x01);
    information.HasPendingManifest = false;
    information.PendingManifest = MakeManifest("1.1", Pending, 0x19);
    return information;
}

// The pending manifest travels whole even when flagged absent.
Bytes InformationBytes()
{
    return Str("app") + Int32(2) + Bool(1) + Struct(13) + ManifestBytes("1.0", Released, 0x01) + Bool(0) + Struct(13) +
           ManifestBytes("1.1", Pending, 0x19);
}

SoftwareUpdateStatus MakeStatus()
{
    SoftwareUpdateStatus status;
    status.ErrorMessage = Zun::String("failed");
    status.StatusWord1 = -2;
    status.StatusWord2 = 0x01020304;
    status.InstallationState = decltype(status.InstallationState)::Error;
    status.StatusFlag = true;
    return status;
}

SoftwareVersionType MakeVersion(std::vector<Text> patches, DateTime date, const char* changeLog)
{
    SoftwareVersionType version;
    version.Manufacturer = Zun::String("Tesmora");
    version.ManufacturerUri = Zun::String("urn:tesmora");
    version.SoftwareRevision = Zun::String("1.2.0");
    version.PatchIdentifiers = std::move(patches);
    version.ReleaseDate = date;
    version.ChangeLogReference = Zun::String(changeLog);
    return version;
}

const auto VersionHead = [](std::uint32_t patchCount) -> Bytes {
    return Str("Tesmora") + Str("urn:tesmora") + Str("1.2.0") + StrList(patchCount);
};
const Bytes VersionBytes = VersionHead(2) + Str("p1", false) + Str("p22", false) + Date(Released) + Str("http://log");

// Reads the first `length` bytes into `record`; its message if that throws an E, "" if all was read.
template <class E = RemotingException, class R> std::string ReadInto(R& record, const Bytes& bytes, std::size_t length)
{
    RemotingReader reader(bytes.data(), length);
    const std::string message = ZunTest::MessageOf<E>([&] { record.ReadFrom(reader); });
    return message == "no exception" && reader.GetRemaining() == 0 ? "" : message;
}

struct RecordCase
{
    const char* name;
    Bytes expected;
    std::function<Bytes()> write;
    std::function<std::string(std::size_t)> readBack; // reads the first bytes of `expected`: "" when it gets the record
};

template <class R> RecordCase Record(const char* name, R record, const Bytes& bytes)
{
    return {name, bytes,
            [=] {
                Bytes written;
                RemotingWriter writer(written);
                record.WriteTo(writer);
                return written;
            },
            [=](std::size_t length) {
                R read;
                const std::string message = ReadInto(read, bytes, length);
                return message.empty() && !(read == record) ? "another record" : message;
            }};
}

void PrintTo(const RecordCase& c, std::ostream* out)
{
    *out << c.name;
}

using RecordWireTest = ::testing::TestWithParam<RecordCase>;

TEST_P(RecordWireTest, WritesTheExactBytesReadsThemBackAndRefusesEveryPrefix)
{
    const RecordCase& c = GetParam();
    EXPECT_EQ(c.write(), c.expected);
    EXPECT_EQ(c.readBack(c.expected.size()), "");
    for (std::size_t length = 0; length < c.expected.size(); ++length)
    {
        EXPECT_NE(c.readBack(length).rfind("Unexpected ", 0), std::string::npos) << "prefix of " << length;
    }
}

INSTANTIATE_TEST_SUITE_P(Records, RecordWireTest,
                         ::testing::Values(Record("Status", MakeStatus(),
                                                  Str("failed") + Int32(-2) + Int32(0x01020304) + Int32(2) + Bool(1)),
                                           Record("Version", MakeVersion({Text("p1"), Text("p22")}, Released, "http://log"), VersionBytes),
                                           Record("Information", MakeInformation(), InformationBytes())),
                         [](const auto& info) { return std::string(info.param.name); });

struct FaultCase
{
    const char* name;
    std::function<std::string()> run; // the error's message
    std::string message;
};

// Reading `data` into `record` fails; the record then holds `after`: what was read, the rest left alone.
template <class E, class R> std::function<std::string()> Reads(const Bytes& data, R record, R after)
{
    return [=]() mutable {
        const std::string message = ReadInto<E>(record, data, data.size());
        EXPECT_EQ(record, after);
        return message;
    };
}

void PrintTo(const FaultCase& c, std::ostream* out)
{
    *out << c.name;
}

using RecordFaultTest = ::testing::TestWithParam<FaultCase>;

TEST_P(RecordFaultTest, IsTheExactErrorAndKeepsWhatWasDone)
{
    EXPECT_EQ(GetParam().run(), GetParam().message);
}

std::vector<FaultCase> FaultCases()
{
    // Every field set, so that a read which stops early shows what it left alone.
    Manifest old;
    old.ShortText = Zun::String("old");
    old.Text4 = Zun::String("old4");
    old.TextList = {Text("old")};
    old.Text5 = Zun::String("old5");
    old.UpdateBehavior = 9;
    old.Tags = {Tag("k", "v")};
    const Bytes text4 = Head("2.0") + Date(Released) + Str("");
    Manifest afterText4 = WithHead(old, "2.0", Released);
    afterText4.Text4 = Zun::String();
    Manifest afterTags = afterText4; // a tag whose reading failed is not kept
    afterTags.Text5 = Zun::String();
    afterTags.UpdateBehavior = 0;
    afterTags.Tags.emplace_back("n", "v");
    const std::string endOfData = "Unexpected end of data: 1 bytes needed, 0 left.";
    const std::string unspecified = "DateTimeKind Unspecified not supported.";
    return {
        {"ShortTextBeyondCapacity64", Reads<RemotingException>(Head("2.0", std::string(64, 's')), old, old),
         "String of 64 bytes does not fit a capacity of 64 bytes with its terminator."},
        {"TextListCountAtTheLimit", Reads<std::length_error>(text4 + StrList(Manifest::MaxListCount), old, afterText4), "vector::reserve"},
        {"SecondTagCutShort",
         Reads<RemotingException>(text4 + StrList(0) + Str("") + UInt32(0) + TagList(2) + Str("n") + Str("v") + Str("m"), old, afterTags),
         endOfData},
        {"VersionUnspecifiedDate",
         Reads<NotSupportedException>(VersionHead(0) + Date(Unspecified) + Str("http://log"), MakeVersion({}, DateTime(), "untouched"),
                                      MakeVersion({}, Unspecified, "untouched")),
         unspecified},
    };
}

INSTANTIATE_TEST_SUITE_P(Faults, RecordFaultTest, ::testing::ValuesIn(FaultCases()),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
