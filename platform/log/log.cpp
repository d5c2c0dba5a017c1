// The process-wide logger. One record is formatted into a zeroed 512-byte buffer on the caller's
// stack (at most 510 characters; longer text is cut), written to the output stream with one write
// and a flush, and sent to the system log. No lock: the stream is in append mode, so records of
// different threads do not interleave within a line.
#define LOG_MODULE "./src/log"
#include "log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <cstdio>
#include <cstring>
#include <string>


namespace {

constexpr size_t kRecordBuffer = 512;
constexpr int kRecordMaxChars = 510;

struct Logger {
  FILE* stream = stdout;
  int fd = -1;
  int level = kLogLevelDefault;
  std::atomic<bool> syslogOpen{false};
  std::atomic<LogSink> sink{nullptr};

  Logger() {
    fd = fileno(stdout);
    // Writes of this process and of children sharing the file must land at the end and never
    // block the service when the reader of standard output stalls.
    if (fd > 0) {
      int fdFlags = fcntl(fd, F_GETFD);
      if (fdFlags >= 0) fcntl(fd, F_SETFD, fdFlags & ~FD_CLOEXEC);
      int flags = fcntl(fd, F_GETFL);
      if (flags >= 0) fcntl(fd, F_SETFL, flags | O_APPEND | O_NONBLOCK);
    }
  }
  ~Logger() {
    if (stream && stream != stdout) fclose(stream);
    stream = nullptr;
    fd = -1;
    if (syslogOpen) closelog();
  }
};

Logger& logger() {
  static Logger instance;
  return instance;
}

void writeRecord(Logger& lg, const char* text, size_t length) {
  if (lg.stream) {
    fwrite(text, 1, length, lg.stream);
    fflush(lg.stream);
  }
  if (lg.stream != stdout) {
    fwrite(text, 1, length, stdout);
    fflush(stdout);
  }
}

// Without a system logger the C library tries to connect again for every record, which costs more
// than the record itself; whether one listens is looked at again every ten seconds.
bool systemLogReachable() {
  static std::atomic<int64_t> checkedAt{-1};
  static std::atomic<bool> reachable{false};
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  int64_t seconds = now.tv_sec;
  int64_t last = checkedAt.load();
  if (last < 0 || seconds - last >= 10) {
    struct stat st;
    reachable = stat("/dev/log", &st) == 0 && S_ISSOCK(st.st_mode);
    checkedAt = seconds;
  }
  return reachable;
}

constexpr size_t kMacroPrefixLength = sizeof(LOG_PREFIX) - 1;
constexpr size_t kModuleWidth = 25;
constexpr int kLineWidth = 4;
constexpr size_t kModuleByHandMax = 100;

// "[%-25s:%-4d] " by hand: the same bytes as the C library's, without its per-conversion cost that
// every record of the LOG_ macros would pay. Returns the length; `out` holds at least 128 bytes.
size_t writeMacroPrefix(char* out, const char* module, int line) {
  size_t length = strlen(module);
  char* at = out;
  *at++ = '[';
  memcpy(at, module, length);
  at += length;
  if (length < kModuleWidth) {
    memset(at, ' ', kModuleWidth - length);
    at += kModuleWidth - length;
  }
  *at++ = ':';
  char digits[12];
  int count = 0;
  do {
    digits[count++] = static_cast<char>('0' + line % 10);
    line /= 10;
  } while (line > 0);
  for (int i = count; i-- > 0;) *at++ = digits[i];
  for (; count < kLineWidth; ++count) *at++ = ' ';
  *at++ = ']';
  *at++ = ' ';
  return static_cast<size_t>(at - out);
}

// The record's text into `record` (at most 510 characters and a NUL); the length the whole text
// would have, or -1 on an output error, as vsnprintf.
int formatRecord(char* record, const char* format, va_list args) {
  if (strncmp(format, LOG_PREFIX, kMacroPrefixLength) != 0)
    return vsnprintf(record, kRecordMaxChars + 1, format, args);
  const char* module = va_arg(args, const char*);
  int line = va_arg(args, int);
  size_t prefix;
  if (module && line >= 0 && strlen(module) <= kModuleByHandMax)
    prefix = writeMacroPrefix(record, module, line);
  else
    prefix = static_cast<size_t>(snprintf(record, kRecordMaxChars + 1, LOG_PREFIX, module ? module : "(null)", line));
  if (prefix >= static_cast<size_t>(kRecordMaxChars)) return static_cast<int>(prefix);
  int rest = vsnprintf(record + prefix, kRecordMaxChars + 1 - prefix, format + kMacroPrefixLength, args);
  return rest < 0 ? rest : static_cast<int>(prefix) + rest;
}

int fixedLevelV(int level, const char* word, const char* format, va_list args) {
  std::string withWord = std::string(word) + format;
  return logV(level, withWord.c_str(), args);
}

}  // namespace

int logSyslogPriority(int level) {
  switch (level) {
    case 1: return LOG_CRIT;
    case 2: return LOG_ERR;
    case 3: return LOG_WARNING;
    case 4: return LOG_INFO;
    default: return LOG_DEBUG;
  }
}

void logSetTestSink(LogSink sink) { logger().sink = sink; }

int logV(int level, const char* format, va_list args) {
  Logger& lg = logger();
  if (level > lg.level || format == nullptr) return 0;

  // The line feed goes after the text in the buffer rather than into a copy of the format: the
  // record is the text and its line feed cut to 510 characters.
  char record[kRecordBuffer];
  memset(record, 0, sizeof(record));
  int written = formatRecord(record, format, args);
  if (written >= 0 && written < kRecordMaxChars) record[written] = '\n';
  size_t length = strnlen(record, kRecordMaxChars);

  writeRecord(lg, record, length);
  if (!systemLogReachable()) {
    if (LogSink sink = lg.sink.load()) sink(level, record);
    return static_cast<int>(length);
  }
  if (!lg.syslogOpen.exchange(true)) openlog("autop", LOG_PID | LOG_NDELAY, LOG_DAEMON);
  // The record goes in as data, not as a format: a "%" from a server-supplied URL must never be
  // read as a conversion.
  syslog(logSyslogPriority(level), "%s", record);
  if (LogSink sink = lg.sink.load()) sink(level, record);
  return static_cast<int>(length);
}

int log(int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int n = logV(level, format, args);
  va_end(args);
  return n;
}

#define FIXED_LEVEL(name, level, word)     \
  void name(const char* format, ...) {     \
    va_list args;                          \
    va_start(args, format);                \
    fixedLevelV(level, word, format, args); \
    va_end(args);                          \
  }
FIXED_LEVEL(logDebug, 5, "DEB:")
FIXED_LEVEL(logInfo, 4, "IFO:")
FIXED_LEVEL(logWarning, 3, "WAR:")
FIXED_LEVEL(logError, 2, "ERR:")
#undef FIXED_LEVEL

std::string logEscaped(const std::string& text) {
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    if (c >= 0x20 && c != 0x7f) {
      out += static_cast<char>(c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else {
      out += "\\x";
      out += kHex[c >> 4];
      out += kHex[c & 0xf];
    }
  }
  return out;
}
