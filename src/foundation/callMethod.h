// Text-method calls: the small interpreter behind the "action" texts of the translation table.
// After an item changed, its calls (for example msgPostMessage("app_vpPhone",0x60001,0,0)) tell
// other applications to reload what changed.
//
// A call is: name "(" arguments separated by "," ")". An argument is a quoted text ("...", quotes
// stripped, commas inside kept) or a bare word (blanks around it dropped). Every argument then goes
// through the parameter operators:
//   [A-B]          the decimal text of A minus B   ([10-3] gives 7)
//   [A+B]          the decimal text of A plus B
//   _ASSCII[N]     the one character with code N, 1..127 (for characters a call can't carry)
// Number arguments (UINT, WPARAM, LPARAM, int) are decimal, or hexadecimal with "0x"; negative
// numbers are taken as their 32-bit two's complement. Anything else makes the call fail.
//
// Result texts: the platform call's result ("1"/"0" for posts and flushes, the reply or count for
// sends and broadcasts, the value for iniGetString, "0" for sleep and system). A call that can't be
// made answers with a text starting "ERROR:" that names the problem (malformed call, unknown
// method, wrong arguments) with the method's signature or the help text.
//
// system(): the platform's shell call (platformSystem): on the phone the command runs through the
// shell; the host build has none of the phone's scripts and only records it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Time-out of the synchronous sends of msgSendMessage(Ex), in milliseconds.
constexpr int32_t kTextMethodSendTimeoutMs = 10000;

// Parses and runs one call; the result text.
std::string callTextMethod(const std::string& callText);

// The calls of an action text: split at ';', blanks and line ends around each call dropped, empty
// calls skipped. The same text is split this way wherever it is run.
std::vector<std::string> splitActionCalls(const std::string& action);

// Every method, numbered from 1: "%.4d " + name + "(" + signature + ")\n".
std::string textMethodHelp();

// Splits a call into its name and arguments (quotes stripped, operators applied). False when the
// text is not a call.
bool parseTextMethodCall(const std::string& callText, std::string& name, std::vector<std::string>& arguments);

// Replaces an argument written in one of the operator forms by its result: 1 on a match, 0 when
// the argument is missing, matches no form, or names a character code outside 1..127.
int applyParamOperator(std::string* argument);
