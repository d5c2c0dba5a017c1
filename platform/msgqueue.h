// Message-queue threads reachable by name from every process of the phone.
//
// Each launched thread owns a Unix datagram socket at $PROVISOR_ROOT/tmp/msgq/<thread name>.
// A message is one datagram: id, wParam, lParam, an optional extra block and, for a synchronous send,
// the address of the sender's private reply socket. A thread handles one message at a time; timers
// and calls queued from other threads of the process are delivered through the same loop, so every
// callback of a thread runs on that thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// Thread timer messages carry the timer id in wParam.
constexpr uint32_t MSG_THREAD_TIMER = 0x8113;
// Posted to a thread to make its loop end (the platform's handling of the "quit" key).
constexpr uint32_t MSG_THREAD_QUIT = 0x8002;

// A received message as the handler sees it.
class msgObject {
 public:
  uint32_t message = 0;
  uint32_t wParam = 0;
  uint32_t lParam = 0;

  const void* GetExtraData() const { return extra_.empty() ? nullptr : extra_.data(); }
  uint32_t GetExtraSize() const { return static_cast<uint32_t>(extra_.size()); }
  // Answers a synchronous message. The value is sent when the handler returns; a later call
  // replaces an earlier one. Asynchronous messages ignore it.
  void ReplyMessage(int32_t value);

  bool isSynchronous() const { return !replyAddress_.empty(); }
  // Internal: filled by the transport.
  std::vector<char> extra_;
  std::string replyAddress_;
  uint32_t sequence_ = 0;
  bool replied_ = false;
  int32_t reply_ = 0;
};

// A message-queue thread. The service's main thread is one (CreateLocalThread), other threads of
// the process may run one with RunInNewThread. Handlers return true when they consumed a message.
class chThreadLocal {
 public:
  chThreadLocal(const char* name, void (*callback)(msgObject&) = nullptr);
  virtual ~chThreadLocal();
  chThreadLocal(const chThreadLocal&) = delete;
  chThreadLocal& operator=(const chThreadLocal&) = delete;

  const std::string& name() const { return name_; }

  // The message table of the thread; the base returns false (not handled).
  virtual bool TryThreadMessage(msgObject& msg);
  // What happens to a message nobody handled: the quit message ends the loop, others are dropped.
  virtual bool DefaultProcessMessage(msgObject& msg);
  // Called for MSG_THREAD_TIMER; the base ignores it.
  virtual bool OnTimerMessage(msgObject& msg);

  // Binds the thread's socket so other processes reach it by name. False when that fails.
  bool Launch();
  // Unlinks the socket; the name is no longer reachable.
  void Shutdown();
  bool IsLaunched() const;

  // The message loop; returns the exit code given to Quit (0 by default).
  int Run();
  // Ends Run after the message in hand; callable from any thread or a signal handler. Sleeps and
  // answer waits of the message in hand end at once (SleepUnlessQuit, msgSendMsgToThread...).
  void Quit(int exitCode = 0);
  // True from Quit until the loop has ended.
  bool QuitRequested() const;
  // Sleeps `ms` of the service clock on this thread; false as soon as the thread is told to quit.
  // Messages that arrive meanwhile wait in the queue for the loop.
  bool SleepUnlessQuit(uint32_t ms);
  // Waits up to `ms` of the service clock for `fd` to become readable: 1 readable, 0 the time
  // passed, -1 the thread was told to quit. `forAnswer`: the wait is for another application's
  // answer, which gets real time to come whatever the clock (Clock::poll's grace).
  int WaitReadable(int fd, uint32_t ms, bool forAnswer);

  void PostThreadMsg(uint32_t id, uint32_t wParam, uint32_t lParam);
  // Runs `fn` on this thread between messages (used by monitors and helper threads).
  void QueueCall(std::function<void()> fn);
  bool IsCalledByThisThread() const;

  // Thread timers by an id of the caller's choice: the expiry queues MSG_THREAD_TIMER with the id
  // in wParam, once, or with `repeat` again and again every `ms` until killed. `ms` is 64-bit end
  // to end.
  void SetThreadTimer(uint32_t timerId, uint64_t ms, bool repeat);
  void KillThreadTimer(uint32_t timerId);
  bool IsThreadTimerArmed(uint32_t timerId) const;

  // The thread object running on the calling thread, or nullptr.
  static chThreadLocal* Current();

 private:
  struct Impl;
  std::string name_;
  void (*callback_)(msgObject&);
  std::unique_ptr<Impl> impl_;
  friend struct ThreadBinding;
};

namespace uCSystemShareHelper {
// Makes the calling thread the given thread object (before Run) and undoes it after.
bool CreateLocalThread(chThreadLocal& thread);
void DestroyLocalThread(chThreadLocal& thread);
}  // namespace uCSystemShareHelper

namespace chProcessLocal {
bool LaunchLocalThread(chThreadLocal& thread);
void ShutdownLocalThread(chThreadLocal& thread);
}  // namespace chProcessLocal

// A thread handle names a thread of any application; empty when none.
using msgThreadHandle = std::string;

// The handle of a launched thread, or "" when no thread of that name answers.
msgThreadHandle msgGetThreadByName(const std::string& name);
bool msgPostMsgToThread(const msgThreadHandle& thread, uint32_t id, uint32_t wParam, uint32_t lParam);
bool msgPostMsgToThreadEx(const msgThreadHandle& thread, uint32_t id, uint32_t wParam, uint32_t lParam,
                          uint32_t extraSize, const void* extraData);
// Synchronous send with the default time-out (10 s); the reply, 0 when none came. The wait is one of
// the service clock; on a message-queue thread that is told to quit it ends at once with 0.
int32_t msgSendMsgToThread(const msgThreadHandle& thread, uint32_t id, uint32_t wParam, uint32_t lParam);
int32_t msgSendMsgToThreadTimeoutEx(const msgThreadHandle& thread, uint32_t id, uint32_t wParam, uint32_t lParam,
                                    uint32_t extraSize, const void* extraData, int32_t timeoutMs);
// Posts to every launched thread; returns how many were reached.
int msgBroadpostThreadMsg(uint32_t id, uint32_t wParam, uint32_t lParam);

// The directory of the thread sockets (logical path).
constexpr const char* kMsgQueueDir = "/tmp/msgq";

// Thread timer object: a 32-bit id of its own (addresses do not fit a 32-bit wParam on a 64-bit
// host), armed on the thread that sets it.
class chThreadTimer {
 public:
  chThreadTimer();
  ~chThreadTimer();
  uint32_t id() const { return id_; }
  // Arms the timer on the calling thread: once, or with `repeat` every `ms` until killed.
  bool SetTimer(uint64_t ms, bool repeat = false);
  void KillTimer();
  bool IsTimerRuning() const;
  chThreadLocal* hostThread() const { return host_; }

 private:
  uint32_t id_;
  chThreadLocal* host_ = nullptr;
};

// Arms or stops a timer of the calling thread by id (once, or with `repeat` until killed).
bool timerSetThreadTimer(uint32_t timerId, uint64_t ms, bool repeat);
bool timerKillThreadTimer(uint32_t timerId);
