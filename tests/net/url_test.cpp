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

TEST(AutopUrl, LocalPathsAndBareAddresses) {
  autopUrl local = parsed("/tmp/local.cfg");
  EXPECT_EQ(local.scheme, "file");
  EXPECT_EQ(local.host, "127.0.0.1");
  EXPECT_EQ(local.port, -1);
  EXPECT_EQ(local.path, "/tmp/local.cfg");
  EXPECT_TRUE(local.IsValid());

  autopUrl bare = parsed("10.0.0.1/dir/f.cfg");
  EXPECT_EQ(bare.scheme, "tftp");
  EXPECT_EQ(bare.host, "10.0.0.1");
  EXPECT_EQ(bare.path, "/dir/f.cfg");

  EXPECT_EQ(parsed("HTTP://Server/x.cfg").scheme, "http");
  EXPECT_EQ(parsed("HTTP://Server/x.cfg").host, "Server");
}

TEST(AutopUrl, AllPartsAndIPv6Literal) {
  const std::string text = "http://u:p@[fe80::1]:8080/a/b.cfg?x=1#f";
  autopUrl url = parsed(text);
  EXPECT_EQ(url.scheme, "http");
  EXPECT_EQ(url.user, "u");
  EXPECT_EQ(url.password, "p");
  EXPECT_EQ(url.host, "fe80::1");
  EXPECT_EQ(url.port, 8080);
  EXPECT_EQ(url.path, "/a/b.cfg");
  EXPECT_EQ(url.query, "x=1");
  EXPECT_EQ(url.fragment, "f");
  EXPECT_EQ(url.ToText(), text);
  EXPECT_EQ(url.LogText(), "http://u:******@[fe80::1]:8080/a/b.cfg?x=1#f");

  autopUrl v6 = parsed("tftp://[::1]/x");
  EXPECT_EQ(v6.host, "::1");
  EXPECT_EQ(v6.port, -1);
  EXPECT_EQ(v6.ToText(), "tftp://[::1]/x");
}

TEST(AutopUrl, Validity) {
  EXPECT_FALSE(parsed("http:///x.cfg").IsValid());
  EXPECT_EQ(parsed("http:///x.cfg").host, "");
  EXPECT_FALSE(parsed("tftp://10.0.0.1:0/x").IsValid());
  EXPECT_TRUE(parsed("tftp://10.0.0.1:65535/x").IsValid());

  autopUrl url;
  EXPECT_FALSE(url.Parse(""));
  EXPECT_FALSE(url.Parse("http://h:65536/x"));
  EXPECT_FALSE(url.Parse("http://h:8o/x"));
  EXPECT_FALSE(url.Parse("http://[fe80::1/x"));
  EXPECT_FALSE(url.Parse("http://[fe80::1]x/y"));
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
  autopUrl withAt = parsed("http://u:p@ss@h/x");
  EXPECT_EQ(withAt.password, "p@ss");
  EXPECT_EQ(withAt.host, "h");
  autopUrl colons = parsed("http://a:b:c@h/x");
  EXPECT_EQ(colons.user, "a");
  EXPECT_EQ(colons.password, "b:c");
  EXPECT_EQ(parsed("http://h/a%20b").path, "/a%20b") << "escapes are kept as they stand";
  EXPECT_EQ(parsed("ftp://:pw@h/f").password, "") << "a password without a user cannot travel";
  EXPECT_EQ(parsed("file:///tmp/x").path, "/tmp/x");
  EXPECT_EQ(parsed("file:///tmp/x").host, "");
}

}  // namespace
