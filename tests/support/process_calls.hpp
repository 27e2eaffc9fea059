// Calls about processes, channels and descriptors that hardly ever fail. Linked into a test with the linker's wrapping
// of the calls' names, they fail on demand.
#pragma once

#include <optional>
#include <string>

#include <sys/types.h>

namespace ravok::testing {

// How a call goes wrong.
struct WrongCall {
  int number = 0;        // the system's number for its problem
  int calls_before = 0;  // how many calls go well first
  int times = -1;        // how many go wrong, or all of them
};

// What the calls of this process, and of those that it makes, do while the object lives. One object at a time.
class ProcessCalls {
 public:
  ProcessCalls();
  ~ProcessCalls();
  ProcessCalls(const ProcessCalls&) = delete;
  ProcessCalls& operator=(const ProcessCalls&) = delete;

  // Lets a call go wrong, by its name; those of fcntl by "fcntl F_SETFD" and the like.
  void fail(const std::string& call, const WrongCall& how);
  // Lets a call of waitpid that finds an end answer this status in its place.
  void answer_status(int status);
  // Lets kill do nothing and succeed.
  void swallow_signals();
  // Lets send send nothing and answer 0.
  void send_nothing();
  // Lets a call go wrong in this process alone, or only in those that it makes.
  void fail_here(const std::string& call, const WrongCall& how);
  void fail_there(const std::string& call, const WrongCall& how);

  // How often this process has made the call.
  int count(const std::string& call) const;
  // The status of the last end that waitpid found.
  std::optional<int> last_status() const;
};

}  // namespace ravok::testing
