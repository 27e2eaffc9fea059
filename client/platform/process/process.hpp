// The arguments, the environment and the program's own path, checked against bounds before they are used; and the start
// of another program in place of this one.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/process/launch_rules.hpp"

namespace ravok {

// Returns the arguments without the program's own name, in order: at most 256 of at most
// 131,072 bytes together. Fails with "argument_encoding" or "argument_limit".
std::vector<std::string> process_arguments(int argc, const char* const* argv);

// Returns the variable's value of at most `bound` bytes (1 to 131,072), or nothing when it is
// not set. Fails with "environment_key" for a key that is not 1 to 127 characters of A-Z, a-z,
// 0-9 and "_", and with "environment_limit" for the bound or beyond it.
std::optional<std::string> process_environment(std::string_view key, std::size_t bound);

// Returns the absolute path of the running image. Fails with "launcher_identity", also for an image that has been
// removed since it was started or, where the system tells, replaced.
std::filesystem::path current_executable_path();

// The same for a program that may be replaced while it starts: returns the path that its image had then, where a file
// has that path now.
std::filesystem::path started_executable_path();

// Replace this process with another program, in another directory, both absolute and no links, and return
// only by failing. The arguments, at most 64 of at most 4096 bytes, do not hold the program's name. The
// variable that hands the console's interrupts to a launcher is never inherited; replace_process also
// keeps back the variables of the dynamic loader. Fail with "process_start", "argument_limit" or
// "argument_encoding"; then nothing has changed.
[[noreturn]] void replace_process(const std::filesystem::path& image, const std::vector<std::string>& arguments,
                                  const std::filesystem::path& directory, const ProcessEnvironment& environment);
[[noreturn]] void exec_process(const std::filesystem::path& image, const std::vector<std::string>& arguments,
                               const std::filesystem::path& directory, const ProcessEnvironment& environment);

// Accepts only arguments that the two take. Fails with "argument_limit" or "argument_encoding" as they do.
void require_replacement_arguments(const std::vector<std::string>& arguments);

}  // namespace ravok
