// Every absolute path of the system (/config, /phone, /tmp, /proc, /dev, ...) is resolved under the
// root given by $PROVISOR_ROOT (default "/"), so that tests and the demo run in a throw-away tree.
// The service keeps logical paths ("/tmp/XML.cfg") in its data and log lines and resolves them only
// where it touches the file system.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

// The root all absolute paths live under, without a trailing "/" ("" for the real root).
const std::string& platformRoot();
// Re-reads $PROVISOR_ROOT (tests change it between cases).
void platformSetRoot(const std::string& root);

// Logical absolute path -> host path. Relative paths are returned unchanged; a path that already
// lies under the root is returned unchanged too, so resolving twice is harmless.
std::string hostPath(const std::string& logicalPath);

// RAII FILE handle.
struct FileCloser {
  void operator()(FILE* f) const {
    if (f) fclose(f);
  }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

// fopen of a logical path.
FilePtr openFile(const std::string& logicalPath, const char* mode);

// Only "no such file" (ENOENT, ENOTDIR) makes a path missing; any other stat() failure is logged
// and the path counts as present.
bool pathFileExist(const std::string& logicalPath);
bool pathIsDirectory(const std::string& logicalPath);
// Size in bytes, -1 when it cannot be examined (logged unless the file is missing).
int64_t pathFileSize(const std::string& logicalPath);
// Appends the names in a directory ("." and ".." left out). 0 when all were read, -1 when it
// cannot be opened, -2 when reading stopped on an error (logged): `names` then holds only the
// entries before it, and the caller must not take them for the whole directory.
int listDirectoryNames(const std::string& logicalDir, std::vector<std::string>& names);
// Whole-file read; false when it cannot be opened.
bool readTextFile(const std::string& logicalPath, std::string& out);
// Atomic replacement of a file: temporary file beside it, fsync, rename, fsync of the directory.
// A crash at any moment leaves either the old or the new contents. Missing parents are created.
bool writeFileAtomic(const std::string& logicalPath, const std::string& contents);
// "dir/name" with exactly one "/" between them.
std::string pathAppend(const std::string& dir, const std::string& name);
// Offset of the file name within a path (after the last "/").
size_t pathGetFileNamePos(const std::string& path);
