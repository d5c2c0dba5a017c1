#define LOG_MODULE "./src/netSocket"
#include "netSocket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <netdb.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "clock.h"
#include "device.h"
#include "log.h"

namespace ns_net {

// ---------------------------------------------------------------------------------------------
// Addresses and waits

namespace {
// A server on a busy machine answers within this much real time, whatever the clock.
constexpr int kPeerAnswerGraceMs = 200;
}  // namespace

netAddress::netAddress() { memset(static_cast<void*>(this), 0, sizeof(*this)); }

socklen_t netAddress::length() const {
  return family() == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

uint16_t netAddress::port() const { return ntohs(family() == AF_INET6 ? v6.sin6_port : v4.sin_port); }

bool netAddress::operator==(const netAddress& other) const {
  if (family() != other.family()) return false;
  if (family() == AF_INET6)
    return v6.sin6_port == other.v6.sin6_port &&
           memcmp(&v6.sin6_addr, &other.v6.sin6_addr, sizeof(v6.sin6_addr)) == 0;
  return v4.sin_port == other.v4.sin_port && v4.sin_addr.s_addr == other.v4.sin_addr.s_addr;
}

int waitDescriptor(int fd, bool forWrite, int32_t timeoutMs) {
  pollfd pfd{fd, static_cast<short>(forWrite ? POLLOUT : POLLIN), 0};
  return serviceClock().poll(&pfd, 1, timeoutMs, kPeerAnswerGraceMs);
}

// ---------------------------------------------------------------------------------------------
// netSocket

netSocket::~netSocket() { Close(); }

bool netSocket::Create(int family, int type, int protocol) {
  if (!LOG_CHECK(m_hSocket == INVALID_SOCKET)) return false;
  // Close-on-exec: the service runs shell commands, which must not inherit a transfer.
  m_hSocket = socket(family, type | SOCK_CLOEXEC, protocol);
  return m_hSocket != INVALID_SOCKET;
}

bool netSocket::Bind(const netAddress& address) {
  return bind(m_hSocket, &address.sa, address.length()) == 0;
}

bool netSocket::SetBlocking(int32_t handle, bool blocking) {
  int flags = fcntl(handle, F_GETFL);
  if (flags == -1) return false;
  flags = blocking ? (flags & ~O_NONBLOCK) : (flags | O_NONBLOCK);
  return fcntl(handle, F_SETFL, flags) != -1;
}

bool netSocket::Connect(int32_t handle, const netAddress& address, int32_t timeoutMs) {
  if (connect(handle, &address.sa, address.length()) == 0) return true;
  if (errno == EISCONN) return true;
  if (errno != EALREADY && errno != EINPROGRESS) return false;
  if (waitDescriptor(handle, true, timeoutMs) <= 0) return false;
  int pending = 0;
  socklen_t length = sizeof(pending);
  return getsockopt(handle, SOL_SOCKET, SO_ERROR, &pending, &length) == 0 && pending == 0;
}

void netSocket::Close() {
  if (m_hSocket == INVALID_SOCKET) return;
  std::string lastError = brisaTransLastError();
  if (close(m_hSocket) == -1) LOG_WAR("%s", lastError.c_str());
  m_hSocket = INVALID_SOCKET;
  m_bIsConnected = false;
}

void netSocket::Shutdown(int32_t handle) { shutdown(handle, SHUT_RDWR); }

bool netSocket::IsIPv4Text(const char* lpszIPv4) {
  if (!LOG_CHECK(lpszIPv4 != NULL)) return false;
  for (const char* p = lpszIPv4; *p; ++p)
    if (!((*p >= '0' && *p <= '9') || *p == '.')) return false;
  unsigned parts[4];
  char tail = 0;
  // The tail catches a fifth group or anything after the fourth number.
  if (sscanf(lpszIPv4, "%u.%u.%u.%u%c", &parts[0], &parts[1], &parts[2], &parts[3], &tail) != 4) return false;
  for (unsigned part : parts)
    if (part > 255) return false;
  return true;
}

bool netSocket::SetAddress(netAddress& address, const char* lpszIP, uint16_t port) {
  if (!LOG_CHECK(lpszIP != NULL)) return false;
  address = netAddress();
  std::string text(lpszIP);
  if (text.find(':') != std::string::npos) {
    if (text.size() >= 2 && text.front() == '[' && text.back() == ']') text = text.substr(1, text.size() - 2);
    if (inet_pton(AF_INET6, text.c_str(), &address.v6.sin6_addr) != 1) return false;
    address.v6.sin6_family = AF_INET6;
    address.v6.sin6_port = htons(port);
    return true;
  }
  in_addr_t ip = inet_addr(text.c_str());
  // inet_addr answers all-ones for bad text, so 255.255.255.255 is refused as well: never a server.
  if (ip == INADDR_NONE) return false;
  address.v4.sin_family = AF_INET;
  address.v4.sin_addr.s_addr = ip;
  address.v4.sin_port = htons(port);
  return true;
}

std::string netSocket::AddressToText(const netAddress& address) {
  char text[INET6_ADDRSTRLEN + 16] = {0};
  if (address.family() == AF_INET6) {
    char ip[INET6_ADDRSTRLEN] = {0};
    inet_ntop(AF_INET6, &address.v6.sin6_addr, ip, sizeof(ip));
    snprintf(text, sizeof(text), "[%s]:%d", ip, ntohs(address.v6.sin6_port));
  } else {
    char ip[INET_ADDRSTRLEN] = {0};
    inet_ntop(AF_INET, &address.v4.sin_addr, ip, sizeof(ip));
    snprintf(text, sizeof(text), "%s:%d", ip, ntohs(address.v4.sin_port));
  }
  return text;
}

bool netSocket::IsIPText(const std::string& text) {
  in_addr v4;
  if (inet_pton(AF_INET, text.c_str(), &v4) == 1) return true;
  return IsValidIPV6(text);
}

std::vector<std::string> netSocket::ResolveHost(const std::string& hostName) {
  std::vector<std::string> list;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* results = nullptr;
  // getaddrinfo rather than gethostbyname: the plug-and-play thread resolves at the same time.
  if (getaddrinfo(hostName.c_str(), nullptr, &hints, &results) != 0) return list;
  for (addrinfo* r = results; r; r = r->ai_next) {
    char ip[INET_ADDRSTRLEN] = {0};
    inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(r->ai_addr)->sin_addr, ip, sizeof(ip));
    list.push_back(ip);
  }
  freeaddrinfo(results);
  return list;
}

std::vector<std::string> netSocket::ListLocalAddresses() {
  std::vector<std::string> list;
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return list;
  ifreq requests[32];
  ifconf config{};
  config.ifc_len = sizeof(requests);
  config.ifc_req = requests;
  if (ioctl(fd, SIOCGIFCONF, &config) == 0) {
    int count = config.ifc_len / static_cast<int>(sizeof(ifreq));
    for (int i = 0; i < count; ++i) {
      char ip[INET_ADDRSTRLEN] = {0};
      inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(&requests[i].ifr_addr)->sin_addr, ip, sizeof(ip));
      list.push_back(ip);
    }
  }
  close(fd);
  return list;
}

// ---------------------------------------------------------------------------------------------
// netSocketUDP

bool netSocketUDP::Open(const char* ipText, uint16_t port) {
  netAddress local;
  if (!SetAddress(local, ipText, port)) return false;
  if (!Create(local.family(), SOCK_DGRAM, 0)) return false;
  if (!Bind(local)) {
    Close();
    return false;
  }
  return true;
}

bool netSocketUDP::SendTo(const void* buffer, int32_t size, const netAddress& address) {
  if (buffer == nullptr || size <= 0) return true;
  ssize_t sent = sendto(m_hSocket, buffer, static_cast<size_t>(size), 0, &address.sa, address.length());
  if (sent == size) return true;
  if (waitDescriptor(m_hSocket, true, 1000) < 0) LOG_WAR("select error : [%s]", brisaTransLastError().c_str());
  return false;
}

int netSocketUDP::WaitReadable(int32_t timeoutMs) {
  if (!LOG_CHECK(m_hSocket != INVALID_SOCKET)) return -1;
  int ready = waitDescriptor(m_hSocket, false, timeoutMs);
  if (ready == -1) LOG_WAR("select error : [%s]", brisaTransLastError().c_str());
  return ready;
}

int netSocketUDP::ReceiveFrom() {
  if (!LOG_CHECK(m_hSocket != INVALID_SOCKET)) return -1;
  m_receive.resize(kMaxReceiveSize);
  // The whole storage is offered, not just an IPv4 address' 16 bytes: an IPv6 sender must come
  // back intact, because the TFTP client compares it with the transfer's server.
  socklen_t nAddrSize = sizeof(m_sender);
  ssize_t n = recvfrom(m_hSocket, m_receive.data(), kMaxReceiveSize, 0, &m_sender.sa, &nAddrSize);
  m_receive.resize(n > 0 ? static_cast<size_t>(n) : 0);
  LOG_CHECK(nAddrSize == sizeof(sockaddr) || nAddrSize == sizeof(sockaddr_in6));
  if (n == 0) LOG_WAR("sockRecvFrom = 0 byte");
  return static_cast<int>(n);
}

int netSocketUDP::ReceiveFromTimed(int32_t timeoutMs) {
  int ready = WaitReadable(timeoutMs);
  if (ready <= 0) return ready;
  return ReceiveFrom();
}

// ---------------------------------------------------------------------------------------------
// netSocketTCP

bool netSocketTCP::Connect(const netAddress& address, int32_t timeoutMs) {
  if (!LOG_CHECK(!m_bIsConnected && m_hSocket != INVALID_SOCKET)) return false;
  m_bIsConnected = netSocket::Connect(m_hSocket, address, timeoutMs);
  return m_bIsConnected;
}

bool netSocketTCP::CreateStream(int family) {
  if (!Create(family, SOCK_STREAM, 0)) return false;
  return SetBlocking(m_hSocket, false);
}

bool netSocketTCP::OpenListener(const char* ipText, uint16_t port) {
  netAddress local;
  if (!SetAddress(local, ipText, port)) return false;
  if (!CreateStream(local.family())) return false;
  int reuse = 1;
  setsockopt(m_hSocket, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
  if (!Bind(local)) {
    std::string error = brisaTransLastError();
    Close();
    LOG_WAR("CreateSocket fail:%s", error.c_str());
    return false;
  }
  return true;
}

bool netSocketTCP::Listen(int backlog) {
  if (!LOG_CHECK(m_hSocket != INVALID_SOCKET)) return false;
  listen(m_hSocket, backlog);
  return true;
}

bool netSocketTCP::Accept(netSocketTCP& sockClient, netAddress& address, int32_t timeoutMs) {
  if (!LOG_CHECK(m_hSocket != INVALID_SOCKET)) return false;
  if (!LOG_CHECK(sockClient.m_hSocket == INVALID_SOCKET)) return false;
  int ready = waitDescriptor(m_hSocket, false, timeoutMs);
  if (ready > 0) {
    socklen_t length = address.family() == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    int client = accept4(m_hSocket, &address.sa, &length, SOCK_CLOEXEC);
    if (client != -1) {
      sockClient.m_hSocket = client;
      SetBlocking(client, false);
      sockClient.m_bIsConnected = true;
      return true;
    }
  }
  if (ready < 0)
    LOG_WAR("accpetSelect error : [%s]", brisaTransLastError().c_str());
  else
    LOG_IFO("accpetSelect error : [%s]", brisaTransLastError().c_str());
  return false;
}

bool netSocketTCP::Send(const void* pBuffer, int32_t nSize) {
  LOG_CHECK_ERR(pBuffer != NULL && nSize > 0);
  if (!LOG_CHECK(m_hSocket != INVALID_SOCKET)) return false;
  if (pBuffer == NULL || nSize <= 0) return false;
  const uint8_t* cursor = static_cast<const uint8_t*>(pBuffer);
  int32_t remaining = nSize;
  while (m_bIsConnected && remaining > 0) {
    // MSG_NOSIGNAL: a peer that closed must end the send, not the process.
    ssize_t sent = send(m_hSocket, cursor, static_cast<size_t>(remaining), MSG_NOSIGNAL);
    if (sent != -1) {
      cursor += sent;
      remaining -= static_cast<int32_t>(sent);
      continue;
    }
    if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return false;
    int retSelect = waitDescriptor(m_hSocket, true, kSendStallMs);
    LOG_CHECK(retSelect > 0);
    if (retSelect == -1) {
      LOG_WAR("select error : [%s]", brisaTransLastError().c_str());
      return false;
    }
    if (retSelect == 0) return false;  // the peer stopped taking data
  }
  return remaining == 0;
}

int netSocketTCP::WaitReadable(int32_t timeoutMs) {
  if (!LOG_CHECK(m_hSocket != INVALID_SOCKET)) return -1;
  int ready = waitDescriptor(m_hSocket, false, timeoutMs);
  if (ready == -1) LOG_WAR("select error : [%s]", brisaTransLastError().c_str());
  return ready;
}

int netSocketTCP::Receive(int32_t nReceiveSize) {
  if (!LOG_CHECK(m_hSocket != INVALID_SOCKET)) return 0;
  if (!LOG_CHECK_ERR(nReceiveSize > 0 || nReceiveSize == -1)) return 0;
  int32_t request = (nReceiveSize == -1 || nReceiveSize > kMaxReceiveSize) ? kMaxReceiveSize : nReceiveSize;
  m_receive.resize(static_cast<size_t>(request));
  ssize_t n = recv(m_hSocket, m_receive.data(), static_cast<size_t>(request), 0);
  m_receive.resize(n > 0 ? static_cast<size_t>(n) : 0);
  if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return 0;  // nothing yet
  if (n < 1) {
    std::string error = brisaTransLastError();
    m_bIsConnected = false;
    Shutdown(m_hSocket);
    if (n == -1)
      LOG_WAR("sockRecv error : [%s]", error.c_str());
    else
      LOG_DEB("sockRecv error : [%s]", error.c_str());
    return 0;
  }
  m_stream.append(m_receive.data(), static_cast<size_t>(n));
  return static_cast<int>(n);
}

int netSocketTCP::ReceiveTimed(int32_t maxSize, int32_t timeoutMs) {
  int ready = WaitReadable(timeoutMs);
  if (ready <= 0) return ready;
  return Receive(maxSize);
}

int netSocketTCP::ReadExact(void* destination, int32_t iOffset, int32_t nPacketSize, int32_t timeoutMs) {
  LOG_CHECK(iOffset >= 0 && nPacketSize > 0);
  if (iOffset < 0 || (nPacketSize <= 0 && nPacketSize != -1)) return 0;
  int32_t size = (nPacketSize == -1 || nPacketSize > kMaxReceiveSize) ? kMaxReceiveSize : nPacketSize;
  chTimeout clock(timeoutMs);
  auto missing = [&]() -> int64_t {
    return static_cast<int64_t>(iOffset) + size - static_cast<int64_t>(m_stream.size());
  };
  while (m_bIsConnected && missing() > 0 && !clock.IsTimeout()) {
    int got = ReceiveTimed(static_cast<int32_t>(missing()), clock.GetLeftMillisecond());
    // A spurious wake-up reads nothing while the connection stays up: wait again.
    if (got < 0 || (got == 0 && !m_bIsConnected)) break;
  }
  if (missing() > 0) return 0;
  if (destination) memcpy(destination, m_stream.data() + iOffset, static_cast<size_t>(size));
  return size;
}

bool netSocketTCP::SendPacket(const void* buffer, int32_t size) {
  uint8_t prefix[4] = {static_cast<uint8_t>(size >> 24), static_cast<uint8_t>(size >> 16),
                       static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size)};
  bool bOK = Send(prefix, 4);
  bOK = bOK && Send(buffer, size);
  LOG_CHECK(bOK);
  return bOK;
}

bool netSocketTCP::ReceivePacket(byteArray& out, int32_t timeoutMs) {
  uint8_t prefix[4];
  if (ReadExact(prefix, 0, 4, timeoutMs) != 4) return false;
  int32_t nPacketSize = static_cast<int32_t>((static_cast<uint32_t>(prefix[0]) << 24) |
                                             (static_cast<uint32_t>(prefix[1]) << 16) |
                                             (static_cast<uint32_t>(prefix[2]) << 8) | prefix[3]);
  if (!LOG_CHECK(nPacketSize > 0 && nPacketSize < 10 * 1024 * 1024)) return false;
  out.resize(static_cast<size_t>(nPacketSize));
  // The stream buffer must hold prefix and payload; ReadExact caps one call at 64 KiB, so larger
  // packets are gathered in steps.
  int32_t done = 0;
  while (done < nPacketSize) {
    int32_t step = nPacketSize - done > kMaxReceiveSize ? kMaxReceiveSize : nPacketSize - done;
    if (ReadExact(out.data() + done, 4 + done, step, timeoutMs) != step) return false;
    done += step;
  }
  m_stream.consumeFront(4 + static_cast<size_t>(nPacketSize));
  return true;
}

void netSocketTCP::Disconnect() {
  if (!m_bIsConnected) return;
  Shutdown(m_hSocket);
  chTimeout clock(2000);
  while (m_bIsConnected && !clock.IsTimeout()) {
    if (WaitReadable(clock.GetLeftMillisecond()) > 0) Receive(-1);
    brisaSwitchToThread();
  }
  LOG_CHECK(!m_bIsConnected);
  m_bIsConnected = false;
}

bool netSocketTCP::LocalAddress(netAddress& out) const {
  socklen_t length = sizeof(out);
  return getsockname(m_hSocket, &out.sa, &length) == 0;
}

}  // namespace ns_net
