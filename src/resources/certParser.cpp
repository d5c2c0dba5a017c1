#define LOG_MODULE "./src/certParser"
#include "certParser.h"

#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "baseMethod.h"
#include "descriptor.h"
#include "log.h"
#include "paths.h"

namespace {

// A certificate file is small; anything larger is not one.
constexpr int64_t kMaxCertFileBytes = 1024 * 1024;

struct BioFree {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
struct X509Free {
  void operator()(X509* cert) const { X509_free(cert); }
};
struct PkeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct OpensslFree {
  void operator()(void* p) const { OPENSSL_free(p); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;
using X509Ptr = std::unique_ptr<X509, X509Free>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;

// Refuses every passphrase prompt: an encrypted key cannot be used unattended.
int noPassphrase(char*, int, int, void*) { return -1; }

bool isCertificateBlock(const char* name) {
  return strcmp(name, "CERTIFICATE") == 0 || strcmp(name, "X509 CERTIFICATE") == 0 ||
         strcmp(name, "TRUSTED CERTIFICATE") == 0;
}

std::string toPem(X509* cert) {
  BioPtr out(BIO_new(BIO_s_mem()));
  if (!out || PEM_write_bio_X509(out.get(), cert) != 1) return std::string();
  char* data = nullptr;
  long size = BIO_get_mem_data(out.get(), &data);
  return std::string(data, static_cast<size_t>(size));
}

// Walks the PEM blocks; false when a certificate block does not decode.
bool readPemBlocks(const std::string& bytes, certFileContents& contents, X509Ptr& first) {
  BioPtr in(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
  for (;;) {
    char* rawName = nullptr;
    char* rawHeader = nullptr;
    unsigned char* rawData = nullptr;
    long length = 0;
    if (PEM_read_bio(in.get(), &rawName, &rawHeader, &rawData, &length) != 1) break;
    std::unique_ptr<char, OpensslFree> name(rawName), header(rawHeader);
    std::unique_ptr<unsigned char, OpensslFree> data(rawData);
    if (strstr(name.get(), "PRIVATE KEY")) contents.hasPrivateKey = true;
    if (!isCertificateBlock(name.get())) continue;
    const unsigned char* cursor = data.get();
    X509Ptr cert(strcmp(name.get(), "TRUSTED CERTIFICATE") == 0 ? d2i_X509_AUX(nullptr, &cursor, length)
                                                                : d2i_X509(nullptr, &cursor, length));
    if (!cert) return false;
    contents.pem += toPem(cert.get());
    ++contents.certificates;
    if (!first) first = std::move(cert);
  }
  // The walk ends at the first place without another block; anything else is a broken block.
  return ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
}

// One DER certificate filling the whole file.
void readDer(const std::string& bytes, certFileContents& contents) {
  const unsigned char* cursor = reinterpret_cast<const unsigned char*>(bytes.data());
  X509Ptr cert(d2i_X509(nullptr, &cursor, static_cast<long>(bytes.size())));
  if (!cert || cursor != reinterpret_cast<const unsigned char*>(bytes.data()) + bytes.size()) return;
  contents.pem = toPem(cert.get());
  contents.certificates = 1;
}

void readKey(const std::string& bytes, X509* first, certFileContents& contents) {
  BioPtr in(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
  PkeyPtr key(PEM_read_bio_PrivateKey(in.get(), nullptr, &noPassphrase, nullptr));
  contents.keyReadable = key != nullptr;
  contents.keyMatches = key && first && X509_check_private_key(first, key.get()) == 1;
}

bool hasSuffix(const std::string& text, const char* suffix) {
  size_t n = strlen(suffix);
  return text.size() >= n && text.compare(text.size() - n, n, suffix) == 0;
}

// Atomic write of the installed file (temporary beside it, fsync, rename), with the mode a file
// holding a private key needs.
int writeInstalled(const std::string& destination, const std::string& bytes, mode_t mode) {
  std::string parent;
  if (dirName(destination.c_str(), parent) == 0 && !parent.empty() && makeDirs(parent.c_str()) != 0) return 0;
  std::string target = hostPath(destination);
  // Created exclusively and never through a link, like every other installed file's temporary.
  std::string temporary;
  UniqueFd fd(createAtomicTemporary(destination, temporary));
  if (fd.get() < 0 || fchmod(fd.get(), mode) != 0) {
    LOG_ERR("Can't write [%s] : %s", destination.c_str(), strerror(errno));
    if (fd.get() >= 0) unlink(temporary.c_str());
    return 0;
  }
  if (!writeAll(fd.get(), bytes.data(), bytes.size()) || fsync(fd.get()) != 0 ||
      rename(temporary.c_str(), target.c_str()) != 0) {
    LOG_ERR("Can't write [%s] : %s", destination.c_str(), strerror(errno));
    unlink(temporary.c_str());
    return 0;
  }
  if (FilePtr dir = openFile(parent.empty() ? "/" : parent, "r")) fsync(fileno(dir.get()));
  return 1;
}

// Reads the source, logging why it is refused; nullptr-like false when it is not a certificate file.
bool readSource(const std::string& source, certFileContents& contents) {
  if (!readCertFile(source, contents) || contents.certificates == 0) {
    LOG_ERR("[%s] is not a certificate file !", source.c_str());
    return false;
  }
  return true;
}

// A certificate with an optional (or required) key: the key must be readable and match.
bool checkKeyPair(const certFileContents& contents, bool keyRequired) {
  if (!contents.hasPrivateKey) {
    if (keyRequired) LOG_ERR("The certificate file holds no private key !");
    return !keyRequired;
  }
  if (!contents.keyReadable) {
    LOG_ERR("The private key can't be read (encrypted or broken) !");
    return false;
  }
  if (!contents.keyMatches) {
    LOG_ERR("The private key does not match the certificate !");
    return false;
  }
  return true;
}

int installKeyPair(const std::string& source, const std::string& destination, bool keyRequired) {
  certFileContents contents;
  if (!readSource(source, contents) || !checkKeyPair(contents, keyRequired)) return 0;
  std::string bytes;
  if (!readTextFile(source, bytes)) return 0;
  return writeInstalled(destination, bytes, contents.hasPrivateKey ? 0600 : 0644);
}

// The name the HTTPS client reads a trusted authority under.
std::string trustedName(const std::string& destination) {
  return hasSuffix(destination, ".pem") || hasSuffix(destination, ".crt") ? destination : destination + ".pem";
}

}  // namespace

bool readCertFile(const std::string& path, certFileContents& contents) {
  contents = certFileContents();
  int64_t size = fileSize(path.c_str());
  std::string bytes;
  if (size <= 0 || size > kMaxCertFileBytes || !readTextFile(path, bytes)) return false;
  X509Ptr first;
  ERR_clear_error();
  bool pemIntact = readPemBlocks(bytes, contents, first);
  if (pemIntact && contents.certificates == 0 && !contents.hasPrivateKey) readDer(bytes, contents);
  if (contents.hasPrivateKey) readKey(bytes, first.get(), contents);
  ERR_clear_error();
  return pemIntact;
}

int autoCertParser::checkFile() {
  if (!checkSpace()) return 0;
  certFileContents contents;
  return readSource(m_srcPath, contents) && checkKeyPair(contents, false) ? 1 : 0;
}

int autoCertParser::upgradeFile() {
  certFileContents contents;
  std::string bytes;
  if (!readCertFile(m_srcPath, contents) || !readTextFile(m_srcPath, bytes)) {
    LOG_ERR("[%s] is not a certificate file !", m_srcPath.c_str());
    return 0;
  }
  return writeInstalled(m_destPath, bytes, contents.hasPrivateKey ? 0600 : 0644);
}

int autoCrtParser::upgradeFile() {
  certFileContents contents;
  bool readable = readCertFile(m_srcPath, contents);
  if (contents.hasPrivateKey) {
    LOG_ERR("A trusted certificate must not hold a private key [%s] !", m_srcPath.c_str());
    return 0;
  }
  if (!readable || contents.certificates == 0) {
    LOG_ERR("[%s] is not a certificate file !", m_srcPath.c_str());
    return 0;
  }
  std::string target = trustedName(m_destPath);
  LOG_DEB("---- autop install trusted certificate [%s] to %s", m_srcPath.c_str(), target.c_str());
  return writeInstalled(target, contents.pem, 0644);
}

int autoCrtParser::deleteFile(const std::string& destination, const char* command) {
  std::string fileName;
  int32_t type = command && pathIsDirectory(destination) ? parseDeleteCommand(command, &fileName) : kDeleteInvalid;
  // The trusted directory is where the HTTPS client looks: "dir" empties it but keeps it.
  if (type == kDeleteDir) return autoBinParser::deleteFile(destination, "http://localhost/all");
  int result = autoBinParser::deleteFile(destination, command);
  // An authority installed under its name plus ".pem" goes with the name the server knows.
  if (type == kDeleteFile && fileName.find('/') == std::string::npos && fileName != "..") {
    std::string named = pathAppend(destination, fileName);
    std::string twin = trustedName(named);
    if (twin != named && remove(hostPath(twin).c_str()) == 0) {
      remove(hostPath(named + ".MD5").c_str());
      result = 1;
    }
  }
  return result;
}

int autoPemParser::upgradeFile() { return installKeyPair(m_srcPath, m_destPath, true); }

int autoPemParser::deleteFile(const std::string& destination, const char* command) {
  int result = autoBinParser::deleteFile(destination, command);
  // The installed file is gone: so is the record of it, or the same file would never return.
  if (result && !pathIsDirectory(destination)) remove(hostPath(destination + ".MD5").c_str());
  return result;
}

int auto802_1XCrtParser::upgradeFile() { return installKeyPair(m_srcPath, m_destPath, false); }
