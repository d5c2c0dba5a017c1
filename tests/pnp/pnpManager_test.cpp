// The plug-and-play manager against a real SIP server (sipp) and against scripted ones, each test in
// a network of its own because the phone's port 5059 and the server's 5060 are fixed.
#include <chrono>
#include <set>
#include <sstream>

#include "pnpPeers.h"
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
  explicit Phone(const std::string& extraSettings = "") {
    root.write("/host/device.ini", "[device]\nmac=001565aabbcc\nip=127.0.0.1\nnetwork_state=2\n");
    root.write("/config/system/system.ini", "[AutoProvision]\nbEnablePNP=1\n" + extraSettings);
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

std::string headerOf(const std::string& message, const std::string& name) {
  sipMessage parsed;
  EXPECT_TRUE(parsed.Parse(message.data(), message.size())) << message;
  const std::string* value = parsed.Find(name);
  return value ? *value : "<none>";
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
