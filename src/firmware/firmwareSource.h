// The service's side of the upgrade library's seam: image sources over the service's own download
// streams, so an image is read by TFTP, FTP, HTTP, HTTPS or from a local file exactly as every other
// fetch is. The library (platform/firmware.h) only sees bytes.
//
// Over HTTP and HTTPS a header check asks for the header bytes alone (a Range request), and a
// transfer cut short is taken up again from where it stopped with a Range request, up to
// kResumeAttempts times: firmware images are tens of megabytes and phones sit on slow links.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "fileStream.h"
#include "firmware.h"

constexpr int kResumeAttempts = 3;
// The running firmware: [version] FIRMWARE_VERSION.
constexpr const char* kFirmwareVersionFile = "/phone/version";

// The opener and what this device accepts, as every call of the upgrade library hands them in: the
// download streams, and the device's family (deviceFamily.h), model name, running firmware version,
// and whether [AutoProvision] bAllowFirmwareDowngrade = 1 lets an older image in.
firmwareServices firmwareStreams();
// What this device accepts.
firmwareDevice currentFirmwareDevice();

// A source over a download the caller already opened (the hand-over to the flashing tool); it reads
// from `download` and, with `resumeUrl` non-empty, resumes a cut HTTP transfer from that URL.
std::unique_ptr<firmwareImageSource> downloadImageSource(ns_net::fileDownload& download, const std::string& resumeUrl);
