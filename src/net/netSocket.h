// Sockets of the network layer: thin wrappers over the BSD calls for the TFTP client (datagrams),
// the FTP client (control and data streams) and the plug-and-play manager (multicast datagrams).
// Nothing here throws; every call returns a flag or a count and reports failures to the log.
//
// Waits are poll() calls on the descriptor, bounded by the time-out given. They follow the service
// clock: with the fake clock of the tests a wait that sees nothing takes at most 200 ms of real
// time and then moves the clock on by the whole time-out, so retry ladders of half a minute cost a
// second while real servers on a busy machine still have time to answer.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <vector>

#include "byteArray.h"

namespace ns_net {

constexpr int32_t INVALID_SOCKET = -1;
// The most one receive call reads.
constexpr int32_t kMaxReceiveSize = 65536;

// An IPv4 or IPv6 socket address. Its system length is 28 for family 10 and 16 otherwise.
struct netAddress {
  union {
    sockaddr sa;
    sockaddr_in v4;
    sockaddr_in6 v6;
  };
  netAddress();
  int family() const { return sa.sa_family; }
  socklen_t length() const;
  uint16_t port() const;  // host order
  // Same family, address and port.
  bool operator==(const netAddress& other) const;
  bool operator!=(const netAddress& other) const { return !(*this == other); }
};

// Waits until `fd` is readable (or writable). >0 ready, 0 time-out, -1 error. A negative time-out
// waits without limit; the network layer itself always passes a bound.
int waitDescriptor(int fd, bool forWrite, int32_t timeoutMs);

// Owns one socket handle; closes it on destruction.
class netSocket {
 public:
  netSocket() = default;
  virtual ~netSocket();
  netSocket(const netSocket&) = delete;
  netSocket& operator=(const netSocket&) = delete;

  bool Create(int family, int type, int protocol);
  bool Bind(const netAddress& address);
  void Close();
  static bool SetBlocking(int32_t handle, bool blocking);
  // Non-blocking connect bounded by timeoutMs.
  static bool Connect(int32_t handle, const netAddress& address, int32_t timeoutMs);
  static void Shutdown(int32_t handle);

  static bool IsIPv4Text(const char* lpszIPv4);
  static bool SetAddress(netAddress& address, const char* lpszIP, uint16_t port);
  static std::string AddressToText(const netAddress& address);
  static bool IsIPText(const std::string& text);
  static std::vector<std::string> ResolveHost(const std::string& hostName);
  static std::vector<std::string> ListLocalAddresses();

  int32_t handle() const { return m_hSocket; }
  bool IsConnected() const { return m_bIsConnected; }

 protected:
  int32_t m_hSocket = INVALID_SOCKET;
  bool m_bIsConnected = false;
};

// Datagram socket: send to an address, receive one datagram with its sender.
class netSocketUDP : public netSocket {
 public:
  bool Open(const char* ipText, uint16_t port);
  bool SendTo(const void* buffer, int32_t size, const netAddress& address);
  int WaitReadable(int32_t timeoutMs);
  int ReceiveFrom();
  int ReceiveFromTimed(int32_t timeoutMs);

  const byteArray& ReceiveBuffer() const { return m_receive; }
  const netAddress& LastSender() const { return m_sender; }

 protected:
  byteArray m_receive;
  netAddress m_sender;
};

// Stream socket: connect with a time-out, listen/accept, send all, timed receives into a stream
// buffer from which exact-size reads and length-prefixed packets are taken.
class netSocketTCP : public netSocket {
 public:
  bool Connect(const netAddress& address, int32_t timeoutMs);
  bool CreateStream(int family);
  bool OpenListener(const char* ipText, uint16_t port);
  bool Listen(int backlog);
  bool Accept(netSocketTCP& sockClient, netAddress& address, int32_t timeoutMs);
  bool Send(const void* pBuffer, int32_t nSize);
  int WaitReadable(int32_t timeoutMs);
  int Receive(int32_t nReceiveSize);
  int ReceiveTimed(int32_t maxSize, int32_t timeoutMs);
  int ReadExact(void* destination, int32_t iOffset, int32_t nPacketSize, int32_t timeoutMs);
  bool SendPacket(const void* buffer, int32_t size);
  bool ReceivePacket(byteArray& out, int32_t timeoutMs);
  void Disconnect();

  byteArray& StreamBuffer() { return m_stream; }
  const byteArray& ReceiveBuffer() const { return m_receive; }
  // The bound local address (for the FTP active mode's PORT command).
  bool LocalAddress(netAddress& out) const;

 protected:
  // Longest wait for a peer that stops taking data during Send; it is then taken as gone.
  static constexpr int32_t kSendStallMs = 30000;
  byteArray m_receive;
  byteArray m_stream;
};

}  // namespace ns_net
