#define LOG_MODULE "./src/ftpStream"
#include "ftpStream.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "clock.h"
#include "log.h"

namespace ns_net {

namespace {

bool hasLineBreak(const std::string& text) { return text.find_first_of("\r\n") != std::string::npos; }

bool startsWith(const std::string& text, const char* prefix) { return text.compare(0, strlen(prefix), prefix) == 0; }

// The numbers of a reply text after its code, in order ("227 ... (10,0,0,5,19,137)" -> 10 0 0 5 19 137).
std::vector<long> numbersAfterCode(const std::string& reply) {
  std::vector<long> numbers;
  const char* p = reply.c_str() + (reply.size() > 3 ? 3 : reply.size());
  while (*p) {
    if (*p >= '0' && *p <= '9') {
      char* end = nullptr;
      long value = strtol(p, &end, 10);
      numbers.push_back(value);
      p = end;
    } else {
      ++p;
    }
  }
  return numbers;
}

bool isByte(long value) { return value >= 0 && value <= 255; }

}  // namespace

// ---------------------------------------------------------------------------------------------
// sockFTP

bool sockFTP::IsFinalLine(const std::string& line) {
  return line.size() >= 4 && line[0] >= '1' && line[0] <= '5' && line[1] >= '0' && line[1] <= '5' && line[2] >= '0' &&
         line[2] <= '9' && line[3] == ' ';
}

int sockFTP::ReplyCode(const std::string& line) {
  if (!IsFinalLine(line)) return 0;
  return (line[0] - '0') * 100 + (line[1] - '0') * 10 + (line[2] - '0');
}

bool sockFTP::SendCommand(const std::string& text) {
  std::string command = text;
  if (command.size() < 2 || command.compare(command.size() - 2, 2, "\r\n") != 0) command += "\r\n";
  return Send(command.data(), static_cast<int32_t>(command.size()));
}

bool sockFTP::TakeLine(std::string& line) {
  byteArray& buffer = StreamBuffer();
  const uint8_t* begin = buffer.data();
  const void* newline = buffer.empty() ? nullptr : memchr(begin, '\n', buffer.size());
  if (!newline) return false;
  size_t length = static_cast<size_t>(static_cast<const uint8_t*>(newline) - begin);
  line.assign(reinterpret_cast<const char*>(begin), length);
  if (!line.empty() && line.back() == '\r') line.pop_back();
  buffer.consumeFront(length + 1);
  return true;
}

std::string sockFTP::ReadReply() {
  chTimeout clock(m_replyTimeoutMs);
  std::string openingCode;  // set when the reply began with "ddd-"
  std::string line;
  for (;;) {
    if (TakeLine(line)) {
      if (openingCode.empty() && line.size() >= 4 && line[3] == '-' && ReplyCode(line.substr(0, 3) + " ") != 0)
        openingCode = line.substr(0, 3);
      if (IsFinalLine(line) && (openingCode.empty() || line.compare(0, 3, openingCode) == 0)) return line;
      continue;
    }
    // A line that never ends is no reply: a broken or hostile server.
    if (StreamBuffer().size() > kMaxReplyLine) return "";
    if (!m_bIsConnected || clock.IsTimeout()) return "";
    if (ReceiveTimed(-1, clock.GetLeftMillisecond()) < 0) return "";
  }
}

std::string sockFTP::ExecuteCommand(const std::string& text) {
  if (!SendCommand(text)) return "";
  return ReadReply();
}

// ---------------------------------------------------------------------------------------------
// ftpStream: opening

ftpStream::~ftpStream() = default;

bool ftpStream::Open(const std::string& host, uint16_t port, const std::string& user, const std::string& password,
                     const std::string& path) {
  // A line break in a name would smuggle a second command onto the control connection.
  if (hasLineBreak(user) || hasLineBreak(password) || hasLineBreak(path)) {
    LOG_WAR("FTP refused: line break in user, password or path");
    return false;
  }
  SetReplyTimeout(m_timeoutMs);
  m_size = -1;
  m_received = 0;
  m_completionChecked = false;
  m_retrieving = false;
  return ConnectControl(host, port) && Login(user, password) && StartRetrieval(path);
}

bool ftpStream::ConnectControl(const std::string& host, uint16_t port) {
  if (!SetAddress(m_serverAddress, host.c_str(), port) || !CreateStream(m_serverAddress.family()) ||
      !netSocketTCP::Connect(m_serverAddress, m_timeoutMs)) {
    LOG_WAR("FTP connect to [%s] fail", AddressToText(m_serverAddress).c_str());
    return false;
  }
  std::string greeting = ReadReply();
  if (ReplyCode(greeting) != 220) {
    LOG_WAR("FTP greeting [%s]", logEscaped(greeting).c_str());
    return false;
  }
  return true;
}

bool ftpStream::Login(const std::string& user, const std::string& password) {
  std::string name = user;
  std::string secret = password;
  if (name.empty() && secret.empty()) {
    name = "anonymous";
    secret = kAnonymousPassword;
  }
  std::string reply = ExecuteCommand("USER " + name);
  int replyClass = ReplyCode(reply) / 100;
  if (replyClass == 2) return true;
  if (replyClass == 3) {
    reply = ExecuteCommand("PASS " + secret);
    if (ReplyCode(reply) / 100 == 2) return true;
  }
  LOG_WAR("FTP login fail [%s]", logEscaped(reply).c_str());
  return false;
}

bool ftpStream::StartRetrieval(const std::string& path) {
  ExecuteCommand("TYPE I");
  std::string reply = ExecuteCommand("SIZE " + path + "\r\n");
  LOG_IFO("ExcuteCommandE [SIZE %s], ret = %s", logEscaped(path).c_str(), logEscaped(reply).c_str());
  if (reply.empty()) return false;
  m_size = SizeFromReply(reply);
  reply = ExecuteCommand("PASV\r\n");
  LOG_IFO("ExcuteCommandE [PASV], ret = %s", logEscaped(reply).c_str());
  // Active mode is for a server that refuses passive mode; an accepted passive mode whose data
  // connection fails ends the retrieval.
  bool dataReady = startsWith(reply, "227") ? ConnectPassive(reply) : PrepareActive();
  if (!dataReady) {
    LOG_WAR("connect data pipe fail");
    return false;
  }
  reply = ExecuteCommand("RETR " + path);
  if (ReplyCode(reply) / 100 != 1) {
    LOG_WAR("RETR fail");
    return false;
  }
  if (m_activeMode && !AcceptActive()) {
    LOG_WAR("connect data pipe fail");
    return false;
  }
  m_retrieving = true;
  return true;
}

int64_t ftpStream::SizeFromReply(const std::string& reply) {
  if (ReplyCode(reply) != 213) return -1;
  std::vector<long> numbers = numbersAfterCode(reply);
  return !numbers.empty() && numbers[0] >= 0 ? numbers[0] : -1;
}

bool ftpStream::PassiveAddress(const std::string& reply, const netAddress& server, netAddress& data) {
  data = server;
  if (server.family() == AF_INET6) {
    std::vector<long> numbers = numbersAfterCode(reply);
    if (numbers.size() < 2 || !isByte(numbers[numbers.size() - 2]) || !isByte(numbers.back())) return false;
    data.v6.sin6_port = htons(static_cast<uint16_t>(numbers[numbers.size() - 2] * 256 + numbers.back()));
    return true;
  }
  int n[6];
  if (sscanf(reply.c_str(), "%*[^(](%d,%d,%d,%d,%d,%d)", &n[0], &n[1], &n[2], &n[3], &n[4], &n[5]) != 6) return false;
  for (int v : n)
    if (!isByte(v)) return false;
  char ip[32];
  snprintf(ip, sizeof(ip), "%d.%d.%d.%d", n[0], n[1], n[2], n[3]);
  uint16_t dataPort = static_cast<uint16_t>(n[4] * 256 + n[5]);
  // A server that announces no address of its own (0.0.0.0) is reached at the control address.
  netAddress announced;
  if (strcmp(ip, "0.0.0.0") != 0 && SetAddress(announced, ip, dataPort))
    data = announced;
  else
    data.v4.sin_port = htons(dataPort);
  return true;
}

bool ftpStream::ConnectPassive(const std::string& reply) {
  netAddress data;
  if (!PassiveAddress(reply, m_serverAddress, data)) return false;
  m_activeMode = false;
  return m_dataSocket.CreateStream(data.family()) && m_dataSocket.Connect(data, m_timeoutMs);
}

bool ftpStream::PrepareActive() {
  m_dataSocket.Close();
  netAddress local;
  if (!LocalAddress(local)) return false;
  // The phone's own address as the server sees it: the local end of the control connection.
  std::string ip = AddressToText(local);
  ip = ip.substr(0, ip.rfind(':'));
  if (!ip.empty() && ip.front() == '[') ip = ip.substr(1, ip.size() - 2);
  m_listener.Close();
  if (!m_listener.OpenListener(ip.c_str(), kActiveDataPort) && !m_listener.OpenListener(ip.c_str(), 0)) return false;
  m_listener.Listen(1);
  netAddress bound;
  if (!m_listener.LocalAddress(bound)) return false;
  int high = bound.port() / 256;
  int low = bound.port() % 256;
  std::string reply;
  if (local.family() == AF_INET6) {
    reply = ExecuteCommand("EPRT |2|" + ip + "|" + std::to_string(bound.port()) + "|\r\n");
    LOG_IFO("ExcuteCommandE [EPRT |2|%s|%d|], ret = %s", ip.c_str(), bound.port(), logEscaped(reply).c_str());
  } else {
    std::string commaIp = ip;
    for (char& c : commaIp)
      if (c == '.') c = ',';
    // The standard form, without the parentheses some clients put around the numbers: servers
    // such as vsftpd answer those with "500 Illegal PORT command". The log keeps its old text.
    char command[96];
    snprintf(command, sizeof(command), "PORT %s,%d,%d\r\n", commaIp.c_str(), high, low);
    reply = ExecuteCommand(command);
    LOG_IFO("ExcuteCommandE [PORT (%s,%d,%d)], ret = %s", commaIp.c_str(), high, low, logEscaped(reply).c_str());
  }
  if (ReplyCode(reply) / 100 != 2) {
    m_listener.Close();
    return false;
  }
  m_activeMode = true;
  return true;
}

bool ftpStream::AcceptActive() {
  netAddress peer;
  peer.sa.sa_family = static_cast<sa_family_t>(m_serverAddress.family());
  bool accepted = m_listener.Accept(m_dataSocket, peer, m_timeoutMs);
  m_listener.Close();
  if (!accepted) return false;
  // Only the server may deliver the file: a connection from any other host is dropped.
  netAddress expected = peer;
  if (peer.family() == AF_INET6)
    memcpy(&expected.v6.sin6_addr, &m_serverAddress.v6.sin6_addr, sizeof(expected.v6.sin6_addr));
  else
    expected.v4.sin_addr = m_serverAddress.v4.sin_addr;
  if (peer.family() != m_serverAddress.family() || peer != expected) {
    LOG_WAR("FTP data connection from [%s] refused", AddressToText(peer).c_str());
    m_dataSocket.Close();
    return false;
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// ftpStream: reading

int ftpStream::Read(void* buffer, int elementSize, int count) {
  if (!buffer || elementSize <= 0 || count <= 0) return 0;
  int32_t wanted = elementSize * count;
  byteArray& data = m_dataSocket.StreamBuffer();
  if (m_dataSocket.IsConnected() && static_cast<int32_t>(data.size()) < wanted)
    m_dataSocket.ReadExact(nullptr, 0, wanted, m_timeoutMs);
  size_t bytes = static_cast<size_t>(wanted) < data.size() ? static_cast<size_t>(wanted) : data.size();
  size_t handed = bytes / static_cast<size_t>(elementSize);
  if (handed == 0) {
    if (m_dataSocket.IsConnected()) {
      MarkBroken(m_size >= 0 ? m_size - m_received : -1, "no data within " + std::to_string(m_timeoutMs) + " ms");
    } else {
      CheckCompletion();
    }
    return 0;
  }
  data.takeFront(buffer, handed * static_cast<size_t>(elementSize));
  m_received += static_cast<int64_t>(handed) * elementSize;
  return static_cast<int>(handed);
}

// The data connection closed: the file is whole only when all announced bytes came and the server
// confirmed the transfer. Anything else is a break, never the end of the file.
void ftpStream::CheckCompletion() {
  if (m_completionChecked) return;
  m_completionChecked = true;
  if (m_size >= 0 && m_received < m_size) {
    MarkBroken(m_size - m_received, "data connection closed early");
    return;
  }
  std::string reply = ReadReply();
  int code = ReplyCode(reply);
  if (code != 226 && code != 250) {
    std::string why =
        reply.empty() ? std::string("no transfer-complete reply") : "transfer not confirmed [" + reply + "]";
    MarkBroken(-1, why);
  }
}

// A retrieval left before its end (a firmware header check reads 340 bytes of an image) is
// aborted, so the server stops sending instead of filling the connection until it times out.
void ftpStream::Close() {
  if (m_retrieving && !m_completionChecked && !IsBroken() && m_hSocket != INVALID_SOCKET && m_bIsConnected)
    SendCommand("ABOR");
  m_retrieving = false;
  m_dataSocket.Close();
  m_listener.Close();
  if (m_hSocket != INVALID_SOCKET && m_bIsConnected) SendCommand("QUIT");
  netSocket::Close();
}

}  // namespace ns_net
