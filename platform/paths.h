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
// lies under the root is returned unchanged too, so resolving twice is harmless. "." and ".." are
// resolved lexically first and ".." stops at the root, as it does at "/": a server-given path such
// as "/../../x" names <root>/x and never reaches above the root.
std::string hostPath(const std::string& logicalPath);
// An absolute path with "." and ".." resolved lexically and repeated "/" folded; ".." of "/" is "/".
std::string lexicalPath(const std::string& absolutePath);

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
// The new file keeps the permissions of the one it replaces (0644 for a new one).
//
// Temporaries are named "<name>.tmp<pid>.<n>" and are held under an exclusive lock (flock) from
// creation until they are renamed or removed. A process killed in between leaves its temporary
// unlocked: each write of a file first removes that file's stale temporaries, taking only names of
// exactly that form whose lock it can take, so another writer's temporary in flight is never hit.
bool writeFileAtomic(const std::string& logicalPath, const std::string& contents);
// For writers that stream a file too big to hold: removes the file's stale temporaries and creates
// its temporary, named and locked as writeFileAtomic's are (parents created). The descriptor, or -1.
// The caller writes, fsyncs, renames `temporary` over the file and only then closes the descriptor.
int createAtomicTemporary(const std::string& logicalPath, std::string& temporary);
// Removes the stale temporaries of one file (see writeFileAtomic); the number removed.
int removeStaleTemporaries(const std::string& logicalPath);
// Creates or truncates a file readable by its owner only (0600): for downloads that may hold
// secrets in clear.
bool createPrivateFile(const std::string& logicalPath);
// "dir/name" with exactly one "/" between them.
std::string pathAppend(const std::string& dir, const std::string& name);
// Offset of the file name within a path (after the last "/").
size_t pathGetFileNamePos(const std::string& path);
// True when a file name that a server or an archive chose may become a file of the phone: not
// empty, at most 255 bytes, no "/", no control character, not starting with "-" or "." (options,
// hidden files, "." and ".."), and none of the shell's metacharacters $ ` ; | & < > \ ' " * ? that
// would turn the name into a command in another application's script. Blanks and parentheses
// ("Ring (1).wav") are allowed.
bool isSafeServerFileName(const std::string& name);
