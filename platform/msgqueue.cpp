#define LOG_MODULE "./platform/msgqueue"
#include "msgqueue.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>

#include "clock.h"
#include "log.h"
#include "paths.h"

namespace {

constexpr uint32_t kWireMagic = 0x4d534751;  // "MSGQ"
constexpr uint32_t kKindMessage = 1;
constexpr uint32_t kKindReply = 2;
constexpr size_t kMaxDatagram = 192 * 1024;
constexpr int32_t kDefaultSendTimeoutMs = 10000;
constexpr uint64_t kMaxLoopWaitMs = 24u * 3600u * 1000u;

struct WireHeader {
  uint32_t magic;
  uint32_t kind;
  uint32_t id;
  uint32_t wParam;
  uint32_t lParam;
  uint32_t sequence;
  uint32_t extraSize;
  uint32_t replyAddressSize;
};

thread_local chThreadLocal* tlsCurrentThread = nullptr;

// A Unix datagram socket, closed (and its bound path unlinked) on scope exit.
class UnixSocket {
 public:
  UnixSocket() : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
  ~UnixSocket() { close(); }
  UnixSocket(const UnixSocket&) = delete;
  UnixSocket& operator=(const UnixSocket&) = delete;

  int fd() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  bool bindTo(const std::string& hostPath) {
    sockaddr_un addr;
    if (!fill(addr, hostPath)) return false;
    if (bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) return false;
    boundPath_ = hostPath;
    return true;
  }
  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    if (!boundPath_.empty()) unlink(boundPath_.c_str());
    boundPath_.clear();
  }
  static bool fill(sockaddr_un& addr, const std::string& hostPath) {
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    if (hostPath.size() >= sizeof(addr.sun_path)) return false;
    memcpy(addr.sun_path, hostPath.c_str(), hostPath.size() + 1);
    return true;
  }

 private:
  int fd_;
  std::string boundPath_;
};

std::string queueDirHost() { return hostPath(kMsgQueueDir); }
std::string threadSocketHost(const std::string& name) { return queueDirHost() + "/" + name; }

bool validThreadName(const std::string& name) {
  return !name.empty() && name[0] != '.' && name.find('/') == std::string::npos && name.size() < 64;
}

void ensureQueueDir() {
  std::string dir = queueDirHost();
  size_t pos = 0;
  while ((pos = dir.find('/', pos + 1)) != std::string::npos) mkdir(dir.substr(0, pos).c_str(), 0777);
  mkdir(dir.c_str(), 0777);
}

std::vector<char> encode(uint32_t kind, uint32_t id, uint32_t wParam, uint32_t lParam, uint32_t sequence,
                         const void* extra, uint32_t extraSize, const std::string& replyAddress) {
  WireHeader header{kWireMagic, kind, id, wParam, lParam, sequence, extraSize,
                    static_cast<uint32_t>(replyAddress.size())};
  std::vector<char> datagram(sizeof(header) + replyAddress.size() + extraSize);
  memcpy(datagram.data(), &header, sizeof(header));
  memcpy(datagram.data() + sizeof(header), replyAddress.data(), replyAddress.size());
  if (extraSize) memcpy(datagram.data() + sizeof(header) + replyAddress.size(), extra, extraSize);
  return datagram;
}

// Parses one received datagram; false for anything malformed (it is dropped).
bool decode(const char* data, size_t size, WireHeader& header, msgObject& msg) {
  if (size < sizeof(WireHeader)) return false;
  memcpy(&header, data, sizeof(header));
  if (header.magic != kWireMagic) return false;
  size_t needed = sizeof(header) + static_cast<size_t>(header.replyAddressSize) + header.extraSize;
  if (header.replyAddressSize > 256 || header.extraSize > kMaxDatagram || needed != size) return false;
  msg.message = header.id;
  msg.wParam = header.wParam;
  msg.lParam = header.lParam;
  msg.sequence_ = header.sequence;
  msg.replyAddress_.assign(data + sizeof(header), header.replyAddressSize);
  msg.extra_.assign(data + sizeof(header) + header.replyAddressSize, data + size);
  return true;
}

bool sendDatagram(int fd, const std::string& targetHost, const std::vector<char>& datagram) {
  sockaddr_un addr;
  if (!UnixSocket::fill(addr, targetHost)) return false;
  for (int attempt = 0; attempt < 200; ++attempt) {
    ssize_t n = sendto(fd, datagram.data(), datagram.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&addr),
                       sizeof(addr));
    if (n == static_cast<ssize_t>(datagram.size())) return true;
    // A full receive queue of a busy thread: wait a little for it to drain, as the phone's queue
    // blocks the sender; a missing receiver fails at once.
    if (n < 0 && (errno == EAGAIN || errno == ENOBUFS || errno == EINTR)) {
      usleep(5000);
      continue;
    }
    return false;
  }
  return false;
}

// Waits up to `ms` of the service clock for `fd` (or only the time, fd -1): 1 readable, 0 the time
// passed, -1 `quit` was set. `wakeFd` (or -1), a thread's wake-up descriptor, ends a real wait early
// so that `quit` is seen at once; it is drained, and the loop looks at its queue before it blocks,
// so a post that woke it is not lost.
// Another application on this phone answers within this much real time, whatever the clock.
constexpr int kPeerAnswerGraceMs = 1000;

int waitOnClock(int fd, int wakeFd, const std::atomic<bool>* quit, uint32_t ms, bool forAnswer) {
  Clock& clock = serviceClock();
  const uint32_t start = clock.tickMs();
  for (;;) {
    if (quit && *quit) return -1;
    const uint32_t spent = clock.tickMs() - start;
    if (spent >= ms) return 0;
    const int left = static_cast<int>(std::min<uint32_t>(ms - spent, INT32_MAX));
    pollfd fds[2];
    int count = 0;
    if (fd >= 0) fds[count++] = pollfd{fd, POLLIN, 0};
    if (wakeFd >= 0) fds[count++] = pollfd{wakeFd, POLLIN, 0};
    int ready = clock.poll(fds, static_cast<size_t>(count), left, forAnswer ? kPeerAnswerGraceMs : 0);
    if (ready <= 0) continue;
    if (fd >= 0 && (fds[0].revents & (POLLIN | POLLERR | POLLHUP))) return 1;
    uint64_t value;
    while (read(wakeFd, &value, sizeof(value)) > 0) {
    }
  }
}

std::atomic<uint32_t> nextSequence{1};
std::atomic<uint32_t> nextTimerId{0x10000};

}  // namespace

void msgObject::ReplyMessage(int32_t value) {
  replied_ = true;
  reply_ = value;
}

struct chThreadLocal::Impl {
  // Due times are 64-bit milliseconds on the thread's own extended tick, so that an interval of
  // 2^31 ms or more neither goes negative nor fires at once.
  struct Timer {
    uint64_t periodMs;
    uint64_t dueMs;
    bool repeat;
  };
  struct LocalItem {
    msgObject message;
    std::function<void()> call;
  };

  int wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  UnixSocket* socket = nullptr;
  std::mutex mutex;  // guards localQueue and timers
  std::deque<LocalItem> localQueue;
  std::map<uint32_t, Timer> timers;
  uint32_t lastTick = brisaGetTickCount();
  uint64_t tick64 = 0;
  std::atomic<bool> quit{false};
  std::atomic<int> exitCode{0};
  std::atomic<bool> running{false};
  std::vector<char> receiveBuffer = std::vector<char>(kMaxDatagram + 512);

  ~Impl() {
    delete socket;
    if (wakeFd >= 0) close(wakeFd);
  }
  void wake() {
    uint64_t one = 1;
    ssize_t ignored = write(wakeFd, &one, sizeof(one));
    (void)ignored;
  }
  // The platform tick wraps at 2^32 ms; the loop looks at it far more often than that (its waits are
  // capped), so the unsigned difference since the last look extends it to 64 bits. Call with
  // `mutex` held.
  uint64_t nowMs() {
    uint32_t tick = brisaGetTickCount();
    tick64 += static_cast<uint32_t>(tick - lastTick);
    lastTick = tick;
    return tick64;
  }
  void drainWake() {
    uint64_t value;
    while (read(wakeFd, &value, sizeof(value)) > 0) {
    }
  }
};

chThreadLocal::chThreadLocal(const char* name, void (*callback)(msgObject&))
    : name_(name ? name : ""), callback_(callback), impl_(new Impl) {}

chThreadLocal::~chThreadLocal() {
  Shutdown();
  if (tlsCurrentThread == this) tlsCurrentThread = nullptr;
}

bool chThreadLocal::TryThreadMessage(msgObject& msg) {
  if (msg.message == MSG_THREAD_TIMER) return OnTimerMessage(msg);
  return false;
}

bool chThreadLocal::DefaultProcessMessage(msgObject& msg) {
  if (msg.message == MSG_THREAD_QUIT) {
    Quit(0);
    return true;
  }
  return false;
}

bool chThreadLocal::OnTimerMessage(msgObject&) { return false; }

bool chThreadLocal::Launch() {
  if (impl_->socket) return true;
  if (!validThreadName(name_)) return false;
  ensureQueueDir();
  const std::string path = threadSocketHost(name_);
  if (!msgGetThreadByName(name_).empty()) {
    LOG_ERR("thread name [%s] is already taken", name_.c_str());
    return false;
  }
  unlink(path.c_str());  // a stale socket left by a process that died
  auto* socket = new UnixSocket();
  if (!socket->valid() || !socket->bindTo(path)) {
    LOG_ERR("can't bind message queue [%s] : %s", path.c_str(), strerror(errno));
    delete socket;
    return false;
  }
  int size = static_cast<int>(kMaxDatagram * 4);
  setsockopt(socket->fd(), SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
  impl_->socket = socket;
  impl_->wake();
  return true;
}

void chThreadLocal::Shutdown() {
  delete impl_->socket;
  impl_->socket = nullptr;
}

bool chThreadLocal::IsLaunched() const { return impl_->socket != nullptr; }

bool chThreadLocal::QuitRequested() const { return impl_->quit; }

bool chThreadLocal::SleepUnlessQuit(uint32_t ms) { return WaitReadable(-1, ms, false) == 0; }

int chThreadLocal::WaitReadable(int fd, uint32_t ms, bool forAnswer) {
  return waitOnClock(fd, impl_->wakeFd, &impl_->quit, ms, forAnswer);
}

void chThreadLocal::Quit(int exitCode) {
  impl_->exitCode = exitCode;
  impl_->quit = true;
  impl_->wake();  // write() only: safe from a signal handler
}

void chThreadLocal::PostThreadMsg(uint32_t id, uint32_t wParam, uint32_t lParam) {
  Impl::LocalItem item;
  item.message.message = id;
  item.message.wParam = wParam;
  item.message.lParam = lParam;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->localQueue.push_back(std::move(item));
  }
  impl_->wake();
}

void chThreadLocal::QueueCall(std::function<void()> fn) {
  Impl::LocalItem item;
  item.call = std::move(fn);
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->localQueue.push_back(std::move(item));
  }
  impl_->wake();
}

bool chThreadLocal::IsCalledByThisThread() const { return tlsCurrentThread == this; }

chThreadLocal* chThreadLocal::Current() { return tlsCurrentThread; }

void chThreadLocal::SetThreadTimer(uint32_t timerId, uint64_t ms, bool repeat) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  uint64_t period = std::max<uint64_t>(ms, 1);
  impl_->timers[timerId] = Impl::Timer{period, impl_->nowMs() + period, repeat};
  impl_->wake();
}

void chThreadLocal::KillThreadTimer(uint32_t timerId) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->timers.erase(timerId);
}

bool chThreadLocal::IsThreadTimerArmed(uint32_t timerId) const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->timers.count(timerId) != 0;
}

namespace {

// Handles one message the way every thread does: its table, then the thread callback, then the
// default handling; a synchronous sender gets the reply (0 when the handler gave none).
void dispatch(chThreadLocal& thread, msgObject& msg, void (*callback)(msgObject&)) {
  bool handled = thread.TryThreadMessage(msg);
  if (!handled && callback) callback(msg);
  if (!handled && !callback) thread.DefaultProcessMessage(msg);
  if (msg.isSynchronous()) {
    UnixSocket replySocket;
    std::vector<char> reply = encode(kKindReply, msg.message, static_cast<uint32_t>(msg.replied_ ? msg.reply_ : 0), 0,
                                     msg.sequence_, nullptr, 0, "");
    sendDatagram(replySocket.fd(), msg.replyAddress_, reply);
  }
}

}  // namespace

int chThreadLocal::Run() {
  chThreadLocal* previous = tlsCurrentThread;
  tlsCurrentThread = this;
  impl_->running = true;
  while (!impl_->quit) {
    impl_->drainWake();

    // Calls and posts queued by this process.
    std::deque<Impl::LocalItem> local;
    {
      std::lock_guard<std::mutex> lock(impl_->mutex);
      local.swap(impl_->localQueue);
    }
    for (auto& item : local) {
      if (impl_->quit) break;
      if (item.call)
        item.call();
      else
        dispatch(*this, item.message, callback_);
    }

    // Expired timers, each queued as a timer message with its id.
    std::vector<uint32_t> due;
    int waitMs = -1;
    {
      std::lock_guard<std::mutex> lock(impl_->mutex);
      const uint64_t now = impl_->nowMs();
      for (auto it = impl_->timers.begin(); it != impl_->timers.end();) {
        Impl::Timer& timer = it->second;
        if (timer.dueMs <= now) {
          due.push_back(it->first);
          if (!timer.repeat) {
            it = impl_->timers.erase(it);
            continue;
          }
          timer.dueMs = now + timer.periodMs;
        }
        // One wait never spans more than kMaxLoopWaitMs, so the tick is looked at before it wraps.
        int left = static_cast<int>(std::min<uint64_t>(timer.dueMs - now, kMaxLoopWaitMs));
        waitMs = waitMs < 0 ? left : std::min(waitMs, left);
        ++it;
      }
    }
    for (uint32_t id : due) {
      if (impl_->quit) break;
      msgObject timerMsg;
      timerMsg.message = MSG_THREAD_TIMER;
      timerMsg.wParam = id;
      dispatch(*this, timerMsg, callback_);
    }
    if (impl_->quit) break;
    if (!due.empty()) continue;  // timers may have been re-armed by their handlers
    {
      // A wait inside a handler may have taken the wake-up of a post that is still queued.
      std::lock_guard<std::mutex> lock(impl_->mutex);
      if (!impl_->localQueue.empty()) continue;
    }

    pollfd fds[2];
    int count = 0;
    fds[count++] = pollfd{impl_->wakeFd, POLLIN, 0};
    if (impl_->socket) fds[count++] = pollfd{impl_->socket->fd(), POLLIN, 0};
    int ready = serviceClock().poll(fds, static_cast<size_t>(count), waitMs);
    if (ready <= 0) continue;
    if (count > 1 && (fds[1].revents & POLLIN)) {
      ssize_t n = recv(impl_->socket->fd(), impl_->receiveBuffer.data(), impl_->receiveBuffer.size(), MSG_DONTWAIT);
      WireHeader header;
      msgObject msg;
      if (n > 0 && decode(impl_->receiveBuffer.data(), static_cast<size_t>(n), header, msg) &&
          header.kind == kKindMessage)
        dispatch(*this, msg, callback_);
    }
  }
  impl_->running = false;
  impl_->quit = false;
  tlsCurrentThread = previous;
  return impl_->exitCode;
}

bool uCSystemShareHelper::CreateLocalThread(chThreadLocal& thread) {
  tlsCurrentThread = &thread;
  return true;
}

void uCSystemShareHelper::DestroyLocalThread(chThreadLocal& thread) {
  if (tlsCurrentThread == &thread) tlsCurrentThread = nullptr;
}

bool chProcessLocal::LaunchLocalThread(chThreadLocal& thread) { return thread.Launch(); }

void chProcessLocal::ShutdownLocalThread(chThreadLocal& thread) { thread.Shutdown(); }

msgThreadHandle msgGetThreadByName(const std::string& name) {
  if (!validThreadName(name)) return "";
  UnixSocket probe;
  sockaddr_un addr;
  if (!probe.valid() || !UnixSocket::fill(addr, threadSocketHost(name))) return "";
  if (connect(probe.fd(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) return "";
  return name;
}

bool msgPostMsgToThread(const msgThreadHandle& thread, uint32_t id, uint32_t wParam, uint32_t lParam) {
  return msgPostMsgToThreadEx(thread, id, wParam, lParam, 0, nullptr);
}

bool msgPostMsgToThreadEx(const msgThreadHandle& thread, uint32_t id, uint32_t wParam, uint32_t lParam,
                          uint32_t extraSize, const void* extraData) {
  if (!validThreadName(thread) || extraSize > kMaxDatagram || (extraSize && !extraData)) return false;
  UnixSocket sender;
  return sender.valid() && sendDatagram(sender.fd(), threadSocketHost(thread),
                                        encode(kKindMessage, id, wParam, lParam, 0, extraData, extraSize, ""));
}

int32_t msgSendMsgToThread(const msgThreadHandle& thread, uint32_t id, uint32_t wParam, uint32_t lParam) {
  return msgSendMsgToThreadTimeoutEx(thread, id, wParam, lParam, 0, nullptr, kDefaultSendTimeoutMs);
}

int32_t msgSendMsgToThreadTimeoutEx(const msgThreadHandle& thread, uint32_t id, uint32_t wParam, uint32_t lParam,
                                    uint32_t extraSize, const void* extraData, int32_t timeoutMs) {
  if (!validThreadName(thread) || extraSize > kMaxDatagram || (extraSize && !extraData)) return 0;
  ensureQueueDir();
  const uint32_t sequence = nextSequence.fetch_add(1);
  const std::string replyPath =
      queueDirHost() + "/.reply-" + std::to_string(getpid()) + "-" + std::to_string(sequence);
  UnixSocket replySocket;
  unlink(replyPath.c_str());
  if (!replySocket.valid() || !replySocket.bindTo(replyPath)) return 0;
  if (!sendDatagram(replySocket.fd(), threadSocketHost(thread),
                    encode(kKindMessage, id, wParam, lParam, sequence, extraData, extraSize, replyPath)))
    return 0;

  // The reply wait is one of the service clock, so a peer that never answers costs its time-out
  // there too; a thread told to quit stops waiting.
  const uint32_t limit = static_cast<uint32_t>(timeoutMs < 0 ? kDefaultSendTimeoutMs : timeoutMs);
  chThreadLocal* caller = chThreadLocal::Current();
  const uint32_t start = brisaGetTickCount();
  std::vector<char> buffer(sizeof(WireHeader) + 512);
  for (;;) {
    const uint32_t spent = brisaGetTickCount() - start;
    if (spent >= limit) return 0;
    int ready = caller ? caller->WaitReadable(replySocket.fd(), limit - spent, true)
                       : waitOnClock(replySocket.fd(), -1, nullptr, limit - spent, true);
    if (ready <= 0) return 0;
    ssize_t n = recv(replySocket.fd(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    WireHeader header;
    msgObject reply;
    if (n > 0 && decode(buffer.data(), static_cast<size_t>(n), header, reply) && header.kind == kKindReply &&
        header.sequence == sequence)
      return static_cast<int32_t>(header.wParam);
  }
}

int msgBroadpostThreadMsg(uint32_t id, uint32_t wParam, uint32_t lParam) {
  int reached = 0;
  std::vector<std::string> names;
  // A read error is logged there; the threads listed before it still get the message.
  if (listDirectoryNames(kMsgQueueDir, names) == -1) return 0;
  for (const auto& name : names)
    if (validThreadName(name) && msgPostMsgToThread(name, id, wParam, lParam)) ++reached;
  return reached;
}

chThreadTimer::chThreadTimer() : id_(nextTimerId.fetch_add(1)) {}

chThreadTimer::~chThreadTimer() { KillTimer(); }

bool chThreadTimer::SetTimer(uint64_t ms, bool repeat) {
  chThreadLocal* thread = chThreadLocal::Current();
  if (!thread) return false;
  if (host_ && host_ != thread) host_->KillThreadTimer(id_);
  host_ = thread;
  host_->SetThreadTimer(id_, ms, repeat);
  return true;
}

void chThreadTimer::KillTimer() {
  // Forget the thread too: a timer may outlive the thread object it was armed on.
  if (host_) host_->KillThreadTimer(id_);
  host_ = nullptr;
}

bool chThreadTimer::IsTimerRuning() const { return host_ && host_->IsThreadTimerArmed(id_); }

bool timerSetThreadTimer(uint32_t timerId, uint64_t ms, bool repeat) {
  chThreadLocal* thread = chThreadLocal::Current();
  if (!thread) return false;
  thread->SetThreadTimer(timerId, ms, repeat);
  return true;
}

bool timerKillThreadTimer(uint32_t timerId) {
  chThreadLocal* thread = chThreadLocal::Current();
  if (!thread) return false;
  thread->KillThreadTimer(timerId);
  return true;
}
