#include "app/screen/setup_subject.hpp"

#include <exception>
#include <filesystem>
#include <optional>
#include <utility>

#include "app/brand/brand.hpp"
#include "app/brand/theme_folder.hpp"
#include "domain/error.hpp"
#include "domain/theme.hpp"
#include "platform/file/files.hpp"
#include "platform/process/process.hpp"
#include "platform/snapshot/complete_install.hpp"

namespace ravok {
namespace {

template <typename Source>
void read_package(SetupWindow& window, const Source& source, std::string_view seal) {
  if (const std::optional<Brand> brand = package_brand(source, seal)) {
    window.subject.publisher = brand->publisher;
  }
  if (std::optional<Theme> theme = package_theme(source, seal)) {
    set_theme(std::move(*theme));
  }
  window.icon = package_brand_icon(source, seal).value_or(std::string());
  window.subject.game = package_featured_game(source, seal);
  window.subject.manifests = package_manifests(source, seal);
}

void find_package(SetupWindow& window, SetupCommand& setup, const FindAppendedPlace& find_place) {
  SetupSubject& subject = window.subject;
  if (setup.package.empty()) {
    find_setup_package(setup, subject.package_seal, find_place);
  }
  require(!setup.package.empty(), "usage", "Choose the initial package with --package DIR");
  subject.package = setup.package;
  subject.appended = setup.appended;
  use_package_brand(setup, subject.package_seal);
  subject.data_root = setup.data_root;
  if (setup.appended) {
    read_package(window, setup.appended, subject.package_seal);
  } else {
    read_package(window, setup.package, subject.package_seal);
  }
}

// Returns the bytes of an installation's icon file; none where its brand has no icon.
std::string installed_icon(const std::filesystem::path& root) {
  const std::optional<Brand> brand = installed_brand(root);
  return brand && brand->icon ? read_file(brand_icon_path(root), package_limits::icon) : std::string();
}

}  // namespace

SetupWindow find_install_window(const WindowCommand& command, std::string_view package_seal,
                                const FindAppendedPlace& find_place) {
  require_complete_native_install_image(current_executable_path());
  SetupWindow window;
  window.subject.data_root = command.data_root;
  window.subject.data_root_chosen = command.data_root_chosen;
  window.subject.package_seal = package_seal;
  SetupCommand setup;
  setup.package = command.package;
  setup.data_root = command.data_root;
  setup.data_root_chosen = command.data_root_chosen;
  try {
    find_package(window, setup, find_place);
  } catch (const Error& error) {
    window.subject.problem = error.what();
    window.subject.problem_code = error.code;
  } catch (const std::exception& problem) {
    window.subject.problem = problem.what();
  }
  return window;
}

SetupWindow find_maintenance_window(const WindowCommand& command) {
  require_complete_native_install_image(current_executable_path());
  SetupWindow window;
  window.subject.data_root = command.data_root;
  window.subject.data_root_chosen = command.data_root_chosen;
  // What cannot be read cannot be shown. It is removed all the same.
  try {
    use_installed_brand(command.data_root);
  } catch (const std::exception&) {
    // The name of a brand is known without its theme.
  }
  try {
    window.icon = installed_icon(command.data_root);
  } catch (const std::exception&) {
    // The window then has none.
  }
  return window;
}

}  // namespace ravok
