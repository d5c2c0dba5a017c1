// The archive check that decides what is unpacked, shared by the check and the install: every
// header read and judged before anything is written, and the same entries read again when they are
// written. Internal to the resource parsers.
#pragma once

#include <archive.h>
#include <archive_entry.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "archiveParser.h"

// Staging directories carry this prefix; an archive may not bring a top-level name with it.
constexpr const char* kStagingPrefix = ".unpack-";

struct ReaderFree {
  void operator()(archive* reader) const { archive_read_free(reader); }
};
using ReaderPtr = std::unique_ptr<archive, ReaderFree>;

enum class entryKind { kFile, kDirectory };

struct entryInfo {
  std::string path;  // normalised: no leading "./", no empty or "." components
  entryKind kind = entryKind::kFile;
  int64_t size = 0;
  bool sparse = false;  // holes are not stored, so its data may end before its size
  mode_t mode = 0644;
};

ReaderPtr openReader(const std::string& path);
std::string joinPath(const std::vector<std::string>& parts, size_t count);
// The entry a header stands for; false (logged) when it is refused.
bool describeEntry(archive_entry* entry, entryInfo& info);
// Walks a regular entry's data, handing each block to `fd` (-1: only counted).
bool walkFileData(archive* reader, const entryInfo& info, int fd, int64_t& budget);
// Reads every header; false when the archive is broken or an entry is refused.
bool scanArchive(const std::string& path, std::vector<entryInfo>& entries, archiveSummary& summary);
