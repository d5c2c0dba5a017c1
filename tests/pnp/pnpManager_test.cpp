// The plug-and-play manager against a real SIP server (sipp) and against scripted ones, each test in
// a network of its own because the phone's port 5059 and the server's 5060 are fixed.
#include <chrono>
#include <set>
#include <sstream>

#include "pnpPeers.h"
#include "registry.h"
#include "servers.h"
#include "sipHelper.h"
#include "sipMessage.h"

using namespace pnp_test;
using testing_support::LogCapture;

namespace {

constexpr const char* kUrl = "http://127.0.0.1:8080/cfg/";

bool waitForLog(const LogCapture& log, const std::string& text, int timeoutMs = 10000) {
  for (int waited = 0; waited < timeoutMs; waited += 10) {
    if (log.contains(text)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

std::string notify(const std::string& callId, int cseq, const std::string& body, const std::string& more = "") {
  std::ostringstream out;
  out << "NOTIFY sip:MAC001565aabbcc@224.0.1.75 SIP/2.0\r\nv: SIP/2.0/UDP 127.0.0.1:5060;branch=z9hG4bK-n" << cseq
      << "\r\nVia: SIP/2.0/UDP 10.9.9.9;branch=z9hG4bK-proxy\r\nFrom: <sip:srv@127.0.0.1>;tag=s1\r\n"
      << "To: <sip:MAC001565aabbcc@224.0.1.75>\r\ni: " << callId << "\r\nCSeq: " << cseq
      << " NOTIFY\r\nEvent: ua-profile\r\n" << more << "l: " << body.size() << "\r\n\r\n" << body;
  return out.str();
}

// A phone at 127.0.0.1 with plug-and-play on, its manager running beside a service stand-in.
struct Phone {
  explicit Phone(const std::string& settings = "bEnablePNP=1\n") {
    root.write("/host/device.ini", "[device]\nmac=001565aabbcc\nip=127.0.0.1\nnetwork_state=2\n");
    root.write("/config/system/system.ini", "[AutoProvision]\n" + settings);
    root.write("/phone/version", "[version]\nFIRMWARE_VERSION=2.80.0.1\nmodelName=VideoPhone\n");
    root.write("/proc/hwversion", "1.2.3 extra\n");
    root.write("/config/user/voip/sipAccount0.cfg", "[General]\nUserAgent=Phone $HW_VER $FW_VER $MAC\n");
    EXPECT_TRUE(manager.Start());
  }
  void request() {
    EXPECT_TRUE(msgPostMsgToThreadEx(kThreadPnpManager, AP_MSG_PNP_REQUEST, 0, 0, 11, kGroup));
  }
  testing_support::TempRoot root;
  ProvisorStandIn provisor;
  PNPManger manager;
};

bool udpPortTaken(uint16_t port) {
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in any{};
  any.sin_family = AF_INET;
  any.sin_port = htons(port);
  bool taken = bind(fd, reinterpret_cast<sockaddr*>(&any), sizeof(any)) != 0;
  close(fd);
  return taken;
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

// The next datagram that is not one of the phone's SUBSCRIBEs (its tries go on meanwhile).
std::string nextAnswer(GroupPeer& server, int timeoutMs = 5000) {
  std::string datagram;
  while ((datagram = server.receive(timeoutMs)).rfind("SUBSCRIBE ", 0) == 0) {
  }
  return datagram;
}

sipMessage parsed(const std::string& text) {
  sipMessage message;
  EXPECT_TRUE(message.Parse(text.data(), text.size())) << text;
  return message;
}

}  // namespace

TEST(PnpDiscovery, SippServerAnswersAndItsUrlReachesTheService) {
  PNP_RUN_IN_OWN_NETWORK();
  testing_support::ScratchDir dir("pnp-sipp");
  // The server checks what the phone sends: the profile event of this device, the phone's AOR.
  dir.write("server.xml", R"(<?xml version="1.0" encoding="ISO-8859-1" ?>
<scenario name="provisioning server">
  <recv request="SUBSCRIBE">
    <action>
      <ereg regexp="^ *ua-profile;profile-type=&quot;device&quot;;vendor=&quot;Valdrun&quot;;model=&quot;DUNA-PH&quot;;version=&quot;2.80.0.1&quot;$" search_in="hdr" header="Event:" check_it="true" assign_to="event"/>
      <ereg regexp="^ *Phone 1.2.3 2.80.0.1 001565aabbcc$" search_in="hdr" header="User-Agent:" check_it="true" assign_to="agent"/>
      <ereg regexp=".*" search_in="hdr" header="From:" check_it="true" assign_to="phone"/>
    </action>
  </recv>
  <send><![CDATA[
SIP/2.0 200 OK
[last_Via:]
[last_From:]
[last_To:];tag=srv[call_number]
[last_Call-ID:]
[last_CSeq:]
Expires: 0
Content-Length: 0

]]></send>
  <send><![CDATA[
NOTIFY sip:MAC001565aabbcc@127.0.0.1:5059 SIP/2.0
Via: SIP/2.0/UDP 127.0.0.1:5060;branch=[branch]
From: <sip:provisioning@127.0.0.1>;tag=srv[call_number]
To: [$phone]
Call-ID: [call_id]
CSeq: 7 NOTIFY
Max-Forwards: 70
Event: ua-profile
Subscription-State: terminated
Content-Type: application/url
Content-Length: [len]

http://127.0.0.1:8080/cfg/
]]></send>
  <recv response="200"/>
  <Reference variables="event,agent"/>
</scenario>
)");
  GroupPeer membership(0);  // the group is joined on loopback; sipp listens on every address
  int status = -1;
  std::string output;
  std::thread server([&] {
    status = testing_support::runCommand("sipp -sf '" + dir.file("server.xml") +
                                             "' -i 0.0.0.0 -p 5060 -m 1 -nostdin -timeout 20s -timeout_error "
                                             "-trace_err -error_file '" + dir.file("errors.log") + "' </dev/null",
                                         &output);
  });
  for (int i = 0; i < 1000 && !udpPortTaken(5060); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  Phone phone;
  phone.request();
  EXPECT_EQ(std::vector<std::string>{kUrl}, phone.provisor.urls(1));
  server.join();
  // sipp ends with 0 only when every check held and the phone's 200 answered its NOTIFY.
  EXPECT_EQ(0, status) << output;
}

TEST(PnpDiscovery, NoAnswerGivesFourFreshSubscribesAndLateNotifiesAreDropped) {
  PNP_RUN_IN_OWN_NETWORK();
  FakeClock clock;
  Clock* previous = setClock(&clock);
  {
    LogCapture log;
    GroupPeer server(5060);
    Phone phone;
    phone.request();
    ASSERT_TRUE(waitForLog(log, "No answer to the PNP request"));
    std::set<std::string> branches, tags, callIds;
    std::string firstCallId, lastCallId;
    for (int i = 0; i < 4; ++i) {
      std::string subscribe = server.receive(0);
      branches.insert(cutOut(subscribe, "branch=z9hG4bK", "B"));
      tags.insert(cutOut(subscribe, ";tag=", "T"));
      lastCallId = cutOut(subscribe, "Call-ID: ", "C");
      if (i == 0) firstCallId = lastCallId;
      callIds.insert(lastCallId);
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
    EXPECT_EQ(4u, branches.size());
    EXPECT_EQ(4u, tags.size());
    EXPECT_EQ(4u, callIds.size());
    EXPECT_EQ(lastCallId.substr(lastCallId.find('@')), "@127.0.0.1");

    server.reply(notify(lastCallId, 1, kUrl));
    ASSERT_TRUE(waitForLog(log, "No PNP request outstanding, NOTIFY dropped"));
    // Inside the dialog only: the first try's Call-ID is no longer the phone's.
    ASSERT_TRUE(brisaSetProfileInt("/config/system/system.ini", "AutoProvision", "PNPOutDialogMSGEnable", 0));
    server.reply(notify(firstCallId, 2, kUrl));
    EXPECT_TRUE(waitForLog(log, "Call-ID is not same as SubScribe!Do not Autop!"));
    EXPECT_TRUE(phone.provisor.urls().empty());
    EXPECT_EQ("", server.receive(0)) << "a dropped NOTIFY was answered";
  }
  setClock(previous);
}

TEST(PnpDiscovery, RetransmittedNotifyIsAnsweredAgainButHandsOverNoSecondUrl) {
  PNP_RUN_IN_OWN_NETWORK();
  GroupPeer server(5060);
  Phone phone;
  phone.request();
  ASSERT_NE("", server.receive());
  const std::string request = notify("out-of-dialog@10.9.9.9", 42, kUrl, "Record-Route: <sip:10.9.9.9;lr>\r\n");
  server.reply(request);
  const std::string first = nextAnswer(server);
  server.reply(request);
  EXPECT_EQ(first, nextAnswer(server));
  sipMessage answer = parsed(first);
  EXPECT_EQ(200, answer.statusCode());
  EXPECT_EQ((std::vector<std::string>{"SIP/2.0/UDP 127.0.0.1:5060;branch=z9hG4bK-n42",
                                      "SIP/2.0/UDP 10.9.9.9;branch=z9hG4bK-proxy"}),
            answer.FindAll("Via"));
  EXPECT_EQ("<sip:10.9.9.9;lr>", *answer.Find("Record-Route"));
  EXPECT_EQ("<sip:srv@127.0.0.1>;tag=s1", *answer.Find("From"));
  EXPECT_EQ(0u, answer.Find("To")->find("<sip:MAC001565aabbcc@224.0.1.75>;tag="));
  EXPECT_EQ("42 NOTIFY", *answer.Find("CSeq"));
  EXPECT_EQ("out-of-dialog@10.9.9.9", answer.callId());
  EXPECT_EQ(std::vector<std::string>{kUrl}, phone.provisor.urls(1));
}

TEST(PnpDiscovery, NotifiesWithoutAFetchableUrlAreDroppedAndAGoodOneIsStillTaken) {
  PNP_RUN_IN_OWN_NETWORK();
  LogCapture log;
  GroupPeer server(5060);
  Phone phone;
  phone.request();
  ASSERT_NE("", server.receive());
  std::string cutShort = notify("a@b", 1, kUrl);
  cutShort.resize(cutShort.size() - 1);
  const std::string bad[] = {
      cutShort,
      "NOTIFY sip:x SIP/2.0\r\nVia: SIP/2.0/UDP 1.2.3.4\r\n\r\n",
      notify("a@b", 2, ""),
      notify("a@b", 3, "file:///config/system/system.ini"),
      notify("a@b", 4, "http://127.0.0.1/\x01" "cfg"),
      notify("a@b", 5, "http://127.0.0.1/a http://127.0.0.1/b"),
      notify("a@b", 6, "http://127.0.0.1/" + std::string(339, 'x')),
      notify("a@b", 7, "ftp://"),
  };
  // All in one burst, read at one tick of the port monitor, the good one last.
  for (const std::string& datagram : bad) server.reply(datagram);
  server.reply(notify("a@b", 8, "\r\n\thttp://127.0.0.1/" + std::string(338, 'x') + "\r\n"));
  EXPECT_EQ(std::vector<std::string>{"http://127.0.0.1/" + std::string(338, 'x')}, phone.provisor.urls(1));
  EXPECT_EQ("8 NOTIFY", *parsed(nextAnswer(server)).Find("CSeq"));
  EXPECT_EQ("", nextAnswer(server, 0)) << "a dropped NOTIFY was answered";
  const std::string text = log.text();
  size_t malformed = 0, notUrl = 0;
  for (size_t at = 0; (at = text.find("Drop malformed SIP message", at)) != std::string::npos; ++at) ++malformed;
  for (size_t at = 0; (at = text.find("is not a provisioning URL", at)) != std::string::npos; ++at) ++notUrl;
  EXPECT_EQ(2u, malformed);
  EXPECT_EQ(6u, notUrl);
}

TEST(PnpDiscovery, PlugAndPlayOffSendsNothing) {
  PNP_RUN_IN_OWN_NETWORK();
  LogCapture log;
  GroupPeer server(5060);
  Phone phone("bEnablePNP=0\n");
  phone.request();
  ASSERT_TRUE(waitForLog(log, "PNP Socket invalid,EnablePnp=0,PnpPort=5059,socket=-1"));
  EXPECT_TRUE(log.contains("No need PNP Monitor. Reason: PNP CLOSED"));
  EXPECT_EQ("", server.receive(0));
}
