// The TFTP client against tftpd-hpa on loopback.
#include <gtest/gtest.h>

#include "fileStream.h"
#include "servers.h"
#include "testRoot.h"

using ns_net::autopUrl;
using ns_net::fileDownload;
using testing_support::LogCapture;
using testing_support::TempRoot;
using testing_support::testBytes;
using testing_support::TftpServer;

namespace {

class TftpServerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    server = new TftpServer;
    ASSERT_TRUE(server->start()) << "tftpd-hpa did not start";
  }
  static void TearDownTestSuite() {
    delete server;
    server = nullptr;
  }
  void SetUp() override { root = std::make_unique<TempRoot>(); }

  std::string url(const std::string& name) const {
    return "tftp://127.0.0.1:" + std::to_string(server->port()) + "/" + name;
  }
  // The file fetched as the service does it; "" with ok false when the download failed.
  std::string fetch(const std::string& name, bool& ok, fileDownload& d) {
    autopUrl u;
    EXPECT_TRUE(u.Parse(url(name)));
    ok = d.OpenDownloadStream(u, -1);
    if (!ok) return "";
    int n = d.DownloadToFile("/tmp/fetched", false);
    std::string contents = root->read("/tmp/fetched");
    ok = !d.LastTransferBroken() && n == static_cast<int>(contents.size());
    d.Close();
    return contents;
  }

  static TftpServer* server;
  std::unique_ptr<TempRoot> root;
};

TftpServer* TftpServerTest::server = nullptr;

TEST_F(TftpServerTest, SmallExactMultipleAndEmptyFilesArriveWhole) {
  for (size_t size : {size_t(1), size_t(700), size_t(512), size_t(4096), size_t(0)}) {
    std::string name = "f" + std::to_string(size) + ".cfg";
    std::string bytes = testBytes(size, static_cast<unsigned>(size));
    server->put(name, bytes);
    bool ok = false;
    fileDownload d;
    EXPECT_TRUE(fetch(name, ok, d) == bytes) << size;
    EXPECT_TRUE(ok) << size;
  }
}

TEST_F(TftpServerTest, MissingFileFailsTheOpen) {
  LogCapture log;
  bool ok = true;
  fileDownload d;
  fetch("nothing-here.cfg", ok, d);
  EXPECT_FALSE(ok);
  EXPECT_TRUE(log.contains("Repley code = 5"));
  EXPECT_TRUE(log.contains("Open URL Fail"));
  EXPECT_FALSE(d.IsOpen());
}

TEST_F(TftpServerTest, FileBeyondTheBlockNumberWrapArrivesWhole) {
  // 65,540 blocks: the block number runs past 65,535 to 0 and on.
  std::string bytes = testBytes(512u * 65540u + 100u, 7);
  server->put("big.rom", bytes);
  bool ok = false;
  fileDownload d;
  std::string got = fetch("big.rom", ok, d);
  EXPECT_TRUE(ok);
  EXPECT_EQ(got.size(), bytes.size());
  EXPECT_TRUE(got == bytes);
}

}  // namespace
