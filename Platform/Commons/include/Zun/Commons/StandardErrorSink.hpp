// The processes' default log sink: one line per record on stderr.
#pragma once

#include "Zun/Commons/ILogSink.hpp"

namespace Zun::System::Commons::Diagnostics::Logging
{

class ZUN_EXPORT StandardErrorSink : public ILogSink
{
public:
    // "<UTC time> <level> <logger>: <message>"
    void Write(const LogRecord& record) override;
};

} // namespace Zun::System::Commons::Diagnostics::Logging
