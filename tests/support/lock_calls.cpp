#include "support/lock_calls.hpp"

#include <cerrno>
#include <utility>

#include <sys/file.h>

namespace ravok::testing {
namespace {

std::function<void()> event;
std::size_t happened = 0;

}  // namespace

WhenLocked::WhenLocked(std::function<void()> wanted) {
  event = std::move(wanted);
  happened = 0;
}

WhenLocked::~WhenLocked() { event = {}; }

std::size_t WhenLocked::count() const { return happened; }

extern "C" {

int __real_flock(int file, int operation);
int __wrap_flock(int file, int operation);

int __wrap_flock(int file, int operation) {
  if (!event || (operation & LOCK_UN) != 0) {
    return __real_flock(file, operation);
  }
  const int answer = __real_flock(file, operation | LOCK_NB);
  if (answer == 0 || errno != EWOULDBLOCK) {
    return answer;
  }
  ++happened;
  event();
  if ((operation & LOCK_NB) != 0) {
    errno = EWOULDBLOCK;
    return -1;
  }
  return __real_flock(file, operation);
}
}

}  // namespace ravok::testing
