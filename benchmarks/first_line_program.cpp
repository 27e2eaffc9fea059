// The least that a launcher is: it says one line, which is how a start that is measured ends.

#include <unistd.h>

int main() {
  constexpr char line[] = "ready\n";
  return write(1, line, sizeof line - 1) == sizeof line - 1 ? 0 : 1;
}
