#define LOG_MODULE "./src/autoUpgrade"
#include "autoUpgrade.h"

#include <strings.h>

#include <cstring>

#include "autoParser.h"
#include "autopSettings.h"
#include "device.h"
#include "log.h"
#include "redact.h"
#include "registry.h"

namespace {

constexpr const char* kMacMark = "$mac";
constexpr const char* kDefaultScheme = "tftp://";

std::string withTrailingSlash(const std::string& text) {
  return !text.empty() && text.back() == '/' ? text : text + "/";
}

// Opens and applies one file of a directory; the update's code, -3 when it could not be opened.
int updateOneFile(const autopContext& context, autoParser& parser, const std::string& urlText, ConfigFileRole role) {
  ns_net::autopUrl url;
  if (!url.Parse(urlText) || !parser.OpenDownloadStream(url)) {
    if (context.status) context.status->addFile(urlText, fileOutcome::kRefused, "not downloaded");
    return kUpdateNotDownloaded;
  }
  parser.setFileRole(role);
  int code = parser.updateConfig(false);
  parser.CloseDownloadStream();
  return code;
}

bool namesSingleFile(const ns_net::autopUrl& url) {
  size_t slash = url.path.rfind('/');
  bool hasFileName = slash != std::string::npos && slash + 1 < url.path.size();
  return hasFileName && (isConfigFileName(url.path.c_str()) || !url.query.empty());
}

bool upgradeDirectory(const autopContext& context, autoParser& parser, const std::string& urlText) {
  const std::string directory = withTrailingSlash(urlText);
  const std::string commonName = getCommonConfigName();
  LOG_IFO("strCommName = [%s]", commonName.c_str());
  int commonCode = updateOneFile(context, parser, directory + commonName, ConfigFileRole::kCommon);

  const std::string deviceFile = netGetMACText() + ".cfg";
  std::string deviceUrl = directory + deviceFile;
  const std::string& custom = parser.customMacUrl();
  if (!custom.empty()) {
    LOG_IFO("Get Custom MAC.CFG's URL: %s", urlForLog(custom).c_str());
    deviceUrl = isConfigFileName(custom.c_str()) ? custom : withTrailingSlash(custom) + deviceFile;
  }
  int deviceCode = updateOneFile(context, parser, deviceUrl, ConfigFileRole::kPerDevice);
  return commonCode != kUpdateNotDownloaded || deviceCode != kUpdateNotDownloaded;
}

}  // namespace

bool isConfigFileName(const char* path) {
  if (!path) {
    LOG_NULL_POINTER();
    return false;
  }
  const char* dot = strrchr(path, '.');
  if (!dot) return false;
  for (const char* extension : {".cfg", ".ini", ".php", ".xml"})
    if (strcasecmp(dot, extension) == 0) return true;
  return false;
}

std::string getCommonConfigName() {
  std::string name = brisaGetProfileString(kSystemIni, kAutoProvisionSection, autop_key::kCommonFileName, "");
  if (name.empty())
    name = brisaGetProfileString("/phone/factory/system.ini", kAutoProvisionSection, autop_key::kCommonFileName, "");
  if (name.empty()) LOG_ERR("Fail to get COM config name !");
  return name;
}

std::string replaceMacMarks(const std::string& text, const std::string& macText) {
  std::string out;
  size_t start = 0;
  for (size_t at; (at = text.find(kMacMark, start)) != std::string::npos; start = at + strlen(kMacMark))
    out += text.substr(start, at - start) + macText;
  return out + text.substr(start);
}

ns_net::autopUrl autoUpgrade::UrlFromText(const std::string& urlText) {
  std::string text = replaceMacMarks(urlText, netGetMACText());
  // The text may carry credentials: only the masked form reaches the log.
  LOG_IFO("autoUpgrade::UpgradeFromURL(strReplaceURL=%s)", urlForLog(text).c_str());
  ns_net::autopUrl url;
  // A local path ("/tmp/local.cfg") stays a local file; any other text without a scheme is TFTP.
  if (text.find("://") == std::string::npos && (text.empty() || text[0] != '/')) text = kDefaultScheme + text;
  if (!url.Parse(text)) url.Clear();
  return url;
}

bool autoUpgrade::UpgradeFromURL(const autopContext& context, const std::string& urlText, const AutopInfo* info) {
  ns_net::autopUrl url = UrlFromText(urlText);
  LOG_IFO("type = %s,hostname = %s, username = %s, psw = ******, port = %d", logEscaped(url.scheme).c_str(),
          logEscaped(url.host).c_str(), logEscaped(url.user).c_str(), url.port);
  if (!url.IsValid()) {
    LOG_IFO("Invalid URL !");
    return false;
  }

  if (context.status) context.status->url = url.ToText();
  autoParser parser(context, info);
  if (namesSingleFile(url)) {
    if (parser.OpenDownloadStream(url)) {
      int code = parser.updateConfig(false);
      parser.CloseDownloadStream();
      LOG_DEB("url update =%d", code);
      return code != kUpdateNotDownloaded;
    }
    LOG_IFO("provisor: file[%s] can't be parsed ! look upon as DIR", url.LogText().c_str());
  }
  return upgradeDirectory(context, parser, url.ToText());
}
