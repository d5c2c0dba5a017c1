// Every seed input of every fuzz target, run as an ordinary test: each must pass without a crash
// or a failed property.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzzTargets.h"
#include "testRoot.h"

TEST(FuzzSeeds, EveryTargetSurvivesItsSeeds) {
  testing_support::TempRoot root;
  for (const FuzzTarget* target = kFuzzTargets; target->name; ++target) {
    size_t seeds = 0;
    std::error_code missing;  // a target without a seed directory has no seeds
    for (const auto& seed : std::filesystem::directory_iterator(
             std::string(PROVISOR_SOURCE_DIR) + "/fuzz/seeds/" + target->name, missing)) {
      SCOPED_TRACE(seed.path());
      std::ifstream in(seed.path(), std::ios::binary);
      const std::string data{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
      target->run(reinterpret_cast<const uint8_t*>(data.data()), data.size());
      ++seeds;
    }
    EXPECT_GT(seeds, 0u) << target->name << " has no seeds";
  }
}
