// The phone's actions: the real restart, signals, device requests and shell.
#define LOG_MODULE "./platform/actions"
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string>

#include "actions.h"

namespace {

// The kernel's reboot request: both magic numbers and the restart command.
constexpr unsigned long kRebootMagic1 = 0xfee1deadUL;
constexpr unsigned long kRebootMagic2 = 0x28121969UL;
constexpr unsigned long kRebootRestart = 0x01234567UL;

}  // namespace

int deviceRebootSyscall() {
  sync();
  return static_cast<int>(syscall(SYS_reboot, kRebootMagic1, kRebootMagic2, kRebootRestart, nullptr));
}

int deviceKill(int pid, int signal, const std::string&) { return kill(pid, signal); }

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
