// What happens when a lock is not free, without a second thread. Linked into a test with the linker's wrapping of the
// call's name.
#pragma once

#include <cstddef>
#include <functional>

namespace ravok::testing {

// As long as it lives, an event happens whenever a lock is asked for that another holds: just before the wait for it
// begins, or before its refusal is returned. An event that makes the lock free ends the wait. One object at a time.
class WhenLocked {
 public:
  explicit WhenLocked(std::function<void()> event);
  ~WhenLocked();
  WhenLocked(const WhenLocked&) = delete;
  WhenLocked& operator=(const WhenLocked&) = delete;

  // How often the event has happened.
  std::size_t count() const;
};

}  // namespace ravok::testing
