// Signed firmware images for the tests, made at test time: an Ed25519 key pair by openssl and the
// image by `autoptool image build`. The device's verifying key is installed under the test root.
#pragma once

#include <string>

#include "servers.h"
#include "testRoot.h"

namespace testing_support {

class FirmwareKit {
 public:
  // Makes the signing key pair and installs its public half as /phone/keys/firmware.pem.
  explicit FirmwareKit(const TempRoot& root);
  bool ready() const { return ready_; }
  // The signing key (PEM, host path).
  std::string signingKey() const { return dir_.file("key.pem"); }
  // An image of `family` around `payload`, signed with the kit's key (or with a second, foreign key).
  std::string image(const std::string& family, const std::string& payload, bool foreignKey = false,
                    const std::string& version = "2.1.0.7", const std::string& models = "QA5,QE5") const;
  // A validly signed image with no payload at all, which `autoptool image build` refuses to make:
  // the header is laid out by Python and signed by openssl.
  std::string emptyImage(const std::string& family, const std::string& version) const;

 private:
  ScratchDir dir_;
  bool ready_ = false;
};

// Byte offsets inside an image header that the refusal tests flip or cut at.
constexpr size_t kImageFamilyOffset = 12;
constexpr size_t kImageSignatureOffset = 300;
constexpr size_t kImageHeaderSize = 340;

}  // namespace testing_support
