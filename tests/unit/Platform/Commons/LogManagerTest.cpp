#include <regex>
#include <stdexcept>

#include <gtest/gtest.h>

#include "Zun/Commons/LogManager.hpp"
#include "Zun/Commons/StandardErrorSink.hpp"
#include "Zun/Testing/LogCapture.hpp"

namespace
{

using namespace Zun::System::Commons::Diagnostics::Logging;
using Zun::String;

struct LastRecordSink : ILogSink
{
    void Write(const LogRecord& record) override
    {
        ++writes;
        message = record.message;
        kind = record.timestamp.GetKind();
    }
    int writes = 0;
    String message;
    Zun::DateTimeKind kind = Zun::DateTimeKind::Unspecified;
};

class FailingSink : public ILogSink
{
public:
    void Write(const LogRecord&) override { throw std::runtime_error("sink down"); }
};

TEST(LogManagerTest, OneLoggerPerNameAndLevelsForExistingAndNewLoggers)
{
    LogAdapter& existing = LogManager::GetLogger("ZunTest.Existing");
    EXPECT_EQ(&LogManager::GetLogger("ZunTest.Existing"), &existing);
    EXPECT_EQ(existing.GetLevel(), LogManager::DefaultLevel);
    EXPECT_TRUE(existing.IsEnabled(3));
    EXPECT_FALSE(existing.IsEnabled(4));

    LogManager::SetAllLevels(6);
    EXPECT_EQ(existing.GetLevel(), 6);
    EXPECT_EQ(LogManager::GetLogger("ZunTest.NewAfterSetAll").GetLevel(), 6);
    LogManager::SetDefaultLevel(2);
    EXPECT_EQ(existing.GetLevel(), 6);
    EXPECT_EQ(LogManager::GetLogger("ZunTest.NewAfterSetDefault").GetLevel(), 2);
    LogManager::SetAllLevels(LogManager::DefaultLevel);
}

TEST(LogManagerTest, SinksGetRecordsUntilRemovedDespiteAFailingSink)
{
    auto failing = std::make_shared<FailingSink>();
    auto sink = std::make_shared<LastRecordSink>();
    LogManager::SetStandardErrorSinkEnabled(false);
    LogManager::AddSink(failing);
    LogManager::AddSink(sink);
    LogAdapter& logger = LogManager::GetLogger("ZunTest.Sinks");
    logger.Log(1, "{0} of {1}", 1, String("two"));
    LogManager::RemoveSink(sink);
    LogManager::RemoveSink(failing);
    logger.Log(1, "not seen");
    LogManager::SetStandardErrorSinkEnabled(true);
    EXPECT_EQ(sink->writes, 1);
    EXPECT_EQ(sink->message, "1 of two");
    EXPECT_EQ(sink->kind, Zun::DateTimeKind::Utc);
}

TEST(LogManagerTest, StandardErrorSinkWritesOneLinePerRecordAndCanBeSwitchedOff)
{
    ::testing::internal::CaptureStderr();
    StandardErrorSink().Write(
        LogRecord{"Zun::Module", 7, "Create (SoftwareUpdaterModule)", Zun::DateTime::FromUnixTimeMilliseconds(1'795'000'000'123)});
    LogAdapter& logger = LogManager::GetLogger("ZunTest.Stderr");
    logger.Log(3, "shown {}", 1);
    LogManager::SetStandardErrorSinkEnabled(false);
    logger.Log(3, "hidden");
    LogManager::SetStandardErrorSinkEnabled(true);
    const std::string text = ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(std::regex_match(text, std::regex(R"(2026-11-18T11:06:40\.123Z 7 Zun::Module: Create \(SoftwareUpdaterModule\)\n)"
                                                  R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z 3 ZunTest\.Stderr: shown 1\n)")))
        << text;
}

} // namespace
