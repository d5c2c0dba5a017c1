#define LOG_MODULE "./src/certParser"
#include "certParser.h"

bool readCertFile(const std::string&, certFileContents&) { return false; }
int autoCertParser::checkFile() { return 0; }
int autoCrtParser::deleteFile(const std::string& d, const char* c) { return autoBinParser::deleteFile(d, c); }
int autoCrtParser::upgradeFile() { return 0; }
int autoPemParser::deleteFile(const std::string& d, const char* c) { return autoBinParser::deleteFile(d, c); }
int autoPemParser::upgradeFile() { return 0; }
int auto802_1XCrtParser::upgradeFile() { return 0; }
