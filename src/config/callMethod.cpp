#define LOG_MODULE "./src/callMethod"
#include "callMethod.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "actions.h"
#include "clock.h"
#include "log.h"
#include "msgqueue.h"
#include "registry.h"

namespace {

using Arguments = std::vector<std::string>;
// A handler fills the result text and tells whether the platform call succeeded.
using Handler = bool (*)(const Arguments& args, std::string& result);

struct textMethod {
  const char* name;
  const char* parameters;
  size_t argumentCount;
  Handler handler;
};

std::string trimmed(const std::string& text) {
  size_t begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) return "";
  size_t end = text.find_last_not_of(" \t\r\n");
  return text.substr(begin, end - begin + 1);
}

// A whole decimal or "0x" hexadecimal number that fits 32 bits (signed or unsigned). Leading
// zeros are decimal, never octal.
bool parseU32(const std::string& text, uint32_t& out) {
  if (text.empty()) return false;
  size_t digits = text[0] == '-' || text[0] == '+' ? 1 : 0;
  bool hex = text.compare(digits, 2, "0x") == 0 || text.compare(digits, 2, "0X") == 0;
  errno = 0;
  char* end = nullptr;
  long long value = strtoll(text.c_str(), &end, hex ? 16 : 10);
  if (errno != 0 || *end != '\0' || value < INT32_MIN || value > static_cast<long long>(UINT32_MAX)) return false;
  out = static_cast<uint32_t>(value);
  return true;
}

bool parseInt32(const std::string& text, int32_t& out) {
  uint32_t value = 0;
  if (!parseU32(text, value)) return false;
  out = static_cast<int32_t>(value);
  return true;
}

// The three message numbers (id, wParam, lParam) of a call, from argument `first` on. On failure
// the result names the argument.
bool messageNumbers(const Arguments& args, size_t first, uint32_t numbers[3], std::string& result) {
  for (size_t i = 0; i < 3; ++i) {
    if (!parseU32(trimmed(args[first + i]), numbers[i])) {
      result = "ERROR: bad number [" + args[first + i] + "]";
      return false;
    }
  }
  return true;
}

std::string decimal(int64_t value) { return std::to_string(value); }

// --- handlers ------------------------------------------------------------------------------------

bool iniGetStringMethod(const Arguments& args, std::string& result) {
  result = brisaGetProfileString(args[0], args[1], args[2], args[3]);
  return true;
}

bool postMessage(const Arguments& args, bool withExtra, std::string& result) {
  uint32_t n[3];
  if (!messageNumbers(args, 1, n, result)) return false;
  result = "0";
  msgThreadHandle thread = msgGetThreadByName(args[0]);
  if (thread.empty()) return false;
  // Texts travel with their terminating zero.
  uint32_t extraSize = withExtra ? static_cast<uint32_t>(args[4].size() + 1) : 0;
  bool posted = msgPostMsgToThreadEx(thread, n[0], n[1], n[2], extraSize, withExtra ? args[4].c_str() : nullptr);
  result = posted ? "1" : "0";
  return posted;
}

bool sendMessage(const Arguments& args, bool withExtra, std::string& result) {
  uint32_t n[3];
  if (!messageNumbers(args, 1, n, result)) return false;
  result = "0";
  msgThreadHandle thread = msgGetThreadByName(args[0]);
  if (thread.empty()) return false;
  uint32_t extraSize = withExtra ? static_cast<uint32_t>(args[4].size() + 1) : 0;
  int32_t reply = msgSendMsgToThreadTimeoutEx(thread, n[0], n[1], n[2], extraSize,
                                              withExtra ? args[4].c_str() : nullptr, kTextMethodSendTimeoutMs);
  result = decimal(reply);
  return true;
}

bool msgPostMessageMethod(const Arguments& args, std::string& result) { return postMessage(args, false, result); }
bool msgSendMessageMethod(const Arguments& args, std::string& result) { return sendMessage(args, false, result); }
bool msgPostMessageExMethod(const Arguments& args, std::string& result) { return postMessage(args, true, result); }
bool msgSendMessageExMethod(const Arguments& args, std::string& result) { return sendMessage(args, true, result); }

bool msgBroadcastPostMessageMethod(const Arguments& args, std::string& result) {
  uint32_t n[3];
  if (!messageNumbers(args, 0, n, result)) return false;
  result = decimal(msgBroadpostThreadMsg(n[0], n[1], n[2]));
  return true;
}

bool sleepMethod(const Arguments& args, std::string& result) {
  int32_t seconds = 0;
  if (!parseInt32(trimmed(args[0]), seconds) || seconds < 0) {
    result = "ERROR: bad number [" + args[0] + "]";
    return false;
  }
  result = "0";
  // The millisecond wait is 32 bits wide: about 49 days at most.
  const int32_t kLongestSleepSeconds = static_cast<int32_t>(UINT32_MAX / 1000u);
  brisaSleep(static_cast<uint32_t>(seconds < kLongestSleepSeconds ? seconds : kLongestSleepSeconds) * 1000u);
  return true;
}

bool systemMethod(const Arguments& args, std::string& result) {
  int status = phoneCommand(args[0]);
  result = decimal(status);
  return status == 0;
}

bool regFlushAllFileMethod(const Arguments&, std::string& result) {
  bool flushed = regFlushAllFile();
  result = flushed ? "1" : "0";
  return flushed;
}

const char* const kMessageParameters = "LPCSTR lpszAppName, UINT uMessage, WPARAM wParam, LPARAM lParam";
const char* const kMessageExParameters =
    "LPCSTR lpszAppName, UINT uMessage, WPARAM wParam, LPARAM lParam, LPCSTR lpszExtraText";

// The methods, in help order; the empty row ends the table.
const textMethod kMethods[] = {
    {"iniGetString", "LPCSTR lpszFile, LPCSTR lpszSection, LPCSTR lpszKey, LPCSTR lpszDefaultValue", 4,
     iniGetStringMethod},
    {"msgPostMessage", kMessageParameters, 4, msgPostMessageMethod},
    {"msgSendMessage", kMessageParameters, 4, msgSendMessageMethod},
    {"msgBroadcastPostMessage", "UINT uMessage, WPARAM wParam, LPARAM lParam", 3, msgBroadcastPostMessageMethod},
    {"msgPostMessageEx", kMessageExParameters, 5, msgPostMessageExMethod},
    {"msgSendMessageEx", kMessageExParameters, 5, msgSendMessageExMethod},
    {"sleep", "int nSeconds", 1, sleepMethod},
    {"system", "LPCSTR lpszCommand", 1, systemMethod},
    {"regFlushAllFile", "", 0, regFlushAllFileMethod},
    {"", "", 0, nullptr},
};

const textMethod* findMethod(const std::string& name) {
  for (const textMethod* m = kMethods; m->name[0]; ++m) {
    if (name == m->name) return m;
  }
  return nullptr;
}

// "[A-B]" or "[A+B]" with both numbers present and nothing after the "]".
bool bracketOperation(const std::string& text, char op, int64_t& result) {
  if (text.size() < 5 || text.front() != '[' || text.back() != ']') return false;
  const char* start = text.c_str() + 1;
  char* end = nullptr;
  errno = 0;
  long first = strtol(start, &end, 10);
  if (end == start || errno != 0 || *end != op || first < INT32_MIN || first > INT32_MAX) return false;
  const char* second = end + 1;
  long other = strtol(second, &end, 10);
  if (end == second || errno != 0 || *end != ']' || end + 1 != text.c_str() + text.size() || other < INT32_MIN ||
      other > INT32_MAX)
    return false;
  result = op == '-' ? static_cast<int64_t>(first) - other : static_cast<int64_t>(first) + other;
  return true;
}

bool asciiOperation(const std::string& text, std::string& result) {
  static const char kPrefix[] = "_ASSCII[";
  const size_t prefixLength = sizeof kPrefix - 1;
  if (text.compare(0, prefixLength, kPrefix) != 0 || text.back() != ']') return false;
  std::string number = text.substr(prefixLength, text.size() - prefixLength - 1);
  if (number.empty() || number.find_first_not_of("0123456789-+") != std::string::npos) return false;
  errno = 0;
  char* end = nullptr;
  long code = strtol(number.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || code < 1 || code > 127) return false;
  result.assign(1, static_cast<char>(code));
  return true;
}

// Splits the text between the parentheses at commas outside quotes. False for an open quote or a
// missing ")".
bool splitArguments(const std::string& text, size_t open, Arguments& args) {
  std::string current;
  bool quoted = false;
  bool sawAny = false;
  for (size_t i = open + 1; i < text.size(); ++i) {
    char c = text[i];
    if (c == '"') {
      quoted = !quoted;
      current.push_back(c);
    } else if (!quoted && (c == ',' || c == ')')) {
      std::string piece = trimmed(current);
      if (c == ',' || sawAny || !piece.empty()) args.push_back(piece);
      if (c == ')') return trimmed(text.substr(i + 1)).empty();
      current.clear();
      sawAny = true;
    } else {
      current.push_back(c);
    }
  }
  return false;
}

void stripQuotes(std::string& argument) {
  if (argument.size() >= 2 && argument.front() == '"' && argument.back() == '"')
    argument = argument.substr(1, argument.size() - 2);
}

}  // namespace

int applyParamOperator(std::string* argument) {
  if (!argument || argument->empty()) return 0;
  int64_t value = 0;
  if (bracketOperation(*argument, '-', value) || bracketOperation(*argument, '+', value)) {
    *argument = decimal(value);
    return 1;
  }
  std::string character;
  if (asciiOperation(*argument, character)) {
    *argument = character;
    return 1;
  }
  return 0;
}

bool parseTextMethodCall(const std::string& callText, std::string& name, std::vector<std::string>& arguments) {
  arguments.clear();
  size_t open = callText.find('(');
  if (open == std::string::npos) return false;
  name = trimmed(callText.substr(0, open));
  if (name.empty() || !splitArguments(callText, open, arguments)) return false;
  for (std::string& argument : arguments) {
    stripQuotes(argument);
    applyParamOperator(&argument);
  }
  return true;
}

std::string textMethodHelp() {
  std::string help;
  int number = 1;
  for (const textMethod* m = kMethods; m->name[0]; ++m, ++number) {
    char prefix[16];
    snprintf(prefix, sizeof prefix, "%.4d ", number);
    help += std::string(prefix) + m->name + "(" + m->parameters + ")\n";
  }
  return help;
}

std::string callTextMethod(const std::string& callText) {
  std::string name;
  Arguments args;
  if (!parseTextMethodCall(callText, name, args)) return "ERROR: malformed call [" + callText + "]";
  const textMethod* method = findMethod(name);
  if (!method) return "ERROR: unknown method [" + name + "]\n" + textMethodHelp();
  if (args.size() != method->argumentCount)
    return std::string("ERROR: usage ") + method->name + "(" + method->parameters + ")";
  std::string result;
  if (!method->handler(args, result)) LOG_IFO("Error from %s", method->name);
  return result;
}
