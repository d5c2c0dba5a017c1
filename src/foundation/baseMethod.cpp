// System helpers. Paths stay logical in arguments and log lines and are resolved under the platform
// root only where the file system is touched; every wait goes through the service clock and every
// action on the machine (kill, ioctl, reboot) through the platform's action layer.
#define LOG_MODULE "./src/baseMethod"
#include "baseMethod.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>

#include "actions.h"
#include "autopMessages.h"
#include "beneath.h"
#include "clock.h"
#include "log.h"
#include "msgqueue.h"
#include "paths.h"

namespace {

constexpr size_t kCopyBuffer = 0x80000;
// Other applications (the web server, the picture viewer) read resource folders too.
constexpr mode_t kDirMode = 0755;
constexpr int64_t kJffs2Reserve = 65536;
constexpr long kJffs2Magic = 0x72b6;

StatfsFunction& statfsFunction() {
  static StatfsFunction function = nullptr;
  return function;
}

int realStatfs(const char* hostPathText, struct statfs* result) { return statfs(hostPathText, result); }

}  // namespace

int isNumber(const char* text) {
  if (!text) {
    LOG_NULL_POINTER();
    return 0;
  }
  for (const char* c = text; *c; ++c)
    if (!isdigit(static_cast<unsigned char>(*c))) return 0;
  return 1;
}

int copyFile(const char* source, const char* target) {
  if (!source || !target) {
    LOG_NULL_POINTER();
    return -1;
  }
  FilePtr in = openFile(source, "rb");
  if (!in) {
    LOG_IFO("Source file [%s] can't open! \n", source);
    return -1;
  }
  FilePtr out = openFile(target, "wb");
  if (!out) {
    LOG_IFO("Target file [%s] can't open! \n", target);
    return -1;
  }
  std::unique_ptr<char[]> buffer(new char[kCopyBuffer]);
  for (;;) {
    memset(buffer.get(), 0, kCopyBuffer);
    size_t got = fread(buffer.get(), 1, kCopyBuffer, in.get());
    if (got == 0 || fwrite(buffer.get(), 1, got, out.get()) != got) break;
  }
  return 0;
}

int dirName(const char* path, std::string& out) {
  if (!path) {
    LOG_NULL_POINTER();
    return -1;
  }
  const char* slash = strrchr(path, '/');
  if (slash) out.assign(path, static_cast<size_t>(slash - path));
  return 0;
}

// Never follows a link inside the tree (a link is removed itself), whatever its depth.
int removeTree(const char* dir) {
  if (!dir) {
    LOG_NULL_POINTER();
    return -1;
  }
  return removeHostTree(hostPath(dir));
}

int64_t fileSize(const char* path) {
  if (!path) {
    LOG_NULL_POINTER();
    return -1;
  }
  return pathFileSize(path);
}

int makeDirs(const char* path) {
  if (!path || !*path) {
    LOG_NULL_POINTER();
    return -1;
  }
  // Components are created on the resolved path, so a path that already names the root works too.
  std::string full = hostPath(path);
  for (size_t pos = 1; pos <= full.size(); ++pos) {
    if (pos < full.size() && full[pos] != '/') continue;
    mkdir(full.substr(0, pos).c_str(), kDirMode);
  }
  return pathIsDirectory(full) ? 0 : -1;
}

int listDir(const char* dir, std::vector<std::string>& list) {
  if (!dir) {
    LOG_NULL_POINTER();
    return -1;
  }
  std::vector<std::string> names;
  // A listing cut short by a read error is no listing: the caller would act on part of it.
  if (listDirectoryNames(dir, names) != 0) return -1;
  std::string base(dir);
  const char* format = !base.empty() && base.back() == '/' ? "%s%s" : "%s/%s";
  int found = 0;
  for (const std::string& name : names) {
    char path[PATH_MAX];
    snprintf(path, sizeof(path), format, dir, name.c_str());
    struct stat st;
    if (lstat(hostPath(path).c_str(), &st) != 0) {
      // Gone since it was listed is fine; anything else is a file we cannot see.
      if (errno != ENOENT) LOG_ERR("lstat error : %s (%s)", path, strerror(errno));
      continue;
    }
    list.push_back(path);
    ++found;
  }
  return found;
}

void setPartitionStatfs(StatfsFunction function) { statfsFunction() = function; }

int64_t partitionFreeSize(const char* filePath) {
  if (!filePath) {
    LOG_NULL_POINTER();
    return 0;
  }
  std::string path(filePath);
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return 0;
  // /tmp is RAM: its free space says nothing about what the phone can hold.
  if (path.compare(0, 4, "/tmp") == 0) return kTmpPartitionFreeSize;

  std::string dir = path.substr(0, slash);
  if (makeDirs(dir.empty() ? "/" : dir.c_str()) != 0) {
    LOG_ERR("Can't create directory : %s", dir.c_str());
    return 0;
  }
  StatfsFunction query = statfsFunction() ? statfsFunction() : realStatfs;
  struct statfs info {};
  if (query(hostPath(dir.empty() ? "/" : dir).c_str(), &info) != 0) {
    LOG_ERR("statfs error : %s", dir.c_str());
    return 0;
  }
  int64_t freeBytes = static_cast<int64_t>(info.f_bfree) * static_cast<int64_t>(info.f_bsize);
  LOG_IFO("partion [%s] free size:%lld byte, %lld KB", dir.c_str(), static_cast<long long>(freeBytes),
          static_cast<long long>(freeBytes / 1024));
  if (static_cast<long>(info.f_type) == kJffs2Magic) {
    // Keep room for the file system's own garbage collection.
    LOG_IFO("jffs2 file system, decrease 64K");
    freeBytes -= kJffs2Reserve;
  }
  return freeBytes;
}

// ---- Other applications ----

int32_t sendToTalkLogic(uint32_t id, uint32_t wParam, uint32_t lParam) {
  LOG_IFO("SEND MESSAGE:%x(%d,%d) to TalkLogic\n", id, static_cast<int32_t>(wParam), static_cast<int32_t>(lParam));
  int32_t reply = msgSendMsgToThread(msgGetThreadByName(kThreadPhone), id, wParam, lParam);
  LOG_DEB("receive msg return:%d \n", reply);
  return reply;
}

int32_t sendToTr069(uint32_t id, uint32_t wParam, uint32_t lParam) {
  LOG_IFO("SEND MESSAGE:%x(%d,%d) to tr069\n", id, static_cast<int32_t>(wParam), static_cast<int32_t>(lParam));
  msgThreadHandle agent = msgGetThreadByName(kThreadTr069);
  int32_t reply = agent.empty() ? -1 : msgSendMsgToThread(agent, id, wParam, lParam);
  LOG_DEB("receive msg return:%d \n", reply);
  return reply;
}

namespace {

constexpr int32_t kRestartAllowed = 1;
constexpr int32_t kInCall = 0;
constexpr int kMaxInCallAnswers = 242;  // the first answer and 241 repeats
constexpr uint32_t kInCallPollMs = 30;

}  // namespace

int waitCallEnd() {
  for (int inCallAnswers = 0;;) {
    int32_t reply = sendToTalkLogic(MSG_REBOOT_REQUEST, 0, 0);
    if (reply == kRestartAllowed) return 0;
    if (reply != kInCall || ++inCallAnswers >= kMaxInCallAnswers) return -1;
    brisaSleep(kInCallPollMs);
    LOG_IFO("phone is in talking!");
  }
}

// ---- Processes ----

namespace {

constexpr size_t kCmdlineMax = 256;

// The command name of a process: the text after the last "/" of its whole command line (arguments
// joined by blanks), so a shell running a script yields the script's file name.
std::string commandNameOf(const std::string& pid) {
  FilePtr file = openFile("/proc/" + pid + "/cmdline", "rb");
  if (!file) return "";
  char line[kCmdlineMax + 1] = {0};
  size_t length = fread(line, 1, kCmdlineMax, file.get());
  while (length > 0 && line[length - 1] == '\0') --length;
  for (size_t i = 0; i < length; ++i)
    if (line[i] == '\0') line[i] = ' ';
  std::string text(line, length);
  size_t slash = text.rfind('/');
  return slash == std::string::npos ? text : text.substr(slash + 1);
}

// The name the kernel keeps: between the first "(" and the following ")" of /proc/<pid>/stat.
std::string kernelNameOf(const std::string& pid) {
  std::string stat;
  if (!readTextFile("/proc/" + pid + "/stat", stat)) return "";
  size_t open = stat.find('(');
  size_t close = open == std::string::npos ? open : stat.find(')', open + 1);
  return close == std::string::npos ? "" : stat.substr(open + 1, close - open - 1);
}

bool isListed(const std::string& name, const char* const* names, int count) {
  if (name.empty()) return false;
  for (int i = 0; i < count; ++i)
    if (names[i] && name == names[i]) return true;
  return false;
}

bool isProtectedPid(long pid) { return pid == 1 || pid == getpid() || pid == getppid(); }

void killProcess(long pid, const std::string& name) {
  deviceKill(static_cast<int>(pid), SIGKILL, name);
  deviceKill(static_cast<int>(pid), SIGTERM, name);
}

}  // namespace

int killProcesses(const char* const* names, int count, bool keepListed) {
  if (!names && count > 0) {
    LOG_NULL_POINTER();
    return -1;
  }
  std::vector<std::string> entries;
  int read = listDirectoryNames("/proc", entries);
  if (read == -1) {
    LOG_ERR("failed to open /proc");
    return kKillNoProc;
  }
  for (const std::string& pidText : entries) {
    if (!isNumber(pidText.c_str()) || pidText.empty()) continue;
    long pid = strtol(pidText.c_str(), nullptr, 10);
    if (isProtectedPid(pid)) continue;
    std::string command = commandNameOf(pidText);
    std::string kernelName = kernelNameOf(pidText);
    bool listed = isListed(command, names, count) || isListed(kernelName, names, count);
    if (listed != keepListed) killProcess(pid, command.empty() ? kernelName : command);
  }
  return read == 0 ? 0 : -1;  // processes past a read error were not seen
}

// ---- Restart ----

namespace {

constexpr const char* kLcdDevice = "/dev/lcd0";
constexpr const char* kKeypadDevice = "/dev/input/keypad0";
constexpr uint32_t kScreenRebootNotice = 5;
constexpr uint32_t kScreenNoticeWaitMs = 10000;
constexpr unsigned long kLcdControlRequest = 20;
constexpr unsigned long kLcdRebootNotice = 243;
constexpr int kLcdNoticeRepeats = 60;
constexpr uint32_t kLcdNoticeIntervalMs = 5000;
// _IOW('E', 0xa3, int32_t): hands the phone to the hardware watchdog.
constexpr unsigned long kKeypadWatchdogRequest = 0x400445a3;
constexpr uint32_t kWatchdogWaitMs = 10000;

// True when the keypad driver took the watchdog request.
bool rebootByWatchdog() {
  DeviceFile keypad;
  if (!keypad.Open(kKeypadDevice, O_RDWR)) {
    LOG_ERR("Can't open keypad0 !");
    return false;
  }
  LOG_WAR("to ioctl ... ");
  if (keypad.Ioctl(kKeypadWatchdogRequest, 1) < 0) {
    LOG_ERR("Error!! fail to ioctl keypad !");
    return false;
  }
  LOG_WAR("Successed in closing watchdog !!");
  keypad.Close();
  return true;
}

}  // namespace

int showRebootOnScreen() {
  msgThreadHandle screen = msgGetThreadByName(kThreadScreen);
  if (!screen.empty()) {
    LOG_IFO("Post reboot MSG to screen!");
    msgPostMsgToThread(screen, MSG_SCREEN_REBOOT, kScreenRebootNotice, 0);
    brisaSleep(kScreenNoticeWaitMs);
  }
  DeviceFile lcd;
  if (!lcd.Open(kLcdDevice, O_WRONLY)) {
    LOG_ERR("can't open lcd0");
    return -1;
  }
  for (int i = 0; i < kLcdNoticeRepeats; ++i) {
    lcd.Ioctl(kLcdControlRequest, kLcdRebootNotice);
    brisaSleep(kLcdNoticeIntervalMs);
  }
  return 0;
}

int reboot() {
  backupLog();
  LOG_WAR("Reboot by watchdog !");
  if (!rebootByWatchdog()) LOG_WAR("DUNA: Fail to reboot by watchdog !");
  // The watchdog normally restarts the phone during this wait.
  LOG_WAR("Sleep 10s for reboot by watchdog ...");
  brisaSleep(kWatchdogWaitMs);
  LOG_WAR("Reboot by syscall ... ");
  return deviceRebootSyscall() == 0 ? 0 : -1;
}

// ---- Resource names ----

namespace {

struct ResourceType {
  const char* name;
  int type;
};

// Searched in this order; type 6 is not used.
constexpr ResourceType kResourceTypes[] = {
    {"contact_list", 1},   {"contact_photo", 2},
    {"photo_tar", 3},      {"contact_tar", 4},
    {"wallpaper", 5},      {"ringtone", 7},
    {"trusted_cert", 8},   {"server_cert", 9},
    {"dialnow", 10},       {"dialplan", 11},
    {"line_key", 12},      {"memory_key", 13},
    {"logo", 16},          {"custom_factory_config", 14},
    {"custom_config", 15}, {"openvpn", 17},
    {"802_1X", 18},
};

}  // namespace

int resourceKindOf(const char* word) {
  if (!word) return 0;
  if (strcmp(word, "xml") == 0) return 1;
  if (strcmp(word, "image") == 0) return 2;
  if (strcmp(word, "cert") == 0) return 3;
  if (strcmp(word, "tar") == 0) return 4;
  return 0;
}

int resourceTypeOf(const char* name) {
  if (!name) {
    LOG_NULL_POINTER();
    return 0;
  }
  const char* dot = strchr(name, '.');
  const char* key = dot ? dot + 1 : name;
  for (const ResourceType& entry : kResourceTypes)
    if (strcmp(key, entry.name) == 0) return entry.type;
  return 0;
}
