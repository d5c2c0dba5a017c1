// Console keys and calendar helpers of the support library.
#pragma once

#include <cstdint>
#include <string>

// Non-blocking read of one key from standard input when it is a terminal; -1 when none.
class chStdInput {
 public:
  chStdInput();
  ~chStdInput();
  chStdInput(const chStdInput&) = delete;
  chStdInput& operator=(const chStdInput&) = delete;
  int getch();
  // Whether keys can come at all: standard input is a terminal we could put in raw mode.
  bool isTerminal() const { return raw_; }

 private:
  bool raw_ = false;
};
