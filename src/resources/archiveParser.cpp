#define LOG_MODULE "./src/archiveParser"
#include "archiveParser.h"

#include <archive.h>
#include <archive_entry.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "baseMethod.h"
#include "beneath.h"
#include "descriptor.h"
#include "log.h"
#include "paths.h"

namespace {

constexpr size_t kReadBlock = 64 * 1024;
// Staging directories carry this prefix; an archive may not bring a top-level name with it.
constexpr const char* kStagingPrefix = ".unpack-";

struct ReaderFree {
  void operator()(archive* reader) const { archive_read_free(reader); }
};
using ReaderPtr = std::unique_ptr<archive, ReaderFree>;

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

enum class entryKind { kFile, kDirectory };

struct entryInfo {
  std::string path;  // normalised: no leading "./", no empty or "." components
  entryKind kind = entryKind::kFile;
  int64_t size = 0;
  bool sparse = false;  // holes are not stored, so its data may end before its size
  mode_t mode = 0644;
};

ReaderPtr openReader(const std::string& path) {
  ReaderPtr reader(archive_read_new());
  if (!reader) return nullptr;
  // Only the built-in decompressors; no external program is ever started for an archive.
  archive_read_support_filter_gzip(reader.get());
  archive_read_support_filter_bzip2(reader.get());
  archive_read_support_filter_xz(reader.get());
  archive_read_support_format_tar(reader.get());
  if (archive_read_open_filename(reader.get(), hostPath(path).c_str(), kReadBlock) != ARCHIVE_OK) return nullptr;
  return reader;
}

std::string joinPath(const std::vector<std::string>& parts, size_t count) {
  std::string path;
  for (size_t i = 0; i < count && i < parts.size(); ++i) path += (i ? "/" : "") + parts[i];
  return path;
}

bool refuse(const char* name, const char* reason) {
  LOG_ERR("Archive entry [%s] refused : %s", logEscaped(name).c_str(), reason);
  return false;
}

// An entry name must stay inside the destination: relative, without "..".
bool normaliseName(const char* name, std::string& out) {
  if (name[0] == '/') return refuse(name, "absolute name");
  std::vector<std::string> parts = pathComponents(name);
  for (const std::string& part : parts) {
    if (part == "..") return refuse(name, "\"..\" in the name");
    // Other applications of the phone meet these names too: no control character, no leading '-'
    // or '.', no shell metacharacter.
    if (!isSafeServerFileName(part)) return refuse(name, "unsafe name");
  }
  if (!parts.empty() && parts[0].compare(0, strlen(kStagingPrefix), kStagingPrefix) == 0)
    return refuse(name, "reserved name");
  out = joinPath(parts, parts.size());
  return true;
}

bool describeEntry(archive_entry* entry, entryInfo& info) {
  const char* name = archive_entry_pathname(entry);
  if (!name) return refuse("?", "name unreadable");
  if (!normaliseName(name, info.path)) return false;
  info.mode = (archive_entry_perm(entry) & 0755) | 0600;
  // No resource kind needs a link, and a link left on disk by one archive could carry the next
  // one's files out of its destination: links of either kind refuse the archive whole.
  if (archive_entry_hardlink(entry)) return refuse(name, "hard link");
  switch (archive_entry_filetype(entry)) {
    case AE_IFREG:
      info.kind = entryKind::kFile;
      info.size = archive_entry_size(entry);
      info.sparse = archive_entry_sparse_count(entry) > 0;
      return info.size >= 0 || refuse(name, "negative size");
    case AE_IFDIR:
      info.kind = entryKind::kDirectory;
      info.mode |= 0700;  // the owner must be able to enter it
      return true;
    case AE_IFLNK:
      return refuse(name, "symbolic link");
    default:
      return refuse(name, "device node, FIFO or socket");
  }
}

// Walks a regular entry's data, handing each block to `sink` (nullptr: only counted). False when
// the data is cut short or runs past the entry's size: a seekable reader skips over a missing end
// without noticing, so every byte is read.
bool walkFileData(archive* reader, const entryInfo& info, int fd, int64_t& budget) {
  int64_t end = 0;
  for (;;) {
    const void* block = nullptr;
    size_t size = 0;
    la_int64_t offset = 0;
    int status = archive_read_data_block(reader, &block, &size, &offset);
    if (status == ARCHIVE_EOF) break;
    if (status != ARCHIVE_OK) return false;
    budget -= static_cast<int64_t>(size);
    end = std::max<int64_t>(end, offset + static_cast<int64_t>(size));
    if (budget < 0 || end > info.size) return false;
    if (fd >= 0 && !writeAllAt(fd, static_cast<const char*>(block), size, offset)) return false;
  }
  if (end != info.size && !info.sparse) return false;
  return fd < 0 || (ftruncate(fd, info.size) == 0 && fsync(fd) == 0);
}

// Reads every header; false when the archive is broken or an entry is refused.
bool scanArchive(const std::string& path, std::vector<entryInfo>& entries, archiveSummary& summary) {
  ReaderPtr reader = openReader(path);
  if (!reader) {
    LOG_ERR("[%s] is not an archive !", path.c_str());
    return false;
  }
  archive_entry* entry = nullptr;
  int status;
  while ((status = archive_read_next_header(reader.get(), &entry)) == ARCHIVE_OK) {
    entryInfo info;
    if (!describeEntry(entry, info)) return false;
    int64_t unbounded = INT64_MAX;
    if (info.kind == entryKind::kFile && !walkFileData(reader.get(), info, -1, unbounded)) {
      LOG_ERR("Archive [%s] is broken : the data of [%s] is cut short", path.c_str(), info.path.c_str());
      return false;
    }
    if (++summary.entries > kMaxArchiveEntries) {
      LOG_ERR("Archive [%s] refused : more than %d entries", path.c_str(), static_cast<int>(kMaxArchiveEntries));
      return false;
    }
    summary.unpackedBytes += kArchiveEntryBlockBytes;
    if (info.kind == entryKind::kFile)
      summary.unpackedBytes +=
          (info.size + kArchiveEntryBlockBytes - 1) / kArchiveEntryBlockBytes * kArchiveEntryBlockBytes;
    if (!info.path.empty())
      entries.push_back(info);  // "." is the destination itself
    else if (info.kind != entryKind::kDirectory)
      return refuse(".", "not a directory");
  }
  if (status != ARCHIVE_EOF) {
    LOG_ERR("Archive [%s] is broken : %s", path.c_str(), archive_error_string(reader.get()));
    return false;
  }
  if (entries.empty()) {
    LOG_ERR("Archive [%s] holds nothing !", path.c_str());
    return false;
  }
  return true;
}

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

bool startsWith(const std::string& text, const char* prefix) { return text.compare(0, strlen(prefix), prefix) == 0; }

std::string trimmed(const std::string& text) {
  size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return std::string();
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// A "key = value" line with a key.
bool isAssignment(const std::string& line) {
  size_t equals = line.find('=');
  return equals != std::string::npos && !trimmed(line.substr(0, equals)).empty();
}

// Counts the assignments of the text's lines (comments skipped) and, for the INI model, whether an
// assignment follows a section line.
bool textHoldsSettings(const std::string& text, bool m7) {
  bool inSection = m7;
  size_t start = text.find('\n') == std::string::npos ? text.size() : text.find('\n') + 1;
  if (!m7) start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = trimmed(text.substr(start, end - start));
    start = end + 1;
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line[0] == '[') {
      if (m7) break;  // the first section ends the main model's part
      inSection = line.back() == ']';
      continue;
    }
    if (inSection && isAssignment(line)) return true;
  }
  return false;
}

}  // namespace

int checkArchive(const std::string& archivePath, archiveSummary& summary) {
  summary = archiveSummary();
  std::vector<entryInfo> entries;
  return scanArchive(archivePath, entries, summary) ? 1 : 0;
}

bool isArchiveFile(const std::string& path) {
  ReaderPtr reader = openReader(path);
  archive_entry* entry = nullptr;
  return reader && archive_read_next_header(reader.get(), &entry) == ARCHIVE_OK;
}

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

bool isConfigurationFile(const std::string& path) {
  int64_t size = fileSize(path.c_str());
  std::string text;
  if (size <= 0 || size > kConfigPackageMaxFileBytes || !readTextFile(path, text)) return false;
  if (text.find('\0') != std::string::npos) return false;
  if (startsWith(text, "\xEF\xBB\xBF")) text.erase(0, 3);
  if (startsWith(text, "#!version:")) {
    std::string version =
        trimmed(text.substr(10, text.find('\n') == std::string::npos ? std::string::npos : text.find('\n') - 10));
    return !version.empty() && textHoldsSettings(text, true);
  }
  return textHoldsSettings(text, false);
}

std::string autoTarParser::unpackDirectory() const {
  std::string dir = m_destPath;
  if (!dir.empty() && dir.back() != '/' && !pathIsDirectory(dir)) dirName(m_destPath.c_str(), dir);
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return dir;
}

int64_t autoTarParser::unpackBound(int64_t reserve) const {
  int64_t bound = partitionFreeSize(pathAppend(unpackDirectory(), "x").c_str()) - reserve;
  return bound > 0 ? bound : 0;
}

int autoTarParser::refuseWhenTooLarge(int64_t needed, int64_t bound) const {
  if (needed <= bound) return 1;
  LOG_WAR("[****Warning**] the file size [%dK] is larger than partion free size !",
          static_cast<int32_t>(needed / 1024));
  remove(hostPath(m_srcPath).c_str());
  return 0;
}

int autoTarParser::checkFile() {
  archiveSummary summary;
  if (!checkArchive(m_srcPath, summary)) return 0;
  return refuseWhenTooLarge(summary.unpackedBytes, unpackBound(0));
}

int autoTarParser::upgradeFile() {
  LOG_DEB("---- autop unpack [%s] into %s", m_srcPath.c_str(), unpackDirectory().c_str());
  return unpackArchive(m_srcPath, unpackDirectory(), unpackBound(0), mode());
}

int autoPackageParser::checkFile() {
  m_isArchive = isArchiveFile(m_srcPath);
  if (m_isArchive) {
    archiveSummary summary;
    if (!checkArchive(m_srcPath, summary)) return 0;
    m_neededBytes = summary.unpackedBytes;
  } else {
    if (!isConfigurationFile(m_srcPath)) {
      LOG_ERR("[%s] is neither a package archive nor a configuration file !", m_srcPath.c_str());
      return 0;
    }
    m_neededBytes = fileSize(m_srcPath.c_str());
  }
  return checkSpace();
}

int autoPackageParser::checkSpace() { return refuseWhenTooLarge(m_neededBytes, unpackBound(spaceReserve())); }

int autoPackageParser::upgradeFile() {
  if (!m_isArchive) {
    LOG_DEB("---- autop copy file [%s] to %s", m_srcPath.c_str(), m_destPath.c_str());
    return installCopyAtomic(m_srcPath, m_destPath);
  }
  LOG_DEB("---- autop unpack [%s] into %s", m_srcPath.c_str(), unpackDirectory().c_str());
  return unpackArchive(m_srcPath, unpackDirectory(), unpackBound(spaceReserve()), unpackMode::kOverlay);
}

int autoFactoryBinParser::upgradePost() { return m_action.empty() ? 1 : runActionMethods(); }
