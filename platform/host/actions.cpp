// The host's actions: record, never act. Each becomes one line of $PROVISOR_ROOT/host/actions.log;
// a recorded reboot ends the process with status 0 as the phone's restart would; a device node is a
// plain file under the root; a shell command of the phone's own scripts is recorded and taken as
// succeeded, the host having none of them.
#define LOG_MODULE "./platform/actions"
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "actions.h"
#include "paths.h"

namespace {

std::string hexRequest(unsigned long request) {
  char text[32];
  snprintf(text, sizeof(text), "0x%lx", request);
  return text;
}

}  // namespace

int deviceRebootSyscall() {
  recordAction("reboot");
  // The phone would be gone now: end like a clean restart, without running other threads' exit work.
  fflush(stdout);
  fflush(nullptr);
  _exit(0);
}

int deviceKill(int pid, int signal, const std::string& name) {
  recordAction("kill " + std::to_string(pid) + " " + name + " " + std::to_string(signal));
  return 0;
}

bool DeviceFile::Open(const std::string& path, int flags) {
  Close();
  // The stand-in must exist already and is never created or truncated by opening it.
  fd_ = open(hostPath(path).c_str(), (flags & ~(O_CREAT | O_TRUNC | O_EXCL)) | O_CLOEXEC);
  path_ = path;
  return fd_ >= 0;
}

int DeviceFile::Ioctl(unsigned long request, unsigned long argument) {
  if (fd_ < 0) return -1;
  recordAction("ioctl " + path_ + " " + hexRequest(request) + " " + std::to_string(argument));
  return 0;
}

int DeviceFile::IoctlText(unsigned long, char* text) { return fd_ < 0 || !text ? -1 : 0; }

int platformSystem(const std::string& command) {
  recordAction("system " + command);
  return 0;
}
