#include "platform/os.hpp"

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>
#include <mach-o/dyld.h>

namespace ravok::os {
namespace {

struct Release {
  void operator()(char* text) const { std::free(text); }
};

}  // namespace

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
  // The system answers the path that was started, with links and steps upward on the way.
  const std::unique_ptr<char, Release> resolved(realpath(path.c_str(), nullptr));
  if (!resolved) {
    return std::nullopt;
  }
  path = resolved.get();
  return path.size() <= limit ? std::optional(path) : std::nullopt;
}

std::string_view directory_opener() { return "/usr/bin/open"; }

ShortcutForm shortcut_form() { return ShortcutForm::launch_document; }

bool register_application(const std::string& path) {
  const CFURLRef url = CFURLCreateFromFileSystemRepresentation(nullptr, reinterpret_cast<const UInt8*>(path.data()),
                                                               static_cast<CFIndex>(path.size()), true);
  if (url == nullptr) {
    return false;
  }
  const OSStatus answer = LSRegisterURL(url, true);
  CFRelease(url);
  return answer == 0;
}

}  // namespace ravok::os
