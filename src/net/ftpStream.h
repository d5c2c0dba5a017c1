// FTP retrieval of one file: control connection (IPv4 or IPv6), log-in (anonymous when the URL has
// no credentials), binary type, passive data connection first and active mode when passive is
// refused, then RETR. The data arrive on a second connection; the transfer is whole only when the
// server closed it after the announced size and confirmed with a 226 or 250 reply.
#pragma once

#include <cstdint>
#include <string>

#include "netSocket.h"
#include "pipeStream.h"

namespace ns_net {

// The FTP control connection: commands out, replies in. A reply may span several lines; it ends
// with a final line: three digits (first 1-5, second 0-5, third 0-9) and a blank. A reply opened
// with "ddd-" ends only at the final line of the same code, so a line of other digits inside it
// cannot end it early. Lines past the final one stay buffered for the next reply.
class sockFTP : public netSocketTCP {
 public:
  static constexpr size_t kMaxReplyLine = 4096;

  // Sends one command, adding "\r\n" when the text lacks it.
  bool SendCommand(const std::string& text);
  // Sends the command and returns the final reply line (without its line end), "" when none came
  // within the reply time-out.
  std::string ExecuteCommand(const std::string& text);
  std::string ReadReply();
  void SetReplyTimeout(int32_t ms) { m_replyTimeoutMs = ms; }

  static bool IsFinalLine(const std::string& line);
  // The code of a final line, 0 for anything else.
  static int ReplyCode(const std::string& line);

 private:
  bool TakeLine(std::string& line);
  int32_t m_replyTimeoutMs = 5000;
};

class ftpStream : public pipeStream, public sockFTP {
 public:
  // The fixed local port of active mode (131 x 256 + 244); the system picks another when it is taken.
  static constexpr uint16_t kActiveDataPort = 33780;
  static constexpr const char* kAnonymousPassword = "provisor@phone.local";

  ~ftpStream() override;
  bool Open(const std::string& host, uint16_t port, const std::string& user, const std::string& password,
            const std::string& path);
  int Read(void* buffer, int elementSize, int count) override;
  void Close() override;

  bool UsedActiveMode() const { return m_activeMode; }
  int64_t AnnouncedSize() const { return m_size; }

  // The data address a passive-mode ("227") reply names, `server` being the control connection's
  // peer; false when the reply names none. Over IPv6 the address stays the server's and only the
  // port comes from the reply (its last two numbers).
  static bool PassiveAddress(const std::string& reply, const netAddress& server, netAddress& data);
  // The size a "213" reply to SIZE gives; -1 for any other reply.
  static int64_t SizeFromReply(const std::string& reply);

 private:
  bool ConnectControl(const std::string& host, uint16_t port);
  bool Login(const std::string& user, const std::string& password);
  bool StartRetrieval(const std::string& path);
  bool ConnectPassive(const std::string& reply);
  bool PrepareActive();
  bool AcceptActive();
  void CheckCompletion();

  netSocketTCP m_dataSocket;
  netSocketTCP m_listener;
  netAddress m_serverAddress;
  int64_t m_size = -1;  // from the SIZE reply; -1 when the server gave none
  int64_t m_received = 0;
  bool m_activeMode = false;
  bool m_completionChecked = false;
  bool m_retrieving = false;  // RETR accepted, its end not yet seen
};

}  // namespace ns_net
