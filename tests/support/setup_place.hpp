// A sealed package, a user's home and a data folder, for tests of what setup does with them.
#pragma once

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/install/data_folder.hpp"
#include "app/install/installation_record.hpp"
#include "app/install/native_install.hpp"
#include "app/launcher/launcher_store.hpp"
#include "platform/file/status.hpp"
#include "platform/shortcut/shortcuts.hpp"
#include "platform/snapshot/snapshot_tree.hpp"
#include "support/fast_volume.hpp"
#include "support/icon_builder.hpp"
#include "support/package_builder.hpp"
#include "support/temporary_root.hpp"
#include "support/with_environment.hpp"

namespace ravok::testing {

class SetupPlace {
 public:
  SetupPlace() : home_("HOME", home().native()), data_home_("XDG_DATA_HOME", std::nullopt) {
    InitialPackage contents;
    contents.featured_game.reset();
    seal_ = contents.write(package());
    root_.directory("place/home");
  }

  const TemporaryRoot& root() const { return root_; }
  std::filesystem::path package() const { return root_ / "package"; }
  const std::string& seal() const { return seal_; }
  std::filesystem::path place() const { return root_ / "place"; }
  std::filesystem::path home() const { return place() / "home"; }
  std::filesystem::path data() const { return place() / "data"; }
  DataPaths paths() const { return DataPaths(data()); }
  std::filesystem::path shortcut() const { return native_menu_entry(data(), "", ""); }

  // Makes a file below the data folder.
  std::filesystem::path write(const std::string& name, const std::string& content) const {
    return root_.write("place/data/" + name, content);
  }
  std::string read(const std::string& name) const { return root_.read("place/data/" + name); }
  void write_player_data() const {
    write("userdata/save", "a long way");
    write("settings.json", "{\"volume\": 11}");
  }

  NativeInstallResult install(const NativeSetupCallbacks& callbacks = {}) const {
    return NativeInstaller::install({package(), data(), false, true}, seal_, callbacks);
  }
  NativeInstallResult repair(const NativeSetupCallbacks& callbacks = {}) const {
    return NativeInstaller::install({package(), data(), true, true}, seal_, callbacks);
  }
  NativeUninstallResult uninstall(bool remove_data = false, const NativeSetupCallbacks& callbacks = {}) const {
    return NativeInstaller::uninstall({data(), remove_data, std::chrono::milliseconds(0)}, callbacks);
  }
  NativeInstallStatus status() const { return NativeInstaller::status(data()); }

  // Everything in the home and the data folder by its name: a file's content, where a link leads, nothing for a
  // directory.
  std::map<std::string, std::string> all() const {
    std::map<std::string, std::string> found;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(place())) {
      const std::string name = entry.path().lexically_relative(place());
      if (entry.is_symlink()) {
        found[name] = std::filesystem::read_symlink(entry.path());
      } else if (entry.is_directory()) {
        found[name + "/"] = "";
      } else {
        found[name] = root_.read("place/" + name);
      }
    }
    return found;
  }

  // The names directly in the data folder, sorted; none where it is missing.
  std::vector<std::string> top_names() const {
    std::vector<std::string> names;
    if (!is_missing(data())) {
      for (const auto& entry : std::filesystem::directory_iterator(data())) {
        names.push_back(entry.path().filename());
      }
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  // The folder holds a complete installation of the package: its trees and its records, and nothing unfinished.
  void expect_complete() const {
    const DataPaths paths = this->paths();
    const NativeInstallStatus now = status();
    EXPECT_TRUE(now.installed);
    EXPECT_FALSE(now.incomplete);
    EXPECT_EQ(now.bootstrap_build, "build-1");
    EXPECT_EQ(now.launcher_build, "build-1");
    EXPECT_TRUE(is_missing(paths.staging));
    EXPECT_NO_THROW(verify_snapshot_tree(current_bootstrap(paths), paths.bootstrap_directory, {}));
    EXPECT_NO_THROW({
      const auto store = LauncherStore::existing(data());
      const Json build = store->status().at("candidate");
      verify_snapshot_tree(store->manifest(build), store->payload(build), {});
    });
    for (const auto& [installed, packed] :
         std::map<std::string, std::string>{{"trust/root.json", "root.json"},
                                            {"repository-ca.pem", "ca.pem"},
                                            {"native/bootstrap.json", "bootstrap.json"},
                                            {"native/brand.ico", "brand.ico"},
                                            {"native/theme/theme.json", "theme.json"},
                                            {"native/theme/plain.ttf", "theme-plain.ttf"},
                                            {"native/theme/badge.bmp", "theme-badge.bmp"}}) {
      EXPECT_EQ(is_missing(data() / installed) ? "missing" : read(installed), root_.read("package/" + packed))
          << installed;
    }
    EXPECT_EQ(is_missing(paths.menu_icon) ? "missing" : read("native/brand.png"), png_image(32, 32));
    const Json repository = {
        {"schema_version", 1}, {"origin", "https://games.example"}, {"ca_bundle", paths.repository_ca.native()}};
    EXPECT_EQ(is_missing(paths.repository_record) ? "missing" : read("repository.json"), repository.dump());
  }

 private:
  const TemporaryRoot root_{fast_volume()};
  const WithEnvironment home_;
  const WithEnvironment data_home_;
  std::string seal_;
};

}  // namespace ravok::testing
