// What is TFTP's own, against scripted servers: the transfer identifier of the server, duplicated
// and lost blocks, runt datagrams, silence before and during a transfer, long names.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "fileStream.h"
#include "netPeers.h"
#include "testRoot.h"
#include "tftpStream.h"

using namespace net_test;
using ns_net::fileDownload;
using testing_support::LogCapture;

namespace {

// Socket waits take at most 200 ms of real time on the fake clock, then the clock moves on.
class TftpScripted : public testing_support::RootedTest {
 protected:
  // Downloads tftp://127.0.0.1:<port>/<name> to /tmp/out; the bytes written (0 when it broke).
  int download(uint16_t port, const std::string& name, fileDownload& d, int32_t timeoutMs = -1) {
    return downloadToOut("tftp://127.0.0.1:" + std::to_string(port) + "/" + name, d, timeoutMs);
  }
  LogCapture log;
};

// The server's side of the read request for `name`: the client's address.
sockaddr_in awaitRequest(UdpPeer& server, const std::string& name = "f") {
  std::string packet;
  sockaddr_in client{};
  EXPECT_TRUE(server.receive(packet, client));
  EXPECT_EQ(packet, tftpRequest(name));
  return client;
}

// The server's side of one block: send it from `peer` and check the client acknowledges it.
void sendBlock(UdpPeer& peer, sockaddr_in& client, uint16_t block, const std::string& bytes) {
  std::string packet;
  peer.sendTo(tftpData(block, bytes), client);
  ASSERT_TRUE(peer.receive(packet, client));
  EXPECT_EQ(packet, tftpAck(block)) << "after block " << block;
}

TEST_F(TftpScripted, AcksGoToTheTransferPortAndStrangersAreRefused) {
  UdpPeer server;    // the well-known port: only the request may arrive here
  UdpPeer transfer;  // the port the server answers from
  UdpPeer stranger;
  std::string a(512, 'a'), b(512, 'b');
  std::thread script([&] {
    std::string packet;
    sockaddr_in client = awaitRequest(server, "dir/k1.cfg"), from{};
    sendBlock(transfer, client, 1, a);
    stranger.sendTo(tftpData(2, "forged"), client);
    ASSERT_TRUE(stranger.receive(packet, from));
    EXPECT_EQ(packet, tftpError(5, "Unknown transfer ID"));
    sendBlock(transfer, client, 2, b);
    sendBlock(transfer, client, 3, "");  // the empty block ends it and is acknowledged too
    EXPECT_FALSE(server.receive(packet, from, 50)) << "nothing may go to the request port after block 1";
  });
  fileDownload d;
  EXPECT_EQ(download(server.port(), "dir/k1.cfg", d), 1024);
  script.join();
  EXPECT_EQ(root->read("/tmp/out"), a + b);
  const std::string text = log.text();
  EXPECT_NE(text.find("IFO file end"), std::string::npos);
  EXPECT_EQ(text.find("IFO file end"), text.rfind("IFO file end")) << "the end is seen once";
}

TEST_F(TftpScripted, DuplicatedAndLostBlocksAreRecovered) {
  UdpPeer server, transfer;
  std::string a(512, 'x'), tail(100, 'y');
  std::thread script([&] {
    sockaddr_in client = awaitRequest(server);
    sendBlock(transfer, client, 1, a);
    sendBlock(transfer, client, 1, a);  // a duplicate: the same acknowledgement is sent again
    // Block 2 is "lost": say nothing until the client asks a third time.
    std::string packet;
    ASSERT_TRUE(transfer.receive(packet, client));
    EXPECT_EQ(packet, tftpAck(1));
    sendBlock(transfer, client, 2, tail);
  });
  fileDownload d;
  EXPECT_EQ(download(server.port(), "f", d), 612);
  script.join();
  EXPECT_EQ(root->read("/tmp/out"), a + tail);
  EXPECT_TRUE(log.contains("IFO Received unexpert clip index 1 at 2"));
  EXPECT_TRUE(log.contains("IFO Receive 2000ms timeout at 2.."));
}

TEST_F(TftpScripted, RuntDatagramFailsTheOpen) {
  UdpPeer server;
  std::thread script([&] {
    sockaddr_in client = awaitRequest(server);
    server.sendTo(std::string("\0\3\0", 3), client);
  });
  fileDownload d;
  EXPECT_EQ(download(server.port(), "f", d), -1);
  script.join();
  EXPECT_TRUE(log.contains("WAR Receive length less 4 bytes"));
}

TEST_F(TftpScripted, SilenceDoublesTheWaitUpToTheTimeOut) {
  UdpPeer server;
  std::atomic<bool> done{false};
  int requests = 0;
  std::thread script([&] {
    std::string packet;
    sockaddr_in client{};
    while (!done)
      if (server.receive(packet, client, 20)) requests += packet == tftpRequest("f") ? 1 : 100;
  });
  fileDownload d;
  EXPECT_EQ(download(server.port(), "f", d), -1);
  done = true;
  script.join();
  EXPECT_EQ(requests, 5);
  for (int wait : {1000, 2000, 4000, 8000, 16000})
    EXPECT_TRUE(log.contains("IFO Receive " + std::to_string(wait) + "ms timeout at 1..")) << wait;
  EXPECT_EQ(fakeClock.elapsedMs(), 31000u);

  // A stream time-out below one second gives up before sending anything.
  ns_net::tftpStream stream;
  EXPECT_FALSE(stream.Open("127.0.0.1", server.port(), "f", 500));
  std::string packet;
  sockaddr_in from{};
  EXPECT_FALSE(server.receive(packet, from, 50)) << "nothing was sent";
}

TEST_F(TftpScripted, SilenceInTheMiddleIsABreak) {
  UdpPeer server;
  std::thread script([&] {
    sockaddr_in client = awaitRequest(server);
    server.sendTo(tftpData(1, std::string(512, 'q')), client);
    int acks = 0;
    for (std::string packet; server.receive(packet, client, 500);) ++acks;
    EXPECT_EQ(acks, 5);
  });
  fileDownload d;
  EXPECT_EQ(download(server.port(), "f", d, 16000), 0);
  script.join();
  EXPECT_TRUE(d.LastTransferBroken());
  EXPECT_TRUE(log.contains("Broken after 512 bytes"));
}

TEST_F(TftpScripted, NamesThatWouldOverrunTheRequestAreRefused) {
  UdpPeer server;
  ns_net::tftpStream tooLong;
  EXPECT_FALSE(tooLong.Open("127.0.0.1", server.port(), std::string(1016, 'n'), 16000));
  std::string packet;
  sockaddr_in from{};
  EXPECT_FALSE(server.receive(packet, from, 50));

  // The longest name that fits (1015 + 9 = 1024 bytes) goes out whole.
  std::thread script([&] { server.sendTo(tftpData(1, "short"), awaitRequest(server, std::string(1015, 'n'))); });
  ns_net::tftpStream longest;
  EXPECT_TRUE(longest.Open("127.0.0.1", server.port(), std::string(1015, 'n'), 16000));
  script.join();
  char buffer[16];
  EXPECT_EQ(longest.Read(buffer, 1, sizeof(buffer)), 5);
  EXPECT_EQ(longest.Read(buffer, 1, sizeof(buffer)), 0);
}

}  // namespace
