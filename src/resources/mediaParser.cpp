#define LOG_MODULE "./src/mediaParser"
#include "mediaParser.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "baseMethod.h"
#include "log.h"
#include "paths.h"

namespace {

// The text after the last "." of the file-name part; false when the name has no ".".
bool extensionOf(const std::string& path, std::string& extension) {
  std::string name = path.substr(pathGetFileNamePos(path));
  size_t dot = name.rfind('.');
  if (dot == std::string::npos) return false;
  extension = name.substr(dot + 1);
  return true;
}

bool equalsIgnoringCase(const std::string& a, const char* b) { return strcasecmp(a.c_str(), b) == 0; }

// Runs a program with an argument vector and waits for it; its exit status, or -1 when it could
// not be started or did not exit normally. No shell is involved, so no character of an argument
// has a meaning to anyone but the program.
int runProgram(const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  fflush(stdout);
  pid_t child = fork();
  if (child < 0) return -1;
  if (child == 0) {
    execv(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The script's verdict: the first word of its result file is "1".
bool scaleReportedDone() {
  FilePtr result = openFile(kImageScaleResult, "rb");
  if (!result) return false;
  char word[32] = {};
  return fscanf(result.get(), "%31s", word) == 1 && strcmp(word, "1") == 0;
}

}  // namespace

int autoRingParser::checkFile() {
  if (fileSize(m_srcPath.c_str()) > kRingtoneMaxBytes) {
    LOG_ERR("The ringtone file is too large ! (Should be less than 100K)");
    return 0;
  }
  std::string extension;
  if (!extensionOf(m_srcPath, extension)) {
    LOG_ERR("ringtone file type error");
    return 0;
  }
  // Only the two spellings the phone's player has always taken; "Wav" is refused on purpose.
  if (extension != "wav" && extension != "WAV") {
    LOG_ERR("ringtone type isnot wav!");
    return 0;
  }
  return 1;
}

int autoLogoParser::checkFile() {
  LOG_ERR("The device can't upgrade LOGO file!");
  return 0;
}

int autoImageParser::checkFile() {
  if (!checkSpace()) return 0;
  std::string extension;
  if (!extensionOf(m_srcPath, extension)) return 0;
  return equalsIgnoringCase(extension, "png") || equalsIgnoringCase(extension, "bmp") ||
                 equalsIgnoringCase(extension, "jpg")
             ? 1
             : 0;
}

int autoScaledPicture::checkFile() {
  if (!autoImageParser::checkFile()) return 0;
  return scalePicture();
}

int autoScaledPicture::scalePicture() {
  if (fileSize(m_srcPath.c_str()) > kPictureMaxBytes) {
    LOG_ERR("the picture is too large !");
    return 0;
  }
  // Scaled in place: the copy that follows installs the scaled picture.
  char line[1024];
  snprintf(line, sizeof line, "%s %s %d %d %s %d", kImageScaleScript, m_srcPath.c_str(), m_width, m_height,
           m_srcPath.c_str(), kScaledPictureMaxBytes);
  LOG_IFO("%s", line);
  // A verdict left by an earlier run must not count for this one.
  remove(hostPath(kImageScaleResult).c_str());
  std::string source = hostPath(m_srcPath);
  runProgram({hostPath(kImageScaleScript), source, std::to_string(m_width), std::to_string(m_height), source,
              std::to_string(kScaledPictureMaxBytes)});
  if (!scaleReportedDone()) {
    LOG_ERR("Fail to adjust image scale !");
    return 0;
  }
  return 1;
}
