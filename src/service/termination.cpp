#define LOG_MODULE "./src/provisor"
#include "termination.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <thread>

#include "log.h"

namespace {

std::atomic<chThreadLocal*> g_target{nullptr};
int g_signalPipe[2] = {-1, -1};

void onTerminateSignal(int) {
  const int savedErrno = errno;
  if (chThreadLocal* service = g_target.load()) service->Quit(0);
  if (g_signalPipe[1] >= 0) {
    char byte = 1;
    ssize_t ignored = write(g_signalPipe[1], &byte, 1);
    (void)ignored;
  }
  errno = savedErrno;
}

// Waits for a signal, then gives the service thread the grace to end by itself.
void watchForSignal(int readFd) {
  char byte;
  while (read(readFd, &byte, 1) < 0 && errno == EINTR) {
  }
  pollfd never{-1, 0, 0};
  poll(&never, 0, kTerminationGraceMs);
  if (!g_target.load()) return;  // ended by itself meanwhile
  LOG_WAR("Terminated while busy, the work in hand is cut short");
  fflush(nullptr);
  _exit(0);
}

}  // namespace

bool installTerminationHandlers(chThreadLocal& service) {
  g_target = &service;
  struct sigaction action;
  memset(&action, 0, sizeof(action));
  action.sa_handler = onTerminateSignal;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  if (g_signalPipe[0] >= 0) return true;
  if (pipe2(g_signalPipe, O_CLOEXEC) != 0) return false;
  std::thread(watchForSignal, g_signalPipe[0]).detach();
  return true;
}

void releaseTerminationHandlers() { g_target = nullptr; }
