// Turns a failed formatting into a readable text, so that a message is never lost to a bad format.
#pragma once

#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/String.hpp"

namespace Zun::System::Commons
{

class ZUN_EXPORT FormatExceptionHandler
{
public:
    // Returns "Format error in '{format}': {reason}".
    static String Handle(const char* format, const char* reason);
};

} // namespace Zun::System::Commons
