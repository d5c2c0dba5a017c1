#include "autopUrl.h"
#include "redact.h"

#include <cctype>
#include <cstring>

namespace ns_net {

namespace {

// The host of a local file path.
constexpr const char* kLocalFileHost = "127.0.0.1";

std::string lowerCase(std::string text) {
  for (char& c : text) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return text;
}

// Credentials come from settings and other applications and may hold any character. The record
// holds them as they are; the text form escapes what would end their part early or cannot travel
// in a URL, and the parser undoes any "%" escape there (a "%" without two hexadecimal digits
// stays as it is).
constexpr const char* kUserEscaped = "%:@/?#[]";
constexpr const char* kPasswordEscaped = "%@/?#";

std::string escapeCredential(const std::string& text, const char* escaped) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (char c : text) {
    unsigned char byte = static_cast<unsigned char>(c);
    if (byte <= 0x20 || byte == 0x7f || strchr(escaped, c)) {
      out += '%';
      out += kHex[byte >> 4];
      out += kHex[byte & 0x0f];
    } else {
      out += c;
    }
  }
  return out;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

std::string unescapeCredential(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 && hexValue(text[i + 2]) >= 0) {
      out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

// "" gives -1 (a ":" with nothing after it names no port); digits up to 65535 give the number;
// anything else is refused (-2).
int32_t parsePort(const std::string& text) {
  if (text.empty()) return -1;
  if (text.size() > 5) return -2;
  int32_t port = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return -2;
    port = port * 10 + (c - '0');
  }
  return port > 65535 ? -2 : port;
}

// host[:port] or [v6][:port].
bool parseHostPort(const std::string& text, autopUrl& url) {
  std::string portText;
  if (!text.empty() && text[0] == '[') {
    size_t close = text.find(']');
    if (close == std::string::npos) return false;
    url.host = text.substr(1, close - 1);
    std::string rest = text.substr(close + 1);
    if (!rest.empty()) {
      if (rest[0] != ':') return false;
      portText = rest.substr(1);
    }
  } else {
    size_t colon = text.find(':');
    url.host = text.substr(0, colon);
    if (colon != std::string::npos) portText = text.substr(colon + 1);
  }
  // A bracket inside a host name could not be written back unambiguously.
  if (url.host.find_first_of("[]") != std::string::npos) return false;
  url.port = parsePort(portText);
  return url.port != -2;
}

// [user[:password]@]host[:port]. The last "@" ends the user part, so an "@" in a password written
// unescaped stays in the password.
bool parseAuthority(const std::string& authority, autopUrl& url) {
  size_t at = authority.rfind('@');
  if (at != std::string::npos) {
    std::string userInfo = authority.substr(0, at);
    size_t colon = userInfo.find(':');
    url.user = unescapeCredential(userInfo.substr(0, colon));
    // A password without a user cannot be written back in the text form, so it is not kept.
    if (colon != std::string::npos && !url.user.empty()) url.password = unescapeCredential(userInfo.substr(colon + 1));
  }
  return parseHostPort(at == std::string::npos ? authority : authority.substr(at + 1), url);
}

// path ["?" query] ["#" fragment]
void parsePathPart(const std::string& text, autopUrl& url) {
  size_t hash = text.find('#');
  std::string beforeHash = text.substr(0, hash);
  if (hash != std::string::npos) url.fragment = text.substr(hash + 1);
  size_t question = beforeHash.find('?');
  url.path = beforeHash.substr(0, question);
  if (question != std::string::npos) url.query = beforeHash.substr(question + 1);
}

}  // namespace

bool autopUrl::Parse(const std::string& text) {
  Clear();
  if (text.empty()) return false;
  if (text[0] == '/') {
    scheme = "file";
    host = kLocalFileHost;
    path = text;
    return true;
  }
  std::string rest;
  size_t separator = text.find("://");
  if (separator == std::string::npos) {
    scheme = "tftp";
    rest = text;
  } else {
    scheme = lowerCase(text.substr(0, separator));
    rest = text.substr(separator + 3);
  }
  size_t authorityEnd = rest.find_first_of("/?#");
  if (!parseAuthority(rest.substr(0, authorityEnd), *this)) {
    Clear();
    return false;
  }
  if (authorityEnd != std::string::npos) parsePathPart(rest.substr(authorityEnd), *this);
  return true;
}

std::string autopUrl::ToText() const {
  // A local file is written as its path: the path of "/dir/a?b" holds the "?" itself, and only the
  // plain path form parses back into the same record.
  if (scheme == "file" && host == kLocalFileHost && user.empty() && password.empty() && port == -1 &&
      query.empty() && fragment.empty() && !path.empty() && path[0] == '/')
    return path;
  std::string text = scheme + "://";
  if (!user.empty()) {
    text += escapeCredential(user, kUserEscaped);
    if (!password.empty()) text += ":" + escapeCredential(password, kPasswordEscaped);
    text += "@";
  }
  text += host.find(':') != std::string::npos ? "[" + host + "]" : host;
  if (port != -1) text += ":" + std::to_string(port);
  text += path;
  if (!query.empty()) text += "?" + query;
  if (!fragment.empty()) text += "#" + fragment;
  return text;
}

std::string autopUrl::LogText() const { return urlForLog(ToText()); }

bool autopUrl::IsValid() const { return !scheme.empty() && !host.empty() && port != 0; }

bool autopUrl::operator==(const autopUrl& o) const {
  return scheme == o.scheme && user == o.user && password == o.password && host == o.host && port == o.port &&
         path == o.path && query == o.query && fragment == o.fragment;
}

}  // namespace ns_net
