// TFTP read side: one file in binary ("octet") mode, 512-byte blocks, one block in flight, each
// packet sent again after a wait that doubles from one second up to the stream's time-out. No
// options are negotiated and nothing is ever written to a server.
#pragma once

#include <cstdint>
#include <string>

#include "byteArray.h"
#include "netSocket.h"
#include "pipeStream.h"

namespace ns_net {

class tftpStream : public pipeStream, public netSocketUDP {
 public:
  static constexpr int kBlockSize = 512;
  static constexpr size_t kRequestBuffer = 1024;
  static constexpr int32_t kFirstWaitMs = 1000;

  // Sends the read request and waits for block 1; true when it arrived.
  bool Open(const std::string& host, uint16_t port, const std::string& fileName, int32_t timeoutMs);
  int Read(void* buffer, int elementSize, int count) override;
  void Close() override;

  bool Ended() const { return m_ended; }

 protected:
  enum class Outcome { Data, Retry, Fail };

  // Takes one datagram (already received: ReceiveBuffer() from LastSender()) as the answer to the
  // block `expected`. Reached by a subclass only to read datagrams without a network.
  Outcome TakeDatagram(uint16_t expected);

 private:
  // Sends `packet` and waits for the data block `expected`, sending again after each silence.
  bool Exchange(const uint8_t* packet, size_t length, uint16_t expected);
  bool AcknowledgeAndReceive();
  bool SendAck(uint16_t block);
  void SendUnknownTransferId(const netAddress& to);

  netAddress m_server;
  bool m_serverLocked = false;  // m_server is the transfer's own port, learned from block 1
  uint16_t m_nextBlock = 0;
  byteArray m_data;
  bool m_ended = false;
};

}  // namespace ns_net
