#define LOG_MODULE "./platform/paths"
#include "paths.h"
#include "backend.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "descriptor.h"
#include "log.h"

namespace {

std::mutex& rootMutex() {
  static std::mutex* m = new std::mutex();
  return *m;
}

std::string normalisedRoot(const char* value) {
  std::string root = value ? value : "";
  while (!root.empty() && root.back() == '/') root.pop_back();
  return root;
}

// Never destroyed: helper threads and exit handlers may still resolve paths during exit.
std::string& rootStorage() {
  static std::string* root = new std::string(normalisedRoot(startupRoot()));
  return *root;
}

bool makeParentDirs(const std::string& hostFile) {
  size_t pos = 0;
  while ((pos = hostFile.find('/', pos + 1)) != std::string::npos) {
    std::string dir = hostFile.substr(0, pos);
    if (mkdir(dir.c_str(), 0775) != 0 && errno != EEXIST) return false;
  }
  return true;
}

constexpr mode_t kNewFileMode = 0644;
constexpr const char* kTemporaryMark = ".tmp";

// "<base>.tmp<digits>.<digits>": the only names writeFileAtomic gives its temporaries.
bool isTemporaryOf(const std::string& name, const std::string& base) {
  const std::string prefix = base + kTemporaryMark;
  if (name.compare(0, prefix.size(), prefix) != 0) return false;
  size_t at = prefix.size();
  auto digits = [&name, &at] {
    size_t start = at;
    while (at < name.size() && isdigit(static_cast<unsigned char>(name[at]))) ++at;
    return at > start;
  };
  if (!digits() || at >= name.size() || name[at] != '.') return false;
  ++at;
  return digits() && at == name.size();
}

// Removes the temporary when no writer holds its lock and the name still is the file locked.
bool removeIfUnlocked(const std::string& file) {
  UniqueFd fd(open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd.valid() || flock(fd.get(), LOCK_EX | LOCK_NB) != 0) return false;
  struct stat held, named;
  if (fstat(fd.get(), &held) != 0 || lstat(file.c_str(), &named) != 0) return false;
  if (held.st_dev != named.st_dev || held.st_ino != named.st_ino) return false;
  return unlink(file.c_str()) == 0;
}

// A new temporary beside `target`, created, locked and still linked under `temporary`.
int createLockedTemporary(const std::string& target, mode_t mode, std::string& temporary) {
  static std::atomic<unsigned> sequence{0};
  for (int attempt = 0; attempt < 8; ++attempt) {
    temporary = target + kTemporaryMark + std::to_string(getpid()) + "." + std::to_string(sequence.fetch_add(1));
    int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd < 0) {
      if (errno == EEXIST) continue;
      return -1;
    }
    struct stat st;
    // A clean-up of another process may have taken it for stale before the lock: start again.
    if (flock(fd, LOCK_EX) == 0 && fstat(fd, &st) == 0 && st.st_nlink > 0 && fchmod(fd, mode) == 0) return fd;
    close(fd);
  }
  return -1;
}

}  // namespace

std::string lexicalPath(const std::string& absolutePath) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= absolutePath.size()) {
    size_t end = absolutePath.find('/', start);
    if (end == std::string::npos) end = absolutePath.size();
    std::string part = absolutePath.substr(start, end - start);
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.push_back(std::move(part));
    }
    start = end + 1;
  }
  std::string out;
  for (const std::string& part : parts) out += "/" + part;
  if (out.empty()) return "/";
  if (absolutePath.back() == '/') out += "/";
  return out;
}

const std::string& platformRoot() {
  std::lock_guard<std::mutex> lock(rootMutex());
  return rootStorage();
}

void platformSetRoot(const std::string& root) {
  std::lock_guard<std::mutex> lock(rootMutex());
  rootStorage() = normalisedRoot(root.c_str());
}

std::string hostPath(const std::string& logicalPath) {
  const std::string& root = platformRoot();
  if (root.empty() || logicalPath.empty() || logicalPath[0] != '/') return logicalPath;
  bool needsResolving = logicalPath.find("/.") != std::string::npos || logicalPath.find("//") != std::string::npos;
  const std::string path = needsResolving ? lexicalPath(logicalPath) : logicalPath;
  if (path.compare(0, root.size(), root) == 0 && (path.size() == root.size() || path[root.size()] == '/'))
    return path;
  return root + path;
}

FilePtr openFile(const std::string& logicalPath, const char* mode) {
  return FilePtr(fopen(hostPath(logicalPath).c_str(), mode));
}

namespace {

bool isMissingError(int error) { return error == ENOENT || error == ENOTDIR; }

// stat() of a logical path; a failure other than "no such file" is logged, since it says nothing
// about whether the file is there.
int statLogged(const std::string& logicalPath, struct stat& st) {
  if (stat(hostPath(logicalPath).c_str(), &st) == 0) return 0;
  int error = errno;
  if (!isMissingError(error)) LOG_ERR("stat error : %s (%s)", logicalPath.c_str(), strerror(error));
  return error;
}

struct DirCloser {
  void operator()(DIR* d) const {
    if (d) closedir(d);
  }
};

}  // namespace

bool pathFileExist(const std::string& logicalPath) {
  struct stat st;
  int error = statLogged(logicalPath, st);
  // A file that cannot be examined is still there: taking it for missing would let callers
  // replace or skip what they must not.
  return error == 0 || !isMissingError(error);
}

bool pathIsDirectory(const std::string& logicalPath) {
  struct stat st;
  return statLogged(logicalPath, st) == 0 && S_ISDIR(st.st_mode);
}

int64_t pathFileSize(const std::string& logicalPath) {
  struct stat st;
  return statLogged(logicalPath, st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
}

int listDirectoryNames(const std::string& logicalDir, std::vector<std::string>& names) {
  std::unique_ptr<DIR, DirCloser> listing{opendir(hostPath(logicalDir).c_str())};
  if (!listing) return -1;
  for (;;) {
    errno = 0;  // readdir() returns null both at the end and on an error; only errno tells them apart
    const dirent* entry = readdir(listing.get());
    if (!entry) break;
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) names.push_back(entry->d_name);
  }
  if (errno == 0) return 0;
  LOG_ERR("readdir error : %s (%s)", logicalDir.c_str(), strerror(errno));
  return -2;
}

bool readTextFile(const std::string& logicalPath, std::string& out) {
  FilePtr f = openFile(logicalPath, "rb");
  if (!f) return false;
  out.clear();
  char buffer[8192];
  size_t n;
  while ((n = fread(buffer, 1, sizeof(buffer), f.get())) > 0) out.append(buffer, n);
  return !ferror(f.get());
}

int removeStaleTemporaries(const std::string& logicalPath) {
  const std::string target = hostPath(logicalPath);
  size_t slash = target.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : target.substr(0, slash));
  const std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
  std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(dir.c_str()), closedir);
  if (!listing) return 0;
  std::vector<std::string> stale;
  while (const dirent* entry = readdir(listing.get()))
    if (isTemporaryOf(entry->d_name, base)) stale.push_back(pathAppend(dir, entry->d_name));
  int removed = 0;
  for (const std::string& file : stale) removed += removeIfUnlocked(file) ? 1 : 0;
  return removed;
}

int createAtomicTemporary(const std::string& logicalPath, std::string& temporary) {
  const std::string target = hostPath(logicalPath);
  if (!makeParentDirs(target)) return -1;
  // Leftovers of writers killed before their rename would otherwise pile up beside the file.
  removeStaleTemporaries(target);
  struct stat existing;
  mode_t mode = stat(target.c_str(), &existing) == 0 ? (existing.st_mode & 07777) : kNewFileMode;
  return createLockedTemporary(target, mode, temporary);
}

bool writeFileAtomic(const std::string& logicalPath, const std::string& contents) {
  const std::string target = hostPath(logicalPath);
  std::string temporary;
  {
    // The lock lives until the descriptor closes, after the rename.
    UniqueFd fd(createAtomicTemporary(target, temporary));
    if (!fd.valid()) return false;
    if (!writeAll(fd.get(), contents.data(), contents.size()) || fsync(fd.get()) != 0 ||
        rename(temporary.c_str(), target.c_str()) != 0) {
      unlink(temporary.c_str());
      return false;
    }
  }
  // The rename itself must reach the disk before we call the new contents written.
  syncParentDirectory(target);
  return true;
}

// The daemon's fixed names in the shared /tmp: whatever another process left there (a link to a
// setting file, a file it can read) is unlinked, never opened, and the file is made anew, ours
// alone. Once it is ours, the sticky /tmp keeps others from replacing it while it is used by name.
bool createPrivateFile(const std::string& logicalPath) {
  const std::string file = hostPath(logicalPath);
  if (unlink(file.c_str()) != 0 && errno != ENOENT) return false;
  UniqueFd fd(open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  return fd.valid() && fchmod(fd.get(), 0600) == 0;
}

std::string pathAppend(const std::string& dir, const std::string& name) {
  if (dir.empty()) return name;
  if (dir.back() == '/') return name.empty() || name[0] != '/' ? dir + name : dir + name.substr(1);
  return name.empty() || name[0] != '/' ? dir + "/" + name : dir + name;
}

size_t pathGetFileNamePos(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? 0 : slash + 1;
}

bool isSafeServerFileName(const std::string& name) {
  constexpr size_t kMaxFileName = 255;
  if (name.empty() || name.size() > kMaxFileName || name[0] == '-' || name[0] == '.') return false;
  for (unsigned char c : name) {
    if (c < 0x20 || c == 0x7f || c == '/' || strchr("$`;|&<>\\'\"*?", c)) return false;
  }
  return true;
}
