#include "daemon.h"

#include <cstdio>
#include <cstdlib>

#include "launcher.h"
#include "msgqueue.h"

namespace testing_support {

std::string msgctl(const std::string& args) {
  std::string out;
  runCommand(programCommand("msgctl") + " " + args, &out);
  return out;
}

namespace {

std::string hexId(uint32_t id) {
  char text[16];
  snprintf(text, sizeof(text), "0x%x", id);
  return text;
}

int replyOf(const std::string& output) {
  char* end = nullptr;
  long value = strtol(output.c_str(), &end, 10);
  return end != output.c_str() && *end == '\n' ? static_cast<int>(value) : -1;
}

}  // namespace

bool postMessage(uint32_t id, uint32_t wParam, uint32_t lParam, const std::string& extra, const char* thread) {
  std::string args = std::string("post ") + thread + " " + hexId(id) + " " + std::to_string(wParam) + " " +
                     std::to_string(lParam);
  if (!extra.empty()) args += " " + extra;
  return msgctl(args).empty();
}

int sendMessage(uint32_t id, uint32_t wParam, uint32_t lParam) {
  return replyOf(msgctl(std::string("send ") + kThreadProvisor + " " + hexId(id) + " " + std::to_string(wParam) + " " +
                        std::to_string(lParam)));
}

int runState() { return sendMessage(MSG_GET_AUTO_PROVISION); }

std::string messageIdText(uint32_t id) { return "id=" + hexId(id); }

std::string receivedLine(uint32_t id, uint32_t wParam, uint32_t lParam, const std::string& extra) {
  return "id=" + hexId(id) + " wparam=" + std::to_string(wParam) + " lparam=" + std::to_string(lParam) +
         " extra=" + extra;
}

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
