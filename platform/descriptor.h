// The few descriptor helpers every file writer of the system needs, written once: an owning file
// descriptor, a write that finishes or fails, and the directory fsync that makes a rename durable.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

// Owns one file descriptor and closes it when the scope ends. -1 means none.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  // Gives the descriptor up without closing it.
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset(int fd = -1);

 private:
  int fd_ = -1;
};

// Writes all `size` bytes (retrying short writes and EINTR); false on any error.
bool writeAll(int fd, const void* data, size_t size);
// pwrite() of all `size` bytes at `offset`; false on any error.
bool writeAllAt(int fd, const void* data, size_t size, off_t offset);
// fsync of a directory (host path), so that a rename or unlink in it reaches the disk. False when
// it cannot be opened or synced.
bool syncDirectory(const std::string& hostDir);
// syncDirectory of the folder that holds `hostFile`.
bool syncParentDirectory(const std::string& hostFile);
