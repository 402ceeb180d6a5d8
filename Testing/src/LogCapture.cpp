#include "Zun/Testing/LogCapture.hpp"

#include <algorithm>
#include <mutex>

#include "Zun/Commons/ILogSink.hpp"
#include "Zun/Commons/LogManager.hpp"

namespace Zun::Testing
{

using System::Commons::Diagnostics::Logging::LogManager;

// Keeps copies of the records: the record only refers to its message.
class LogCapture::Sink : public System::Commons::Diagnostics::Logging::ILogSink
{
public:
    void Write(const System::Commons::Diagnostics::Logging::LogRecord& record) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(CapturedLine{record.level, record.message});
    }

    mutable std::mutex mutex;
    std::vector<CapturedLine> lines;
};

namespace
{
// Captures may nest; the stderr sink comes back only when the last of them ends.
std::mutex activeMutex;
std::size_t activeCaptures = 0;
} // namespace

LogCapture::LogCapture(int level) : sink(std::make_shared<Sink>()), previousLevel(LogManager::GetDefaultLevel())
{
    std::lock_guard<std::mutex> lock(activeMutex);
    LogManager::SetAllLevels(level);
    LogManager::SetStandardErrorSinkEnabled(false);
    LogManager::AddSink(sink);
    ++activeCaptures;
}

LogCapture::~LogCapture()
{
    std::lock_guard<std::mutex> lock(activeMutex);
    LogManager::RemoveSink(sink);
    if (--activeCaptures == 0)
    {
        LogManager::SetStandardErrorSinkEnabled(true);
    }
    LogManager::SetAllLevels(previousLevel);
}

std::vector<CapturedLine> LogCapture::Lines() const
{
    std::lock_guard<std::mutex> lock(sink->mutex);
    return sink->lines;
}

std::vector<String> LogCapture::Messages(int level) const
{
    std::vector<String> result;
    for (const auto& line : Lines())
    {
        if (line.level == level)
        {
            result.push_back(line.message);
        }
    }
    return result;
}

bool LogCapture::Contains(int level, const String& message) const
{
    const std::vector<String> messages = Messages(level);
    return std::find(messages.begin(), messages.end(), message) != messages.end();
}

void LogCapture::Clear()
{
    std::lock_guard<std::mutex> lock(sink->mutex);
    sink->lines.clear();
}

} // namespace Zun::Testing
