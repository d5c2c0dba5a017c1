// Section monitors: callbacks on the registering thread for changes made by other processes, none
// for other sections or for this process's own flushes, none after the monitor stopped.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "msgqueue.h"
#include "registry.h"
#include "servers.h"

using namespace testing_support;

namespace {

const char* kSystemIni = "/config/system/system.ini";

// Bounded real-time wait for something another thread does (inotify is asynchronous).
bool waitUntil(const std::function<bool()>& done) { return pollFor(done, 10000); }

// Another process writing through its own configuration store.
void setInOtherProcess(const std::string& section, const std::string& key, const std::string& value) {
  fflush(stdout);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(brisaSetProfileString(kSystemIni, section, key, value) ? 0 : 1);
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

// A message-queue thread on a std::thread that records what its monitors report (marked when a
// report came on another thread).
class MonitorOwner {
 public:
  MonitorOwner() : thread_("monitor_owner") {
    runner_ = std::thread([this] { thread_.Run(); });
  }
  ~MonitorOwner() {
    thread_.Quit(0);
    runner_.join();
  }

  // Registers a monitor from the owner's own thread; returns its id.
  uint32_t monitor(const std::string& section, const std::string& tag) {
    uint32_t id = 0;
    onOwner([&] {
      id = registryMonitorSection(kSystemIni, section, [this, tag](const REGHANDLE& handle) {
        std::lock_guard<std::mutex> lock(mutex_);
        seen_.push_back((thread_.IsCalledByThisThread() ? "" : "off-thread ") + tag + ":" + registrySectionOf(handle) +
                        ":" + registryGetString(handle, "a", ""));
      });
    });
    return id;
  }
  void stop(uint32_t id) {
    onOwner([id] { registryStopMonitor(id); });
  }
  std::vector<std::string> seen() {
    std::lock_guard<std::mutex> lock(mutex_);
    return seen_;
  }

 private:
  // Runs `call` on the owner's thread and waits for it.
  void onOwner(const std::function<void()>& call) {
    std::atomic<bool> done{false};
    thread_.QueueCall([&] {
      call();
      done = true;
    });
    EXPECT_TRUE(waitUntil([&] { return done.load(); }));
  }
  chThreadLocal thread_;
  std::thread runner_;
  std::mutex mutex_;
  std::vector<std::string> seen_;
};

using RegistryMonitorTest = RootedTest;

}  // namespace

TEST_F(RegistryMonitorTest, ReportsChangesOfOtherProcessesOnTheOwningThread) {
  root->write(kSystemIni, "[AutoProvision]\na=1\n[Other]\na=1\n");
  MonitorOwner owner;
  uint32_t id = owner.monitor("AutoProvision", "m1");

  // Neither another section nor this process's own flush is reported: the first report is the
  // replacement by another writer that follows them.
  setInOtherProcess("Other", "a", "9");
  ASSERT_TRUE(brisaSetProfileString(kSystemIni, "AutoProvision", "a", "3"));
  root->write("/config/system/incoming", "[AutoProvision]\na=4\n[Other]\na=9\n");
  ASSERT_EQ(rename(root->host("/config/system/incoming").c_str(), root->host(kSystemIni).c_str()), 0);
  ASSERT_TRUE(waitUntil([&] { return owner.seen().size() == 1; }));

  // A stopped monitor stays silent; a second one on the same section shows the change arrived.
  uint32_t second = owner.monitor("AutoProvision", "m2");
  owner.stop(id);
  setInOtherProcess("AutoProvision", "a", "5");
  ASSERT_TRUE(waitUntil([&] { return owner.seen().size() == 2; }));

  // A change reaches the monitor even when this process flushes before the watcher saw it.
  setInOtherProcess("AutoProvision", "b", "1");
  ASSERT_TRUE(brisaSetProfileString(kSystemIni, "Other", "z", "1"));
  ASSERT_TRUE(waitUntil([&] { return owner.seen().size() == 3; }));

  EXPECT_EQ(owner.seen(), (std::vector<std::string>{"m1:AutoProvision:4", "m2:AutoProvision:5", "m2:AutoProvision:5"}));
  owner.stop(second);
}
