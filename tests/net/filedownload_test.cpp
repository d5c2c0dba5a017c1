// fileDownload over local files and over a stream made for the test: open rules, reads, bounded
// and unbounded saves, skipping, and what a broken transfer leaves behind.
#include <gtest/gtest.h>

#include "fileStream.h"
#include "testRoot.h"

using ns_net::autopUrl;
using ns_net::fileDownload;
using ns_net::pipeStream;

namespace {

// Hands out `total` bytes of 'd', then ends, broken when asked to be.
class ScriptedStream : public pipeStream {
 public:
  ScriptedStream(int total, bool breaks, int64_t missing = -1) : left_(total), breaks_(breaks), missing_(missing) {}
  int Read(void* buffer, int elementSize, int count) override {
    int n = std::min(left_, elementSize * count) / elementSize;
    memset(buffer, 'd', static_cast<size_t>(n * elementSize));
    left_ -= n * elementSize;
    if (n == 0 && breaks_) MarkBroken(missing_, "peer went away");
    return n;
  }
  void Close() override { closed_ = true; }
  bool closed_ = false;

 private:
  int left_;
  bool breaks_;
  int64_t missing_;
};

class FileDownloadTest : public testing_support::RootedTest {
 protected:
  autopUrl url(const std::string& text) {
    autopUrl parsed;
    parsed.Parse(text);
    return parsed;
  }
  testing_support::LogCapture log;
};

TEST_F(FileDownloadTest, LocalFilesOpenOnceAndArgumentsAreChecked) {
  fileDownload d;
  char head[100];
  EXPECT_EQ(d.Read(head, 4), 0);
  EXPECT_TRUE(log.contains("m_pCurrentStream != NULL"));
  EXPECT_TRUE(d.DownloadToNULL(0));
  EXPECT_FALSE(d.DownloadToNULL(-1));
  EXPECT_FALSE(d.OpenDownloadStream(url("gopher://127.0.0.1/x"), -1));
  root->write("/config/sub/x.cfg", "x");
  EXPECT_FALSE(d.OpenDownloadStream(url("/config/sub"), -1)) << "a directory is not a file";

  root->write("/config/in.cfg", std::string(10000, 'L'));
  ASSERT_TRUE(d.OpenDownloadStream(url("/config/in.cfg"), -1));
  EXPECT_TRUE(log.contains("IFO fileDownload::OpenDownloadStream[127.0.0.1][/config/in.cfg]"));
  EXPECT_EQ(d.UrlText(), "/config/in.cfg");  // a local file keeps its path form
  pipeStream* first = d.CurrentStream();
  EXPECT_FALSE(d.OpenDownloadStream(url("/config/in.cfg"), -1));
  EXPECT_TRUE(log.contains("ERR The fileDownload stream has been openned !"));
  EXPECT_EQ(d.CurrentStream(), first) << "the first stream stays";
  EXPECT_EQ(d.Read(nullptr, 4), 0);
  EXPECT_TRUE(log.contains("pBuffer != NULL && nBytes > 0"));
  EXPECT_EQ(d.DownloadToFile("/nodir/deeper/out", false), 0);
  EXPECT_TRUE(log.contains("ERR File [/nodir/deeper/out] can't be opened !"));

  EXPECT_EQ(d.Read(head, 100), 100);
  EXPECT_TRUE(d.DownloadToNULL(900));
  EXPECT_EQ(d.DownloadToFile("/tmp/rest.cfg", false), 9000);
  EXPECT_EQ(root->read("/tmp/rest.cfg"), std::string(9000, 'L'));
  EXPECT_EQ(d.ByteCount(), 10000);
  d.Close();
  EXPECT_EQ(d.UrlText(), "");
  EXPECT_FALSE(d.IsOpen());
}

TEST_F(FileDownloadTest, ShortSavesAndBreaksAreThatTransfersOwn) {
  fileDownload d;
  ASSERT_TRUE(d.Attach(new ScriptedStream(6000, false)));
  ScriptedStream spare(1, false);
  EXPECT_FALSE(d.Attach(&spare)) << "a second stream is refused and stays the caller's";
  EXPECT_FALSE(d.DownloadToFile("/tmp/part", 10000, false));
  EXPECT_TRUE(log.contains("WAR Broken at -4000 bytes : "));
  EXPECT_EQ(d.LastErrorCategory() * 100 + d.LastErrorCode(), 610);
  EXPECT_EQ(root->read("/tmp/part").size(), 6000u) << "the part stays for the caller to judge";
  d.Close();

  ASSERT_TRUE(d.Attach(new ScriptedStream(5000, true, 3000)));
  EXPECT_EQ(d.DownloadToFile("/tmp/cut", false), 0);
  EXPECT_TRUE(log.contains("WAR Broken at -3000 bytes : peer went away"));
  d.Close();
  EXPECT_TRUE(d.LastTransferBroken()) << "the mark outlives the close";

  // The next transfer starts clean; appending, and detaching a stream hands it back unclosed.
  auto* whole = new ScriptedStream(10, false);
  ASSERT_TRUE(d.Attach(whole));
  EXPECT_FALSE(d.LastTransferBroken());
  root->write("/tmp/grow", "ab");
  EXPECT_EQ(d.DownloadToFile("/tmp/grow", true), 10);
  EXPECT_EQ(root->read("/tmp/grow"), "ab" + std::string(10, 'd'));
  EXPECT_FALSE(d.LastTransferBroken());
  pipeStream* back = d.Detach();
  EXPECT_EQ(back, whole);
  EXPECT_FALSE(whole->closed_);
  delete back;
  EXPECT_EQ(d.Detach(), nullptr);
}

}  // namespace
