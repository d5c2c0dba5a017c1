// Real servers on loopback for the tests, each in a throw-away directory on a free port, stopped
// (by their process id) when the object goes: tftpd-hpa, vsftpd, nginx, and a test certificate
// authority made with openssl.
//
// The servers run as the test's user (root in CI). vsftpd's user log-in goes through the system's
// existing "runuser" PAM service, where root is trusted (pam_rootok), and maps every user to the
// guest account "ftp": nothing under /etc is created or changed, and any password is accepted for
// an existing system account (the tests use "nobody"). The exact credentials on the wire are
// checked by the scripted servers of the tests instead.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "testRoot.h"

namespace testing_support {

// A child process with its output appended to a log file. The process is our own child and only
// ever signalled while it has not been reaped, so a reused id is never hit.
class ServerProcess {
 public:
  ServerProcess() = default;
  ~ServerProcess() { stop(); }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;
  // `env` holds "NAME=value" words added to the child's environment.
  bool start(const std::vector<std::string>& argv, const std::string& logFile,
             const std::vector<std::string>& env = {});
  // Waits up to `timeoutMs` for the exit: its status, -1 when it did not exit normally, -2 when it
  // still runs.
  int wait(int timeoutMs);
  // Sends `signal` (unless it already ended), SIGKILL after `timeoutMs`; as wait().
  int stop(int signal = SIGTERM, int timeoutMs = 3000);
  bool running() const { return pid_ > 0 && status_ == -1; }

 private:
  pid_t pid_ = -1;
  int status_ = -1;
};

// Random bytes of the given size (deterministic per seed).
std::string testBytes(size_t size, unsigned seed = 1);
// Polls `done` every 10 ms of real time until it holds (true) or `timeoutMs` passed (false).
bool pollFor(const std::function<bool()>& done, int timeoutMs);
// Whether this machine can use IPv6 loopback.
bool ipv6LoopbackAvailable();
// Whether a peer program is installed (executable at that path).
bool programInstalled(const char* path);

// Starts a peer server; on a machine without its program the test is skipped, with the reason,
// instead of failed.
#define START_PEER(server, ...)                                                                    \
  do {                                                                                              \
    if (!testing_support::programInstalled((server).kProgram))                                      \
      GTEST_SKIP() << (server).kProgram << " is not installed: this test needs it as its peer";     \
    ASSERT_TRUE((server).start(__VA_ARGS__));                                                       \
  } while (0)
// Skips the test, with the reason, when a peer program it runs itself is not installed.
#define REQUIRE_PEER_PROGRAM(path)                                                                 \
  do {                                                                                              \
    if (!testing_support::programInstalled(path))                                                   \
      GTEST_SKIP() << (path) << " is not installed: this test needs it as its peer";                \
  } while (0)

class TftpServer {
 public:
  static constexpr const char* kProgram = "/usr/sbin/in.tftpd";
  TftpServer();
  // On a free port, or on `port` (69 in a network of the test's own).
  bool start(int port = 0);
  int port() const { return port_; }
  // Files served, relative to the served directory.
  void put(const std::string& name, const std::string& contents) const { dir_.write("files/" + name, contents); }
  std::string dir() const { return dir_.file("files"); }

 private:
  ScratchDir dir_;
  ServerProcess process_;
  int port_ = -1;
};

class FtpServer {
 public:
  static constexpr const char* kProgram = "/usr/sbin/vsftpd";
  struct Options {
    bool passive = true;  // false: PASV is refused, so clients must use active mode
    bool ipv6 = false;    // listen on ::1 instead of 127.0.0.1
  };
  FtpServer();
  bool start(const Options& options);
  bool start() { return start(Options()); }
  int port() const { return port_; }
  void put(const std::string& name, const std::string& contents) const { dir_.write("files/" + name, contents); }
  std::string log() const;

 private:
  bool startOn(int port, const Options& options);
  ScratchDir dir_;
  ServerProcess process_;
  int port_ = -1;
};

// A test CA (EC keys, made by openssl at test time) and server certificates it signs.
class TestCa {
 public:
  explicit TestCa(const std::string& name);
  bool create();
  // Signs a certificate for 127.0.0.1 and localhost; writes <base>.pem and <base>.key.
  bool issueServerCertificate(const std::string& base) const;
  std::string caCertificate() const { return dir_.file("ca.pem"); }
  std::string file(const std::string& relative) const { return dir_.file(relative); }

 private:
  std::string name_;
  ScratchDir dir_;
};

// nginx serving www/ over HTTP, and over HTTPS with a certificate of `ca` (and a second HTTPS port
// whose certificate comes from `otherCa`). /auth/ needs basic authentication as user:secret;
// /redirect answers 302 to /files/redirected.bin.
class HttpServer {
 public:
  static constexpr const char* kProgram = "/usr/sbin/nginx";
  HttpServer();
  bool start(const TestCa* ca = nullptr, const TestCa* otherCa = nullptr);
  // The server's access log: one line per request, with its status.
  std::string accessLog() const;
  int port() const { return port_; }
  int tlsPort() const { return tlsPort_; }
  int otherTlsPort() const { return otherTlsPort_; }
  void put(const std::string& path, const std::string& contents) const { dir_.write("www/" + path, contents); }

 private:
  bool startOnce(const TestCa* ca, const TestCa* otherCa);
  ScratchDir dir_;
  ServerProcess process_;
  int port_ = -1;
  int tlsPort_ = -1;
  int otherTlsPort_ = -1;
};

}  // namespace testing_support
