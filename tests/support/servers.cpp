#include "servers.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <sstream>
#include <thread>

namespace testing_support {

namespace {

using Steady = std::chrono::steady_clock;

// Whether a socket of this network is bound to `port` in /proc/net/<table> (tcp, tcp6, udp), in
// state LISTEN for TCP: from then on requests queue up for the server.
bool listening(int port, const std::string& table) {
  char local[8];
  snprintf(local, sizeof local, ":%04X ", port);
  std::istringstream lines(readHostFile("/proc/net/" + table));
  for (std::string line; std::getline(lines, line);)
    if (line.find(local) != std::string::npos && (table == "udp" || line.find(" 0A ") != std::string::npos))
      return true;
  return false;
}

}  // namespace

bool pollFor(const std::function<bool()>& done, int timeoutMs) {
  // Looked at once even with no time at all, and once more at the deadline.
  for (auto deadline = Steady::now() + std::chrono::milliseconds(timeoutMs);;) {
    if (done()) return true;
    if (Steady::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

bool ServerProcess::start(const std::vector<std::string>& argv, const std::string& logFile,
                          const std::vector<std::string>& env) {
  stop();
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid < 0) return false;
  if (pid == 0) {
    // The server must not outlive a test process that dies.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(127);
    int log = open(logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    dup2(log, STDOUT_FILENO);
    dup2(log, STDERR_FILENO);
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    for (const std::string& word : env) putenv(const_cast<char*>(word.c_str()));
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  pid_ = pid;
  status_ = -1;
  return true;
}

int ServerProcess::wait(int timeoutMs) {
  if (pid_ <= 0) return -1;
  auto reaped = [&] {
    pid_t r = waitpid(pid_, &status_, WNOHANG);
    if (r < 0) status_ = 0xff00;  // not ours to wait for any more: exit status 255, never signalled
    return r != 0;
  };
  if (status_ == -1 && !pollFor(reaped, timeoutMs)) {
    status_ = -1;
    return -2;
  }
  return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
}

int ServerProcess::stop(int signal, int timeoutMs) {
  if (running()) kill(pid_, signal);
  int result = wait(timeoutMs);
  if (result == -2) {
    kill(pid_, SIGKILL);
    waitpid(pid_, &status_, 0);
    return -1;
  }
  return result;
}

std::string testBytes(size_t size, unsigned seed) {
  std::mt19937 generator(seed);
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(generator() & 0xff);
  return bytes;
}

bool programInstalled(const char* path) { return access(path, X_OK) == 0; }

bool ipv6LoopbackAvailable() { return readHostFile("/proc/net/if_inet6").find(" lo\n") != std::string::npos; }

namespace {

constexpr int kStartAttempts = 5;

// The servers below cannot bind port 0 and tell their port, so each gets a port that was free a
// moment before; another test program running at the same time may take it first. The server then
// exits (or never listens) and is started again on another port.
bool startOnFreshPorts(ServerProcess& process, const std::function<bool()>& attempt) {
  for (int i = 0; i < kStartAttempts; ++i) {
    if (attempt()) return true;
    process.stop();
  }
  return false;
}

// Listening on `port` and still our own process (not a stranger that holds the port).
bool ownListener(ServerProcess& process, int port, const char* protocol) {
  return pollFor([&] { return process.wait(0) == -2 && listening(port, protocol); }, 5000) && process.wait(0) == -2;
}

}  // namespace

TftpServer::TftpServer() : dir_("tftp") { mkdir(dir_.file("files").c_str(), 0755); }

bool TftpServer::start(int port) {
  return startOnFreshPorts(process_, [&] {
    port_ = port > 0 ? port : freePort(true);
    // A fixed port is for a network of the test's own, which has nothing but loopback: there
    // tftpd's resolver refuses "127.0.0.1", so it listens on every address of that network.
    const std::string address = (port > 0 ? ":" : "127.0.0.1:") + std::to_string(port_);
    std::vector<std::string> argv = {kProgram, "--foreground", "--listen", "--user", "root",
                                     "--address", address, "--secure", dir()};
    return process_.start(argv, dir_.file("tftpd.log")) && ownListener(process_, port_, "udp");
  });
}

FtpServer::FtpServer() : dir_("ftp") { mkdir(dir_.file("files").c_str(), 0755); }

bool FtpServer::start(const Options& options) {
  return startOnFreshPorts(process_, [&] { return startOn(freePort(), options); });
}

bool FtpServer::startOn(int port, const Options& options) {
  port_ = port;
  const std::string files = dir_.file("files");
  std::ostringstream conf;
  conf << "listen=" << (options.ipv6 ? "NO" : "YES") << "\nlisten_ipv6=" << (options.ipv6 ? "YES" : "NO")
       << "\nlisten_address=127.0.0.1\nlisten_address6=::1\nlisten_port=" << port_
       << "\nbackground=NO\nanonymous_enable=YES\nno_anon_password=YES\nanon_root=" << files
       << "\nlocal_enable=YES\nguest_enable=YES\nguest_username=ftp\nlocal_root=" << files
       << "\npam_service_name=runuser\ncheck_shell=NO\nuserlist_enable=NO\nwrite_enable=NO\npasv_enable="
       << (options.passive ? "YES" : "NO")
       << "\nport_enable=YES\nconnect_from_port_20=NO\nseccomp_sandbox=NO\nsecure_chroot_dir=/var/run/vsftpd/empty"
       << "\nvsftpd_log_file=" << dir_.file("vsftpd.log")
       << "\nxferlog_enable=YES\ndual_log_enable=YES\nlog_ftp_protocol=YES\n";
  dir_.write("vsftpd.conf", conf.str());
  mkdir("/var/run/vsftpd", 0755);
  mkdir("/var/run/vsftpd/empty", 0755);
  return process_.start({kProgram, dir_.file("vsftpd.conf")}, dir_.file("server.out")) &&
         ownListener(process_, port_, options.ipv6 ? "tcp6" : "tcp");
}

std::string FtpServer::log() const { return readHostFile(dir_.file("vsftpd.log")); }

TestCa::TestCa(const std::string& name) : name_(name), dir_("ca") {}

bool TestCa::create() {
  return runCommand("cd '" + dir_.path() + "' && openssl ecparam -name prime256v1 -genkey -noout -out ca.key && " +
                    "openssl req -x509 -new -key ca.key -out ca.pem -days 2 -subj '/CN=" + name_ +
                    "' -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign") == 0;
}

bool TestCa::issueServerCertificate(const std::string& base) const {
  dir_.write(base + ".ext",
             "basicConstraints=CA:FALSE\nsubjectAltName=IP:127.0.0.1,DNS:localhost\nextendedKeyUsage=serverAuth\n");
  return runCommand("cd '" + dir_.path() + "' && openssl ecparam -name prime256v1 -genkey -noout -out " + base +
                    ".key && openssl req -new -key " + base + ".key -out " + base +
                    ".csr -subj /CN=127.0.0.1 && openssl x509 -req -in " + base +
                    ".csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -out " + base + ".pem -extfile " + base +
                    ".ext") == 0;
}

HttpServer::HttpServer() : dir_("http") { mkdir(dir_.file("www").c_str(), 0755); }

std::string HttpServer::accessLog() const { return readHostFile(dir_.file("access.log")); }

bool HttpServer::start(const TestCa* ca, const TestCa* otherCa) {
  return startOnFreshPorts(process_, [&] { return startOnce(ca, otherCa); });
}

bool HttpServer::startOnce(const TestCa* ca, const TestCa* otherCa) {
  port_ = freePort();
  const std::string d = dir_.path();
  dir_.write("htpasswd", "user:{PLAIN}secret\n");
  const std::string authorised =
      "    location /auth/ { auth_basic \"provisor\"; auth_basic_user_file " + d + "/htpasswd; }\n";
  // One server block per port; TLS ones carry the certificate their CA issued.
  auto server = [&](int port, const TestCa* tls, const std::string& extra) {
    std::string block = "  server {\n    listen 127.0.0.1:" + std::to_string(port) + (tls ? " ssl" : "") + ";\n";
    if (tls)
      block += "    ssl_certificate " + tls->file("server.pem") + ";\n    ssl_certificate_key " +
               tls->file("server.key") + ";\n";
    return block + "    root " + d + "/www;\n" + extra + "  }\n";
  };
  std::string conf =
      "master_process off;\nerror_log " + d + "/error.log;\npid " + d +
      "/nginx.pid;\nevents { worker_connections 64; }\nhttp {\n  access_log " + d +
      "/access.log;\n  client_body_temp_path " + d + "/body;\n  proxy_temp_path " + d +
      "/proxy;\n  fastcgi_temp_path " + d + "/fastcgi;\n  default_type application/octet-stream;\n" +
      server(port_, nullptr, authorised + "    location = /redirect { return 302 /files/redirected.bin; }\n");
  if (ca) conf += server(tlsPort_ = freePort(), ca, authorised);
  if (otherCa) conf += server(otherTlsPort_ = freePort(), otherCa, "");
  dir_.write("nginx.conf", conf + "}\n");
  bool started = process_.start({kProgram, "-p", d, "-c", d + "/nginx.conf", "-g", "daemon off;"},
                                dir_.file("server.out"));
  for (int port : {port_, tlsPort_, otherTlsPort_})
    started = started && (port < 0 || ownListener(process_, port, "tcp"));
  return started;
}

}  // namespace testing_support
