// Restart, kill, device and shell requests: what both backends share (the actions log and closing a
// device). platform/host/actions.cpp records every action and never touches the machine;
// platform/phone/actions.cpp makes the real calls.
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

void DeviceFile::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}
