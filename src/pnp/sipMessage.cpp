#include "sipMessage.h"

#include <cstring>

namespace {

// The token characters of RFC 3261 (method names and header names).
bool isTokenChar(char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return c != '\0' && strchr("-.!%*_+`'~", c) != nullptr;
}

bool isToken(const std::string& text) {
  if (text.empty()) return false;
  for (char c : text)
    if (!isTokenChar(c)) return false;
  return true;
}

bool isBlank(char c) { return c == ' ' || c == '\t'; }

std::string trimBlanks(const std::string& text) {
  size_t begin = 0;
  size_t end = text.size();
  while (begin < end && isBlank(text[begin])) ++begin;
  while (end > begin && isBlank(text[end - 1])) --end;
  return text.substr(begin, end - begin);
}

// A decimal number of at most nine digits (so it fits 32 bits with room); false otherwise.
bool parseDecimal(const std::string& text, uint32_t& out) {
  if (text.empty() || text.size() > 9) return false;
  uint32_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<uint32_t>(c - '0');
  }
  out = value;
  return true;
}

// The end of the header block: the offset of its last line end and the offset of the first body
// byte. False when the empty line is missing.
bool findHeaderEnd(const char* data, size_t size, size_t& headerEnd, size_t& bodyStart) {
  for (size_t i = 0; i < size; ++i) {
    if (data[i] != '\n') continue;
    size_t next = i + 1;
    if (next < size && data[next] == '\r') ++next;
    if (next < size && data[next] == '\n') {
      headerEnd = i;
      bodyStart = next + 1;
      return true;
    }
  }
  return false;
}

// Splits the header block into lines without their CR LF; false for a NUL or a bare CR.
bool splitLines(const char* data, size_t size, std::vector<std::string>& lines) {
  std::string line;
  for (size_t i = 0; i < size; ++i) {
    char c = data[i];
    if (c == '\0') return false;
    if (c == '\r') {
      // Only as the first half of a line end (the block ends just before its last LF).
      if (i + 1 < size && data[i + 1] != '\n') return false;
      continue;
    }
    if (c == '\n') {
      lines.push_back(line);
      line.clear();
      continue;
    }
    line += c;
  }
  lines.push_back(line);
  return true;
}

struct CompactForm {
  char letter;
  const char* name;
};

// RFC 3261 section 20 and the event package headers (Event, Allow-Events).
constexpr CompactForm kCompactForms[] = {
    {'i', "Call-ID"},        {'l', "Content-Length"}, {'o', "Event"},   {'f', "From"},
    {'t', "To"},             {'v', "Via"},            {'m', "Contact"}, {'c', "Content-Type"},
    {'e', "Content-Encoding"}, {'k', "Supported"},    {'s', "Subject"}, {'u', "Allow-Events"},
};

}  // namespace

bool sipEqualNoCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char x = a[i] >= 'A' && a[i] <= 'Z' ? static_cast<char>(a[i] - 'A' + 'a') : a[i];
    char y = b[i] >= 'A' && b[i] <= 'Z' ? static_cast<char>(b[i] - 'A' + 'a') : b[i];
    if (x != y) return false;
  }
  return true;
}

std::string sipMessage::ExpandCompactName(const std::string& name) {
  if (name.size() != 1) return name;
  for (const CompactForm& form : kCompactForms)
    if (sipEqualNoCase(name, std::string(1, form.letter))) return form.name;
  return name;
}

sipReadResult sipMessage::Read(const char* data, size_t size) {
  Clear();
  if (!data) return sipReadResult::kUnreadable;
  // Keep-alive line ends before the start line are allowed.
  size_t start = 0;
  while (start < size && (data[start] == '\r' || data[start] == '\n')) ++start;
  size_t headerEnd = 0;
  size_t bodyStart = 0;
  std::vector<std::string> lines;
  if (!findHeaderEnd(data + start, size - start, headerEnd, bodyStart) ||
      !splitLines(data + start, headerEnd, lines) || !ParseStartLine(lines.front()) || !ParseHeaderLines(lines)) {
    Clear();
    return sipReadResult::kUnreadable;
  }
  if (TakeBody(data + start + bodyStart, size - start - bodyStart) && CheckMandatoryHeaders())
    return sipReadResult::kOk;
  body_.clear();
  return sipReadResult::kBad;
}

bool sipMessage::Parse(const char* data, size_t size) {
  if (Read(data, size) == sipReadResult::kOk) return true;
  Clear();
  return false;
}

bool sipMessage::ParseStartLine(const std::string& line) {
  size_t first = line.find(' ');
  size_t second = first == std::string::npos ? first : line.find(' ', first + 1);
  if (second == std::string::npos) return false;
  std::string a = line.substr(0, first);
  std::string b = line.substr(first + 1, second - first - 1);
  std::string c = line.substr(second + 1);
  if (sipEqualNoCase(a, "SIP/2.0")) {
    uint32_t code = 0;
    if (b.size() != 3 || !parseDecimal(b, code) || code < 100 || code > 699) return false;
    isRequest_ = false;
    statusCode_ = static_cast<int>(code);
    reason_ = c;
    return true;
  }
  if (!isToken(a) || b.empty() || !sipEqualNoCase(c, "SIP/2.0")) return false;
  for (char ch : b)
    if (isBlank(ch) || static_cast<unsigned char>(ch) < 0x20) return false;
  isRequest_ = true;
  method_ = a;
  requestUri_ = b;
  return true;
}

bool sipMessage::ParseHeaderLines(const std::vector<std::string>& lines) {
  for (size_t i = 1; i < lines.size(); ++i) {
    const std::string& line = lines[i];
    if (!line.empty() && isBlank(line[0])) {
      // A folded line continues the header above it.
      if (headers_.empty()) return false;
      std::string more = trimBlanks(line);
      std::string& value = headers_.back().value;
      if (!more.empty()) value += value.empty() ? more : " " + more;
      continue;
    }
    size_t colon = line.find(':');
    if (colon == std::string::npos) return false;
    std::string name = trimBlanks(line.substr(0, colon));
    if (!isToken(name)) return false;
    headers_.push_back(sipHeader{ExpandCompactName(name), trimBlanks(line.substr(colon + 1))});
  }
  return true;
}

bool sipMessage::TakeBody(const char* rest, size_t restSize) {
  bool haveLength = false;
  uint32_t length = 0;
  for (const std::string& value : FindAll("Content-Length")) {
    uint32_t parsed = 0;
    if (!parseDecimal(value, parsed) || (haveLength && parsed != length)) return false;
    haveLength = true;
    length = parsed;
  }
  if (!haveLength) {
    body_.assign(rest, restSize);
    return true;
  }
  // Fewer bytes than announced: a datagram cut short, which must be discarded whole.
  if (length > restSize) return false;
  body_.assign(rest, length);
  return true;
}

bool sipMessage::CheckMandatoryHeaders() {
  for (const char* name : {"Via", "From", "To"})
    if (!Find(name) || Find(name)->empty()) return false;
  const std::string* callId = Find("Call-ID");
  const std::string* cseq = Find("CSeq");
  if (!callId || callId->empty() || !cseq) return false;
  for (char c : *callId)
    if (isBlank(c)) return false;
  callId_ = *callId;
  size_t gap = cseq->find_first_of(" \t");
  if (gap == std::string::npos) return false;
  uint32_t number = 0;
  if (!parseDecimal(cseq->substr(0, gap), number) || number >= 0x80000000u) return false;
  std::string method = trimBlanks(cseq->substr(gap));
  if (!isToken(method) || (isRequest_ && method != method_)) return false;
  cseqNumber_ = number;
  cseqMethod_ = method;
  return true;
}

const std::string* sipMessage::Find(const std::string& name) const {
  const std::string full = ExpandCompactName(name);
  for (const sipHeader& header : headers_)
    if (sipEqualNoCase(header.name, full)) return &header.value;
  return nullptr;
}

std::vector<std::string> sipMessage::FindAll(const std::string& name) const {
  const std::string full = ExpandCompactName(name);
  std::vector<std::string> values;
  for (const sipHeader& header : headers_)
    if (sipEqualNoCase(header.name, full)) values.push_back(header.value);
  return values;
}
