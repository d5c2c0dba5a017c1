#include "daemon.h"

#include "launcher.h"
#include "msgqueue.h"

namespace testing_support {

DaemonProcess::DaemonProcess(const std::string& root, const std::vector<std::string>& args, bool fakeClock)
    : logPath_(root + "/daemon.log") {
  writeHostFile(logPath_, "");  // a second daemon in the same root starts a log of its own
  std::vector<std::string> env{"PROVISOR_ROOT=" + root};
  if (fakeClock) env.push_back("PROVISOR_FAKE_CLOCK=1");
  process_.start(programArgv("provisor", args), logPath_, env);
}

bool DaemonProcess::waitReachable(int timeoutMs) const {
  return pollFor([] { return !msgGetThreadByName("provisor").empty(); }, timeoutMs);
}

bool DaemonProcess::waitForLog(const std::string& text, int timeoutMs) const {
  return pollFor([&] { return log().find(text) != std::string::npos; }, timeoutMs);
}

}  // namespace testing_support
