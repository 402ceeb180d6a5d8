// Writes the remote-call byte stream. The encoding, in one place:
//
//   tag            1 byte, an RscType value
//   count          unsigned LEB128 in its shortest form: 7 bits a byte, low bits first, the top bit
//                  set on every byte but the last; 1 byte up to 127, at most 5 bytes
//   string         [tag 19, if written with its tag] encoding (1 byte) length (count) bytes (no terminator)
//   array length   count
//   raw data       the bytes as given (the records write their 32-bit fields and booleans this way)
//   date and time  8 bytes little-endian, the DateTime's binary value (ticks and kind)
//   struct header  tag 18, field count (count)
//
// Texts are mostly far shorter than their capacity, so a one-byte length is the common case.
//
// Nested records are written through the nested-data writer, which appends to the same buffer and
// counts the nesting depth (at most MaxDepth levels).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Zun/Commons/DateTime.hpp"
#include "Zun/Commons/Export.hpp"
#include "Zun/Rsc/RscType.hpp"

namespace Zun::System::Rsc
{

class ZUN_EXPORT RemotingWriter
{
public:
    static constexpr unsigned MaxDepth = 16;

    // Appends to `buffer`, which must outlive the writer.
    explicit RemotingWriter(std::vector<std::uint8_t>& buffer);
    ~RemotingWriter();
    RemotingWriter(const RemotingWriter&) = delete;
    RemotingWriter& operator=(const RemotingWriter&) = delete;

    void WriteTag(RscType tag);
    // Writes the text up to its terminator; throws RemotingException when the text has no
    // terminator within `capacity`.
    void WriteStringInternal(const char* text, std::size_t capacity, RscStringEncoding encoding, bool withTag);
    void WriteArrayLength(std::size_t count);
    void WriteDataInternal(const void* data, std::size_t size);
    void WriteDateTime(const DateTime& value);
    void WriteBeginStruct(std::size_t fieldCount);

    // The writer for the fields of a nested record.
    RemotingWriter& GetNestedDataWriter();
    unsigned GetDepth() const noexcept { return depth; }
    std::size_t GetSize() const noexcept { return buffer.size(); }

private:
    RemotingWriter(std::vector<std::uint8_t>& buffer, unsigned depth);
    void WriteCount(std::uint32_t value);
    // Appends `count` bytes for the caller to fill.
    std::uint8_t* Grow(std::size_t count);

    std::vector<std::uint8_t>& buffer;
    unsigned depth;
    std::unique_ptr<RemotingWriter> nested;
};

} // namespace Zun::System::Rsc
