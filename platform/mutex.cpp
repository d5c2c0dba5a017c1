// Named inter-process mutex: flock on $PROVISOR_ROOT/tmp/<name>.lock. Every open() of the lock file
// is its own lock owner, so two chMutex objects of one process exclude each other as well.
#define LOG_MODULE "./platform/mutex"
#include "mutex.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "clock.h"
#include "log.h"
#include "paths.h"

namespace {

constexpr const char* kLockDir = "/tmp";
constexpr uint32_t kLockPollMs = 10;

// Names become file names: nothing that could leave the lock directory.
bool isSafeName(const std::string& name) {
  return !name.empty() && name.find('/') == std::string::npos && name != "." && name != "..";
}

}  // namespace

chMutex::~chMutex() { CloseMutex(); }

bool chMutex::OpenMutex(const std::string& name) {
  CloseMutex();
  if (!isSafeName(name)) {
    LOG_ERR("Invalid mutex name [%s]", name.c_str());
    return false;
  }
  std::string dir = hostPath(kLockDir);
  mkdir(dir.c_str(), 0775);
  std::string file = pathAppend(dir, name + ".lock");
  fd_ = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  if (fd_ < 0) {
    LOG_ERR("Fail to open mutex [%s] : %s", file.c_str(), strerror(errno));
    return false;
  }
  return true;
}

bool chMutex::Lock(int32_t timeoutMs) {
  if (fd_ < 0) return false;
  if (locked_) return true;
  chTimeout deadline(timeoutMs);
  for (;;) {
    if (flock(fd_, LOCK_EX | LOCK_NB) == 0) {
      locked_ = true;
      return true;
    }
    if (errno != EWOULDBLOCK && errno != EINTR) {
      LOG_ERR("Fail to lock mutex : %s", strerror(errno));
      return false;
    }
    if (deadline.IsTimeout()) return false;
    brisaSleep(kLockPollMs);
  }
}

void chMutex::Unlock() {
  if (fd_ >= 0 && locked_) flock(fd_, LOCK_UN);
  locked_ = false;
}

void chMutex::CloseMutex() {
  Unlock();
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}
