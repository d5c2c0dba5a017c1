// msgctl: stands in for the phone's other applications. Posts, sends and broadcasts messages to the
// message-queue threads under $PROVISOR_ROOT, and listens as a named thread.
//
//   msgctl post THREAD ID [WPARAM [LPARAM]] [--extra TEXT | --extra-file FILE]
//   msgctl send THREAD ID [WPARAM [LPARAM]] [--extra TEXT | --extra-file FILE] [--timeout MS]
//   msgctl broadcast ID [WPARAM [LPARAM]]
//   msgctl listen THREAD [--reply N] [--count N] [--timeout S]
#define LOG_MODULE "./tools/msgctl"
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "autopInfo.h"
#include "autopMessages.h"
#include "log.h"
#include "msgqueue.h"
#include "redact.h"

namespace {

struct Options {
  std::vector<std::string> positional;
  bool hasExtra = false;
  bool extraIsText = true;  // texts travel with their terminating zero, file bytes as they are
  std::string extra;
  int32_t timeoutMs = 10000;
  int32_t reply = 1;
  long count = -1;
  long timeoutSeconds = -1;
};

bool parseNumber(const std::string& text, long long& out) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  // Decimal, or hexadecimal with 0x: a leading zero is no octal mark ("010" is ten).
  bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  if (hex && strchr("+- \t\n\v\f\r", text[2])) return false;  // no sign or blank after 0x
  out = strtoll(text.c_str() + (hex ? 2 : 0), &end, hex ? 16 : 10);
  return errno == 0 && end && *end == '\0';
}

bool parseU32(const std::string& text, uint32_t& out) {
  long long v;
  if (!parseNumber(text, v) || v < INT32_MIN || v > UINT32_MAX) return false;
  out = static_cast<uint32_t>(v);
  return true;
}

int fail(const std::string& message) {
  fprintf(stderr, "msgctl: %s\n", message.c_str());
  return 1;
}

int usage() {
  return fail(
      "usage: msgctl post THREAD ID [WPARAM [LPARAM]] [--extra TEXT | --extra-file FILE] | send THREAD ID "
      "[WPARAM [LPARAM]] [--extra TEXT | --extra-file FILE] [--timeout MS] | broadcast ID [WPARAM [LPARAM]] | listen "
      "THREAD [--reply N] [--count N] "
      "[--timeout S]");
}

bool parseOptions(int argc, char** argv, Options& o, std::string& error) {
  for (int i = 2; i < argc; ++i) {
    std::string arg = argv[i];
    auto value = [&](std::string& out) {
      if (i + 1 >= argc) {
        error = "missing value after " + arg;
        return false;
      }
      out = argv[++i];
      return true;
    };
    std::string v;
    long long n;
    if (arg == "--extra") {
      if (!value(o.extra)) return false;
      o.hasExtra = true;
      o.extraIsText = true;
    } else if (arg == "--extra-file") {
      if (!value(v)) return false;
      std::ifstream in(v, std::ios::binary);
      if (!in) {
        error = "can't read " + v;
        return false;
      }
      o.extra.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
      o.hasExtra = true;
      o.extraIsText = false;
    } else if (arg == "--timeout" || arg == "--reply" || arg == "--count") {
      if (!value(v)) return false;
      if (!parseNumber(v, n)) {
        error = "bad number: " + v;
        return false;
      }
      if (arg == "--reply") o.reply = static_cast<int32_t>(n);
      if (arg == "--count") o.count = static_cast<long>(n);
      if (arg == "--timeout") {
        o.timeoutMs = static_cast<int32_t>(n);
        o.timeoutSeconds = static_cast<long>(n);
      }
    } else {
      o.positional.push_back(arg);
    }
  }
  return true;
}

// ID [WPARAM [LPARAM]] starting at positional[first].
bool parseMessage(const Options& o, size_t first, uint32_t& id, uint32_t& wParam, uint32_t& lParam,
                  std::string& error) {
  size_t n = o.positional.size();
  if (n < first + 1 || n > first + 3) {
    error = "expected ID [WPARAM [LPARAM]]";
    return false;
  }
  wParam = lParam = 0;
  for (size_t i = first; i < n; ++i) {
    uint32_t* slot = i == first ? &id : i == first + 1 ? &wParam : &lParam;
    if (!parseU32(o.positional[i], *slot)) {
      error = "bad number: " + o.positional[i];
      return false;
    }
  }
  return true;
}

int runPostOrSend(const std::string& verb, const Options& o) {
  if (o.positional.empty()) return usage();
  uint32_t id, wParam, lParam;
  std::string error;
  if (!parseMessage(o, 1, id, wParam, lParam, error)) return fail(error);
  const std::string& name = o.positional[0];
  msgThreadHandle thread = msgGetThreadByName(name);
  if (thread.empty()) return fail("no thread named " + name);
  // Texts travel with their terminating zero, as the phone's applications send them.
  uint32_t extraSize = o.hasExtra ? static_cast<uint32_t>(o.extra.size() + (o.extraIsText ? 1 : 0)) : 0;
  const void* extra = extraSize ? o.extra.c_str() : nullptr;
  if (verb == "post") {
    if (!msgPostMsgToThreadEx(thread, id, wParam, lParam, extraSize, extra)) return fail("post to " + name + " failed");
    return 0;
  }
  int32_t reply = msgSendMsgToThreadTimeoutEx(thread, id, wParam, lParam, extraSize, extra, o.timeoutMs);
  printf("%d\n", reply);
  return 0;
}

int runBroadcast(const Options& o) {
  uint32_t id, wParam, lParam;
  std::string error;
  if (!parseMessage(o, 0, id, wParam, lParam, error)) return fail(error);
  msgBroadpostThreadMsg(id, wParam, lParam);
  return 0;
}

// A text (printable characters, then nothing but terminating zeros) as it is; any other block as
// two lower-case hexadecimal digits per byte.
std::string printableExtra(const char* data, uint32_t size) {
  if (!data || size == 0) return "";
  size_t text = strnlen(data, size);
  bool isText = true;
  for (size_t i = 0; i < size && isText; ++i) {
    unsigned char c = static_cast<unsigned char>(data[i]);
    isText = i < text ? (c >= 0x20 && c != 0x7f) || c == '\t' : c == 0;
  }
  if (isText) return std::string(data, text);
  std::string hex;
  char pair[3];
  for (uint32_t i = 0; i < size; ++i) {
    snprintf(pair, sizeof(pair), "%02x", static_cast<unsigned char>(data[i]));
    hex += pair;
  }
  return hex;
}

std::string maskedField(const std::string& value) { return value.empty() ? "" : kMaskedSecret; }

// An update record carries a login password and file keys: printed by field, those hidden, the
// URL with its password masked, the rest escaped like any text from outside.
std::string printableRecord(const void* data, uint32_t size) {
  AutopInfo info = autopInfoFromBytes(data, size);
  return "user=" + logEscaped(autopInfoText(info.userName)) + " password=" + maskedField(autopInfoText(info.password)) +
         " url=" + urlForLog(autopInfoText(info.url)) + " comAesKey=" + maskedField(autopInfoText(info.comAesKey)) +
         " macAesKey=" + maskedField(autopInfoText(info.macAesKey));
}

// A listening application: prints every message and answers synchronous ones.
class Listener : public chThreadLocal {
 public:
  Listener(const std::string& name, int32_t reply, long count)
      : chThreadLocal(name.c_str()), reply_(reply), remaining_(count) {}
  bool TryThreadMessage(msgObject& msg) override {
    if (msg.message == MSG_THREAD_TIMER) {
      Quit(0);  // the --timeout timer
      return true;
    }
    const char* data = static_cast<const char*>(msg.GetExtraData());
    uint32_t size = msg.GetExtraSize();
    // Any other text may hold a URL: its password never reaches our output either.
    std::string extra = msg.message == AP_MSG_UPDATE_CONFIG && data && size ? printableRecord(data, size)
                                                                            : maskedUrl(printableExtra(data, size));
    printf("id=0x%x wparam=%d lparam=%d extra=%s\n", msg.message, static_cast<int32_t>(msg.wParam),
           static_cast<int32_t>(msg.lParam), extra.c_str());
    fflush(stdout);
    msg.ReplyMessage(reply_);
    if (remaining_ > 0 && --remaining_ == 0) Quit(0);
    return true;
  }

 private:
  int32_t reply_;
  long remaining_;
};

Listener* activeListener = nullptr;

void onSignal(int) {
  if (activeListener) activeListener->Quit(0);
}

int runListen(const Options& o) {
  if (o.positional.size() != 1) return usage();
  Listener listener(o.positional[0], o.reply, o.count);
  uCSystemShareHelper::CreateLocalThread(listener);
  if (!chProcessLocal::LaunchLocalThread(listener)) return fail("can't register thread " + o.positional[0]);
  activeListener = &listener;
  signal(SIGTERM, onSignal);
  signal(SIGINT, onSignal);
  chThreadTimer timeout;
  if (o.timeoutSeconds > 0) timeout.SetTimer(static_cast<uint64_t>(o.timeoutSeconds) * 1000u);
  int code = listener.Run();
  activeListener = nullptr;
  chProcessLocal::ShutdownLocalThread(listener);
  uCSystemShareHelper::DestroyLocalThread(listener);
  return code;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage();
  Options options;
  std::string error;
  if (!parseOptions(argc, argv, options, error)) return fail(error);
  std::string verb = argv[1];
  if (verb == "post" || verb == "send") return runPostOrSend(verb, options);
  if (verb == "broadcast") return runBroadcast(options);
  if (verb == "listen") return runListen(options);
  return usage();
}
