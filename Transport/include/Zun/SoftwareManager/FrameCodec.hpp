// Frames of the software manager transport, and the argument and result encoding inside them.
//
// A frame is a 16-byte header followed by the payload (all integers little-endian):
//   magic u32 "ZSMF" | version u8 | frame type u8 | operation u16 | request id u32 | payload length u32
// The payload is written with RemotingWriter: arguments and results in the order of the operation's
// parameters; a record is preceded by its struct header and written through the nested-data writer.
// An error frame carries a status code and a message instead of the operation's results.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "ServiceContracts/SoftwareInformation.hpp"
#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/String.hpp"
#include "Zun/Rsc/RemotingReader.hpp"
#include "Zun/Rsc/RemotingWriter.hpp"
#include "Zun/Rsc/RscString.hpp"
#include "Zun/SoftwareManager/SoftwareKind.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal::Transport
{

constexpr std::uint32_t FrameMagic = 0x464D535Au; // "ZSMF" in little-endian byte order
constexpr std::uint8_t FrameVersion = 1;
constexpr std::size_t FrameHeaderSize = 16;
// Large enough for hundreds of fully filled component records; anything above is refused unread.
constexpr std::uint32_t MaxPayloadSize = 4u * 1024u * 1024u;

// Status codes of the transport and of the service (OPC UA values).
namespace StatusCodes
{
constexpr std::uint32_t Good = 0x00000000u;
constexpr std::uint32_t BadUnexpectedError = 0x80010000u;
constexpr std::uint32_t BadInternalError = 0x80020000u;
constexpr std::uint32_t BadDecodingError = 0x80070000u;
constexpr std::uint32_t BadEncodingError = 0x80060000u;
constexpr std::uint32_t BadTimeout = 0x800A0000u;
constexpr std::uint32_t BadUserAccessDenied = 0x801F0000u;
constexpr std::uint32_t BadNoCommunication = 0x80310000u;
constexpr std::uint32_t BadNotSupported = 0x803D0000u;
constexpr std::uint32_t BadNotFound = 0x803E0000u;
constexpr std::uint32_t BadResourceUnavailable = 0x80040000u;
constexpr std::uint32_t BadTooManyOperations = 0x80100000u;
constexpr std::uint32_t BadResponseTooLarge = 0x80B90000u;
constexpr std::uint32_t BadInvalidArgument = 0x80AB0000u;
constexpr std::uint32_t BadInvalidState = 0x80AF0000u;
} // namespace StatusCodes

enum class FrameType : std::uint8_t
{
    Request = 1,
    Response = 2,
    Error = 3,
};

enum class Operation : std::uint16_t
{
    // Used by connection-level error frames (for example a refused peer).
    None = 0,
    GetAllSoftwareInformation = 1,
    GetSoftwareInformation = 2,
    GetInstallationState = 3,
    SetSoftwarePackage = 4,
    RemoveSoftwarePackage = 5,
    GetPackageDirectory = 6,
    StartInstallation = 7,
    ResumeInstallation = 8,
};

ZUN_EXPORT const char* GetOperationName(Operation operation) noexcept;

struct FrameHeader
{
    FrameType type = FrameType::Request;
    Operation operation = Operation::None;
    std::uint32_t requestId = 0;
    std::uint32_t payloadLength = 0;
};

// Writes the 16 header bytes.
ZUN_EXPORT void EncodeFrameHeader(const FrameHeader& header, std::uint8_t* out) noexcept;
// Checks magic, version, type, operation and the payload bound; throws RemotingException with a
// message naming the fault.
ZUN_EXPORT FrameHeader DecodeFrameHeader(const std::uint8_t* data, std::size_t size);
// Header and payload in one buffer; throws RemotingException when the payload exceeds the bound.
ZUN_EXPORT std::vector<std::uint8_t> EncodeFrame(FrameType type, Operation operation, std::uint32_t requestId,
                                                 const std::vector<std::uint8_t>& payload);
// A frame built in place, so that it leaves in one send without a copy: BeginFrame empties `frame`
// and leaves room for the header, the payload is written after it, FinishFrame fills the header in
// (throws RemotingException when the payload exceeds the bound).
ZUN_EXPORT void BeginFrame(std::vector<std::uint8_t>& frame);
ZUN_EXPORT void FinishFrame(std::vector<std::uint8_t>& frame, FrameType type, Operation operation, std::uint32_t requestId);

// The values inside a payload.
ZUN_EXPORT void WriteKind(System::Rsc::RemotingWriter& writer, SoftwareKind kind);
ZUN_EXPORT SoftwareKind ReadKind(System::Rsc::RemotingReader& reader);
ZUN_EXPORT void WriteText(System::Rsc::RemotingWriter& writer, const System::Rsc::RscString<512>& text);
ZUN_EXPORT void ReadText(System::Rsc::RemotingReader& reader, System::Rsc::RscString<512>& text);
ZUN_EXPORT void WriteStatus(System::Rsc::RemotingWriter& writer, std::uint32_t status);
ZUN_EXPORT std::uint32_t ReadStatus(System::Rsc::RemotingReader& reader);
ZUN_EXPORT void WriteInt32(System::Rsc::RemotingWriter& writer, std::int32_t value);
ZUN_EXPORT std::int32_t ReadInt32(System::Rsc::RemotingReader& reader);
// A top-level record: struct header, then its fields through the nested-data writer.
ZUN_EXPORT void WriteRecord(System::Rsc::RemotingWriter& writer, const SoftwareInformation& information);
ZUN_EXPORT void ReadRecord(System::Rsc::RemotingReader& reader, SoftwareInformation& information);
// Array tag, the element struct header, the count, then each element's fields.
ZUN_EXPORT void WriteRecordList(System::Rsc::RemotingWriter& writer, const std::vector<SoftwareInformation>& list);
// Appends to `list`; a count that the remaining bytes cannot hold is a RemotingException.
ZUN_EXPORT void ReadRecordList(System::Rsc::RemotingReader& reader, std::vector<SoftwareInformation>& list);
// Throws RemotingException when bytes are left after the last value.
ZUN_EXPORT void ExpectEnd(const System::Rsc::RemotingReader& reader);

// Payload of an error frame; a message too long for the wire is cut.
ZUN_EXPORT void WriteErrorPayload(System::Rsc::RemotingWriter& writer, std::uint32_t status, const String& message);
ZUN_EXPORT std::vector<std::uint8_t> EncodeErrorPayload(std::uint32_t status, const String& message);
struct ErrorPayload
{
    std::uint32_t status = StatusCodes::BadUnexpectedError;
    String message;
};
ZUN_EXPORT ErrorPayload DecodeErrorPayload(const std::vector<std::uint8_t>& payload);

} // namespace Zun::Services::SoftwareManager::Services::Internal::Transport
