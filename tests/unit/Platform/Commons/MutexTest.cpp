#include <future>
#include <mutex>

#include <gtest/gtest.h>

#include "Zun/Commons/Mutex.hpp"
#include "Zun/Commons/PosixCall.hpp"

namespace
{

using Zun::System::Commons::SystemException;
using Zun::System::Commons::Threading::Mutex;

bool TryLockElsewhere(Mutex& mutex)
{
    return std::async(std::launch::async, [&mutex] {
               const bool locked = mutex.TryLock();
               if (locked)
               {
                   mutex.Unlock();
               }
               return locked;
           })
        .get();
}

TEST(MutexTest, RecursiveLocksThreeDeepAndFreesOnTheLastUnlock)
{
    Mutex mutex(true);
    mutex.Lock();
    {
        std::lock_guard<Mutex> second(mutex);
        EXPECT_TRUE(mutex.TryLock());
        mutex.Unlock();
    }
    EXPECT_FALSE(TryLockElsewhere(mutex));
    mutex.Unlock();
    EXPECT_TRUE(TryLockElsewhere(mutex));
}

TEST(MutexTest, NonRecursiveRefusesReentry)
{
    Mutex mutex;
    mutex.Lock();
    EXPECT_FALSE(TryLockElsewhere(mutex));
    EXPECT_FALSE(mutex.TryLock());
    EXPECT_THROW(mutex.Lock(), SystemException); // would deadlock; reported instead
    mutex.Unlock();
    EXPECT_TRUE(TryLockElsewhere(mutex));
}

} // namespace
