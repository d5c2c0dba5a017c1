// The phone's HTTP client library: open a URL, read its body with a time-out per read, close.
// The library does the whole protocol: connection, request, redirects (http and https only),
// basic and digest authentication with the user and password carried in the URL text, and for
// HTTPS the certificate check, which is always on. Trusted roots are the system's CA store plus
// every ".pem" or ".crt" file of /config/certs/trusted/ (under the platform root); a server whose
// chain does not verify, or whose name does not match, fails the open.
//
// Built on libcurl's multi interface, pumped only inside Open and ReadFile, so no thread runs
// behind the caller's back and every call returns within the time-out it was given.
//
// A body that ends before its announced length, or a stall longer than a read's time-out, is a
// break: ReadFile returns 0 and TransferBroken() tells it from a whole body.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

constexpr const char* kTrustedCertDir = "/config/certs/trusted";
// Longest validator (ETag, Last-Modified) taken from or sent to a server.
constexpr size_t kMaxValidatorLength = 256;

// What tells a server's version of a resource from another: sent back with If-None-Match and
// If-Modified-Since so that an unchanged resource is answered 304 without its body.
struct httpValidators {
  std::string etag;
  std::string lastModified;
  bool empty() const { return etag.empty() && lastModified.empty(); }
};
// True for a value that may go into a request header: printable ASCII, no line break, bounded.
bool isSafeValidator(const std::string& value);

class httpTransfer;

// Shared by httpFile and httpsFile, which differ only in the scheme they accept.
class httpFileBase {
 public:
  virtual ~httpFileBase();
  httpFileBase(const httpFileBase&) = delete;
  httpFileBase& operator=(const httpFileBase&) = delete;

  // Reads up to elementSize x count body bytes; the number of whole elements read. 0 at the end of
  // the body, on a break and on failure. A short count does not mean the end.
  int ReadFile(void* buffer, int elementSize, int count, int32_t timeoutMs);

  bool TransferBroken() const;
  // Bytes the server announced but did not send; -1 when unknown.
  int64_t MissingBytes() const;
  // Why the last open or read failed ("" when it did not).
  std::string ErrorText() const;
  // Final HTTP status of the open (0 before any response).
  long ResponseCode() const;
  // The Content-Range value of the final answer ("bytes 340-999/1000"; "" when it had none).
  std::string ContentRange() const;
  // Asks the next open for part of the resource only ("0-339", "1048576-"): firmware checks read a
  // header without moving the whole image, and a cut transfer resumes where it stopped. A server
  // may still answer with the whole resource (200 instead of 206); ResponseCode tells which.
  void SetByteRange(const std::string& range) { range_ = range; }
  // Asks the next open to be answered 304 (no body) when the resource still has these validators.
  // Values that are not safe in a header are left out.
  void SetValidators(const httpValidators& validators) { validators_ = validators; }
  // The final answer's validators (each empty when it had none, or one not safe to keep).
  httpValidators AnswerValidators() const;
  // The server said the resource has not changed since the validators sent: there is no body.
  bool NotModified() const { return ResponseCode() == 304; }

 protected:
  httpFileBase();
  int Open(const char* url, int32_t timeoutMs, bool tls);
  void CloseTransfer();
  std::unique_ptr<httpTransfer> transfer_;
  std::string range_;
  httpValidators validators_;
};

class httpFile : public httpFileBase {
 public:
  httpFile() = default;
  ~httpFile() override = default;
  // Non-zero when the resource is open and its body can be read. Only "http://" URLs.
  int OpenHttpFile(const char* url, int32_t timeoutMs) { return Open(url, timeoutMs, false); }
  void CloseHttpFile() { CloseTransfer(); }
};

class httpsFile : public httpFileBase {
 public:
  httpsFile() = default;
  ~httpsFile() override = default;
  // Non-zero when the resource is open and its body can be read. Only "https://" URLs.
  int OpenHttpsFile(const char* url, int32_t timeoutMs) { return Open(url, timeoutMs, true); }
  void CloseHttpsFile() { CloseTransfer(); }
};
