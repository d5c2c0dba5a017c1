// fileDownload over local files: open rules, argument checks, reads, skipping, saving and appending.
// What a break leaves behind is seen with the cut transfers of every stream.
#include <gtest/gtest.h>

#include "fileStream.h"
#include "testRoot.h"

using ns_net::autopUrl;
using ns_net::fileDownload;

namespace {

autopUrl url(const std::string& text) {
  autopUrl parsed;
  parsed.Parse(text);
  return parsed;
}

TEST(FileDownload, LocalFilesOpenOnceAndArgumentsAreChecked) {
  testing_support::TempRoot root;
  testing_support::LogCapture log;
  fileDownload d;
  char head[100];
  EXPECT_FALSE(d.OpenDownloadStream(url("gopher://127.0.0.1/x"), -1));
  root.write("/config/sub/x.cfg", "x");
  EXPECT_FALSE(d.OpenDownloadStream(url("/config/sub"), -1)) << "a directory is not a file";

  root.write("/config/in.cfg", std::string(10000, 'L'));
  ASSERT_TRUE(d.OpenDownloadStream(url("/config/in.cfg"), -1));
  EXPECT_EQ(d.UrlText(), "/config/in.cfg");  // a local file keeps its path form
  ns_net::pipeStream* first = d.CurrentStream();
  EXPECT_FALSE(d.OpenDownloadStream(url("/config/in.cfg"), -1));
  ns_net::localStream spare;
  EXPECT_FALSE(d.Attach(&spare)) << "a second stream is refused and stays the caller's";
  EXPECT_EQ(d.CurrentStream(), first) << "the first stream stays";
  EXPECT_EQ(d.DownloadToFile("/nodir/deeper/out", false), 0);
  EXPECT_TRUE(log.contains("ERR File [/nodir/deeper/out] can't be opened !"));

  EXPECT_EQ(d.Read(head, 100), 100);
  EXPECT_TRUE(d.DownloadToNULL(900));
  root.write("/tmp/rest.cfg", "ab");
  EXPECT_EQ(d.DownloadToFile("/tmp/rest.cfg", true), 9000);
  EXPECT_EQ(root.read("/tmp/rest.cfg"), "ab" + std::string(9000, 'L'));
  EXPECT_EQ(d.ByteCount(), 10000);
  d.Close();
  // The next transfer on the same object counts from zero.
  ASSERT_TRUE(d.OpenDownloadStream(url("/tmp/rest.cfg"), -1));
  EXPECT_TRUE(d.DownloadToNULL(9002));
  EXPECT_EQ(d.ByteCount(), 9002);
}

}  // namespace
