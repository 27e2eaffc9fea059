#include "app/launcher/launcher_image.hpp"

#include <system_error>

#include "app/launcher/launcher_reference.hpp"
#include "app/maintenance/maintenance_runtime.hpp"
#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/snapshot/complete_install.hpp"

namespace ravok {
namespace {

constexpr int maximum_image_levels = 256;

// Calls `look` with each folder above the image, the nearest first, until it returns true.
template <typename Look>
void walk_up(const std::filesystem::path& image, Look look) {
  int levels = 0;
  std::filesystem::path folder = std::filesystem::absolute(image).lexically_normal().parent_path();
  while (folder != folder.parent_path()) {
    require(++levels <= maximum_image_levels, "launcher_identity", "Native executable ancestry exceeds its bound");
    if (look(folder)) {
      return;
    }
    folder = folder.parent_path();
  }
}

}  // namespace

void reject_staged_image(const std::filesystem::path& image) {
  require_maintenance_runtime_image(image);
  require_complete_native_install_image(image);
  walk_up(image, [](const std::filesystem::path& folder) {
    const DataPaths data(folder.parent_path().parent_path());
    require(folder != LauncherPaths(data.launcher).staging, "launcher_staging",
            "A staged Ravok image cannot initialize; start the installed bootstrap", {"self status"});
    return false;
  });
}

std::optional<ManagedVersion> managed_version(const std::filesystem::path& image) {
  std::optional<ManagedVersion> found;
  walk_up(image, [&](const std::filesystem::path& folder) {
    const std::string name = name_of(folder);
    const DataPaths data(folder.parent_path().parent_path().parent_path());
    if (name.size() == sha256_characters && folder.parent_path() == LauncherPaths(data.launcher).versions) {
      found = ManagedVersion{data.root, hash_identity(Json(name))};
    }
    return found.has_value();
  });
  return found;
}

bool is_same_folder(const std::filesystem::path& first, const std::filesystem::path& second) {
  std::error_code unknown;
  return std::filesystem::equivalent(first, second, unknown);
}

}  // namespace ravok
