// The FTP client against scripted servers: the commands on the wire, multi-line replies, anonymous
// log-in, the active-mode fallback, names that would smuggle commands.
#include <gtest/gtest.h>

#include <thread>

#include "fileStream.h"
#include "ftpStream.h"
#include "netPeers.h"
#include "testRoot.h"

using namespace net_test;
using ns_net::fileDownload;
using ns_net::sockFTP;
using testing_support::LogCapture;
using testing_support::TempRoot;

namespace {

class FtpScripted : public ::testing::Test {
 protected:
  std::string url(uint16_t port, const std::string& credentials, const std::string& path) {
    return "ftp://" + credentials + "127.0.0.1:" + std::to_string(port) + "/" + path;
  }
  TempRoot root;
  LogCapture log;
};

TEST(SockFtp, FinalReplyLines) {
  for (const char* notFinal : {"220-Welcome", "220", "620 no", "260 no", " 220 indented"})
    EXPECT_FALSE(sockFTP::IsFinalLine(notFinal)) << notFinal;
  EXPECT_TRUE(sockFTP::IsFinalLine("220 Ready"));
  EXPECT_EQ(sockFTP::ReplyCode("150 Opening"), 150);
  EXPECT_EQ(sockFTP::ReplyCode("150-Opening"), 0);
}

TEST_F(FtpScripted, CredentialsMultiLineRepliesAndPassiveTransfer) {
  TcpPeer control, data;
  FtpSession s;
  std::thread script([&] {
    s.fd = control.accept();
    ASSERT_GE(s.fd, 0);
    s.reply("220-Welcome to the scripted server\r\n220-second line\r\n220 Ready\r\n");
    s.expect();
    s.reply("331 Password please\r\n");
    s.expect();
    // A line of other digits inside a multi-line reply does not end it.
    s.reply("230-Hello\r\n200 not the end\r\n 230 indented\r\n230 Logged in\r\n");
    s.expect();
    s.reply("200 Binary\r\n");
    s.expect();
    s.reply("213 5\r\n");
    s.expect();
    s.reply(pasvReply(data.port()));
    int dataFd = data.accept();
    ASSERT_GE(dataFd, 0);
    s.expect();
    s.reply("150 Here it comes\r\n");
    sendText(dataFd, "hello");
    close(dataFd);
    s.reply("226 Transfer complete\r\n");
    s.expect();  // QUIT
    close(s.fd);
  });
  fileDownload d;
  EXPECT_EQ(downloadToOut(url(control.port(), "u:p@", "dir/f.cfg"), d), 5);
  script.join();
  EXPECT_EQ(root.read("/tmp/out"), "hello");
  EXPECT_EQ(s.commands, (std::vector<std::string>{"USER u", "PASS p", "TYPE I", "SIZE dir/f.cfg", "PASV",
                                                  "RETR dir/f.cfg", "QUIT"}));
  EXPECT_TRUE(log.contains("IFO ExcuteCommandE [SIZE dir/f.cfg], ret = 213 5"));
  EXPECT_TRUE(log.contains("IFO ExcuteCommandE [PASV], ret = 227 Entering Passive Mode"));
  EXPECT_FALSE(log.contains("PASS p")) << "no password in the log";
  EXPECT_FALSE(d.LastTransferBroken());
}

TEST_F(FtpScripted, AnonymousLoginAndUserWithoutPassword) {
  for (const std::string& credentials : {std::string(""), std::string("u@")}) {
    TcpPeer control;
    FtpSession s;
    std::thread script([&] {
      s.fd = control.accept();
      ASSERT_GE(s.fd, 0);
      s.reply("220 Ready\r\n");
      s.expect();
      if (credentials.empty()) {
        s.reply("331 Any password\r\n");
        s.expect();
      }
      s.reply(credentials.empty() ? "530 No\r\n" : "230 Welcome without password\r\n");
      if (!credentials.empty()) {
        s.expect();  // TYPE I
        s.reply("200 Binary\r\n");
        s.expect();  // SIZE
        s.reply("550 No such file\r\n");
        s.expect();  // PASV
        s.reply("550 No\r\n");
        s.expect();  // PORT
        s.reply("500 No\r\n");
      }
      close(s.fd);
    });
    fileDownload d;
    EXPECT_EQ(downloadToOut(url(control.port(), credentials, "f"), d), -1);
    script.join();
    if (credentials.empty())
      EXPECT_EQ(s.commands, (std::vector<std::string>{"USER anonymous", "PASS provisor@phone.local"}));
    else
      EXPECT_EQ(s.commands[0], "USER u") << "230 logs in without PASS";
  }
  EXPECT_TRUE(log.contains("connect data pipe fail"));
}

TEST_F(FtpScripted, RefusedPassiveFallsBackToActiveMode) {
  TcpPeer control;
  FtpSession s;
  std::string port;
  std::thread script([&] {
    s.fd = control.accept();
    ASSERT_GE(s.fd, 0);
    s.preamble("213 6\r\n", "502 PASV not here\r\n");
    port = s.expect();
    unsigned h[4], p1, p2;
    ASSERT_EQ(sscanf(port.c_str(), "PORT %u,%u,%u,%u,%u,%u", &h[0], &h[1], &h[2], &h[3], &p1, &p2), 6) << port;
    s.reply("200 PORT ok\r\n");
    s.expect();  // RETR
    s.reply("150 Connecting to you\r\n");
    int dataFd = connectTo(static_cast<uint16_t>(p1 * 256 + p2));
    ASSERT_GE(dataFd, 0);
    sendText(dataFd, "active");
    close(dataFd);
    s.reply("226 Done\r\n");
    s.expect();
    close(s.fd);
  });
  fileDownload d;
  EXPECT_EQ(downloadToOut(url(control.port(), "", "f"), d), 6);
  script.join();
  EXPECT_EQ(root.read("/tmp/out"), "active");
  EXPECT_EQ(port.find("PORT 127,0,0,1,"), 0u) << "the standard form, without parentheses: " << port;
  EXPECT_TRUE(log.contains("IFO ExcuteCommandE [PORT (127,0,0,1,"));
}

TEST_F(FtpScripted, LineBreaksInNamesAreRefusedBeforeConnecting) {
  TcpPeer control;
  ns_net::ftpStream stream;
  EXPECT_FALSE(stream.Open("127.0.0.1", control.port(), "u", "p", "f\r\nDELE x"));
  EXPECT_EQ(control.accept(50), -1) << "nothing was sent";
}

}  // namespace
