#define LOG_MODULE "./src/tftpStream"
#include "tftpStream.h"

#include <cstdio>
#include <cstring>

#include "clock.h"
#include "log.h"

namespace ns_net {

namespace {

constexpr uint16_t kOpRead = 1;
constexpr uint16_t kOpData = 3;
constexpr uint16_t kOpAck = 4;
constexpr uint16_t kOpError = 5;
constexpr uint16_t kErrorUnknownTransferId = 5;

uint16_t readBe16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }

void writeBe16(uint8_t* p, uint16_t value) {
  p[0] = static_cast<uint8_t>(value >> 8);
  p[1] = static_cast<uint8_t>(value);
}

}  // namespace

bool tftpStream::Open(const std::string& host, uint16_t port, const std::string& fileName, int32_t timeoutMs) {
  SetTimeout(timeoutMs);
  if (!SetAddress(m_server, host.c_str(), port)) {
    LOG_WAR("fail to create socket addr");
    return false;
  }
  if (!Create(m_server.family(), SOCK_DGRAM, 0)) {
    LOG_WAR("fail to create socket !");
    return false;
  }
  // opcode, name, 0, "octet", 0 must fit the request buffer; a longer name is refused, not cut.
  if (fileName.size() + 9 > kRequestBuffer || fileName.find('\0') != std::string::npos) {
    LOG_WAR("TFTP file name too long (%u bytes)", static_cast<unsigned>(fileName.size()));
    return false;
  }
  uint8_t request[kRequestBuffer];
  writeBe16(request, kOpRead);
  memcpy(request + 2, fileName.data(), fileName.size());
  request[2 + fileName.size()] = 0;
  memcpy(request + 3 + fileName.size(), "octet", 6);  // with its zero byte
  m_ended = false;
  m_serverLocked = false;
  m_nextBlock = 0;
  if (!Exchange(request, fileName.size() + 9, 1)) return false;
  m_nextBlock = 2;
  return true;
}

int tftpStream::Read(void* buffer, int elementSize, int count) {
  if (!buffer || elementSize <= 0 || count <= 0) return 0;
  size_t wanted = static_cast<size_t>(elementSize) * static_cast<size_t>(count);
  while (!m_ended && !IsBroken() && m_data.size() < wanted) {
    if (!AcknowledgeAndReceive()) {
      char reason[64];
      snprintf(reason, sizeof(reason), "TFTP transfer given up at block %u", static_cast<unsigned>(m_nextBlock));
      MarkBroken(-1, reason);
    }
  }
  size_t handed = (wanted < m_data.size() ? wanted : m_data.size()) / static_cast<size_t>(elementSize);
  m_data.takeFront(buffer, handed * static_cast<size_t>(elementSize));
  return static_cast<int>(handed);
}

// A transfer left before its last block (a firmware header check reads 340 bytes of an image) is
// cancelled with an ERROR packet: without it the server sends its block again until it gives up.
void tftpStream::Close() {
  if (m_serverLocked && !m_ended && !IsBroken()) {
    static const char kText[] = "Transfer cancelled";
    uint8_t packet[4 + sizeof(kText)];
    writeBe16(packet, kOpError);
    writeBe16(packet + 2, 0);
    memcpy(packet + 4, kText, sizeof(kText));
    SendTo(packet, sizeof(packet), m_server);
    m_ended = true;
  }
  netSocket::Close();
}

bool tftpStream::AcknowledgeAndReceive() {
  uint8_t ack[4];
  writeBe16(ack, kOpAck);
  writeBe16(ack + 2, static_cast<uint16_t>(m_nextBlock - 1));
  if (!Exchange(ack, sizeof(ack), m_nextBlock)) return false;
  ++m_nextBlock;  // wraps from 65535 to 0, as the servers number blocks past 32 MiB
  return true;
}

bool tftpStream::SendAck(uint16_t block) {
  uint8_t ack[4];
  writeBe16(ack, kOpAck);
  writeBe16(ack + 2, block);
  return SendTo(ack, sizeof(ack), m_server);
}

void tftpStream::SendUnknownTransferId(const netAddress& to) {
  static const char kText[] = "Unknown transfer ID";
  uint8_t packet[4 + sizeof(kText)];
  writeBe16(packet, kOpError);
  writeBe16(packet + 2, kErrorUnknownTransferId);
  memcpy(packet + 4, kText, sizeof(kText));
  SendTo(packet, sizeof(packet), to);
}

tftpStream::Outcome tftpStream::TakeDatagram(uint16_t expected) {
  // The server answers a read request from a port of its own (its transfer identifier); from the
  // first data block on, that address and port are the server for the rest of the transfer.
  // Sending the acknowledgements to the port of the request instead makes tftpd-hpa and every
  // server that answers from a new port repeat block 1 until it gives up. A datagram from any
  // other source is no part of this transfer: it is answered with error 5 and otherwise ignored.
  if (m_serverLocked && LastSender() != m_server) {
    SendUnknownTransferId(LastSender());
    return Outcome::Retry;
  }
  const byteArray& datagram = ReceiveBuffer();
  if (datagram.size() < 4) {
    LOG_WAR("Receive length less 4 bytes");
    return Outcome::Fail;
  }
  uint16_t opcode = readBe16(datagram.data());
  if (opcode != kOpData) {
    LOG_WAR("Repley code = %d", opcode);
    return Outcome::Fail;
  }
  uint16_t block = readBe16(datagram.data() + 2);
  if (block != expected) {
    LOG_IFO("Received unexpert clip index %d at %d", block, expected);
    return Outcome::Retry;
  }
  if (!m_serverLocked) {
    m_server = LastSender();
    m_serverLocked = true;
  }
  size_t length = datagram.size() - 4;
  m_data.append(datagram.data() + 4, length);
  if (length != kBlockSize) {
    LOG_IFO("file end");
    m_ended = true;
    SendAck(block);
  }
  return Outcome::Data;
}

bool tftpStream::Exchange(const uint8_t* packet, size_t length, uint16_t expected) {
  if (m_ended || m_timeoutMs < kFirstWaitMs) return false;
  int32_t wait = kFirstWaitMs;
  for (;;) {
    if (!SendTo(packet, static_cast<int32_t>(length), m_server)) {
      perror("Send Error:");
      return false;
    }
    Outcome outcome = Outcome::Retry;
    chTimeout window(wait);
    for (;;) {
      int32_t left = window.GetLeftMillisecond();
      if (left <= 0 || WaitReadable(left) <= 0) {
        LOG_IFO("Receive %dms timeout at %d..", wait, expected);
        break;
      }
      ReceiveFrom();
      bool foreign = m_serverLocked && LastSender() != m_server;
      outcome = TakeDatagram(expected);
      if (!foreign) break;
      outcome = Outcome::Retry;  // not ours: keep waiting out this window
    }
    if (outcome == Outcome::Data) return true;
    if (outcome == Outcome::Fail) return false;
    wait *= 2;
    if (m_ended || wait > m_timeoutMs) return false;
  }
}

}  // namespace ns_net
