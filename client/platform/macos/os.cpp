#include "platform/os.hpp"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>
#include <fcntl.h>
#include <mach-o/dyld.h>

namespace ravok::os {
namespace {

struct Release {
  void operator()(char* text) const { std::free(text); }
};

}  // namespace

std::string_view platform_name() { return "macos-aarch64"; }

std::string_view system_name() { return "macOS"; }

bool programs_are_bundles() { return true; }

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
  // The loader gives the path by which the program was started, and that may lead through a link. Callers look at the
  // folders above the image, so they need the real path.
  const std::unique_ptr<char, Release> image(realpath(path.c_str(), nullptr));
  const std::size_t length = image ? std::strlen(image.get()) : 0;
  return image && length <= limit ? std::optional(std::string(image.get(), length)) : std::nullopt;
}

// The loader gives no more than a path, whatever has it now.
std::optional<std::string> started_executable_path(std::size_t limit) { return executable_path(limit); }

std::string_view directory_opener() { return "/usr/bin/open"; }

std::string_view program_signer() { return "/usr/bin/codesign"; }

// The signal goes to the whole process here, so a thread's mask would not keep it off.
bool keep_quiet_when_reader_gone(int writer) { return fcntl(writer, F_SETNOSIGPIPE, 1) >= 0; }

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
