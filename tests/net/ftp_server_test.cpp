// The FTP client against vsftpd on loopback: anonymous and user log-in, passive and active mode,
// a missing file, and an IPv6 control connection where the machine has IPv6 loopback.
#include <gtest/gtest.h>

#include "fileStream.h"
#include "ftpStream.h"
#include "servers.h"
#include "testRoot.h"

using ns_net::autopUrl;
using ns_net::fileDownload;
using testing_support::FtpServer;
using testing_support::LogCapture;
using testing_support::TempRoot;
using testing_support::testBytes;

namespace {

class FtpServerTest : public ::testing::Test {
 protected:
  void SetUp() override { root = std::make_unique<TempRoot>(); }
  // Downloads into /tmp/out; true when the file arrived whole.
  bool fetch(const std::string& text, bool* active = nullptr) {
    autopUrl u;
    EXPECT_TRUE(u.Parse(text));
    fileDownload d;
    if (!d.OpenDownloadStream(u, -1)) return false;
    if (active) *active = static_cast<ns_net::ftpStream*>(d.CurrentStream())->UsedActiveMode();
    int n = d.DownloadToFile("/tmp/out", false);
    return n == static_cast<int>(root->read("/tmp/out").size()) && !d.LastTransferBroken();
  }
  std::unique_ptr<TempRoot> root;
};

TEST_F(FtpServerTest, PassiveAnonymousAndUserDownloads) {
  FtpServer server;
  std::string bytes = testBytes(300000, 3);
  server.put("dir/f.cfg", bytes);
  server.put("empty.cfg", "");
  ASSERT_TRUE(server.start());
  std::string base = "127.0.0.1:" + std::to_string(server.port());

  bool active = true;
  EXPECT_TRUE(fetch("ftp://" + base + "/dir/f.cfg", &active));
  EXPECT_FALSE(active);
  EXPECT_TRUE(root->read("/tmp/out") == bytes);

  EXPECT_TRUE(fetch("ftp://nobody:secret@" + base + "/dir/f.cfg"));
  EXPECT_TRUE(root->read("/tmp/out") == bytes);
  EXPECT_NE(server.log().find("[nobody] OK LOGIN"), std::string::npos);

  EXPECT_TRUE(fetch("ftp://" + base + "/empty.cfg"));
  EXPECT_EQ(root->read("/tmp/out"), "");

  LogCapture log;
  EXPECT_FALSE(fetch("ftp://" + base + "/dir/missing.cfg"));
  EXPECT_TRUE(log.contains("RETR fail"));
  EXPECT_TRUE(log.contains("Open URL Fail"));
}

TEST_F(FtpServerTest, ActiveModeWhenPassiveIsOff) {
  FtpServer server;
  std::string bytes = testBytes(100000, 4);
  server.put("f.cfg", bytes);
  FtpServer::Options options;
  options.passive = false;
  ASSERT_TRUE(server.start(options));
  LogCapture log;
  bool active = false;
  EXPECT_TRUE(fetch("ftp://127.0.0.1:" + std::to_string(server.port()) + "/f.cfg", &active));
  EXPECT_TRUE(active);
  EXPECT_TRUE(root->read("/tmp/out") == bytes);
  EXPECT_TRUE(log.contains("ExcuteCommandE [PORT (127,0,0,1,"));
  EXPECT_TRUE(log.contains("200 PORT command successful"));
}

TEST_F(FtpServerTest, IPv6ControlConnection) {
  if (!testing_support::ipv6LoopbackAvailable()) GTEST_SKIP() << "no IPv6 loopback here";
  for (bool passive : {true, false}) {
    FtpServer server;
    std::string bytes = testBytes(5000, 5);
    server.put("f.cfg", bytes);
    FtpServer::Options options;
    options.ipv6 = true;
    options.passive = passive;
    ASSERT_TRUE(server.start(options));
    bool active = !passive;
    EXPECT_TRUE(fetch("ftp://[::1]:" + std::to_string(server.port()) + "/f.cfg", &active)) << passive;
    EXPECT_EQ(active, !passive);
    EXPECT_TRUE(root->read("/tmp/out") == bytes);
  }
}

}  // namespace
