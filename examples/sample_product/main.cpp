// A program of the sample product: it says which one it is and what it was asked for.

#include <cstdio>

#include "platform/process/program_start.hpp"

int main(int argc, char** argv) {
  if (!ravok::start_program()) {
    return 1;
  }
  std::printf("This is the sample %s.\n", SAMPLE_PROGRAM);
  for (int i = 1; i < argc; ++i) {
    std::printf("It was asked for: %s\n", argv[i]);
  }
  return std::fflush(stdout) == 0 && std::ferror(stdout) == 0 ? 0 : 1;
}
