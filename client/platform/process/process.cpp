#include "platform/process/process.hpp"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/status.hpp"
#include "platform/os.hpp"
#include "platform/process/launch_rules.hpp"
#include "platform/process/process_operations.hpp"

namespace ravok {
namespace {

constexpr int maximum_entries = 257;
constexpr std::size_t maximum_argument_bytes = 131072;
constexpr std::size_t maximum_key_characters = 127;
constexpr std::size_t maximum_environment_bound = 131072;
constexpr std::size_t maximum_executable_path_bytes = 32768;

constexpr LaunchRefusals replacement_refusals = {
    .many_arguments = {"argument_limit", "Too many replacement arguments"},
    .bad_argument = {"argument_encoding", "Invalid maintenance argument"},
    .long_arguments = {"argument_limit", "Maintenance arguments exceed their bound"},
    .bad_variable = {"argument_encoding", "Invalid maintenance environment"},
    .interrupt_variable = {"argument_encoding", "Maintenance cannot inherit launcher interrupt authority"},
};

// Reads no byte beyond the first `bound` + 1, however long the text is.
std::string bounded_bytes(const char* text, std::size_t bound, std::string_view code) {
  require(text != nullptr, code, "Native process text is missing");
  std::size_t length = 0;
  while (length <= bound && text[length] != '\0') {
    ++length;
  }
  require(length <= bound, code, "Native process text exceeds its byte bound");
  return std::string(text, length);
}

bool is_key_character(char c) { return is_letter_or_digit(c) || c == '_'; }

[[noreturn]] void replace_image(const std::filesystem::path& image, const std::vector<std::string>& arguments,
                                const std::filesystem::path& directory, const ProcessEnvironment& environment,
                                bool scrub) {
  require(is_launch_image(image) && is_launch_directory(directory), "process_start",
          "Replacement image or directory is unavailable");
  std::vector<std::string> argument_table = launch_arguments(image, arguments, replacement_refusals);
  std::vector<std::string> environment_table = launch_environment(environment, scrub, replacement_refusals);
  const os::ReplacementProblem end = os::replace_program(path_utf8(image), std::move(argument_table),
                                                         std::move(environment_table), path_utf8(directory));
  require(!end.in_directory, "process_start", "Cannot enter the external maintenance runtime");
  fail("process_start", "Cannot replace this process (native error " + std::to_string(end.problem.number) + ")");
}

std::filesystem::path require_image(const std::optional<std::string>& path) {
  require(path.has_value(), "launcher_identity", "Cannot identify this native executable within its path bound");
  return path_from_utf8(*path);
}

}  // namespace

std::vector<std::string> process_arguments(int argc, const char* const* argv) {
  require(argc > 0 && argv != nullptr, "argument_encoding", "Native command arguments are missing");
  require(argc <= maximum_entries, "argument_limit", "Too many native command arguments");
  std::vector<std::string> arguments;
  std::size_t budget = maximum_argument_bytes;
  for (int i = 1; i < argc; ++i) {
    arguments.push_back(bounded_bytes(argv[i], budget, "argument_encoding"));
    budget -= arguments.back().size();
  }
  std::size_t total = 0;
  for (const std::string& argument : arguments) {
    total += argument.size();
  }
  require(total <= maximum_argument_bytes, "argument_limit", "Native command arguments exceed their total byte bound");
  return arguments;
}

std::optional<std::string> process_environment(std::string_view key, std::size_t bound) {
  require(!key.empty() && key.size() <= maximum_key_characters && std::all_of(key.begin(), key.end(), is_key_character),
          "environment_key", "Native environment key is invalid");
  require(bound >= 1 && bound <= maximum_environment_bound, "environment_limit", "Native environment bound is invalid");
  const char* const value = std::getenv(std::string(key).c_str());
  if (value == nullptr) {
    return std::nullopt;
  }
  return bounded_bytes(value, bound, "environment_limit");
}

std::filesystem::path current_executable_path() {
  return require_image(os::executable_path(maximum_executable_path_bytes));
}

std::filesystem::path started_executable_path() {
  std::optional<std::string> path = os::started_executable_path(maximum_executable_path_bytes);
  if (path && is_missing(*path)) {
    path.reset();
  }
  return require_image(path);
}

void require_replacement_arguments(const std::vector<std::string>& arguments) {
  launch_arguments({}, arguments, replacement_refusals);
}

void replace_process(const std::filesystem::path& image, const std::vector<std::string>& arguments,
                     const std::filesystem::path& directory, const ProcessEnvironment& environment) {
  replace_image(image, arguments, directory, environment, true);
}

void exec_process(const std::filesystem::path& image, const std::vector<std::string>& arguments,
                  const std::filesystem::path& directory, const ProcessEnvironment& environment) {
  replace_image(image, arguments, directory, environment, false);
}

}  // namespace ravok
