// What is TFTP's own, against scripted servers: the transfer identifier of the server, duplicated
// and lost blocks, runt datagrams, error packets, silence before and during a transfer, requests
// that cannot go out.
#include <gtest/gtest.h>

#include <thread>

#include "fileStream.h"
#include "netPeers.h"
#include "testRoot.h"
#include "tftpStream.h"

using namespace net_test;

namespace {

// Socket waits take at most 200 ms of real time on the fake clock, then the clock moves on.
class TftpScripted : public testing_support::RootedTest {
 protected:
  // Downloads tftp://127.0.0.1:<server>/<name> to /tmp/out; the bytes written (0 when it broke).
  int download(const std::string& name, ns_net::fileDownload& d, int32_t timeoutMs = -1) {
    return downloadToOut("tftp://127.0.0.1:" + std::to_string(server.port()) + "/" + name, d, timeoutMs);
  }
  // The server's side of the read request for `name`: the client's address.
  sockaddr_in awaitRequest(const std::string& name = "f") {
    std::string packet;
    sockaddr_in client{};
    EXPECT_TRUE(server.receive(packet, client));
    EXPECT_EQ(packet, tftpRequest(name));
    return client;
  }
  testing_support::LogCapture log;
  UdpPeer server;  // the well-known port: only the request may arrive here
};

// The server's side of one block: send it from `peer` and check the client acknowledges it.
void sendBlock(UdpPeer& peer, sockaddr_in& client, uint16_t block, const std::string& bytes) {
  std::string packet;
  peer.sendTo(tftpData(block, bytes), client);
  ASSERT_TRUE(peer.receive(packet, client));
  EXPECT_EQ(packet, tftpAck(block)) << "after block " << block;
}

TEST_F(TftpScripted, TransferPortStrangersDuplicatesAndLostBlocks) {
  UdpPeer transfer;  // the port the server answers from
  UdpPeer stranger;
  std::string a(512, 'a'), b(512, 'b');
  std::thread script([&] {
    std::string packet;
    sockaddr_in client = awaitRequest("dir/k1.cfg"), from{};
    sendBlock(transfer, client, 1, a);
    stranger.sendTo(tftpData(2, "forged"), client);
    ASSERT_TRUE(stranger.receive(packet, from));
    EXPECT_EQ(packet, tftpError(5, "Unknown transfer ID"));
    sendBlock(transfer, client, 1, a);  // a duplicate: the same acknowledgement is sent again
    // Block 2 is "lost": say nothing until the client asks a third time.
    ASSERT_TRUE(transfer.receive(packet, client));
    EXPECT_EQ(packet, tftpAck(1));
    sendBlock(transfer, client, 2, b);
    sendBlock(transfer, client, 3, "");  // the empty block ends it and is acknowledged too
    EXPECT_FALSE(server.receive(packet, from, 50)) << "nothing may go to the request port after block 1";
  });
  ns_net::fileDownload d;
  EXPECT_EQ(download("dir/k1.cfg", d), 1024);
  script.join();
  EXPECT_EQ(root->read("/tmp/out"), a + b);
  const std::string text = log.text();
  EXPECT_NE(text.find("IFO Received unexpert clip index 1 at 2"), std::string::npos);
  EXPECT_NE(text.find("IFO Receive 2000ms timeout at 2.."), std::string::npos);
  EXPECT_NE(text.find("IFO file end"), std::string::npos);
  EXPECT_EQ(text.find("IFO file end"), text.rfind("IFO file end")) << "the end is seen once";
}

// The server answers the client's successive packets with `replies`, then falls silent and counts
// the packets that still come, which must repeat the first of them.
TEST_F(TftpScripted, RuntsErrorsAndSilenceEndTheTransfer) {
  const std::string block1 = tftpData(1, std::string(512, 'q'));
  struct Case {
    std::vector<std::string> replies;
    int result, repeats;
    const char* logged;
  };
  const Case cases[] = {
      {{std::string("\0\3\0", 3)}, -1, 0, "WAR Receive length less 4 bytes"},
      // Silence from the start: the request goes out five times, each wait twice the one before.
      {{}, -1, 5, "IFO Open URL Fail"},
      {{block1, tftpError(0, "disk gone")}, 0, 0, "WAR Broken after 512 bytes : TFTP transfer given up at block 2"},
      {{block1}, 0, 5, "IFO Receive 16000ms timeout at 2.."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.logged);
    log.clear();
    int repeats = 0;
    std::thread script([&] {
      std::string packet, first;
      sockaddr_in client{};
      for (const std::string& reply : c.replies)
        if (server.receive(packet, client)) server.sendTo(reply, client);
      for (; server.receive(packet, client, 500); ++repeats) {
        if (first.empty()) first = packet;
        EXPECT_EQ(packet, first);
      }
    });
    const uint64_t before = fakeClock.elapsedMs();
    ns_net::fileDownload d;
    EXPECT_EQ(download("f", d), c.result);
    script.join();
    EXPECT_EQ(repeats, c.repeats);
    EXPECT_EQ(d.LastTransferBroken(), c.result == 0);
    EXPECT_TRUE(log.contains(c.logged));
    if (!c.replies.empty()) continue;
    EXPECT_EQ(fakeClock.elapsedMs() - before, 31000u);
    for (int wait : {1000, 2000, 4000, 8000, 16000})
      EXPECT_TRUE(log.contains("IFO Receive " + std::to_string(wait) + "ms timeout at 1..")) << wait;
  }
}

TEST_F(TftpScripted, RequestsThatCannotGoOutAreRefusedBeforeSending) {
  ns_net::tftpStream tooShortAWait, tooLong, longest;
  EXPECT_FALSE(tooShortAWait.Open("127.0.0.1", server.port(), "f", 500));
  EXPECT_FALSE(tooLong.Open("127.0.0.1", server.port(), std::string(1016, 'n'), 16000));
  std::string packet;
  sockaddr_in from{};
  EXPECT_FALSE(server.receive(packet, from, 50)) << "nothing was sent";

  // The longest name that fits (1015 + 9 = 1024 bytes) goes out whole.
  std::thread script([&] { server.sendTo(tftpData(1, "short"), awaitRequest(std::string(1015, 'n'))); });
  EXPECT_TRUE(longest.Open("127.0.0.1", server.port(), std::string(1015, 'n'), 16000));
  script.join();
  char buffer[16];
  EXPECT_EQ(longest.Read(buffer, 1, sizeof(buffer)), 5);
  EXPECT_EQ(longest.Read(buffer, 1, sizeof(buffer)), 0);
}

}  // namespace

// A reader that stops after the first block (the firmware header check) cancels the transfer, so
// the server does not send that block again until it gives up.
TEST_F(TftpScripted, AReadLeftEarlyIsCancelledAtTheServer) {
  UdpPeer transfer;
  std::thread script([&] {
    std::string packet;
    sockaddr_in client = awaitRequest("fw.rom");
    transfer.sendTo(tftpData(1, std::string(512, 'h')), client);
    ASSERT_TRUE(transfer.receive(packet, client, 2000));
    EXPECT_EQ(packet, tftpError(0, "Transfer cancelled"));
  });
  ns_net::tftpStream stream;
  ASSERT_TRUE(stream.Open("127.0.0.1", server.port(), "fw.rom", 5000));
  char header[340];
  EXPECT_EQ(stream.Read(header, 1, sizeof(header)), 340);
  stream.Close();
  script.join();
}
