// Certificates and keys. Every file is read with OpenSSL before anything is installed; a file it
// cannot read as what the class expects is refused and the installed one stays. Each parser lives
// for one item, created by the parser factory and deleted by its owner.
//
// autoCertParser (kind "cert" without a known keyword): accepts a file holding at least one X.509
//   certificate (PEM, possibly several, or one DER) and installs it with the atomic copy. A private
//   key may travel with it (it must then match the first certificate).
//
// autoCrtParser ("trusted_cert"): an authority the phone trusts for HTTPS. Installs only files made
//   of certificates, PEM (possibly several) or one DER; a file holding any private key is refused,
//   as a key has no business in the trust store and is a sign of a wrong file. The certificates are
//   written as PEM into the destination (config/certs/trusted/), where the HTTPS client reads every
//   ".pem" and ".crt" file at each transfer, so the very next HTTPS download trusts the authority.
//   A destination whose name ends in neither gets ".pem" appended (the ".MD5" companion keeps the
//   item's own name). Delete: a file removes it with its ".pem" twin and its companion; "dir"
//   empties the directory like "all" but keeps it, as it is where the HTTPS client looks.
//
// autoPemParser ("server_cert"): the web server's certificate with its private key, both PEM in one
//   file. Refused: no certificate, no key, an encrypted key (the phone has no passphrase for it), a
//   key that does not match the first certificate. Installed with mode 0600 as it holds a key.
//   Delete: the installed file and its ".MD5" companion, so the same file provisioned later is
//   installed again.
//
// auto802_1XCrtParser ("802_1X"): the network log-in's certificates. The same keyword brings the
//   root authority (certificates only) and the client's certificate with its key, so a key is
//   optional; when present it must match the first certificate (a mismatched pair is refused) and
//   the file is installed with mode 0600.
#pragma once

#include <string>

#include "binParser.h"

// What a certificate file holds, as OpenSSL reads it.
struct certFileContents {
  int certificates = 0;        // X.509 certificates read
  bool hasPrivateKey = false;  // any PEM private-key block, encrypted or not
  bool keyReadable = false;    // the (first) key was read without a passphrase
  bool keyMatches = false;     // ... and it belongs to the first certificate
  std::string pem;             // the certificates re-encoded as PEM
};

// Reads a file (logical path). False when it cannot be opened or a certificate block is broken.
bool readCertFile(const std::string& path, certFileContents& contents);

class autoCertParser : public autoBinParser {
 public:
  int checkFile() override;
  // Installed as it came; private to the owner when it holds a private key.
  int upgradeFile() override;
};

class autoCrtParser : public autoBinParser {
 public:
  int deleteFile(const std::string& destination, const char* command) override;
  int upgradeFile() override;
};

class autoPemParser : public autoBinParser {
 public:
  int deleteFile(const std::string& destination, const char* command) override;
  int upgradeFile() override;
};

class auto802_1XCrtParser : public autoBinParser {
 public:
  int upgradeFile() override;
};
