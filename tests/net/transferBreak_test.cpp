// A broken transfer is that transfer's own: the next one through the same fileDownload starts
// clean. And an accepted passive mode whose data connection fails ends the FTP retrieval instead
// of trying active mode.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "fileStream.h"
#include "netPeers.h"
#include "testRoot.h"

using namespace net_test;
using ns_net::fileDownload;
using ns_net::pipeStream;
using testing_support::LogCapture;
using testing_support::RootedTest;

namespace {

// `size` bytes, then either the end of the file or a break.
class CountedStream : public pipeStream {
 public:
  CountedStream(int size, bool breaks) : left_(size), breaks_(breaks) {}
  int Read(void* buffer, int elementSize, int count) override {
    int n = std::min(left_, elementSize * count);
    memset(buffer, 'b', static_cast<size_t>(n));
    left_ -= n;
    if (n == 0 && breaks_) MarkBroken(100, "cut");
    return n / elementSize;
  }
  void Close() override {}

 private:
  int left_;
  bool breaks_;
};

class TransferBreakTest : public RootedTest {};

}  // namespace

TEST_F(TransferBreakTest, NextTransferStartsClean) {
  // The first transfer ends by a close, or by handing its stream back.
  for (int ending = 0; ending < 2; ++ending) {
    fileDownload d;
    ASSERT_TRUE(d.Attach(new CountedStream(300, true)));
    EXPECT_EQ(d.DownloadToFile("/tmp/first", false), 0);
    EXPECT_TRUE(d.LastTransferBroken());
    if (ending == 0)
      d.Close();
    else
      delete d.Detach();
    ASSERT_TRUE(d.Attach(new CountedStream(200, false)));
    EXPECT_FALSE(d.LastTransferBroken());
    EXPECT_EQ(d.DownloadToFile("/tmp/second", false), 200);
    EXPECT_FALSE(d.LastTransferBroken());
    EXPECT_EQ(d.LastErrorCategory(), 0);
  }
}

TEST_F(TransferBreakTest, PassiveDataConnectionThatFailsEndsTheRetrieval) {
  TcpPeer control;
  const uint16_t deadPort = static_cast<uint16_t>(testing_support::freePort());
  std::vector<std::string> commands;
  std::thread script([&] {
    int fd = control.accept();
    ASSERT_GE(fd, 0);
    auto step = [&](const std::string& reply) {
      sendText(fd, reply);
      commands.push_back(readLine(fd, 3000));
    };
    step("220 Ready\r\n");                 // USER
    step("331 Password\r\n");              // PASS
    step("230 In\r\n");                    // TYPE I
    step("200 Binary\r\n");                // SIZE
    step("213 10\r\n");                    // PASV
    step("227 Entering Passive Mode (127,0,0,1," + std::to_string(deadPort / 256) + "," +
         std::to_string(deadPort % 256) + ")\r\n");  // whatever comes next
    close(fd);
  });
  fileDownload d;
  LogCapture log;
  EXPECT_EQ(downloadToOut("ftp://u:p@127.0.0.1:" + std::to_string(control.port()) + "/f.cfg", d), -1);
  script.join();
  EXPECT_TRUE(log.contains("connect data pipe fail"));
  ASSERT_EQ(commands.size(), 6u);
  EXPECT_EQ(commands[4], "PASV");
  EXPECT_EQ(commands[5].find("PORT"), std::string::npos) << commands[5];
  EXPECT_EQ(commands[5].find("EPRT"), std::string::npos) << commands[5];
  EXPECT_FALSE(log.contains("ExcuteCommandE [PORT"));
}
