// The SIP parser on what RFC 3261 lets a sender write and on what it must refuse.
#include <gtest/gtest.h>

#include <string>

#include "sipMessage.h"

namespace {

const std::string kHeaders =
    "Via: SIP/2.0/UDP 10.0.0.1;branch=z9hG4bK1\r\nFrom: <sip:a@b>;tag=1\r\nTo: <sip:p@x>\r\n"
    "Call-ID: c1\r\nCSeq: 5 NOTIFY\r\n";

struct ParseCase {
  const char* name;
  std::string text;
  bool accepted;
  const char* header;  // looked up by this name when accepted
  const char* value;
  const char* body;
};

class SipParse : public ::testing::TestWithParam<ParseCase> {};

TEST_P(SipParse, AcceptsOrRefusesWhole) {
  const ParseCase& c = GetParam();
  sipMessage message;
  ASSERT_EQ(c.accepted, message.Parse(c.text.data(), c.text.size())) << c.text;
  if (!c.accepted) {
    EXPECT_TRUE(message.headers().empty());
    return;
  }
  const std::string* value = message.Find(c.header);
  ASSERT_NE(nullptr, value) << c.header;
  EXPECT_EQ(c.value, *value);
  EXPECT_EQ(c.body, message.body());
}

const std::string kNotify = "NOTIFY sip:p@x SIP/2.0\r\n";

INSTANTIATE_TEST_SUITE_P(
    Cases, SipParse,
    ::testing::Values(
        ParseCase{"plain", kNotify + kHeaders + "Content-Length: 4\r\n\r\nbody", true, "CSeq", "5 NOTIFY", "body"},
        ParseCase{"compact", "NOTIFY sip:p@x SIP/2.0\r\nv: V\r\nf: F\r\nt: T\r\ni: I\r\nCSeq: 1 NOTIFY\r\n"
                             "o: ua-profile\r\nl: 2\r\n\r\nabcd",
                  true, "Event", "ua-profile", "ab"},
        ParseCase{"compact looked up by long name", kNotify + kHeaders + "L: 0\r\n\r\n", true, "content-length", "0", ""},
        ParseCase{"case of names and version", "NOTIFY sip:p@x sip/2.0\r\nvIA: V\r\nFROM: F\r\nto: T\r\nCALL-ID: I\r\n"
                                              "cseq: 1 NOTIFY\r\n\r\n",
                  true, "Call-Id", "I", ""},
        ParseCase{"folded with tab and blanks", kNotify + kHeaders + "Event: ua-profile\r\n\t;vendor=\"v\"\r\n   ;x=1\r\n\r\n",
                  true, "Event", "ua-profile ;vendor=\"v\" ;x=1", ""},
        ParseCase{"bare LF, leading empty lines", "\r\n\r\n" + kNotify + "Via: V\nFrom: F\nTo: T\nCall-ID: I\nCSeq: 1 NOTIFY\n\nx",
                  true, "To", "T", "x"},
        ParseCase{"no Content-Length: body to the end", kNotify + kHeaders + "\r\nrest\r\n", true, "Call-ID", "c1", "rest\r\n"},
        ParseCase{"blanks before the colon and around the value", kNotify + kHeaders + "Subject \t:  hi there \r\n\r\n",
                  true, "s", "hi there", ""},
        ParseCase{"response", "SIP/2.0 200 OK\r\n" + kHeaders + "\r\n", true, "Via", "SIP/2.0/UDP 10.0.0.1;branch=z9hG4bK1", ""},
        ParseCase{"Content-Length beyond the datagram", kNotify + kHeaders + "l: 5\r\n\r\nbody", false, "", "", ""},
        ParseCase{"Content-Length not a number", kNotify + kHeaders + "l: 4x\r\n\r\nbody", false, "", "", ""},
        ParseCase{"Content-Length negative", kNotify + kHeaders + "l: -1\r\n\r\nbody", false, "", "", ""},
        ParseCase{"two different Content-Lengths", kNotify + kHeaders + "l: 4\r\nContent-Length: 3\r\n\r\nbody", false, "", "", ""},
        ParseCase{"Content-Length overflowing", kNotify + kHeaders + "l: 4294967300\r\n\r\nbody", false, "", "", ""},
        ParseCase{"no empty line", kNotify + kHeaders, false, "", "", ""},
        ParseCase{"fold before any header", kNotify + " Via: V\r\n" + kHeaders + "\r\n", false, "", "", ""},
        ParseCase{"line without colon", kNotify + kHeaders + "Garbage\r\n\r\n", false, "", "", ""},
        ParseCase{"name not a token", kNotify + kHeaders + "Ev ent: x\r\n\r\n", false, "", "", ""},
        ParseCase{"NUL in a header", kNotify + kHeaders + std::string("X: a\0b\r\n\r\n", 10), false, "", "", ""},
        ParseCase{"bare CR in a header", kNotify + kHeaders + "X: a\rb\r\n\r\n", false, "", "", ""},
        ParseCase{"no Call-ID", kNotify + "Via: V\r\nFrom: F\r\nTo: T\r\nCSeq: 1 NOTIFY\r\n\r\n", false, "", "", ""},
        ParseCase{"CSeq method differs", kNotify + "Via: V\r\nFrom: F\r\nTo: T\r\ni: I\r\nCSeq: 1 INFO\r\n\r\n", false, "", "", ""},
        ParseCase{"CSeq number 2^31", kNotify + "Via: V\r\nFrom: F\r\nTo: T\r\ni: I\r\nCSeq: 2147483648 NOTIFY\r\n\r\n",
                  false, "", "", ""},
        ParseCase{"wrong version", "NOTIFY sip:p@x SIP/3.0\r\n" + kHeaders + "\r\n", false, "", "", ""},
        ParseCase{"status code of two digits", "SIP/2.0 20 OK\r\n" + kHeaders + "\r\n", false, "", "", ""}),
    [](const ::testing::TestParamInfo<ParseCase>& info) {
      std::string name;
      for (const char* p = info.param.name; *p; ++p) name += isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
      return name;
    });

}  // namespace
