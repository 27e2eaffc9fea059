// What a piece of work does when memory runs out at any one of its allocations. Linked into a test, it replaces
// the program's own allocation functions; the test links with the wrapping of malloc, calloc, realloc and strdup, and
// with its symbols exported.
//
// The JSON library allocates in a destructor when it takes a value apart, where a failure would end any program. These
// allocations are always served.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace ravok::testing {

// Whose allocations run out: those of C++ code, or those of the C libraries that are linked in.
enum class Allocations { of_code, of_libraries };

// What fails from the chosen allocation on: that one alone, or it and every later one of the work.
enum class Shortage { once, lasting };

enum class Ending {
  success,        // the work returned
  spared,         // it returned, as the allocation was one that is always served
  out_of_memory,  // it threw std::bad_alloc
  refused,        // it threw an Error
  other,          // it threw anything else
  exited,         // a library ended the process in its own way, which is an exit code
  terminated,     // a signal ended the process
};

// How a run with a failing allocation ended.
struct ShortRun {
  std::size_t number = 0;  // of the allocation that failed, from 1
  Ending ending = Ending::success;
  std::string problem;                  // a refusal's code, or what is known of an unexpected end
  std::ptrdiff_t open_descriptors = 0;  // how many more are open than before
};

struct ShortTrial {
  std::function<void()> prepare;                 // before every run
  std::function<void()> work;                    // in a process of its own, a copy of this one
  std::function<void(const ShortRun&)> inspect;  // after every run
};

struct ShortRuns {
  std::size_t allocations = 0;  // that the work makes when none fails
  std::size_t runs = 0;
  std::size_t spared = 0;
  std::size_t succeeded = 0;  // though an allocation failed
  std::size_t exited = 0;
};

// Runs the work once for every allocation that it makes, or for at most `most_runs` of them at even distances, the
// first included, and for each of the last 24. Expects that no run ends otherwise than in success, in std::bad_alloc,
// in an Error or, of the libraries' allocations, by an exit of theirs, and that it leaves no descriptor open.
ShortRuns at_every_allocation(Allocations allocations, Shortage shortage, std::size_t most_runs,
                              const ShortTrial& trial);

}  // namespace ravok::testing
