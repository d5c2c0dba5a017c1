// What is FTP's own: against scripted servers the commands on the wire, multi-line replies, anonymous
// log-in, passive mode and the active-mode fallback, names that would smuggle commands; against
// vsftpd user log-in with passive and active data connections over IPv4 and IPv6.
#include <gtest/gtest.h>

#include <regex>
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

TEST(SockFtp, FinalReplyLines) {
  for (const char* notFinal : {"220-Welcome", "220", "620 no", "260 no", " 220 indented"})
    EXPECT_FALSE(sockFTP::IsFinalLine(notFinal)) << notFinal;
  EXPECT_TRUE(sockFTP::IsFinalLine("220 Ready"));
  EXPECT_EQ(sockFTP::ReplyCode("150 Opening"), 150);
  EXPECT_EQ(sockFTP::ReplyCode("150-Opening"), 0);
}

// Sessions that end without a transfer: the server greets with the first reply and answers each
// command with the next; the commands, one a line, must match the pattern ("" for the client closing).
TEST(FtpScripted, LogInsAndDataConnectionsThatFail) {
  TempRoot root;
  LogCapture log;
  TcpPeer control;
  struct Case {
    const char* credentials;
    std::vector<std::string> replies;
    const char* commands;
  };
  const Case cases[] = {
      {"", {"220 Ready", "331 Any password", "530 No"}, "USER anonymous\nPASS provisor@phone\\.local\n"},
      // 230 logs in without PASS; neither data connection can be had. PORT in its standard form,
      // without parentheses.
      {"u@", {"220 Ready", "230 Welcome", "200 Binary", "550 No such file", "550 No", "500 No"},
       "USER u\nTYPE I\nSIZE dir/f\\.cfg\nPASV\nPORT 127,0,0,1,\\d+,\\d+\n"},
      // Multi-line replies end at their own code only. An accepted passive mode whose data
      // connection fails ends the retrieval instead of trying active mode.
      {"u:s3cret@",
       {"220-Welcome\r\n220-second line\r\n220 Ready", "331 Password",
        "230-Hello\r\n200 not the end\r\n 230 indented\r\n230 In", "200 Binary", "213 10", pasvReply(freePort())},
       "USER u\nPASS s3cret\nTYPE I\nSIZE dir/f\\.cfg\nPASV\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.commands);
    FtpSession s;
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
    EXPECT_EQ(downloadToOut("ftp://" + std::string(c.credentials) + "127.0.0.1:" + std::to_string(control.port()) +
                                "/dir/f.cfg",
                            d),
              -1);
    script.join();
    std::string commands;
    for (const std::string& line : s.commands) commands += (commands.empty() ? "" : "\n") + line;
    EXPECT_TRUE(std::regex_match(commands, std::regex(c.commands))) << commands;
  }
  EXPECT_TRUE(log.contains("connect data pipe fail"));
  EXPECT_FALSE(log.contains("s3cret")) << "no password in the log";

  // A line break in a name would smuggle a command: refused before connecting.
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
      fileDownload d;
      EXPECT_EQ(downloadToOut("ftp://nobody:secret@" + std::string(ipv6 ? "[::1]:" : "127.0.0.1:") +
                                  std::to_string(server.port()) + "/dir/f.cfg",
                              d),
                static_cast<int>(bytes.size()));
      EXPECT_TRUE(root.read("/tmp/out") == bytes);
      EXPECT_NE(server.log().find("[nobody] OK LOGIN"), std::string::npos);
      EXPECT_TRUE(pollFor([&] { return server.log().find("\"QUIT\"") != std::string::npos; }, 5000));
    }
  }
  EXPECT_TRUE(log.contains("ExcuteCommandE [PORT (127,0,0,1,"));
  EXPECT_TRUE(log.contains("200 PORT command successful"));
}

}  // namespace
