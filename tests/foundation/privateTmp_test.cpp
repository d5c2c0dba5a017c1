// The daemon's private download folder under /tmp: whatever another process left at its place is
// replaced by a fresh folder of ours (its targets untouched), leftovers are removed at start, and
// every download file is new, exclusive, 0600 and named by us.
#include "privateTmp.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <memory>
#include <set>
#include <vector>

#include "paths.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

class PrivateTmpTest : public RootedTest {
 protected:
  std::string folder() const { return root->host(kPrivateTmpDir); }
  void expectFreshFolder() const {
    struct stat st;
    ASSERT_EQ(lstat(folder().c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0700u);
    EXPECT_EQ(st.st_uid, geteuid());
  }
};

TEST_F(PrivateTmpTest, StartReplacesAnythingNotOursAloneAndEmptiesLeftovers) {
  struct Case {
    const char* what;
    std::function<void(TempRoot&)> plant;
  };
  const Case cases[] = {
      {"nothing", [](TempRoot&) {}},
      {"a link to a folder of the phone",
       [](TempRoot& r) { ASSERT_EQ(symlink("../config", r.host(kPrivateTmpDir).c_str()), 0); }},
      {"a plain file", [](TempRoot& r) { r.write(kPrivateTmpDir, "x"); }},
      {"a folder others may enter",
       [](TempRoot& r) {
         r.write(std::string(kPrivateTmpDir) + "/planted", "x");
         ASSERT_EQ(chmod(r.host(kPrivateTmpDir).c_str(), 0777), 0);
       }},
      {"a folder of another user",
       [](TempRoot& r) {
         r.write(std::string(kPrivateTmpDir) + "/planted", "x");
         ASSERT_EQ(chmod(r.host(kPrivateTmpDir).c_str(), 0700), 0);
         ASSERT_EQ(chown(r.host(kPrivateTmpDir).c_str(), geteuid() + 1, static_cast<gid_t>(-1)), 0);
       }},
      {"our folder with leftovers and a link in it",
       [](TempRoot& r) {
         r.write(std::string(kPrivateTmpDir) + "/dl-old.wav", "x");
         r.write(std::string(kPrivateTmpDir) + "/sub/deeper", "x");
         ASSERT_EQ(chmod(r.host(kPrivateTmpDir).c_str(), 0700), 0);
         ASSERT_EQ(symlink("../../config", r.host(std::string(kPrivateTmpDir) + "/link").c_str()), 0);
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    root.reset();  // its destructor restores the previous root, so it goes first
    root = std::make_unique<TempRoot>();
    root->write("/config/system/system.ini", "[AutoProvision]\nstrServerURL=keep\n");
    c.plant(*root);
    ASSERT_TRUE(preparePrivateTmpDir());
    expectFreshFolder();
    std::vector<std::string> names;
    EXPECT_EQ(listDirectoryNames(kPrivateTmpDir, names), 0);
    EXPECT_TRUE(names.empty());
    EXPECT_EQ(root->read("/config/system/system.ini"), "[AutoProvision]\nstrServerURL=keep\n");
  }
}

TEST_F(PrivateTmpTest, TemporariesAreNewPrivateFilesWithTheExtensionKept) {
  std::set<std::string> paths;
  for (const char* extension : {".wav", ".wav", "", ".tar"}) {
    std::string logical;
    UniqueFd fd = createPrivateTemporary(extension, logical);
    ASSERT_TRUE(fd.valid());
    EXPECT_EQ(logical.rfind(std::string(kPrivateTmpDir) + "/dl-", 0), 0u) << logical;
    EXPECT_EQ(logical.substr(logical.size() - strlen(extension)), extension);
    EXPECT_TRUE(paths.insert(logical).second) << "name given twice: " << logical;
    struct stat st;
    ASSERT_EQ(fstat(fd.get(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(st.st_size, 0);
  }
  expectFreshFolder();
  // A folder swapped for a link while the daemon runs is made anew before the next file.
  ASSERT_EQ(rename(folder().c_str(), root->host("/tmp/elsewhere").c_str()), 0);
  ASSERT_EQ(symlink("elsewhere", folder().c_str()), 0);
  std::string logical;
  EXPECT_TRUE(createPrivateTemporary(".xml", logical).valid());
  expectFreshFolder();
  EXPECT_EQ(paths.size(), 4u);
}

TEST(PrivateTmpNames, ExtensionsKeptOnlyWhenPlainLettersAndDigits) {
  const std::pair<const char*, const char*> cases[] = {
      {"Ring (1).wav", ".wav"}, {"pack.tar", ".tar"}, {"noext", ""},     {".hidden", ""},
      {"a.b;rm", ""},           {"x.", ""},           {"a.WAV", ".WAV"}, {"a.abcdefghijklmnopq", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(safeExtensionOf(c.first), c.second) << c.first;
}

}  // namespace
