#include "platform/os.hpp"

#include <unistd.h>

#include "platform/file/status.hpp"

namespace ravok::os {
namespace {

constexpr const char* running_image = "/proc/self/exe";

// What the system adds to the path of an image that has been removed or replaced.
constexpr std::string_view removed_image = " (deleted)";

// The system tells where the image lay when it was started. Since then it may have been removed, which adds words
// to the path, and another file may have taken its place.
bool is_running_image(const std::string& path) {
  const auto named = link_status_of(path);
  const auto running = target_status_of(running_image);
  return named && running && same_file(*named, *running);
}

// The path of the image as the system tells it.
std::optional<std::string> image_path(std::size_t limit) {
  // One byte more than allowed tells a path that is cut off from one that just fits.
  std::string path(limit + 1, '\0');
  const ssize_t size = readlink(running_image, path.data(), path.size());
  if (size <= 0 || static_cast<std::size_t>(size) > limit) {
    return std::nullopt;
  }
  path.resize(static_cast<std::size_t>(size));
  return path;
}

}  // namespace

std::string_view platform_name() { return "linux-x86_64"; }

std::string_view system_name() { return "Linux"; }

bool programs_are_bundles() { return false; }

std::string_view data_root_below_home() { return ".local/share/Ravok"; }

std::optional<std::string> executable_path(std::size_t limit) {
  const std::optional<std::string> path = image_path(limit);
  return path && is_running_image(*path) ? path : std::nullopt;
}

std::optional<std::string> started_executable_path(std::size_t limit) {
  std::optional<std::string> path = image_path(limit + removed_image.size());
  if (path && path->ends_with(removed_image) && !is_running_image(*path)) {
    path->resize(path->size() - removed_image.size());
  }
  return path && path->size() <= limit ? path : std::nullopt;
}

std::string_view directory_opener() { return "xdg-open"; }

std::string_view program_signer() { return {}; }

// The signal is for the thread that writes, which keeps it off by itself.
bool keep_quiet_when_reader_gone(int) { return true; }

ShortcutForm shortcut_form() { return ShortcutForm::desktop_entry; }

bool register_application(const std::string&) { return false; }

}  // namespace ravok::os
