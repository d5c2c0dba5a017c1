// What every download stream shares, run over each of them (local files, and tftpd-hpa, vsftpd and
// nginx on loopback): whole files of the sizes where block and buffer edges fall (empty, one short
// of a 512-byte block, exactly one, one over, and past the 16-bit TFTP block number), a missing
// file. Transfers cut short need a scripted server each: they are with each protocol's own cases.
#include <gtest/gtest.h>

#include "fileStream.h"
#include "netPeers.h"
#include "servers.h"
#include "testRoot.h"

using namespace net_test;
using namespace testing_support;
using ns_net::fileDownload;

namespace {

std::string on(int port) { return "127.0.0.1:" + std::to_string(port) + "/"; }

// One peer per stream, started for a test's root: `put` serves a file, `url` names it.
struct LocalFiles {
  static constexpr const char* kProgram = "/bin/sh";  // no peer program: always there
  bool start(const TempRoot& served) { return (root = &served); }
  void put(const std::string& name, const std::string& bytes) { root->write("/srv/" + name, bytes); }
  std::string url(const std::string& name) const { return "/srv/" + name; }
  const char* missingLine = "IFO Open Stream Failed : [path = /srv/none.cfg]";
  const TempRoot* root = nullptr;
};

struct Tftp : TftpServer {
  bool start(const TempRoot&) { return TftpServer::start(); }
  std::string url(const std::string& name) const { return "tftp://" + on(port()) + name; }
  const char* missingLine = "WAR Repley code = 5";
};

struct Ftp : FtpServer {
  bool start(const TempRoot&) { return FtpServer::start(); }
  std::string url(const std::string& name) const { return "ftp://" + on(port()) + name; }
  const char* missingLine = "RETR fail";
};

struct Http : HttpServer {
  bool start(const TempRoot&) { return HttpServer::start(); }
  std::string url(const std::string& name) const { return "http://" + on(port()) + name; }
  const char* missingLine = "HTTP status 404";
};

struct Https : Http {
  TestCa ca{"Provisor Test CA"};
  bool start(const TempRoot& root) {
    bool up = ca.create() && ca.issueServerCertificate("server") && HttpServer::start(&ca);
    root.write("/config/certs/trusted/ca.pem", readHostFile(ca.caCertificate()));
    return up;
  }
  std::string url(const std::string& name) const { return "https://" + on(tlsPort()) + name; }
};

template <class Stream>
class DownloadStreams : public ::testing::Test {};
using Streams = ::testing::Types<LocalFiles, Tftp, Ftp, Http, Https>;
TYPED_TEST_SUITE(DownloadStreams, Streams);

TYPED_TEST(DownloadStreams, FilesOfEveryEdgeSizeArriveWholeAndMissingOnesFail) {
  TempRoot root;
  LogCapture log;
  TypeParam peer;
  START_PEER(peer, root);
  for (size_t size : {size_t(0), size_t(511), size_t(512), size_t(513), size_t(512) * 65540 + 100}) {
    std::string name = "f" + std::to_string(size) + ".cfg", bytes = testBytes(size, static_cast<unsigned>(size));
    peer.put(name, bytes);
    fileDownload d;
    EXPECT_EQ(downloadToOut(peer.url(name), d), static_cast<int>(size));
    EXPECT_TRUE(root.read("/tmp/out") == bytes) << size;
  }
  fileDownload d;
  EXPECT_EQ(downloadToOut(peer.url("none.cfg"), d), -1);
  EXPECT_TRUE(log.contains(peer.missingLine)) << log.text();
}

}  // namespace
