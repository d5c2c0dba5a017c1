#include "firmwareImages.h"
#include "launcher.h"

namespace testing_support {

FirmwareKit::FirmwareKit(const TempRoot& root) : dir_("fwkit") {
  ready_ = runCommand("cd '" + dir_.path() +
                      "' && openssl genpkey -algorithm ed25519 -out key.pem && openssl pkey -in key.pem -pubout "
                      "-out pub.pem && openssl genpkey -algorithm ed25519 -out foreign.pem") == 0;
  root.write("/phone/keys/firmware.pem", readHostFile(dir_.file("pub.pem")));
}

std::string FirmwareKit::image(const std::string& family, const std::string& payload, bool foreignKey) const {
  dir_.write("payload.bin", payload);
  std::string key = dir_.file(foreignKey ? "foreign.pem" : "key.pem");
  std::string out;
  if (runCommand(programCommand("autoptool") + " image build --key '" + key + "' --family " + family +
                     " --models QA5,QE5 --version 2.1.0.7 '" + dir_.file("payload.bin") + "' '" +
                     dir_.file("image.rom") + "'",
                 &out) != 0) {
    ADD_FAILURE() << "image build failed: " << out;
    return "";
  }
  return readHostFile(dir_.file("image.rom"));
}

}  // namespace testing_support
