// Runs build/provisor as a child process in the test's root, with its standard output (the log)
// going to a file, and waits for its thread to become reachable.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "autopMessages.h"
#include "servers.h"

namespace testing_support {

// Another application's side of the daemon's messages, by their names in autopMessages.h (through
// msgctl, as a separate process would send them).
// msgctl's output for the given arguments.
std::string msgctl(const std::string& args);
// Posts `id` to `thread`; `extra` is msgctl's extra-data option as given ("--extra TEXT",
// "--extra-file PATH"). True when msgctl printed nothing (the post went out).
bool postMessage(uint32_t id, uint32_t wParam = 0, uint32_t lParam = 0, const std::string& extra = "",
                 const char* thread = kThreadProvisor);
// The daemon's run state (MSG_GET_AUTO_PROVISION: 0 idle, 1 running, 2 waiting for plug-and-play),
// -1 without an answer. Being a synchronous send, it is also a barrier: every message posted
// before it has been handled when it answers.
int runState();
// A synchronous send to the daemon; its reply, -1 without one.
int sendMessage(uint32_t id, uint32_t wParam = 0, uint32_t lParam = 0);
// "id=0x..." as `msgctl listen` logs a message's id.
std::string messageIdText(uint32_t id);
// The line `msgctl listen` logs for a received message.
std::string receivedLine(uint32_t id, uint32_t wParam, uint32_t lParam, const std::string& extra = "");

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
