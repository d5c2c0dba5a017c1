// What is HTTP's own, against nginx (redirects, basic authentication, the trusted directory of
// HTTPS) and against scripted servers (a stall, digest authentication).
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <regex>
#include <thread>

#include "fileStream.h"
#include "netPeers.h"
#include "servers.h"
#include "testRoot.h"

using namespace net_test;
using ns_net::fileDownload;
using namespace testing_support;

namespace {

class HttpTest : public ::testing::Test {
 protected:
  // nginx with a TLS port whose certificate the test CA issued and one of another CA, started once.
  struct Peers {
    Peers() {
      server.put("files/k.cfg", "the file");
      server.put("files/redirected.bin", "after the redirect");
      server.put("auth/secret.cfg", "behind a password");
      up = ca.create() && ca.issueServerCertificate("server") && otherCa.create() &&
           otherCa.issueServerCertificate("server") && server.start(&ca, &otherCa);
    }
    TestCa ca{"Provisor Test CA"}, otherCa{"Some Other CA"};
    HttpServer server;
    bool up = false;
  };
  static Peers& peers() {
    static Peers started;
    return started;
  }
  void SetUp() override { ASSERT_TRUE(peers().up) << "nginx did not start"; }
  void trustTestCa(const std::string& name) {
    root.write("/config/certs/trusted/" + name, readHostFile(peers().ca.caCertificate()));
  }
  int fetch(int port, const std::string& rest, const std::string& credentials = "", const char* scheme = "http") {
    fileDownload d;
    return downloadToOut(std::string(scheme) + "://" + credentials + "127.0.0.1:" + std::to_string(port) + rest, d);
  }
  int http(const std::string& rest, const std::string& credentials = "") {
    return fetch(peers().server.port(), rest, credentials);
  }
  int https(int port, const std::string& rest, const std::string& credentials = "") {
    return fetch(port, rest, credentials, "https");
  }
  TempRoot root;
  LogCapture log;
};

TEST_F(HttpTest, RedirectsAndBasicAuthentication) {
  EXPECT_EQ(http("/redirect"), 18);
  EXPECT_EQ(root.read("/tmp/out"), "after the redirect");
  EXPECT_EQ(http("/auth/secret.cfg", "user:secret@"), 17);
  EXPECT_EQ(root.read("/tmp/out"), "behind a password");
  EXPECT_EQ(http("/auth/secret.cfg"), -1);
  EXPECT_EQ(http("/auth/secret.cfg", "user:wrong@"), -1);
  EXPECT_FALSE(log.contains("wrong")) << "no password in the log";
}

TEST_F(HttpTest, HttpsVerifiesAgainstTheTrustedDirectory) {
  const int tls = peers().server.tlsPort();
  EXPECT_EQ(https(tls, "/files/k.cfg"), -1) << "the test CA is not trusted yet";
  trustTestCa("test-ca.pem");
  EXPECT_EQ(https(tls, "/files/k.cfg"), 8);
  EXPECT_EQ(https(tls, "/auth/secret.cfg", "user:secret@"), 17);
  // A certificate from another CA fails even though some CA is trusted.
  EXPECT_EQ(https(peers().server.otherTlsPort(), "/files/k.cfg"), -1);

  // ".crt" files count as well; other names do not.
  root.write("/config/certs/trusted/test-ca.pem", "");
  trustTestCa("test-ca.txt");
  EXPECT_EQ(https(tls, "/files/redirected.bin"), -1);
  trustTestCa("test-ca.crt");
  EXPECT_EQ(https(tls, "/files/redirected.bin"), 18);

  // The http stream refuses to be handed https.
  ns_net::httpStream plain;
  EXPECT_FALSE(plain.Open("https://127.0.0.1:" + std::to_string(tls) + "/files/k.cfg", 5000));
}

TEST_F(HttpTest, StalledBodyIsABreak) {
  TcpPeer peer;
  std::thread script([&] {
    int fd = peer.accept();
    readRequest(fd);
    sendText(fd, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n" + std::string(10, 's'));
    readable(fd, 3000);  // say nothing more until the client gives up
    close(fd);
  });
  ns_net::httpStream stream;
  stream.SetTimeout(300);
  ASSERT_TRUE(stream.Open("http://127.0.0.1:" + std::to_string(peer.port()) + "/stall", 5000));
  char buffer[100];
  EXPECT_EQ(stream.Read(buffer, 1, 100), 10);
  EXPECT_EQ(stream.Read(buffer, 1, 100), 0);
  EXPECT_EQ(stream.BrokenMissing(), 90);
  EXPECT_EQ(stream.BrokenReason(), "no data within 300 ms");
  stream.Close();
  script.join();
}

std::string md5Hex(const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr);
  std::string hex;
  for (unsigned i = 0; i < length; ++i) hex += {"0123456789abcdef"[digest[i] >> 4], "0123456789abcdef"[digest[i] & 15]};
  return hex;
}

// The value of `name="..."` (or name=...) in a digest header.
std::string digestField(const std::string& header, const std::string& name) {
  std::smatch match;
  return std::regex_search(header, match, std::regex("[ ,]" + name + "=\"?([^\",]*)")) ? match[1].str() : "";
}

TEST_F(HttpTest, DigestAuthenticationFromTheUrlCredentials) {
  TcpPeer peer;
  std::string authorization;
  std::thread script([&] {
    int fd = peer.accept();
    ASSERT_GE(fd, 0);
    readRequest(fd);
    sendText(fd,
             "HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Digest realm=\"phone\", nonce=\"abc123\", qop=\"auth\"\r\n"
             "Content-Length: 0\r\n\r\n");
    std::string second = readRequest(fd);  // on the same connection: the 401 kept it open
    size_t at = second.find("Authorization: Digest ");
    ASSERT_NE(at, std::string::npos) << second;
    authorization = second.substr(at, second.find("\r\n", at) - at);
    std::string ha1 = md5Hex("u:phone:p w");
    std::string ha2 = md5Hex("GET:/d.cfg");
    std::string expected = md5Hex(ha1 + ":abc123:" + digestField(authorization, "nc") + ":" +
                                  digestField(authorization, "cnonce") + ":auth:" + ha2);
    bool good = digestField(authorization, "response") == expected;
    sendText(fd, good ? "HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\ndigest"
                      : "HTTP/1.1 401 Unauthorized\r\nContent-Length: 0\r\n\r\n");
    readable(fd, 1000);
    close(fd);
  });
  EXPECT_EQ(fetch(peer.port(), "/d.cfg", "u:p%20w@"), 6);
  script.join();
  EXPECT_EQ(root.read("/tmp/out"), "digest");
  EXPECT_EQ(digestField(authorization, "username"), "u");
}

}  // namespace
