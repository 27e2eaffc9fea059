#include "platform/process.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/os.hpp"

namespace ravok {
namespace {

constexpr int maximum_entries = 257;
constexpr std::size_t maximum_argument_bytes = 131072;
constexpr std::size_t maximum_key_characters = 127;
constexpr std::size_t maximum_environment_bound = 131072;
constexpr std::size_t maximum_executable_path_bytes = 32768;

// Reads no byte beyond the first `bound` + 1, however long the text is.
std::string bounded_bytes(const char* text, std::size_t bound, std::string_view code) {
  require(text != nullptr, code, "Native process text is missing");
  const std::size_t length = strnlen(text, bound + 1);
  require(length <= bound, code, "Native process text exceeds its byte bound");
  return std::string(text, length);
}

bool is_key_character(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
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
  const std::optional<std::string> path = os::executable_path(maximum_executable_path_bytes);
  require(path.has_value(), "launcher_identity", "Cannot identify this native executable within its path bound");
  return path_from_utf8(*path);
}

}  // namespace ravok
