// Every seed input of every fuzz target, run as an ordinary test: each must pass without a crash
// or a failed property.
#include <dirent.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <vector>

#include "fuzzTargets.h"
#include "testRoot.h"

namespace {

std::vector<std::string> seedFiles(const std::string& target) {
  std::vector<std::string> files;
  std::string dir = std::string(PROVISOR_SOURCE_DIR) + "/fuzz/seeds/" + target;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* entry = readdir(d))
      if (entry->d_name[0] != '.') files.push_back(dir + "/" + entry->d_name);
    closedir(d);
  }
  return files;
}

}  // namespace

TEST(FuzzSeeds, EveryTargetSurvivesItsSeeds) {
  testing_support::TempRoot root;
  for (const FuzzTarget* target = kFuzzTargets; target->name; ++target) {
    std::vector<std::string> seeds = seedFiles(target->name);
    EXPECT_FALSE(seeds.empty()) << target->name << " has no seeds";
    for (const std::string& seed : seeds) {
      SCOPED_TRACE(seed);
      std::ifstream in(seed, std::ios::binary);
      std::stringstream bytes;
      bytes << in.rdbuf();
      std::string data = bytes.str();
      target->run(reinterpret_cast<const uint8_t*>(data.data()), data.size());
    }
  }
}
