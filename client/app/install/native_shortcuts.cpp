// The shortcuts of an installation that are made and removed apart from a setup.

#include <filesystem>
#include <string>

#include "app/brand/brand.hpp"
#include "app/install/data_folder.hpp"
#include "app/install/native_install.hpp"
#include "domain/error.hpp"
#include "platform/file/status.hpp"
#include "platform/shortcut/shortcuts.hpp"

namespace ravok {
namespace {

DataPaths installed_paths(const std::filesystem::path& data_root) {
  DataPaths paths(data_folder(data_root));
  require(!is_missing(paths.installation_record), "not_installed", not_installed_in(paths.root));
  return paths;
}

}  // namespace

std::filesystem::path NativeInstaller::create_shortcut(const std::filesystem::path& data_root, const std::string& game,
                                                       const std::string& name, const std::filesystem::path& path) {
  const DataPaths paths = installed_paths(data_root);
  std::string display_name = name.empty() ? game : name;
  if (display_name.empty()) {
    display_name = product_name();
  }
  std::filesystem::path place = path.empty() ? native_menu_entry(paths.root, game, display_name)
                                             : std::filesystem::absolute(path).lexically_normal();
  create_owned_native_shortcut({shortcut_bootstrap(paths), paths.root, game, display_name}, place);
  return place;
}

ShortcutRemoval NativeInstaller::remove_shortcuts(const std::filesystem::path& data_root) {
  return remove_owned_native_shortcuts(installed_paths(data_root).root);
}

}  // namespace ravok
