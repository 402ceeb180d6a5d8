// Destination of log lines: the processes write to stderr, tests capture lines to assert them.
#pragma once

#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/LogRecord.hpp"

namespace Zun::System::Commons::Diagnostics::Logging
{

class ZUN_EXPORT ILogSink
{
public:
    virtual ~ILogSink();
    // Called on the logging thread; must be safe to call from several threads at once.
    virtual void Write(const LogRecord& record) = 0;
};

} // namespace Zun::System::Commons::Diagnostics::Logging
