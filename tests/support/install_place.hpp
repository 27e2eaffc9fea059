// A package, the data folder that it is installed in and the user's home beside it, for tests of setup.
#pragma once

#include <chrono>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "app/install/data_folder.hpp"
#include "app/install/native_install.hpp"
#include "platform/shortcut/shortcuts.hpp"
#include "support/fast_volume.hpp"
#include "support/package_builder.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"
#include "support/with_environment.hpp"

namespace ravok::testing {

// The time now in UTC, by the clock that the product reads. std::time may lag behind it.
inline std::string utc_now() {
  const std::time_t time = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&time));
  return text;
}

class InstallPlace {
 public:
  const TemporaryRoot& root() const { return root_; }
  std::filesystem::path home() const { return root_ / "home"; }
  std::filesystem::path package_directory() const { return root_ / "package"; }
  const std::string& seal() const { return seal_; }
  const DataPaths& paths() const { return paths_; }
  const std::filesystem::path& data() const { return paths_.root; }
  std::filesystem::path entry() const { return native_menu_entry(data(), "", ""); }

  // The package; a test that alters it publishes it again.
  InitialPackage package = good_package();
  NativeSetupCallbacks callbacks;

  void republish() { seal_ = publish(); }

  NativeInstallResult install(bool create_shortcut = false) const { return run(false, create_shortcut); }
  NativeInstallResult repair(bool create_shortcut = false) const { return run(true, create_shortcut); }

  TreeState state() const { return tree_state(data()); }

  // Write and read a file of the data folder. A new file is private, as are the folders above it.
  std::filesystem::path write(const std::string& relative, std::string_view content) const {
    std::filesystem::path folder = data();
    make_private(folder);
    for (const std::filesystem::path& part : std::filesystem::path(relative).parent_path()) {
      folder /= part;
      make_private(folder);
    }
    const std::filesystem::path path = root_.write("data/" + relative, content);
    std::filesystem::permissions(path, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    return path;
  }
  std::string read(const std::string& relative) const { return root_.read("data/" + relative); }
  Json record(const std::string& relative) const { return Json::parse(read(relative)); }

  // Writes the player's data, which no setup may change.
  TreeState write_player_data() const {
    write("userdata/saves/first", std::string("save\0game", 9));
    write("userdata/games/game/program", "program");
    write("settings.json", "{\"volume\": 7}");
    return player_data();
  }
  TreeState player_data() const {
    TreeState kept = only(state(), "userdata");
    kept.merge(only(state(), "settings.json"));
    return kept;
  }

 private:
  static const InitialPackage& good_package() {
    static const InitialPackage package;
    return package;
  }

  static void make_private(const std::filesystem::path& folder) {
    if (std::filesystem::create_directories(folder)) {
      std::filesystem::permissions(folder, std::filesystem::perms::owner_all);
    }
  }

  std::string publish() const {
    std::filesystem::remove_all(package_directory());
    return package.write(package_directory());
  }

  NativeInstallResult run(bool repair, bool create_shortcut) const {
    NativeInstallRequest request;
    request.package = package_directory();
    request.data_root = data();
    request.repair = repair;
    request.create_shortcut = create_shortcut;
    return NativeInstaller::install(request, seal_, callbacks);
  }

  const TemporaryRoot root_{fast_volume()};
  const WithEnvironment home_{"HOME", root_.directory("home").native()};
  const WithEnvironment data_home_{"XDG_DATA_HOME", std::nullopt};
  const DataPaths paths_{root_ / "data"};
  std::string seal_ = publish();
};

}  // namespace ravok::testing
