#include "descriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

void UniqueFd::reset(int fd) {
  if (fd_ >= 0) close(fd_);
  fd_ = fd;
}

bool writeAll(int fd, const void* data, size_t size) {
  const char* bytes = static_cast<const char*>(data);
  while (size > 0) {
    ssize_t written = write(fd, bytes, size);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}

bool writeAllAt(int fd, const void* data, size_t size, off_t offset) {
  const char* bytes = static_cast<const char*>(data);
  while (size > 0) {
    ssize_t written = pwrite(fd, bytes, size, offset);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes += written;
    offset += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}

bool syncDirectory(const std::string& hostDir) {
  UniqueFd dir(open(hostDir.empty() ? "." : hostDir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return dir.valid() && fsync(dir.get()) == 0;
}

bool syncParentDirectory(const std::string& hostFile) {
  size_t slash = hostFile.rfind('/');
  if (slash == std::string::npos) return syncDirectory(".");
  return syncDirectory(slash == 0 ? "/" : hostFile.substr(0, slash));
}
