// Scripted peers for the network tests: small UDP and TCP endpoints on 127.0.0.1 that a test drives
// from a thread of its own, to play servers that misbehave on cue.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "fileStream.h"

namespace net_test {

inline sockaddr_in loopback(uint16_t port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return a;
}

inline bool readable(int fd, int timeoutMs) {
  pollfd pfd{fd, POLLIN, 0};
  return poll(&pfd, 1, timeoutMs) > 0;
}

// A socket of `type` bound to a free port on 127.0.0.1.
inline int boundSocket(int type, uint16_t& port) {
  int fd = socket(AF_INET, type, 0);
  sockaddr_in a = loopback(0);
  socklen_t len = sizeof(a);
  bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  port = ntohs(a.sin_port);
  return fd;
}

class UdpPeer {
 public:
  UdpPeer() : fd_(boundSocket(SOCK_DGRAM, port_)) {}
  ~UdpPeer() { close(fd_); }
  UdpPeer(const UdpPeer&) = delete;
  UdpPeer& operator=(const UdpPeer&) = delete;

  uint16_t port() const { return port_; }
  // One datagram within timeoutMs of real time; false when none came.
  bool receive(std::string& data, sockaddr_in& from, int timeoutMs = 5000) {
    if (!readable(fd_, timeoutMs)) return false;
    char buffer[2048];
    socklen_t len = sizeof(from);
    ssize_t n = recvfrom(fd_, buffer, sizeof(buffer), 0, reinterpret_cast<sockaddr*>(&from), &len);
    if (n < 0) return false;
    data.assign(buffer, static_cast<size_t>(n));
    return true;
  }
  void sendTo(const std::string& data, const sockaddr_in& to) {
    sendto(fd_, data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
  }

 private:
  uint16_t port_ = 0;  // set while fd_ is made, so declared first
  int fd_;
};

inline std::string be16(uint16_t v) { return std::string{static_cast<char>(v >> 8), static_cast<char>(v & 0xff)}; }
inline std::string tftpData(uint16_t block, const std::string& bytes) { return be16(3) + be16(block) + bytes; }
inline std::string tftpAck(uint16_t block) { return be16(4) + be16(block); }
inline std::string tftpError(uint16_t code, const std::string& text) { return be16(5) + be16(code) + text + '\0'; }
inline std::string tftpRequest(const std::string& name) { return be16(1) + name + '\0' + "octet" + '\0'; }

// A TCP listener on 127.0.0.1 and the connections it accepts.
class TcpPeer {
 public:
  TcpPeer() : listenFd_(boundSocket(SOCK_STREAM, port_)) { listen(listenFd_, 4); }
  ~TcpPeer() { close(listenFd_); }
  TcpPeer(const TcpPeer&) = delete;
  TcpPeer& operator=(const TcpPeer&) = delete;
  uint16_t port() const { return port_; }
  // An accepted connection, -1 when none came in time.
  int accept(int timeoutMs = 5000) {
    return readable(listenFd_, timeoutMs) ? ::accept(listenFd_, nullptr, nullptr) : -1;
  }

 private:
  uint16_t port_ = 0;  // set while listenFd_ is made, so declared first
  int listenFd_;
};

inline void sendText(int fd, const std::string& text) { send(fd, text.data(), text.size(), MSG_NOSIGNAL); }

// Reads one "\r\n"-terminated line (without it); "" on close or time-out.
inline std::string readLine(int fd, int timeoutMs = 5000) {
  std::string line;
  char c;
  while (readable(fd, timeoutMs) && recv(fd, &c, 1, 0) == 1) {
    if (c == '\n') {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      return line;
    }
    line += c;
  }
  return line;
}

// Reads one request's header block (its lines up to the empty one).
inline std::string readRequest(int fd) {
  std::string request;
  for (std::string line; !(line = readLine(fd)).empty();) request += line + "\r\n";
  return request;
}

// One scripted FTP control connection; `commands` keeps every line the client sent.
struct FtpSession {
  int fd = -1;
  std::vector<std::string> commands;
  std::string expect() {
    commands.push_back(readLine(fd));
    return commands.back();
  }
  void reply(const std::string& text) { sendText(fd, text); }
};

inline std::string pasvReply(uint16_t port) {
  return "227 Entering Passive Mode (127,0,0,1," + std::to_string(port / 256) + "," + std::to_string(port % 256) +
         ").\r\n";
}

// Opens `url` and saves it to /tmp/out: the bytes written, or -1 when it did not parse or open.
inline int downloadToOut(const std::string& url, ns_net::fileDownload& d, int32_t timeoutMs = -1) {
  ns_net::autopUrl parsed;
  if (!parsed.Parse(url) || !d.OpenDownloadStream(parsed, timeoutMs)) return -1;
  int n = d.DownloadToFile("/tmp/out", false);
  d.Close();
  return n;
}

}  // namespace net_test
