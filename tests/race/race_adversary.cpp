// A second process that changes names under a test's feet, over and over until its standard input
// ends; then everything is back under the name that it had, if nobody else moved it. It says
// "ready" after the first round, and at its end how many rounds there were.
//
//   race_adversary [exchange A B | rename A B | plant A B]...
//
// A round does each change in turn and then undoes them from the last to the first. To plant is to move whatever comes
// to A aside, to B with numbers behind it, and to put the link B in its place: that is not undone.

#include <cstdio>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/os.hpp"

namespace ravok {
namespace {

struct Change {
  std::string kind;
  std::string first;
  std::string second;
};

bool exists(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

// Each time after another while, so that it happens at any step of what is being done to `victim`.
void plant(const std::string& victim, const std::string& planted) {
  constexpr unsigned long longest_while = 256;
  static unsigned long number = 0;
  if (!exists(victim)) {
    return;
  }
  ++number;
  for (unsigned long left = number * 37 % longest_while; left > 0 && exists(victim); --left) {
  }
  const std::string aside = planted + "." + std::to_string(getpid()) + "." + std::to_string(number);
  if (os::rename_exclusive(AT_FDCWD, victim.c_str(), AT_FDCWD, aside.c_str()) == 0) {
    // A second name of the link itself.
    [[maybe_unused]] const int ignored = linkat(AT_FDCWD, planted.c_str(), AT_FDCWD, victim.c_str(), 0);
  }
}

// Returns whether there is something to undo.
bool apply(const Change& change, bool back) {
  if (change.kind == "plant") {
    plant(change.first, change.second);
    return false;
  }
  const char* const from = (back ? change.second : change.first).c_str();
  const char* const to = (back ? change.first : change.second).c_str();
  return change.kind == "exchange" ? os::exchange_names(AT_FDCWD, from, AT_FDCWD, to) == 0
                                   : os::rename_exclusive(AT_FDCWD, from, AT_FDCWD, to) == 0;
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
  std::vector<ravok::Change> changes;
  for (int i = 1; i + 2 < count; i += 3) {
    changes.push_back({words[i], words[i + 1], words[i + 2]});
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
