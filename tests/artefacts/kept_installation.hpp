// A kept data folder with its home, the packages and the repository of its version, and what this version's programs do
// with them.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "app/install/native_install.hpp"
#include "app/launcher/launcher_cleanup.hpp"
#include "app/launcher/launcher_store.hpp"
#include "artefacts/kept_client.hpp"
#include "artefacts/kept_folder.hpp"
#include "domain/data_layout.hpp"
#include "platform/process/native_platform.hpp"
#include "support/process.hpp"
#include "support/tree_state.hpp"
#include "support/with_environment.hpp"

namespace ravok::testing {

class KeptInstallation {
 public:
  // `package` is the artefact that the data folder was made from.
  KeptInstallation(const KeptVersion& kept_version, const std::string& artefact,
                   const std::string& package = "package-plain")
      : folder(kept_version, artefact),
        version(kept_version),
        package_(kept_version, package),
        repository_(kept_version, "repository"),
        home_("HOME", (folder / "home").native()) {}

  std::filesystem::path data() const { return folder / "data"; }
  std::filesystem::path repository() const { return repository_ / "repository"; }
  DataPaths paths() const { return DataPaths(data()); }
  LauncherPaths launcher() const { return LauncherPaths(paths().launcher); }
  NativeInstallStatus status() const { return NativeInstaller::status(data()); }

  NativeInstallResult setup(bool repair) const {
    NativeInstallRequest request;
    request.package = package_ / "package";
    request.data_root = data();
    request.repair = repair;
    request.create_shortcut = true;
    return NativeInstaller::install(request, package_.read("seal"), {});
  }
  NativeInstallResult install() const { return setup(false); }
  NativeInstallResult repair() const { return setup(true); }
  NativeUninstallResult uninstall(bool remove_data = false) const {
    return NativeInstaller::uninstall({data(), remove_data, std::chrono::milliseconds(0)}, {});
  }

  // Starts the client as its user does, once a version that waits has been tried out. Returns the build that has said
  // who it is.
  std::string start() const {
    try_candidate(data());
    const ProgramResult result = run_program({RAVOK_BOOTSTRAP,
                                              {"--data-dir", data(), "self", "status"},
                                              {{"HOME", folder / "home"}, {"PATH", "/usr/bin:/bin"}},
                                              ""});
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    const std::string words = ":--data-dir " + data().native() + " self status\n";
    return result.output.ends_with(words) ? result.output.substr(0, result.output.size() - words.size())
                                          : "said something else: " + result.output;
  }

  Json stage() const {
    KeptRepository transport(repository());
    return stage_launcher(data(), transport);
  }
  std::string stage_bootstrap() const {
    KeptRepository transport(repository());
    return testing::stage_bootstrap(data(), transport);
  }

  // Publishes another bootstrap as the newest, with this version's program.
  void publish_bootstrap(const std::string& build) {
    const KeptFolder snapshots(version, "snapshots");
    const auto publish = [](const std::vector<std::string>& arguments) {
      const ProgramResult result = run_program({RAVOK_PUBLISH, arguments, {}, ""});
      EXPECT_EQ(result.exit_code, 0) << result.errors;
    };
    publish({"snapshot", snapshots / "bootstrap/tree", "--kind", "bootstrap", "--build-id", build, "--executable",
             "bin/ravok-bootstrap", "--output", snapshots / "out"});
    publish({"repository", "release", repository(), "--manifest",
             snapshots / ("out/bootstrap-" + std::string(native_platform()) + ".manifest.json"), "--key",
             repository_ / "keys/targets", "--key", repository_ / "keys/snapshot", "--key",
             repository_ / "keys/timestamp-2"});
    newest_bootstrap = build;
  }

  // What the player has below the data folder.
  TreeState player_files() const {
    TreeState files = only(tree_state(data()), "userdata");
    files.merge(only(tree_state(data()), "settings.json"));
    return files;
  }
  // The names of the menu entries in the home.
  std::vector<std::string> menu_entries() const {
    std::vector<std::string> names;
    std::error_code none;
    for (const auto& entry : std::filesystem::directory_iterator(folder / "home/.local/share/applications", none)) {
      names.push_back(entry.path().filename());
    }
    return names;
  }

  // Goes on from a client that can be started: an update to the newest launcher and bootstrap, a clean-up, and the
  // removal of everything but the player's data.
  void expect_to_go_on() const {
    const TreeState player = player_files();
    if (build_of(data(), "active") == newest_launcher) {
      EXPECT_EQ(stage(), (Json{{"staged", false}, {"already_current", true}}));
    } else {
      const Json staged = stage();
      EXPECT_EQ(staged.at("staged"), true) << staged;
      EXPECT_EQ(staged.at("build_id"), newest_launcher);
    }
    EXPECT_EQ(start(), newest_launcher);
    EXPECT_EQ(build_of(data(), "active"), newest_launcher);

    if (status().bootstrap_build != newest_bootstrap) {
      stage_bootstrap();
      EXPECT_TRUE(status().bootstrap_update_pending);
      EXPECT_EQ(apply_bootstrap(data()), "applied");
    }
    EXPECT_EQ(stage_bootstrap(), "current");
    EXPECT_EQ(status().bootstrap_build, newest_bootstrap);
    EXPECT_FALSE(status().bootstrap_update_pending);

    const Json cleaned = clean_launcher_store(LauncherStore(data()));
    EXPECT_EQ(cleaned.at("kept"), Json::array()) << cleaned;
    for (const auto& folder_of_records : {launcher().downloads, launcher().download_intents, launcher().intents,
                                          launcher().staging, launcher().health, launcher().attempt_leases}) {
      EXPECT_TRUE(std::filesystem::is_empty(folder_of_records)) << folder_of_records;
    }
    EXPECT_EQ(start(), newest_launcher);
    EXPECT_TRUE(repair().replaced.empty());
    EXPECT_EQ(start(), newest_launcher);

    EXPECT_TRUE(same_tree(player_files(), player));
    expect_to_be_removed();
  }

  // Removes it, and nothing of it is left but the player's data.
  void expect_to_be_removed() const {
    const TreeState player = player_files();
    const NativeUninstallResult removed = uninstall();
    EXPECT_TRUE(removed.deferred.empty());
    EXPECT_EQ(removed.data_removed, player.empty());
    EXPECT_TRUE(same_tree(tree_state(data()), player));
    EXPECT_EQ(menu_entries().size(), removed.changed_shortcuts.size());
  }

  static constexpr const char* newest_launcher = "1.4.0";
  std::string newest_bootstrap = "bootstrap-2";

  const KeptFolder folder;
  const KeptVersion version;

 private:
  const KeptFolder package_;
  const KeptFolder repository_;
  const WithEnvironment home_;
};

}  // namespace ravok::testing
