// Text-method calls: argument forms, parameter operators, the method table and its errors, and the
// shell command the host records instead of running.
#include <gtest/gtest.h>

#include "callMethod.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

std::vector<std::string> argumentsOf(const std::string& call) {
  std::string name;
  std::vector<std::string> args;
  if (!parseTextMethodCall(call, name, args)) return {"<malformed>"};
  args.insert(args.begin(), name);
  return args;
}

std::string operatorResult(std::string text) {
  return applyParamOperator(&text) ? text : "<no match>";
}

TEST(TextMethod, ArgumentFormsAndParameterOperators) {
  using Args = std::vector<std::string>;
  EXPECT_EQ(argumentsOf("f()"), (Args{"f"}));
  EXPECT_EQ(argumentsOf("  f ( a ,  12,0x10 ) "), (Args{"f", "a", "12", "0x10"}));
  EXPECT_EQ(argumentsOf("f(\"a, (b)\", \" padded \")"), (Args{"f", "a, (b)", " padded "}));
  EXPECT_EQ(argumentsOf("f(a,)"), (Args{"f", "a", ""}));
  EXPECT_EQ(argumentsOf("f(\"\")"), (Args{"f", ""}));
  // Operators apply to every argument, after the quotes are gone.
  EXPECT_EQ(argumentsOf("f([10-3], \"[1+1]\", _ASSCII[44])"), (Args{"f", "7", "2", ","}));
  for (const char* bad : {"f", "f(a", "f(\"a)", "(a)", "f(a) trailing", ""})
    EXPECT_EQ(argumentsOf(bad), (Args{"<malformed>"})) << bad;

  const std::pair<const char*, const char*> results[] = {
      {"[10-3]", "7"}, {"[3-10]", "-7"}, {"[5+3]", "8"}, {"[5--3]", "8"}, {"[-3+2]", "-1"},
      {"[2147483647+1]", "2147483648"}, {"_ASSCII[65]", "A"}, {"_ASSCII[1]", "\x01"}, {"_ASSCII[127]", "\x7f"}};
  for (const auto& [text, result] : results) EXPECT_EQ(operatorResult(text), result) << text;
  for (const char* none : {"_ASSCII[0]", "_ASSCII[128]", "_ASSCII[-1]", "_ASSCII[]", "_ASSCII[6x]", "[10-]",
                           "[10]", "[10-3", "[10-3]x", "x[10-3]", "[a-3]", "[10*3]", "[99999999999+1]", "plain", ""})
    EXPECT_EQ(operatorResult(none), "<no match>") << none;
}

using TextMethodCallTest = RootedTest;

TEST_F(TextMethodCallTest, LocalMethodsAndErrors) {
  LogCapture log;
  root->write("/config/system/system.ini", "[AutoProvision]\nstrServerURL = http://10.0.0.9/cfg\n");
  struct Call {
    std::string text, result;
    bool whole = true;  // false: the result is the answer's beginning
  } calls[] = {
      {"iniGetString(\"/config/system/system.ini\",\"AutoProvision\",\"strServerURL\",\"\")", "http://10.0.0.9/cfg"},
      {"iniGetString(/config/system/system.ini, AutoProvision, missing, \"x,y\")", "x,y"},
      {"sleep(3)", "0"},
      {"sleep(soon)", "ERROR: bad number [soon]"},
      {"sleep(1, 2)", "ERROR: usage sleep(int nSeconds)"},
      {"reboot()", "ERROR: unknown method [reboot]\n0001 iniGetString(LPCSTR lpszFile, LPCSTR lpszSection, ", false},
      {"sleep 1", "ERROR: malformed call [sleep 1]"},
      // Nobody listens under that name: the post fails.
      {"msgPostMessage(\"app_nobody\",0x60001,0,0)", "0"},
      {"msgPostMessage(\"app_nobody\",0x1z,0,0)", "ERROR: bad number [0x1z]"},
      {"msgBroadcastPostMessage(1,2,4294967296)", "ERROR: bad number [4294967296]"},
  };
  for (const Call& c : calls) {
    const std::string got = callTextMethod(c.text);
    EXPECT_EQ(c.whole ? got : got.substr(0, c.result.size()), c.result) << c.text;
  }
  EXPECT_EQ(fakeClock.elapsedMs(), 3000u);  // the sleep on the fake clock, the refused ones not
  for (const char* line : {"IFO Error from sleep", "IFO Error from msgPostMessage"})
    EXPECT_TRUE(log.contains(line)) << line;

  // The host records shell commands and runs none of them.
  const std::string marker = root->host("/tmp/ran");
  EXPECT_EQ(callTextMethod("system(\"touch " + marker + "\")"), "0");
  EXPECT_FALSE(root->exists("/tmp/ran"));
  EXPECT_NE(root->read("/host/actions.log").find("system touch " + marker), std::string::npos);
}

}  // namespace

TEST(ActionCallsTest, SplitAtSemicolonsWithBlanksAndEmptyCallsDropped) {
  const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
      {"", {}},
      {" ;; \r\n;", {}},
      {"a()", {"a()"}},
      {" a(1) ; b(\"x\")\r\n;;c()\t", {"a(1)", "b(\"x\")", "c()"}},
      // A ';' inside quotes still splits: action texts never quote one.
      {"a(\";\")", {"a(\"", "\")"}},
  };
  for (const auto& c : cases) EXPECT_EQ(splitActionCalls(c.first), c.second) << c.first;
}
