// The seam to the operating system for programs that this one starts or becomes. The folders of the system that is
// built for define all of it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/file/problem.hpp"

namespace ravok::os {

// The variables of this process's environment, each as its name, "=" and its value.
std::vector<std::string> environment();

// Removes a variable from this process's environment, if it is there, and returns whether it is gone. No other thread
// may use the environment meanwhile.
bool remove_variable(const std::string& name);

// The number by which the system knows this process.
std::uint64_t process_id();

// Makes this process another program, in another directory. `arguments` begins with the program's own name, and
// `environment` has the form of the function of that name. Returns only the problem, and then nothing has changed.
struct ReplacementProblem {
  bool in_directory = false;  // whether it was the directory that could not be entered
  Problem problem;
};
ReplacementProblem replace_program(const std::string& image, std::vector<std::string> arguments,
                                   std::vector<std::string> environment, const std::string& directory);

// How a program ended that was started and waited for.
enum class ProgramEnd {
  not_prepared,  // its streams could not be set up
  not_started,   // there is no such program, or it cannot be started
  failed,        // it ended otherwise than with the exit code 0
  succeeded,
};

// Runs a program, named by the first of the words and found on the search path, with the others as its arguments, and
// waits for its end. What it says on its standard output goes to this process's standard error.
ProgramEnd run_program(std::vector<std::string> words);

}  // namespace ravok::os
