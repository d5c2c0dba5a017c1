#define LOG_MODULE "./fuzz"
#include <cstdlib>
#include <string>

#include "fuzzTargets.h"
#include "sipHelper.h"
#include "sipMessage.h"

namespace {

void require(bool condition) {
  if (!condition) abort();
}

// What the parser took, written back in its plain form: full header names, one line each.
std::string rebuild(const sipMessage& message) {
  std::string text = message.isRequest()
                         ? message.method() + " " + message.requestUri() + " SIP/2.0\r\n"
                         : "SIP/2.0 " + std::to_string(message.statusCode()) + " " + message.reason() + "\r\n";
  for (const sipHeader& header : message.headers()) text += header.name + ": " + header.value + "\r\n";
  return text + "\r\n" + message.body();
}

}  // namespace

void fuzzSipMessage(const uint8_t* data, size_t size) {
  sipMessage message;
  if (!message.Parse(reinterpret_cast<const char*>(data), size)) {
    require(message.headers().empty() && message.body().empty());
    return;
  }
  require(message.body().size() <= size);
  require(message.Find("Call-ID") && message.Find("CSeq") && message.cseqNumber() < 0x80000000u);
  // A message the parser accepted reads back the same from its plain form.
  const std::string plain = rebuild(message);
  sipMessage again;
  require(again.Parse(plain.data(), plain.size()));
  require(rebuild(again) == plain);
  if (pnpIsAcceptableUrl(message.body())) require(message.body().size() <= 355);
}
