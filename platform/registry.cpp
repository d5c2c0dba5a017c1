// The configuration store: one cache per process, keyed by the file's host path. Reads refresh a
// cached file when its on-disk identity (inode, size, times) changed and nothing is pending; writes
// are remembered as pending changes and replayed over the latest disk contents at flush, so a flush
// never throws away what another process wrote to other keys meanwhile.
#define LOG_MODULE "./platform/registry"
#include "registry.h"

#include <pthread.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <unordered_map>
#include <vector>

#include "inifile.h"
#include "log.h"
#include "paths.h"
#include "registryInternal.h"

struct RegistrySection {
  std::string file;
  std::string section;
};

namespace {

// What identifies one version of a file on disk. An atomic replacement always changes the inode.
struct DiskStamp {
  // False when stat() failed for a reason other than a missing file: nothing is known then, and
  // the cached contents stay rather than being swapped for an empty file.
  bool known = true;
  bool exists = false;
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  int64_t mtimeNs = 0;
  int64_t ctimeNs = 0;

  bool operator==(const DiskStamp& o) const {
    return exists == o.exists && device == o.device && inode == o.inode && size == o.size &&
           mtimeNs == o.mtimeNs && ctimeNs == o.ctimeNs;
  }
  bool operator!=(const DiskStamp& o) const { return !(*this == o); }
};

int64_t nanoseconds(const timespec& t) { return static_cast<int64_t>(t.tv_sec) * 1000000000LL + t.tv_nsec; }

DiskStamp stampOf(const std::string& hostFile) {
  DiskStamp stamp;
  struct stat st;
  if (stat(hostFile.c_str(), &st) != 0) {
    if (errno != ENOENT && errno != ENOTDIR) {
      LOG_ERR("stat error : %s (%s)", hostFile.c_str(), strerror(errno));
      stamp.known = false;
    }
    return stamp;
  }
  stamp.exists = true;
  stamp.device = st.st_dev;
  stamp.inode = st.st_ino;
  stamp.size = st.st_size;
  stamp.mtimeNs = nanoseconds(st.st_mtim);
  stamp.ctimeNs = nanoseconds(st.st_ctim);
  return stamp;
}

struct PendingWrite {
  std::string section;
  std::string key;
  std::string value;
};

// The writes not yet on disk, one per key: a key set again keeps the place of its first write and
// takes the latest value, which is what replaying every write in order would leave. A long
// configuration file that sets the same few keys many times so holds each key once.
class PendingWrites {
 public:
  bool empty() const { return writes_.empty(); }
  const std::vector<PendingWrite>& inOrder() const { return writes_; }
  void add(const std::string& section, const std::string& key, const std::string& value) {
    auto& keys = index_[iniFile::sectionNameOf(section)];
    auto known = keys.find(key);
    if (known != keys.end()) {
      writes_[known->second].value = value;
      return;
    }
    keys.emplace(key, writes_.size());
    writes_.push_back(PendingWrite{section, key, value});
  }
  void clear() {
    writes_.clear();
    index_.clear();
  }

 private:
  std::vector<PendingWrite> writes_;
  std::map<std::string, std::map<std::string, size_t>> index_;  // section name, key: place in writes_
};

struct CachedFile {
  iniFile ini;
  DiskStamp stamp;  // of the disk version `ini` was read from (or written as)
  PendingWrites pending;
  bool flushDeferred = false;  // named in deferredFiles_
};

class RegistryCache {
 public:
  static RegistryCache& instance() {
    // Never destroyed: detached helper threads and atexit handlers may still use it.
    static RegistryCache* cache = new RegistryCache();
    return *cache;
  }

  bool lookup(const std::string& file, const std::string& section, const std::string& key, std::string& value) {
    std::lock_guard<std::mutex> lock(mutex_);
    CachedFile& entry = entryLocked(file);
    if (!entry.ini.HasKey(section, key)) return false;
    value = entry.ini.GetTextValue(section, key, "");
    return true;
  }

  std::string sectionText(const std::string& file, const std::string& section) {
    std::lock_guard<std::mutex> lock(mutex_);
    return registry_internal::sectionText(entryLocked(file).ini, section);
  }

  bool set(const std::string& file, const std::string& section, const std::string& key, const std::string& value) {
    if (key.empty()) return false;
    std::lock_guard<std::mutex> lock(mutex_);
    CachedFile& entry = entryLocked(file);
    entry.ini.SetTextValue(section, key, value);
    entry.pending.add(section, key, value);
    return true;
  }

  bool flush(const std::string& file, bool evenWhenDeferred = false) {
    std::lock_guard<std::mutex> lock(mutex_);
    const Known* known = knownLocked(file);
    if (deferDepth_ > 0 && !evenWhenDeferred) {
      if (!known) {
        deferredFiles_.insert(hostPath(file));
      } else if (!known->first->second.flushDeferred) {
        known->first->second.flushDeferred = true;
        deferredFiles_.insert(known->first->first);
      }
      return true;
    }
    if (known) return flushLocked(known->first->first, known->first->second);
    std::string hostFile = hostPath(file);
    auto it = files_.find(hostFile);
    return it == files_.end() || flushLocked(hostFile, it->second);
  }

  void beginDeferral() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++deferDepth_;
  }

  bool endDeferral() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (deferDepth_ == 0 || --deferDepth_ > 0) return true;
    bool allWritten = true;
    for (const std::string& hostFile : deferredFiles_) {
      auto it = files_.find(hostFile);
      if (it == files_.end()) continue;
      it->second.flushDeferred = false;
      allWritten = flushLocked(hostFile, it->second) && allWritten;
    }
    deferredFiles_.clear();
    return allWritten;
  }

  bool flushAll() {
    std::lock_guard<std::mutex> lock(mutex_);
    bool allWritten = true;
    for (auto& [hostFile, entry] : files_) allWritten = flushLocked(hostFile, entry) && allWritten;
    return allWritten;
  }

  void reset() {
    std::lock_guard<std::mutex> lock(mutex_);
    files_.clear();
    known_.clear();
  }

  // A forked child inherits the cache; the lock must not be held by a thread that does not exist
  // there.
  void lockForFork() { mutex_.lock(); }
  void unlockAfterFork() { mutex_.unlock(); }

 private:
  RegistryCache() = default;

  static void load(CachedFile& entry, const std::string& hostFile, const DiskStamp& stamp) {
    entry.ini.LoadFromFile(hostFile);  // a missing file is an empty one
    entry.stamp = stamp;
  }

  using FileMap = std::map<std::string, CachedFile>;
  // A logical path's cached file and the root it was resolved under.
  using Known = std::pair<FileMap::iterator, std::string>;

  // The cached file a logical path was last resolved to, or nullptr. A long configuration file
  // writes the same few files thousands of times: they skip resolving the path and searching the
  // cache by it. A change of root resolves again.
  const Known* knownLocked(const std::string& file) {
    auto found = known_.find(file);
    if (found == known_.end() || found->second.second != platformRoot()) return nullptr;
    return &found->second;
  }

  CachedFile& entryLocked(const std::string& file) {
    const Known* known = knownLocked(file);
    // A file with writes of ours pending is never read again before its flush: no need to look.
    if (known && !known->first->second.pending.empty()) return known->first->second;
    const std::string hostFile = known ? known->first->first : hostPath(file);
    auto it = known ? known->first : files_.find(hostFile);
    if (it != files_.end() && !it->second.pending.empty()) return it->second;
    DiskStamp now = stampOf(hostFile);
    if (it == files_.end()) {
      it = files_.emplace(hostFile, CachedFile{}).first;
      load(it->second, hostFile, now);
    } else if (now.known && it->second.stamp != now) {
      load(it->second, hostFile, now);
    }
    known_[file] = Known{it, platformRoot()};
    return it->second;
  }

  bool flushLocked(const std::string& hostFile, CachedFile& entry) {
    if (entry.pending.empty()) return true;
    // Another process replaced the file since we read it: start from its version and replay ours.
    DiskStamp now = stampOf(hostFile);
    if (now.known && now != entry.stamp) {
      load(entry, hostFile, now);
      for (const PendingWrite& w : entry.pending.inOrder()) entry.ini.SetTextValue(w.section, w.key, w.value);
    }
    std::string text = entry.ini.ExportToText();
    bool written = registry_internal::writeWithoutSelfNotice(
        hostFile, entry.ini, [&hostFile, &text] { return writeFileAtomic(hostFile, text); });
    if (!written) {
      LOG_ERR("Fail to flush registry file [%s]", hostFile.c_str());
      return false;
    }
    entry.stamp = stampOf(hostFile);
    entry.pending.clear();
    return true;
  }

  std::mutex mutex_;
  FileMap files_;
  std::unordered_map<std::string, Known> known_;
  int deferDepth_ = 0;
  std::set<std::string> deferredFiles_;
};

RegistryCache& cache() {
  registry_internal::registerForkHandlers();
  return RegistryCache::instance();
}

// Decimal value of a key; the default when the text holds no number at all.
int32_t parseInt(const std::string& text, int32_t defaultValue) {
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  long value = strtol(begin, &end, 10);
  if (end == begin || errno == ERANGE) return defaultValue;
  return static_cast<int32_t>(value);
}

std::string getString(const std::string& file, const std::string& section, const std::string& key,
                      const std::string& defaultValue) {
  std::string value;
  return cache().lookup(file, section, key, value) ? value : defaultValue;
}

int32_t getInt(const std::string& file, const std::string& section, const std::string& key, int32_t defaultValue) {
  std::string value;
  return cache().lookup(file, section, key, value) ? parseInt(value, defaultValue) : defaultValue;
}

}  // namespace

void registry_internal::registerForkHandlers() {
  static std::once_flag once;
  std::call_once(once, [] {
    pthread_atfork(
        [] {
          RegistryCache::instance().lockForFork();
          monitorLockForFork();
        },
        [] {
          monitorUnlockInParent();
          RegistryCache::instance().unlockAfterFork();
        },
        [] {
          monitorResetInChild();
          RegistryCache::instance().unlockAfterFork();
        });
  });
}

std::string brisaGetProfileString(const std::string& file, const std::string& section, const std::string& key,
                                  const std::string& defaultValue) {
  return getString(file, section, key, defaultValue);
}

int32_t brisaGetProfileInt(const std::string& file, const std::string& section, const std::string& key,
                           int32_t defaultValue) {
  return getInt(file, section, key, defaultValue);
}

bool brisaSetProfileString(const std::string& file, const std::string& section, const std::string& key,
                           const std::string& value) {
  return cache().set(file, section, key, value) && cache().flush(file);
}

bool brisaSetProfileStringNow(const std::string& file, const std::string& section, const std::string& key,
                              const std::string& value) {
  return cache().set(file, section, key, value) && cache().flush(file, true);
}

bool brisaSetProfileInt(const std::string& file, const std::string& section, const std::string& key, int32_t value) {
  return brisaSetProfileString(file, section, key, std::to_string(value));
}

std::string brisaGetRegistryString(const std::string& file, const std::string& section, const std::string& key,
                                   const std::string& defaultValue) {
  return getString(file, section, key, defaultValue);
}

int32_t brisaGetRegistryInt(const std::string& file, const std::string& section, const std::string& key,
                            int32_t defaultValue) {
  return getInt(file, section, key, defaultValue);
}

bool brisaSetRegistryString(const std::string& file, const std::string& section, const std::string& key,
                            const std::string& value) {
  return cache().set(file, section, key, value);
}

REGHANDLE registryOpen(const std::string& file, const std::string& section) {
  if (file.empty()) return nullptr;
  return std::make_shared<RegistrySection>(RegistrySection{file, section});
}

void registryClose(REGHANDLE& handle) { handle.reset(); }

int32_t registryGetInt(const REGHANDLE& handle, const std::string& key, int32_t defaultValue) {
  return handle ? getInt(handle->file, handle->section, key, defaultValue) : defaultValue;
}

std::string registryGetString(const REGHANDLE& handle, const std::string& key, const std::string& defaultValue) {
  return handle ? getString(handle->file, handle->section, key, defaultValue) : defaultValue;
}

std::string registrySectionText(const REGHANDLE& handle) {
  return handle ? cache().sectionText(handle->file, handle->section) : std::string();
}

bool registrySetString(const REGHANDLE& handle, const std::string& key, const std::string& value) {
  return handle && cache().set(handle->file, handle->section, key, value);
}

bool registryFlush(const REGHANDLE& handle) { return handle && cache().flush(handle->file); }

const std::string& registryFileOf(const REGHANDLE& handle) {
  static const std::string none;
  return handle ? handle->file : none;
}

const std::string& registrySectionOf(const REGHANDLE& handle) {
  static const std::string none;
  return handle ? handle->section : none;
}

bool regFlushAllFile() { return cache().flushAll(); }

void registryBeginDeferredFlush() { cache().beginDeferral(); }

bool registryEndDeferredFlush() { return cache().endDeferral(); }

void registryResetCache() { cache().reset(); }
