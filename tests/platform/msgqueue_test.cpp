// Message-queue threads: posts, synchronous replies and their time-out, broadcasts, malformed
// datagrams. (Other processes talking to ours: the daemon test, through msgctl.)
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "msgqueue.h"
#include "paths.h"
#include "servers.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

// What a thread saw of a message: "id wParam lParam extra" (the extra bytes as they came).
std::string seenText(uint32_t id, uint32_t wParam, uint32_t lParam, const std::string& extra = "") {
  char head[48];
  snprintf(head, sizeof(head), "%#x %u %u ", id, wParam, lParam);
  return head + extra;
}

// A thread that records what it receives and answers synchronous messages with id + 1; launched and
// run on a std::thread of its own.
class RecordingThread : public chThreadLocal {
 public:
  explicit RecordingThread(const char* name) : chThreadLocal(name) {
    EXPECT_TRUE(Launch());
    runner_ = std::thread([this] { Run(); });
  }
  ~RecordingThread() override { stop(); }
  void stop() {
    if (!runner_.joinable()) return;
    Quit(0);
    runner_.join();
  }
  bool TryThreadMessage(msgObject& msg) override {
    std::lock_guard<std::mutex> lock(mutex);
    const char* extra = static_cast<const char*>(msg.GetExtraData());
    seen.push_back(seenText(msg.message, msg.wParam, msg.lParam, extra ? std::string(extra, msg.GetExtraSize()) : ""));
    msg.ReplyMessage(static_cast<int32_t>(msg.message + 1));
    return true;
  }
  std::vector<std::string> snapshot() {
    std::lock_guard<std::mutex> lock(mutex);
    return seen;
  }
  std::mutex mutex;
  std::vector<std::string> seen;

 private:
  std::thread runner_;
};

// A datagram socket of the queue directory, bound under `name` or (unbound) addressed to it.
int queueSocket(const std::string& name, sockaddr_un& addr) {
  addr = sockaddr_un{};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, (hostPath(kMsgQueueDir) + "/" + name).c_str(), sizeof(addr.sun_path) - 1);
  return socket(AF_UNIX, SOCK_DGRAM, 0);
}

}  // namespace

TEST(MsgQueue, PostSendAndBroadcastWithinOneProcess) {
  TempRoot root;
  RecordingThread phone("app_vpPhone");
  RecordingThread screen("app_vpScreen");
  const char text[] = "http://10.0.0.1/cfg";
  EXPECT_EQ(msgGetThreadByName("app_vpPhone"), "app_vpPhone");
  EXPECT_EQ(msgGetThreadByName("../escape"), "");
  // Malformed datagrams are dropped and the thread goes on.
  sockaddr_un addr;
  int fd = queueSocket("app_vpPhone", addr);
  const char junk[] = {1, 2, 3};
  sendto(fd, junk, sizeof(junk), 0, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  const uint32_t liar[16] = {0x4d534751, 1, 5, 0, 0, 0, 0xffffff, 0};  // extra size beyond the datagram
  sendto(fd, liar, sizeof(liar), 0, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  close(fd);
  EXPECT_TRUE(msgPostMsgToThreadEx("app_vpPhone", 0xc0001, 1, 2, sizeof(text), text));
  EXPECT_EQ(msgSendMsgToThreadTimeoutEx("app_vpPhone", 0x30007, 0, 1, 0, nullptr, 2000), 0x30008);
  EXPECT_EQ(msgBroadpostThreadMsg(0x10201, 0, 1), 2);
  // A post to a thread nobody launched fails instead of hanging.
  EXPECT_FALSE(msgPostMsgToThread("app_tr069", 1, 0, 0));
  // A registered name whose owner never reads its queue: the send returns 0 after its time-out.
  int mute = queueSocket("app_mute", addr);
  ASSERT_EQ(bind(mute, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
  EXPECT_EQ(msgSendMsgToThreadTimeoutEx("app_mute", 0x30007, 0, 1, 0, nullptr, 300), 0);
  close(mute);

  for (int i = 0; i < 200 && (phone.snapshot().size() < 3 || screen.snapshot().empty()); ++i) usleep(10000);
  phone.stop();
  screen.stop();
  EXPECT_EQ(phone.snapshot(), (std::vector<std::string>{seenText(0xc0001, 1, 2, std::string(text, sizeof(text))),
                                                        seenText(0x30007, 0, 1), seenText(0x10201, 0, 1)}));
  EXPECT_EQ(screen.snapshot(), std::vector<std::string>{seenText(0x10201, 0, 1)});
  // Shut down: the name is no longer reachable.
  phone.Shutdown();
  EXPECT_EQ(msgGetThreadByName("app_vpPhone"), "");
}

namespace {

// A thread whose handlers wait inside themselves, as a run does: message 1 in short sleeps until the
// test lets it go, and one more; message 3 an hour's sleep, then an hour's answer wait of a thread
// that never answers.
class WaitingThread : public chThreadLocal {
 public:
  WaitingThread() : chThreadLocal("waiting") {
    EXPECT_TRUE(Launch());
    runner_ = std::thread([this] { exitCode = Run(); });
  }
  ~WaitingThread() override {
    Quit(0);
    runner_.join();
  }
  bool TryThreadMessage(msgObject& msg) override {
    if (msg.message == 1) {
      inside = true;
      while (!release && SleepUnlessQuit(10)) {
      }
      // Released after the post: this sleep finds its wake-up pending and takes it.
      SleepUnlessQuit(10);
    }
    if (msg.message == 2) second = true;
    if (msg.message == 3) {
      inside = true;
      sleptToTheEnd = SleepUnlessQuit(3600u * 1000u);
      answer = msgSendMsgToThreadTimeoutEx("silent", 5, 0, 0, 0, nullptr, 3600 * 1000);
      handled = true;
    }
    return true;
  }
  std::atomic<bool> inside{false}, release{false}, handled{false}, second{false}, sleptToTheEnd{true};
  std::atomic<int32_t> answer{-1};
  std::atomic<int> exitCode{-1};

 private:
  std::thread runner_;
};

}  // namespace

// A post that comes while a handler sleeps is handled after it, though the sleep took its wake-up;
// Quit ends a handler's hour-long sleep and answer wait at once, and then the loop.
TEST(MsgQueue, WaitsInsideAHandlerKeepPostsAndEndOnQuit) {
  TempRoot root;
  WaitingThread thread;  // makes the queue directory
  sockaddr_un addr;
  int silent = queueSocket("silent", addr);  // takes messages, never answers
  ASSERT_EQ(bind(silent, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
  thread.PostThreadMsg(1, 0, 0);
  ASSERT_TRUE(pollFor([&] { return thread.inside.load(); }, 5000));
  thread.PostThreadMsg(2, 0, 0);
  thread.release = true;
  EXPECT_TRUE(pollFor([&] { return thread.second.load(); }, 5000));

  thread.inside = false;
  thread.PostThreadMsg(3, 0, 0);
  ASSERT_TRUE(pollFor([&] { return thread.inside.load(); }, 5000));
  thread.Quit(7);
  ASSERT_TRUE(pollFor([&] { return thread.handled.load(); }, 5000));
  EXPECT_FALSE(thread.sleptToTheEnd);
  EXPECT_EQ(thread.answer, 0);
  EXPECT_TRUE(pollFor([&] { return thread.exitCode == 7; }, 5000));
  close(silent);
}
