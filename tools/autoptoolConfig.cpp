// autoptool's configuration-file commands: encrypt and decrypt in the phone's file format, a dry run
// of a configuration file against the translation table, and one provisioning run into a sandbox.
#define LOG_MODULE "./tools/autoptool"
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "autoParserCrypt.h"
#include "autoParserModel.h"
#include "autoUpgrade.h"
#include "autopTranslator.h"
#include "autoptool.h"
#include "log.h"
#include "paths.h"
#include "privateTmp.h"
#include "redact.h"

namespace {

// Messages may quote a URL the administrator gave, password included.
int fail(const std::string& message) {
  fprintf(stderr, "autoptool: %s\n", urlForLog(message).c_str());
  return 1;
}

// "mac:<MAC text>" stands for the key a phone derives from its MAC; any other text is the key itself.
AesKey keyFromArgument(const std::string& text) {
  const std::string macPrefix = "mac:";
  if (text.compare(0, macPrefix.size(), macPrefix) == 0) return derivedDeviceKey(text.substr(macPrefix.size()));
  return aesKeyFromText(text);
}

// The administrator's files are paths of this machine, not of the phone's tree.
void useHostPaths() { platformSetRoot(""); }

std::string temporaryCopy(const std::string& source) {
  std::string contents;
  if (!readTextFile(source, contents)) return "";
  char pattern[] = "/tmp/autoptool-XXXXXX";
  int fd = mkstemp(pattern);
  if (fd < 0) return "";
  close(fd);
  return writeFileAtomic(pattern, contents) ? pattern : "";
}

// Secret values are not echoed, by the rule the daemon's log follows; the file's own texts are
// printed with control characters escaped.
void printItem(const std::string& key, const autopItem& item) {
  bool secret = isSecretItem(item) || isSecretName(key);
  printf("%s -> %s %s [%s] %s = %s\n", logEscaped(key).c_str(), item.type.c_str(), item.path.c_str(),
         item.section.c_str(), item.key.c_str(), settingValueForLog(secret, item.value).c_str());
}

}  // namespace

int autoptoolEncrypt(int argc, char** argv) {
  if (argc != 3) return fail("usage: autoptool encrypt KEY IN OUT");
  useHostPaths();
  if (!encryptFile(argv[1], argv[2], keyFromArgument(argv[0]))) return fail(std::string("can't encrypt ") + argv[1]);
  return 0;
}

int autoptoolDecrypt(int argc, char** argv) {
  if (argc != 3) return fail("usage: autoptool decrypt KEY IN OUT");
  useHostPaths();
  std::string contents;
  if (!readTextFile(argv[1], contents)) return fail(std::string("can't read ") + argv[1]);
  if (!writeFileAtomic(argv[2], contents)) return fail(std::string("can't write ") + argv[2]);
  if (!decryptFile(argv[2], keyFromArgument(argv[0]))) {
    unlink(argv[2]);
    return fail("decryption failed: wrong key or not an encrypted file");
  }
  return 0;
}

int autoptoolCheck(int argc, char** argv) {
  std::string tablePath;
  std::string config;
  for (int i = 0; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--table" && i + 1 < argc)
      tablePath = argv[++i];
    else if (config.empty())
      config = arg;
    else
      return fail("usage: autoptool check [--table FILE] CONFIG");
  }
  if (config.empty()) return fail("usage: autoptool check [--table FILE] CONFIG");
  // Without --table, the table the phone would load from its own tree.
  if (tablePath.empty())
    tablePath = hostPath(pathFileExist(kTranslatorConfigPath) ? kTranslatorConfigPath : kTranslatorPhonePath);
  useHostPaths();

  autopTranslator table;
  if (!table.loadTransData(tablePath)) return fail("can't load the translation table " + tablePath);
  // The older model may rewrite its file (byte-order mark): work on a copy, write nothing.
  std::string copy = temporaryCopy(config);
  if (copy.empty()) return fail("can't read " + config);
  std::string version;
  RawPairList pairs;
  ConfigModel model = recogniseModel(copy, version);
  bool loaded = model == ConfigModel::kM7 ? loadM7Pairs(copy, pairs)
                                          : model == ConfigModel::kM1OrM2 && loadM1OrM2Pairs(copy, table, pairs);
  unlink(copy.c_str());
  if (!loaded) return fail("can't load " + config + " in either file model");

  int unknown = 0;
  printf("model %s%s\n", model == ConfigModel::kM7 ? "M7 version " : "M1/M2", version.c_str());
  for (const RawPair& pair : pairs) {
    // The daemon skips "a.b=" before it looks the key up; only "%NULL%" sets the empty value.
    if (pair.second.empty()) {
      printf("%s -> skipped: empty value\n", logEscaped(pair.first).c_str());
      continue;
    }
    autopItem item;
    if (!table.findItem(pair.first, item)) {
      printf("%s -> unknown\n", logEscaped(pair.first).c_str());
      ++unknown;
      continue;
    }
    item.value = pair.second == "%NULL%" ? "" : pair.second;
    printItem(pair.first, item);
  }
  printf("%zu keys, %d unknown\n", pairs.size(), unknown);
  return unknown ? 1 : 0;
}

int autoptoolProvision(int argc, char** argv) {
  if (argc != 1) return fail("usage: autoptool provision URL");
  // A run as the daemon's: what a run cut short left in the download folder goes first.
  preparePrivateTmpDir();
  autopTranslator table;
  if (!table.loadDefaultTable()) fprintf(stderr, "autoptool: no translation table loaded\n");
  autopContext context;
  context.translator = &table;
  context.requestReboot = [] { printf("autoptool: an applied setting asks for a reboot\n"); };
  bool reached = autoUpgrade::UpgradeFromURL(context, argv[0]);
  if (!reached) return fail(std::string("no configuration file could be downloaded from ") + argv[0]);
  return 0;
}
