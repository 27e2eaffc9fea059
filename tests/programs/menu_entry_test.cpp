// The menu entries of an installed client, opened as a desktop opens them: the real bootstrap starts the real launcher.

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/launcher/launcher_store.hpp"
#include "domain/data_layout.hpp"
#include "platform/file/files.hpp"
#include "platform/process/native_platform.hpp"
#include "programs/installer_place.hpp"
#include "publisher/publish_snapshot.hpp"
#include "support/desktop_entry.hpp"
#include "support/fast_volume.hpp"
#include "support/game_at_hand.hpp"
#include "support/launcher_release.hpp"
#include "support/process.hpp"

namespace ravok::menu_entry_test {
namespace {

using testing::bytes_of;
using testing::InitialPackage;
using testing::ProgramResult;
using testing::TemporaryRoot;
using Arguments = std::vector<std::string>;

// Folders by all that the standard of menu entries or a shell could take for something else. Desktops start a program
// with a percent sign or an equals sign in its path by a shell.
const std::vector<std::string> difficult_folders = {
    "data", "it's  \"my\" $HOME `id` f\xc3\xbcr \xe9\x81\x8a ~;&|*?#()<>!", "100%f a=b \"$HOME\" `id`"};

void use_bootstrap(InitialPackage& package, const TemporaryRoot& root) {
  const std::filesystem::path program = root.write("bootstrap/bin/ravok-bootstrap", bytes_of(RAVOK_BOOTSTRAP));
  std::filesystem::permissions(program, std::filesystem::perms(0755));
  SnapshotPublication publication;
  publication.kind = SnapshotKind::bootstrap;
  publication.tree = root / "bootstrap";
  publication.output = root.directory("output");
  publication.build_id = RAVOK_LAUNCHER_BUILD_ID;
  publication.platform = native_platform();
  publication.executable = "bin/ravok-bootstrap";
  publication.level = 1;
  const PublishedSnapshot published = publish_snapshot(publication, {});
  package.bootstrap = Json::parse(bytes_of(published.manifest));
  package.bootstrap_archive = bytes_of(published.archive);
}

// The product with its real programs, packed once for all tests.
const InitialPackage& product() {
  static const InitialPackage package = [] {
    const TemporaryRoot root(testing::fast_volume());
    InitialPackage made;
    made.featured_game.reset();
    use_bootstrap(made, root);
    const testing::LauncherPrograms programs = {bytes_of(RAVOK_LAUNCHER), bytes_of(RAVOK_LAUNCHER_GUI),
                                                bytes_of(RAVOK_MAINTENANCE)};
    testing::use_launcher(made, testing::publish_launcher(root, RAVOK_LAUNCHER_BUILD_ID, programs, "product"));
    return made;
  }();
  return package;
}

class MenuEntry : public ::testing::Test, protected testing::InstallerPlace {
 protected:
  MenuEntry() {
    place.package = product();
    publish();
  }

  // Installs the product there and returns the client's menu entry.
  std::filesystem::path install(const std::filesystem::path& data) const {
    const ProgramResult result = testing::run_program({program(), {"--json", "--data-dir", data}, environment(), ""});
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    return Json::parse(result.output).at("shortcuts").at(0).get<std::string>();
  }

  ProgramResult run_client(const std::filesystem::path& data, const Arguments& arguments) const {
    return testing::run_program({data / "native/bootstrap/bin/ravok-bootstrap", arguments, environment(), ""});
  }

  // Has the client make a menu entry of the game, and returns it.
  std::filesystem::path make_game_entry(const std::filesystem::path& data) const {
    const ProgramResult result = run_client(data, {"self", "shortcut", "create", "--game", "game"});
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    return Json::parse(result.output).at("created").at(0).get<std::string>();
  }

  // Runs what the entry says, as it stands.
  ProgramResult open(const std::filesystem::path& entry) const {
    const Arguments command = testing::started_by(bytes_of(entry));
    return testing::run_program({command.front(), {command.begin() + 1, command.end()}, environment(), ""});
  }
  void expect_opened(const std::filesystem::path& entry) const {
    const ProgramResult result = open(entry);
    EXPECT_EQ(result.exit_code, 0) << entry;
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "");
  }

  // A launcher on trial becomes the active version only if it ran as the window's program, and proved itself.
  void expect_first_start(const std::filesystem::path& data, const std::filesystem::path& entry) const {
    const Json waiting = state(data);
    EXPECT_TRUE(waiting.at("active").is_null());
    expect_opened(entry);
    const Json proved = state(data);
    EXPECT_FALSE(proved.at("active").is_null());
    EXPECT_EQ(proved.at("active"), waiting.at("candidate"));
    EXPECT_TRUE(proved.at("candidate").is_null());
    EXPECT_TRUE(proved.at("attempt").is_null());
    EXPECT_TRUE(proved.at("failed_candidate").is_null());
  }

  // The record of a start that never opened goes only when a launcher says that its window is up.
  void expect_later_start(const std::filesystem::path& data, const std::filesystem::path& entry) const {
    const std::filesystem::path marker = LauncherPaths(DataPaths(data).launcher).start_marker;
    const Json failed = {
        {"manifest_sha256", state(data).at("active").at("manifest_sha256")}, {"started_at", 0}, {"attempts", 1}};
    replace_private_file(marker, failed.dump());
    const Json proved = state(data);
    expect_opened(entry);
    EXPECT_FALSE(std::filesystem::exists(marker));
    EXPECT_EQ(state(data), proved);
  }

  void expect_removed_by_itself(const std::filesystem::path& data, const std::filesystem::path& entry) const {
    const ProgramResult removed = run_client(data, {"self", "uninstall"});
    EXPECT_EQ(removed.exit_code, 0) << removed.errors;
    EXPECT_FALSE(std::filesystem::exists(entry));
    EXPECT_FALSE(std::filesystem::exists(data));
  }

  static Json state(const std::filesystem::path& data) { return LauncherStore::for_launch(data)->load(); }
};

TEST_F(MenuEntry, StartsTheWindowedLauncherWhereverTheClientLies) {
  for (const std::string& name : difficult_folders) {
    const std::filesystem::path data = place.root() / name;
    const std::filesystem::path entry = install(data);
    expect_first_start(data, entry);
    expect_later_start(data, entry);
    expect_removed_by_itself(data, entry);
  }
}

TEST_F(MenuEntry, OfAGameStartsTheWindowedLauncherToo) {
  for (const std::string& name : difficult_folders) {
    const std::filesystem::path data = place.root() / name;
    install(data);
    const std::filesystem::path entry = make_game_entry(data);
    const Arguments command = testing::started_by(bytes_of(entry));
    EXPECT_EQ(Arguments(command.end() - 4, command.end()), (Arguments{"--data-dir", data, "--launch", "game"}));
    expect_first_start(data, entry);
    expect_later_start(data, entry);
    expect_removed_by_itself(data, entry);
  }
}

// Installs the game as the client records it. Its program says where it runs.
void install_game(const TemporaryRoot& root, const std::string& folder) {
  const std::string script = "#!/bin/sh\nprintf '%s\\n' \"$PWD\" \"$@\"\nexit 7\n";
  std::filesystem::permissions(root.write(folder + "/games/game/versions/1.0/bin/program", script),
                               std::filesystem::perms::owner_all);
  Json manifest = testing::as_game(testing::manifest_document());
  manifest["files"][0]["length"] = script.size();
  manifest["archive"]["expanded_length"] = script.size();
  const Json record = {
      {"installed", true}, {"game_id", "game"}, {"active", {{"version", "1.0"}, {"manifest", manifest}}}};
  root.write(folder + "/games/game/record.json", record.dump());
}

TEST_F(MenuEntry, OfAGameStartsTheGameItselfWhereTheLauncherIsDamaged) {
  for (const std::string& name : difficult_folders) {
    const std::filesystem::path data = place.root() / name;
    expect_first_start(data, install(data));
    const std::filesystem::path entry = make_game_entry(data);
    install_game(place.root(), name);
    const auto store = LauncherStore::for_launch(data);
    std::filesystem::resize_file(store->payload(state(data).at("active")) / "bin/ravok-gui", 1);
    const ProgramResult result = open(entry);
    EXPECT_EQ(result.exit_code, 7);
    EXPECT_EQ(result.output, (data / "games/game/versions/1.0\n").native());
    EXPECT_EQ(result.errors,
              "ravok: launcher version unusable (launcher_damaged): Ravok's files are damaged. Reinstall Ravok to "
              "repair them.\n"
              "ravok: starting game directly; repair Ravok by running its installer again\n");
    std::filesystem::remove_all(data);
  }
}

}  // namespace
}  // namespace ravok::menu_entry_test
