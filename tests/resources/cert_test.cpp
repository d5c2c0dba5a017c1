// Certificates and keys made by openssl at test time: an authority is installed as PEM where the
// HTTPS client looks (whose trust of that directory is a test of net/) and deleted by the name the
// server knows; keys offered as authorities and mismatched pairs are refused and leave the installed
// file alone.
#include <sys/stat.h>

#include <functional>
#include <tuple>

#include "certParser.h"
#include "httpfile.h"
#include "parserFixture.h"
#include "servers.h"

namespace {

using parser_test::ParserTest;
using testing_support::LogCapture;
using testing_support::readHostFile;
using testing_support::TestCa;

// Two authorities with a server certificate each (and the first's as DER, its key encrypted); made
// once for all the tests here.
struct Peers {
  TestCa ca{"Provisioned CA"}, otherCa{"Unrelated CA"};
  bool ready = ca.create() && ca.issueServerCertificate("server") && otherCa.create() &&
               otherCa.issueServerCertificate("server") &&
               testing_support::runCommand("openssl x509 -in '" + ca.caCertificate() + "' -outform DER -out '" +
                                           ca.file("ca.der") + "' && openssl pkey -in '" + ca.file("server.key") +
                                           "' -aes128 -passout pass:secret -out '" + ca.file("locked.key") + "'") == 0;
};

class CertTest : public ParserTest {
 protected:
  static void SetUpTestSuite() { peers = new Peers; }
  static void TearDownTestSuite() { delete peers; }
  void SetUp() override {
    ParserTest::SetUp();
    ASSERT_TRUE(peers->ready) << "openssl failed";
  }
  static std::string caFile(const std::string& name) { return readHostFile(peers->ca.file(name)); }
  static std::string otherFile(const std::string& name) { return readHostFile(peers->otherCa.file(name)); }
  static Peers* peers;
};

Peers* CertTest::peers = nullptr;

// A DER authority is installed converted, under its name + ".pem": the delete by the server's name
// finds it all the same.
TEST_F(CertTest, ProvisionedAuthorityIsInstalledAsPemAndDeletedByItsName) {
  const std::string dir = std::string(kTrustedCertDir) + "/";
  const std::tuple<const char*, std::string, const char*> cases[] = {
      {"bundle.crt", otherFile("ca.pem") + caFile("ca.pem"), "bundle.crt"},
      {"authority.der", caFile("ca.der"), "authority.der.pem"}};
  for (const auto& [name, contents, installed] : cases) {
    SCOPED_TRACE(name);
    root->write(std::string("/tmp/") + name, contents);
    autoCrtParser parser;
    ASSERT_EQ(install(parser, name, dir + name), 1);
    EXPECT_EQ(root->read(dir + installed), std::string(installed) == name ? contents : caFile("ca.pem"));

    // Deleting it by the name the server knows takes it away, companion included.
    root->write(dir + name + ".MD5", "0123");
    EXPECT_EQ(parser.deleteFile(dir, ("http://localhost/" + std::string(name)).c_str()), 1);
    EXPECT_FALSE(root->exists(dir + name + ".MD5") || root->exists(dir + installed));
  }
}

TEST_F(CertTest, KeysAndPairsAreCheckedBeforeTheInstalledFileIsReplaced) {
  auto trusted = [] { return new autoCrtParser; };
  auto server = [] { return new autoPemParser; };
  auto network = [] { return new auto802_1XCrtParser; };
  auto generic = [] { return new autoCertParser; };
  // what, parser, contents, the log line of its refusal (nullptr: installed)
  const std::tuple<const char*, std::function<autoBinParser*()>, std::string, const char*> cases[] = {
      {"a private key as authority", trusted, caFile("ca.key"), "must not hold a private key"},
      {"an authority with its key", trusted, caFile("ca.pem") + caFile("ca.key"), "must not hold a private key"},
      {"text as authority", trusted, "-----BEGIN CERTIFICATE-----\nnonsense\n-----END CERTIFICATE-----\n",
       "is not a certificate file"},
      {"server pair", server, caFile("server.pem") + caFile("server.key"), nullptr},
      {"mismatched server pair", server, caFile("server.pem") + otherFile("server.key"), "does not match"},
      {"server certificate alone", server, caFile("server.pem"), "holds no private key"},
      {"encrypted server key", server, caFile("server.pem") + caFile("locked.key"), "can't be read"},
      {"802.1X authority", network, caFile("ca.pem"), nullptr},
      {"generic certificate", generic, caFile("ca.pem"), nullptr},
      {"generic pair", generic, otherFile("server.pem") + otherFile("server.key"), nullptr},
      {"802.1X client pair", network, otherFile("server.pem") + otherFile("server.key"), nullptr},
      {"mismatched 802.1X pair", network, otherFile("server.pem") + caFile("server.key"), "does not match"},
  };
  for (const auto& [what, makeParser, contents, refusal] : cases) {
    SCOPED_TRACE(what);
    const std::string destination = "/config/certs/server/WebServer.pem";
    root->write(destination, "installed before");
    root->write("/tmp/offered.pem", contents);
    LogCapture log;
    std::unique_ptr<autoBinParser> parser(makeParser());
    EXPECT_EQ(install(*parser, "offered.pem", destination), refusal ? 0 : 1);
    if (refusal) {
      EXPECT_EQ(root->read(destination), "installed before");
      EXPECT_TRUE(log.contains(refusal)) << log.text();
      continue;
    }
    EXPECT_EQ(root->read(destination), contents);
    struct stat st;
    ASSERT_EQ(stat(root->host(destination).c_str(), &st), 0);
    bool holdsKey = contents.find("PRIVATE KEY") != std::string::npos;
    EXPECT_EQ(st.st_mode & 0777, holdsKey ? 0600u : 0644u);
  }
}

}  // namespace
