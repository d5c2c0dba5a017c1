// What every download stream shares, run over each of them (local files, and tftpd-hpa, vsftpd and
// nginx on loopback): whole files of the sizes where block and buffer edges fall (empty, one short
// of a 512-byte block, exactly one, one over, and past the 16-bit TFTP block number), a missing
// file; and transfers that scripted servers cut short.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <thread>

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
  bool start(const TempRoot& served) { return (root = &served); }
  void put(const std::string& name, const std::string& bytes) { root->write("/srv/" + name, bytes); }
  std::string url(const std::string& name) const { return "/srv/" + name; }
  const char* missingLine = "IFO Open Stream Failed : [path = /srv/none.cfg]";
  const TempRoot* root = nullptr;
};

struct Tftp {
  TftpServer server;
  bool start(const TempRoot&) { return server.start(); }
  void put(const std::string& name, const std::string& bytes) { server.put(name, bytes); }
  std::string url(const std::string& name) const { return "tftp://" + on(server.port()) + name; }
  const char* missingLine = "WAR Repley code = 5";
};

struct Ftp {
  FtpServer server;
  bool start(const TempRoot&) { return server.start(); }
  void put(const std::string& name, const std::string& bytes) { server.put(name, bytes); }
  std::string url(const std::string& name) const { return "ftp://" + on(server.port()) + name; }
  const char* missingLine = "RETR fail";
};

struct Http {
  HttpServer server;
  bool start(const TempRoot&) { return server.start(); }
  void put(const std::string& name, const std::string& bytes) { server.put("files/" + name, bytes); }
  std::string url(const std::string& name) const { return "http://" + on(server.port()) + "files/" + name; }
  const char* missingLine = "HTTP status 404";
};

struct Https : Http {
  TestCa ca{"Provisor Test CA"};
  bool start(const TempRoot& root) {
    bool up = ca.create() && ca.issueServerCertificate("server") && server.start(&ca);
    root.write("/config/certs/trusted/ca.pem", readHostFile(ca.caCertificate()));
    return up;
  }
  std::string url(const std::string& name) const { return "https://" + on(server.tlsPort()) + "files/" + name; }
};

template <class Stream>
class DownloadStreams : public ::testing::Test {};
using Streams = ::testing::Types<LocalFiles, Tftp, Ftp, Http, Https>;
TYPED_TEST_SUITE(DownloadStreams, Streams);

TYPED_TEST(DownloadStreams, FilesOfEveryEdgeSizeArriveWholeAndMissingOnesFail) {
  TempRoot root;
  LogCapture log;
  TypeParam peer;
  ASSERT_TRUE(peer.start(root)) << "the peer did not start";
  for (size_t size : {size_t(0), size_t(511), size_t(512), size_t(513), size_t(512) * 65540 + 100}) {
    std::string name = "f" + std::to_string(size) + ".cfg", bytes = testBytes(size, static_cast<unsigned>(size));
    peer.put(name, bytes);
    fileDownload d;
    EXPECT_EQ(downloadToOut(peer.url(name), d), static_cast<int>(size));
    EXPECT_FALSE(d.LastTransferBroken()) << size;
    EXPECT_TRUE(root.read("/tmp/out") == bytes) << size;
  }
  EXPECT_TRUE(log.contains("IFO Open URL OK"));
  fileDownload d;
  EXPECT_EQ(downloadToOut(peer.url("none.cfg"), d), -1);
  EXPECT_FALSE(d.IsOpen());
  EXPECT_TRUE(log.contains(peer.missingLine)) << log.text();
  EXPECT_TRUE(log.contains("IFO Open URL Fail"));
}

// A scripted server, run on `script`, that ends the file early; returns the URL to fetch.
using CutServer = std::function<std::string(std::thread& script)>;

CutServer ftpCut(const std::string& sizeReply, const std::string& sent, const std::string& finalReply) {
  return [=](std::thread& script) {
    auto control = std::make_shared<TcpPeer>();
    auto data = std::make_shared<TcpPeer>();
    script = std::thread([=] {
      FtpSession s;
      s.fd = control->accept();
      s.preamble(sizeReply, pasvReply(data->port()));
      int dataFd = data->accept();
      s.expect();  // RETR
      s.reply("150 Here\r\n");
      sendText(dataFd, sent);
      close(dataFd);
      if (!finalReply.empty()) s.reply(finalReply);
      close(s.fd);
    });
    return "ftp://" + on(control->port()) + "f";
  };
}

std::string httpBodyCut(std::thread& script) {
  auto server = std::make_shared<TcpPeer>();
  script = std::thread([server] {
    int fd = server->accept();
    readRequest(fd);
    sendText(fd, "HTTP/1.1 200 OK\r\nContent-Length: 10000\r\n\r\n" + std::string(4000, 'h'));
    close(fd);
  });
  return "http://" + on(server->port()) + "cut.cfg";
}

TEST(CutTransfers, AreBreaksAndNeverWholeFiles) {
  const std::pair<CutServer, const char*> cases[] = {
      // The data connection closes after 4000 of 10000 bytes.
      {ftpCut("213 10000\r\n", std::string(4000, 'c'), "226 Done\r\n"),
       "WAR Broken at -6000 bytes : data connection closed early"},
      // Size unknown, and the server reports a failure instead of 226.
      {ftpCut("550 No size\r\n", std::string(300, 'c'), "426 Connection closed; transfer aborted\r\n"),
       "transfer not confirmed [426 Connection closed; transfer aborted]"},
      // The control connection closes without the final reply.
      {ftpCut("213 3\r\n", "abc", ""), "no transfer-complete reply"},
      {httpBodyCut, "WAR Broken at -6000 bytes : "},
  };
  TempRoot root;
  LogCapture log;
  fileDownload d;  // one for all: each transfer's break is its own
  for (const auto& [serve, logged] : cases) {
    std::thread script;
    EXPECT_EQ(downloadToOut(serve(script), d), 0) << logged;
    script.join();
    EXPECT_TRUE(d.LastTransferBroken()) << logged;
    EXPECT_EQ(d.LastErrorCategory() * 100 + d.LastErrorCode(), 610) << logged;
    EXPECT_TRUE(log.contains(logged)) << logged;
  }
  root.write("/srv/ok.cfg", "ok");
  EXPECT_EQ(downloadToOut("/srv/ok.cfg", d), 2);
  EXPECT_FALSE(d.LastTransferBroken()) << "the next transfer starts clean";
}

}  // namespace
