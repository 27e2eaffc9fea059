// What any C++ program costs before it does anything; the iostreams bring the library in.
#include <iostream>

int main() {
  std::cout.flush();
  return 0;
}
