// A program of the sample product: it says which one it is and what it was asked for.

#include <cstdio>

int main(int argc, char** argv) {
  std::printf("This is the sample %s.\n", SAMPLE_PROGRAM);
  for (int i = 1; i < argc; ++i) {
    std::printf("It was asked for: %s\n", argv[i]);
  }
  return 0;
}
