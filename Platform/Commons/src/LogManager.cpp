// The process-wide logger registry and sink list.
#include <algorithm>
#include <atomic>
#include <exception>
#include <map>
#include <mutex>
#include <vector>

#include "Zun/Commons/DateTime.hpp"
#include "Zun/Commons/LogManager.hpp"
#include "Zun/Commons/StandardErrorSink.hpp"

namespace Zun::System::Commons::Diagnostics::Logging
{

ILogSink::~ILogSink() = default;

namespace
{

struct Registry
{
    std::mutex mutex;
    std::map<String, std::unique_ptr<LogAdapter>> loggers;
    std::vector<std::shared_ptr<ILogSink>> sinks;
    std::shared_ptr<ILogSink> standardErrorSink = std::make_shared<StandardErrorSink>();
    bool standardErrorSinkEnabled = true;
    std::atomic<int> defaultLevel{LogManager::DefaultLevel};
    std::atomic<AppDomain*> appDomain{nullptr};
};

Registry& GetRegistry()
{
    // Never freed: loggers are used from static destructors of any library, in any order.
    static Registry* const registry = new Registry();
    return *registry;
}

} // namespace

void LogManager::AssignAppDomain(AppDomain& appDomain)
{
    GetRegistry().appDomain.store(&appDomain);
}

AppDomain* LogManager::GetAssignedAppDomain() noexcept
{
    return GetRegistry().appDomain.load();
}

LogAdapter& LogManager::GetLogger(const String& name)
{
    Registry& registry = GetRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    auto it = registry.loggers.find(name);
    if (it == registry.loggers.end())
    {
        it = registry.loggers.emplace(name, std::make_unique<LogAdapter>(name, registry.defaultLevel.load())).first;
    }
    return *it->second;
}

int LogManager::GetDefaultLevel() noexcept
{
    return GetRegistry().defaultLevel.load();
}

void LogManager::SetDefaultLevel(int level) noexcept
{
    GetRegistry().defaultLevel.store(level);
}

void LogManager::SetAllLevels(int level)
{
    Registry& registry = GetRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    registry.defaultLevel.store(level);
    for (auto& entry : registry.loggers)
    {
        entry.second->SetLevel(level);
    }
}

void LogManager::AddSink(std::shared_ptr<ILogSink> sink)
{
    if (!sink)
    {
        return;
    }
    Registry& registry = GetRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    registry.sinks.push_back(std::move(sink));
}

void LogManager::RemoveSink(const std::shared_ptr<ILogSink>& sink)
{
    Registry& registry = GetRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    registry.sinks.erase(std::remove(registry.sinks.begin(), registry.sinks.end(), sink), registry.sinks.end());
}

void LogManager::SetStandardErrorSinkEnabled(bool enabled)
{
    Registry& registry = GetRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    registry.standardErrorSinkEnabled = enabled;
}

void LogManager::Dispatch(const String& loggerName, int level, const String& message)
{
    Registry& registry = GetRegistry();
    // Sinks are called without the lock, so that a slow sink does not hold up the registry and a
    // sink may log itself; the copies keep removed sinks alive until this call is done.
    std::vector<std::shared_ptr<ILogSink>> targets;
    {
        std::lock_guard<std::mutex> lock(registry.mutex);
        if (registry.standardErrorSinkEnabled)
        {
            targets.push_back(registry.standardErrorSink);
        }
        targets.insert(targets.end(), registry.sinks.begin(), registry.sinks.end());
    }
    const LogRecord record{loggerName, level, message, DateTime::GetUtcNow()};
    for (const auto& sink : targets)
    {
        try
        {
            sink->Write(record);
        }
        catch (const std::exception&)
        {
            // A failing sink must not turn a log line into an error of the caller, nor starve the
            // other sinks.
        }
    }
}

} // namespace Zun::System::Commons::Diagnostics::Logging
