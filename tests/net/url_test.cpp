// The URL record: parsing, validity and the text form's round trip.
#include <gtest/gtest.h>

#include "autopUrl.h"

using ns_net::autopUrl;

namespace {

autopUrl parsed(const std::string& text) {
  autopUrl url;
  EXPECT_TRUE(url.Parse(text)) << text;
  return url;
}

TEST(AutopUrl, FormsAndTheirParts) {
  // text, then scheme|user|password|host|port|path|query|fragment
  const std::pair<const char*, const char*> forms[] = {
      {"/tmp/local.cfg", "file|||127.0.0.1|-1|/tmp/local.cfg||"},
      {"10.0.0.1/dir/f.cfg", "tftp|||10.0.0.1|-1|/dir/f.cfg||"},
      {"HTTP://Server/x.cfg", "http|||Server|-1|/x.cfg||"},
      {"http://u:p@[fe80::1]:8080/a/b.cfg?x=1#f", "http|u|p|fe80::1|8080|/a/b.cfg|x=1|f"},
      {"tftp://[::1]/x", "tftp|||::1|-1|/x||"},
      {"http:///x.cfg", "http||||-1|/x.cfg||"},
      {"http://u:p@ss@h/x", "http|u|p@ss|h|-1|/x||"},
      {"http://a:b:c@h/x", "http|a|b:c|h|-1|/x||"},
      {"http://h/a%20b", "http|||h|-1|/a%20b||"},          // escapes are kept as they stand
      {"ftp://:pw@h/f", "ftp|||h|-1|/f||"},                // a password without a user cannot travel
      {"ftp://d%3au:a%2Fb%23c%zz@h/f", "ftp|d:u|a/b#c%zz|h|-1|/f||"},  // credentials are unescaped
      {"file:///tmp/x", "file||||-1|/tmp/x||"},
  };
  for (const auto& [text, parts] : forms) {
    autopUrl u = parsed(text);
    std::string got = u.scheme + "|" + u.user + "|" + u.password + "|" + u.host + "|" + std::to_string(u.port) + "|" +
                      u.path + "|" + u.query + "|" + u.fragment;
    EXPECT_EQ(got, parts) << text;
  }
  autopUrl url = parsed("http://u:p@[fe80::1]:8080/a/b.cfg?x=1#f");
  EXPECT_EQ(url.ToText(), "http://u:p@[fe80::1]:8080/a/b.cfg?x=1#f");
  EXPECT_EQ(url.LogText(), "http://u:******@[fe80::1]:8080/a/b.cfg?x=1#f");
  EXPECT_EQ(parsed("tftp://[::1]/x").ToText(), "tftp://[::1]/x");
}

TEST(AutopUrl, Validity) {
  EXPECT_TRUE(parsed("/tmp/local.cfg").IsValid());
  EXPECT_FALSE(parsed("http:///x.cfg").IsValid());
  EXPECT_FALSE(parsed("tftp://10.0.0.1:0/x").IsValid());
  EXPECT_TRUE(parsed("tftp://10.0.0.1:65535/x").IsValid());

  autopUrl url;
  for (const char* bad : {"", "http://h:65536/x", "http://h:8o/x", "http://[fe80::1/x", "http://[fe80::1]x/y"})
    EXPECT_FALSE(url.Parse(bad)) << bad;
  EXPECT_EQ(url, autopUrl()) << "a failed parse leaves an empty record";
}

TEST(AutopUrl, CredentialsAndOddPartsRoundTrip) {
  // Each text parses, and its text form parses back into the same record.
  for (const char* text :
       {"ftp://user@h/f", "ftp://user:@h/f", "ftp://:pw@h/f", "http://h:/x", "http://u:p@ss@h/x",
        "https://h?only=query", "https://h#frag", "http://h/a%20b/c?d=%2F#e", "tftp://h", "file:///tmp/x",
        "http://a:b:c@h/x", "HTTPS://[2001:db8::2]:443/p?q#r", "10.1.1.1:69/f.cfg"}) {
    autopUrl first = parsed(text);
    autopUrl second = parsed(first.ToText());
    EXPECT_EQ(first, second) << text << " -> " << first.ToText();
  }
  // Credentials of any characters survive the text form.
  autopUrl login = parsed("http://h/cfg");
  login.user = "dom:me@x";
  login.password = "p/w?#@%41 :\n";
  EXPECT_EQ(parsed(login.ToText()), login) << login.ToText();
}

}  // namespace
