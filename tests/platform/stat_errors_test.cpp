// A file the system cannot examine is not a missing file: path queries, directory listings and the
// configuration store each tell "no such file" from every other stat() or readdir() failure.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "paths.h"
#include "registry.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

class StatErrorTest : public RootedTest {
 protected:
  // A symbolic link to itself: stat() fails with ELOOP, the entry is there all the same.
  void makeLoop(const std::string& logical) {
    ASSERT_EQ(symlink(root->host(logical).c_str(), root->host(logical).c_str()), 0);
  }
  LogCapture log;
};

}  // namespace

TEST_F(StatErrorTest, OnlyNoSuchFileMakesAPathMissing) {
  root->write("/config/a.cfg", "hello");
  makeLoop("/config/loop.cfg");
  struct Case {
    const char* path;
    bool exists;
    int64_t size;
    bool logged;
  };
  const Case cases[] = {
      {"/config/a.cfg", true, 5, false},
      {"/config/none.cfg", false, -1, false},
      {"/config/a.cfg/under.cfg", false, -1, false},  // a file where a directory should be
      {"/config/loop.cfg", true, -1, true},
  };
  for (const Case& c : cases) {
    log.clear();
    EXPECT_EQ(pathFileExist(c.path), c.exists) << c.path;
    EXPECT_EQ(pathFileSize(c.path), c.size) << c.path;
    EXPECT_FALSE(pathIsDirectory(c.path)) << c.path;
    EXPECT_EQ(log.contains("stat error : " + std::string(c.path)), c.logged) << c.path << "\n" << log.text();
  }
}

TEST_F(StatErrorTest, DirectoryListingReadsToTheEnd) {
  for (int i = 0; i < 300; ++i) root->write("/config/dir/f" + std::to_string(i), "x");
  std::vector<std::string> names;
  ASSERT_EQ(listDirectoryNames("/config/dir", names), 0);
  EXPECT_EQ(names.size(), 300u);
  EXPECT_EQ(std::count(names.begin(), names.end(), "."), 0);
  EXPECT_EQ(listDirectoryNames("/config/none", names), -1);
  EXPECT_FALSE(log.contains("readdir error")) << log.text();
}

TEST_F(StatErrorTest, StoreKeepsItsValuesWhenTheFileCannotBeExamined) {
  registryResetCache();
  root->write("/config/system/system.ini", "[AutoProvision]\nstrServerURL=http://kept/\n");
  EXPECT_EQ(brisaGetRegistryString("/config/system/system.ini", "AutoProvision", "strServerURL", ""), "http://kept/");
  // Renamed over the file it names, the link names itself.
  ASSERT_EQ(symlink("system.ini", root->host("/config/system/other.ini").c_str()), 0);
  ASSERT_EQ(rename(root->host("/config/system/other.ini").c_str(), root->host("/config/system/system.ini").c_str()), 0);
  EXPECT_EQ(brisaGetRegistryString("/config/system/system.ini", "AutoProvision", "strServerURL", ""), "http://kept/");
  EXPECT_TRUE(log.contains("stat error")) << log.text();
  registryResetCache();
}
