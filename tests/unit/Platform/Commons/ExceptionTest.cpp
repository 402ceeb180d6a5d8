#include <cerrno>
#include <functional>

#include <gtest/gtest.h>

#include "../Expect.hpp"
#include "Zun/Commons/EnumDictionaryBase.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/PosixCall.hpp"
#include "Zun/Commons/RuntimeTypeInfo.hpp"
#include "Zun/Commons/Thread.hpp"

namespace ZunTest::Dictionary
{
enum class Colour : int
{
    None = 0,
    Red = 1
};
} // namespace ZunTest::Dictionary

namespace
{

using namespace Zun::System::Commons;
using ZunTest::MessageOf;
using ZunTest::Dictionary::Colour;
using Zun::String;

std::string FmtReason(const char* format)
{
    try
    {
        (void)fmt::format(fmt::runtime(format), 1);
    }
    catch (const fmt::format_error& e)
    {
        return e.what();
    }
    return "";
}

struct MessageCase
{
    const char* name;
    std::function<std::string()> message;
    std::string expected;
};

template <class E>
MessageCase Row(const char* name, std::function<void()> action, std::string expected)
{
    return {name, [action] { return MessageOf<E>(action); }, std::move(expected)};
}

TEST(ExceptionTest, EveryMessageIsExactAndOfItsType)
{
    using Threading::Thread;
    using Threading::ThreadSettings;
    const Zun::EnumDictionaryBase<Colour> colours{{Colour::Red, "Red"}, {Colour::None, "None"}};
    const MessageCase cases[] = {
        Row<Zun::Exception>("plain text keeps braces", [] { throw Zun::Exception(String("updaterStatus is {null}.")); },
                            "updaterStatus is {null}."),
        Row<Zun::Exception>("positional arguments",
                            [] { throw Zun::Exception("Could not retrieve service '{0}' from service provider '{1}'.", String("S"), "Zun"); },
                            "Could not retrieve service 'S' from service provider 'Zun'."),
        Row<Zun::Exception>("repeated positions", [] { throw Zun::Exception("{0}-{0}-{1}", 7, 'x'); }, "7-7-x"),
        Row<Zun::Exception>("bad format goes through the handler", [] { throw Zun::Exception("Broken {", 1); },
                            "Format error in 'Broken {': " + FmtReason("Broken {")),
        Row<ArgumentException>("argument with value",
                               [] { throw ArgumentException::Create("moduleName", String("SoftwareUpdater"), "Duplicate module name"); },
                               "Duplicate module name (argument 'moduleName', value 'SoftwareUpdater')"),
        Row<ArgumentException>("value is not a format", [] { throw ArgumentException::Create("name", String("{0}{"), "Bad"); },
                               "Bad (argument 'name', value '{0}{')"),
        Row<ArgumentException>("argument without value", [] { throw ArgumentException::Create("count", "Must be positive"); },
                               "Must be positive (argument 'count')"),
        Row<SystemException>("system call", [] { throw SystemException("open", ENOENT); },
                             "open failed: No such file or directory (errno 2)"),
        Row<Zun::Exception>("demangling", [] { Zun::RuntimeTypeInfo::DemangleSymbol("not a symbol!"); },
                            "Demangling of type name 'not a symbol!' failed."),
        Row<Zun::Exception>("enum value without text", [&] { colours.GetText(static_cast<Colour>(7)); },
                            "Invalid value for Enum 'Zun::Enum<ZunTest::Dictionary::Colour>' occurs: 7"),
        Row<ArgumentException>("thread without body", [] { Thread(ThreadSettings("Empty", 0, 0, 0, Threading::ThreadDelegate())); },
                               "Thread function is empty (argument 'settings', value 'Empty')"),
        Row<InvalidOperationException>("join of a thread never started",
                                       [] { Thread(ThreadSettings("Never", 0, 0, 0, Threading::ThreadDelegate([](void*) {}))).Join(); },
                                       "Thread 'Never' is not joinable."),
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(c.message(), c.expected) << c.name;
    }
    EXPECT_EQ(FormatExceptionHandler::Handle("a{", "why"), "Format error in 'a{': why");
}

// Fails with EINTR `interruptions` times, then with `finalErrno` (or succeeds when it is 0).
struct ScriptedCall
{
    int interruptions;
    int finalErrno;
    int calls = 0;

    int operator()()
    {
        errno = ++calls <= interruptions ? EINTR : finalErrno;
        return errno == 0 ? 42 : -1;
    }
};

TEST(PosixCallTest, RetriesInterruptionsAndThrowsOtherErrors)
{
    ScriptedCall ok{2, 0};
    EXPECT_EQ(PosixCall("ok", std::ref(ok)), 42);
    EXPECT_EQ(ok.calls, 3);

    ScriptedCall bad{1, EBADF};
    EXPECT_EQ(MessageOf<SystemException>([&] { PosixCall("read", std::ref(bad)); }), "read failed: Bad file descriptor (errno 9)");
    EXPECT_EQ(bad.calls, 2);

    ScriptedCall again{1, EAGAIN};
    int error = 0;
    EXPECT_EQ(PosixCallAllowing("recv", {EAGAIN}, error, std::ref(again)), -1);
    EXPECT_EQ(error, EAGAIN);
    ScriptedCall io{0, EIO};
    EXPECT_THROW(PosixCallAllowing("recv", {EAGAIN}, error, std::ref(io)), SystemException);

    int calls = 0;
    PosixCallReturningError("pthread_x", [&calls] { return ++calls == 1 ? EINTR : 0; });
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(MessageOf<SystemException>([] { PosixCallReturningError("pthread_create", [] { return EAGAIN; }); }),
              "pthread_create failed: Resource temporarily unavailable (errno 11)");
}

} // namespace
