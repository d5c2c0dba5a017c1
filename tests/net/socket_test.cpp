// The socket layer: address texts, the edges around sends and receives, their limits, packets.
#include <gtest/gtest.h>

#include <thread>
#include <tuple>

#include "netPeers.h"
#include "netSocket.h"
#include "testRoot.h"

using namespace net_test;
using ns_net::byteArray;
using ns_net::netAddress;
using ns_net::netSocket;
using ns_net::netSocketTCP;
using ns_net::netSocketUDP;

namespace {

TEST(NetSocket, AddressTexts) {
  for (const char* ipv4 : {"0.0.0.0", "192.168.1.255"}) EXPECT_TRUE(netSocket::IsIPv4Text(ipv4)) << ipv4;
  for (const char* bad : {"192.168.1.256", "1.2.3", "1.2.3.4 ", "1.2.3.4.5", "a.b.c.d"})
    EXPECT_FALSE(netSocket::IsIPv4Text(bad)) << bad;
  for (const char* ip : {"127.0.0.1", "2001:db8::1"}) EXPECT_TRUE(netSocket::IsIPText(ip)) << ip;
  for (const char* bad : {"localhost", "[::1]"}) EXPECT_FALSE(netSocket::IsIPText(bad)) << bad;

  // text and port in, family, length and text form out
  const std::tuple<const char*, uint16_t, int, size_t, const char*> addresses[] = {
      {"10.0.0.5", 5001, AF_INET, 16, "10.0.0.5:5001"},
      {"[fe80::1]", 69, AF_INET6, 28, "[fe80::1]:69"},
      {"::1", 21, AF_INET6, 28, "[::1]:21"}};
  netAddress a;
  for (const auto& [text, port, family, length, shown] : addresses) {
    ASSERT_TRUE(netSocket::SetAddress(a, text, port)) << text;
    EXPECT_EQ(std::make_tuple(a.family(), a.length(), a.port(), netSocket::AddressToText(a)),
              std::make_tuple(family, length, port, std::string(shown)));
  }
  EXPECT_FALSE(netSocket::SetAddress(a, "not an address", 1));
  EXPECT_FALSE(netSocket::SetAddress(a, "fe80::zz", 1));
}

// Sends and receives themselves are what every download does; here the edges around them.
TEST(NetSocket, EdgesOfSendsAndReceivesAndPackets) {
  netSocketUDP udp;
  ASSERT_TRUE(udp.Open("127.0.0.1", 0));
  netAddress address;
  {
    FakeClock fake;
    testing_support::ScopedClock useFake(fake);
    EXPECT_EQ(udp.ReceiveFromTimed(3000), 0);
    EXPECT_EQ(fake.elapsedMs(), 3000u) << "a silent wait moves the fake clock by the whole time-out";
  }

  netSocketTCP idle, client;
  ASSERT_TRUE(idle.CreateStream(AF_INET) && client.CreateStream(AF_INET));
  netSocket::SetAddress(address, "127.0.0.1", static_cast<uint16_t>(testing_support::freePort()));
  EXPECT_FALSE(idle.Connect(address, 2000)) << "nobody listens";
  EXPECT_FALSE(idle.IsConnected());

  TcpPeer peer;
  netSocket::SetAddress(address, "127.0.0.1", peer.port());
  ASSERT_TRUE(client.Connect(address, 5000));
  int server = peer.accept();
  ASSERT_GE(server, 0);
  // Receive(-1) and Receive(100000) read at most 65,536 bytes each.
  std::string big(200000, 'b');
  std::thread writer([&] { sendText(server, big); });
  for (size_t total = 0, n; total < big.size(); total += n) {
    n = static_cast<size_t>(client.ReceiveTimed(total % 2 ? -1 : 100000, 5000));
    ASSERT_TRUE(n > 0 && n <= 65536) << n;
  }
  writer.join();
  client.StreamBuffer().clear();

  // A length-prefixed packet of 10,485,760 bytes is refused from its prefix, without waiting for it.
  sendText(server, std::string("\0\xa0\0\0", 4));
  byteArray packet;
  testing_support::LogCapture log;
  EXPECT_FALSE(client.ReceivePacket(packet, 5000));
  EXPECT_TRUE(log.contains("Assertion failed : nPacketSize > 0 && nPacketSize < 10 * 1024 * 1024"));
  client.StreamBuffer().clear();

  // A close by the peer ends the connection; a further read fails.
  close(server);
  char byte;
  EXPECT_EQ(client.ReadExact(&byte, 0, 1, 5000), 0);
  EXPECT_FALSE(client.IsConnected());
}

}  // namespace
