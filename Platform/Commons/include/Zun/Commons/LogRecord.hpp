// One log line as the log manager hands it to its sinks.
#pragma once

#include "Zun/Commons/DateTime.hpp"
#include "Zun/Commons/String.hpp"

namespace Zun::System::Commons::Diagnostics::Logging
{

struct LogRecord
{
    const String& loggerName;
    int level;
    const String& message;
    DateTime timestamp;
};

} // namespace Zun::System::Commons::Diagnostics::Logging
