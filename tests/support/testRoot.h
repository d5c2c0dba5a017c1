// Shared test fixtures: a fresh temporary $PROVISOR_ROOT per test, a fake clock, and small helpers
// to write and read files under the root.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "clock.h"
#include "launcher.h"

namespace testing_support {

// Creates a unique directory under $TMPDIR (or /tmp of the real machine), points $PROVISOR_ROOT and
// the platform at it, and removes it again on destruction.
class TempRoot {
 public:
  TempRoot();
  ~TempRoot();
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;

  const std::string& path() const { return root_; }
  // Host path of a logical path ("/config/x" -> "<root>/config/x").
  std::string host(const std::string& logical) const;
  // Writes a file (parents created) at a logical path.
  void write(const std::string& logical, const std::string& contents) const;
  std::string read(const std::string& logical) const;
  bool exists(const std::string& logical) const;

 private:
  std::string root_;
  std::string previousEnv_;
  bool hadEnv_ = false;
};

// A test with its own root and a fake clock installed for the platform.
class RootedTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  std::unique_ptr<TempRoot> root;
  FakeClock fakeClock;
  Clock* previousClock = nullptr;
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

// The whole contents of a file by its host path ("" when it cannot be read).
std::string readHostFile(const std::string& path);
// Runs a command through /bin/sh, returns its exit status and fills `output` with stdout+stderr.
int runCommand(const std::string& command, std::string* output = nullptr);
// A free TCP (or UDP) port on 127.0.0.1.
int freePort(bool udp = false);

}  // namespace testing_support
