// A second process that changes names under a test's feet, over and over until its standard input ends. Then everything
// is back under the name that it had, unless somebody else has moved it. It says "ready" after the first round, and at
// its end how many rounds there were.
//
//   race_adversary COUNTS [exchange A B | rename A B | plant A B]...
//
// COUNTS is a file of zeros that the test has mapped too: a number of 64 bits for each change, which grows by one
// whenever the change or its undoing has really happened.
//
// A round does each change in turn and then undoes them from the last to the first. "plant" moves whatever has
// the name A to B with numbers appended, and gives the name A to the link B as well; that is not undone.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/file/file_operations.hpp"

namespace ravok {
namespace {

using Count = std::atomic<std::uint64_t>;

struct Change {
  std::string kind;
  std::string first;
  std::string second;
  Count* happened;
};

Count* map_counts(const char* path, std::size_t number) {
  const int file = open(path, O_RDWR | O_CLOEXEC);
  void* const memory = mmap(nullptr, number * sizeof(Count), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  return memory == MAP_FAILED ? nullptr : static_cast<Count*>(memory);
}

bool exists(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

// Waits for another time in each round, so that the change falls into any step of the work on `victim`.
bool plant(const std::string& victim, const std::string& planted) {
  constexpr unsigned long longest_while = 256;
  static unsigned long number = 0;
  if (!exists(victim)) {
    return false;
  }
  ++number;
  for (unsigned long left = number * 37 % longest_while; left > 0 && exists(victim); --left) {
  }
  const std::string aside = planted + "." + std::to_string(getpid()) + "." + std::to_string(number);
  // The new name is a hard link to the link itself.
  return !os::rename_exclusive(AT_FDCWD, victim.c_str(), AT_FDCWD, aside.c_str()) &&
         linkat(AT_FDCWD, planted.c_str(), AT_FDCWD, victim.c_str(), 0) == 0;
}

// Returns whether it has happened.
bool try_to(const Change& change, bool back) {
  if (change.kind == "plant") {
    return plant(change.first, change.second);
  }
  const char* const from = (back ? change.second : change.first).c_str();
  const char* const to = (back ? change.first : change.second).c_str();
  return change.kind == "exchange" ? !os::exchange_names(AT_FDCWD, from, AT_FDCWD, to)
                                   : !os::rename_exclusive(AT_FDCWD, from, AT_FDCWD, to);
}

// Returns whether there is something to undo.
bool apply(const Change& change, bool back) {
  const bool happened = try_to(change, back);
  *change.happened += happened ? 1 : 0;
  return happened && change.kind != "plant";
}

void do_round(const std::vector<Change>& changes) {
  std::vector<const Change*> done;
  for (const Change& change : changes) {
    if (apply(change, false)) {
      done.push_back(&change);
    }
  }
  for (auto change = done.rbegin(); change != done.rend(); ++change) {
    apply(**change, true);
  }
}

bool input_has_ended() {
  pollfd input{.fd = 0, .events = POLLIN, .revents = 0};
  return poll(&input, 1, 0) > 0;
}

}  // namespace
}  // namespace ravok

int main(int count, char** words) {
  const auto number = static_cast<std::size_t>(count > 2 ? (count - 2) / 3 : 0);
  ravok::Count* const counts = number == 0 ? nullptr : ravok::map_counts(words[1], number);
  if (counts == nullptr) {
    return 1;
  }
  std::vector<ravok::Change> changes;
  for (std::size_t i = 0; i < number; ++i) {
    char** const word = words + 2 + 3 * i;
    changes.push_back({word[0], word[1], word[2], counts + i});
  }
  ravok::do_round(changes);
  std::cout << "ready" << std::endl;
  unsigned long rounds = 1;
  while (!ravok::input_has_ended()) {
    ravok::do_round(changes);
    ++rounds;
  }
  std::cout << rounds << std::endl;
}
