#include <unistd.h>

#include <cstdio>
#include <regex>

#include <gtest/gtest.h>

#include "Zun/Commons/LogManager.hpp"
#include "Zun/Commons/StandardErrorSink.hpp"

namespace
{

using namespace Zun::System::Commons::Diagnostics::Logging;
using Zun::String;

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
        ::pread(::fileno(file), text.data(), text.size(), 0);
        return text;
    }

private:
    std::FILE* file;
    int saved;
};

TEST(StandardErrorSinkTest, WritesOneLinePerRecord)
{
    StderrRedirect redirect;
    const String logger("Zun::Module");
    const String message("Create (SoftwareUpdaterModule)");
    StandardErrorSink().Write(LogRecord{logger, 7, message, Zun::DateTime::FromUnixTimeMilliseconds(1'795'000'000'123)});
    EXPECT_EQ(redirect.Text(), "2026-11-18T11:06:40.123Z 7 Zun::Module: Create (SoftwareUpdaterModule)\n");
}

TEST(StandardErrorSinkTest, AttachedByDefaultAndSwitchable)
{
    StderrRedirect redirect;
    LogAdapter& logger = LogManager::GetLogger("ZunTest.Stderr");
    logger.Log(3, "shown {}", 1);
    LogManager::SetStandardErrorSinkEnabled(false);
    logger.Log(3, "hidden");
    LogManager::SetStandardErrorSinkEnabled(true);
    EXPECT_TRUE(std::regex_match(redirect.Text(), std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z 3 ZunTest\.Stderr: shown 1\n)")))
        << redirect.Text();
}

} // namespace
