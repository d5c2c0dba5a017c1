// Shared test fixtures: throw-away directories, a fresh temporary $PROVISOR_ROOT per test, a fake
// clock, the log capture, and small helpers to write and read files.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "clock.h"
#include "fakeClock.h"
#include "launcher.h"
#include "scopedGlobals.h"

namespace testing_support {

// The whole contents of a file by its host path ("" when it cannot be read).
std::string readHostFile(const std::string& path);
// Writes a file by its host path, parents created, mode 0644.
void writeHostFile(const std::string& path, const std::string& contents);

// A throw-away directory, removed with everything in it. Under /tmp (readable by the unprivileged
// users that servers drop to), or under $TMPDIR when `underTmpdir`.
class ScratchDir {
 public:
  explicit ScratchDir(const std::string& tag, bool underTmpdir = false);
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::string& path() const { return path_; }
  // Writes a file (parents created), mode 0644.
  void write(const std::string& relative, const std::string& contents) const {
    writeHostFile(file(relative), contents);
  }
  std::string file(const std::string& relative) const { return path_ + "/" + relative; }

 private:
  std::string path_;
};

// Points $PROVISOR_ROOT and the platform at a new scratch directory, and back on destruction.
class TempRoot {
 public:
  TempRoot();
  ~TempRoot();
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;

  const std::string& path() const { return dir_.path(); }
  // Host path of a logical path ("/config/x" -> "<root>/config/x").
  std::string host(const std::string& logical) const { return path() + logical; }
  // Writes a file (parents created) at a logical path.
  void write(const std::string& logical, const std::string& contents) const { writeHostFile(host(logical), contents); }
  std::string read(const std::string& logical) const { return readHostFile(host(logical)); }
  bool exists(const std::string& logical) const;

 private:
  ScratchDir dir_;
  std::string previousEnv_;
  bool hadEnv_ = false;
};

// A test with its own root and a fake clock installed for the platform; every process-wide setting
// is reset before and after it (scopedGlobals.h), so no test depends on the order tests run in.
class RootedTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  std::unique_ptr<TempRoot> root;
  FakeClock fakeClock;
};

// Lines written to the log while the capture lives (the logger's test sink).
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  std::string text() const;
  bool contains(const std::string& needle) const;
  void clear();
};

// How often `needle` occurs in `text` (overlapping counted), and whether it does at all.
int occurrences(const std::string& text, const std::string& needle);
inline bool contains(const std::string& text, const std::string& needle) { return text.find(needle) != std::string::npos; }

// Runs a command through /bin/sh, returns its exit status and fills `output` with stdout+stderr.
int runCommand(const std::string& command, std::string* output = nullptr);
// A free TCP (or UDP) port on 127.0.0.1.
int freePort(bool udp = false);

}  // namespace testing_support
