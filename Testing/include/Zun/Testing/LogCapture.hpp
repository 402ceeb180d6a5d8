// Captures log lines while it lives, so that tests assert exact texts and levels.
#pragma once

#include <memory>
#include <vector>

#include "Zun/Commons/String.hpp"

namespace Zun::Testing
{

struct CapturedLine
{
    int level;
    String message;
};

class LogCapture
{
public:
    // Attaches to the log manager, silences the stderr sink and raises every logger to `level`.
    explicit LogCapture(int level = 7);
    // Detaches and restores the previous default level and the stderr sink.
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<CapturedLine> Lines() const;
    // Messages at `level`, in order.
    std::vector<String> Messages(int level) const;
    bool Contains(int level, const String& message) const;
    void Clear();

private:
    class Sink;
    std::shared_ptr<Sink> sink;
    int previousLevel;
};

} // namespace Zun::Testing
