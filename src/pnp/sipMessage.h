// sipMessage: one SIP request or response taken from a datagram, as the plug-and-play manager sees
// the provisioning server's answers. The datagram comes from anybody on the LAN, so the parser
// trusts nothing: it accepts what RFC 3261 allows a sender to write and refuses the rest whole.
//
// Accepted: CRLF or bare LF line ends, empty lines before the start line, header names in any case
// and in their compact forms (i, l, o, f, t, v, m, c, e, k, s, u), values folded over several lines
// (each fold becomes one space), a body cut at Content-Length (extra bytes are ignored; without
// Content-Length the body runs to the end of the datagram).
// Unreadable: no empty line after the headers, NUL or a bare CR in the header block, a start line
// that is neither "METHOD URI SIP/2.0" nor "SIP/2.0 CODE REASON", a header name that is not a token,
// a fold with no header before it. Nothing of such a datagram can be trusted.
// Bad: a Content-Length that is not a decimal number, disagrees with another one or promises more
// bytes than came, a message without Via, From, To, Call-ID or CSeq, and a CSeq that is not
// "number method" with a number below 2^31 (and, for a request, its method). Its start line and
// headers are kept, so that the sender of a bad request can be told (400).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct sipHeader {
  std::string name;   // the full name as written ("v" is stored as "Via")
  std::string value;  // surrounding blanks removed, folds joined by one space
};

enum class sipReadResult { kOk, kBad, kUnreadable };

class sipMessage {
 public:
  // Reads one datagram into this object: kBad keeps the start line and headers (no body),
  // kUnreadable clears the object.
  sipReadResult Read(const char* data, size_t size);
  // Read() for a message to act on: false, with the object cleared, unless it was kOk.
  bool Parse(const char* data, size_t size);
  void Clear() { *this = sipMessage(); }

  bool isRequest() const { return isRequest_; }
  const std::string& method() const { return method_; }  // requests only
  const std::string& requestUri() const { return requestUri_; }
  int statusCode() const { return statusCode_; }  // responses only
  const std::string& reason() const { return reason_; }

  // The value of the first header of that name (any case, compact form or full), nullptr if none.
  const std::string* Find(const std::string& name) const;
  // Every value of that name, in message order.
  std::vector<std::string> FindAll(const std::string& name) const;
  const std::vector<sipHeader>& headers() const { return headers_; }
  const std::string& body() const { return body_; }

  uint32_t cseqNumber() const { return cseqNumber_; }
  const std::string& cseqMethod() const { return cseqMethod_; }
  const std::string& callId() const { return callId_; }

  // The full header name for a compact one-letter form ("i" -> "Call-ID"); other names unchanged.
  static std::string ExpandCompactName(const std::string& name);

 private:
  bool ParseStartLine(const std::string& line);
  bool ParseHeaderLines(const std::vector<std::string>& lines);
  bool TakeBody(const char* rest, size_t restSize);
  bool CheckMandatoryHeaders();

  bool isRequest_ = false;
  std::string method_;
  std::string requestUri_;
  int statusCode_ = 0;
  std::string reason_;
  std::vector<sipHeader> headers_;
  std::string body_;
  uint32_t cseqNumber_ = 0;
  std::string cseqMethod_;
  std::string callId_;
};

// Case-insensitive comparison of ASCII texts (header names, scheme names).
bool sipEqualNoCase(const std::string& a, const std::string& b);
