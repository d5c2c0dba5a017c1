// What is FTP's own: against scripted servers the commands on the wire, multi-line replies, anonymous
// log-in, passive mode and the active-mode fallback, transfers cut short, names that would smuggle
// commands; against vsftpd user log-in with passive and active data connections over IPv4 and IPv6.
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

namespace {

// Scripted sessions: the server greets with the first reply and answers each command with the next;
// "227" stands for its own passive data port, and after a "150" reply it sends `sent` over the data
// connection and closes it. The client's commands, one a line ("" for the client closing, "h,l" for
// the numbers of an active port). One download for all rows: a transfer's break is its own.
TEST(FtpScripted, SessionsAndHowTheyEnd) {
  TempRoot root;
  LogCapture log;
  TcpPeer control, data;
  struct Case {
    const char* credentials;
    std::vector<std::string> replies;
    std::string sent;
    int result;
    const char* commands;
    const char* logged;
  };
  const char* retrieval = "USER u\nPASS p\nTYPE I\nSIZE dir/f.cfg\nPASV\nRETR dir/f.cfg\nQUIT";
  const Case cases[] = {
      {"",
       {"220 Ready", "331 Any password", "530 No"},
       "",
       -1,
       "USER anonymous\nPASS provisor@phone.local\n",
       "IFO Open URL Fail"},
      // 230 logs in without PASS; neither data connection can be had. PORT in its standard form,
      // without parentheses.
      {"u@",
       {"220 Ready", "230 Welcome", "200 Binary", "550 No such file", "550 No", "500 No"},
       "",
       -1,
       "USER u\nTYPE I\nSIZE dir/f.cfg\nPASV\nPORT 127,0,0,1,h,l\n",
       "IFO Open URL Fail"},
      // A reply ends at a final line of its own code only. An accepted passive mode whose data
      // connection fails ends the retrieval instead of trying active mode.
      {"u:s3cret@",
       {"220-Welcome\r\n220-second line\r\n220 Ready", "620 no\r\n260 no\r\n220\r\n331 Password",
        "230-Hello\r\n200 not the end\r\n 230 indented\r\n230 In", "200 Binary", "213 10", pasvReply(freePort())},
       "",
       -1,
       "USER u\nPASS s3cret\nTYPE I\nSIZE dir/f.cfg\nPASV\n",
       "connect data pipe fail"},
      // Transfers cut short: the data connection closes early, the server reports a failure instead
      // of 226, the control connection closes without the final reply.
      {"u:p@",
       {"220 Ready", "331 P", "230 In", "200 Binary", "213 10000", "227", "150 Here", "226 Done"},
       std::string(4000, 'c'),
       0,
       retrieval,
       "WAR Broken at -6000 bytes : data connection closed early"},
      {"u:p@",
       {"220 Ready", "331 P", "230 In", "200 Binary", "550 No size", "227", "150 Here", "426 Aborted"},
       std::string(300, 'c'),
       0,
       retrieval,
       "transfer not confirmed [426 Aborted]"},
      {"u:p@",
       {"220 Ready", "331 P", "230 In", "200 Binary", "213 3", "227", "150 Here"},
       "abc",
       0,
       "USER u\nPASS p\nTYPE I\nSIZE dir/f.cfg\nPASV\nRETR dir/f.cfg",
       "no transfer-complete reply"},
      {"u:p@",
       {"220 Ready", "331 P", "230 In", "200 Binary", "213 5", "227", "150 Here", "226 Done"},
       "hello",
       5,
       retrieval,
       "IFO Open URL OK"},
  };
  fileDownload d;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.logged);
    log.clear();
    FtpSession s;
    std::thread script([&] {
      s.fd = control.accept();
      bool sending = false;  // after "150" the next reply comes unasked
      for (size_t i = 0; i < c.replies.size(); ++i) {
        if (i > 0 && !sending) s.expect();
        s.reply(c.replies[i] == "227" ? pasvReply(data.port()) : c.replies[i] + "\r\n");
        if (!(sending = c.replies[i].rfind("150", 0) == 0)) continue;
        int dataFd = data.accept();
        sendText(dataFd, c.sent);
        close(dataFd);
      }
      if (!sending) s.expect();
      close(s.fd);
    });
    EXPECT_EQ(
        downloadToOut(
            "ftp://" + std::string(c.credentials) + "127.0.0.1:" + std::to_string(control.port()) + "/dir/f.cfg", d),
        c.result);
    script.join();
    std::string commands;
    for (std::string line : s.commands) {
      unsigned high, low;
      char more;  // the port's two numbers in the standard form, nothing after them
      if (sscanf(line.c_str(), "PORT 127,0,0,1,%u,%u%c", &high, &low, &more) == 2) line = "PORT 127,0,0,1,h,l";
      commands += (commands.empty() ? "" : "\n") + line;
    }
    EXPECT_EQ(commands, c.commands);
    EXPECT_EQ(d.LastTransferBroken(), c.result == 0);
    EXPECT_EQ(d.LastErrorCategory() * 100 + d.LastErrorCode(), c.result == 0 ? 610 : 0);
    EXPECT_TRUE(log.contains(c.logged));
    EXPECT_FALSE(log.contains("s3cret")) << "no password in the log";
  }
  EXPECT_EQ(root.read("/tmp/out"), "hello");

  // A retrieval left after its first bytes (a firmware header check) is aborted before QUIT.
  {
    FtpSession s;
    std::thread script([&] {
      s.fd = control.accept();
      for (std::string reply : {"220 Ready", "331 P", "230 In", "200 Binary", "213 100000", "227", "150 Here"}) {
        if (reply != "220 Ready") s.expect();
        s.reply(reply == "227" ? pasvReply(data.port()) : reply + "\r\n");
      }
      int dataFd = data.accept();
      sendText(dataFd, std::string(4096, 'i'));
      s.expect();
      s.expect();
      close(dataFd);
      close(s.fd);
    });
    ns_net::ftpStream partial;
    ASSERT_TRUE(partial.Open("127.0.0.1", control.port(), "u", "p", "fw.rom"));
    char header[340];
    EXPECT_EQ(partial.Read(header, 1, sizeof(header)), 340);
    partial.Close();
    script.join();
    ASSERT_GE(s.commands.size(), 2u);
    EXPECT_EQ(s.commands[s.commands.size() - 2], "ABOR");
    EXPECT_EQ(s.commands.back(), "QUIT");
  }

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
      START_PEER(server, {passive, ipv6});  // passive off: PASV is refused, the client falls back to PORT
      fileDownload d;
      EXPECT_EQ(downloadToOut("ftp://nobody:secret@" + std::string(ipv6 ? "[::1]:" : "127.0.0.1:") +
                                  std::to_string(server.port()) + "/dir/f.cfg",
                              d),
                static_cast<int>(bytes.size()));
      EXPECT_TRUE(root.read("/tmp/out") == bytes);
      EXPECT_NE(server.log().find("[nobody] OK LOGIN"), std::string::npos);
    }
  }
}

}  // namespace
