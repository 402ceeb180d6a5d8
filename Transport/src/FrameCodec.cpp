#include "Zun/SoftwareManager/FrameCodec.hpp"

#include "Zun/Rsc/RemotingException.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal::Transport
{

using System::Rsc::RemotingException;
using System::Rsc::RemotingReader;
using System::Rsc::RemotingWriter;
using System::Rsc::RscStringEncoding;
using System::Rsc::RscType;

namespace
{

void PutUInt32(std::uint8_t* out, std::uint32_t value) noexcept
{
    for (int i = 0; i < 4; ++i)
    {
        out[i] = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

std::uint32_t GetUInt32(const std::uint8_t* in) noexcept
{
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i)
    {
        value |= static_cast<std::uint32_t>(in[i]) << (8 * i);
    }
    return value;
}

bool IsKnownOperation(std::uint16_t value) noexcept
{
    return value <= static_cast<std::uint16_t>(Operation::ResumeInstallation);
}

// The smallest encoding of one SoftwareInformation: name, kind, two flags and two empty manifests.
// Used to refuse a list count that the remaining bytes could never hold before anything is allocated.
constexpr std::size_t MinimumRecordSize = 100;

} // namespace

const char* GetOperationName(Operation operation) noexcept
{
    switch (operation)
    {
    case Operation::None:
        return "None";
    case Operation::GetAllSoftwareInformation:
        return "GetAllSoftwareInformation";
    case Operation::GetSoftwareInformation:
        return "GetSoftwareInformation";
    case Operation::GetInstallationState:
        return "GetInstallationState";
    case Operation::SetSoftwarePackage:
        return "SetSoftwarePackage";
    case Operation::RemoveSoftwarePackage:
        return "RemoveSoftwarePackage";
    case Operation::GetPackageDirectory:
        return "GetPackageDirectory";
    case Operation::StartInstallation:
        return "StartInstallation";
    case Operation::ResumeInstallation:
        return "ResumeInstallation";
    }
    return "Unknown";
}

void EncodeFrameHeader(const FrameHeader& header, std::uint8_t* out) noexcept
{
    PutUInt32(out, FrameMagic);
    out[4] = FrameVersion;
    out[5] = static_cast<std::uint8_t>(header.type);
    const auto operation = static_cast<std::uint16_t>(header.operation);
    out[6] = static_cast<std::uint8_t>(operation);
    out[7] = static_cast<std::uint8_t>(operation >> 8);
    PutUInt32(out + 8, header.requestId);
    PutUInt32(out + 12, header.payloadLength);
}

FrameHeader DecodeFrameHeader(const std::uint8_t* data, std::size_t size)
{
    if (size < FrameHeaderSize)
    {
        throw RemotingException("Frame header truncated: {0} of {1} bytes.", size, FrameHeaderSize);
    }
    const std::uint32_t magic = GetUInt32(data);
    if (magic != FrameMagic)
    {
        throw RemotingException("Bad frame magic 0x{0:08X}.", magic);
    }
    if (data[4] != FrameVersion)
    {
        throw RemotingException("Unsupported frame version {0}.", static_cast<unsigned>(data[4]));
    }
    const std::uint8_t type = data[5];
    if (type < static_cast<std::uint8_t>(FrameType::Request) || type > static_cast<std::uint8_t>(FrameType::Error))
    {
        throw RemotingException("Unknown frame type {0}.", static_cast<unsigned>(type));
    }
    const auto operation = static_cast<std::uint16_t>(data[6] | (data[7] << 8));
    if (!IsKnownOperation(operation))
    {
        throw RemotingException("Unknown operation {0}.", operation);
    }
    FrameHeader header;
    header.type = static_cast<FrameType>(type);
    header.operation = static_cast<Operation>(operation);
    header.requestId = GetUInt32(data + 8);
    header.payloadLength = GetUInt32(data + 12);
    if (header.payloadLength > MaxPayloadSize)
    {
        throw RemotingException("Frame payload of {0} bytes exceeds the limit of {1} bytes.", header.payloadLength, MaxPayloadSize);
    }
    return header;
}

std::vector<std::uint8_t> EncodeFrame(FrameType type, Operation operation, std::uint32_t requestId,
                                      const std::vector<std::uint8_t>& payload)
{
    std::vector<std::uint8_t> frame;
    frame.reserve(FrameHeaderSize + payload.size());
    BeginFrame(frame);
    frame.insert(frame.end(), payload.begin(), payload.end());
    FinishFrame(frame, type, operation, requestId);
    return frame;
}

void BeginFrame(std::vector<std::uint8_t>& frame)
{
    frame.assign(FrameHeaderSize, 0);
}

void FinishFrame(std::vector<std::uint8_t>& frame, FrameType type, Operation operation, std::uint32_t requestId)
{
    const std::size_t payloadSize = frame.size() - FrameHeaderSize;
    if (payloadSize > MaxPayloadSize)
    {
        throw RemotingException("Frame payload of {0} bytes exceeds the limit of {1} bytes.", payloadSize, MaxPayloadSize);
    }
    FrameHeader header;
    header.type = type;
    header.operation = operation;
    header.requestId = requestId;
    header.payloadLength = static_cast<std::uint32_t>(payloadSize);
    EncodeFrameHeader(header, frame.data());
}

void WriteKind(RemotingWriter& writer, SoftwareKind kind)
{
    WriteInt32(writer, static_cast<std::int32_t>(kind));
}

SoftwareKind ReadKind(RemotingReader& reader)
{
    return static_cast<SoftwareKind>(ReadInt32(reader));
}

void WriteText(RemotingWriter& writer, const System::Rsc::RscString<512>& text)
{
    writer.WriteStringInternal(text.CStr(), 512, RscStringEncoding::Utf8, true);
}

void ReadText(RemotingReader& reader, System::Rsc::RscString<512>& text)
{
    reader.ReadStringInternal(text.GetBuffer(), 512, RscStringEncoding::Utf8, true);
}

void WriteStatus(RemotingWriter& writer, std::uint32_t status)
{
    writer.WriteTag(RscType::UInt32);
    writer.WriteDataInternal(&status, sizeof status);
}

std::uint32_t ReadStatus(RemotingReader& reader)
{
    std::uint32_t status = 0;
    reader.ReadTag(RscType::UInt32);
    reader.ReadDataInternal(&status, sizeof status);
    return status;
}

void WriteInt32(RemotingWriter& writer, std::int32_t value)
{
    writer.WriteTag(RscType::Int32);
    writer.WriteDataInternal(&value, sizeof value);
}

std::int32_t ReadInt32(RemotingReader& reader)
{
    std::int32_t value = 0;
    reader.ReadTag(RscType::Int32);
    reader.ReadDataInternal(&value, sizeof value);
    return value;
}

void WriteRecord(RemotingWriter& writer, const SoftwareInformation& information)
{
    writer.WriteBeginStruct(SoftwareInformation::FieldCount);
    information.WriteTo(writer.GetNestedDataWriter());
}

void ReadRecord(RemotingReader& reader, SoftwareInformation& information)
{
    reader.ReadBeginStruct(SoftwareInformation::FieldCount);
    information.ReadFrom(reader.GetNestedDataReader());
}

void WriteRecordList(RemotingWriter& writer, const std::vector<SoftwareInformation>& list)
{
    writer.WriteTag(RscType::Array);
    writer.WriteBeginStruct(SoftwareInformation::FieldCount);
    writer.WriteArrayLength(list.size());
    for (const SoftwareInformation& information : list)
    {
        information.WriteTo(writer.GetNestedDataWriter());
    }
}

void ReadRecordList(RemotingReader& reader, std::vector<SoftwareInformation>& list)
{
    reader.ReadTag(RscType::Array);
    reader.ReadBeginStruct(SoftwareInformation::FieldCount);
    const std::size_t count = reader.ReadArrayLength();
    if (count > reader.GetRemaining() / MinimumRecordSize)
    {
        throw RemotingException("A list of {0} records cannot fit in the remaining {1} bytes.", count, reader.GetRemaining());
    }
    list.reserve(list.size() + count);
    // Read in place: a record is some 9 KB of fixed texts, not to be built twice.
    for (std::size_t i = 0; i < count; ++i)
    {
        list.emplace_back();
        try
        {
            list.back().ReadFrom(reader.GetNestedDataReader());
        }
        catch (...)
        {
            list.pop_back();
            throw;
        }
    }
}

void ExpectEnd(const RemotingReader& reader)
{
    if (reader.GetRemaining() != 0)
    {
        throw RemotingException("{0} unexpected bytes after the last value.", reader.GetRemaining());
    }
}

void WriteErrorPayload(RemotingWriter& writer, std::uint32_t status, const String& message)
{
    System::Rsc::RscString<512> text;
    // A message too long for the wire is cut rather than lost.
    SecureStrncpy(text.GetBuffer(), 512, message.data(), message.size() < 511 ? message.size() : 511);
    WriteStatus(writer, status);
    WriteText(writer, text);
}

std::vector<std::uint8_t> EncodeErrorPayload(std::uint32_t status, const String& message)
{
    std::vector<std::uint8_t> payload;
    RemotingWriter writer(payload);
    WriteErrorPayload(writer, status, message);
    return payload;
}

ErrorPayload DecodeErrorPayload(const std::vector<std::uint8_t>& payload)
{
    RemotingReader reader(payload.data(), payload.size());
    ErrorPayload error;
    error.status = ReadStatus(reader);
    System::Rsc::RscString<512> text;
    ReadText(reader, text);
    ExpectEnd(reader);
    error.message = text.ToString();
    return error;
}

} // namespace Zun::Services::SoftwareManager::Services::Internal::Transport
