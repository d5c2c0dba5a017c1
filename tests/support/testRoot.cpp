#define LOG_MODULE "./tests/support"
#include "testRoot.h"

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

namespace testing_support {

namespace {

std::string makeTempDir() {
  const char* base = getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/provisor-test-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (!mkdtemp(buffer.data())) return "";
  return buffer.data();
}

void makeParents(const std::string& file) {
  size_t pos = 0;
  while ((pos = file.find('/', pos + 1)) != std::string::npos) mkdir(file.substr(0, pos).c_str(), 0775);
}

std::mutex& captureMutex() {
  static std::mutex m;
  return m;
}
std::string& captured() {
  static std::string text;
  return text;
}
void captureSink(int, const char* text) {
  std::lock_guard<std::mutex> lock(captureMutex());
  captured() += text;
}

}  // namespace

TempRoot::TempRoot() {
  root_ = makeTempDir();
  const char* previous = getenv("PROVISOR_ROOT");
  hadEnv_ = previous != nullptr;
  if (previous) previousEnv_ = previous;
  setenv("PROVISOR_ROOT", root_.c_str(), 1);
  platformSetRoot(root_);
  for (const char* dir : {"/tmp", "/config", "/phone", "/host"}) mkdir((root_ + dir).c_str(), 0775);
}

TempRoot::~TempRoot() {
  if (hadEnv_)
    setenv("PROVISOR_ROOT", previousEnv_.c_str(), 1);
  else
    unsetenv("PROVISOR_ROOT");
  platformSetRoot(hadEnv_ ? previousEnv_ : "");
  if (!root_.empty() && root_.find("/provisor-test-") != std::string::npos && !getenv("PROVISOR_KEEP_ROOT"))
    runCommand("rm -rf '" + root_ + "'");
}

std::string TempRoot::host(const std::string& logical) const { return root_ + logical; }

void TempRoot::write(const std::string& logical, const std::string& contents) const {
  std::string path = host(logical);
  makeParents(path);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << contents;
}

std::string TempRoot::read(const std::string& logical) const { return readHostFile(host(logical)); }

std::string readHostFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

bool TempRoot::exists(const std::string& logical) const { return access(host(logical).c_str(), F_OK) == 0; }

void RootedTest::SetUp() {
  root = std::make_unique<TempRoot>();
  previousClock = setClock(&fakeClock);
}

void RootedTest::TearDown() {
  setClock(previousClock);
  root.reset();
}

LogCapture::LogCapture() {
  clear();
  logSetTestSink(captureSink);
}

LogCapture::~LogCapture() { logSetTestSink(nullptr); }

std::string LogCapture::text() const {
  std::lock_guard<std::mutex> lock(captureMutex());
  return captured();
}

bool LogCapture::contains(const std::string& needle) const { return text().find(needle) != std::string::npos; }

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(captureMutex());
  captured().clear();
}

int runCommand(const std::string& command, std::string* output) {
  std::string full = command + " 2>&1";
  FILE* pipe = popen(full.c_str(), "r");
  if (!pipe) return -1;
  std::string text;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) text.append(buffer, n);
  int status = pclose(pipe);
  if (output) *output = text;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int freePort(bool udp) {
  int fd = socket(AF_INET, udp ? SOCK_DGRAM : SOCK_STREAM, 0);
  if (fd < 0) return -1;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  int port = -1;
  socklen_t len = sizeof(addr);
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
    port = ntohs(addr.sin_port);
  close(fd);
  return port;
}

}  // namespace testing_support
