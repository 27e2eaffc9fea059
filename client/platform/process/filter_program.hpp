// The seam to the operating system for a program that answers what it is given, and for a question that only a person
// at the terminal answers. The folders of the system that is built for define all of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/file/problem.hpp"

namespace ravok::os {

// How a program ended that was given an input and asked for its output.
enum class FilterEnd {
  not_prepared,  // its streams could not be set up
  not_started,   // there is no such program, or it cannot be started
  exited,        // by itself, with an exit code
  signalled,     // by a signal that was not sent from here
  given_up,      // it was ended because the caller no longer waits for it
  too_long,      // it was ended because it said more than the caller takes
};

struct FilterResult {
  FilterEnd end = FilterEnd::not_prepared;
  std::uint64_t code = 0;  // the exit code, or the number of the signal
  Problem problem;         // why it could not be prepared or started
  std::string output;      // what it said on its standard output, at most as much as the caller takes
};

// Runs a program, named by the first of the words and found on the search path, with the others as its arguments, and
// waits for its end. On its standard input it finds the bytes, as a file that it can read again and whose size it can
// tell. Its standard error is this process's. Takes at most `limit` bytes of its standard output. Asks `give_up` about
// every 20 milliseconds; once that answers true, the program is asked to end, and killed if it has not ended two
// seconds later. Programs that it has started itself and left behind are neither waited for nor ended.
FilterResult filter(std::vector<std::string> words, std::string_view input, std::size_t limit,
                    const std::function<bool()>& give_up);

enum class HiddenLine {
  read,
  no_terminal,  // no terminal controls this process
  cancelled,
  too_long,
  failed,
};

struct HiddenInput {
  HiddenLine end = HiddenLine::failed;
  std::size_t size = 0;  // how many bytes were read, without the end of the line
};

// Shows a text on the terminal that controls this process, and reads into `line` what is typed there up to the end of
// the line, without showing it. Asks `cancelled` at least five times a second. Leaves no copy of what is typed in this
// process but in `line`.
HiddenInput read_hidden_line(std::string_view prompt, std::span<std::uint8_t> line,
                             const std::function<bool()>& cancelled);

}  // namespace ravok::os
