// Entry points for the readers of untrusted input: URL texts, configuration files of both models,
// INI text, text-method calls, translation tables, cipher-text files, SIP messages, the web password
// file, XML element-path edits, the firmware image header, FTP control replies, TFTP datagrams, the
// HTTP client's response handling, the DHCP option store and the AutopInfo record. Each takes any
// bytes and must neither crash nor overrun; where a reader promises a round trip or an invariant,
// the target checks it and aborts on a mismatch. The fuzz build (fuzz/) drives them with libFuzzer; the seed files
// under fuzz/seeds/<target>/ run through them as ordinary tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

struct FuzzTarget {
  const char* name;
  void (*run)(const uint8_t* data, size_t size);
};

// Every target, ending with {nullptr, nullptr}.
extern const FuzzTarget kFuzzTargets[];
const FuzzTarget* findFuzzTarget(const std::string& name);

// SIP messages of the plug-and-play discovery (fuzz/sipTargets.cpp).
void fuzzSipMessage(const uint8_t* data, size_t size);
// resourceTargets.cpp: the web password file reader, the XML element-path editor, archive entries.
void fuzzPasswordFile(const uint8_t* data, size_t size);
void fuzzXmlElementPath(const uint8_t* data, size_t size);
void fuzzArchiveEntries(const uint8_t* data, size_t size);
// The firmware image header reader (firmwareTargets.cpp).
void fuzzFirmwareHeader(const uint8_t* data, size_t size);
// netTargets.cpp: FTP control replies, TFTP datagrams, the HTTP client's response handling.
void fuzzFtpReply(const uint8_t* data, size_t size);
void fuzzTftpPacket(const uint8_t* data, size_t size);
void fuzzHttpHeader(const uint8_t* data, size_t size);
// sourceTargets.cpp: the DHCP option store and the AutopInfo record.
void fuzzDhcpOption(const uint8_t* data, size_t size);
void fuzzAutopInfo(const uint8_t* data, size_t size);

// Points the platform root at a private directory of this process (made once, removed at exit).
void fuzzScratchRoot();
