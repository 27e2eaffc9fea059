// Runs a real program and keeps all that it says.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace ravok::testing {

struct ProgramResult {
  int exit_code = -1;  // -1 when a signal ended it
  int signal = 0;      // the signal that ended it, or 0
  std::string output;
  std::string errors;
};

struct ProgramRun {
  std::string program;
  std::vector<std::string> arguments;
  // The whole environment of the program.
  std::map<std::string, std::string> environment;
  // Where its standard output goes; empty keeps it for the result.
  std::string output_path;
};

// Starts the program with an empty standard input, waits for its end and returns what it said.
ProgramResult run_program(const ProgramRun& run);

}  // namespace ravok::testing
