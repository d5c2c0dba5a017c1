// The configuration store: cached reads and writes, flushes, write-through profile calls, reload of
// files changed by another process, merge of pending changes, and the crash safety of a flush.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <vector>

#include "inifile.h"
#include "registry.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

const char* kSystemIni = "/config/system/system.ini";

class RegistryTest : public RootedTest {
 protected:
  // Replaces the file the way another process would (a new inode, as an atomic writer makes).
  void replaceOnDisk(const std::string& logical, const std::string& text) {
    root->write(logical + ".other", text);
    ASSERT_EQ(rename(root->host(logical + ".other").c_str(), root->host(logical).c_str()), 0);
  }
};

}  // namespace

TEST_F(RegistryTest, SectionHandlesAndReadsOfDefaultsValuesAndNumbers) {
  EXPECT_EQ(brisaGetProfileString(kSystemIni, "AutoProvision", "strServerURL", "none"), "none");
  EXPECT_EQ(brisaGetProfileInt(kSystemIni, "AutoProvision", "nRepeatMinutes", 1440), 1440);
  REGHANDLE handle = registryOpen(kSystemIni, "AutoProvision");
  ASSERT_TRUE(handle);
  ASSERT_TRUE(registrySetString(handle, "nRepeatMinutes", "30"));
  EXPECT_EQ(registryGetInt(handle, "nRepeatMinutes", 5), 30);
  EXPECT_FALSE(root->exists(kSystemIni));  // neither reads nor unflushed writes create the file
  ASSERT_TRUE(registryFlush(handle));
  EXPECT_EQ(root->read(kSystemIni), "[AutoProvision]\nnRepeatMinutes=30\n");
  registryClose(handle);

  replaceOnDisk(kSystemIni,
                "[AutoProvision]\nstrServerURL = http://x/\nnRepeatMinutes=60\nbad=abc\nneg=-5\nempty=\nlead=12ab\n");
  EXPECT_EQ(brisaGetProfileString(kSystemIni, "AutoProvision", "strServerURL", ""), "http://x/");
  EXPECT_EQ(brisaGetProfileInt(kSystemIni, "AutoProvision", "nRepeatMinutes", 0), 60);
  for (const auto& [key, value] : {std::pair<const char*, int>{"bad", 7}, {"neg", -5}, {"empty", 7}, {"lead", 12}})
    EXPECT_EQ(brisaGetRegistryInt(kSystemIni, "AutoProvision", key, 7), value) << key;
  EXPECT_EQ(brisaGetRegistryString(kSystemIni, "AutoProvision", "empty", "d"), "");
  EXPECT_EQ(brisaGetRegistryString(kSystemIni, "Other", "strServerURL", "d"), "d");
}

TEST_F(RegistryTest, RegistryWritesWaitForTheFlushProfileWritesGoThroughOthersChangesAreReloaded) {
  replaceOnDisk(kSystemIni, "# phone settings\n[AutoProvision]\nstrServerURL=old\n");
  ASSERT_TRUE(brisaSetRegistryString(kSystemIni, "AutoProvision", "strServerURL", "new"));
  EXPECT_EQ(brisaGetRegistryString(kSystemIni, "AutoProvision", "strServerURL", ""), "new");
  EXPECT_EQ(root->read(kSystemIni), "# phone settings\n[AutoProvision]\nstrServerURL=old\n");

  // A write-through call flushes what was pending too.
  ASSERT_TRUE(brisaSetProfileInt("/config/user/user.ini", "Lock", "nLevel", 3));
  EXPECT_EQ(root->read("/config/user/user.ini"), "[Lock]\nnLevel=3\n");
  ASSERT_TRUE(brisaSetProfileString(kSystemIni, "AutoProvision", "bEnablePNP", "1"));
  EXPECT_EQ(root->read(kSystemIni), "# phone settings\n[AutoProvision]\nstrServerURL=new\nbEnablePNP=1\n");

  // A reset cache forgets unflushed writes.
  brisaSetRegistryString(kSystemIni, "AutoProvision", "strServerURL", "lost");
  registryResetCache();
  EXPECT_EQ(brisaGetRegistryString(kSystemIni, "AutoProvision", "strServerURL", ""), "new");

  // Changes of other processes are read again.
  replaceOnDisk(kSystemIni, "[AutoProvision]\na=1\nb=1\n");
  EXPECT_EQ(brisaGetRegistryInt(kSystemIni, "AutoProvision", "a", 0), 1);

  // A rewrite in place is noticed too.
  root->write(kSystemIni, "[AutoProvision]\na=3\nb=33\n");
  EXPECT_EQ(brisaGetRegistryInt(kSystemIni, "AutoProvision", "b", 0), 33);

  // With a change pending, our view stays; the flush replays our key over their newest file.
  ASSERT_TRUE(brisaSetRegistryString(kSystemIni, "AutoProvision", "a", "mine"));
  replaceOnDisk(kSystemIni, "[AutoProvision]\na=4\nb=4\n[Net]\nc=1\n");
  EXPECT_EQ(brisaGetRegistryString(kSystemIni, "AutoProvision", "b", ""), "33");
  ASSERT_TRUE(regFlushAllFile());
  EXPECT_EQ(root->read(kSystemIni), "[AutoProvision]\na=mine\nb=4\n[Net]\nc=1\n");
}

TEST_F(RegistryTest, ConcurrentThreadsShareOneCache) {
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([t] {
      for (int i = 0; i < 50; ++i) {
        std::string key = "k" + std::to_string(t) + "_" + std::to_string(i);
        brisaSetRegistryString(kSystemIni, "S", key, std::to_string(i));
        brisaGetRegistryInt(kSystemIni, "S", key, -1);
        if (i % 10 == 0) regFlushAllFile();
      }
    });
  }
  for (auto& w : writers) w.join();
  ASSERT_TRUE(regFlushAllFile());
  iniFile onDisk;
  ASSERT_TRUE(onDisk.LoadFromFile(kSystemIni));
  for (int t = 0; t < 4; ++t)
    for (int i = 0; i < 50; ++i)
      EXPECT_EQ(onDisk.GetTextValue("S", "k" + std::to_string(t) + "_" + std::to_string(i), ""), std::to_string(i));
}

// A flush killed at any moment leaves the old or the new file, never a mix or a partial file.
TEST_F(RegistryTest, FlushKilledAtAnyMomentLeavesOldOrNewFile) {
  constexpr int kKeys = 3000;  // about 100 KB, so a write takes a while
  auto fill = [](const std::string& generation) {
    for (int i = 0; i < kKeys; ++i)
      brisaSetRegistryString(kSystemIni, "Big", "key" + std::to_string(i), generation + "-value-" + std::to_string(i));
  };
  auto whole = [](const std::string& generation) {
    std::string text = "[Big]\n";
    for (int i = 0; i < kKeys; ++i)
      text += "key" + std::to_string(i) + "=" + generation + "-value-" + std::to_string(i) + "\n";
    return text;
  };
  // One write-and-flush cycle, timed here, sets the spread of the kill moments (builds with
  // sanitizers are several times slower).
  auto start = std::chrono::steady_clock::now();
  fill("B");
  ASSERT_TRUE(regFlushAllFile());
  fill("A");
  ASSERT_TRUE(regFlushAllFile());
  long cycleUs = static_cast<long>(
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start).count() / 2);

  int sawNew = 0;
  for (int round = 0; round < 24; ++round) {
    fflush(stdout);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (int n = 0;; ++n) {
        fill(n % 2 ? "A" : "B");
        regFlushAllFile();
      }
    }
    usleep(static_cast<useconds_t>(200 + cycleUs / 4 + round * cycleUs / 6));
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));

    const std::string onDisk = root->read(kSystemIni);
    ASSERT_TRUE(onDisk == whole("A") || onDisk == whole("B")) << "round " << round;
    sawNew += onDisk == whole("B");
  }
  EXPECT_GT(sawNew, 0) << "the writer never completed a flush: the test proved nothing";
}
