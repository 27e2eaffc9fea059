#include "platform/os.hpp"

#include <cstdint>
#include <cstring>
#include <limits>

#include <mach-o/dyld.h>

namespace ravok::os {

std::string_view platform_name() { return "macos-aarch64"; }

std::string_view system_name() { return "macOS"; }

std::string_view data_root_below_home() { return "Library/Application Support/Ravok"; }

std::optional<std::string> executable_path(std::size_t limit) {
  if (limit > std::numeric_limits<std::uint32_t>::max()) {
    return std::nullopt;
  }
  std::string path(limit, '\0');
  auto size = static_cast<std::uint32_t>(limit);
  if (limit == 0 || _NSGetExecutablePath(path.data(), &size) != 0) {
    return std::nullopt;
  }
  path.resize(std::strlen(path.c_str()));
  return path;
}

}  // namespace ravok::os
