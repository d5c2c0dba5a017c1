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

// Opens an HTTP(S) stream on a byte range and hands it to the download. A part other than the one
// asked for would be spliced into the image at the wrong place: the attempt is dropped and the image
// fetched from its start instead, skipping what was already read.
template <class Stream>
bool openRange(ns_net::fileDownload& download, const ns_net::autopUrl& url, int32_t timeoutMs, const std::string& range,
               int64_t skipIfWhole) {
  auto stream = std::make_unique<Stream>();
  stream->SetByteRange(range);
  if (!stream->Open(url.ToText(), timeoutMs < 0 ? ns_net::pipeStream::kDefaultTimeoutMs : timeoutMs)) return false;
  if (!range.empty() && stream->ResponseCode() == 206 && !rangeAnswered(range, stream->ContentRange())) {
    LOG_WAR("Image server sent range [%s] for [%s], fetching from the start",
            logEscaped(stream->ContentRange()).c_str(), range.c_str());
    stream->Close();
    return openRange<Stream>(download, url, timeoutMs, "", skipIfWhole);
  }
  bool whole = stream->ResponseCode() != 206;
  if (!download.Attach(stream.release())) return false;
  // A server that ignores the range sends the image from its start again.
  if (whole && skipIfWhole > 0 && !download.DownloadToNULL(static_cast<int>(skipIfWhole))) {
    download.Close();
    return false;
  }
  return true;
}

bool openFrom(ns_net::fileDownload& download, const ns_net::autopUrl& url, int32_t timeoutMs, const std::string& range,
              int64_t offset) {
  if (url.scheme == "https") return openRange<ns_net::httpsStream>(download, url, timeoutMs, range, offset);
  return openRange<ns_net::httpStream>(download, url, timeoutMs, range, offset);
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
  bool opened = isHttp(url) ? openFrom(source->download(), url, timeoutMs,
                                       headerOnly ? "0-" + std::to_string(kFirmwareHeaderSize - 1) : "", 0)
                            : source->download().OpenDownloadStream(url, timeoutMs);
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

void installFirmwareStreams() {
  firmwareServices services;
  services.open = openImage;
  services.device = currentFirmwareDevice;
  firmwareSetServices(services);
}

std::unique_ptr<firmwareImageSource> downloadImageSource(ns_net::fileDownload& download, const std::string& resumeUrl) {
  ns_net::autopUrl url;
  bool resume = !resumeUrl.empty() && url.Parse(resumeUrl) && url.IsValid();
  return std::make_unique<streamImageSource>(&download, url, resume, -1);
}
