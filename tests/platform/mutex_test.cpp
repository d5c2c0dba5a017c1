// Named mutexes: exclusion between holders, timed waits on the service clock, names that cannot
// leave the lock directory.
#include <gtest/gtest.h>

#include "mutex.h"
#include "testRoot.h"

using namespace testing_support;

using MutexTest = RootedTest;

TEST_F(MutexTest, ExcludesWithinOneProcessTimesOutOnTheServiceClockAndStaysInItsDirectory) {
  chMutex first, second;
  for (const char* name : {"../config/x", "", ".."}) EXPECT_FALSE(first.OpenMutex(name)) << name;
  EXPECT_FALSE(first.Lock(0));
  EXPECT_FALSE(root->exists("/config/x.lock"));
  ASSERT_TRUE(first.OpenMutex("LOCKXML") && second.OpenMutex("LOCKXML"));
  EXPECT_TRUE(root->exists("/tmp/LOCKXML.lock"));
  ASSERT_TRUE(first.Lock(0));
  EXPECT_TRUE(first.Lock(0));  // already held: no self-deadlock

  EXPECT_FALSE(second.Lock(500));
  EXPECT_GE(fakeClock.elapsedMs(), 500u);
  EXPECT_FALSE(second.IsLocked());
  first.Unlock();
  EXPECT_TRUE(second.Lock(500));
  second.CloseMutex();
  EXPECT_FALSE(second.IsLocked());
  EXPECT_FALSE(second.Lock(0));  // closed
}
