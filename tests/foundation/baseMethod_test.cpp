// System helpers: files and directories under the root, free space rules, resource names.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "baseMethod.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

using BaseMethodTest = RootedTest;

struct statfs gFakeStatfs;
std::string gStatfsPath;
int fakeStatfs(const char* path, struct statfs* result) {
  gStatfsPath = path;
  *result = gFakeStatfs;
  return 0;
}

}  // namespace

TEST(BaseMethod, NumbersDirectoryNamesAndResourceNames) {
  for (const auto& [text, number] :
       {std::pair<const char*, int>{"0123456789", 1}, {"", 1}, {"12a", 0}, {"-1", 0}, {" 1", 0}})
    EXPECT_EQ(isNumber(text), number) << text;
  // Without a "/" the output is left as it was.
  for (const auto& [path, dir] : {std::pair<const char*, const char*>{"/config/system/system.ini", "/config/system"},
                                  {"/x", ""}, {"plain", "unchanged"}}) {
    std::string out = "unchanged";
    EXPECT_EQ(dirName(path, out), 0);
    EXPECT_EQ(out, dir) << path;
  }

  const std::pair<const char*, int> kinds[] = {{"xml", 1}, {"image", 2}, {"cert", 3}, {"tar", 4}, {"XML", 0}, {"", 0}};
  for (const auto& [word, kind] : kinds) EXPECT_EQ(resourceKindOf(word), kind) << word;

  const std::pair<const char*, int> table[] = {{"contact_list", 1},           {"wallpaper", 5},      {"ringtone", 7},
                                               {"custom_factory_config", 14}, {"custom_config", 15}, {"802_1X", 18}};
  for (const auto& [name, type] : table) {
    EXPECT_EQ(resourceTypeOf(name), type) << name;
    EXPECT_EQ(resourceTypeOf((std::string("item.") + name).c_str()), type) << name;
  }
  for (const char* none : {"a.b.ringtone", "ringtone.wav", "unknown", ""}) EXPECT_EQ(resourceTypeOf(none), 0) << none;
}

TEST_F(BaseMethodTest, FilesDirectoriesAndListings) {
  // A copy through several buffers.
  std::string big(0x80000 * 2 + 123, '\0');
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 + i / 4096);
  root->write("/tmp/big.bin", big);
  root->write("/config/target.bin", std::string(3 * 0x80000, 'z'));  // longer target: truncated
  ASSERT_EQ(copyFile("/tmp/big.bin", "/config/target.bin"), 0);
  EXPECT_EQ(root->read("/config/target.bin"), big);

  EXPECT_EQ(copyFile("/tmp/missing", "/config/t2"), -1);
  EXPECT_FALSE(root->exists("/config/t2"));

  // Success means the directory is there, existing or not, and also for a path already under the root.
  ASSERT_EQ(makeDirs("/config/a/b/c"), 0);
  EXPECT_EQ(makeDirs("/config/a/b/c"), 0);
  EXPECT_EQ(makeDirs(root->host("/config/a/d").c_str()), 0);
  root->write("/config/a/file", "x");
  EXPECT_EQ(makeDirs("/config/a/file/sub"), -1);

  root->write("/config/a/b/one.txt", "12345");
  root->write("/config/a/b/c/two.txt", "");
  ASSERT_EQ(symlink("/nonexistent", root->host("/config/a/b/link").c_str()), 0);
  EXPECT_EQ(fileSize("/config/a/b/one.txt"), 5);
  EXPECT_EQ(fileSize("/config/a/b/none"), -1);

  // A trailing "/" is not doubled.
  std::vector<std::string> list;
  EXPECT_EQ(listDir("/config/a/b/", list), 3);
  std::sort(list.begin(), list.end());
  EXPECT_EQ(list, (std::vector<std::string>{"/config/a/b/c", "/config/a/b/link", "/config/a/b/one.txt"}));
  EXPECT_EQ(listDir("/config/none", list), -1);

  // The tree goes depth first; a dangling link is removed, not followed.
  EXPECT_EQ(removeTree("/config/a"), 0);
  EXPECT_FALSE(root->exists("/config/a"));
  EXPECT_TRUE(root->exists("/config"));
}

TEST_F(BaseMethodTest, PartitionFreeSize) {
  EXPECT_EQ(partitionFreeSize("/tmp/deep/dir/firmware.rom"), 62914560);
  EXPECT_FALSE(root->exists("/tmp/deep"));  // /tmp is never asked
  EXPECT_EQ(partitionFreeSize("nofolder"), 0);

  ScopedStatfs fakeSpace(fakeStatfs);
  gFakeStatfs = {};
  gFakeStatfs.f_type = 0xEF53;  // ext4
  gFakeStatfs.f_bsize = 4096;
  gFakeStatfs.f_bfree = 1000;
  EXPECT_EQ(partitionFreeSize("/config/resource/ring.wav"), 4096000);
  EXPECT_EQ(gStatfsPath, root->host("/config/resource"));  // created first

  gFakeStatfs.f_type = 0x72b6;  // JFFS2
  EXPECT_EQ(partitionFreeSize("/config/resource/ring.wav"), 4096000 - 65536);

  // Beyond what a 32-bit size holds.
  gFakeStatfs.f_type = 0xEF53;
  gFakeStatfs.f_bfree = 3u * 1024 * 1024;
  EXPECT_EQ(partitionFreeSize("/phone/x"), int64_t(3) * 1024 * 1024 * 4096);
}
