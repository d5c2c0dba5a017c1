// Fuzz entry for the firmware image header reader: any bytes, read as a header, must either be
// refused or decode into fields within their limits that encode back into the same bytes.
#include <cstdlib>
#include <cstring>

#include "firmware.h"
#include "fuzzTargets.h"

void fuzzFirmwareHeader(const uint8_t* data, size_t size) {
  firmwareHeader header;
  int status = firmwareParseHeader(data, size, &header);
  if (status == FW_OK) {
    if (size < kFirmwareHeaderSize || header.payloadLength > kFirmwarePayloadMax || header.family.empty()) abort();
    // Padding after a text's zero is not kept, so compare the decoded record, not the raw bytes.
    std::string again = firmwareEncodeHeader(header);
    firmwareHeader second;
    if (again.size() != kFirmwareHeaderSize ||
        firmwareParseHeader(reinterpret_cast<const uint8_t*>(again.data()), again.size(), &second) != FW_OK ||
        second.family != header.family || second.models != header.models || second.version != header.version ||
        second.payloadLength != header.payloadLength || memcmp(second.digest, header.digest, kFirmwareDigestSize) != 0)
      abort();
  } else if (status >= 0 || !firmware_GetStatusName(status)) {
    abort();
  }
  // A signature check on whatever came must refuse cleanly without a key.
  firmwareDevice lyra{"lyra", "QA5", "", false};
  if (firmwareCheckHeader(data, size, &lyra, "/nonexistent/firmware.pem", nullptr) == FW_OK) abort();
}
