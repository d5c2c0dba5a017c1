// autoptool fetch URL FILE: one download through the service's own transports, the first check
// that a phone can reach a provisioning server. FILE is a path of this machine, written as given.
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "autopUrl.h"
#include "autoptool.h"
#include "fileStream.h"
#include "redact.h"

namespace {

// Reasons may quote the URL, password included.
int fail(const std::string& reason) {
  fprintf(stderr, "fetch failed: %s\n", urlForLog(reason).c_str());
  return 1;
}

}  // namespace

int autoptoolFetch(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: autoptool fetch URL FILE\n");
    return 1;
  }
  ns_net::autopUrl url;
  if (!url.Parse(argv[0]) || !url.IsValid()) return fail("invalid URL");

  auto start = std::chrono::steady_clock::now();
  ns_net::fileDownload download;
  if (!download.OpenDownloadStream(url, -1)) return fail("cannot open " + url.LogText());

  FILE* out = fopen(argv[1], "wb");
  if (!out) return fail(std::string("cannot write ") + argv[1]);
  std::vector<char> buffer(64 * 1024);
  long long total = 0;
  bool writeError = false;
  int n;
  while ((n = download.Read(buffer.data(), static_cast<int>(buffer.size()))) > 0) {
    if (fwrite(buffer.data(), 1, static_cast<size_t>(n), out) != static_cast<size_t>(n)) {
      writeError = true;
      break;
    }
    total += n;
  }
  if (fclose(out) != 0) writeError = true;
  bool broken = download.LastTransferBroken();
  std::string reason = download.CurrentStream() ? download.CurrentStream()->BrokenReason() : "";
  download.Close();
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  if (writeError) return fail(std::string("cannot write ") + argv[1]);
  if (broken) return fail("transfer broken after " + std::to_string(total) + " bytes: " + reason);
  printf("%lld bytes in %.3f s\n", total, seconds);
  return 0;
}
