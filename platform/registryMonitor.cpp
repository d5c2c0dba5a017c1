// Section monitors of the configuration store. One watcher thread per process follows the
// directories of the monitored files with inotify; when a monitored file is replaced or rewritten it
// compares each monitored section with the last known text and, when it differs, queues the
// callback to the thread that registered the monitor, so callbacks run between that thread's
// messages like everything else it does.
#define LOG_MODULE "./platform/registry"
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "inifile.h"
#include "log.h"
#include "msgqueue.h"
#include "paths.h"
#include "registry.h"
#include "registryInternal.h"

namespace registry_internal {

std::string sectionText(const iniFile& ini, const std::string& section) {
  std::string text;
  if (const iniSection* found = ini.findSection(section))
    for (const iniKey& entry : found->keys)
      if (!entry.isComment()) text += entry.key + "=" + entry.value + "\n";
  return text;
}

}  // namespace registry_internal

namespace {

using registry_internal::sectionText;

constexpr uint32_t kWatchEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE;

struct Monitor {
  std::string file;  // as the caller named it
  std::string hostFile;
  std::string fileName;
  std::string section;
  std::string known;  // section text last seen or written by this process
  int watch = -1;
  chThreadLocal* owner = nullptr;
  RegistryChangeCallback onChange;
};

std::string sectionOnDisk(const std::string& hostFile, const std::string& section) {
  iniFile ini;
  ini.LoadFromFile(hostFile);
  return sectionText(ini, section);
}

bool makeHostDirs(const std::string& dir) {
  for (size_t pos = 1; pos <= dir.size(); ++pos) {
    if (pos < dir.size() && dir[pos] != '/') continue;
    std::string prefix = dir.substr(0, pos);
    if (mkdir(prefix.c_str(), 0775) != 0 && errno != EEXIST) return false;
  }
  return true;
}

class RegistryWatcher {
 public:
  static RegistryWatcher& instance() {
    // Never destroyed: the watcher thread is detached and may outlive static destruction.
    static RegistryWatcher* watcher = new RegistryWatcher();
    return *watcher;
  }

  uint32_t add(const std::string& file, const std::string& section, RegistryChangeCallback onChange,
               chThreadLocal* owner) {
    Monitor m;
    m.file = file;
    m.hostFile = hostPath(file);
    size_t slash = m.hostFile.rfind('/');
    std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : m.hostFile.substr(0, slash));
    m.fileName = m.hostFile.substr(slash == std::string::npos ? 0 : slash + 1);
    m.section = section;
    m.owner = owner;
    m.onChange = std::move(onChange);
    if (!makeHostDirs(dir)) return 0;

    std::lock_guard<std::mutex> lock(mutex_);
    if (!ensureStartedLocked()) return 0;
    m.watch = inotify_add_watch(inotifyFd_, dir.c_str(), kWatchEvents);
    if (m.watch < 0) {
      LOG_ERR("Fail to watch [%s] : %s", dir.c_str(), strerror(errno));
      return 0;
    }
    ++watchUsers_[m.watch];
    m.known = sectionOnDisk(m.hostFile, section);
    uint32_t id = nextId_++;
    monitors_.emplace(id, std::move(m));
    return id;
  }

  void remove(uint32_t id) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = monitors_.find(id);
    if (it == monitors_.end()) return;
    int watch = it->second.watch;
    monitors_.erase(it);
    if (--watchUsers_[watch] <= 0) {
      watchUsers_.erase(watch);
      inotify_rm_watch(inotifyFd_, watch);
    }
  }

  bool writeWithoutSelfNotice(const std::string& hostFile, const iniFile& contents,
                              const std::function<bool()>& write) {
    std::lock_guard<std::mutex> lock(mutex_);
    // A change by another process that the watcher has not seen yet must still be reported even
    // though this write will carry it along.
    compareFileLocked(hostFile);
    if (!write()) return false;
    for (auto& [id, m] : monitors_)
      if (m.hostFile == hostFile) m.known = sectionText(contents, m.section);
    return true;
  }

  void lockForFork() { mutex_.lock(); }
  void unlockInParent() { mutex_.unlock(); }
  // The child has none of the parent's threads: neither the watcher nor the monitors' owners.
  void resetInChild() {
    monitors_.clear();
    watchUsers_.clear();
    if (inotifyFd_ >= 0) close(inotifyFd_);
    inotifyFd_ = -1;
    mutex_.unlock();
  }

 private:
  RegistryWatcher() = default;

  bool ensureStartedLocked() {
    if (inotifyFd_ >= 0) return true;
    inotifyFd_ = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (inotifyFd_ < 0) {
      LOG_ERR("Fail to start registry monitor : %s", strerror(errno));
      return false;
    }
    std::thread([this, fd = inotifyFd_] { watch(fd); }).detach();
    return true;
  }

  void watch(int fd) {
    alignas(inotify_event) char buffer[8192];
    for (;;) {
      // Blocks until a watched directory changes: an idle daemon is not woken for nothing.
      pollfd waiter{fd, POLLIN, 0};
      if (poll(&waiter, 1, -1) <= 0) continue;
      ssize_t length = read(fd, buffer, sizeof(buffer));
      if (length <= 0) continue;
      std::set<std::pair<int, std::string>> touched;
      bool overflow = false;
      for (ssize_t offset = 0; offset < length;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
        if (event->mask & IN_Q_OVERFLOW) overflow = true;
        if (event->len > 0) touched.emplace(event->wd, std::string(event->name));
        offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      }
      std::lock_guard<std::mutex> lock(mutex_);
      if (fd != inotifyFd_) return;  // a forked child's copy of a watcher that is gone
      std::set<std::string> files;
      for (auto& [id, m] : monitors_)
        if (overflow || touched.count({m.watch, m.fileName})) files.insert(m.hostFile);
      for (const std::string& file : files) compareFileLocked(file);
    }
  }

  void compareFileLocked(const std::string& hostFile) {
    bool loaded = false;
    iniFile disk;
    for (auto& [id, m] : monitors_) {
      if (m.hostFile != hostFile) continue;
      if (!loaded) loaded = (disk.LoadFromFile(hostFile), true);
      std::string now = sectionText(disk, m.section);
      if (now == m.known) continue;
      m.known = now;
      uint32_t monitorId = id;
      m.owner->QueueCall([this, monitorId] { deliver(monitorId); });
    }
  }

  // Runs on the owner's thread. A monitor stopped after the change was queued is not called.
  void deliver(uint32_t id) {
    RegistryChangeCallback onChange;
    REGHANDLE handle;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = monitors_.find(id);
      if (it == monitors_.end()) return;
      onChange = it->second.onChange;
      handle = registryOpen(it->second.file, it->second.section);
    }
    onChange(handle);
  }

  std::mutex mutex_;
  std::map<uint32_t, Monitor> monitors_;
  std::map<int, int> watchUsers_;
  int inotifyFd_ = -1;
  uint32_t nextId_ = 1;
};

}  // namespace

void registry_internal::monitorLockForFork() { RegistryWatcher::instance().lockForFork(); }
void registry_internal::monitorUnlockInParent() { RegistryWatcher::instance().unlockInParent(); }
void registry_internal::monitorResetInChild() { RegistryWatcher::instance().resetInChild(); }

bool registry_internal::writeWithoutSelfNotice(const std::string& hostFile, const iniFile& contents,
                                               const std::function<bool()>& write) {
  return RegistryWatcher::instance().writeWithoutSelfNotice(hostFile, contents, write);
}

uint32_t registryMonitorSection(const std::string& file, const std::string& section, RegistryChangeCallback onChange) {
  chThreadLocal* owner = chThreadLocal::Current();
  if (!owner || !onChange || file.empty()) {
    LOG_NULL_POINTER();
    return 0;
  }
  registry_internal::registerForkHandlers();
  return RegistryWatcher::instance().add(file, section, std::move(onChange), owner);
}

void registryStopMonitor(uint32_t monitorId) { RegistryWatcher::instance().remove(monitorId); }
