// Lets a test fail, cut short or precede with an event the calls to the file system that the program under test makes.
// Linked into a test with the linker's wrapping of the calls' names.
//
// A call is named by its function. Only open has more names: "create" with O_CREAT, "anchor" for the root directory,
// "open directory" for another directory, and "open" for the rest.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>

namespace ravok::testing {

struct Plan {
  std::string_view call = {};
  int countdown = 0;           // which of the calls of that name is meant, from 1
  std::string beginning = {};  // of the names to which a "create" or an "openat" applies; empty for all
  bool fails = false;
  int problem = 0;                                // errno of the failure; 0 makes the call answer 0
  bool lasts = false;                             // whether every later one of the calls fails too
  std::function<void()> meanwhile = {};           // runs just before the call
  std::size_t longest_piece = std::string::npos;  // what one read or write moves at most, in bytes
  std::function<void(struct stat&)> revise = {};  // changes what every fstat answers
  std::optional<std::string> value = {};          // what an fgetxattr that fails answers instead
};

// A plan in which the `countdown`th call of this name fails with this errno; an errno of 0 makes it answer 0.
Plan failing(std::string_view call, int problem, int countdown = 1);

// A plan in which the transaction file of the file of this name cannot be made, with this errno.
Plan failing_to_write(std::string name, int problem);

// A plan in which the `countdown`th attribute that is asked for has this value.
Plan holding(std::string value, int countdown = 1);

// A plan in which the event happens just before the `countdown`th call of this name.
Plan meanwhile(std::string_view call, std::function<void()> event, int countdown = 1);

// Carries out a plan for as long as the object lives. One object at a time.
class Planned {
 public:
  explicit Planned(Plan plan);
  ~Planned();
  Planned(const Planned&) = delete;
  Planned& operator=(const Planned&) = delete;

  // Whether the call that is meant was made.
  bool happened() const;
  // How often a call was made.
  std::ptrdiff_t count(std::string_view call) const;
  // The calls of these names in the order in which they were made.
  std::vector<std::string> order_of(const std::vector<std::string>& names) const;
  // The most bytes that one read asked for.
  std::size_t longest_read() const;
};

}  // namespace ravok::testing
