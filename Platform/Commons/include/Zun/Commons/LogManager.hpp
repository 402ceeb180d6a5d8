// Process-wide registry of loggers (one per name) and of the sinks that receive their lines.
#pragma once

#include <memory>

#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/ILogSink.hpp"
#include "Zun/Commons/LogAdapter.hpp"
#include "Zun/Commons/String.hpp"

namespace Zun
{
class AppDomain;
}

namespace Zun::System::Commons::Diagnostics::Logging
{

class ZUN_EXPORT LogManager
{
public:
    // Numeric levels: 1 fatal ... 3 error ... 5 warning ... 7 trace.
    static constexpr int DefaultLevel = 3;

    static void AssignAppDomain(AppDomain& appDomain);
    // The domain of the last AssignAppDomain, or null.
    static AppDomain* GetAssignedAppDomain() noexcept;

    // The logger of this name, created at the default level on first use. Never destroyed.
    static LogAdapter& GetLogger(const String& name);

    static int GetDefaultLevel() noexcept;
    // Sets the level for loggers created from now on.
    static void SetDefaultLevel(int level) noexcept;
    // Sets the default level and the level of every existing logger.
    static void SetAllLevels(int level);

    // The standard error sink is attached at start; these replace or extend the set.
    static void AddSink(std::shared_ptr<ILogSink> sink);
    static void RemoveSink(const std::shared_ptr<ILogSink>& sink);
    static void SetStandardErrorSinkEnabled(bool enabled);

    // Writes to every sink; used by LogAdapter.
    static void Dispatch(const String& loggerName, int level, const String& message);
};

} // namespace Zun::System::Commons::Diagnostics::Logging
