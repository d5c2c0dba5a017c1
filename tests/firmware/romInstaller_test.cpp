// ROM installers against real servers on loopback: the lyra hand-over (call check, recorded kills,
// flashing, the hand-over sleep on the fake clock), a refusing server, the duna header check, and a cut HTTP
// transfer resumed with a Range request (and fetched again from its start when the server answers
// with another part).
#include <gtest/gtest.h>

#include <thread>

#include "actions.h"
#include "device.h"
#include "firmware.h"
#include "firmwareImages.h"
#include "firmwareSource.h"
#include "msgqueue.h"
#include "netPeers.h"
#include "romInstaller.h"

using namespace testing_support;

namespace {

// The phone application: answers each ROM upgrade request with the next value of a script.
class PhoneStandIn : public chThreadLocal {
 public:
  explicit PhoneStandIn(std::vector<int32_t> answers) : chThreadLocal("app_vpPhone"), answers_(std::move(answers)) {
    EXPECT_TRUE(Launch());
    runner_ = std::thread([this] { Run(); });
  }
  ~PhoneStandIn() override {
    Quit(0);
    runner_.join();
  }
  bool TryThreadMessage(msgObject& msg) override {
    msg.ReplyMessage(answers_[std::min(asked_++, answers_.size() - 1)]);
    return true;
  }

 private:
  std::vector<int32_t> answers_;
  size_t asked_ = 0;  // only its own thread counts
  std::thread runner_;
};

class RomInstallerTest : public RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    kit = std::make_unique<FirmwareKit>(*root);
    ASSERT_TRUE(kit->ready());
  }
  void useFamily(const std::string& family) { root->write(kHostDeviceIni, "[device]\nfamily = " + family + "\n"); }
  void addProcess(int pid, const std::string& cmdline, const std::string& kernelName) {
    root->write("/proc/" + std::to_string(pid) + "/cmdline", cmdline);
    root->write("/proc/" + std::to_string(pid) + "/stat", std::to_string(pid) + " (" + kernelName + ") S 1");
  }
  std::unique_ptr<FirmwareKit> kit;
};

}  // namespace

TEST_F(RomInstallerTest, LyraWaitsOutTheCallStopsTheListedProcessesAndHandsOverToTheFlasher) {
  useFamily("lyra");
  std::string payload = testBytes(300000, 7);
  HttpServer http;
  START_PEER(http);
  http.put("fw/lyra.rom", kit->image("lyra", payload));
  addProcess(4100, std::string("/bin/sh\0/etc/init.d/GuiApp.sh", 29), "sh");  // application: killed
  addProcess(4200, "/sbin/syslogd", "syslogd");                               // kept
  addProcess(4300, "dsp_daemon", "dsp_daemon");                               // neither: killed twice
  PhoneStandIn phone({0, 1});                                                 // in a call at first

  auto installer = createRomInstallerFor("lyra");
  std::string url = "http://127.0.0.1:" + std::to_string(http.port()) + "/fw/lyra.rom";
  EXPECT_EQ(installer->install(url.c_str()), 1);

  EXPECT_EQ(root->read(kHostActionsLog),
            "kill 4100 GuiApp.sh 9\nkill 4100 GuiApp.sh 15\n"
            "kill 4300 dsp_daemon 9\nkill 4300 dsp_daemon 15\nkill 4300 dsp_daemon 9\nkill 4300 dsp_daemon 15\n");
  EXPECT_TRUE(root->read(kFirmwareSlotPath) == payload);
  // 5 s after the refusal, 3 s before the kills, 3 s for the server, then the 60-hour hand-over.
  EXPECT_EQ(fakeClock.elapsedMs(), 5000u + 3000u + 3000u + 216000000ull);
}

TEST_F(RomInstallerTest, ARefusingServerGetsFiveAttemptsAndDunaChecksTheHeaderBeforeSafeMode) {
  LogCapture log;
  std::string refusing = "http://127.0.0.1:" + std::to_string(freePort()) + "/fw.rom";
  EXPECT_EQ(createRomInstallerFor("lyra")->install(refusing.c_str()), 0);
  for (int attempt = 1; attempt <= 6; ++attempt)
    EXPECT_EQ(log.contains("Can't connect to server!retry " + std::to_string(attempt)), attempt <= 5) << attempt;

  useFamily("duna");
  TftpServer tftp;
  START_PEER(tftp);
  tftp.put("duna.rom", kit->image("duna", testBytes(5000, 3)));
  tftp.put("lyra.rom", kit->image("lyra", testBytes(5000, 3)));
  std::string base = "tftp://127.0.0.1:" + std::to_string(tftp.port()) + "/";
  EXPECT_EQ(createRomInstaller()->install((base + "lyra.rom").c_str()), 0);
  EXPECT_TRUE(log.contains("Invalid rom header! status description = image for another device family"));
  EXPECT_FALSE(root->exists(kHostBootEnv) || root->exists(kFirmwareSlotPath));

  EXPECT_EQ(createRomInstaller()->install((base + "duna.rom").c_str()), 1);
  EXPECT_EQ(userenv_get("BOOTMODE"), "safemode");
  EXPECT_EQ(userenv_get("strUpgradeURL"), base + "duna.rom");
  EXPECT_EQ(createRomInstallerFor("none"), nullptr);
}

TEST_F(RomInstallerTest, ACutHttpTransferResumesWithARangeRequest) {
  useFamily("lyra");
  std::string payload = testBytes(200000, 11);
  std::string image = kit->image("lyra", payload);
  net_test::TcpPeer server;
  std::string resumed;  // the second request
  const size_t half = image.size() / 2;
  std::thread peer([&] {
    int first = server.accept();
    net_test::readRequest(first);
    net_test::sendText(first, "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(image.size()) + "\r\n\r\n" +
                                  image.substr(0, half));
    close(first);
    int second = server.accept();
    resumed = net_test::readRequest(second);
    net_test::sendText(second, "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes " + std::to_string(half) + "-" +
                                   std::to_string(image.size() - 1) + "/" + std::to_string(image.size()) + "\r\n\r\n" +
                                   image.substr(half));
    close(second);
  });
  std::string url = "http://127.0.0.1:" + std::to_string(server.port()) + "/fw.rom";
  EXPECT_EQ(firmware_Upgrade(firmwareStreams(), url.c_str(), 5000, true, false, true), FW_OK);
  peer.join();
  EXPECT_NE(resumed.find("\r\nRange: bytes=" + std::to_string(half) + "-\r\n"), std::string::npos) << resumed;
  EXPECT_TRUE(root->read(kFirmwareSlotPath) == payload);
}

// A resumed transfer answered with another part than the one asked for (206 from offset 0 again) is
// not spliced into the image: the image is fetched from its start and what was read is skipped.
TEST_F(RomInstallerTest, APartialAnswerForAnotherRangeIsRetriedFromTheStart) {
  useFamily("lyra");
  std::string payload = testBytes(200000, 12);
  std::string image = kit->image("lyra", payload);
  net_test::TcpPeer server;
  std::vector<std::string> requests;
  const size_t half = image.size() / 2;
  std::thread peer([&] {
    int first = server.accept();
    requests.push_back(net_test::readRequest(first));
    net_test::sendText(first, "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(image.size()) + "\r\n\r\n" +
                                  image.substr(0, half));
    close(first);
    int second = server.accept();
    requests.push_back(net_test::readRequest(second));
    net_test::sendText(second, "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 0-" +
                                   std::to_string(image.size() - 1) + "/" + std::to_string(image.size()) +
                                   "\r\nContent-Length: " + std::to_string(image.size()) + "\r\n\r\n" + image);
    close(second);
    int third = server.accept(3000);
    if (third < 0) return;
    requests.push_back(net_test::readRequest(third));
    net_test::sendText(third,
                       "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(image.size()) + "\r\n\r\n" + image);
    close(third);
  });
  std::string url = "http://127.0.0.1:" + std::to_string(server.port()) + "/fw.rom";
  EXPECT_EQ(firmware_GetStatusName(firmware_Upgrade(firmwareStreams(), url.c_str(), 5000, true, false, true)), std::string("ok"));
  peer.join();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_NE(requests[1].find("\r\nRange: bytes=" + std::to_string(half) + "-\r\n"), std::string::npos) << requests[1];
  EXPECT_EQ(requests[2].find("Range:"), std::string::npos) << requests[2];
  EXPECT_TRUE(root->read(kFirmwareSlotPath) == payload);
}

// A close-delimited 200 (no Content-Length) cut short looks complete to HTTP; the signed length
// tells otherwise, so the rest is asked for with a Range request.
TEST_F(RomInstallerTest, AShortAnswerWithoutLengthIsResumedUpToTheSignedLength) {
  useFamily("lyra");
  std::string payload = testBytes(150000, 13);
  std::string image = kit->image("lyra", payload);
  net_test::TcpPeer server;
  std::string resumed;
  const size_t cut = image.size() / 3;
  std::thread peer([&] {
    int first = server.accept();
    net_test::readRequest(first);
    net_test::sendText(first, "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + image.substr(0, cut));
    close(first);
    int second = server.accept(3000);
    if (second < 0) return;
    resumed = net_test::readRequest(second);
    net_test::sendText(second, "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes " + std::to_string(cut) + "-" +
                                   std::to_string(image.size() - 1) + "/" + std::to_string(image.size()) +
                                   "\r\nContent-Length: " + std::to_string(image.size() - cut) + "\r\n\r\n" +
                                   image.substr(cut));
    close(second);
  });
  std::string url = "http://127.0.0.1:" + std::to_string(server.port()) + "/fw.rom";
  EXPECT_EQ(firmware_GetStatusName(firmware_Upgrade(firmwareStreams(), url.c_str(), 5000, true, false, true)), std::string("ok"));
  peer.join();
  EXPECT_NE(resumed.find("\r\nRange: bytes=" + std::to_string(cut) + "-\r\n"), std::string::npos) << resumed;
  EXPECT_TRUE(root->read(kFirmwareSlotPath) == payload);
}
