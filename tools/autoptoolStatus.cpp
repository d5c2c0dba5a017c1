// autoptool status [--json]: the record of the daemon's last run, for a person or for a fleet tool.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "autoptool.h"
#include "inifile.h"
#include "runStatus.h"
#include "timeutil.h"

namespace {

// The upgrader types a run counts applied items of.
const char* const kUpgraderTypes[] = {"cfg", "bin", "pwd", "rom"};

std::string jsonString(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    if (static_cast<unsigned char>(c) < 0x20) {
      char escaped[8];
      snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned char>(c));
      out += escaped;
      continue;
    }
    out += c;
  }
  return out + "\"";
}

std::string startedText(const std::string& seconds) {
  if (seconds.empty()) return "";
  return chTime(static_cast<int32_t>(strtol(seconds.c_str(), nullptr, 10))).Format("%Y-%m-%d %H:%M:%S");
}

int printForPerson(const iniFile& record) {
  auto run = [&record](const char* key) { return record.GetTextValue("run", key, ""); };
  auto orOff = [](const std::string& text) { return text.empty() ? std::string("off") : text; };
  printf("last run:       started %s, %s\n", startedText(run("started")).c_str(), run("trigger").c_str());
  printf("result:         %s\n", run("result").c_str());
  printf("source:         %s\n", run("source").c_str());
  printf("url:            %s\n", run("url").c_str());
  printf("reboot pending: %s\n", run("reboot_pending") == "1" ? "yes" : "no");
  printf("firmware:       %s\n", run("firmware").c_str());
  printf("next repeat:    %s\n", orOff(run("next_repeat")).c_str());
  printf("next weekly:    %s\n", orOff(run("next_weekly")).c_str());
  printf("items applied: ");
  for (const char* type : kUpgraderTypes) printf(" %s %s", type, record.GetTextValue("run", std::string("applied_") + type, "0").c_str());
  printf("\nfiles:\n");
  const long files = strtol(run("files").c_str(), nullptr, 10);
  for (long i = 1; i <= files && i <= static_cast<long>(kMaxRunStatusFiles); ++i) {
    const std::string section = "file." + std::to_string(i);
    const std::string reason = record.GetTextValue(section, "reason", "");
    printf("  %s: %s%s\n", record.GetTextValue(section, "url", "").c_str(),
           record.GetTextValue(section, "outcome", "").c_str(), reason.empty() ? "" : (" (" + reason + ")").c_str());
  }
  return 0;
}

int printJson(const iniFile& record) {
  auto field = [&record](const char* key) { return jsonString(record.GetTextValue("run", key, "")); };
  printf("{\"started\": %ld, \"trigger\": %s, \"result\": %s, \"source\": %s, \"url\": %s, ",
         strtol(record.GetTextValue("run", "started", "0").c_str(), nullptr, 10), field("trigger").c_str(),
         field("result").c_str(), field("source").c_str(), field("url").c_str());
  printf("\"reboot_pending\": %s, \"firmware\": %s, \"next_repeat\": %s, \"next_weekly\": %s, \"applied\": {",
         record.GetTextValue("run", "reboot_pending", "0") == "1" ? "true" : "false", field("firmware").c_str(),
         field("next_repeat").c_str(), field("next_weekly").c_str());
  const char* separator = "";
  for (const char* type : kUpgraderTypes) {
    printf("%s\"%s\": %ld", separator, type,
           strtol(record.GetTextValue("run", std::string("applied_") + type, "0").c_str(), nullptr, 10));
    separator = ", ";
  }
  printf("}, \"files\": [");
  const long files = strtol(record.GetTextValue("run", "files", "0").c_str(), nullptr, 10);
  for (long i = 1; i <= files && i <= static_cast<long>(kMaxRunStatusFiles); ++i) {
    const std::string section = "file." + std::to_string(i);
    printf("%s{\"url\": %s, \"outcome\": %s, \"reason\": %s}", i > 1 ? ", " : "",
           jsonString(record.GetTextValue(section, "url", "")).c_str(),
           jsonString(record.GetTextValue(section, "outcome", "")).c_str(),
           jsonString(record.GetTextValue(section, "reason", "")).c_str());
  }
  printf("]}\n");
  return 0;
}

}  // namespace

int autoptoolStatus(int argc, char** argv) {
  const bool json = argc == 1 && strcmp(argv[0], "--json") == 0;
  if (argc > 1 || (argc == 1 && !json)) {
    fprintf(stderr, "usage: autoptool status [--json]\n");
    return 2;
  }
  iniFile record;
  if (!record.LoadFromFile(kRunStatusPath)) {
    fprintf(stderr, "autoptool: no run recorded yet (%s)\n", kRunStatusPath);
    return 1;
  }
  return json ? printJson(record) : printForPerson(record);
}
