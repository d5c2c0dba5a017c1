#include "redact.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "autopItem.h"

#define LOG_MODULE "./src/redact"
#include "log.h"

namespace {

// Masks the password of the URL whose authority begins at `start`, looking no further than `limit`.
void maskOne(const std::string& text, size_t start, size_t limit, std::string& out) {
  if (start >= limit || text[start] == '[') return;  // an IPv6 host: no user part before it
  size_t colon = text.find(':', start);
  if (colon >= limit || text.find_first_of("/?#", start) < colon) return;
  size_t firstAt = text.find('@', colon + 1);
  if (firstAt >= limit) return;
  size_t authorityEnd = std::min(text.find_first_of("/?#", firstAt + 1), limit);
  size_t at = text.rfind('@', authorityEnd - 1);
  if (at == colon + 1) return;  // an empty password hides nothing
  out.replace(colon + 1, at - colon - 1, kMaskedSecret);
}

}  // namespace

std::string maskedUrl(const std::string& text) {
  std::vector<size_t> schemeEnds;
  for (size_t p = text.find("://"); p != std::string::npos; p = text.find("://", p + 3)) schemeEnds.push_back(p);
  std::string out = text;
  if (schemeEnds.empty()) {
    maskOne(text, 0, text.size(), out);
    return out;
  }
  // From the last URL back, so that a replacement never moves the ones still to do.
  for (size_t i = schemeEnds.size(); i-- > 0;) {
    size_t limit = i + 1 < schemeEnds.size() ? schemeEnds[i + 1] : text.size();
    maskOne(text, schemeEnds[i] + 3, limit, out);
  }
  return out;
}

std::string urlForLog(const std::string& text) { return logEscaped(maskedUrl(text)); }

// It runs for every setting written, so it neither copies nor allocates.
bool isSecretName(const std::string& keyOrName) {
  static const char* const kWords[] = {"password", "passwd", "pswd", "pwd", "pin", "aes", "secret"};
  const char* text = keyOrName.c_str();
  for (size_t at = 0; at < keyOrName.size(); ++at)
    for (const char* word : kWords)
      if (strncasecmp(text + at, word, strlen(word)) == 0) return true;
  return false;
}

bool isSecretItem(const autopItem& item) {
  if (item.encrypt || item.type == "pwd" || isSecretName(item.key) || isSecretName(item.name)) return true;
  return item.section == kRandomKeySection && item.path == kRandomKeyFile;
}

std::string settingValueForLog(bool secret, const std::string& value) {
  return secret ? std::string(kMaskedSecret) : urlForLog(value);
}
