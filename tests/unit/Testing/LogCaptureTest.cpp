#include <gtest/gtest.h>

#include <memory>

#include "Zun/Commons/LogManager.hpp"
#include "Zun/Testing/LogCapture.hpp"

namespace Zun::Testing
{
namespace
{

using System::Commons::Diagnostics::Logging::LogManager;

TEST(LogCaptureTest, CapturesExactLinesAndLevelsUpToItsLevel)
{
    LogCapture capture(5);
    auto& logger = LogManager::GetLogger("Zun::Testing::LogCaptureTest");
    logger.Log(3, "failed {} times", 2);
    logger.Log(5, "{0} is not supported", "option");
    logger.Log(7, "trace is above the level");

    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].logger, "Zun::Testing::LogCaptureTest");
    EXPECT_EQ(lines[0].level, 3);
    EXPECT_EQ(lines[0].message, "failed 2 times");
    EXPECT_EQ(capture.Messages(5), std::vector<String>{"option is not supported"});
    EXPECT_TRUE(capture.Contains(3, "failed 2 times"));
    EXPECT_FALSE(capture.Contains(5, "failed 2 times"));
    EXPECT_TRUE(capture.AnyContains("not supp"));
    EXPECT_EQ(capture.Count("trace is above the level"), 0u);

    capture.Clear();
    EXPECT_TRUE(capture.Messages().empty());
}

TEST(LogCaptureTest, NestedCapturesRestoreTheLevelsTheyFound)
{
    const int before = LogManager::GetDefaultLevel();
    auto& logger = LogManager::GetLogger("Zun::Testing::LogCaptureTest.Restore");
    auto outer = std::make_unique<LogCapture>(7);
    {
        LogCapture inner(1);
        EXPECT_EQ(logger.GetLevel(), 1);
        logger.Log(1, "both");
        logger.Log(2, "neither");
        EXPECT_EQ(inner.Messages(), std::vector<String>{"both"});
    }
    EXPECT_EQ(logger.GetLevel(), 7);
    logger.Log(7, "outer only");
    EXPECT_EQ(outer->Messages(), (std::vector<String>{"both", "outer only"}));

    outer.reset();
    EXPECT_EQ(LogManager::GetDefaultLevel(), before);
    EXPECT_EQ(logger.GetLevel(), before);
}

} // namespace
} // namespace Zun::Testing
