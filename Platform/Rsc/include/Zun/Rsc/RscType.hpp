// Type tags of the remote-call byte stream, and the string encodings.
#pragma once

#include <cstdint>

namespace Zun::System::Rsc
{

enum class RscType : std::uint8_t
{
    None = 0,
    End = 1,
    Bool = 2,
    Char = 3,
    Int8 = 4,
    UInt8 = 5,
    Int16 = 6,
    UInt16 = 7,
    Int32 = 8,
    UInt32 = 9,
    Int64 = 10,
    UInt64 = 11,
    Real32 = 12,
    Real64 = 13,
    Struct = 18,
    String = 19,
    Array = 20,
    DateTime = 23,
};

enum class RscStringEncoding : std::uint8_t
{
    None = 0,
    Ascii = 1,
    Utf8 = 2,
};

} // namespace Zun::System::Rsc
