// Download streams and their user. `fileDownload` is given a parsed URL, picks the stream class by
// the URL's scheme, opens it, and lets the caller read the bytes into memory, into a file or into
// nothing. Every file fetch of the service (configuration, resources, firmware) goes through it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "autopUrl.h"
#include "byteArray.h"
#include "fileStdio.h"
#include "httpfile.h"
#include "pipeStream.h"

namespace ns_net {

// A local file opened for reading.
class localStream : public pipeStream, public chFileStdio {
 public:
  bool Open(const std::string& path);
  int Read(void* buffer, int elementSize, int count) override;
  void Close() override;
};

// Buffering shared by the two HTTP streams: one library read per call for the bytes missing.
template <class Library>
class httpStreamBase : public pipeStream, public Library {
 public:
  int Read(void* buffer, int elementSize, int count) override;
  bool IsPartAnswer() const override { return Library::ResponseCode() == 206; }
  std::string PartAnswered() const override { return Library::ContentRange(); }
  bool NotModified() const override { return Library::NotModified(); }
  httpValidators AnswerValidators() const override { return Library::AnswerValidators(); }

 protected:
  byteArray m_data;
};

class httpStream : public httpStreamBase<httpFile> {
 public:
  bool Open(const std::string& urlText, int32_t timeoutMs);
  void Close() override;
};

class httpsStream : public httpStreamBase<httpsFile> {
 public:
  bool Open(const std::string& urlText, int32_t timeoutMs);
  void Close() override;
};

// Holds at most one open stream. The last error is category 6, code 10 after a transfer that broke
// before the end of its file; such a file is never to be taken for a whole one. The mark belongs to
// that one transfer: it stays readable after the close and is cleared when the next stream is
// opened or attached. Byte counts are 64-bit, so a
// stream past 2 GiB never wraps.
class fileDownload {
 public:
  static constexpr int32_t kBrokenCategory = 6;
  static constexpr int32_t kBrokenCode = 10;

  fileDownload() = default;
  virtual ~fileDownload();
  fileDownload(const fileDownload&) = delete;
  fileDownload& operator=(const fileDownload&) = delete;

  // A negative time-out means the stream's default (5000 ms; 16000 ms for TFTP). FTP always uses
  // its own 5000 ms.
  // `byteRange` ("0-339", "1048576-") asks an HTTP(S) server for part of the file; other transports
  // send the whole file. The stream's IsPartAnswer tells which came.
  bool OpenDownloadStream(const autopUrl& url, int32_t timeoutMs, const std::string& byteRange = "");
  // Validators the next HTTP(S) open sends (cleared by that open); see pipeStream::NotModified.
  void SetValidators(const httpValidators& validators) { m_validators = validators; }
  // The open stream's answer: not modified (no body), and the validators it carried.
  bool NotModified() const { return m_pCurrentStream && m_pCurrentStream->NotModified(); }
  httpValidators AnswerValidators() const {
    return m_pCurrentStream ? m_pCurrentStream->AnswerValidators() : httpValidators();
  }
  // Reads up to nBytes into the buffer; the bytes read.
  int Read(void* pBuffer, int nBytes);
  // The whole stream into a file (logical path); the bytes written, 0 when the file cannot be
  // opened or the transfer broke before its end.
  int64_t DownloadToFile(const std::string& path, bool append);
  // The same, but a stream longer than maxBytes is cut off as soon as it passes the limit: the
  // result is then maxBytes + 1 and the rest is never read, so an endless server cannot fill the
  // disk.
  int64_t DownloadToFile(const std::string& path, bool append, int64_t maxBytes);
  // Exactly nBytes into a file; true when none are missing.
  bool DownloadToFile(const std::string& path, int nBytes, bool append);
  // Reads and discards nBytes; true when none are missing.
  bool DownloadToNULL(int nBytes);
  void Close();
  bool Attach(pipeStream* stream);
  pipeStream* Detach();

  bool IsOpen() const { return m_pCurrentStream != nullptr; }
  pipeStream* CurrentStream() const { return m_pCurrentStream.get(); }
  const std::string& UrlText() const { return m_urlText; }
  int64_t ByteCount() const { return m_byteCount; }
  int32_t LastErrorCategory() const { return m_lastErrorCategory; }
  int32_t LastErrorCode() const { return m_lastErrorCode; }
  bool LastTransferBroken() const { return m_lastErrorCategory == kBrokenCategory && m_lastErrorCode == kBrokenCode; }

 private:
  std::unique_ptr<pipeStream> openStream(const autopUrl& url, int32_t timeoutMs, const std::string& byteRange);
  // One stream read, counted; notes a break of the stream when it reads nothing.
  int readChunk(void* buffer, int bytes);
  void noteBreak(int64_t missing);
  // A new stream starts with no error and no bytes counted: the same download object is reused.
  void startTransfer();

  std::unique_ptr<pipeStream> m_pCurrentStream;
  std::string m_urlText;
  int64_t m_byteCount = 0;
  int32_t m_lastErrorCategory = 0;
  int32_t m_lastErrorCode = 0;
  bool m_breakLogged = false;
  httpValidators m_validators;
};

}  // namespace ns_net
