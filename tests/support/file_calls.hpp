// Failing, cutting short and preceding with an event the calls that the program under test makes
// to the file system. Linked into a test with the linker's wrapping of the calls' names.
//
// A call is named by its function; but open is "create" with O_CREAT, "anchor" for the root
// directory, "open directory" for another, and else "open".
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
  std::string beginning = {};  // of the file names that are meant by a "create"; empty for all
  bool fails = false;
  int problem = 0;                                // errno of the failure; 0 makes the call answer 0
  std::function<void()> meanwhile = {};           // runs ahead of the call
  std::size_t longest_piece = std::string::npos;  // what one read or write moves at most, in bytes
  std::function<void(struct stat&)> revise = {};  // changes what every fstat answers
  std::optional<std::string> value = {};          // what an fgetxattr that fails answers instead
};

// The call, the `countdown`th of its name, fails with this errno; 0 makes it answer 0.
Plan failing(std::string_view call, int problem, int countdown = 1);

// The making of the transaction file of that name's file fails with this errno.
Plan failing_to_write(std::string name, int problem);

// That attribute, the `countdown`th that is asked for, has this value.
Plan holding(std::string value, int countdown = 1);

// The event happens just ahead of the call, the `countdown`th of its name.
Plan meanwhile(std::string_view call, std::function<void()> event, int countdown = 1);

// A plan that holds for as long as the object lives. One at a time.
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
