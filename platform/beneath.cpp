#define LOG_MODULE "./platform/beneath"
#include "beneath.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "log.h"

namespace {

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// The kernel's own refusal of links and "..", where it has openat2 (Linux 5.6 and later).
int openWithKernelResolve(int rootFd, const std::string& relative) {
#ifdef SYS_openat2
  struct open_how how;
  memset(&how, 0, sizeof(how));
  how.flags = kDirectoryFlags;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  return static_cast<int>(syscall(SYS_openat2, rootFd, relative.c_str(), &how, sizeof(how)));
#else
  (void)rootFd;
  (void)relative;
  errno = ENOSYS;
  return -1;
#endif
}

// One component after the other, each opened relative to its parent without following a link.
UniqueFd walkBeneath(int rootFd, const std::vector<std::string>& parts, bool create) {
  UniqueFd current(openat(rootFd, ".", kDirectoryFlags));
  for (const std::string& part : parts) {
    if (current.get() < 0) break;
    if (create && mkdirat(current.get(), part.c_str(), 0755) != 0 && errno != EEXIST) return UniqueFd();
    current = UniqueFd(openat(current.get(), part.c_str(), kDirectoryFlags));
  }
  return current;
}

bool sameDirectory(int fd, const struct stat& expected) {
  struct stat st;
  return fstat(fd, &st) == 0 && st.st_dev == expected.st_dev && st.st_ino == expected.st_ino;
}

// Unlinks every entry of `fd` that is not a directory; the first directory found, if any, is
// named in `subdirectory`. False when something could not be read or removed.
bool clearFilesAndFindDirectory(int fd, std::string& subdirectory) {
  subdirectory.clear();
  int listFd = dup(fd);
  DIR* listing = listFd >= 0 ? fdopendir(listFd) : nullptr;
  if (!listing) {
    if (listFd >= 0) close(listFd);
    return false;
  }
  rewinddir(listing);
  bool ok = true;
  while (dirent* entry = readdir(listing)) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    struct stat st;
    if (fstatat(fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;  // gone meanwhile
    if (S_ISDIR(st.st_mode)) {
      subdirectory = entry->d_name;
      break;
    }
    if (unlinkat(fd, entry->d_name, 0) != 0 && errno != ENOENT) ok = false;
  }
  closedir(listing);
  return ok;
}

int failRemoval(const std::string& name, const char* what) {
  LOG_ERR("Can't remove [%s] : %s (%s)", logEscaped(name).c_str(), what, strerror(errno));
  return -1;
}

}  // namespace

std::vector<std::string> pathComponents(const std::string& relative) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= relative.size()) {
    size_t end = relative.find('/', start);
    if (end == std::string::npos) end = relative.size();
    std::string part = relative.substr(start, end - start);
    if (!part.empty() && part != ".") parts.push_back(part);
    start = end + 1;
  }
  return parts;
}

UniqueFd openDirectoryBeneath(int rootFd, const std::string& relative, bool create) {
  std::vector<std::string> parts = pathComponents(relative);
  for (const std::string& part : parts) {
    if (part == "..") {
      errno = EXDEV;
      return UniqueFd();
    }
  }
  if (!create && !relative.empty() && relative[0] != '/') {
    UniqueFd fd(openWithKernelResolve(rootFd, relative));
    if (fd.get() >= 0 || (errno != ENOSYS && errno != EINVAL && errno != EPERM)) return fd;
  }
  return walkBeneath(rootFd, parts, create);
}

// Goes down one directory at a time holding a single descriptor, and back up through ".." checked
// against the directory it came from, so a tree swapped while it is removed stops the removal
// instead of leading it elsewhere.
int removeTreeAt(int parentFd, const std::string& name) {
  UniqueFd top(openat(parentFd, name.c_str(), kDirectoryFlags));
  if (top.get() < 0) {
    if (errno != ENOTDIR && errno != ELOOP) return errno == ENOENT ? 0 : failRemoval(name, "open");
    return unlinkat(parentFd, name.c_str(), 0) == 0 || errno == ENOENT ? 0 : failRemoval(name, "unlink");
  }
  std::vector<struct stat> levels(1);
  std::vector<std::string> names{name};
  if (fstat(top.get(), &levels[0]) != 0) return failRemoval(name, "stat");
  UniqueFd current = std::move(top);
  for (;;) {
    std::string subdirectory;
    if (!clearFilesAndFindDirectory(current.get(), subdirectory)) return failRemoval(names.back(), "clear");
    if (!subdirectory.empty()) {
      UniqueFd down(openat(current.get(), subdirectory.c_str(), kDirectoryFlags));
      struct stat st;
      if (down.get() < 0 || fstat(down.get(), &st) != 0) return failRemoval(subdirectory, "open");
      levels.push_back(st);
      names.push_back(subdirectory);
      current = std::move(down);
      continue;
    }
    if (levels.size() == 1) break;
    UniqueFd up(openat(current.get(), "..", kDirectoryFlags));
    levels.pop_back();
    if (up.get() < 0 || !sameDirectory(up.get(), levels.back())) return failRemoval(names.back(), "moved away");
    std::string emptied = names.back();
    names.pop_back();
    current = std::move(up);
    if (unlinkat(current.get(), emptied.c_str(), AT_REMOVEDIR) != 0) return failRemoval(emptied, "rmdir");
  }
  current = UniqueFd();
  return unlinkat(parentFd, name.c_str(), AT_REMOVEDIR) == 0 ? 0 : failRemoval(name, "rmdir");
}

int removeContentsAt(int dirFd) {
  int listFd = dup(dirFd);
  DIR* listing = listFd >= 0 ? fdopendir(listFd) : nullptr;
  if (!listing) {
    if (listFd >= 0) close(listFd);
    return -1;
  }
  std::vector<std::string> names;
  while (dirent* entry = readdir(listing)) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) names.push_back(entry->d_name);
  }
  closedir(listing);
  int status = 0;
  for (const std::string& name : names)
    if (removeTreeAt(dirFd, name) != 0) status = -1;
  return status;
}

int removeHostTree(const std::string& hostPath) {
  std::string path = hostPath;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  size_t slash = path.rfind('/');
  std::string parent = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  UniqueFd parentFd(open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (parentFd.get() < 0) return errno == ENOENT ? 0 : failRemoval(path, "open parent");
  return removeTreeAt(parentFd.get(), name);
}
