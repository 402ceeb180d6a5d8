// Log lines on stderr, one write per line so that lines from several threads do not interleave.
#include <unistd.h>

#include <ctime>

#include <fmt/format.h>

#include "Zun/Commons/PosixCall.hpp"
#include "Zun/Commons/StandardErrorSink.hpp"

namespace Zun::System::Commons::Diagnostics::Logging
{

namespace
{
// "YYYY-MM-DDTHH:MM:SS.mmmZ"
String FormatTimestamp(const DateTime& timestamp)
{
    const std::int64_t milliseconds = timestamp.ToUnixTimeMilliseconds();
    std::int64_t seconds = milliseconds / 1000;
    std::int64_t fraction = milliseconds % 1000;
    if (fraction < 0)
    {
        fraction += 1000;
        --seconds;
    }
    const std::time_t time = static_cast<std::time_t>(seconds);
    std::tm parts{};
    if (::gmtime_r(&time, &parts) == nullptr)
    {
        return String(fmt::format("{}ms", milliseconds));
    }
    return String(fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday,
                              parts.tm_hour, parts.tm_min, parts.tm_sec, fraction));
}
} // namespace

void StandardErrorSink::Write(const LogRecord& record)
{
    const String line(fmt::format("{} {} {}: {}\n", FormatTimestamp(record.timestamp), record.level, record.loggerName, record.message));
    const char* data = line.data();
    std::size_t remaining = line.size();
    // One call in practice; the loop only finishes a short write.
    while (remaining > 0)
    {
        const ssize_t written = PosixCall("write", ::write, STDERR_FILENO, data, remaining);
        data += written;
        remaining -= static_cast<std::size_t>(written);
    }
}

} // namespace Zun::System::Commons::Diagnostics::Logging
