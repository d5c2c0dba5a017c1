#define LOG_MODULE "./src/mediaParser"
#include "mediaParser.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "baseMethod.h"
#include "clock.h"
#include "descriptor.h"
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

// Starts a program with an argument vector, never through a shell, so no character of an argument
// has a meaning to anyone but the program. It leads a process group of its own (its children are
// stopped with it) and holds the write end of `alive`, which reads end-of-file once it and all its
// children are gone. -1 when it could not be started.
pid_t startProgram(const std::vector<std::string>& arguments, UniqueFd& alive) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return -1;
  UniqueFd readEnd(ends[0]), writeEnd(ends[1]);
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  fflush(stdout);
  pid_t child = fork();
  if (child < 0) return -1;
  if (child == 0) {
    setpgid(0, 0);
    fcntl(writeEnd.get(), F_SETFD, 0);  // inherited by the program and what it starts
    execv(argv[0], argv.data());
    _exit(127);
  }
  setpgid(child, child);  // either side may run first; both make the group
  alive = std::move(readEnd);
  return child;
}

// Waits for the program and its children on the service clock, at most `timeoutMs`; past that the
// whole group is stopped. Killing is safe here: the group is our own child's, which has not been
// reaped, so its id cannot have been reused. False when it ran out of time.
bool waitBounded(pid_t child, UniqueFd& alive, int32_t timeoutMs) {
  chTimeout deadline(timeoutMs);
  bool ended = false;
  while (!ended && !deadline.IsTimeout()) {
    // Short steps, each with its own grace: a clock faster than real time still leaves the program
    // a good share of the bound in real time.
    int step = std::min<int32_t>(kPictureScaleStepMs, deadline.GetLeftMillisecond());
    pollfd pfd{alive.get(), POLLIN, 0};
    int ready = serviceClock().poll(&pfd, 1, step, step);
    char byte;
    ended = ready > 0 && read(alive.get(), &byte, 1) <= 0;
  }
  if (!ended) {
    kill(-child, SIGKILL);
    kill(child, SIGKILL);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return ended;
}

// The script's verdict: the first word of its result file is "1". A picture refused for its
// dimensions is reported as "0 toolarge WIDTH HEIGHT BOUND" and logged here.
bool scaleReportedDone() {
  FilePtr result = openFile(kImageScaleResult, "rb");
  if (!result) return false;
  char word[32] = {};
  if (fscanf(result.get(), "%31s", word) != 1) return false;
  if (strcmp(word, "1") == 0) return true;
  long width = 0, height = 0, bound = 0;
  if (fscanf(result.get(), " toolarge %ld %ld %ld", &width, &height, &bound) == 3)
    LOG_ERR("the picture has too many pixels ! (%ldx%ld, at most %ldx%ld)", width, height, bound, bound);
  return false;
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

namespace {

// A script stopped at the time bound never runs its own clean-up: its scratch files (named
// ".imageScale.*" beside the picture, a name no server file can have) are removed here.
void removeScratchFiles(const std::string& hostPicture) {
  size_t slash = hostPicture.rfind('/');
  std::string folder = slash == std::string::npos ? "." : hostPicture.substr(0, slash);
  UniqueFd dir(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  DIR* listing = dir.get() >= 0 ? fdopendir(dup(dir.get())) : nullptr;
  if (!listing) return;
  std::vector<std::string> scratch;
  while (dirent* entry = readdir(listing)) {
    if (strncmp(entry->d_name, ".imageScale.", 12) == 0) scratch.push_back(entry->d_name);
  }
  closedir(listing);
  for (const std::string& name : scratch) unlinkat(dir.get(), name.c_str(), 0);
}

}  // namespace

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
  UniqueFd alive;
  pid_t child = startProgram({hostPath(kImageScaleScript), source, std::to_string(m_width), std::to_string(m_height),
                              source, std::to_string(kScaledPictureMaxBytes)},
                             alive);
  if (child > 0 && !waitBounded(child, alive, kPictureScaleTimeoutMs)) {
    LOG_ERR("Picture scaling stopped after %d ms", kPictureScaleTimeoutMs);
    removeScratchFiles(source);
    return 0;
  }
  if (child < 0 || !scaleReportedDone()) {
    LOG_ERR("Fail to adjust image scale !");
    return 0;
  }
  return 1;
}
