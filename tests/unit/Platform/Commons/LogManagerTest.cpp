#include <unistd.h>

#include <cstdio>
#include <regex>
#include <stdexcept>

#include <gtest/gtest.h>

#include "Zun/Commons/LogManager.hpp"
#include "Zun/Commons/Loggable.hpp"
#include "Zun/Commons/StandardErrorSink.hpp"
#include "Zun/Testing/LogCapture.hpp"

namespace ZunTest::Logging
{
struct Counted
{
    static inline int formatted = 0;
};
struct Throwing
{
};
class Widget : private Zun::System::Commons::Diagnostics::Logging::Loggable<Widget>
{
public:
    void Hello(int value) const { log.Log(7, "Hello {0}", value); }
};
} // namespace ZunTest::Logging

template <>
struct fmt::formatter<ZunTest::Logging::Counted> : fmt::formatter<fmt::string_view>
{
    template <class Context>
    auto format(const ZunTest::Logging::Counted&, Context& ctx) const
    {
        ++ZunTest::Logging::Counted::formatted;
        return fmt::formatter<fmt::string_view>::format("counted", ctx);
    }
};

template <>
struct fmt::formatter<ZunTest::Logging::Throwing> : fmt::formatter<fmt::string_view>
{
    template <class Context>
    auto format(const ZunTest::Logging::Throwing&, Context&) const -> decltype(std::declval<Context&>().out())
    {
        throw std::runtime_error("formatter failed");
    }
};

namespace
{

using namespace ZunTest::Logging;
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

// Points fd 2 at a temporary file for the life of the object.
class StderrRedirect
{
public:
    StderrRedirect() : file(std::tmpfile()), saved(::dup(STDERR_FILENO)) { ::dup2(::fileno(file), STDERR_FILENO); }
    ~StderrRedirect()
    {
        ::dup2(saved, STDERR_FILENO);
        ::close(saved);
        std::fclose(file);
    }
    std::string Text() const
    {
        std::string text(static_cast<std::size_t>(::lseek(::fileno(file), 0, SEEK_END)), '\0');
        return ::pread(::fileno(file), text.data(), text.size(), 0) < 0 ? "" : text;
    }

private:
    std::FILE* file;
    int saved;
};

TEST(LogManagerTest, LevelGatesFormattingAndTheLine)
{
    Zun::Testing::LogCapture capture(5);
    auto& logger = LogManager::GetLogger("ZunTest.Gating");
    Counted::formatted = 0;
    logger.Log(7, "{}", Counted{});
    EXPECT_EQ(Counted::formatted, 0);
    logger.Log(5, "value {}", Counted{});
    EXPECT_EQ(Counted::formatted, 1);
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(capture.Lines()[0].logger, "ZunTest.Gating");
    EXPECT_EQ(capture.Lines()[0].level, 5);
    EXPECT_EQ(capture.Lines()[0].message, "value counted");
}

TEST(LogManagerTest, ArgumentExceptionLeavesTheLogCallAndWritesNothing)
{
    Zun::Testing::LogCapture capture(7);
    EXPECT_THROW(LogManager::GetLogger("ZunTest.Throwing").Log(3, "before {} after", Throwing{}), std::runtime_error);
    EXPECT_TRUE(capture.Lines().empty());
}

TEST(LogManagerTest, LoggableIsNamedAfterTheFullType)
{
    Zun::Testing::LogCapture capture(7);
    Widget().Hello(4);
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(capture.Lines()[0].logger, "ZunTest::Logging::Widget");
    EXPECT_EQ(capture.Lines()[0].message, "Hello 4");
}

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
    StderrRedirect redirect;
    StandardErrorSink().Write(
        LogRecord{"Zun::Module", 7, "Create (SoftwareUpdaterModule)", Zun::DateTime::FromUnixTimeMilliseconds(1'795'000'000'123)});
    EXPECT_EQ(redirect.Text(), "2026-11-18T11:06:40.123Z 7 Zun::Module: Create (SoftwareUpdaterModule)\n");

    StderrRedirect attached;
    LogAdapter& logger = LogManager::GetLogger("ZunTest.Stderr");
    logger.Log(3, "shown {}", 1);
    LogManager::SetStandardErrorSinkEnabled(false);
    logger.Log(3, "hidden");
    LogManager::SetStandardErrorSinkEnabled(true);
    EXPECT_TRUE(std::regex_match(attached.Text(), std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z 3 ZunTest\.Stderr: shown 1\n)")))
        << attached.Text();
}

} // namespace
