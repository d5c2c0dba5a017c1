#define LOG_MODULE "./platform/httpfile"
#include "httpfile.h"

#include <curl/curl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <strings.h>

#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <mutex>
#include <vector>

#include "log.h"
#include "paths.h"

namespace {

using SteadyClock = std::chrono::steady_clock;

int64_t msLeft(SteadyClock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - SteadyClock::now()).count();
  return left > 0 ? left : 0;
}

void globalInit() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

bool hasSuffix(const std::string& name, const char* suffix) {
  size_t n = strlen(suffix);
  return name.size() > n && name.compare(name.size() - n, n, suffix) == 0;
}

// Adds every certificate of one file (PEM, possibly several; else one DER) to the store.
int addCertificateFile(X509_STORE* store, const std::string& file) {
  int added = 0;
  if (BIO* bio = BIO_new_file(file.c_str(), "rb")) {
    while (X509* cert = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr)) {
      X509_STORE_add_cert(store, cert);  // a duplicate of a system root is harmless
      X509_free(cert);
      ++added;
    }
    BIO_free(bio);
  }
  ERR_clear_error();
  if (added) return added;
  if (BIO* bio = BIO_new_file(file.c_str(), "rb")) {
    if (X509* cert = d2i_X509_bio(bio, nullptr)) {
      X509_STORE_add_cert(store, cert);
      X509_free(cert);
      ++added;
    }
    BIO_free(bio);
  }
  ERR_clear_error();
  return added;
}

// libcurl hands over the TLS context after it loaded the system's CA store; the phone's trusted
// certificates join it here, for this transfer only.
CURLcode addTrustedCertificates(CURL*, void* sslContext, void*) {
  X509_STORE* store = SSL_CTX_get_cert_store(static_cast<SSL_CTX*>(sslContext));
  std::string dir = hostPath(kTrustedCertDir);
  std::vector<std::string> names;
  listDirectoryNames(kTrustedCertDir, names);  // a read error is logged; the certificates before it still count
  std::vector<std::string> files;
  for (const std::string& name : names)
    if (hasSuffix(name, ".pem") || hasSuffix(name, ".crt")) files.push_back(dir + "/" + name);
  std::sort(files.begin(), files.end());
  for (const std::string& file : files) addCertificateFile(store, file);
  return CURLE_OK;
}

}  // namespace

// One transfer: an easy handle inside its own multi handle, and the body bytes received but not
// yet read.
class httpTransfer {
 public:
  httpTransfer() {
    globalInit();
    easy_ = curl_easy_init();
    multi_ = curl_multi_init();
  }
  ~httpTransfer() {
    if (multi_ && easy_ && added_) curl_multi_remove_handle(multi_, easy_);
    if (requestHeaders_) curl_slist_free_all(requestHeaders_);
    if (easy_) curl_easy_cleanup(easy_);
    if (multi_) curl_multi_cleanup(multi_);
  }
  httpTransfer(const httpTransfer&) = delete;
  httpTransfer& operator=(const httpTransfer&) = delete;

  bool open(const char* url, int32_t timeoutMs, bool tls, const std::string& range,
            const httpValidators& validators);
  int read(uint8_t* out, size_t wanted, size_t unit, int32_t timeoutMs);

  bool broken = false;
  int64_t missing = -1;
  std::string error;
  long responseCode = 0;
  std::string contentRange;  // of the final answer
  httpValidators answerValidators;  // of the final answer

 private:
  void configure(const char* url, int32_t timeoutMs, bool tls);
  // Runs the transfer until `ready()` holds, it ends, or the deadline passes.
  template <class Ready>
  void pumpUntil(Ready ready, SteadyClock::time_point deadline);
  void finish(CURLcode result);
  void markBroken(const std::string& why);
  static size_t onBody(char* data, size_t size, size_t count, void* self);
  static size_t onHeader(char* data, size_t size, size_t count, void* self);
  static int onSocket(void*, curl_socket_t fd, curlsocktype purpose);
  static constexpr int64_t kSmallAnswerBytes = 16 * 1024;

  CURL* easy_ = nullptr;
  CURLM* multi_ = nullptr;
  curl_slist* requestHeaders_ = nullptr;
  static constexpr size_t kHighWaterBytes = 512 * 1024;

  // The bytes a closed range "a-b" can want of a whole-file answer: b + 1; -1 for any other request.
  int64_t wholeAnswerLimit_ = -1;
  bool stoppedAtLimit_ = false;
  bool added_ = false;
  bool paused_ = false;
  bool headersDone_ = false;
  bool done_ = false;
  CURLcode result_ = CURLE_OK;
  int64_t received_ = 0;
  std::vector<uint8_t> body_;
  size_t bodyStart_ = 0;  // bytes of body_ already handed out
  char errorBuffer_[CURL_ERROR_SIZE] = {0};
};

namespace {
bool isSuccessCode(long code) { return code >= 200 && code < 300; }
// An answer whose headers end the open: a success, or "not modified" (which has no body).
bool endsHeaders(long code) { return isSuccessCode(code) || code == 304; }

// The value of `name:` when `line` is that header, trimmed; false otherwise.
bool headerValue(const char* line, size_t bytes, const char* name, std::string& value) {
  const size_t length = strlen(name);
  if (bytes <= length || strncasecmp(line, name, length) != 0) return false;
  std::string text(line + length, bytes - length);
  size_t first = text.find_first_not_of(" \t"), last = text.find_last_not_of(" \t\r\n");
  value = first == std::string::npos ? "" : text.substr(first, last - first + 1);
  return true;
}
}  // namespace

bool isSafeValidator(const std::string& value) {
  if (value.size() > kMaxValidatorLength) return false;
  for (unsigned char c : value)
    if (c < 0x20 || c > 0x7e) return false;
  return true;
}

size_t httpTransfer::onBody(char* data, size_t size, size_t count, void* self) {
  auto* t = static_cast<httpTransfer*>(self);
  size_t bytes = size * count;
  long code = 0;
  curl_easy_getinfo(t->easy_, CURLINFO_RESPONSE_CODE, &code);
  // The body of an error page or of an authentication round is not the file.
  if (!isSuccessCode(code)) return bytes;
  // A reader slower than the network holds the transfer instead of piling the file up in memory;
  // libcurl keeps this chunk and hands it over again when the reads resume it.
  if (t->body_.size() - t->bodyStart_ >= kHighWaterBytes) {
    t->paused_ = true;
    return CURL_WRITEFUNC_PAUSE;
  }
  const uint8_t* first = reinterpret_cast<const uint8_t*>(data);
  size_t take = bytes;
  // A server that ignores a closed range sends the whole file (a firmware header check would get the
  // whole image): past the range's end nothing can be wanted, so the transfer stops there and the
  // connection is dropped at once.
  if (code == 200 && t->wholeAnswerLimit_ >= 0)
    take = static_cast<size_t>(
        std::min<int64_t>(static_cast<int64_t>(bytes), std::max<int64_t>(0, t->wholeAnswerLimit_ - t->received_)));
  t->body_.insert(t->body_.end(), first, first + take);
  t->received_ += static_cast<int64_t>(take);
  t->headersDone_ = true;
  if (t->wholeAnswerLimit_ >= 0 && code == 200 && t->received_ >= t->wholeAnswerLimit_) {
    t->stoppedAtLimit_ = true;
    return 0;  // ends the transfer: libcurl closes the connection
  }
  return bytes;
}

size_t httpTransfer::onHeader(char* data, size_t size, size_t count, void* self) {
  auto* t = static_cast<httpTransfer*>(self);
  size_t bytes = size * count;
  bool blankLine = (bytes == 2 && data[0] == '\r' && data[1] == '\n') || (bytes == 1 && data[0] == '\n');
  // Each answer's own: a redirect's header must not stand for the final one.
  static constexpr char kStatusLine[] = "HTTP/";
  if (bytes >= sizeof kStatusLine - 1 && strncmp(data, kStatusLine, sizeof kStatusLine - 1) == 0) {
    t->contentRange.clear();
    t->answerValidators = httpValidators();
  }
  std::string value;
  if (headerValue(data, bytes, "content-range:", value)) t->contentRange = value;
  // A validator that could not go back into a header safely is not kept.
  if (headerValue(data, bytes, "etag:", value)) t->answerValidators.etag = isSafeValidator(value) ? value : "";
  if (headerValue(data, bytes, "last-modified:", value))
    t->answerValidators.lastModified = isSafeValidator(value) ? value : "";
  if (blankLine) {
    long code = 0;
    curl_easy_getinfo(t->easy_, CURLINFO_RESPONSE_CODE, &code);
    // Redirects, authentication challenges and interim answers are followed by further headers.
    if (endsHeaders(code)) t->headersDone_ = true;
  }
  return bytes;
}

void httpTransfer::configure(const char* url, int32_t timeoutMs, bool tls) {
  curl_easy_setopt(easy_, CURLOPT_URL, url);
  curl_easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy_, CURLOPT_ERRORBUFFER, errorBuffer_);
  curl_easy_setopt(easy_, CURLOPT_WRITEFUNCTION, &httpTransfer::onBody);
  curl_easy_setopt(easy_, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(easy_, CURLOPT_HEADERFUNCTION, &httpTransfer::onHeader);
  curl_easy_setopt(easy_, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(easy_, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(timeoutMs));
  curl_easy_setopt(easy_, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy_, CURLOPT_MAXREDIRS, 8L);
  curl_easy_setopt(easy_, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC | CURLAUTH_DIGEST));
  curl_easy_setopt(easy_, CURLOPT_NOPROXY, "*");
  // Larger receive chunks: fewer callbacks and copies for firmware-sized files.
  curl_easy_setopt(easy_, CURLOPT_BUFFERSIZE, 128L * 1024L);
  curl_easy_setopt(easy_, CURLOPT_USERAGENT, "provisor/3.0.0.80");
  // An https transfer never falls back to plain http through a redirect.
#if LIBCURL_VERSION_NUM >= 0x075500
  curl_easy_setopt(easy_, CURLOPT_PROTOCOLS_STR, tls ? "https" : "http,https");
  curl_easy_setopt(easy_, CURLOPT_REDIR_PROTOCOLS_STR, tls ? "https" : "http,https");
#else
  long protocols = tls ? CURLPROTO_HTTPS : (CURLPROTO_HTTP | CURLPROTO_HTTPS);
  curl_easy_setopt(easy_, CURLOPT_PROTOCOLS, protocols);
  curl_easy_setopt(easy_, CURLOPT_REDIR_PROTOCOLS, protocols);
#endif
  curl_easy_setopt(easy_, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy_, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(easy_, CURLOPT_SSL_CTX_FUNCTION, &addTrustedCertificates);
#if LIBCURL_VERSION_NUM >= 0x075700
  // The trusted directory may change between transfers: no cached CA store.
  curl_easy_setopt(easy_, CURLOPT_CA_CACHE_TIMEOUT, 0L);
#endif
}

bool httpTransfer::open(const char* url, int32_t timeoutMs, bool tls, const std::string& range,
                        const httpValidators& validators) {
  if (!easy_ || !multi_) {
    error = "no HTTP client";
    return false;
  }
  const char* scheme = tls ? "https://" : "http://";
  if (strncasecmp(url, scheme, strlen(scheme)) != 0) {
    error = "wrong scheme";
    return false;
  }
  configure(url, timeoutMs, tls);
  if (!range.empty()) curl_easy_setopt(easy_, CURLOPT_RANGE, range.c_str());
  if (!validators.etag.empty() && isSafeValidator(validators.etag))
    requestHeaders_ = curl_slist_append(requestHeaders_, ("If-None-Match: " + validators.etag).c_str());
  if (!validators.lastModified.empty() && isSafeValidator(validators.lastModified))
    requestHeaders_ = curl_slist_append(requestHeaders_, ("If-Modified-Since: " + validators.lastModified).c_str());
  if (requestHeaders_) curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, requestHeaders_);
  long long first = -1, last = -1;
  char rest = 0;
  if (sscanf(range.c_str(), "%lld-%lld%c", &first, &last, &rest) == 2 && first >= 0 && last >= first)
    wholeAnswerLimit_ = last + 1;
  // A small question (a header) gets a small receive window, so a server that ignores the range can
  // push little more than the question's bytes before the connection is dropped.
  if (wholeAnswerLimit_ >= 0 && wholeAnswerLimit_ <= kSmallAnswerBytes) {
    curl_easy_setopt(easy_, CURLOPT_BUFFERSIZE, static_cast<long>(kSmallAnswerBytes));
    curl_easy_setopt(easy_, CURLOPT_SOCKOPTFUNCTION, &httpTransfer::onSocket);
  }
  if (curl_multi_add_handle(multi_, easy_) != CURLM_OK) {
    error = "cannot start transfer";
    return false;
  }
  added_ = true;
  auto deadline = SteadyClock::now() + std::chrono::milliseconds(timeoutMs);
  pumpUntil([this] { return headersDone_; }, deadline);
  curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &responseCode);
  // Once a success header block is complete the body belongs to the reads, which report a body cut
  // short as a break rather than losing it in a failed open.
  if (headersDone_) return true;
  if (!done_)
    error = "timed out";
  else if (result_ == CURLE_OK)
    error = "HTTP status " + std::to_string(responseCode);
  LOG_WAR("http open failed : %s", error.c_str());
  return false;
}

template <class Ready>
void httpTransfer::pumpUntil(Ready ready, SteadyClock::time_point deadline) {
  while (!done_) {
    int running = 0;
    curl_multi_perform(multi_, &running);
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_, &queued))
      if (message->msg == CURLMSG_DONE) finish(message->data.result);
    // Only wait for the network when what came so far is not enough.
    if (done_ || ready()) return;
    int64_t left = msLeft(deadline);
    if (left == 0) return;
    curl_multi_poll(multi_, nullptr, 0, static_cast<int>(std::min<int64_t>(left, 200)), nullptr);
  }
}

int httpTransfer::onSocket(void*, curl_socket_t fd, curlsocktype purpose) {
  if (purpose == CURLSOCKTYPE_IPCXN) {
    int window = static_cast<int>(kSmallAnswerBytes);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &window, sizeof(window));
  }
  return CURL_SOCKOPT_OK;
}

void httpTransfer::finish(CURLcode result) {
  done_ = true;
  // Stopped on purpose at the end of the range asked for: every wanted byte is here.
  if (result == CURLE_WRITE_ERROR && stoppedAtLimit_) result = CURLE_OK;
  result_ = result;
  if (result != CURLE_OK) error = errorBuffer_[0] ? errorBuffer_ : curl_easy_strerror(result);
}

void httpTransfer::markBroken(const std::string& why) {
  if (broken) return;
  broken = true;
  error = why;
  curl_off_t length = -1;
  curl_easy_getinfo(easy_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
  missing = length >= 0 && length > received_ ? length - received_ : -1;
  LOG_WAR("http transfer broken after %lld bytes : %s", static_cast<long long>(received_), why.c_str());
}

int httpTransfer::read(uint8_t* out, size_t wanted, size_t unit, int32_t timeoutMs) {
  if (timeoutMs < 0) timeoutMs = 5000;
  auto deadline = SteadyClock::now() + std::chrono::milliseconds(timeoutMs);
  pumpUntil([this, wanted] { return paused_ || body_.size() - bodyStart_ >= wanted; }, deadline);
  size_t buffered = body_.size() - bodyStart_;
  if (buffered < unit) {
    if (!done_)
      markBroken("no data within " + std::to_string(timeoutMs) + " ms");
    else if (result_ != CURLE_OK)
      markBroken(error);  // CURLE_PARTIAL_FILE for a body shorter than its Content-Length
    return 0;
  }
  size_t n = std::min(wanted, buffered) / unit * unit;  // whole elements only
  memcpy(out, body_.data() + bodyStart_, n);
  bodyStart_ += n;
  if (bodyStart_ == body_.size()) {
    body_.clear();
    bodyStart_ = 0;
  } else if (bodyStart_ >= body_.size() / 2) {  // the rest is smaller than what moved out: cheap
    body_.erase(body_.begin(), body_.begin() + static_cast<std::ptrdiff_t>(bodyStart_));
    bodyStart_ = 0;
  }
  if (paused_ && body_.size() - bodyStart_ < kHighWaterBytes / 2) {
    paused_ = false;
    curl_easy_pause(easy_, CURLPAUSE_CONT);
  }
  return static_cast<int>(n);
}

// ---------------------------------------------------------------------------------------------

httpFileBase::httpFileBase() = default;
httpFileBase::~httpFileBase() = default;

int httpFileBase::Open(const char* url, int32_t timeoutMs, bool tls) {
  if (!url) {
    LOG_NULL_POINTER();
    return 0;
  }
  transfer_ = std::make_unique<httpTransfer>();
  return transfer_->open(url, timeoutMs < 0 ? 5000 : timeoutMs, tls, range_, validators_) ? 1 : 0;
}

int httpFileBase::ReadFile(void* buffer, int elementSize, int count, int32_t timeoutMs) {
  if (!transfer_ || !buffer || elementSize <= 0 || count <= 0) return 0;
  size_t wanted = static_cast<size_t>(elementSize) * static_cast<size_t>(count);
  int bytes = transfer_->read(static_cast<uint8_t*>(buffer), wanted, static_cast<size_t>(elementSize), timeoutMs);
  return bytes / elementSize;
}

void httpFileBase::CloseTransfer() { transfer_.reset(); }

bool httpFileBase::TransferBroken() const { return transfer_ && transfer_->broken; }
int64_t httpFileBase::MissingBytes() const { return transfer_ ? transfer_->missing : -1; }
std::string httpFileBase::ErrorText() const { return transfer_ ? transfer_->error : ""; }
long httpFileBase::ResponseCode() const { return transfer_ ? transfer_->responseCode : 0; }

httpValidators httpFileBase::AnswerValidators() const {
  return transfer_ ? transfer_->answerValidators : httpValidators();
}

std::string httpFileBase::ContentRange() const { return transfer_ ? transfer_->contentRange : ""; }
