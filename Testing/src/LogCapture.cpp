#include "Zun/Testing/LogCapture.hpp"

#include <algorithm>
#include <mutex>

#include "Zun/Commons/ILogSink.hpp"
#include "Zun/Commons/LogManager.hpp"

namespace Zun::Testing
{

using System::Commons::Diagnostics::Logging::ILogSink;
using System::Commons::Diagnostics::Logging::LogManager;
using System::Commons::Diagnostics::Logging::LogRecord;

// Keeps copies of the records: the record only refers to the logger's name and message.
class LogCapture::Sink : public ILogSink
{
public:
    void Write(const LogRecord& record) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(CapturedLine{record.loggerName, record.level, record.message});
    }

    std::vector<CapturedLine> Lines() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return lines;
    }

    void Clear()
    {
        std::lock_guard<std::mutex> lock(mutex);
        lines.clear();
    }

private:
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
    return sink->Lines();
}

std::vector<String> LogCapture::Messages() const
{
    std::vector<String> result;
    for (const auto& line : sink->Lines())
    {
        result.push_back(line.message);
    }
    return result;
}

std::vector<String> LogCapture::Messages(int level) const
{
    std::vector<String> result;
    for (const auto& line : sink->Lines())
    {
        if (line.level == level)
        {
            result.push_back(line.message);
        }
    }
    return result;
}

bool LogCapture::Contains(const String& message) const
{
    return Count(message) > 0;
}

bool LogCapture::Contains(int level, const String& message) const
{
    const auto lines = sink->Lines();
    return std::any_of(lines.begin(), lines.end(),
                       [&](const CapturedLine& line) { return line.level == level && line.message == message; });
}

std::size_t LogCapture::Count(const String& message) const
{
    const auto lines = sink->Lines();
    return static_cast<std::size_t>(
        std::count_if(lines.begin(), lines.end(), [&](const CapturedLine& line) { return line.message == message; }));
}

void LogCapture::Clear()
{
    sink->Clear();
}

} // namespace Zun::Testing
