// The FTP client against scripted servers: the commands on the wire, multi-line replies, anonymous
// log-in, the active-mode fallback, and transfers that end before the file does.
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

// One scripted control connection; `commands` keeps every line the client sent.
struct FtpSession {
  int fd = -1;
  std::vector<std::string> commands;
  std::string expect() {
    std::string line = readLine(fd);
    commands.push_back(line);
    return line;
  }
  void reply(const std::string& text) { sendText(fd, text); }
  // Answers the usual preamble up to and including PASV with the given reply.
  void preamble(const std::string& sizeReply, const std::string& pasvReply) {
    reply("220 Ready\r\n");
    expect();  // USER
    reply("331 Password please\r\n");
    expect();  // PASS
    reply("230 Logged in\r\n");
    expect();  // TYPE I
    reply("200 Binary\r\n");
    expect();  // SIZE
    reply(sizeReply);
    expect();  // PASV
    reply(pasvReply);
  }
};

std::string pasvReply(uint16_t port) {
  return "227 Entering Passive Mode (127,0,0,1," + std::to_string(port / 256) + "," + std::to_string(port % 256) +
         ").\r\n";
}

class FtpScripted : public ::testing::Test {
 protected:
  void SetUp() override { root = std::make_unique<TempRoot>(); }
  std::string url(uint16_t port, const std::string& credentials, const std::string& path) {
    return "ftp://" + credentials + "127.0.0.1:" + std::to_string(port) + "/" + path;
  }
  std::unique_ptr<TempRoot> root;
  LogCapture log;
};

TEST(SockFtp, FinalReplyLines) {
  EXPECT_TRUE(sockFTP::IsFinalLine("220 Ready"));
  EXPECT_FALSE(sockFTP::IsFinalLine("220-Welcome"));
  EXPECT_FALSE(sockFTP::IsFinalLine("220"));
  EXPECT_FALSE(sockFTP::IsFinalLine("620 no"));
  EXPECT_FALSE(sockFTP::IsFinalLine("260 no"));
  EXPECT_FALSE(sockFTP::IsFinalLine(" 220 indented"));
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
  EXPECT_EQ(root->read("/tmp/out"), "hello");
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
  EXPECT_EQ(root->read("/tmp/out"), "active");
  EXPECT_EQ(port.find("PORT 127,0,0,1,"), 0u) << "the standard form, without parentheses: " << port;
  EXPECT_TRUE(log.contains("IFO ExcuteCommandE [PORT (127,0,0,1,"));
}

TEST_F(FtpScripted, TransfersEndingEarlyAreBreaks) {
  struct Case {
    std::string size;
    std::string sent;
    std::string finalReply;
    std::string logged;
  };
  const std::vector<Case> cases = {
      // The data connection closes after 4000 of 10000 bytes.
      {"213 10000\r\n", std::string(4000, 'c'), "226 Done\r\n", "WAR Broken at -6000 bytes : data connection closed early"},
      // Size unknown, and the server reports a failure instead of 226.
      {"550 No size\r\n", std::string(300, 'c'), "426 Connection closed; transfer aborted\r\n",
       "transfer not confirmed [426 Connection closed; transfer aborted]"},
      // The control connection closes without the final reply.
      {"213 3\r\n", "abc", "", "no transfer-complete reply"},
  };
  for (const Case& c : cases) {
    log.clear();
    TcpPeer control, data;
    FtpSession s;
    std::thread script([&] {
      s.fd = control.accept();
      ASSERT_GE(s.fd, 0);
      s.preamble(c.size, pasvReply(data.port()));
      int dataFd = data.accept();
      ASSERT_GE(dataFd, 0);
      s.expect();
      s.reply("150 Here\r\n");
      sendText(dataFd, c.sent);
      close(dataFd);
      if (!c.finalReply.empty()) s.reply(c.finalReply);
      close(s.fd);
    });
    fileDownload d;
    EXPECT_EQ(downloadToOut(url(control.port(), "", "f"), d), 0) << c.logged;
    script.join();
    EXPECT_TRUE(d.LastTransferBroken()) << c.logged;
    EXPECT_TRUE(log.contains(c.logged)) << c.logged;
  }
}

TEST_F(FtpScripted, LineBreaksInNamesAreRefusedBeforeConnecting) {
  TcpPeer control;
  ns_net::ftpStream stream;
  EXPECT_FALSE(stream.Open("127.0.0.1", control.port(), "u", "p", "f\r\nDELE x"));
  EXPECT_EQ(control.accept(50), -1) << "nothing was sent";
}

}  // namespace
