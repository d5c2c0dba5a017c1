#define LOG_MODULE "./src/archiveParser"
// Unpacking a checked archive: entries written below a staging folder without following anything,
// then moved over (overlay) or in place of (replacement) the destination in renames.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "archiveEntries.h"
#include "baseMethod.h"
#include "beneath.h"
#include "descriptor.h"
#include "log.h"
#include "paths.h"

namespace {

// A staging directory removed with its contents unless it was moved into place.
class StagingDir {
 public:
  explicit StagingDir(const std::string& hostPattern) : path_(hostPattern) {
    if (!mkdtemp(&path_[0])) path_.clear();
  }
  ~StagingDir() {
    if (!path_.empty()) removeHostTree(path_);
  }
  StagingDir(const StagingDir&) = delete;
  StagingDir& operator=(const StagingDir&) = delete;
  const std::string& path() const { return path_; }
  void release() { path_.clear(); }

 private:
  std::string path_;
};

// Opens the directory made of the first `count` parts below `root`, creating missing ones and
// never following a link, so nothing written through it can land outside `root`.
int openDirectoryBelow(int root, const std::vector<std::string>& parts, size_t count) {
  int fd = openat(root, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  for (size_t i = 0; i < count && fd >= 0; ++i) {
    if (mkdirat(fd, parts[i].c_str(), 0755) != 0 && errno != EEXIST) {
      close(fd);
      return -1;
    }
    int next = openat(fd, parts[i].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    close(fd);
    fd = next;
  }
  return fd;
}

bool writeEntry(archive* reader, const entryInfo& info, int stagingFd, int64_t& budget) {
  std::vector<std::string> parts = pathComponents(info.path);
  UniqueFd parent(openDirectoryBelow(stagingFd, parts, parts.size() - 1));
  if (parent.get() < 0) return false;
  const char* name = parts.back().c_str();
  switch (info.kind) {
    case entryKind::kDirectory: {
      if (mkdirat(parent.get(), name, info.mode) == 0) return true;
      struct stat st;
      return errno == EEXIST && fstatat(parent.get(), name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
    }
    case entryKind::kFile: {
      UniqueFd out(openat(parent.get(), name, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, info.mode));
      return out.get() >= 0 && walkFileData(reader, info, out.get(), budget);
    }
  }
  return false;
}

// Second pass: the same entries as the check saw, written below the staging directory.
bool extractInto(const std::string& archivePath, const std::vector<entryInfo>& checked, const std::string& stagingHost,
                 int64_t maxBytes) {
  ReaderPtr reader = openReader(archivePath);
  UniqueFd staging(open(stagingHost.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!reader || staging.get() < 0) return false;
  int64_t budget = maxBytes;
  size_t index = 0;
  archive_entry* entry = nullptr;
  while (archive_read_next_header(reader.get(), &entry) == ARCHIVE_OK) {
    entryInfo info;
    if (!describeEntry(entry, info)) return false;
    if (info.path.empty()) continue;
    if (index >= checked.size() || checked[index].path != info.path || checked[index].kind != info.kind) return false;
    ++index;
    if (!writeEntry(reader.get(), info, staging.get(), budget)) {
      LOG_ERR("Can't unpack [%s] : %s", info.path.c_str(), strerror(errno));
      return false;
    }
  }
  return index == checked.size();
}

bool lstatPath(const std::string& path, struct stat& st) { return lstat(path.c_str(), &st) == 0; }

bool listNames(const std::string& dir, std::vector<std::string>& names) {
  DIR* listing = opendir(dir.c_str());
  if (!listing) return false;
  while (dirent* entry = readdir(listing)) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) names.push_back(entry->d_name);
  }
  closedir(listing);
  return true;
}

// True when an overlay would put a file where a directory is, or the other way round.
bool overlayConflicts(const std::string& staged, const std::string& dest) {
  std::vector<std::string> names;
  if (!listNames(staged, names)) return true;
  for (const std::string& name : names) {
    struct stat from, to;
    std::string source = staged + "/" + name, target = dest + "/" + name;
    if (!lstatPath(source, from)) return true;
    if (!lstatPath(target, to)) continue;
    if (S_ISDIR(from.st_mode) != S_ISDIR(to.st_mode)) {
      LOG_ERR("Archive entry [%s] would replace a %s !", name.c_str(), S_ISDIR(to.st_mode) ? "directory" : "file");
      return true;
    }
    if (S_ISDIR(from.st_mode) && overlayConflicts(source, target)) return true;
  }
  return false;
}

// Moves the staged entries over the destination: directories that exist are merged, everything
// else renamed into place (a rename replaces a file of the same name in one step).
bool overlayMove(const std::string& staged, const std::string& dest) {
  std::vector<std::string> names;
  if (!listNames(staged, names)) return false;
  for (const std::string& name : names) {
    struct stat from, to;
    std::string source = staged + "/" + name, target = dest + "/" + name;
    if (!lstatPath(source, from)) return false;
    bool merge = S_ISDIR(from.st_mode) && lstatPath(target, to) && S_ISDIR(to.st_mode);
    if (merge ? !overlayMove(source, target) : rename(source.c_str(), target.c_str()) != 0) {
      LOG_ERR("Can't move [%s] into place : %s", target.c_str(), strerror(errno));
      return false;
    }
  }
  return true;
}

// Names starting with `prefix` in the directory at `hostDir`.
std::vector<std::string> namesStartingWith(const std::string& hostDir, const std::string& prefix) {
  std::vector<std::string> names, found;
  if (!listNames(hostDir, names)) return found;
  for (const std::string& name : names)
    if (name.compare(0, prefix.size(), prefix) == 0) found.push_back(name);
  return found;
}

// Staging left by an install that a power loss or a crash cut short is removed before the next
// install of the same destination: inside it for an overlay, beside it for a replacement.
void removeStaleStaging(const std::string& dirHost) {
  for (const std::string& name : namesStartingWith(dirHost, kStagingPrefix)) removeHostTree(dirHost + "/" + name);
  size_t slash = dirHost.rfind('/');
  if (slash == std::string::npos) return;
  std::string parent = slash == 0 ? "/" : dirHost.substr(0, slash), base = dirHost.substr(slash + 1);
  for (const char* suffix : {kStagingPrefix, ".old-"}) {
    for (const std::string& name : namesStartingWith(parent, base + suffix)) {
      LOG_WAR("Removing the staging [%s] an earlier install left", logEscaped(name).c_str());
      removeHostTree(parent + "/" + name);
    }
  }
}

int installOverlay(const std::string& archivePath, const std::vector<entryInfo>& entries, const std::string& dirHost,
                   int64_t maxBytes) {
  // Inside the destination directory: the same partition, so every move is a rename.
  StagingDir staging(dirHost + "/" + kStagingPrefix + "XXXXXX");
  if (staging.path().empty()) {
    LOG_ERR("Can't create a staging directory in [%s] : %s", dirHost.c_str(), strerror(errno));
    return 0;
  }
  if (!extractInto(archivePath, entries, staging.path(), maxBytes) || overlayConflicts(staging.path(), dirHost))
    return 0;
  int moved = overlayMove(staging.path(), dirHost) ? 1 : 0;
  syncDirectory(dirHost);
  return moved;
}

int installReplacing(const std::string& archivePath, const std::vector<entryInfo>& entries, const std::string& dirHost,
                     int64_t maxBytes) {
  // Beside the directory, in its parent: the old directory stays whole until the new one is.
  StagingDir staging(dirHost + kStagingPrefix + "XXXXXX");
  if (staging.path().empty() || !extractInto(archivePath, entries, staging.path(), maxBytes)) return 0;
  chmod(staging.path().c_str(), 0755);
  StagingDir aside(dirHost + ".old-XXXXXX");
  bool hadOld = pathIsDirectory(dirHost);
  if (aside.path().empty() || (hadOld && rename(dirHost.c_str(), aside.path().c_str()) != 0)) return 0;
  if (rename(staging.path().c_str(), dirHost.c_str()) != 0) {
    LOG_ERR("Can't move [%s] into place : %s", dirHost.c_str(), strerror(errno));
    if (hadOld) rename(aside.path().c_str(), dirHost.c_str());
    return 0;
  }
  staging.release();
  size_t slash = dirHost.rfind('/');
  syncDirectory(slash == std::string::npos || slash == 0 ? "/" : dirHost.substr(0, slash));
  return 1;
}

}  // namespace

int unpackArchive(const std::string& archivePath, const std::string& directory, int64_t maxBytes, unpackMode mode) {
  archiveSummary summary;
  std::vector<entryInfo> entries;
  if (!scanArchive(archivePath, entries, summary)) return 0;
  if (summary.unpackedBytes > maxBytes) {
    LOG_WAR("[****Warning**] the file size [%dK] is larger than partion free size !",
            static_cast<int32_t>(summary.unpackedBytes / 1024));
    return 0;
  }
  std::string dirHost = hostPath(directory);
  while (dirHost.size() > 1 && dirHost.back() == '/') dirHost.pop_back();
  removeStaleStaging(dirHost);
  if (mode == unpackMode::kOverlay) {
    if (makeDirs(directory.c_str()) != 0) return 0;
    return installOverlay(archivePath, entries, dirHost, maxBytes);
  }
  std::string parent;
  if (dirName(directory.c_str(), parent) == 0 && !parent.empty() && makeDirs(parent.c_str()) != 0) return 0;
  return installReplacing(archivePath, entries, dirHost, maxBytes);
}
