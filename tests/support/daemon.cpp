#include "daemon.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "launcher.h"
#include "msgqueue.h"
#include "testRoot.h"

namespace testing_support {

DaemonProcess::DaemonProcess(const std::string& root, const std::vector<std::string>& args, bool fakeClock)
    : logPath_(root + "/daemon.log") {
  std::vector<std::string> command = programArgv("provisor");
  command.insert(command.end(), args.begin(), args.end());
  pid_ = fork();
  if (pid_ == 0) {
    int fd = open(logPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
    int null = open("/dev/null", O_RDONLY);
    dup2(null, STDIN_FILENO);
    setenv("PROVISOR_ROOT", root.c_str(), 1);
    if (fakeClock) setenv("PROVISOR_FAKE_CLOCK", "1", 1);
    std::vector<char*> argv;
    for (const auto& word : command) argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
}

DaemonProcess::~DaemonProcess() {
  if (pid_ > 0 && status_ == -1) stop(SIGKILL);
}

namespace {

// Polls `done` every 10 ms of real time until it holds (true) or `timeoutMs` passed (false).
template <class Condition>
bool pollFor(Condition done, int timeoutMs) {
  for (int waited = 0; waited < timeoutMs; waited += 10, usleep(10000))
    if (done()) return true;
  return false;
}

}  // namespace

bool DaemonProcess::waitReachable(int timeoutMs) const {
  return pollFor([] { return !msgGetThreadByName("provisor").empty(); }, timeoutMs);
}

std::string DaemonProcess::log() const { return readHostFile(logPath_); }

bool DaemonProcess::waitForLog(const std::string& text, int timeoutMs) const {
  return pollFor([&] { return log().find(text) != std::string::npos; }, timeoutMs);
}

int DaemonProcess::wait(int timeoutMs) {
  if (pid_ <= 0) return -1;
  if (status_ != -1) return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
  for (int waited = 0; waited < timeoutMs; waited += 10) {
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      status_ = status;
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    usleep(10000);
  }
  return -2;
}

int DaemonProcess::stop(int signal, int timeoutMs) {
  if (pid_ <= 0) return -1;
  if (status_ == -1) kill(pid_, signal);  // our own child, never anything else
  int result = wait(timeoutMs);
  if (result == -2) {
    kill(pid_, SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
    status_ = status;
    return -1;
  }
  return result;
}

}  // namespace testing_support
