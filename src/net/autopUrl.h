// The URL record: every address the service downloads from (configuration, resource and firmware
// files) is held in one of these. The parser fills it, the download streams read it to choose a
// transport and its endpoint, and the text form hands it (credentials included) to the HTTP client.
//
// The parser keeps percent-escapes and other characters as they stand; only the separators
// "://", "@", ":", "[", "]", "/", "?" and "#" are interpreted. The user name and password are the
// exception: the record holds them unescaped, and the text form escapes in them "%", "@", "/",
// "?", "#", spaces and control characters (in the user name also ":", "[" and "]"), so that any
// credentials travel. The text form of a parsed record parses back into the same record.
#pragma once

#include <cstdint>
#include <string>

namespace ns_net {

struct autopUrl {
  std::string scheme;    // "file", "tftp", "ftp", "http", "https": stored in lower case
  std::string user;      // may be empty
  std::string password;  // may be empty; never written to a log (use LogText())
  std::string host;      // name, IPv4 address, or IPv6 address without its brackets
  int32_t port = -1;     // as written; -1 when the URL gives none
  std::string path;      // begins with "/" when present
  std::string query;     // after "?", without it (the "parameter part" of a provisioning URL)
  std::string fragment;  // after "#", without it

  // Parses `text` into this record (cleared first). False, with the record cleared, when the
  // text is empty, an IPv6 literal lacks its "]", or the port is not a number up to 65535.
  // A text beginning with "/" is a local file; a text without "://" is a TFTP address.
  bool Parse(const std::string& text);
  // The whole URL rebuilt: scheme "://" [user [":" password] "@"] host [":" port] path
  // ["?" query] ["#" fragment]; an IPv6 host goes inside "[" and "]".
  std::string ToText() const;
  // The text form with the password replaced by "******" and control characters escaped, for log
  // lines (urlForLog).
  std::string LogText() const;
  // Scheme and host non-empty and port not 0.
  bool IsValid() const;
  void Clear() { *this = autopUrl(); }

  bool operator==(const autopUrl& other) const;
  bool operator!=(const autopUrl& other) const { return !(*this == other); }
};

}  // namespace ns_net
