// Named mutexes: exclusion within and across processes, timed waits on the service clock, release
// when the holder dies, names that cannot leave the lock directory.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

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
}

TEST_F(MutexTest, ExcludesOtherProcessesAndIsReleasedWhenTheHolderDies) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  fflush(stdout);
  pid_t holder = fork();
  ASSERT_GE(holder, 0);
  if (holder == 0) {
    chMutex m;
    char held = m.OpenMutex("LOCKXML") && m.Lock(0) ? '1' : '0';
    if (write(ready[1], &held, 1) == 1) pause();
    _exit(0);
  }
  close(ready[1]);
  char held = 0;
  EXPECT_EQ(read(ready[0], &held, 1), 1);
  close(ready[0]);

  chMutex m;
  ASSERT_TRUE(m.OpenMutex("LOCKXML"));
  EXPECT_EQ(held, '1');
  EXPECT_FALSE(m.Lock(200));
  kill(holder, SIGKILL);  // our own child
  waitpid(holder, nullptr, 0);
  EXPECT_TRUE(m.Lock(200));
}
