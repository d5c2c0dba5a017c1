// The SIP parser on what RFC 3261 lets a sender write and on what it must refuse.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>

#include "sipMessage.h"

namespace {

const std::string kNotify = "NOTIFY sip:p@x SIP/2.0\r\n";
const std::string kHeaders =
    "Via: SIP/2.0/UDP 10.0.0.1;branch=z9hG4bK1\r\nFrom: <sip:a@b>;tag=1\r\nTo: <sip:p@x>\r\n"
    "Call-ID: c1\r\nCSeq: 5 NOTIFY\r\n";
const std::string kNoCallId = kNotify + "Via: V\r\nFrom: F\r\nTo: T\r\n";

}  // namespace

TEST(SipParse, AcceptsWhatASenderMayWrite) {
  const std::tuple<std::string, const char*, const char*, const char*> cases[] = {
      // message, a header looked up by this name, its value, the body
      {kNotify + kHeaders + "Content-Length: 4\r\n\r\nbody", "CSeq", "5 NOTIFY", "body"},
      {kNotify + "v: V\r\nf: F\r\nt: T\r\ni: I\r\nCSeq: 1 NOTIFY\r\no: ua-profile\r\nl: 2\r\n\r\nabcd", "Event",
       "ua-profile", "ab"},
      {kNotify + kHeaders + "L: 0\r\n\r\n", "content-length", "0", ""},  // compact, looked up by long name
      {"NOTIFY sip:p@x sip/2.0\r\nvIA: V\r\nFROM: F\r\nto: T\r\nCALL-ID: I\r\ncseq: 1 NOTIFY\r\n\r\n", "Call-Id", "I", ""},
      {kNotify + kHeaders + "Event: ua-profile\r\n\t;vendor=\"v\"\r\n   ;x=1\r\n\r\n", "Event",
       "ua-profile ;vendor=\"v\" ;x=1", ""},  // folded with tab and blanks
      {"\r\n\r\n" + kNotify + "Via: V\nFrom: F\nTo: T\nCall-ID: I\nCSeq: 1 NOTIFY\n\nx", "To", "T", "x"},  // bare LF
      {kNotify + kHeaders + "\r\nrest\r\n", "Call-ID", "c1", "rest\r\n"},  // no Content-Length: body to the end
      {kNotify + kHeaders + "Subject \t:  hi there \r\n\r\n", "s", "hi there", ""},
      {"SIP/2.0 200 OK\r\n" + kHeaders + "\r\n", "Via", "SIP/2.0/UDP 10.0.0.1;branch=z9hG4bK1", ""},
  };
  for (const auto& [text, header, value, body] : cases) {
    sipMessage message;
    ASSERT_TRUE(message.Parse(text.data(), text.size())) << text;
    const std::string* found = message.Find(header);
    EXPECT_EQ(found ? *found : "<none>", value) << text;
    EXPECT_EQ(message.body(), body) << text;
  }
}

// Refused whole by Parse; Read keeps the headers of those still worth a 400 answer.
TEST(SipParse, RefusesWhole) {
  const std::pair<std::string, sipReadResult> cases[] = {
      {kNotify + kHeaders + "l: 5\r\n\r\nbody", sipReadResult::kBad},  // Content-Length beyond the datagram
      {kNotify + kHeaders + "l: 4x\r\n\r\nbody", sipReadResult::kBad},
      {kNotify + kHeaders + "l: -1\r\n\r\nbody", sipReadResult::kBad},
      {kNotify + kHeaders + "l: 4\r\nContent-Length: 3\r\n\r\nbody", sipReadResult::kBad},
      {kNotify + kHeaders + "l: 4294967300\r\n\r\nbody", sipReadResult::kBad},
      {kNotify + kHeaders, sipReadResult::kUnreadable},                       // no empty line
      {kNotify + " Via: V\r\n" + kHeaders + "\r\n", sipReadResult::kUnreadable},  // fold before any header
      {kNotify + kHeaders + "Garbage\r\n\r\n", sipReadResult::kUnreadable},
      {kNotify + kHeaders + "Ev ent: x\r\n\r\n", sipReadResult::kUnreadable},
      {kNotify + kHeaders + std::string("X: a\0b\r\n\r\n", 10), sipReadResult::kUnreadable},
      {kNotify + kHeaders + "X: a\rb\r\n\r\n", sipReadResult::kUnreadable},
      {kNoCallId + "CSeq: 1 NOTIFY\r\n\r\n", sipReadResult::kBad},
      {kNoCallId + "i: I\r\nCSeq: 1 INFO\r\n\r\n", sipReadResult::kBad},  // CSeq method differs
      {kNoCallId + "i: I\r\nCSeq: 2147483648 NOTIFY\r\n\r\n", sipReadResult::kBad},
      {"NOTIFY sip:p@x SIP/3.0\r\n" + kHeaders + "\r\n", sipReadResult::kUnreadable},
      {"SIP/2.0 20 OK\r\n" + kHeaders + "\r\n", sipReadResult::kUnreadable},
  };
  for (const auto& [text, read] : cases) {
    sipMessage message;
    EXPECT_FALSE(message.Parse(text.data(), text.size())) << text;
    EXPECT_TRUE(message.headers().empty()) << text;
    EXPECT_EQ(message.Read(text.data(), text.size()), read) << text;
    EXPECT_EQ(message.headers().empty(), read == sipReadResult::kUnreadable) << text;
  }
}
