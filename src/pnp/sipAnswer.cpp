#include "sipAnswer.h"

#include <arpa/inet.h>

#include <functional>
#include <vector>

#include "sipMessage.h"

const sipStatus kSipOk{200, "OK", nullptr};
const sipStatus kSipBadRequest{400, "Bad Request", nullptr};
const sipStatus kSipMethodNotAllowed{405, "Method Not Allowed", "Allow: NOTIFY"};
const sipStatus kSipNoSuchDialog{481, "Call/Transaction Does Not Exist", nullptr};
const sipStatus kSipBadEvent{489, "Bad Event", "Allow-Events: ua-profile"};

namespace {

constexpr uint16_t kDefaultSipPort = 5060;

bool isBlank(char c) { return c == ' ' || c == '\t'; }

std::string trimBlanks(const std::string& text) {
  size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string::npos) return std::string();
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

// A header value may list several Vias, separated by commas outside quoted strings.
void splitFirstValue(const std::string& value, std::string& first, std::string& rest) {
  bool quoted = false;
  for (size_t i = 0; i < value.size(); ++i) {
    if (value[i] == '"') quoted = !quoted;
    if (value[i] == ',' && !quoted) {
      first = value.substr(0, i);
      rest = trimBlanks(value.substr(i + 1));
      return;
    }
  }
  first = value;
  rest.clear();
}

// The Via head with the blanks RFC 3261 allows around "/" and ":" taken out, so that exactly one
// blank separates the sent-protocol from the sent-by.
std::string compactHead(const std::string& head) {
  std::string out;
  for (size_t i = 0; i < head.size(); ++i) {
    if (!isBlank(head[i])) {
      out += head[i];
      continue;
    }
    size_t next = head.find_first_not_of(" \t", i);
    bool beforeSeparator = next != std::string::npos && (head[next] == '/' || head[next] == ':');
    bool afterSeparator = !out.empty() && (out.back() == '/' || out.back() == ':' || out.back() == ' ');
    if (!beforeSeparator && !afterSeparator) out += ' ';
  }
  return trimBlanks(out);
}

bool parsePort(const std::string& text, int32_t& port) {
  if (text.empty() || text.size() > 5) return false;
  port = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    port = port * 10 + (c - '0');
  }
  return port > 0 && port <= 65535;
}

// host[:port] or [IPv6 reference][:port].
bool parseSentBy(const std::string& text, sipVia& via) {
  size_t hostEnd = text.find(':');
  if (!text.empty() && text[0] == '[') {
    size_t close = text.find(']');
    if (close == std::string::npos) return false;
    via.host = text.substr(1, close - 1);
    hostEnd = close + 1 < text.size() ? close + 1 : std::string::npos;
    if (hostEnd != std::string::npos && text[hostEnd] != ':') return false;
  } else {
    via.host = text.substr(0, hostEnd);
  }
  if (hostEnd != std::string::npos && !parsePort(text.substr(hostEnd + 1), via.port)) return false;
  for (char c : via.host)
    if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7f) return false;
  return !via.host.empty();
}

// The parameters after the head, each trimmed, empty ones left out.
std::vector<std::string> viaParameters(const std::string& top) {
  std::vector<std::string> params;
  size_t semicolon = top.find(';');
  while (semicolon != std::string::npos) {
    size_t next = top.find(';', semicolon + 1);
    std::string param = trimBlanks(top.substr(semicolon + 1, next == std::string::npos ? next : next - semicolon - 1));
    if (!param.empty()) params.push_back(param);
    semicolon = next;
  }
  return params;
}

std::string parameterName(const std::string& param) { return trimBlanks(param.substr(0, param.find('='))); }

std::string hostText(const ns_net::netAddress& address) {
  char text[INET6_ADDRSTRLEN] = "";
  const void* raw = address.family() == AF_INET6 ? static_cast<const void*>(&address.v6.sin6_addr)
                                                 : static_cast<const void*>(&address.v4.sin_addr);
  inet_ntop(address.family() == AF_INET6 ? AF_INET6 : AF_INET, raw, text, sizeof(text));
  return text;
}

// The request's top Via as the answer carries it: "rport" filled in with the sender's port, and
// "received" with its address whenever that is needed to find the sender again.
std::string markedTopVia(const std::string& value, const ns_net::netAddress& from) {
  std::string top;
  std::string rest;
  splitFirstValue(value, top, rest);
  sipVia via;
  if (!sipParseTopVia(value, via)) return value;
  const std::string sender = hostText(from);
  std::string marked = trimBlanks(top.substr(0, top.find(';')));
  for (const std::string& param : viaParameters(top)) {
    const std::string name = parameterName(param);
    if (sipEqualNoCase(name, "received")) continue;
    marked += ";" + (sipEqualNoCase(name, "rport") ? "rport=" + std::to_string(from.port()) : param);
  }
  if (via.rport || via.host != sender) marked += ";received=" + sender;
  return rest.empty() ? marked : marked + ", " + rest;
}

bool hasTagParameter(const std::string& nameAddr) {
  size_t close = nameAddr.rfind('>');
  for (const std::string& param : viaParameters(nameAddr.substr(close == std::string::npos ? 0 : close + 1)))
    if (sipEqualNoCase(parameterName(param), "tag")) return true;
  return false;
}

}  // namespace

void sipAppendHeader(std::string& message, const char* name, const std::string& value) {
  message += name;
  message += ": ";
  message += value;
  message += "\r\n";
}

bool sipParseTopVia(const std::string& viaValue, sipVia& via) {
  via = sipVia();
  std::string top;
  std::string rest;
  splitFirstValue(viaValue, top, rest);
  const std::string head = compactHead(top.substr(0, top.find(';')));
  size_t gap = head.find(' ');
  if (gap == std::string::npos || head.find(' ', gap + 1) != std::string::npos) return false;
  via.sentProtocol = head.substr(0, gap);
  // "SIP/2.0/" and a transport.
  if (via.sentProtocol.size() <= 8 || !sipEqualNoCase(via.sentProtocol.substr(0, 8), "SIP/2.0/") ||
      !parseSentBy(head.substr(gap + 1), via))
    return false;
  for (const std::string& param : viaParameters(top))
    if (sipEqualNoCase(parameterName(param), "rport")) via.rport = true;
  return true;
}

bool sipAnswerAddress(const sipMessage& request, const ns_net::netAddress& from, ns_net::netAddress& to) {
  const std::string* value = request.Find("Via");
  sipVia via;
  if (!value || !sipParseTopVia(*value, via)) return false;
  const uint16_t port = via.rport ? from.port() : via.port > 0 ? static_cast<uint16_t>(via.port) : kDefaultSipPort;
  to = from;
  if (to.family() == AF_INET6)
    to.v6.sin6_port = htons(port);
  else
    to.v4.sin_port = htons(port);
  return true;
}

std::string sipBuildAnswer(const sipMessage& request, const sipStatus& status, const ns_net::netAddress& from) {
  std::string answer = "SIP/2.0 " + std::to_string(status.code) + " " + status.reason + "\r\n";
  const std::vector<std::string> vias = request.FindAll("Via");
  for (size_t i = 0; i < vias.size(); ++i)
    sipAppendHeader(answer, "Via", i == 0 ? markedTopVia(vias[i], from) : vias[i]);
  for (const std::string& route : request.FindAll("Record-Route")) sipAppendHeader(answer, "Record-Route", route);
  if (const std::string* fromHeader = request.Find("From")) sipAppendHeader(answer, "From", *fromHeader);
  if (const std::string* toHeader = request.Find("To")) {
    // A request outside any dialog has no To tag; the answer adds one, the same for every
    // retransmission of that request.
    const std::string* callId = request.Find("Call-ID");
    std::string tagged = *toHeader;
    if (!hasTagParameter(tagged))
      tagged += ";tag=" + std::to_string(std::hash<std::string>()(callId ? *callId : std::string()) & 0xffffffu);
    sipAppendHeader(answer, "To", tagged);
  }
  for (const char* name : {"Call-ID", "CSeq"})
    if (const std::string* value = request.Find(name)) sipAppendHeader(answer, name, *value);
  if (status.extraHeader) answer += std::string(status.extraHeader) + "\r\n";
  sipAppendHeader(answer, "Content-Length", "0\r\n");
  return answer;
}
