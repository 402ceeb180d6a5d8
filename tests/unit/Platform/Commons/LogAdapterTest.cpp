#include <stdexcept>

#include <gtest/gtest.h>

#include "Zun/Commons/LogManager.hpp"
#include "Zun/Commons/Loggable.hpp"
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
using Zun::System::Commons::Diagnostics::Logging::LogManager;

TEST(LogAdapterTest, DisabledLevelFormatsNothing)
{
    Zun::Testing::LogCapture capture(5);
    auto& logger = LogManager::GetLogger("ZunTest.Gating");
    Counted::formatted = 0;
    logger.Log(7, "{}", Counted{});
    EXPECT_EQ(Counted::formatted, 0);
    EXPECT_TRUE(capture.Lines().empty());

    logger.Log(5, "value {}", Counted{});
    EXPECT_EQ(Counted::formatted, 1);
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(capture.Lines()[0].logger, "ZunTest.Gating");
    EXPECT_EQ(capture.Lines()[0].level, 5);
    EXPECT_EQ(capture.Lines()[0].message, "value counted");
}

TEST(LogAdapterTest, FormatterExceptionLeavesLogAndWritesNothing)
{
    Zun::Testing::LogCapture capture(7);
    auto& logger = LogManager::GetLogger("ZunTest.Throwing");
    EXPECT_THROW(logger.Log(3, "before {} after", Throwing{}), std::runtime_error);
    EXPECT_TRUE(capture.Lines().empty());
}

TEST(LogAdapterTest, LoggableIsNamedAfterTheFullType)
{
    Zun::Testing::LogCapture capture(7);
    Widget().Hello(4);
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(capture.Lines()[0].logger, "ZunTest::Logging::Widget");
    EXPECT_EQ(capture.Lines()[0].message, "Hello 4");
}

} // namespace
