#define LOG_MODULE "./src/mediaParser"
#include "mediaParser.h"

int autoRingParser::checkFile() { return 0; }
int autoLogoParser::checkFile() { return 0; }
int autoImageParser::checkFile() { return 0; }
int autoScaledPicture::checkFile() { return 0; }
int autoScaledPicture::scalePicture() { return 0; }
