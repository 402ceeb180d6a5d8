#include <mutex>
#include <vector>

#include <gtest/gtest.h>

#include "Zun/Commons/AppDomain.hpp"
#include "Zun/Commons/LogManager.hpp"

namespace
{

using namespace Zun::System::Commons::Diagnostics::Logging;
using Zun::String;

struct Line
{
    String logger;
    int level;
    String message;
    Zun::DateTimeKind kind;
};

class RecordingSink : public ILogSink
{
public:
    void Write(const LogRecord& record) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(Line{record.loggerName, record.level, record.message, record.timestamp.GetKind()});
    }
    std::mutex mutex;
    std::vector<Line> lines;
};

class FailingSink : public ILogSink
{
public:
    void Write(const LogRecord&) override { throw std::runtime_error("sink down"); }
};

// Loggers live for the process; a fresh name gives a logger created now.
String NewLoggerName()
{
    static int counter = 0;
    return String(fmt::format("ZunTest.New{}", ++counter));
}

class LogManagerTest : public ::testing::Test
{
protected:
    void SetUp() override { LogManager::SetStandardErrorSinkEnabled(false); }
    void TearDown() override
    {
        LogManager::SetAllLevels(LogManager::DefaultLevel);
        LogManager::SetStandardErrorSinkEnabled(true);
    }
};

TEST_F(LogManagerTest, OneLoggerPerNameAtTheDefaultLevel)
{
    LogAdapter& first = LogManager::GetLogger("ZunTest.Registry");
    EXPECT_EQ(&LogManager::GetLogger("ZunTest.Registry"), &first);
    EXPECT_EQ(first.GetLevel(), LogManager::DefaultLevel);
    EXPECT_TRUE(first.IsEnabled(3));
    EXPECT_FALSE(first.IsEnabled(4));
}

TEST_F(LogManagerTest, SetAllLevelsReachesExistingAndNewLoggers)
{
    LogAdapter& existing = LogManager::GetLogger("ZunTest.Existing");
    LogManager::SetAllLevels(6);
    EXPECT_EQ(existing.GetLevel(), 6);
    EXPECT_EQ(LogManager::GetLogger(NewLoggerName()).GetLevel(), 6);
    LogManager::SetDefaultLevel(2);
    EXPECT_EQ(existing.GetLevel(), 6);
    EXPECT_EQ(LogManager::GetLogger(NewLoggerName()).GetLevel(), 2);
}

TEST_F(LogManagerTest, SinksGetExactRecordsUntilRemoved)
{
    auto sink = std::make_shared<RecordingSink>();
    auto failing = std::make_shared<FailingSink>();
    LogManager::AddSink(failing);
    LogManager::AddSink(sink);
    LogAdapter& logger = LogManager::GetLogger("ZunTest.Sinks");
    logger.Log(1, "{0} of {1}", 1, String("two"));
    LogManager::RemoveSink(sink);
    LogManager::RemoveSink(failing);
    logger.Log(1, "not seen");

    ASSERT_EQ(sink->lines.size(), 1u);
    EXPECT_EQ(sink->lines[0].logger, "ZunTest.Sinks");
    EXPECT_EQ(sink->lines[0].level, 1);
    EXPECT_EQ(sink->lines[0].message, "1 of two");
    EXPECT_EQ(sink->lines[0].kind, Zun::DateTimeKind::Utc);
}

TEST_F(LogManagerTest, RemembersTheAssignedAppDomain)
{
    Zun::AppDomain domain;
    LogManager::AssignAppDomain(domain);
    EXPECT_EQ(LogManager::GetAssignedAppDomain(), &domain);
}

} // namespace
