#include "firmwareImages.h"
#include "launcher.h"

namespace testing_support {

FirmwareKit::FirmwareKit(const TempRoot& root) : dir_("fwkit") {
  ready_ = runCommand("cd '" + dir_.path() +
                      "' && openssl genpkey -algorithm ed25519 -out key.pem && openssl pkey -in key.pem -pubout "
                      "-out pub.pem && openssl genpkey -algorithm ed25519 -out foreign.pem") == 0;
  root.write("/phone/keys/firmware.pem", readHostFile(dir_.file("pub.pem")));
}

std::string FirmwareKit::image(const std::string& family, const std::string& payload, bool foreignKey,
                               const std::string& version, const std::string& models) const {
  dir_.write("payload.bin", payload);
  std::string key = dir_.file(foreignKey ? "foreign.pem" : "key.pem");
  std::string out;
  if (runCommand(programCommand("autoptool") + " image build --key '" + key + "' --family " + family + " --models '" +
                     models + "' --version '" + version + "' '" + dir_.file("payload.bin") + "' '" +
                     dir_.file("image.rom") + "'",
                 &out) != 0) {
    ADD_FAILURE() << "image build failed: " << out;
    return "";
  }
  return readHostFile(dir_.file("image.rom"));
}

std::string FirmwareKit::emptyImage(const std::string& family, const std::string& version) const {
  dir_.write("empty.py",
             "import hashlib, struct, sys\n"
             "def text(value, size):\n"
             "    return value.encode().ljust(size, b'\\0')\n"
             "head = b'PVFWIMG\\0' + struct.pack('>HH', 1, 340) + text(sys.argv[1], 32) + text('QA5,QE5', 128)\n"
             "head += text(sys.argv[2], 64) + struct.pack('>Q', 0) + hashlib.sha256(b'').digest()\n"
             "open(sys.argv[3], 'wb').write(head)\n");
  std::string out;
  if (runCommand("cd '" + dir_.path() + "' && python3 empty.py '" + family + "' '" + version +
                     "' signed.bin && openssl pkeyutl -sign -rawin -inkey key.pem -in signed.bin -out signature.bin",
                 &out) != 0) {
    ADD_FAILURE() << "empty image failed: " << out;
    return "";
  }
  return readHostFile(dir_.file("signed.bin")) + readHostFile(dir_.file("signature.bin"));
}

}  // namespace testing_support
