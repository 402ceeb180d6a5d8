#include <cerrno>

#include <gtest/gtest.h>

#include "Zun/Commons/PosixCall.hpp"

namespace
{

using namespace Zun::System::Commons;

TEST(SystemExceptionTest, MessageNamesCallReasonAndCode)
{
    const SystemException e("open", ENOENT);
    EXPECT_EQ(e.GetMessage(), "open failed: No such file or directory (errno 2)");
    EXPECT_EQ(e.GetErrorCode(), ENOENT);
}

// Fails with EINTR `interruptions` times, then with `finalErrno` (or succeeds when it is 0).
struct ScriptedCall
{
    int interruptions;
    int finalErrno;
    int calls = 0;

    int operator()()
    {
        ++calls;
        if (calls <= interruptions)
        {
            errno = EINTR;
            return -1;
        }
        if (finalErrno != 0)
        {
            errno = finalErrno;
            return -1;
        }
        return 42;
    }
};

TEST(SystemExceptionTest, PosixCallRetriesInterruptionsAndThrowsOthers)
{
    ScriptedCall ok{2, 0};
    EXPECT_EQ(PosixCall("ok", std::ref(ok)), 42);
    EXPECT_EQ(ok.calls, 3);

    ScriptedCall bad{1, EBADF};
    try
    {
        PosixCall("read", std::ref(bad));
        FAIL() << "no exception";
    }
    catch (const SystemException& e)
    {
        EXPECT_EQ(e.GetErrorCode(), EBADF);
        EXPECT_EQ(bad.calls, 2);
    }
}

TEST(SystemExceptionTest, PosixCallAllowingReturnsExpectedErrors)
{
    ScriptedCall again{1, EAGAIN};
    int error = 0;
    EXPECT_EQ(PosixCallAllowing("recv", {EAGAIN}, error, std::ref(again)), -1);
    EXPECT_EQ(error, EAGAIN);

    ScriptedCall bad{0, EIO};
    EXPECT_THROW(PosixCallAllowing("recv", {EAGAIN}, error, std::ref(bad)), SystemException);
}

TEST(SystemExceptionTest, ReturningErrorThrowsTheReturnedCode)
{
    int calls = 0;
    auto interruptedOnce = [&calls] { return ++calls == 1 ? EINTR : 0; };
    PosixCallReturningError("pthread_x", interruptedOnce);
    EXPECT_EQ(calls, 2);
    try
    {
        PosixCallReturningError("pthread_create", [] { return EAGAIN; });
        FAIL() << "no exception";
    }
    catch (const SystemException& e)
    {
        EXPECT_EQ(e.GetErrorCode(), EAGAIN);
        EXPECT_EQ(e.GetMessage(), "pthread_create failed: Resource temporarily unavailable (errno 11)");
    }
}

} // namespace
