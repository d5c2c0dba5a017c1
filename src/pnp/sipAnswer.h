// The answers of the plug-and-play port to the requests that reach it. Every request but ACK gets
// one, so that a provisioning server never retransmits into the void for half a minute, and each
// answer goes where RFC 3261 (section 18.2.2) and RFC 3581 send a response over UDP:
// - to the address the request came from (the sent-by host, when it names another address or a
//   host name, is what the server would mark "received"; a NOTIFY can therefore never aim the
//   phone's answer at a third host, and "maddr" is not followed);
// - to the port of the top Via's sent-by (5060 when it names none), or to the port the request
//   came from when that Via carries "rport".
// The top Via of the answer carries "received" and the filled-in "rport" as those rules require.
#pragma once

#include <cstdint>
#include <string>

#include "netSocket.h"

class sipMessage;

// One status the port answers with; `extraHeader` is a whole header line without its line end, or
// nullptr.
struct sipStatus {
  int code;
  const char* reason;
  const char* extraHeader;
};

extern const sipStatus kSipOk;
extern const sipStatus kSipBadRequest;        // malformed request, or a NOTIFY without a usable URL
extern const sipStatus kSipMethodNotAllowed;  // any request but NOTIFY (and ACK, never answered)
extern const sipStatus kSipNoSuchDialog;      // a NOTIFY of no subscription this phone has
extern const sipStatus kSipBadEvent;          // a NOTIFY of another event package

// The top Via of a request, as far as answering needs it.
struct sipVia {
  std::string sentProtocol;  // "SIP/2.0/UDP", blanks removed
  std::string host;          // as written; an IPv6 reference without its brackets
  int32_t port = -1;         // -1 when the sent-by names none
  bool rport = false;
};

// Appends "name: value" and a line end.
void sipAppendHeader(std::string& message, const char* name, const std::string& value);

// Reads the first value of a Via header value ("SIP/2.0/UDP host[:port][;params][, more]"); false
// when it is not one.
bool sipParseTopVia(const std::string& viaValue, sipVia& via);

// Where the answer to `request`, received from `from`, goes; false when its Via is unusable.
bool sipAnswerAddress(const sipMessage& request, const ns_net::netAddress& from, ns_net::netAddress& to);

// The whole answer: status line, the request's Via headers (the top one marked for `from`),
// Record-Route, From, To (with a tag of the phone's own when it had none), Call-ID and CSeq as far
// as the request had them, the status's extra header, and an empty body.
std::string sipBuildAnswer(const sipMessage& request, const sipStatus& status, const ns_net::netAddress& from);
