#include "fileStdio.h"

#include "paths.h"

bool chFileStdio::Open(const std::string& logicalPath, int mode) {
  Close();
  const char* how = nullptr;
  if (mode == kModeRead)
    how = "rb";
  else if (mode == kModeWrite)
    how = "wb";
  else if (mode == kModeAppend)
    how = "ab";
  if (!how) return false;
  file_ = fopen(hostPath(logicalPath).c_str(), how);
  return file_ != nullptr;
}

size_t chFileStdio::Read(void* buffer, size_t elementSize, size_t count) {
  if (!file_ || !buffer || elementSize == 0) return 0;
  return fread(buffer, elementSize, count, file_);
}

size_t chFileStdio::Write(const void* buffer, size_t elementSize, size_t count) {
  if (!file_ || !buffer || elementSize == 0) return 0;
  return fwrite(buffer, elementSize, count, file_);
}

bool chFileStdio::Flush() { return file_ && fflush(file_) == 0; }

void chFileStdio::Close() {
  if (file_) fclose(file_);
  file_ = nullptr;
}
