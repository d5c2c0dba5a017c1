// Machine actions on the host: recorded, never performed; a recorded reboot ends the process with
// status 0; device stand-ins must exist.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "actions.h"
#include "testRoot.h"

using ActionsTest = testing_support::RootedTest;

TEST_F(ActionsTest, KillsIoctlsAndCommandsAreRecordedNeverPerformed) {
  fflush(stdout);
  pid_t sleeper = fork();
  ASSERT_GE(sleeper, 0);
  if (sleeper == 0) {
    pause();
    _exit(0);
  }
  EXPECT_EQ(deviceKill(sleeper, SIGKILL, "GuiApp.sh"), 0);
  EXPECT_EQ(waitpid(sleeper, nullptr, WNOHANG), 0) << "the host build must not kill anything";
  kill(sleeper, SIGKILL);  // our own child
  waitpid(sleeper, nullptr, 0);

  // Device stand-ins: never created by opening, requests recorded, contents untouched.
  DeviceFile keypad;
  EXPECT_FALSE(keypad.Open("/dev/input/keypad0", O_RDWR | O_CREAT));
  EXPECT_FALSE(root->exists("/dev/input/keypad0"));
  EXPECT_EQ(keypad.Ioctl(0x400445a3, 1), -1);
  root->write("/dev/input/keypad0", "stand-in");
  ASSERT_TRUE(keypad.Open("/dev/input/keypad0", O_RDWR | O_TRUNC));
  EXPECT_EQ(keypad.Ioctl(0x400445a3, 1), 0);
  char text[32] = "0.0.0.0.0.0.0";
  EXPECT_EQ(keypad.IoctlText(0x16, text), 0);
  EXPECT_STREQ(text, "0.0.0.0.0.0.0");
  keypad.Close();
  EXPECT_EQ(root->read("/dev/input/keypad0"), "stand-in");
  recordAction("custom line");
  const std::string pid = std::to_string(sleeper);
  EXPECT_EQ(root->read(kHostActionsLog),
            "kill " + pid + " GuiApp.sh 9\nioctl /dev/input/keypad0 0x400445a3 1\ncustom line\n");
}

TEST_F(ActionsTest, RecordedRebootEndsTheProcessWithStatusZero) {
  fflush(stdout);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    deviceRebootSyscall();
    _exit(3);  // only reached when the reboot returned
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(root->read(kHostActionsLog), "reboot\n");
}
