#define LOG_MODULE "./src/fileStream"
#include "fileStream.h"

#include <algorithm>
#include <cstdint>

#include "device.h"
#include "ftpStream.h"
#include "log.h"
#include "paths.h"
#include "redact.h"
#include "tftpStream.h"

namespace ns_net {

namespace {

constexpr int kChunk = 4096;
constexpr int32_t kTftpDefaultTimeoutMs = 16000;
constexpr uint16_t kFtpDefaultPort = 21;
constexpr uint16_t kTftpDefaultPort = 69;

// FTP and TFTP connect to an address: a host name is resolved first.
std::string resolvedHost(const std::string& host) {
  if (netSocket::IsIPText(host)) return host;
  LOG_IFO("get ip from hostname[%s] ...", logEscaped(host).c_str());
  std::string ip = netGetHostIPString(host, 3);
  LOG_IFO("ip[%s]", ip.c_str());
  return ip;
}

uint16_t portOr(int32_t port, uint16_t fallback) { return port == -1 ? fallback : static_cast<uint16_t>(port); }

std::string pathWithoutSlash(const std::string& path) { return path.empty() ? path : path.substr(1); }

}  // namespace

// ---------------------------------------------------------------------------------------------
// localStream

bool localStream::Open(const std::string& path) {
  // A directory opens for reading on Linux and only fails at the first read: refuse it here, with
  // the same answer as a missing file.
  if (pathIsDirectory(path) || !chFileStdio::Open(path, chFileStdio::kModeRead)) {
    LOG_IFO("Open Stream Failed : [path = %s]", logEscaped(path).c_str());
    return false;
  }
  return true;
}

int localStream::Read(void* buffer, int elementSize, int count) {
  if (elementSize <= 0 || count <= 0) return 0;
  return static_cast<int>(chFileStdio::Read(buffer, static_cast<size_t>(elementSize), static_cast<size_t>(count)));
}

void localStream::Close() { chFileStdio::Close(); }

// ---------------------------------------------------------------------------------------------
// httpStream, httpsStream

template <class Library>
int httpStreamBase<Library>::Read(void* buffer, int elementSize, int count) {
  if (!buffer || elementSize <= 0 || count <= 0) return 0;
  size_t wanted = static_cast<size_t>(elementSize) * static_cast<size_t>(count);
  if (m_data.size() < wanted) {
    size_t missing = wanted - m_data.size();
    size_t old = m_data.size();
    // The library writes straight behind the buffered bytes: no temporary block to copy through.
    m_data.resize(old + missing);
    int got = this->ReadFile(m_data.data() + old, 1, static_cast<int>(missing), m_timeoutMs);
    m_data.resize(old + (got > 0 ? static_cast<size_t>(got) : 0));
    if (got <= 0 && Library::TransferBroken()) MarkBroken(Library::MissingBytes(), Library::ErrorText());
  }
  size_t handed = std::min(wanted, m_data.size()) / static_cast<size_t>(elementSize);
  m_data.takeFront(buffer, handed * static_cast<size_t>(elementSize));
  return static_cast<int>(handed);
}

template class httpStreamBase<httpFile>;
template class httpStreamBase<httpsFile>;

bool httpStream::Open(const std::string& urlText, int32_t timeoutMs) {
  return OpenHttpFile(urlText.c_str(), timeoutMs) != 0;
}

void httpStream::Close() { CloseHttpFile(); }

bool httpsStream::Open(const std::string& urlText, int32_t timeoutMs) {
  return OpenHttpsFile(urlText.c_str(), timeoutMs) != 0;
}

void httpsStream::Close() { CloseHttpsFile(); }

// ---------------------------------------------------------------------------------------------
// fileDownload

fileDownload::~fileDownload() { Close(); }

std::unique_ptr<pipeStream> fileDownload::openStream(const autopUrl& url, int32_t timeoutMs,
                                                     const std::string& byteRange) {
  const int32_t httpTimeout = timeoutMs < 0 ? pipeStream::kDefaultTimeoutMs : timeoutMs;
  if (url.scheme == "https") {
    auto stream = std::make_unique<httpsStream>();
    stream->SetByteRange(byteRange);
    stream->SetValidators(m_validators);
    if (stream->Open(url.ToText(), httpTimeout)) return stream;
  } else if (url.scheme == "http") {
    auto stream = std::make_unique<httpStream>();
    stream->SetByteRange(byteRange);
    stream->SetValidators(m_validators);
    if (stream->Open(url.ToText(), httpTimeout)) return stream;
  } else if (url.scheme == "ftp") {
    std::string host = resolvedHost(url.host);
    auto stream = std::make_unique<ftpStream>();
    // FTP keeps its own 5000 ms per step whatever the caller asked for.
    if (stream->Open(host, portOr(url.port, kFtpDefaultPort), url.user, url.password, pathWithoutSlash(url.path)))
      return stream;
  } else if (url.scheme == "tftp") {
    std::string host = resolvedHost(url.host);
    auto stream = std::make_unique<tftpStream>();
    if (stream->Open(host, portOr(url.port, kTftpDefaultPort), pathWithoutSlash(url.path),
                     timeoutMs < 0 ? kTftpDefaultTimeoutMs : timeoutMs))
      return stream;
  } else if (url.scheme == "file") {
    auto stream = std::make_unique<localStream>();
    if (stream->Open(url.path)) return stream;
  }
  return nullptr;
}

bool fileDownload::OpenDownloadStream(const autopUrl& url, int32_t timeoutMs, const std::string& byteRange) {
  LOG_IFO("fileDownload::OpenDownloadStream[%s][%s]", logEscaped(url.host).c_str(), logEscaped(url.path).c_str());
  if (m_pCurrentStream) {
    LOG_ERR("The fileDownload stream has been openned !");
    return false;
  }
  startTransfer();
  m_pCurrentStream = openStream(url, timeoutMs, byteRange);
  m_validators = httpValidators();
  if (m_pCurrentStream) m_urlText = url.ToText();
  LOG_IFO("Open URL %s", m_pCurrentStream ? "OK" : "Fail");
  return m_pCurrentStream != nullptr;
}

void fileDownload::startTransfer() {
  m_byteCount = 0;
  m_lastErrorCategory = 0;
  m_lastErrorCode = 0;
  m_breakLogged = false;
}

void fileDownload::noteBreak(int64_t missing) {
  m_lastErrorCategory = kBrokenCategory;
  m_lastErrorCode = kBrokenCode;
  if (m_breakLogged) return;
  m_breakLogged = true;
  const std::string& reason = m_pCurrentStream ? m_pCurrentStream->BrokenReason() : std::string();
  std::string why = reason.empty() ? brisaTransLastError() : reason;
  if (missing >= 0)
    LOG_WAR("Broken at -%lld bytes : %s", static_cast<long long>(missing), urlForLog(why).c_str());
  else
    LOG_WAR("Broken after %lld bytes : %s", static_cast<long long>(m_byteCount), urlForLog(why).c_str());
}

int fileDownload::readChunk(void* buffer, int bytes) {
  int n = m_pCurrentStream->Read(buffer, 1, bytes);
  if (n > 0) {
    m_byteCount += n;
  } else if (m_pCurrentStream->IsBroken()) {
    noteBreak(m_pCurrentStream->BrokenMissing());
  }
  return n;
}

int fileDownload::Read(void* pBuffer, int nBytes) {
  bool argumentsOk = LOG_CHECK(pBuffer != NULL && nBytes > 0);
  if (!LOG_CHECK(m_pCurrentStream != NULL) || !argumentsOk) return 0;
  uint8_t* cursor = static_cast<uint8_t*>(pBuffer);
  int total = 0;
  while (total < nBytes) {
    int n = readChunk(cursor + total, std::min(nBytes - total, kChunk));
    if (n < 1) break;
    total += n;
  }
  return total;
}

int64_t fileDownload::DownloadToFile(const std::string& path, bool append) {
  return DownloadToFile(path, append, INT64_MAX);
}

int64_t fileDownload::DownloadToFile(const std::string& path, bool append, int64_t maxBytes) {
  if (!LOG_CHECK(m_pCurrentStream != NULL)) return 0;
  chFileStdio file;
  if (!file.Open(path, append ? chFileStdio::kModeAppend : chFileStdio::kModeWrite)) {
    LOG_ERR("File [%s] can't be opened !", path.c_str());
    return 0;
  }
  uint8_t chunk[kChunk];
  int64_t total = 0;
  // One byte past the limit is enough to tell the file is too large.
  while (total <= maxBytes) {
    int n = readChunk(chunk, static_cast<int>(std::min<int64_t>(kChunk - 1, maxBytes - total) + 1));
    if (n < 1) break;
    if (file.Write(chunk, 1, static_cast<size_t>(n)) != static_cast<size_t>(n)) {
      LOG_ERR("File [%s] write error !", path.c_str());
      return 0;
    }
    total += n;
  }
  if (!file.Flush()) {
    LOG_ERR("File [%s] write error !", path.c_str());
    return 0;
  }
  // A file cut short is no file: the caller must not apply it.
  return m_pCurrentStream->IsBroken() ? 0 : total;
}

bool fileDownload::DownloadToFile(const std::string& path, int nBytes, bool append) {
  if (!LOG_CHECK(nBytes > 0) || !LOG_CHECK(m_pCurrentStream != NULL)) return false;
  chFileStdio file;
  if (!file.Open(path, append ? chFileStdio::kModeAppend : chFileStdio::kModeWrite)) {
    LOG_ERR("File [%s] can't be opened !", path.c_str());
    return false;
  }
  uint8_t chunk[kChunk];
  int missing = nBytes;
  while (missing > 0) {
    int n = readChunk(chunk, std::min(missing, kChunk));
    if (n < 1) break;
    if (file.Write(chunk, 1, static_cast<size_t>(n)) != static_cast<size_t>(n)) {
      LOG_ERR("File [%s] write error !", path.c_str());
      return false;
    }
    missing -= n;
  }
  file.Flush();
  if (missing > 0) noteBreak(missing);
  return missing == 0;
}

bool fileDownload::DownloadToNULL(int nBytes) {
  LOG_IFO("fileDownload::DownloadToNULL nBytes[%d]", nBytes);
  if (!LOG_CHECK(nBytes > 0)) return nBytes == 0;
  if (!LOG_CHECK(m_pCurrentStream != NULL)) return false;
  uint8_t chunk[kChunk];
  int missing = nBytes;
  while (missing > 0) {
    int n = readChunk(chunk, std::min(missing, kChunk));
    if (n < 1) break;
    missing -= n;
  }
  return missing == 0;
}

void fileDownload::Close() {
  if (m_pCurrentStream) {
    m_pCurrentStream->Close();
    m_pCurrentStream.reset();
  }
  m_urlText.clear();
}

bool fileDownload::Attach(pipeStream* stream) {
  if (!LOG_CHECK(m_pCurrentStream == NULL)) return false;
  startTransfer();
  m_pCurrentStream.reset(stream);
  return true;
}

pipeStream* fileDownload::Detach() {
  if (!LOG_CHECK(m_pCurrentStream != NULL)) return nullptr;
  return m_pCurrentStream.release();
}

}  // namespace ns_net
