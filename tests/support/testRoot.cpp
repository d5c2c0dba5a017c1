#define LOG_MODULE "./tests/support"
#include "testRoot.h"

#include "scopedGlobals.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <vector>

#include "log.h"
#include "paths.h"
#include "registry.h"

namespace testing_support {

namespace {

std::mutex captureMutex;
std::string captured;

void captureSink(int, const char* text) {
  std::lock_guard<std::mutex> lock(captureMutex);
  captured += text;
}

}  // namespace

ScratchDir::ScratchDir(const std::string& tag, bool underTmpdir) {
  const char* base = underTmpdir ? getenv("TMPDIR") : nullptr;
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/provisor-" + tag + "-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data())) path_ = buffer.data();
  chmod(path_.c_str(), 0755);  // servers drop to unprivileged users that must reach their files
}

ScratchDir::~ScratchDir() {
  if (path_.find("/provisor-") != std::string::npos && !getenv("PROVISOR_KEEP_ROOT"))
    runCommand("rm -rf '" + path_ + "'");
}

TempRoot::TempRoot() : dir_("test", true) {
  const char* previous = getenv("PROVISOR_ROOT");
  hadEnv_ = previous != nullptr;
  if (previous) previousEnv_ = previous;
  setenv("PROVISOR_ROOT", path().c_str(), 1);
  platformSetRoot(path());
  for (const char* dir : {"/tmp", "/config", "/phone", "/host"}) mkdir(host(dir).c_str(), 0775);
}

TempRoot::~TempRoot() {
  if (hadEnv_)
    setenv("PROVISOR_ROOT", previousEnv_.c_str(), 1);
  else
    unsetenv("PROVISOR_ROOT");
  platformSetRoot(hadEnv_ ? previousEnv_ : "");
}

bool TempRoot::exists(const std::string& logical) const { return access(host(logical).c_str(), F_OK) == 0; }

std::string readHostFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void writeHostFile(const std::string& path, const std::string& contents) {
  for (size_t pos = 0; (pos = path.find('/', pos + 1)) != std::string::npos;) mkdir(path.substr(0, pos).c_str(), 0775);
  std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
  chmod(path.c_str(), 0644);
}

// The settings store caches files by host path and outlives a test: every test starts and ends empty.
void resetProcessWideState() {
  setClock(nullptr);
  setPartitionStatfs(nullptr);
  registryResetCache();
}

// Whatever an earlier test left behind is reset first, and again after this one.
void RootedTest::SetUp() {
  resetProcessWideState();
  root = std::make_unique<TempRoot>();
  setClock(&fakeClock);
}

void RootedTest::TearDown() {
  resetProcessWideState();
  root.reset();
}

LogCapture::LogCapture() {
  clear();
  logSetTestSink(captureSink);
}

LogCapture::~LogCapture() { logSetTestSink(nullptr); }

std::string LogCapture::text() const {
  std::lock_guard<std::mutex> lock(captureMutex);
  return captured;
}

bool LogCapture::contains(const std::string& needle) const { return text().find(needle) != std::string::npos; }

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(captureMutex);
  captured.clear();
}

int runCommand(const std::string& command, std::string* output) {
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (!pipe) return -1;
  std::string text;
  char buffer[4096];
  for (size_t n; (n = fread(buffer, 1, sizeof(buffer), pipe)) > 0;) text.append(buffer, n);
  int status = pclose(pipe);
  if (output) *output = text;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int occurrences(const std::string& text, const std::string& needle) {
  int n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

int freePort(bool udp) {
  int fd = socket(AF_INET, udp ? SOCK_DGRAM : SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(addr);
  int port = -1;
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
    port = ntohs(addr.sin_port);
  close(fd);
  return port;
}

}  // namespace testing_support
