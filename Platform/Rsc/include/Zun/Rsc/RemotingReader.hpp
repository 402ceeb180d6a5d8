// Reads the byte stream that RemotingWriter writes (encoding described there). Every fault of the
// input is a RemotingException, never undefined behaviour: an unexpected tag or encoding, a count
// not in its shortest form or wider than 32 bits, a string that does not fit its capacity, a count
// above 2^31 - 1, a wrong struct field count, and the end of the data.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "Zun/Commons/DateTime.hpp"
#include "Zun/Commons/Export.hpp"
#include "Zun/Rsc/RscType.hpp"

namespace Zun::System::Rsc
{

class ZUN_EXPORT RemotingReader
{
public:
    static constexpr unsigned MaxDepth = 16;

    // Reads from `data`, which must outlive the reader.
    RemotingReader(const std::uint8_t* data, std::size_t size);
    ~RemotingReader();
    RemotingReader(const RemotingReader&) = delete;
    RemotingReader& operator=(const RemotingReader&) = delete;

    void ReadTag(RscType expected);
    // Writes the text and its terminator into `buffer` (capacity bytes) and zeroes what is left of
    // the text it held before, so that a buffer zeroed beyond its terminator stays so (as an
    // RscString always is) without clearing all of its capacity for every text.
    void ReadStringInternal(char* buffer, std::size_t capacity, RscStringEncoding encoding, bool withTag);
    std::size_t ReadArrayLength();
    void ReadDataInternal(void* buffer, std::size_t size);
    DateTime ReadDateTime();
    void ReadBeginStruct(std::size_t expectedFieldCount);

    // Starts over on other data, keeping the nested readers made so far (a reader reused for
    // many messages allocates nothing after the first).
    void Reset(const std::uint8_t* data, std::size_t size);

    // The reader for the fields of a nested record; it shares the position.
    RemotingReader& GetNestedDataReader();
    unsigned GetDepth() const noexcept { return depth; }
    std::size_t GetPosition() const noexcept { return *position; }
    std::size_t GetRemaining() const noexcept { return size - *position; }

private:
    RemotingReader(const std::uint8_t* data, std::size_t size, std::size_t* position, unsigned depth);
    void Require(std::size_t count) const;
    // Decodes the count that starts `offset` bytes past the position, without moving it; `used`
    // gets its length in bytes.
    std::uint32_t PeekCount(std::size_t offset, std::size_t& used) const;
    std::uint32_t PeekLongCount(std::size_t offset, std::size_t& used) const;

    const std::uint8_t* data;
    std::size_t size;
    // The outermost reader's own position, which every nested reader moves.
    std::size_t ownPosition = 0;
    std::size_t* position;
    unsigned depth;
    std::unique_ptr<RemotingReader> nested;
};

} // namespace Zun::System::Rsc
