// AutopInfo: the fixed-layout record other applications send with the update-configuration message
// (AP_MSG_UPDATE_CONFIG, wParam 2, lParam 0). Texts are zero-terminated within their fields.
#pragma once

#include <cstddef>
#include <cstring>
#include <string>

struct AutopInfo {
  char userName[100];
  char password[100];  // may be in the platform's encrypted value form
  char url[356];
  char comAesKey[32];  // AES key of the common file
  char macAesKey[32];  // AES key of the per-device file
};
static_assert(sizeof(AutopInfo) == 620, "AutopInfo is a wire record: its layout is fixed");
static_assert(offsetof(AutopInfo, comAesKey) == 556 && offsetof(AutopInfo, macAesKey) == 588,
              "AutopInfo field offsets are fixed");

// The record from the bytes a message carried: at most its own size is read, and whatever the
// sender left out stays zero, so every text ends inside its field.
inline AutopInfo autopInfoFromBytes(const void* bytes, size_t size) {
  AutopInfo info;
  memset(&info, 0, sizeof(info));
  if (bytes) memcpy(&info, bytes, size < sizeof(info) ? size : sizeof(info));
  return info;
}

// A field's text, never reading past the field even when its terminating zero is missing.
template <size_t N>
inline std::string autopInfoText(const char (&field)[N]) {
  return std::string(field, strnlen(field, N));
}
