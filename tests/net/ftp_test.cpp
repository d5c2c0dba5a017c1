// What is FTP's own: against scripted servers the commands on the wire, multi-line replies, anonymous
// log-in, passive mode and the active-mode fallback, names that would smuggle commands; against
// vsftpd user log-in with passive and active data connections over IPv4 and IPv6.
#include <gtest/gtest.h>

#include <thread>

#include "fileStream.h"
#include "ftpStream.h"
#include "netPeers.h"
#include "servers.h"
#include "testRoot.h"

using namespace net_test;
using namespace testing_support;
using ns_net::fileDownload;
using ns_net::sockFTP;

namespace {

class FtpScripted : public ::testing::Test {
 protected:
  std::string url(const std::string& credentials, const std::string& path) {
    return "ftp://" + credentials + "127.0.0.1:" + std::to_string(control.port()) + "/" + path;
  }
  TempRoot root;
  LogCapture log;
  TcpPeer control;
  FtpSession s;
};

TEST(SockFtp, FinalReplyLines) {
  for (const char* notFinal : {"220-Welcome", "220", "620 no", "260 no", " 220 indented"})
    EXPECT_FALSE(sockFTP::IsFinalLine(notFinal)) << notFinal;
  EXPECT_TRUE(sockFTP::IsFinalLine("220 Ready"));
  EXPECT_EQ(sockFTP::ReplyCode("150 Opening"), 150);
  EXPECT_EQ(sockFTP::ReplyCode("150-Opening"), 0);
}

TEST_F(FtpScripted, CredentialsMultiLineRepliesAndPassiveTransfer) {
  TcpPeer data;
  std::thread script([&] {
    s.fd = control.accept();
    s.reply("220-Welcome to the scripted server\r\n220-second line\r\n220 Ready\r\n");
    s.expect();
    s.reply("331 Password please\r\n");
    s.expect();
    // A line of other digits inside a multi-line reply does not end it.
    s.reply("230-Hello\r\n200 not the end\r\n 230 indented\r\n230 Logged in\r\n");
    for (const std::string& reply : {std::string("200 Binary\r\n"), std::string("213 5\r\n"), pasvReply(data.port())}) {
      s.expect();
      s.reply(reply);
    }
    int dataFd = data.accept();
    s.expect();
    s.reply("150 Here it comes\r\n");
    sendText(dataFd, "hello");
    close(dataFd);
    s.reply("226 Transfer complete\r\n");
    s.expect();  // QUIT
    close(s.fd);
  });
  fileDownload d;
  EXPECT_EQ(downloadToOut(url("u:p@", "dir/f.cfg"), d), 5);
  script.join();
  EXPECT_EQ(root.read("/tmp/out"), "hello");
  EXPECT_EQ(s.commands, (std::vector<std::string>{"USER u", "PASS p", "TYPE I", "SIZE dir/f.cfg", "PASV",
                                                  "RETR dir/f.cfg", "QUIT"}));
  EXPECT_TRUE(log.contains("IFO ExcuteCommandE [SIZE dir/f.cfg], ret = 213 5"));
  EXPECT_TRUE(log.contains("IFO ExcuteCommandE [PASV], ret = 227 Entering Passive Mode"));
  EXPECT_FALSE(log.contains("PASS p")) << "no password in the log";
}

// Log-ins that end without a transfer: the server greets with the first reply and answers each
// command with the next; the commands must begin as expected ("" for the client closing).
TEST_F(FtpScripted, LogInsAndDataConnectionsThatFail) {
  const int deadPort = freePort();
  struct Case {
    const char* credentials;
    std::vector<std::string> replies, commands;
  };
  const Case cases[] = {
      {"", {"220 Ready", "331 Any password", "530 No"}, {"USER anonymous", "PASS provisor@phone.local"}},
      // 230 logs in without PASS; neither data connection can be had.
      {"u@", {"220 Ready", "230 Welcome", "200 Binary", "550 No such file", "550 No", "500 No"},
       {"USER u", "TYPE I", "SIZE f", "PASV"}},
      // An accepted passive mode whose data connection fails ends it instead of trying active mode.
      {"u:p@", {"220 Ready", "331 Password", "230 In", "200 Binary", "213 10", pasvReply(deadPort)},
       {"USER u", "PASS p", "TYPE I", "SIZE f", "PASV", ""}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.replies[1]);
    s.commands.clear();
    std::thread script([&] {
      s.fd = control.accept();
      for (size_t i = 0; i < c.replies.size(); ++i) {
        if (i > 0) s.expect();
        s.reply(c.replies[i] + "\r\n");
      }
      s.expect();
      close(s.fd);
    });
    fileDownload d;
    EXPECT_EQ(downloadToOut(url(c.credentials, "f"), d), -1);
    script.join();
    ASSERT_GE(s.commands.size(), c.commands.size());
    EXPECT_EQ(std::vector<std::string>(s.commands.begin(), s.commands.begin() + c.commands.size()), c.commands);
  }
  EXPECT_TRUE(log.contains("connect data pipe fail"));
}

TEST_F(FtpScripted, RefusedPassiveFallsBackToActiveMode) {
  std::string port;
  std::thread script([&] {
    s.fd = control.accept();
    s.preamble("213 6\r\n", "502 PASV not here\r\n");
    port = s.expect();
    unsigned h[4], p1, p2;
    ASSERT_EQ(sscanf(port.c_str(), "PORT %u,%u,%u,%u,%u,%u", &h[0], &h[1], &h[2], &h[3], &p1, &p2), 6) << port;
    s.reply("200 PORT ok\r\n");
    s.expect();  // RETR
    s.reply("150 Connecting to you\r\n");
    int dataFd = connectTo(static_cast<uint16_t>(p1 * 256 + p2));
    sendText(dataFd, "active");
    close(dataFd);
    s.reply("226 Done\r\n");
    s.expect();
    close(s.fd);
  });
  fileDownload d;
  EXPECT_EQ(downloadToOut(url("", "f"), d), 6);
  script.join();
  EXPECT_EQ(root.read("/tmp/out"), "active");
  EXPECT_EQ(port.find("PORT 127,0,0,1,"), 0u) << "the standard form, without parentheses: " << port;
}

TEST_F(FtpScripted, LineBreaksInNamesAreRefusedBeforeConnecting) {
  ns_net::ftpStream stream;
  EXPECT_FALSE(stream.Open("127.0.0.1", control.port(), "u", "p", "f\r\nDELE x"));
  EXPECT_EQ(control.accept(50), -1) << "nothing was sent";
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
      ns_net::autopUrl url;
      fileDownload d;
      ASSERT_TRUE(url.Parse("ftp://nobody:secret@" + std::string(ipv6 ? "[::1]:" : "127.0.0.1:") +
                            std::to_string(server.port()) + "/dir/f.cfg"));
      ASSERT_TRUE(d.OpenDownloadStream(url, -1));
      EXPECT_EQ(static_cast<ns_net::ftpStream*>(d.CurrentStream())->UsedActiveMode(), !passive);
      EXPECT_EQ(d.DownloadToFile("/tmp/out", false), static_cast<int>(bytes.size()));
      EXPECT_TRUE(root.read("/tmp/out") == bytes);
      EXPECT_NE(server.log().find("[nobody] OK LOGIN"), std::string::npos);
    }
  }
  EXPECT_TRUE(log.contains("ExcuteCommandE [PORT (127,0,0,1,"));
  EXPECT_TRUE(log.contains("200 PORT command successful"));
}

}  // namespace
