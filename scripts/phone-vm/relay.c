// One guest connection to the provisioning server. QEMU's user network starts this for each TCP
// connection the guest opens to the forwarded address, with that connection on standard input and
// output; it relays the bytes both ways to 127.0.0.1:PORT and to nowhere else. An end of input is
// passed on as a half close, so a request or answer delimited by the end of its connection ends.
// Built on the host by scripts/phone-vm.sh (cc -O2 -o relay relay.c); started once per connection,
// so it is a small program rather than an interpreter that takes a second to start.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

// QEMU may hand over its end of the connection non-blocking: a full buffer waits for room.
static int copyOnce(int from, int to) {
  char buffer[65536];
  ssize_t got;
  do got = read(from, buffer, sizeof(buffer));
  while (got < 0 && (errno == EINTR || errno == EAGAIN));
  if (got <= 0) return 0;
  for (ssize_t sent = 0; sent < got;) {
    ssize_t n = write(to, buffer + sent, (size_t)(got - sent));
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) {
      struct pollfd room = {to, POLLOUT, 0};
      poll(&room, 1, 1000);
      continue;
    }
    if (n <= 0) return 0;
    sent += n;
  }
  return 1;
}

static void makeBlocking(int fd) { fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK); }

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  struct sockaddr_in server = {0};
  server.sin_family = AF_INET;
  server.sin_port = htons((unsigned short)atoi(argv[1]));
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int peer = socket(AF_INET, SOCK_STREAM, 0);
  if (peer < 0 || connect(peer, (struct sockaddr*)&server, sizeof(server)) != 0) return 1;
  makeBlocking(0);
  makeBlocking(1);
  int guestOpen = 1;
  for (;;) {
    struct pollfd ends[2] = {{peer, POLLIN, 0}, {guestOpen ? 0 : -1, POLLIN, 0}};
    if (poll(ends, 2, 120000) <= 0) return 0;
    if (ends[1].revents) {
      if (!copyOnce(0, peer)) {
        guestOpen = 0;
        shutdown(peer, SHUT_WR);
      }
    }
    if (ends[0].revents && !copyOnce(peer, 1)) return 0;
  }
}
