// Runs build/provisor as a child process in the test's root, with its standard output (the log)
// going to a file, and waits for its thread to become reachable.
#pragma once

#include <string>
#include <vector>

#include "servers.h"

namespace testing_support {

class DaemonProcess {
 public:
  // `fakeClock` starts the daemon with PROVISOR_FAKE_CLOCK=1 so that its sleeps cost no time.
  DaemonProcess(const std::string& root, const std::vector<std::string>& args, bool fakeClock = false);
  ~DaemonProcess() { process_.stop(SIGKILL); }

  bool waitReachable(int timeoutMs = 10000) const;
  // Waits until the log holds `text` (true) or the time-out passed (false).
  bool waitForLog(const std::string& text, int timeoutMs = 10000) const;
  std::string log() const { return readHostFile(logPath_); }
  // Sends a signal and waits for the exit; the exit status, or -1 when it did not exit normally.
  int stop(int signal, int timeoutMs = 10000) { return process_.stop(signal, timeoutMs); }
  // Waits for the process to exit by itself (-2 when it did not).
  int wait(int timeoutMs = 10000) { return process_.wait(timeoutMs); }

 private:
  std::string logPath_;
  ServerProcess process_;
};

}  // namespace testing_support
