// Restart, kill and device requests. The host build never touches the machine: each action becomes
// one line of $PROVISOR_ROOT/host/actions.log, and a recorded reboot ends the process with status 0
// as the phone's restart would. The phone build (PROVISOR_PHONE_BUILD) makes the real calls.
#define LOG_MODULE "./platform/actions"
#include "actions.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "log.h"
#include "paths.h"

namespace {

// The kernel's reboot request: both magic numbers and the restart command.
constexpr unsigned long kRebootMagic1 = 0xfee1deadUL;
constexpr unsigned long kRebootMagic2 = 0x28121969UL;
constexpr unsigned long kRebootRestart = 0x01234567UL;

}  // namespace

void recordAction(const std::string& line) {
  static std::mutex writing;
  std::lock_guard<std::mutex> lock(writing);
  std::string file = hostPath(kHostActionsLog);
  mkdir(file.substr(0, file.rfind('/')).c_str(), 0775);
  int fd = open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    LOG_ERR("Fail to record action [%s] : %s", line.c_str(), strerror(errno));
    return;
  }
  // One write per line: lines of several processes never interleave.
  std::string record = line + "\n";
  ssize_t written = write(fd, record.data(), record.size());
  (void)written;
  fsync(fd);
  close(fd);
}

#ifdef PROVISOR_PHONE_BUILD

int deviceRebootSyscall() {
  sync();
  return static_cast<int>(syscall(SYS_reboot, kRebootMagic1, kRebootMagic2, kRebootRestart, nullptr));
}

int deviceKill(int pid, int signal, const std::string&) { return kill(pid, signal); }

int phoneCommand(const std::string& command) { return platformSystem(command); }

bool DeviceFile::Open(const std::string& path, int flags) {
  Close();
  fd_ = open(path.c_str(), flags | O_CLOEXEC);
  path_ = path;
  return fd_ >= 0;
}

int DeviceFile::Ioctl(unsigned long request, unsigned long argument) {
  return fd_ < 0 ? -1 : ioctl(fd_, request, argument);
}

int DeviceFile::IoctlText(unsigned long request, char* text) {
  return fd_ < 0 || !text ? -1 : ioctl(fd_, request, text);
}

#else  // host build: record, never act

namespace {

std::string hexRequest(unsigned long request) {
  char text[32];
  snprintf(text, sizeof(text), "0x%lx", request);
  return text;
}

}  // namespace

int deviceRebootSyscall() {
  (void)kRebootMagic1;
  (void)kRebootMagic2;
  (void)kRebootRestart;
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

int phoneCommand(const std::string& command) {
  recordAction("system " + command);
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

#endif

void DeviceFile::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

int platformSystem(const std::string& command) {
  fflush(stdout);
  pid_t child = fork();
  if (child < 0) return -1;
  if (child == 0) {
    execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return status;
}
