// The daemon in normal mode with plug-and-play on, in a network of its own: sipp plays the
// provisioning server on port 5060, takes the multicast SUBSCRIBE, answers 200 and sends a NOTIFY
// whose body is the URL of an nginx directory; the daemon provisions from it and tells the
// discovery thread it is done.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "daemon.h"
#include "ownNetwork.h"
#include "servicePeers.h"

using namespace testing_support;
using namespace service_test;

namespace {

// sipp listens on every address; the group must be joined on loopback for the kernel to deliver
// the phone's multicast SUBSCRIBE to it.
class GroupMembership {
 public:
  GroupMembership() : fd_(socket(AF_INET, SOCK_DGRAM, 0)) {
    ip_mreq group{};
    group.imr_multiaddr.s_addr = inet_addr("224.0.1.75");
    group.imr_interface.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(0, setsockopt(fd_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof(group)));
  }
  ~GroupMembership() { close(fd_); }

 private:
  int fd_;
};

TEST(DaemonPnpRun, SippAnswerIsProvisionedAndTheManagerToldItIsDone) {
  RUN_IN_OWN_NETWORK();
  TempRoot root;
  HttpServer http;
  ASSERT_TRUE(http.start());
  http.put("pnp/common.cfg", markerFile("plug-and-play"));
  const std::string url = "http://127.0.0.1:" + std::to_string(http.port()) + "/pnp/";
  root.write("/phone/resource/autopTranslator.xml", kTable);
  root.write("/host/device.ini", "[device]\nmac = 001565aabbcc\nip = 127.0.0.1\nnetwork_state = 2\n");
  root.write("/config/system/system.ini",
             "[AutoProvision]\nstrCommName = common.cfg\nbEnablePNP = 1\nbEnablePoweron = 0\n");

  ScratchDir peers("pnp-run");
  peers.write("server.xml", pnpServerScenario("001565aabbcc", url));
  ServerProcess phone;
  ASSERT_TRUE(listen(phone, "app_vpPhone", peers.file("phone.log"), 1));
  GroupMembership membership;
  int sippStatus = -1;
  std::string sippOutput;
  std::thread server([&] {
    sippStatus = runCommand("sipp -sf '" + peers.file("server.xml") +
                                "' -i 0.0.0.0 -p 5060 -m 1 -nostdin -timeout 30s -timeout_error -trace_err "
                                "-error_file '" +
                                peers.file("errors.log") + "' </dev/null",
                            &sippOutput);
  });
  for (int i = 0; i < 1000 && runCommand("ss -Hlun 'sport = :5060' | grep -q .") != 0; ++i) usleep(10000);

  DaemonProcess daemon(root.path(), {});
  // The discovery thread logs the receipt of AP_MSG_PNP_DONE, which only the URL answer posts.
  const bool doneSeen = daemon.waitForLog("Provisor has done the PNP upgrade", 30000);
  server.join();
  EXPECT_EQ(daemon.stop(SIGTERM), 0);
  EXPECT_TRUE(doneSeen) << daemon.log();
  ASSERT_TRUE(root.exists("/config/user/marker.ini"));
  EXPECT_TRUE(contains(root.read("/config/user/marker.ini"), "From=plug-and-play"));
  // sipp ends with 0 only when the phone's 200 answered its NOTIFY.
  EXPECT_EQ(0, sippStatus) << sippOutput;
}

}  // namespace
