// Every absolute path of the system (/config, /phone, /tmp, /proc, /dev, ...) is resolved under the
// root given by $PROVISOR_ROOT (default "/"), so that tests and the demo run in a throw-away tree.
// The service keeps logical paths ("/tmp/XML.cfg") in its data and log lines and resolves them only
// where it touches the file system.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

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

bool pathFileExist(const std::string& logicalPath);
bool pathIsDirectory(const std::string& logicalPath);
// Whole-file read; false when it cannot be opened.
bool readTextFile(const std::string& logicalPath, std::string& out);
// Atomic replacement of a file: temporary file beside it, fsync, rename, fsync of the directory.
// A crash at any moment leaves either the old or the new contents. Missing parents are created.
bool writeFileAtomic(const std::string& logicalPath, const std::string& contents);
// "dir/name" with exactly one "/" between them.
std::string pathAppend(const std::string& dir, const std::string& name);
// Offset of the file name within a path (after the last "/").
size_t pathGetFileNamePos(const std::string& path);
