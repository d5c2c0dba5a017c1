// The floor a configuration run's own log sets: writes the lines of a log captured from the run, in
// order and of the same lengths, through the service's logger (each record formatted, written with
// one write and flushed on its own) and does nothing else. bench/config_file.sh times it beside the
// run it captured; what the run takes above this is the parser's, the upgraders' and the store's.
//
// Usage: bench_log_floor CAPTURED_LOG   (the records go to standard output, as the run's did)
#define LOG_MODULE "./bench/logFloor"
#include <cstdio>
#include <cstdlib>

#include "log.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: bench_log_floor CAPTURED_LOG\n");
    return 2;
  }
  FILE* captured = fopen(argv[1], "rb");
  if (!captured) {
    perror(argv[1]);
    return 1;
  }
  char* line = nullptr;
  size_t capacity = 0;
  ssize_t length;
  while ((length = getline(&line, &capacity, captured)) > 0) {
    if (line[length - 1] == '\n') line[length - 1] = '\0';
    // The logger adds the line feed back; one record per captured line.
    log(4, "%s", line);
  }
  free(line);
  fclose(captured);
  return 0;
}
