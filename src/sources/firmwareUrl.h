// A firmware image named by a TR-069 request. The service does not flash it: it checks the image's
// header at the server and, when it is good, leaves the URL and the safe boot mode in the boot
// loader's environment; the phone then starts in safe mode and installs the image from that URL.
//
// Request file: "/tmp/<mac>.cfg" when UseTr069MacCfg (section TR069Update of
// /config/system/system.ini) is non-zero, else "/tmp/tr069_<mac>.cfg"; section "firmware" with
// "http_url" and "firmware_name" (only a ".rom" name, in any case, takes this path).
//
// On success it broadcasts the reboot request 0x10201 (0, 1); in every case it posts 0xB1001 with
// the success flag in wParam. The caller reboots on success (RebootNow).
#pragma once

#include <cstdint>
#include <string>

constexpr uint32_t kMsgSafeModeRebootRequest = 0x10201;
constexpr uint32_t kMsgTr069RomResult = 0xB1001;

// The request file of this device (logical path).
std::string tr069RequestFile();
// 1 when the boot loader was switched to safe mode with the image's URL, else 0.
int tr069DownloadRom();
