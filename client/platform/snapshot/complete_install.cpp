#include "platform/snapshot/complete_install.hpp"

#include <array>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/status.hpp"

namespace ravok {
namespace {

constexpr int maximum_image_levels = 256;
constexpr std::array<const char*, 3> package_markers = {".ravok-native-bundle-incomplete.json",
                                                        ".ravok-initial-package-incomplete.json",
                                                        ".ravok-launcher-package-incomplete.json"};

}  // namespace

void require_complete_native_install(const std::filesystem::path& root) {
  if (!is_missing(root / incomplete_install_marker)) {
    fail("native_install_incomplete",
         "Ravok setup did not finish in " + path_utf8(root) + ". Run the Ravok installer again to repair it.",
         {"Run the Ravok installer and choose Repair"});
  }
}

void visit_image_folders(const std::filesystem::path& executable,
                         const std::function<void(const std::filesystem::path&)>& visit) {
  int levels = 0;
  std::filesystem::path directory = executable.parent_path();
  while (!directory.empty() && directory != directory.parent_path()) {
    require(++levels <= maximum_image_levels, "unsafe_path", "Native image path is too deep");
    visit(directory);
    directory = directory.parent_path();
  }
}

void require_complete_native_install_image(const std::filesystem::path& executable) {
  visit_image_folders(executable, [](const std::filesystem::path& directory) {
    require_complete_native_install(directory);
    for (const char* marker : package_markers) {
      require(is_missing(directory / marker), "native_install_incomplete",
              "This image belongs to an unfinished package; it cannot start");
    }
  });
}

}  // namespace ravok
