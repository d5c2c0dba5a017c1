#define LOG_MODULE "./src/romInstaller"
#include "firmwareSource.h"

#include "autoDefine.h"
#include "autopSettings.h"
#include "deviceFamily.h"
#include "log.h"
#include "registry.h"

namespace {

bool isHttp(const ns_net::autopUrl& url) { return url.scheme == "http" || url.scheme == "https"; }

// Whether a 206 answer's Content-Range ("bytes FIRST-LAST/TOTAL") starts where `asked` ("FIRST-" or
// "FIRST-LAST") does.
bool rangeAnswered(const std::string& asked, const std::string& contentRange) {
  return contentRange.rfind("bytes " + asked.substr(0, asked.find('-')) + "-", 0) == 0;
}

// Opens the image, from `range` when given, through the download's own choice of stream. A part
// other than the one asked for would be spliced into the image at the wrong place: the attempt is
// dropped and the image fetched from its start instead, skipping what was already read; so is a
// whole answer (a server that ignores ranges, or a transport without them).
bool openFrom(ns_net::fileDownload& download, const ns_net::autopUrl& url, int32_t timeoutMs, const std::string& range,
              int64_t skipIfWhole) {
  if (!download.OpenDownloadStream(url, timeoutMs, range)) return false;
  const ns_net::pipeStream& stream = *download.CurrentStream();
  if (!range.empty() && stream.IsPartAnswer() && !rangeAnswered(range, stream.PartAnswered())) {
    LOG_WAR("Image server sent range [%s] for [%s], fetching from the start", logEscaped(stream.PartAnswered()).c_str(),
            range.c_str());
    download.Close();
    return openFrom(download, url, timeoutMs, "", skipIfWhole);
  }
  if (!stream.IsPartAnswer() && skipIfWhole > 0 && !download.DownloadToNULL(static_cast<int>(skipIfWhole))) {
    download.Close();
    return false;
  }
  return true;
}

class streamImageSource : public firmwareImageSource {
 public:
  // `owned` is used when the source opens its own download; otherwise it reads the caller's.
  streamImageSource(ns_net::fileDownload* borrowed, const ns_net::autopUrl& url, bool resume, int32_t timeoutMs)
      : m_download(borrowed ? borrowed : &m_owned),
        m_url(url),
        m_resume(resume && isHttp(url)),
        m_timeoutMs(timeoutMs) {}

  ns_net::fileDownload& download() { return *m_download; }

  int Read(void* buffer, int n) override {
    auto* out = static_cast<uint8_t*>(buffer);
    int got = 0;
    while (got < n) {
      int r = m_download->IsOpen() ? m_download->Read(out + got, n - got) : 0;
      got += r;
      m_offset += r;
      if (got == n || !resumeAfterBreak(r == 0)) break;
    }
    return got;
  }

  void SetExpectedSize(uint64_t bytes) override { m_expected = static_cast<int64_t>(bytes); }

 private:
  // A transfer that broke, or one that ended (`ended`) before the signed length although it looked
  // whole (a close-delimited answer without Content-Length), is taken up again where it stopped.
  bool resumeAfterBreak(bool ended) {
    ns_net::pipeStream* stream = m_download->CurrentStream();
    if (!m_resume || !stream || m_attempts >= kResumeAttempts) return false;
    bool broken = stream->IsBroken();
    if (!broken && !(ended && m_expected > 0 && m_offset < m_expected)) return false;
    ++m_attempts;
    LOG_WAR("Image transfer broken at %lld bytes, resume %d : %s", static_cast<long long>(m_offset), m_attempts,
            broken ? stream->BrokenReason().c_str() : "ended before the signed length");
    m_download->Close();
    return openFrom(*m_download, m_url, m_timeoutMs, std::to_string(m_offset) + "-", m_offset);
  }

  ns_net::fileDownload m_owned;
  ns_net::fileDownload* m_download;
  ns_net::autopUrl m_url;
  bool m_resume;
  int32_t m_timeoutMs;
  int64_t m_offset = 0;
  int64_t m_expected = 0;  // the whole image's length, once its header told it
  int m_attempts = 0;
};

std::unique_ptr<firmwareImageSource> openImage(const std::string& urlText, int32_t timeoutMs, bool headerOnly,
                                               bool resume, int* status) {
  ns_net::autopUrl url;
  if (!url.Parse(urlText) || !url.IsValid()) {
    if (status) *status = FW_ERR_BAD_URL;
    return nullptr;
  }
  auto source = std::make_unique<streamImageSource>(nullptr, url, resume, timeoutMs);
  bool opened =
      openFrom(source->download(), url, timeoutMs, headerOnly ? "0-" + std::to_string(kFirmwareHeaderSize - 1) : "", 0);
  if (!opened) {
    if (status) *status = FW_ERR_OPEN;
    return nullptr;
  }
  return source;
}

}  // namespace

firmwareDevice currentFirmwareDevice() {
  firmwareDevice device;
  device.family = deviceFamily();
  char model[kModelNameSize] = {};
  if (getModelName(model) == 0) device.model = model;
  device.runningVersion = brisaGetProfileString(kFirmwareVersionFile, "version", "FIRMWARE_VERSION", "");
  device.allowDowngrade =
      brisaGetProfileInt(kSystemIni, kAutoProvisionSection, autop_key::kAllowFirmwareDowngrade, 0) == 1;
  return device;
}

firmwareServices firmwareStreams() {
  firmwareServices services;
  services.open = openImage;
  services.device = currentFirmwareDevice;
  return services;
}

std::unique_ptr<firmwareImageSource> downloadImageSource(ns_net::fileDownload& download, const std::string& resumeUrl) {
  ns_net::autopUrl url;
  bool resume = !resumeUrl.empty() && url.Parse(resumeUrl) && url.IsValid();
  return std::make_unique<streamImageSource>(&download, url, resume, -1);
}
