// A real program that runs beside a test, with the descriptors, signals and bounds that the test chooses.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "platform/file/handle.hpp"

namespace ravok::testing {

struct ProgramStart {
  std::string program;
  std::vector<std::string> arguments;
  // The whole environment of the program.
  std::map<std::string, std::string> environment;
  // The standard descriptors, 0 to 2, that it starts without.
  std::vector<int> closed = {};
  // The signals that it starts with ignored. Every other signal that ends a program is left to the default.
  std::vector<int> ignored = {};
  // The most bytes that a file of it may have.
  std::optional<std::size_t> file_size_limit = {};
  // Its descriptors have numbers below this one.
  std::optional<std::size_t> descriptor_limit = {};
  // How many descriptors it inherits besides, which nobody has closed.
  std::size_t inherited_descriptors = 0;
  // How many bytes standard error takes until the test reads them; at least 1, at most 4096.
  std::size_t error_room = 4096;
  // The file that takes its standard error, which then has no bound; empty for a pipe.
  std::string errors_path = {};
  // Whether anybody has the other end of its standard output.
  bool output_is_read = true;
};

class StartedProgram {
 public:
  // Starts the program with the null device for its standard input, and pipes for the other two.
  explicit StartedProgram(const ProgramStart& start);
  // Kills the process, if it is still there.
  ~StartedProgram();
  StartedProgram(const StartedProgram&) = delete;
  StartedProgram& operator=(const StartedProgram&) = delete;

  // Waits until standard error takes no more, or until the program has ended. Returns whether it takes no more.
  bool wait_until_full();
  void send_signal(int signal) const;
  // Returns whether it has a handler for the signal by now.
  bool catches(int signal) const;
  // Gives up the test's end of its standard error.
  void close_errors() { errors_.reset(); }
  // Returns whether it has ended. Does not wait.
  bool has_ended();

  // Wait until nobody writes to the stream any more, and return all that was said there. A file is read as it is.
  std::string output();
  std::string errors();
  // Waits for its end and returns its exit code, or minus the signal that ended it.
  int wait();

 private:
  pid_t child_ = 0;
  Handle output_;
  Handle errors_;
  std::string errors_path_;
  std::size_t filling_ = 0;
  std::optional<int> end_;
};

}  // namespace ravok::testing
