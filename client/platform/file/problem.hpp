// Why the system refused something, and the answer of an operation that may be refused.
#pragma once

#include <string>
#include <utility>

namespace ravok {

// What the client tells apart among the system's refusals.
enum class Cause {
  none,
  no_space,         // the volume is full, or the user's share of it
  exists,           // something has the name already
  missing,          // nothing has the name
  not_a_directory,  // the name, or one on the way to it, is not that of a directory
  is_link,          // a link has the name
  denied,           // this user may not
  not_permitted,    // nobody may, or only the owner
  busy,             // somebody else holds it
  not_empty,        // the directory holds something
  other_volume,     // the two names are on different volumes
  too_many_open,    // the process or the system has no handles left
  not_a_file,       // it cannot be opened as a file, like a socket
  unsupported,      // this volume cannot do that
  no_reader,        // the pipe has no reader any more
  no_memory,
  input_output,  // the device failed
  other,
};

// A refusal, or none.
struct Problem {
  Cause cause = Cause::none;
  int number = 0;  // the system's own, for messages that show it

  explicit operator bool() const { return cause != Cause::none; }
  bool operator==(Cause other) const { return cause == other; }
};

// Whether a directory was not removed because it holds something. Systems answer with either of two causes.
inline bool is_not_empty(const Problem& problem) { return problem == Cause::not_empty || problem == Cause::exists; }

// The problem with this cause and the number that this system has for it.
Problem problem_of(Cause cause);

// The system's own words for it, such as "Permission denied".
std::string problem_text(const Problem& problem);

// Fails with "too_many_files" when the operation was refused for a lack of handles; otherwise does nothing.
void require_handles(const Problem& problem);

// The value of an operation that was not refused, or the problem of one that was.
template <typename Value>
class Result {
 public:
  Result(Value value) : value_(std::move(value)) {}
  Result(Problem problem) : problem_(problem) {}

  explicit operator bool() const { return !problem_; }
  bool has_value() const { return !problem_; }

  // After a refusal these give a default-constructed value.
  const Value& operator*() const& { return value_; }
  Value& operator*() & { return value_; }
  Value&& operator*() && { return std::move(value_); }
  const Value* operator->() const { return &value_; }
  Value* operator->() { return &value_; }

  const Problem& problem() const { return problem_; }

 private:
  Value value_{};
  Problem problem_;
};

}  // namespace ravok
