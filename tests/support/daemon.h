// Runs build/provisor as a child process in the test's root, with its standard output (the log)
// going to a file, and waits for its thread to become reachable.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace testing_support {

class DaemonProcess {
 public:
  // `fakeClock` starts the daemon with PROVISOR_FAKE_CLOCK=1 so that its sleeps cost no time.
  DaemonProcess(const std::string& root, const std::vector<std::string>& args, bool fakeClock = false);
  ~DaemonProcess();
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  bool waitReachable(int timeoutMs = 10000) const;
  // Waits until the log holds `text` (true) or the time-out passed (false).
  bool waitForLog(const std::string& text, int timeoutMs = 10000) const;
  std::string log() const;
  // Sends a signal and waits for the exit; the exit status, or -1 when it did not exit normally.
  int stop(int signal, int timeoutMs = 10000);
  // Waits for the process to exit by itself.
  int wait(int timeoutMs = 10000);
  pid_t pid() const { return pid_; }

 private:
  std::string logPath_;
  pid_t pid_ = -1;
  int status_ = -1;
};

}  // namespace testing_support
