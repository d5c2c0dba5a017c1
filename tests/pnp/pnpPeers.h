// Peers of the plug-and-play tests: a private network per test (the phone's ports are fixed), a
// stand-in for the service thread that records the URLs handed over, and a SIP server endpoint
// that has joined the multicast group on loopback.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "autopMessages.h"
#include "msgqueue.h"
#include "testRoot.h"

namespace pnp_test {

constexpr const char* kNetnsMark = "PNP_TEST_IN_NETNS";
constexpr const char* kGroup = "224.0.1.75";

// Runs the current test again in a new network namespace with loopback up and the multicast
// range routed over it; the outer run only reports the inner one's result.
inline void rerunInOwnNetwork() {
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  char exe[PATH_MAX] = "";
  ssize_t n = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
  ASSERT_GT(n, 0);
  exe[n] = '\0';
  std::string command = std::string(kNetnsMark) +
                        "=1 unshare -n sh -c 'ip link set lo up && ip route add 224.0.0.0/4 dev lo && "
                        "exec \"$0\" --gtest_filter=\"$1\"' '" + exe + "' '" + info->test_suite_name() + "." +
                        info->name() + "'";
  std::string output;
  EXPECT_EQ(0, testing_support::runCommand(command, &output)) << output;
  EXPECT_NE(std::string::npos, output.find("[  PASSED  ] 1 test")) << output;
}

#define PNP_RUN_IN_OWN_NETWORK()                                          \
  if (!getenv(pnp_test::kNetnsMark)) {                                    \
    if (geteuid() != 0) GTEST_SKIP() << "a network namespace needs root"; \
    pnp_test::rerunInOwnNetwork();                                        \
    return;                                                               \
  }

// The "provisor" thread as far as plug-and-play is concerned.
class ProvisorStandIn : public chThreadLocal {
 public:
  ProvisorStandIn() : chThreadLocal(kThreadProvisor) {
    EXPECT_TRUE(Launch());
    thread_ = std::thread([this] { Run(); });
  }
  ~ProvisorStandIn() override {
    Quit(0);
    thread_.join();
  }
  bool TryThreadMessage(msgObject& msg) override {
    if (msg.message != MSG_RESPOND_URL) return false;
    std::lock_guard<std::mutex> lock(mutex_);
    const char* text = static_cast<const char*>(msg.GetExtraData());
    urls_.push_back(text && msg.GetExtraSize() && !text[msg.GetExtraSize() - 1] ? text : "<not a zero-ended text>");
    changed_.notify_all();
    return true;
  }
  // The URLs handed over so far, once `minimum` came or 10 s of real time passed.
  std::vector<std::string> urls(size_t minimum = 0) {
    // A synchronous message to each thread is answered only after what was queued before it.
    msgSendMsgToThreadTimeoutEx(kThreadPnpManager, 0x7fff0001, 0, 0, 0, nullptr, 5000);
    msgSendMsgToThreadTimeoutEx(kThreadProvisor, 0x7fff0001, 0, 0, 0, nullptr, 5000);
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(10), [&] { return urls_.size() >= minimum; });
    return urls_;
  }

 private:
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> urls_;
};

// A UDP endpoint on the given port of every address, member of the plug-and-play group.
class GroupPeer {
 public:
  explicit GroupPeer(uint16_t port) {
    fd_ = socket(AF_INET, SOCK_DGRAM, 0);
    int one = 1;
    setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(port);
    EXPECT_EQ(0, bind(fd_, reinterpret_cast<sockaddr*>(&any), sizeof(any)));
    ip_mreq group{};
    group.imr_multiaddr.s_addr = inet_addr(kGroup);
    group.imr_interface.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(0, setsockopt(fd_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof(group)));
  }
  ~GroupPeer() { close(fd_); }
  GroupPeer(const GroupPeer&) = delete;
  GroupPeer& operator=(const GroupPeer&) = delete;

  // One datagram within timeoutMs of real time; "" when none came.
  std::string receive(int timeoutMs = 5000) {
    pollfd pfd{fd_, POLLIN, 0};
    if (poll(&pfd, 1, timeoutMs) <= 0) return "";
    char buffer[65536];
    socklen_t length = sizeof(from_);
    ssize_t n = recvfrom(fd_, buffer, sizeof(buffer), 0, reinterpret_cast<sockaddr*>(&from_), &length);
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "";
  }
  // Sends to the sender of the last datagram received.
  void reply(const std::string& data) {
    sendto(fd_, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&from_), sizeof(from_));
  }
  uint16_t lastSenderPort() const { return ntohs(from_.sin_port); }

 private:
  int fd_ = -1;
  sockaddr_in from_{};
};

}  // namespace pnp_test
