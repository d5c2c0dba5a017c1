// The FTP client against vsftpd on loopback, for what is FTP's own: user log-in, passive and active
// data connections, over IPv4 and (where the machine has it) an IPv6 control connection.
#include <gtest/gtest.h>

#include "fileStream.h"
#include "ftpStream.h"
#include "servers.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

// Fetches `url` into /tmp/out; whether the file arrived whole and whether active mode carried it.
bool fetch(const TempRoot& root, const std::string& url, bool& active) {
  ns_net::autopUrl u;
  ns_net::fileDownload d;
  if (!u.Parse(url) || !d.OpenDownloadStream(u, -1)) return false;
  active = static_cast<ns_net::ftpStream*>(d.CurrentStream())->UsedActiveMode();
  int n = d.DownloadToFile("/tmp/out", false);
  return n == static_cast<int>(root.read("/tmp/out").size()) && !d.LastTransferBroken();
}

TEST(FtpServer, UserLogInPassiveAndActiveOverIPv4AndIPv6) {
  TempRoot root;
  LogCapture log;
  const std::string bytes = testBytes(100000, 4);
  for (bool ipv6 : {false, true}) {
    if (ipv6 && !ipv6LoopbackAvailable()) continue;  // no IPv6 loopback on this machine
    for (bool passive : {true, false}) {
      SCOPED_TRACE(std::string(ipv6 ? "IPv6 " : "IPv4 ") + (passive ? "passive" : "active"));
      FtpServer server;
      server.put("dir/f.cfg", bytes);
      FtpServer::Options options;
      options.passive = passive;  // off: PASV is refused, so the client must fall back to PORT
      options.ipv6 = ipv6;
      ASSERT_TRUE(server.start(options));
      bool active = passive;
      const std::string host = (ipv6 ? "[::1]:" : "127.0.0.1:") + std::to_string(server.port());
      EXPECT_TRUE(fetch(root, "ftp://nobody:secret@" + host + "/dir/f.cfg", active));
      EXPECT_EQ(active, !passive);
      EXPECT_TRUE(root.read("/tmp/out") == bytes);
      EXPECT_NE(server.log().find("[nobody] OK LOGIN"), std::string::npos);
    }
  }
  EXPECT_TRUE(log.contains("ExcuteCommandE [PORT (127,0,0,1,"));
  EXPECT_TRUE(log.contains("200 PORT command successful"));
}

}  // namespace
