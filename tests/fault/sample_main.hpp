// How every sample program ends: with 0, or with one line on standard error that says what went wrong, and a code for
// its kind.
#pragma once

#include <exception>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "domain/error.hpp"

namespace ravok::testing {

// Runs a program's work with its arguments and returns its exit code: what `run` returns, 1 for an Error, 2 for a
// failure of the standard library's file operations, 3 for any other.
template <typename Run>
int sample_main(int argc, char** argv, Run run) {
  try {
    return run(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const Error& error) {
    std::cerr << error.code << ": " << error.what() << '\n';
    return 1;
  } catch (const std::filesystem::filesystem_error& error) {
    std::cerr << "file system: " << error.code().message() << '\n';
    return 2;
  } catch (const std::exception& error) {
    std::cerr << "not an Error: " << error.what() << '\n';
    return 3;
  }
}

}  // namespace ravok::testing
