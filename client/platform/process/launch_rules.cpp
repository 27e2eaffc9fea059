#include "platform/process/launch_rules.hpp"

#include <cstddef>
#include <utility>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/status.hpp"
#include "platform/process/process_operations.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_launch_arguments = 64;
constexpr std::size_t maximum_launch_argument_bytes = 4096;
constexpr std::size_t maximum_launch_bytes = 32768;

void require_launch(bool condition, const LaunchRefusals::Refusal& refusal) {
  require(condition, refusal.code, refusal.message);
}

bool is_ordinary(const std::filesystem::path& path, EntryType type) {
  // The system would take a path only up to its first NUL byte.
  if (!path.is_absolute() || has_nul(path_utf8(path))) {
    return false;
  }
  const auto status = link_status_of(path);
  return status && status->type == type;
}

bool is_inherited(std::string_view key, const ProcessEnvironment& replacing, bool without_loader) {
  const bool of_loader = key.starts_with("LD_") || key.starts_with("DYLD_");
  return key != interrupt_reader_variable && !replacing.contains(std::string(key)) && !(without_loader && of_loader);
}

}  // namespace

bool is_launch_image(const std::filesystem::path& path) { return is_ordinary(path, EntryType::file); }

// With a separator after it, the system would follow a link.
bool is_launch_directory(const std::filesystem::path& path) {
  return is_ordinary(without_end_separator(path), EntryType::directory);
}

std::vector<std::string> launch_arguments(const std::filesystem::path& image, const std::vector<std::string>& arguments,
                                          const LaunchRefusals& refusals) {
  require_launch(arguments.size() <= maximum_launch_arguments, refusals.many_arguments);
  std::vector<std::string> table = {path_utf8(image)};
  std::size_t total = 0;
  for (const std::string& argument : arguments) {
    require_launch(!has_nul(argument) && argument.size() <= maximum_launch_argument_bytes, refusals.bad_argument);
    total += argument.size();
    table.push_back(argument);
  }
  require_launch(total <= maximum_launch_bytes, refusals.long_arguments);
  return table;
}

std::vector<std::string> launch_environment(const ProcessEnvironment& replacing, bool without_loader,
                                            const LaunchRefusals& refusals) {
  std::vector<std::string> table;
  for (std::string& variable : os::environment()) {
    if (is_inherited(std::string_view(variable).substr(0, variable.find('=')), replacing, without_loader)) {
      table.push_back(std::move(variable));
    }
  }
  for (const auto& [key, value] : replacing) {
    require_launch(!key.empty() && key.find('=') == std::string::npos && !has_nul(key) && !has_nul(value),
                   refusals.bad_variable);
    require_launch(key != interrupt_reader_variable, refusals.interrupt_variable);
    table.push_back(key + "=" + value);
  }
  return table;
}

}  // namespace ravok
