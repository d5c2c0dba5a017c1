#define LOG_MODULE "./fuzz"
#include "fuzzTargets.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "autoParserCrypt.h"
#include "autoParserModel.h"
#include "autopTranslator.h"
#include "autopUrl.h"
#include "callMethod.h"
#include "inifile.h"
#include "log.h"
#include "paths.h"

// A private root for the file-based targets, made once per process and removed at exit.
namespace {
std::string* g_scratchRoot = nullptr;
}  // namespace

void fuzzScratchRoot() {
  if (!g_scratchRoot) {
    char pattern[] = "/tmp/provisor-fuzz-XXXXXX";
    g_scratchRoot = new std::string(mkdtemp(pattern) ? pattern : "");
    atexit([] {
      if (!g_scratchRoot->empty()) (void)!system(("rm -rf '" + *g_scratchRoot + "'").c_str());
    });
  }
  platformSetRoot(*g_scratchRoot);
}

namespace {

// The property a target checks; a failure aborts so the fuzzer keeps the input.
void require(bool condition) {
  if (!condition) abort();
}

std::string text(const uint8_t* data, size_t size) { return std::string(reinterpret_cast<const char*>(data), size); }

// Logging every record of millions of inputs would only slow the search down.
struct QuietLog {
  QuietLog() { logSetTestSink(nullptr); }
};

const autopTranslator& smallTable() {
  static autopTranslator* table = [] {
    auto* t = new autopTranslator();
    writeFileAtomic("/fuzz-table.xml",
                    "<autopTranslator><cfg>"
                    "<object name=\"account\" indexMask=\"$i\" range=\"0-3\" path=\"/a$i.cfg\" section=\"account\">"
                    "<item name=\"label\" key=\"Label\"/></object>"
                    "<object name=\"net\" path=\"/config/system/system.ini\" section=\"Network\">"
                    "<item name=\"vlan\" key=\"VlanID\"/></object>"
                    "</cfg><pwd><object name=\"security\" path=\"/valdrun/config/.htpasswd\">"
                    "<item name=\"user_password\" section=\"user\"/></object></pwd></autopTranslator>");
    t->loadTransData("/fuzz-table.xml");
    return t;
  }();
  return *table;
}

void fuzzUrl(const uint8_t* data, size_t size) {
  ns_net::autopUrl url;
  if (!url.Parse(text(data, size))) return;
  ns_net::autopUrl again;
  require(again.Parse(url.ToText()));
  require(again == url);
  // A password shows only as asterisks in log lines.
  require(url.password.empty() || url.LogText().find(":******@") != std::string::npos);
}

void fuzzConfigFile(const uint8_t* data, size_t size) {
  fuzzScratchRoot();
  if (!writeFileAtomic("/tmp/xxx.cfg", text(data, size))) return;
  std::string version;
  RawPairList pairs;
  switch (recogniseModel("/tmp/xxx.cfg", version)) {
    case ConfigModel::kM7:
      require(version.size() <= 31);
      loadM7Pairs("/tmp/xxx.cfg", pairs);
      break;
    case ConfigModel::kM1OrM2:
      loadM1OrM2Pairs("/tmp/xxx.cfg", smallTable(), pairs);
      break;
    case ConfigModel::kUnreadable:
      break;
  }
  for (const RawPair& pair : pairs) {
    autopItem item;
    smallTable().findItem(pair.first, item);
  }
}

void fuzzIniText(const uint8_t* data, size_t size) {
  iniFile first;
  first.LoadFromText(text(data, size));
  // What we write, we read back the same.
  std::string exported = first.ExportToText();
  iniFile second;
  second.LoadFromText(exported);
  require(second.ExportToText() == exported);
}

void fuzzTextMethod(const uint8_t* data, size_t size) {
  std::string name;
  std::vector<std::string> arguments;
  parseTextMethodCall(text(data, size), name, arguments);
  std::string argument = text(data, size);
  applyParamOperator(&argument);
}

void fuzzTranslationTable(const uint8_t* data, size_t size) {
  fuzzScratchRoot();
  if (!writeFileAtomic("/tmp/table.xml", text(data, size))) return;
  autopTranslator table;
  table.loadTransData("/tmp/table.xml");
  autopItem item;
  table.findItem("account.1.label", item);
  std::string name;
  table.findItemName("/a0.cfg", "account", "Label", name);
}

void fuzzCipherFile(const uint8_t* data, size_t size) {
  fuzzScratchRoot();
  if (!writeFileAtomic("/tmp/enc.cfg", text(data, size))) return;
  if (looksEncrypted("/tmp/enc.cfg")) decryptFile("/tmp/enc.cfg", aesKeyFromText("fuzz"));
}

}  // namespace

const FuzzTarget kFuzzTargets[] = {
    {"url", fuzzUrl},
    {"config_file", fuzzConfigFile},
    {"ini_text", fuzzIniText},
    {"text_method", fuzzTextMethod},
    {"translation_table", fuzzTranslationTable},
    {"cipher_file", fuzzCipherFile},
    {"sip_message", fuzzSipMessage},
    {"password_file", fuzzPasswordFile},
    {"xml_element_path", fuzzXmlElementPath},
    {"archive_entries", fuzzArchiveEntries},
    {"firmware_header", fuzzFirmwareHeader},
    {"ftp_reply", fuzzFtpReply},
    {"tftp_packet", fuzzTftpPacket},
    {"http_header", fuzzHttpHeader},
    {"dhcp_option", fuzzDhcpOption},
    {"autop_info", fuzzAutopInfo},
    {nullptr, nullptr},
};

const FuzzTarget* findFuzzTarget(const std::string& name) {
  static QuietLog quiet;
  for (const FuzzTarget* t = kFuzzTargets; t->name; ++t)
    if (name == t->name) return t;
  return nullptr;
}
