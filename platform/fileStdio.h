// The support library's standard-file wrapper: a FILE opened on a logical path (resolved under the
// platform root), closed on destruction. Mode values: 0 read, 1 write (truncate), 4097 write,
// appending.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

class chFileStdio {
 public:
  static constexpr int kModeRead = 0;
  static constexpr int kModeWrite = 1;
  static constexpr int kModeAppendFlag = 4096;
  static constexpr int kModeAppend = kModeWrite | kModeAppendFlag;

  chFileStdio() = default;
  ~chFileStdio() { Close(); }
  chFileStdio(const chFileStdio&) = delete;
  chFileStdio& operator=(const chFileStdio&) = delete;

  // Opens in binary mode; false when the file cannot be opened or the mode is unknown.
  bool Open(const std::string& logicalPath, int mode);
  // fread/fwrite semantics: the number of whole elements moved.
  size_t Read(void* buffer, size_t elementSize, size_t count);
  size_t Write(const void* buffer, size_t elementSize, size_t count);
  bool Flush();
  void Close();
  bool IsOpen() const { return file_ != nullptr; }

 private:
  FILE* file_ = nullptr;
};
