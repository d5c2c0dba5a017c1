// A broken transfer is that transfer's own: the next one through the same fileDownload starts
// clean. And an accepted passive mode whose data connection fails ends the FTP retrieval instead
// of trying active mode.
#include <gtest/gtest.h>

#include <thread>

#include "fileStream.h"
#include "netPeers.h"
#include "testRoot.h"

using namespace net_test;
using testing_support::LogCapture;

namespace {

// `left` bytes, then the end of the file or, when `breaks`, a break.
struct CountedStream : ns_net::pipeStream {
  CountedStream(int size, bool breaks) : left(size), breaks(breaks) {}
  int Read(void* buffer, int elementSize, int count) override {
    int n = std::min(left, elementSize * count);
    memset(buffer, 'b', static_cast<size_t>(n));
    left -= n;
    if (n == 0 && breaks) MarkBroken(100, "cut");
    return n / elementSize;
  }
  void Close() override {}
  int left;
  bool breaks;
};

class TransferBreakTest : public testing_support::RootedTest {};

}  // namespace

TEST_F(TransferBreakTest, NextTransferStartsClean) {
  ns_net::fileDownload d;
  ASSERT_TRUE(d.Attach(new CountedStream(300, true)));
  EXPECT_EQ(d.DownloadToFile("/tmp/first", false), 0);
  d.Close();
  EXPECT_TRUE(d.LastTransferBroken()) << "the mark outlives the close";
  ASSERT_TRUE(d.Attach(new CountedStream(200, false)));
  EXPECT_FALSE(d.LastTransferBroken());
  EXPECT_EQ(d.DownloadToFile("/tmp/second", false), 200);
}

TEST_F(TransferBreakTest, PassiveDataConnectionThatFailsEndsTheRetrieval) {
  TcpPeer control;
  const int deadPort = testing_support::freePort();
  // Each reply answers the command before it: greeting, USER, PASS, TYPE I, SIZE, PASV.
  const std::string replies[] = {"220 Ready", "331 Password", "230 In", "200 Binary", "213 10",
                                 "227 Entering Passive Mode (127,0,0,1," + std::to_string(deadPort / 256) + "," +
                                     std::to_string(deadPort % 256) + ")"};
  std::string afterPasv;
  std::thread script([&] {
    int fd = control.accept();
    for (const std::string& reply : replies) {
      sendText(fd, reply + "\r\n");
      afterPasv = readLine(fd, 3000);
    }
    close(fd);
  });
  ns_net::fileDownload d;
  LogCapture log;
  EXPECT_EQ(downloadToOut("ftp://u:p@127.0.0.1:" + std::to_string(control.port()) + "/f.cfg", d), -1);
  script.join();
  EXPECT_TRUE(log.contains("connect data pipe fail"));
  EXPECT_EQ(afterPasv, "") << "no active mode after an accepted PASV";
}
