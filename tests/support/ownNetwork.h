// Runs the current test again in a new network namespace with loopback up and the multicast range
// routed over it, for tests that need the phone's fixed SIP ports (5059, and 5060 on the server's
// side) or multicast: parallel runs would collide on the host's loopback. The outer run only reports
// the inner one's result; everything the inner run starts (servers, the daemon) stays in there.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "launcher.h"
#include "testRoot.h"

namespace testing_support {

constexpr const char* kOwnNetworkMark = "PROVISOR_TEST_IN_NETNS";
constexpr const char* kOwnNetworkWrapper =
    "PROVISOR_TEST_IN_NETNS=1 unshare -n sh -c 'ip link set lo up && ip route add 224.0.0.0/4 dev lo && "
    "exec \"$@\"' sh";

// Runs the current test again as the command `wrapper` followed by this test binary; the inner run's
// result is this one's.
inline void rerunSelfUnder(const std::string& wrapper) {
  const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string output;
  EXPECT_EQ(0, runCommand(wrapper + " " + selfCommand() + " '--gtest_filter=" + test->test_suite_name() + "." +
                              test->name() + "'",
                          &output))
      << output;
  EXPECT_NE(std::string::npos, output.find("[  PASSED  ] 1 test")) << output;
}

// The plug-and-play server that sipp plays (data/sipp/pnp-server.xml), sending `url` to the phone
// whose MAC text is `mac`.
inline std::string pnpServerScenario(const std::string& mac, const std::string& url) {
  std::string scenario = readHostFile(std::string(PROVISOR_SOURCE_DIR) + "/data/sipp/pnp-server.xml");
  for (const auto& [mark, value] : {std::pair<std::string, std::string>{"@MAC@", mac}, {"@URL@", url}})
    for (size_t at; (at = scenario.find(mark)) != std::string::npos;) scenario.replace(at, mark.size(), value);
  return scenario;
}

}  // namespace testing_support

#define RUN_IN_OWN_NETWORK()                                                     \
  if (!getenv(testing_support::kOwnNetworkMark)) {                               \
    if (geteuid() != 0) GTEST_SKIP() << "a network namespace needs root";        \
    return testing_support::rerunSelfUnder(testing_support::kOwnNetworkWrapper); \
  }
