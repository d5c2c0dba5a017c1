// Paths never reach above $PROVISOR_ROOT, however many ".." a table or a server puts in them; the
// temporaries a killed writer left beside a file go the next time that file is written, while
// another writer's temporary in flight and files of other names stay. And a file the system cannot
// examine is not a missing file: path queries tell "no such file" from every other stat() failure.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tuple>

#include "paths.h"
#include "testRoot.h"

namespace {

using PathsTest = testing_support::RootedTest;

}  // namespace

TEST_F(PathsTest, DotDotStopsAtTheRoot) {
  const std::string& r = root->path();
  const std::string parent = r.substr(0, r.rfind('/'));
  const std::pair<std::string, std::string> cases[] = {
      {"/../../x.ini", r + "/x.ini"},
      {"/config/../../../etc/passwd", r + "/etc/passwd"},
      {"/tmp/./a/../b", r + "/tmp/b"},
      {"/..", r + "/"},
      // An already resolved path that climbs out is taken as a logical one.
      {r + "/../outside", r + parent + "/outside"},
      {r + "/config/x", r + "/config/x"},
      {"relative/../x", "relative/../x"},
  };
  for (const auto& c : cases) EXPECT_EQ(hostPath(c.first), c.second) << c.first;

  // Writing and reading through such a path stay inside: "/../<name>" would be the root's sibling.
  const std::string name = r.substr(parent.size() + 1) + "-outside.ini";
  ASSERT_TRUE(writeFileAtomic("/../" + name, "inside"));
  EXPECT_NE(unlink((r + "-outside.ini").c_str()), 0);
  std::string text;
  EXPECT_TRUE(readTextFile("/config/../../../" + name, text));
  EXPECT_EQ(text, "inside");
}

TEST_F(PathsTest, StaleTemporariesGoWhenTheFileIsWrittenAgain) {
  const std::string file = "/config/system/system.ini";
  const std::string stale = file + ".tmp4242.7", busy = file + ".tmp99.1";  // writers killed / still at work
  for (const std::string& name : {stale, busy, file + ".tmp4242.8.keep", file + ".tmpl"}) root->write(name, "x");
  int lock = open(root->host(busy).c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(lock, LOCK_EX), 0);
  ASSERT_TRUE(writeFileAtomic(file, "[new]\n"));
  EXPECT_EQ(root->read(file), "[new]\n");
  EXPECT_FALSE(root->exists(stale));
  for (const std::string& kept : {busy, file + ".tmp4242.8.keep", file + ".tmpl"})
    EXPECT_TRUE(root->exists(kept)) << kept;
  close(lock);
  ASSERT_TRUE(writeFileAtomic(file, "[newer]\n"));
  EXPECT_FALSE(root->exists(busy)) << "once its writer is gone it is stale too";
}

TEST_F(PathsTest, OnlyNoSuchFileMakesAPathMissing) {
  root->write("/config/a.cfg", "hello");
  // A symbolic link to itself: stat() fails with ELOOP, the entry is there all the same.
  ASSERT_EQ(symlink(root->host("/config/loop.cfg").c_str(), root->host("/config/loop.cfg").c_str()), 0);
  const std::tuple<const char*, bool, int64_t, bool> cases[] = {
      // path, exists, size, "stat error" logged
      {"/config/a.cfg", true, 5, false},
      {"/config/none.cfg", false, -1, false},
      {"/config/a.cfg/under.cfg", false, -1, false},  // a file where a directory should be
      {"/config/loop.cfg", true, -1, true},
  };
  for (const auto& [path, exists, size, logged] : cases) {
    testing_support::LogCapture log;
    EXPECT_EQ(pathFileExist(path), exists) << path;
    EXPECT_EQ(pathFileSize(path), size) << path;
    EXPECT_FALSE(pathIsDirectory(path)) << path;
    EXPECT_EQ(log.contains("stat error : " + std::string(path)), logged) << path << "\n" << log.text();
  }
}

TEST(ServerFileNames, OnlyPlainNamesMayBecomeFilesOfThePhone) {
  const std::pair<const char*, bool> cases[] = {
      {"ring.wav", true},
      {"Ring (1).wav", true},
      {"a b_c-d+e,f=g@h~.JPG", true},
      {"", false},
      {".", false},
      {"..", false},
      {".hidden", false},
      {"-rf", false},
      {"a/b", false},
      {"x;id.jpg", false},
      {"$(id>pwnt).jpg", false},
      {"`id`.wav", false},
      {"a|b", false},
      {"a&b", false},
      {"a<b", false},
      {"a>b", false},
      {"a\\b", false},
      {"a'b", false},
      {"a\"b", false},
      {"*.wav", false},
      {"a?.wav", false},
      {"a\nb", false},
      {"a\x7f", false},
      {"tab\tname", false},
  };
  for (const auto& [name, safe] : cases) EXPECT_EQ(isSafeServerFileName(name), safe) << name;
  EXPECT_TRUE(isSafeServerFileName(std::string(255, 'a')));
  EXPECT_FALSE(isSafeServerFileName(std::string(256, 'a')));
}

// The daemon's fixed names in the shared /tmp (the decrypted configuration among them): a link or
// a readable file another process left there is replaced, never written through.
TEST_F(PathsTest, PrivateFilesNeverWriteThroughWhatOthersLeft) {
  root->write("/config/system/system.ini", "[AutoProvision]\nstrServerURL = http://127.0.0.1/\n");
  ASSERT_EQ(symlink(root->host("/config/system/system.ini").c_str(), root->host("/tmp/xxx.cfgdecrypt").c_str()), 0);
  root->write("/tmp/other.cfg", "left readable by another process");
  ASSERT_EQ(chmod(root->host("/tmp/other.cfg").c_str(), 0666), 0);
  for (const char* name : {"/tmp/xxx.cfgdecrypt", "/tmp/other.cfg"}) {
    ASSERT_TRUE(createPrivateFile(name)) << name;
    struct stat st;
    ASSERT_EQ(lstat(root->host(name).c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode)) << name;
    EXPECT_EQ(st.st_mode & 0777, 0600u) << name;
    EXPECT_EQ(st.st_size, 0) << name;
  }
  EXPECT_EQ(root->read("/config/system/system.ini"), "[AutoProvision]\nstrServerURL = http://127.0.0.1/\n");
}
