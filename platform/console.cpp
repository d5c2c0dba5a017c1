#include "console.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

namespace {
struct termios savedTerminal;
}

chStdInput::chStdInput() {
  // Keys are read only from a real terminal: a daemon's standard input is a pipe or /dev/null,
  // and reading those would steal input that is not meant for us.
  if (!isatty(STDIN_FILENO)) return;
  if (tcgetattr(STDIN_FILENO, &savedTerminal) != 0) return;
  struct termios raw = savedTerminal;
  raw.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO));
  raw.c_cc[VMIN] = 0;
  raw.c_cc[VTIME] = 0;
  raw_ = tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0;
}

chStdInput::~chStdInput() {
  if (raw_) tcsetattr(STDIN_FILENO, TCSANOW, &savedTerminal);
}

int chStdInput::getch() {
  if (!raw_) return -1;
  unsigned char key = 0;
  ssize_t n = read(STDIN_FILENO, &key, 1);
  return n == 1 ? key : -1;
}
