// The plug-and-play manager against scripted SIP servers, each test in a network of its own because
// the phone's port 5059 and the server's 5060 are fixed. A stand-in for the service thread records
// the URLs handed over. (The daemon's own run against sipp is a test of the service.)
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

#include "autopMessages.h"
#include "msgqueue.h"
#include "netPeers.h"
#include "ownNetwork.h"
#include "registry.h"
#include "servers.h"
#include "sipHelper.h"

using testing_support::LogCapture;
using testing_support::ScopedClock;
using testing_support::ScopedStatfs;

namespace {

constexpr const char* kGroup = "224.0.1.75";
constexpr const char* kUrl = "http://127.0.0.1:8080/cfg/";

// A UDP endpoint on the given port of every address, member of the plug-and-play group on loopback.
class GroupPeer {
 public:
  explicit GroupPeer(uint16_t port) : fd_(socket(AF_INET, SOCK_DGRAM, 0)) {
    sockaddr_in any = net_test::loopback(port);
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    EXPECT_EQ(0, bind(fd_, reinterpret_cast<sockaddr*>(&any), sizeof(any)));
    ip_mreq group{};
    group.imr_multiaddr.s_addr = inet_addr(kGroup);
    group.imr_interface.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(0, setsockopt(fd_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof(group)));
  }
  ~GroupPeer() { close(fd_); }
  // One datagram within timeoutMs of real time, the phone's SUBSCRIBEs passed over when they are
  // not asked for (its tries go on meanwhile); "" when none came.
  std::string receive(int timeoutMs = 5000, bool subscribes = true) {
    char buffer[65536];
    socklen_t length = sizeof(from_);
    ssize_t n = net_test::readable(fd_, timeoutMs)
                    ? recvfrom(fd_, buffer, sizeof(buffer), 0, reinterpret_cast<sockaddr*>(&from_), &length)
                    : 0;
    std::string datagram(buffer, n > 0 ? static_cast<size_t>(n) : 0);
    return subscribes || datagram.rfind("SUBSCRIBE ", 0) != 0 ? datagram : receive(timeoutMs, false);
  }
  // Sends to the sender of the last datagram received.
  void reply(const std::string& data) {
    sendto(fd_, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&from_), sizeof(from_));
  }

 private:
  int fd_;
  sockaddr_in from_{};
};

// A phone at 127.0.0.1 with plug-and-play on, its manager running and asked for a URL. The phone
// stands in for the service thread ("provisor") too and records the URLs handed over.
class Phone : public chThreadLocal {
 public:
  explicit Phone(const std::string& settings = "bEnablePNP=1\n") : chThreadLocal(kThreadProvisor) {
    root_.write("/host/device.ini", "[device]\nmac=001565aabbcc\nip=127.0.0.1\nnetwork_state=2\n");
    root_.write("/config/system/system.ini", "[AutoProvision]\n" + settings);
    root_.write("/phone/version", "[version]\nFIRMWARE_VERSION=2.80.0.1\nmodelName=VideoPhone\n");
    root_.write("/proc/hwversion", "1.2.3 extra\n");
    root_.write("/config/user/voip/sipAccount0.cfg", "[General]\nUserAgent=Phone $HW_VER $FW_VER $MAC\n");
    EXPECT_TRUE(Launch());
    loop_ = std::thread([this] { Run(); });
    EXPECT_TRUE(manager_.Start());
    EXPECT_TRUE(msgPostMsgToThreadEx(kThreadPnpManager, AP_MSG_PNP_REQUEST, 0, 0, 11, kGroup));
  }
  ~Phone() override {
    manager_.Stop();
    Quit(0);
    loop_.join();
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
  testing_support::TempRoot root_;
  PNPManger manager_;
  std::thread loop_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> urls_;
};

bool waitForLog(const LogCapture& log, const std::string& text) {
  return testing_support::pollFor([&] { return log.contains(text); }, 10000);
}

std::string notify(const std::string& callId, int cseq, const std::string& body, const std::string& more = "") {
  const std::string n = std::to_string(cseq);
  return "NOTIFY sip:MAC001565aabbcc@224.0.1.75 SIP/2.0\r\nv: SIP/2.0/UDP 127.0.0.1:5060;branch=z9hG4bK-n" + n +
         "\r\nVia: SIP/2.0/UDP 10.9.9.9;branch=z9hG4bK-proxy\r\nFrom: <sip:srv@127.0.0.1>;tag=s1\r\nTo: "
         "<sip:MAC001565aabbcc@224.0.1.75>\r\ni: " + callId + "\r\nCSeq: " + n + " NOTIFY\r\nEvent: ua-profile\r\n" +
         more + "l: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// The text from `after` up to the line end, replaced by `mark` in `text`; the text cut out.
std::string cutOut(std::string& text, const std::string& after, const std::string& mark) {
  size_t begin = text.find(after);
  if (begin == std::string::npos) return "";
  begin += after.size();
  size_t end = text.find_first_of(";\r", begin);
  std::string value = text.substr(begin, end - begin);
  text.replace(begin, end - begin, mark);
  return value;
}

}  // namespace

// The window for NOTIFYs closes 32 s after the last SUBSCRIBE: then nothing runs any more (the fake
// clock, which only moves for a thread's wait, stands still) and the port refuses a late NOTIFY.
TEST(PnpDiscovery, NoAnswerGivesFourFreshSubscribesThenThePortCloses) {
  RUN_IN_OWN_NETWORK();
  FakeClock clock;
  ScopedClock useFake(clock);
  LogCapture log;
  GroupPeer server(5060);
  Phone phone;
  ASSERT_TRUE(waitForLog(log, "Destory pnp socket"));
  EXPECT_TRUE(log.contains("No answer to the PNP request"));
  std::set<std::string> fresh;
  std::string callIds[4];
  for (std::string& callId : callIds) {
    std::string subscribe = server.receive(0);
    fresh.insert("branch " + cutOut(subscribe, "branch=z9hG4bK", "B"));
    fresh.insert("tag " + cutOut(subscribe, ";tag=", "T"));
    fresh.insert("call " + (callId = cutOut(subscribe, "Call-ID: ", "C")));
    EXPECT_EQ("SUBSCRIBE sip:MAC001565aabbcc@224.0.1.75 SIP/2.0\r\n"
              "Via: SIP/2.0/UDP 127.0.0.1:5059;branch=z9hG4bKB\r\n"
              "From: <sip:MAC001565aabbcc@224.0.1.75>;tag=T\r\n"
              "To: <sip:MAC001565aabbcc@224.0.1.75>\r\n"
              "Call-ID: C\r\nCSeq: 1 SUBSCRIBE\r\n"
              "Contact: <sip:MAC001565aabbcc@127.0.0.1:5059>\r\n"
              "Max-Forwards: 70\r\nUser-Agent: Phone 1.2.3 2.80.0.1 001565aabbcc\r\nExpires: 0\r\n"
              "Event: ua-profile;profile-type=\"device\";vendor=\"Valdrun\";model=\"DUNA-PH\";version=\"2.80.0.1\"\r\n"
              "Accept: application/url\r\nContent-Length: 0\r\n\r\n",
              subscribe);
  }
  EXPECT_EQ("", server.receive(0)) << "a fifth SUBSCRIBE";
  EXPECT_EQ(12u, fresh.size()) << "a branch, tag or Call-ID used twice";

  const uint64_t closedAt = clock.elapsedMs();
  server.reply(notify(callIds[3], 1, kUrl));
  EXPECT_EQ("", server.receive(300, false)) << "a NOTIFY after the window was answered";
  EXPECT_EQ(closedAt, clock.elapsedMs()) << "a timer still runs";
  EXPECT_TRUE(phone.urls().empty());
}

// Only a NOTIFY with a fetchable URL is taken; bad ones are refused with 400, a retransmission of
// the one taken is answered alike, and a NOTIFY after it is of no subscription.
TEST(PnpDiscovery, OneFetchableUrlTakenOnceAmongBadNotifiesAndRetransmissions) {
  RUN_IN_OWN_NETWORK();
  GroupPeer server(5060);
  Phone phone;
  ASSERT_NE("", server.receive());
  std::string cutShort = notify("a@b", 1, kUrl);
  cutShort.pop_back();
  const std::string url = "http://127.0.0.1/" + std::string(338, 'x');
  const std::string good =
      notify("out-of-dialog@10.9.9.9", 42, "\r\n\t" + url + "\r\n", "Record-Route: <sip:10.9.9.9;lr>\r\n");
  const std::string burst[] = {
      cutShort,
      "NOTIFY sip:x SIP/2.0\r\nVia: SIP/2.0/UDP 1.2.3.4\r\n\r\n",
      notify("a@b", 2, ""),
      notify("a@b", 3, "file:///config/system/system.ini"),
      notify("a@b", 4, "/config/system/system.ini"),
      notify("a@b", 5, "http://127.0.0.1/\x01" "cfg"),
      notify("a@b", 6, "http://127.0.0.1/a http://127.0.0.1/b"),
      notify("a@b", 7, url + "x"),
      notify("a@b", 8, "ftp://"),
      good,
  };
  // All in one burst, read at one tick of the port monitor, the good one last.
  for (const std::string& datagram : burst) server.reply(datagram);
  for (size_t i = 0; i + 1 < std::size(burst); ++i)
    EXPECT_EQ(0u, server.receive(5000, false).rfind("SIP/2.0 400 Bad Request\r\n", 0)) << burst[i];
  const std::string first = server.receive(5000, false);
  server.reply(good);
  EXPECT_EQ(first, server.receive(5000, false));
  server.reply(notify("a@b", 9, kUrl));
  EXPECT_EQ(0u, server.receive(5000, false).rfind("SIP/2.0 481 ", 0));
  EXPECT_EQ(std::vector<std::string>{url}, phone.urls(1));

  std::string answer = first;
  EXPECT_NE("", cutOut(answer, "224.0.1.75>;tag=", "T")) << "no To tag added";
  EXPECT_EQ("SIP/2.0 200 OK\r\nVia: SIP/2.0/UDP 127.0.0.1:5060;branch=z9hG4bK-n42\r\n"
            "Via: SIP/2.0/UDP 10.9.9.9;branch=z9hG4bK-proxy\r\nRecord-Route: <sip:10.9.9.9;lr>\r\n"
            "From: <sip:srv@127.0.0.1>;tag=s1\r\nTo: <sip:MAC001565aabbcc@224.0.1.75>;tag=T\r\n"
            "Call-ID: out-of-dialog@10.9.9.9\r\nCSeq: 42 NOTIFY\r\nContent-Length: 0\r\n\r\n",
            answer);
}

TEST(PnpDiscovery, PlugAndPlayOffSendsNothing) {
  RUN_IN_OWN_NETWORK();
  LogCapture log;
  GroupPeer server(5060);
  Phone phone("bEnablePNP=0\n");
  ASSERT_TRUE(waitForLog(log, "PNP Socket invalid,EnablePnp=0,PnpPort=5059,socket=-1"));
  EXPECT_EQ("", server.receive(0));
}
