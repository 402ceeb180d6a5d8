// A named logger with its own current level; formats a message only when its level is enabled.
#pragma once

#include <atomic>

#include <fmt/format.h>

#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/String.hpp"

namespace Zun::System::Commons::Diagnostics::Logging
{

class ZUN_EXPORT LogAdapter
{
public:
    LogAdapter(String name, int level);
    LogAdapter(const LogAdapter&) = delete;
    LogAdapter& operator=(const LogAdapter&) = delete;

    const String& GetName() const noexcept { return name; }
    int GetLevel() const noexcept { return level.load(); }
    void SetLevel(int newLevel) noexcept { level.store(newLevel); }
    // A message of `messageLevel` is written when it is at most the current level.
    bool IsEnabled(int messageLevel) const noexcept { return messageLevel <= level.load(); }

    // `format` takes {} or {0} placeholders. An exception thrown while an argument is written
    // (a formatter or an operator<<) leaves this call; nothing is written then.
    template <class... Args>
    void Log(int messageLevel, const char* format, const Args&... args) const
    {
        if (!IsEnabled(messageLevel))
        {
            return;
        }
        Write(messageLevel, String(fmt::vformat(format, fmt::make_format_args(args...))));
    }

    // Hands a finished message to the log manager's sinks.
    void Write(int messageLevel, const String& message) const;

private:
    String name;
    std::atomic<int> level;
};

} // namespace Zun::System::Commons::Diagnostics::Logging
