// A property that must hold for every input; a fuzzer stops at the first input that breaks it.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace ravok::fuzz {

inline void must_hold(bool condition, const char* property) {
  if (!condition) {
    std::fprintf(stderr, "This does not hold: %s\n", property);
    std::abort();
  }
}

}  // namespace ravok::fuzz
