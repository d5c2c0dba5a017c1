// The URL record: parsing, validity and the text form's round trip.
#include <gtest/gtest.h>

#include "autopUrl.h"

using ns_net::autopUrl;

namespace {

// Each form parses into its parts, is valid or not, and its text form parses back into the same record.
TEST(AutopUrl, FormsTheirPartsAndTheRoundTrip) {
  // text, then scheme|user|password|host|port|path|query|fragment, then validity
  const std::tuple<const char*, const char*, bool> forms[] = {
      {"/tmp/local.cfg", "file|||127.0.0.1|-1|/tmp/local.cfg||", true},
      {"10.0.0.1/dir/f.cfg", "tftp|||10.0.0.1|-1|/dir/f.cfg||", true},
      {"10.1.1.1:69/f.cfg", "tftp|||10.1.1.1|69|/f.cfg||", true},
      {"HTTP://Server/x.cfg", "http|||Server|-1|/x.cfg||", true},
      {"http://u:p@[fe80::1]:8080/a/b.cfg?x=1#f", "http|u|p|fe80::1|8080|/a/b.cfg|x=1|f", true},
      {"tftp://[::1]/x", "tftp|||::1|-1|/x||", true},
      {"tftp://h", "tftp|||h|-1|||", true},
      {"tftp://10.0.0.1:0/x", "tftp|||10.0.0.1|0|/x||", false},
      {"tftp://10.0.0.1:65535/x", "tftp|||10.0.0.1|65535|/x||", true},
      {"http:///x.cfg", "http||||-1|/x.cfg||", false},
      {"http://h:/x", "http|||h|-1|/x||", true},
      {"http://u:p@ss@h/x", "http|u|p@ss|h|-1|/x||", true},
      {"http://a:b:c@h/x", "http|a|b:c|h|-1|/x||", true},
      {"http://h/a%20b/c?d=%2F#e", "http|||h|-1|/a%20b/c|d=%2F|e", true},  // escapes are kept as they stand
      {"https://h?only=query", "https|||h|-1||only=query|", true},
      {"https://h#frag", "https|||h|-1|||frag", true},
      {"ftp://user@h/f", "ftp|user||h|-1|/f||", true},
      {"ftp://user:@h/f", "ftp|user||h|-1|/f||", true},
      {"ftp://:pw@h/f", "ftp|||h|-1|/f||", true},  // a password without a user cannot travel
      {"ftp://d%3au:a%2Fb%23c%zz@h/f", "ftp|d:u|a/b#c%zz|h|-1|/f||", true},  // credentials are unescaped
      // Credentials of any characters survive the text form.
      {"http://dom%3Ame%40x:p%2Fw%3F%23%40%2541%20%3A%0A@h/cfg", "http|dom:me@x|p/w?#@%41 :\n|h|-1|/cfg||", true},
      {"file:///tmp/x", "file||||-1|/tmp/x||", false},
  };
  for (const auto& [text, parts, valid] : forms) {
    SCOPED_TRACE(text);
    autopUrl u, back;
    ASSERT_TRUE(u.Parse(text));
    EXPECT_EQ(u.scheme + "|" + u.user + "|" + u.password + "|" + u.host + "|" + std::to_string(u.port) + "|" +
                  u.path + "|" + u.query + "|" + u.fragment,
              parts);
    EXPECT_EQ(u.IsValid(), valid);
    ASSERT_TRUE(back.Parse(u.ToText())) << u.ToText();
    EXPECT_EQ(back, u) << u.ToText();
  }
  autopUrl url;
  ASSERT_TRUE(url.Parse("http://u:p@[fe80::1]:8080/a/b.cfg?x=1#f"));
  EXPECT_EQ(url.ToText(), "http://u:p@[fe80::1]:8080/a/b.cfg?x=1#f");
  EXPECT_EQ(url.LogText(), "http://u:******@[fe80::1]:8080/a/b.cfg?x=1#f");

  for (const char* bad : {"", "http://h:65536/x", "http://h:8o/x", "http://[fe80::1/x", "http://[fe80::1]x/y"})
    EXPECT_FALSE(url.Parse(bad)) << bad;
  EXPECT_EQ(url, autopUrl()) << "a failed parse leaves an empty record";

}

}  // namespace
