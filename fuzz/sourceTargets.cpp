// Fuzz targets of the URL sources: the DHCP option store the network stack writes from a DHCP
// server's answer, and the AutopInfo record another application sends. Both end in the URL that a
// run downloads from, through the same steps as the launch sequence.
#define LOG_MODULE "./fuzz"
#include <cctype>
#include <cstddef>
#include <cstdlib>
#include <string>

#include "autoLaunch.h"
#include "autoParserCrypt.h"
#include "autoUpgrade.h"
#include "autopInfo.h"
#include "autopUrl.h"
#include "fuzzTargets.h"
#include "inifile.h"
#include "redact.h"

namespace {

void require(bool condition) {
  if (!condition) abort();
}

bool isHexPairs(const std::string& value) {
  if (value.size() < 2 || value.size() % 2 != 0) return false;
  for (char c : value)
    if (!isxdigit(static_cast<unsigned char>(c))) return false;
  return true;
}

// The option value as a URL text: hexadecimal byte pairs become the bytes in decimal joined with
// ".", anything else stays as it is.
void checkOptionText(const std::string& value, const std::string& url) {
  if (!isHexPairs(value)) {
    require(url == value);
    return;
  }
  std::string expected;
  for (size_t i = 0; i < value.size(); i += 2)
    expected += (i ? "." : "") + std::to_string(std::stoul(value.substr(i, 2), nullptr, 16));
  require(url == expected);
}

// The record a run downloads from reads back the same from its text form (which the directory
// steps parse again, with no "$mac" left to replace), and the log line's form of the text shows
// everything but the password.
void checkRunUrl(const std::string& text) {
  ns_net::autopUrl url = autoUpgrade::UrlFromText(text);
  ns_net::autopUrl again;
  if (url.IsValid()) require(again.Parse(url.ToText()) && again == url);
  ns_net::autopUrl plain;
  if (!plain.Parse(text) || plain.password.empty()) return;
  ns_net::autopUrl logged;
  require(logged.Parse(maskedUrl(text)));
  require(logged.password == "******" && logged.user == plain.user && logged.host == plain.host &&
          logged.port == plain.port && logged.path == plain.path && logged.query == plain.query);
}

// A field's text as the sender's bytes give it: up to its first zero, never past the field.
std::string fieldOf(const uint8_t* data, size_t size, size_t offset, size_t length) {
  std::string field;
  for (size_t i = offset; i < offset + length && i < size && data[i]; ++i) field += static_cast<char>(data[i]);
  return field;
}

}  // namespace

// Input: the option store as the network stack left it (INI text, section "DHCP", one key per
// option number).
void fuzzDhcpOption(const uint8_t* data, size_t size) {
  fuzzScratchRoot();
  iniFile store;
  store.LoadFromText(std::string(reinterpret_cast<const char*>(data), size));
  for (const char* option : {"66", "43", "160", "150", "128"}) {
    std::string value = store.GetTextValue("DHCP", option, "");
    if (value.empty()) continue;
    std::string url = autoLaunch::dhcpOptionText(value);
    checkOptionText(value, url);
    checkRunUrl(url);
  }
}

// Input: the bytes of an update-configuration message. Every text stays inside its field; the
// credentials put into a URL that names a server and none of its own read back from the URL
// unchanged; the keys are formed whatever the fields hold.
void fuzzAutopInfo(const uint8_t* data, size_t size) {
  fuzzScratchRoot();
  AutopInfo info = autopInfoFromBytes(data, size);
  const std::string url = autopInfoText(info.url);
  const std::string user = autopInfoText(info.userName);
  const std::string password = autopInfoText(info.password);
  require(url == fieldOf(data, size, offsetof(AutopInfo, url), sizeof(info.url)) &&
          user == fieldOf(data, size, offsetof(AutopInfo, userName), sizeof(info.userName)) &&
          password == fieldOf(data, size, offsetof(AutopInfo, password), sizeof(info.password)));
  std::string composed = autoLaunch::composeUrl(url, user, password, true);
  ns_net::autopUrl original;
  bool named = original.Parse(url) && original.scheme != "file" && original.user.empty() && original.password.empty();
  if (named && !user.empty()) {
    ns_net::autopUrl withLogin;
    require(withLogin.Parse(composed));
    require(withLogin.user == user && withLogin.password == password && withLogin.host == original.host &&
            withLogin.port == original.port && withLogin.path == original.path);
  } else if (!named) {
    require(composed == url);
  }
  checkRunUrl(composed);
  aesKeyFromText(autopInfoText(info.comAesKey));
  aesKeyFromText(autopInfoText(info.macAesKey));
}
