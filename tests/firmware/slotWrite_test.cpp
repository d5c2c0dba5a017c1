// The firmware slot's write path against a hostile local process: while a scripted server holds the
// download halfway, the test renames its own file over whatever the library is writing and plants
// links where earlier versions kept their copies. Nothing but a verified payload may reach the slot,
// and no link is followed.
// A file left beside the slot by a power loss is removed by the next install.
#include <dirent.h>
#include <gtest/gtest.h>

#include <optional>
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <set>

#include "firmware.h"
#include "firmwareImages.h"
#include "firmwareSource.h"
#include "servers.h"

using namespace testing_support;

namespace {

const std::string kSlotFolder = "/host/flash";
const std::string kSystemIni = "/config/system/system.ini";
const std::string kForged = "23 bytes, never signed.";

std::set<std::string> entriesOf(const std::string& hostDir) {
  std::set<std::string> names;
  if (DIR* dir = opendir(hostDir.c_str())) {
    while (dirent* entry = readdir(dir))
      if (entry->d_name[0] != '.') names.insert(entry->d_name);
    closedir(dir);
  }
  return names;
}

bool isLink(const std::string& hostFile) {
  struct stat st;
  return lstat(hostFile.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

struct SwapCase {
  const char* name;
  bool besideSlot;  // swap the file being written beside the slot, else the old /tmp staging name
  int expected;
};

class SlotWriteTest : public RootedTest, public ::testing::WithParamInterface<SwapCase> {};

TEST_P(SlotWriteTest, AFileSwappedMidDownloadNeverReachesTheSlotAndPlantedLinksAreNotFollowed) {
  const SwapCase& c = GetParam();
  // Real time: the stall must outlast the test's swap, not a fake-clock moment.
  RealClock realTime;
  std::optional<ScopedClock> useRealTime(std::in_place, realTime);
  FirmwareKit kit(*root);
  ASSERT_TRUE(kit.ready());
  root->write("/host/device.ini", "[device]\nfamily = lyra\n");
  root->write(kSystemIni, "[AutoProvision]\nstrServerURL = keep\n");
  root->write(kSlotFolder + "/firmware.bin", "running firmware");
  root->write(kSlotFolder + "/firmware.bin.new-5eed", "left by a power loss mid-write");
  ASSERT_EQ(symlink("../config/system/system.ini", root->host("/tmp/firmware.stage").c_str()), 0);
  ASSERT_EQ(symlink("../../config/system/system.ini", root->host(kSlotFolder + "/firmware.bin.new").c_str()), 0);
  std::string payload = testBytes(600000, 5);
  root->write("/scratch/image.rom", kit.image("lyra", payload));
  root->write("/scratch/forged", kForged);

  ServerProcess server;
  ASSERT_TRUE(server.start({"/usr/bin/python3", PROVISOR_SOURCE_DIR "/tests/firmware/stallServer.py",
                            root->host("/scratch/image.rom"), root->host("/scratch"), "300000"},
                           root->host("/scratch/server.log")));
  ASSERT_TRUE(pollFor([&] { return root->exists("/scratch/port"); }, 5000));
  std::string url = "http://127.0.0.1:" + root->read("/scratch/port") + "/fw.rom";
  auto result = std::async(std::launch::async, [&] { return firmware_Upgrade(firmwareStreams(), url.c_str(), 5000, true, false, false); });
  ASSERT_TRUE(pollFor([&] { return root->exists("/scratch/stalled"); }, 10000));

  std::string target = root->host("/tmp/firmware.stage");
  if (c.besideSlot) {
    // The file being written: neither the slot, nor the planted link, nor the leftover (which the
    // install removes once the header has passed).
    auto findWritten = [&] {
      target.clear();
      for (const std::string& name : entriesOf(root->host(kSlotFolder)))
        if (name != "firmware.bin" && name != "firmware.bin.new" && name != "firmware.bin.new-5eed")
          target = root->host(kSlotFolder + "/" + name);
      return !target.empty();
    };
    EXPECT_TRUE(pollFor(findWritten, 5000)) << "no file of the download beside the slot";
  }
  if (!target.empty()) {
    EXPECT_EQ(rename(root->host("/scratch/forged").c_str(), target.c_str()), 0);
  }
  root->write("/scratch/go", "");
  EXPECT_EQ(result.get(), c.expected);
  useRealTime.reset();

  EXPECT_TRUE(root->read(kSlotFolder + "/firmware.bin") == (c.expected == FW_OK ? payload : "running firmware"));
  EXPECT_TRUE(root->read(kSystemIni) == "[AutoProvision]\nstrServerURL = keep\n")
      << "system.ini was written through a link";
  EXPECT_TRUE(isLink(root->host(kSlotFolder + "/firmware.bin.new")));
  EXPECT_EQ(entriesOf(root->host(kSlotFolder)), (std::set<std::string>{"firmware.bin", "firmware.bin.new"}));
}

INSTANTIATE_TEST_SUITE_P(Swaps, SlotWriteTest,
                         ::testing::Values(SwapCase{"OldStagingName", false, FW_OK},
                                           SwapCase{"BesideTheSlot", true, FW_ERR_WRITE}),
                         [](const ::testing::TestParamInfo<SwapCase>& info) { return std::string(info.param.name); });

}  // namespace
