#include <pthread.h>

#include <cerrno>
#include <future>
#include <mutex>
#include <regex>
#include <stdexcept>

#include <gtest/gtest.h>

#include "../Expect.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/LogManager.hpp"
#include "Zun/Commons/Mutex.hpp"
#include "Zun/Commons/PosixCall.hpp"
#include "Zun/Commons/RuntimeTypeInfo.hpp"
#include "Zun/Commons/SecureString.hpp"
#include "Zun/Commons/StandardErrorSink.hpp"
#include "Zun/Commons/Thread.hpp"
#include "Zun/Testing/Latch.hpp"

namespace ZunTest::Types::Inner
{
class Widget
{
};
} // namespace ZunTest::Types::Inner

namespace
{

using namespace Zun::System::Commons::Diagnostics::Logging;
using namespace Zun::System::Commons::Threading;
using Zun::String;
using Zun::System::Commons::InvalidOperationException;
using ZunTest::MessageOf;

bool TryLockElsewhere(Mutex& mutex)
{
    return std::async(std::launch::async, [&mutex] { return mutex.TryLock() && (mutex.Unlock(), true); }).get();
}

TEST(MutexTest, RecursiveNestsAndFreesOnTheLastUnlockOtherwiseReentryIsRefused)
{
    Mutex recursive(true);
    recursive.Lock();
    {
        std::lock_guard<Mutex> second(recursive);
        EXPECT_TRUE(recursive.TryLock());
        recursive.Unlock();
    }
    EXPECT_FALSE(TryLockElsewhere(recursive));
    recursive.Unlock();
    EXPECT_TRUE(TryLockElsewhere(recursive));

    Mutex mutex;
    mutex.Lock();
    EXPECT_FALSE(TryLockElsewhere(mutex));
    EXPECT_FALSE(mutex.TryLock());
    EXPECT_THROW(mutex.Lock(), Zun::System::Commons::SystemException); // would deadlock; reported instead
    mutex.Unlock();
    EXPECT_TRUE(TryLockElsewhere(mutex));
}

// The state reads 2 from Start until the body returns, 0 otherwise; the name is cut to the kernel's 15 bytes.
TEST(ThreadTest, StateStartJoinAndNameFollowTheThread)
{
    Zun::Testing::Notification entered;
    Zun::Testing::Notification release;
    char name[32] = {};
    int argument = 0;
    void* seenArgument = nullptr;
    Thread thread(ThreadSettings("SUUpdateStatusWithALongTail", 0, 0, 0, ThreadDelegate([&](void* given) {
                      seenArgument = given;
                      ::pthread_getname_np(::pthread_self(), name, sizeof(name));
                      entered.Notify();
                      release.WaitFor();
                  })),
                  &argument);
    EXPECT_EQ(thread.GetState(), 0);
    EXPECT_FALSE(thread.IsJoinable());
    thread.Start();
    ASSERT_TRUE(entered.WaitFor());
    EXPECT_EQ(thread.GetState(), 2);
    EXPECT_TRUE(thread.IsJoinable());
    EXPECT_EQ(MessageOf<InvalidOperationException>([&] { thread.Start(); }), "Thread 'SUUpdateStatusWithALongTail' was already started.");
    release.Notify();
    thread.Join();
    EXPECT_EQ(thread.GetState(), 0);
    EXPECT_FALSE(thread.IsJoinable());
    EXPECT_EQ(seenArgument, &argument);
    EXPECT_STREQ(name, "SUUpdateStatusW");
    EXPECT_EQ(MessageOf<InvalidOperationException>([&] { thread.Join(); }), "Thread 'SUUpdateStatusWithALongTail' is not joinable.");
}

struct Sink : ILogSink
{
    explicit Sink(std::function<void(const LogRecord&)> write) : write(std::move(write)) {}
    void Write(const LogRecord& record) override { write(record); }
    std::function<void(const LogRecord&)> write;
};

// One logger per name; levels set for all reach existing loggers, a default only new ones. The
// sinks get UTC records until removed despite a failing sink; the standard error sink writes one
// line per record and can be switched off.
TEST(LogManagerTest, LevelsReachTheirLoggersAndSinksGetRecordsUntilRemoved)
{
    LogAdapter& existing = LogManager::GetLogger("ZunTest.Existing");
    EXPECT_EQ(&LogManager::GetLogger("ZunTest.Existing"), &existing);
    EXPECT_TRUE(existing.IsEnabled(LogManager::DefaultLevel));
    EXPECT_FALSE(existing.IsEnabled(LogManager::DefaultLevel + 1));
    LogManager::SetAllLevels(6);
    EXPECT_EQ(existing.GetLevel(), 6);
    LogManager::SetDefaultLevel(2);
    EXPECT_EQ(existing.GetLevel(), 6);
    EXPECT_EQ(LogManager::GetLogger("ZunTest.NewAfterSetDefault").GetLevel(), 2);
    LogManager::SetAllLevels(LogManager::DefaultLevel);

    std::vector<std::pair<String, Zun::DateTimeKind>> records;
    auto failing = std::make_shared<Sink>([](const LogRecord&) { throw std::runtime_error("sink down"); });
    auto sink = std::make_shared<Sink>([&](const LogRecord& record) { records.emplace_back(record.message, record.timestamp.GetKind()); });
    LogManager::AddSink(failing);
    LogManager::AddSink(sink);
    LogAdapter& logger = LogManager::GetLogger("ZunTest.Sinks");
    ::testing::internal::CaptureStderr();
    StandardErrorSink().Write(LogRecord{"Zun::Module", 7, "Create (Module)", Zun::DateTime::FromUnixTimeMilliseconds(1'795'000'000'123)});
    logger.Log(3, "{0} of {1}", 1, String("two"));
    LogManager::RemoveSink(sink);
    LogManager::RemoveSink(failing);
    LogManager::SetStandardErrorSinkEnabled(false);
    logger.Log(3, "hidden");
    LogManager::SetStandardErrorSinkEnabled(true);
    const std::string text = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(records, (std::vector<std::pair<String, Zun::DateTimeKind>>{{"1 of two", Zun::DateTimeKind::Utc}}));
    EXPECT_TRUE(std::regex_match(text, std::regex(R"(2026-11-18T11:06:40\.123Z 7 Zun::Module: Create \(Module\)\n)"
                                                  R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z 3 ZunTest\.Sinks: 1 of two\n)")))
        << text;
}

static_assert(!fmt::is_formattable<Zun::SecureString<8>>::value, "a secret must not be formattable");

TEST(SecureStrncpyTest, CopiesTerminatesAndReports)
{
    const std::tuple<const char*, std::size_t, std::size_t, int, const char*> cases[] = {
        {"abc", 4, 10, 0, "abc"},       // exact fit
        {"abcd", 4, 10, ERANGE, "abc"}, // cut, still terminated
        {"abcdef", 8, 2, 0, "ab"},      // count limits
        {nullptr, 8, 3, EINVAL, ""},    // destination emptied
        {"abc", 0, 3, EINVAL, "xxx"},   // no room: destination untouched
    };
    for (const auto& [source, size, count, result, expected] : cases)
    {
        char destination[8] = {'x', 'x', 'x', '\0'};
        EXPECT_EQ(Zun::SecureStrncpy(destination, size, source, count), result) << expected;
        EXPECT_STREQ(destination, expected);
    }
    EXPECT_EQ(Zun::SecureStrncpy(nullptr, 4, "abc", 3), EINVAL);
}

TEST(RuntimeTypeInfoTest, NamesTypesInFullWithoutKeywords)
{
    EXPECT_EQ(Zun::RuntimeTypeInfo::GetTypeName<ZunTest::Types::Inner::Widget>(), "ZunTest::Types::Inner::Widget");
    const std::pair<const char*, const char*> cases[] = {
        {"std::map<struct K, enum E>", "std::map<K, E>"}, {"Zun::Enum<enum class X>", "Zun::Enum<X>"}, {"class class A", "A"}};
    for (const auto& [input, expected] : cases)
    {
        EXPECT_EQ(Zun::RuntimeTypeInfo::RemoveTypeKeywords(String(input)), expected) << input;
    }
}

} // namespace
