// Certificates and keys made by openssl at test time: an authority installed by the trusted-cert
// parser is trusted by the very next HTTPS download from an nginx it signed; keys offered as
// authorities and mismatched pairs are refused and leave the installed file alone.
#include <sys/stat.h>

#include <functional>

#include "certParser.h"
#include "httpfile.h"
#include "parserFixture.h"
#include "servers.h"

namespace {

using parser_test::ParserTest;
using testing_support::HttpServer;
using testing_support::LogCapture;
using testing_support::readHostFile;
using testing_support::TestCa;

// Two authorities with a server certificate each (and the first's as DER, its key encrypted), and an
// nginx serving HTTPS with the first's certificate; made once for all the tests here.
struct Peers {
  TestCa ca{"Provisioned CA"}, otherCa{"Unrelated CA"};
  HttpServer server;
  bool ready = ca.create() && ca.issueServerCertificate("server") && otherCa.create() &&
               otherCa.issueServerCertificate("server") &&
               testing_support::runCommand("openssl x509 -in '" + ca.caCertificate() + "' -outform DER -out '" +
                                           ca.file("ca.der") + "' && openssl pkey -in '" + ca.file("server.key") +
                                           "' -aes128 -passout pass:secret -out '" + ca.file("locked.key") + "'") == 0;
};

class CertTest : public ParserTest {
 protected:
  static void SetUpTestSuite() {
    peers = new Peers;
    peers->server.put("files/hello.txt", "hello");
    peers->ready = peers->ready && peers->server.start(&peers->ca);
  }
  static void TearDownTestSuite() { delete peers; }
  void SetUp() override {
    ParserTest::SetUp();
    ASSERT_TRUE(peers->ready) << "openssl or nginx failed";
  }
  static std::string caFile(const std::string& name) { return readHostFile(peers->ca.file(name)); }
  static std::string otherFile(const std::string& name) { return readHostFile(peers->otherCa.file(name)); }
  bool httpsDownloadWorks() const {
    httpsFile file;
    std::string url = "https://127.0.0.1:" + std::to_string(peers->server.tlsPort()) + "/files/hello.txt";
    return file.OpenHttpsFile(url.c_str(), 10000) != 0;
  }
  static Peers* peers;
};

Peers* CertTest::peers = nullptr;

// A DER authority is installed converted, under its name + ".pem": the delete by the server's name
// finds it all the same.
TEST_F(CertTest, ProvisionedAuthorityIsTrustedByTheNextHttpsDownload) {
  const std::pair<const char*, std::string> cases[] = {{"bundle.crt", otherFile("ca.pem") + caFile("ca.pem")},
                                                       {"authority.der", caFile("ca.der")}};
  for (const auto& [name, contents] : cases) {
    SCOPED_TRACE(name);
    EXPECT_FALSE(httpsDownloadWorks()) << "not trusted before it is provisioned";
    root->write(std::string("/tmp/") + name, contents);
    autoCrtParser parser;
    ASSERT_EQ(install(parser, name, std::string(kTrustedCertDir) + "/" + name), 1);
    EXPECT_TRUE(httpsDownloadWorks());

    // Deleting it by the name the server knows takes the trust away again, companion included.
    root->write(std::string(kTrustedCertDir) + "/" + name + ".MD5", "0123");
    EXPECT_EQ(parser.deleteFile(std::string(kTrustedCertDir) + "/", (std::string("http://localhost/") + name).c_str()), 1);
    EXPECT_FALSE(root->exists(std::string(kTrustedCertDir) + "/" + name + ".MD5"));
    EXPECT_FALSE(httpsDownloadWorks());
  }
  // "dir" empties the trusted directory but keeps it where the HTTPS client looks.
  root->write(std::string(kTrustedCertDir) + "/x.pem", caFile("ca.pem"));
  autoCrtParser parser;
  parser.deleteFile(kTrustedCertDir, "http://localhost/dir");
  EXPECT_TRUE(pathIsDirectory(kTrustedCertDir));
  EXPECT_FALSE(root->exists(std::string(kTrustedCertDir) + "/x.pem"));
}

struct KeyCase {
  const char* what;
  std::function<autoBinParser*()> parser;
  std::string contents;
  const char* refusal;  // nullptr: installed
};

TEST_F(CertTest, KeysAndPairsAreCheckedBeforeTheInstalledFileIsReplaced) {
  auto trusted = [] { return new autoCrtParser; };
  auto server = [] { return new autoPemParser; };
  auto network = [] { return new auto802_1XCrtParser; };
  const KeyCase cases[] = {
      {"a private key as authority", trusted, caFile("ca.key"), "must not hold a private key"},
      {"an authority with its key", trusted, caFile("ca.pem") + caFile("ca.key"), "must not hold a private key"},
      {"text as authority", trusted, "-----BEGIN CERTIFICATE-----\nnonsense\n-----END CERTIFICATE-----\n",
       "is not a certificate file"},
      {"server pair", server, caFile("server.pem") + caFile("server.key"), nullptr},
      {"key before certificate", server, caFile("server.key") + caFile("server.pem"), nullptr},
      {"mismatched server pair", server, caFile("server.pem") + otherFile("server.key"), "does not match"},
      {"server certificate alone", server, caFile("server.pem"), "holds no private key"},
      {"encrypted server key", server, caFile("server.pem") + caFile("locked.key"), "can't be read"},
      {"802.1X authority", network, caFile("ca.pem"), nullptr},
      {"802.1X client pair", network, otherFile("server.pem") + otherFile("server.key"), nullptr},
      {"mismatched 802.1X pair", network, otherFile("server.pem") + caFile("server.key"), "does not match"},
  };
  for (const KeyCase& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string destination = "/config/certs/server/WebServer.pem";
    root->write(destination, "installed before");
    root->write("/tmp/offered.pem", c.contents);
    LogCapture log;
    std::unique_ptr<autoBinParser> parser(c.parser());
    EXPECT_EQ(install(*parser, "offered.pem", destination), c.refusal ? 0 : 1);
    if (c.refusal) {
      EXPECT_EQ(root->read(destination), "installed before");
      EXPECT_TRUE(log.contains(c.refusal)) << log.text();
      continue;
    }
    EXPECT_EQ(root->read(destination), c.contents);
    struct stat st;
    ASSERT_EQ(stat(root->host(destination).c_str(), &st), 0);
    bool holdsKey = c.contents.find("PRIVATE KEY") != std::string::npos;
    EXPECT_EQ(st.st_mode & 0777, holdsKey ? 0600u : 0644u);
  }
}

}  // namespace
