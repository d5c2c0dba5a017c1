#define LOG_MODULE "./src/privateTmp"
#include "privateTmp.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "baseMethod.h"
#include "log.h"
#include "paths.h"

namespace {

constexpr mode_t kFolderMode = 0700;
constexpr size_t kMaxExtension = 16;
constexpr int kNameAttempts = 16;
constexpr int kMaxOpenDescriptors = 16;

bool isUsableFolder(const struct stat& st) {
  return S_ISDIR(st.st_mode) && st.st_uid == geteuid() && (st.st_mode & 07777) == kFolderMode;
}

int removeOne(const char* path, const struct stat*, int type, struct FTW*) {
  int result = (type == FTW_DP) ? rmdir(path) : unlink(path);
  return result == 0 || errno == ENOENT ? 0 : -1;
}

// Entries below a folder, depth first; links are removed themselves, never followed.
int removeBelow(const char* path, const struct stat*, int type, struct FTW* where) {
  if (where->level == 0) return 0;
  return removeOne(path, nullptr, type, where);
}

bool removeWhatever(const std::string& host, bool isFolder) {
  if (!isFolder) return unlink(host.c_str()) == 0 || errno == ENOENT;
  return nftw(host.c_str(), removeOne, kMaxOpenDescriptors, FTW_PHYS | FTW_DEPTH | FTW_MOUNT) == 0;
}

bool makeFolder(const std::string& host) {
  if (mkdir(host.c_str(), kFolderMode) != 0) {
    LOG_ERR("Can't create the download folder [%s] : %s", kPrivateTmpDir, strerror(errno));
    return false;
  }
  // The umask may have taken bits away; the mode must be exactly 0700 to be recognised later.
  return chmod(host.c_str(), kFolderMode) == 0;
}

// Leaves a usable folder at its place; `empty` also removes what is in a usable one.
bool ensureFolder(bool empty) {
  if (!pathFileExist("/tmp")) makeDirs("/tmp");
  std::string host = hostPath(kPrivateTmpDir);
  struct stat st;
  if (lstat(host.c_str(), &st) != 0) {
    if (errno != ENOENT) {
      LOG_ERR("Can't examine the download folder [%s] : %s", kPrivateTmpDir, strerror(errno));
      return false;
    }
    return makeFolder(host);
  }
  if (!isUsableFolder(st)) {
    LOG_WAR("The download folder [%s] is not ours alone; made anew", kPrivateTmpDir);
    if (!removeWhatever(host, S_ISDIR(st.st_mode))) {
      LOG_ERR("Can't remove [%s] : %s", kPrivateTmpDir, strerror(errno));
      return false;
    }
    return makeFolder(host);
  }
  if (empty && nftw(host.c_str(), removeBelow, kMaxOpenDescriptors, FTW_PHYS | FTW_DEPTH | FTW_MOUNT) != 0) {
    LOG_ERR("Can't empty the download folder [%s] : %s", kPrivateTmpDir, strerror(errno));
    return false;
  }
  return true;
}

std::string randomName() {
  static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  unsigned char bytes[8];
  if (RAND_bytes(bytes, sizeof bytes) != 1) return "";
  std::string name = "dl-";
  for (unsigned char b : bytes) name.push_back(kLetters[b % (sizeof kLetters - 1)]);
  return name;
}

bool isSafeExtension(const std::string& extension) {
  if (extension.empty()) return true;
  if (extension[0] != '.' || extension.size() < 2 || extension.size() > kMaxExtension + 1) return false;
  for (size_t i = 1; i < extension.size(); ++i)
    if (!isalnum(static_cast<unsigned char>(extension[i]))) return false;
  return true;
}

}  // namespace

bool preparePrivateTmpDir() { return ensureFolder(true); }

bool ensurePrivateTmpDir() { return ensureFolder(false); }

bool writePrivateFile(const std::string& logicalPath, const std::string& contents) {
  UniqueFd fd(open(hostPath(logicalPath).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (fd.valid() && fchmod(fd.get(), 0600) == 0 && writeAll(fd.get(), contents.data(), contents.size())) return true;
  LOG_ERR("Can't write [%s] : %s", logicalPath.c_str(), strerror(errno));
  return false;
}

UniqueFd openSharedTmpFile(const std::string& logicalPath) {
  UniqueFd fd(open(hostPath(logicalPath).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd.valid()) {
    if (errno != ENOENT) LOG_WAR("Refused [%s] : %s", logicalPath.c_str(), strerror(errno));
    return UniqueFd();
  }
  struct stat st;
  if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    LOG_WAR("Refused [%s] : not a regular file", logicalPath.c_str());
    return UniqueFd();
  }
  return fd;
}

bool readSharedTmpFile(const std::string& logicalPath, size_t maxBytes, std::string& out) {
  out.clear();
  UniqueFd fd = openSharedTmpFile(logicalPath);
  if (!fd.valid()) return false;
  char buffer[8192];
  while (out.size() <= maxBytes) {
    size_t want = std::min(sizeof buffer, maxBytes + 1 - out.size());
    ssize_t got = read(fd.get(), buffer, want);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) break;
    out.append(buffer, static_cast<size_t>(got));
  }
  return true;
}

std::string safeExtensionOf(const std::string& fileName) {
  size_t dot = fileName.rfind('.');
  if (dot == std::string::npos || dot == 0) return "";
  std::string extension = fileName.substr(dot);
  return isSafeExtension(extension) ? extension : "";
}

UniqueFd createPrivateTemporary(const std::string& extension, std::string& logicalPath) {
  if (!LOG_CHECK(isSafeExtension(extension)) || !ensureFolder(false)) return UniqueFd();
  // Opened once and checked again through the descriptor: the files are made relative to it, so
  // the folder cannot be swapped between the check and the creation.
  UniqueFd folder(open(hostPath(kPrivateTmpDir).c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat st;
  if (!folder.valid() || fstat(folder.get(), &st) != 0 || !isUsableFolder(st)) {
    LOG_ERR("Can't use the download folder [%s]", kPrivateTmpDir);
    return UniqueFd();
  }
  for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
    std::string name = randomName();
    if (name.empty()) break;
    name += extension;
    int fd = openat(folder.get(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd >= 0) {
      fchmod(fd, 0600);
      logicalPath = pathAppend(kPrivateTmpDir, name);
      return UniqueFd(fd);
    }
    if (errno != EEXIST) break;
  }
  LOG_ERR("Can't create a file in the download folder [%s] : %s", kPrivateTmpDir, strerror(errno));
  return UniqueFd();
}
