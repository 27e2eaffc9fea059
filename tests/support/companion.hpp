// A second process that runs beside a test. The test tells it to go on or to end, and reads what it says line by line.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

#include "platform/file/handle.hpp"

namespace ravok::testing {

class Companion {
 public:
  // Starts the program with pipes for its standard input and output.
  Companion(const std::string& program, const std::vector<std::string>& arguments);
  // Kills the process, if it is still there.
  ~Companion();
  Companion(const Companion&) = delete;
  Companion& operator=(const Companion&) = delete;

  // Waits for its next line and returns it without its end. Once the process says no more, returns the rest, which may
  // be empty.
  std::string read_line();
  // Closes its standard input, which tells it to go on.
  void close_input() { input_.reset(); }
  void send_signal(int signal) const;
  // Returns whether it has ended. Does not wait.
  bool has_ended();
  // Waits for its end and returns its exit code, or minus the signal that ended it.
  int wait();

 private:
  void keep_end(int status);

  pid_t child_ = 0;
  Handle input_;
  Handle output_;
  bool ended_ = false;
  int end_ = 0;
};

}  // namespace ravok::testing
