#define LOG_MODULE "./src/archiveParser"
#include "archiveParser.h"

int checkArchive(const std::string&, archiveSummary&) { return 0; }
bool isArchiveFile(const std::string&) { return false; }
int unpackArchive(const std::string&, const std::string&, int64_t, unpackMode) { return 0; }
bool isConfigurationFile(const std::string&) { return false; }
int autoTarParser::checkFile() { return 0; }
int autoTarParser::upgradeFile() { return 0; }
std::string autoTarParser::unpackDirectory() const { return std::string(); }
int64_t autoTarParser::unpackBound(int64_t) const { return 0; }
int autoTarParser::refuseWhenTooLarge(int64_t, int64_t) const { return 0; }
int autoPackageParser::checkFile() { return 0; }
int autoPackageParser::upgradeFile() { return 0; }
int autoPackageParser::checkSpace() { return 0; }
int autoFactoryBinParser::upgradePost() { return 1; }
