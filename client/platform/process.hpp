// What enters through the process image, bounded before it is believed: arguments, environment
// values and the program's own path.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ravok {

// Returns the arguments without the program's own name, in order: at most 256 of at most
// 131,072 bytes together. Fails with "argument_encoding" or "argument_limit".
std::vector<std::string> process_arguments(int argc, const char* const* argv);

// Returns the variable's value of at most `bound` bytes (1 to 131,072), or nothing when it is
// not set. Fails with "environment_key" for a key that is not 1 to 127 characters of A-Z, a-z,
// 0-9 and "_", and with "environment_limit" for the bound or beyond it.
std::optional<std::string> process_environment(std::string_view key, std::size_t bound);

// Returns the absolute path of the running image. Fails with "launcher_identity".
std::filesystem::path current_executable_path();

}  // namespace ravok
