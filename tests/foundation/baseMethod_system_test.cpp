// System helpers that talk to other applications or act on the machine: the call-end wait against a
// stand-in phone application, process killing against a fake /proc, the screen notice and the
// reboot sequence (run in a child process, as it ends the process).
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <thread>
#include <tuple>

#include "actions.h"
#include "autopMessages.h"
#include "baseMethod.h"
#include "msgqueue.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

// Another application's thread on a std::thread: answers each message with the next value of a
// script (the last one repeats).
class StandIn : public chThreadLocal {
 public:
  StandIn(const char* name, std::vector<int32_t> answers) : chThreadLocal(name), answers_(std::move(answers)) {
    EXPECT_TRUE(Launch());
    runner_ = std::thread([this] { Run(); });
  }
  ~StandIn() override {
    Quit(0);
    runner_.join();
  }
  bool TryThreadMessage(msgObject& msg) override {
    msg.ReplyMessage(answers_[std::min(asked_++, answers_.size() - 1)]);
    return true;
  }

 private:
  std::vector<int32_t> answers_;
  size_t asked_ = 0;  // only its own thread counts
  std::thread runner_;
};

class SystemHelpersTest : public RootedTest {
 protected:
  std::string actions() { return root->read(kHostActionsLog); }
  size_t countOf(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + 1)) ++n;
    return n;
  }
  // A process entry of the fake /proc tree.
  void addProcess(int pid, const std::string& cmdline, const std::string& kernelName) {
    std::string dir = "/proc/" + std::to_string(pid);
    root->write(dir + "/cmdline", cmdline);
    root->write(dir + "/stat", std::to_string(pid) + " (" + kernelName + ") S 1 1 1 0 -1");
  }
};

}  // namespace

TEST_F(SystemHelpersTest, CallEndWaitAsksUntilThePhoneAllowsARestartOrGivesUp) {
  // the phone's answers in turn (the last one repeating), the result, the waits for a call
  const std::tuple<std::vector<int32_t>, int, size_t> cases[] = {{{0, 0, 1}, 0, 2}, {{0}, -1, 241}, {{0, 7}, -1, 1}};
  for (const auto& [answers, result, talking] : cases) {
    StandIn phone(kThreadPhone, answers);
    LogCapture capture;
    uint64_t before = fakeClock.elapsedMs();
    EXPECT_EQ(waitCallEnd(), result);
    EXPECT_EQ(countOf(capture.text(), "IFO phone is in talking!"), talking);
    EXPECT_EQ(fakeClock.elapsedMs() - before, talking * 30u);  // every wait on the fake clock
    EXPECT_TRUE(capture.contains("IFO SEND MESSAGE:10011(0,0) to TalkLogic\n\n"));
  }
}

TEST_F(SystemHelpersTest, KillsProcessesOfAFakeProcTreeByScriptOrKernelName) {
  addProcess(1, std::string("/sbin/init\0", 11), "GuiApp.sh");           // never process 1
  addProcess(getpid(), std::string("/x/GuiApp.sh\0", 13), "GuiApp.sh");  // never itself
  addProcess(getppid(), std::string("/x/GuiApp.sh\0", 13), "GuiApp.sh"); // nor its parent
  addProcess(1234, std::string("/bin/sh\0/phone/scripts/GuiApp.sh\0", 33), "sh");
  addProcess(2000, "", "dsp_daemon");  // a kernel thread: no command line
  addProcess(3000, std::string("/usr/bin/other\0--flag\0", 22), "other");
  root->write("/proc/self/stat", "junk");
  root->write("/proc/uptime", "1.0 2.0");
  const char* names[] = {"GuiApp.sh", "dsp_daemon"};

  EXPECT_EQ(killProcesses(names, 2, false), 0);
  std::string log = actions();
  // Four kills, all of them these: none of the other, of process 1, of itself or of its parent.
  EXPECT_NE(log.find("kill 1234 GuiApp.sh 9\nkill 1234 GuiApp.sh 15\n"), std::string::npos);
  EXPECT_NE(log.find("kill 2000 dsp_daemon 9\nkill 2000 dsp_daemon 15\n"), std::string::npos);
  EXPECT_EQ(countOf(log, "\n"), 4u);

  ASSERT_EQ(system(("rm -rf '" + root->host("/proc") + "'").c_str()), 0);
  EXPECT_EQ(killProcesses(names, 2, false), -14);
}

TEST_F(SystemHelpersTest, RebootNoticeOnScreenAndDisplay) {
  LogCapture capture;
  EXPECT_EQ(showRebootOnScreen(), -1);
  EXPECT_TRUE(capture.contains("ERR can't open lcd0"));
  root->write("/dev/lcd0", "");
  StandIn screen(kThreadScreen, {0});
  uint64_t before = fakeClock.elapsedMs();
  EXPECT_EQ(showRebootOnScreen(), 0);
  EXPECT_EQ(fakeClock.elapsedMs() - before, 10000u + 60u * 5000u);
  EXPECT_EQ(countOf(actions(), "ioctl /dev/lcd0 0x14 243\n"), countOf(actions(), "\n"));
  EXPECT_EQ(countOf(actions(), "\n"), 60u);
}

// reboot() ends the process: it runs in a child whose standard output is kept.
TEST_F(SystemHelpersTest, RebootBacksUpTheLogHandsOverToTheWatchdogAndRestarts) {
  root->write("/dev/input/keypad0", "");
  root->write("/tmp/autop.log", "second run\n");
  root->write("/config/autop_log/log.0", "first run\n");
  fflush(stdout);
  pid_t child = fork();
  if (child == 0) {
    int fd = open(root->host("/tmp/reboot.out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || dup2(fd, STDOUT_FILENO) < 0) _exit(10);
    reboot();
    _exit(11);  // reboot() came back
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(actions(), "ioctl /dev/input/keypad0 0x400445a3 1\nreboot\n");
  EXPECT_EQ(root->read("/config/autop_log/log.0"), "second run\n");
  EXPECT_EQ(root->read("/config/autop_log/log.1"), "first run\n");
  // The log without its "[module:line] " prefixes.
  std::string log;
  std::istringstream lines(root->read("/tmp/reboot.out"));
  for (std::string line; std::getline(lines, line);)
    log += (line.rfind('[', 0) == 0 ? line.substr(line.find("] ") + 2) : line) + "\n";
  EXPECT_EQ(log,
            "IFO backup attlog to flash ... \nWAR Reboot by watchdog !\nWAR to ioctl ... \nWAR Successed in closing "
            "watchdog !!\nWAR Sleep 10s for reboot by watchdog ...\nWAR Reboot by syscall ... \n");
}
