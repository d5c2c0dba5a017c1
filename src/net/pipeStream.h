// The abstract download stream: every transport (local file, TFTP, FTP, HTTP, HTTPS) is read
// through this interface, so the user of a download never knows which protocol is underneath.
#pragma once

#include "httpfile.h"

#include <cstdint>
#include <string>

namespace ns_net {

class pipeStream {
 public:
  static constexpr int32_t kDefaultTimeoutMs = 5000;

  pipeStream() = default;
  pipeStream(const pipeStream&) = delete;
  pipeStream& operator=(const pipeStream&) = delete;

  // Reads up to elementSize x count bytes; the number of whole elements read, 0 at the end of the
  // file or on failure (IsBroken() tells a transfer cut short from a whole file).
  virtual int Read(void* buffer, int elementSize, int count) = 0;
  // Ends the transfer and releases the transport.
  virtual void Close() = 0;
  virtual ~pipeStream() = default;

  // After an open that asked for part of the file: true when the answer is a part (HTTP 206), and
  // which part ("bytes 340-999/1000"). Transports without parts send the whole file from its start.
  virtual bool IsPartAnswer() const { return false; }
  virtual std::string PartAnswered() const { return ""; }
  // After an open that sent validators: true when the server said the file has not changed (HTTP
  // 304: no body follows). The validators of the answer, for the next open. Only HTTP has them.
  virtual bool NotModified() const { return false; }
  virtual httpValidators AnswerValidators() const { return httpValidators(); }

  // The per-operation time-out the stream passes to its transport; returns the previous one.
  int32_t SetTimeout(int32_t ms) {
    int32_t previous = m_timeoutMs;
    m_timeoutMs = ms;
    return previous;
  }
  int32_t GetTimeout() const { return m_timeoutMs; }

  // A transfer that ended before the end of its file. Missing bytes are -1 when the transport
  // cannot know them (TFTP announces no size).
  bool IsBroken() const { return m_broken; }
  int64_t BrokenMissing() const { return m_brokenMissing; }
  const std::string& BrokenReason() const { return m_brokenReason; }

 protected:
  void MarkBroken(int64_t missing, const std::string& reason) {
    if (m_broken) return;
    m_broken = true;
    m_brokenMissing = missing;
    m_brokenReason = reason;
  }

  int32_t m_timeoutMs = kDefaultTimeoutMs;

 private:
  bool m_broken = false;
  int64_t m_brokenMissing = -1;
  std::string m_brokenReason;
};

}  // namespace ns_net
