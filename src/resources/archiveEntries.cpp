#define LOG_MODULE "./src/archiveParser"
#include "archiveEntries.h"

#include <algorithm>
#include <cstring>

#include "beneath.h"
#include "log.h"
#include "paths.h"

namespace {

constexpr size_t kReadBlock = 64 * 1024;

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

}  // namespace

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
