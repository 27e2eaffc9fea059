// A user, or somebody with a user's rights, has put something else in the place of what setup knows by name: a link to
// a tree that looks just like the one that was there, a file, a directory. Whatever the outcome, nothing outside the
// data folder changes, and nothing of the player's.

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/failure.hpp"
#include "support/file_calls.hpp"
#include "support/install_place.hpp"
#include "support/ordinary_user.hpp"

namespace ravok {
namespace {

using testing::OrdinaryUser;
using testing::TreeState;

struct Command {
  const char* name;
  std::function<void(const testing::InstallPlace&)> run;
};

void uninstall(const testing::InstallPlace& place, bool remove_data) {
  NativeInstaller::uninstall({place.data(), remove_data, std::chrono::milliseconds(0)}, {});
}

const std::vector<Command> commands = {
    {"install", [](const auto& place) { place.install(true); }},
    {"repair", [](const auto& place) { place.repair(true); }},
    {"status", [](const auto& place) { NativeInstaller::status(place.data()); }},
    {"shortcut create", [](const auto& place) { NativeInstaller::create_shortcut(place.data(), "", "", {}); }},
    {"shortcut remove", [](const auto& place) { NativeInstaller::remove_shortcuts(place.data()); }},
    {"uninstall", [](const auto& place) { uninstall(place, false); }},
    {"uninstall all", [](const auto& place) { uninstall(place, true); }},
};

// What takes the place of a name. Only the first keeps the former content, elsewhere.
enum class Plant { link_to_the_same, link_to_nothing, file, directory };
constexpr std::array<Plant, 4> plants = {Plant::link_to_the_same, Plant::link_to_nothing, Plant::file,
                                         Plant::directory};
constexpr std::array<const char*, 4> plant_names = {"a link to the same", "a link to nothing", "a file", "a directory"};

void copy_tree(const std::filesystem::path& from, const std::filesystem::path& to) {
  std::filesystem::copy(from, to,
                        std::filesystem::copy_options::recursive | std::filesystem::copy_options::copy_symlinks);
}

class PlantedNames : public ::testing::Test {
 protected:
  PlantedNames() {
    place.package.brand.reset();
    place.package.featured_game.reset();
    place.republish();
    player = place.write_player_data();
    place.install(true);
    // An installation may hold these too.
    place.write("native/bootstrap-update.json", "{}");
    place.write("native/bootstrap-update/file", "update");
    place.write("native/staging/old-trust/root.json", "{}");
    place.write("native/theme/theme.json", "{}");
    place.write("native/brand.ico", "icon");
    place.write("native/brand.png", "image");
    place.write("repository-ca.pem", "certificate");
    place.write("launcher/leases/versions/" + std::string(64, '0') + ".lock", "");
    place.write("unknown/file", "unknown");
    place.root().write("outside/mine", "mine");
    place.root().write("home/mine", "mine");
    copy_tree(place.data(), template_);
    user.emplace(place.root());
  }
  ~PlantedNames() override { std::cout << cases << " cases, " << refused << " of them refused\n"; }

  // Every name in the folder, but of the many files of a tree only the first of each directory.
  static std::set<std::string> known_names(const TreeState& state) {
    std::set<std::string> names;
    std::set<std::string> directories_with_file;
    for (const auto& [path, node] : state) {
      const bool is_directory = node.ends_with(" directory");
      const std::string parent = std::filesystem::path(path).parent_path();
      const bool is_record = parent.empty() || parent == "native";
      if (is_directory || is_record || directories_with_file.insert(parent).second) {
        names.insert(path);
      }
    }
    return names;
  }

  void restore() {
    std::filesystem::remove_all(place.data());
    std::filesystem::remove_all(outside);
    place.root().write("outside/mine", "mine");
    copy_tree(template_, place.data());
  }

  // Makes the folder as the command is to find it, with something to do in it.
  void restore_data(const Command& command) {
    std::filesystem::remove_all(place.data());
    std::filesystem::remove_all(aside);
    copy_tree(template_, place.data());
    if (command.name == std::string("install")) {
      std::filesystem::remove(place.data() / "native/installation.json");
    } else {
      std::ofstream(place.data() / "trust/root.json") << "{";
      std::filesystem::remove(place.data() / "native/bootstrap.json");
    }
  }

  static TreeState players_in(const std::filesystem::path& folder) {
    TreeState kept = testing::only(testing::tree_state(folder), "userdata");
    kept.merge(testing::only(testing::tree_state(folder), "settings.json"));
    return kept;
  }

  void plant(const std::filesystem::path& at, Plant kind) const {
    if (kind == Plant::link_to_the_same) {
      std::filesystem::rename(at, outside / "target");
      std::filesystem::create_symlink(outside / "target", at);
      return;
    }
    std::filesystem::remove_all(at);
    if (kind == Plant::link_to_nothing) {
      std::filesystem::create_symlink(outside / "nothing", at);
    } else if (kind == Plant::file) {
      std::ofstream(at) << "foreign";
    } else {
      std::filesystem::create_directory(at);
      std::ofstream(at / "foreign") << "foreign";
    }
  }

  // Runs a command and proves what must hold, whether it succeeds or not.
  void expect_contained(const Command& command, const std::string& name, const std::function<void()>& work) {
    const TreeState before = testing::tree_state(outside);
    const std::optional<Error> failure = testing::failure_of(work);
    ++cases;
    refused += failure ? 1 : 0;
    EXPECT_TRUE(!failure || !std::string(failure->what()).empty());
    EXPECT_TRUE(testing::same_tree(testing::tree_state(outside), before));
    EXPECT_EQ(place.root().read("home/mine"), "mine");
    const bool is_players = name.starts_with("userdata") || name.starts_with("settings.json");
    if (!is_players && command.name != std::string("uninstall all")) {
      EXPECT_TRUE(testing::same_tree(place.player_data(), player));
    }
  }

  testing::InstallPlace place;
  const std::filesystem::path outside = place.root() / "outside";
  const std::filesystem::path template_ = place.root() / "template";
  const std::filesystem::path aside = place.root() / "aside";
  TreeState player;
  std::optional<OrdinaryUser> user;
  int cases = 0;
  int refused = 0;
};

TEST_F(PlantedNames, AreNeverReachedThrough) {
  const std::set<std::string> names = known_names(testing::tree_state(template_));
  EXPECT_GT(names.size(), 40u);
  for (const std::string& name : names) {
    for (const Command& command : commands) {
      for (std::size_t kind = 0; kind < plants.size(); ++kind) {
        SCOPED_TRACE(std::string(command.name) + " with " + plant_names[kind] + " at " + name);
        restore();
        plant(place.data() / name, plants[kind]);
        expect_contained(command, name, [&] { command.run(place); });
      }
    }
  }
  EXPECT_GT(refused, cases / 20);
  EXPECT_LT(refused, cases * 19 / 20);
}

// With the marker up, every command is tried again: none leads outside in this state either.
TEST_F(PlantedNames, AreNeverReachedThroughBehindAnInterruptedSetup) {
  place.write(".ravok-setup-incomplete", "{}");
  std::filesystem::copy(place.data() / ".ravok-setup-incomplete", template_);
  for (const std::string& name : known_names(testing::tree_state(template_))) {
    for (const Command& command : commands) {
      SCOPED_TRACE(std::string(command.name) + " with a link at " + name);
      restore();
      plant(place.data() / name, Plant::link_to_the_same);
      expect_contained(command, name, [&] { command.run(place); });
    }
  }
}

// A repair replaces what has the place of its own records and trees, and names what it must not replace.
TEST_F(PlantedNames, AreReplacedByARepairOrNamed) {
  const std::vector<std::string> replaceable = {
      "native/bootstrap.json", "repository.json", "native/brand.ico", "native/brand.png",
      "native/theme",          "trust",           "launcher",         "launcher/versions",
      "native/bootstrap"};
  for (const std::string& name : replaceable) {
    for (const Plant kind : {Plant::link_to_the_same, Plant::link_to_nothing, Plant::file}) {
      SCOPED_TRACE(name + std::to_string(static_cast<int>(kind)));
      restore();
      plant(place.data() / name, kind);
      EXPECT_NO_THROW(place.repair());
      EXPECT_TRUE(NativeInstaller::status(place.data()).installed);
      EXPECT_FALSE(std::filesystem::is_symlink(place.data() / name));
      EXPECT_NO_THROW(uninstall(place, false));
    }
  }
  for (const std::string name : {"native/bootstrap.json", "repository.json", ".ravok-setup-incomplete"}) {
    SCOPED_TRACE(name);
    restore();
    std::filesystem::remove_all(place.data() / "native/bootstrap");
    plant(place.data() / name, Plant::directory);
    const TreeState before = place.state();
    EXPECT_FAILURE(place.repair(), "unsafe_path",
                   "Setup cannot write " + (place.data() / name).native() +
                       ": a directory has that name; move it away and try again");
    TreeState after = place.state();
    // Without what the repair has prepared, and the record of how it ended.
    std::erase_if(after, [](const auto& node) {
      return node.first.starts_with("native/staging") || node.first == "native/setup-status.json";
    });
    TreeState kept = before;
    std::erase_if(kept, [](const auto& node) {
      return node.first.starts_with("native/staging") || node.first == "native/setup-status.json";
    });
    EXPECT_TRUE(testing::same_tree(after, kept));
  }
}

// A repair makes movable what its owner could not move, and names what belongs to somebody else before the marker goes
// up.
TEST_F(PlantedNames, AreMovedByTheirOwnerOnly) {
  const std::vector<std::string> trees = {"native/bootstrap", "native/theme", "launcher", "trust"};
  for (const std::string& name : trees) {
    SCOPED_TRACE(name);
    restore();
    std::filesystem::remove(place.data() / "native/bootstrap.json");
    std::ofstream(place.data() / "launcher/installation.json") << "{";
    std::ofstream(place.data() / "trust/root.json") << "{";
    std::filesystem::permissions(place.data() / name, std::filesystem::perms(0500));
    EXPECT_NO_THROW(place.repair());
    EXPECT_TRUE(NativeInstaller::status(place.data()).installed);
  }
  if (!testing::is_root() && getuid() != 0) {
    GTEST_SKIP() << "needs user 0 to give a folder to another";
  }
  for (const std::string& name : trees) {
    SCOPED_TRACE(name);
    restore();
    std::filesystem::remove(place.data() / "native/bootstrap.json");
    std::ofstream(place.data() / "launcher/installation.json") << "{";
    std::ofstream(place.data() / "trust/root.json") << "{";
    user.reset();
    EXPECT_EQ(chown((place.data() / name).c_str(), 1, 1), 0);
    user.emplace(place.root(), OrdinaryUser::Given::already);
    EXPECT_FAILURE(place.repair(), "unsafe_path",
                   "Setup cannot replace " + (place.data() / name).native() +
                       ": it belongs to another user; move it away and try again");
    EXPECT_FALSE(std::filesystem::exists(place.paths().incomplete_marker));
    user.reset();
    user.emplace(place.root());
  }
}

// In the middle of a command, just before one call after the other, a folder is exchanged for a link to another just
// like it.
TEST_F(PlantedNames, AreNeverReachedThroughWhereTheyComeInTheMiddle) {
  const std::vector<Command> changing = {commands[0], commands[1], commands[5], commands[6]};
  int exchanged = 0;
  for (const std::string name :
       {"", "native", "native/staging", "native/bootstrap", "launcher", "launcher/versions", "trust", "unknown"}) {
    const std::filesystem::path at = name.empty() ? place.data() : place.data() / name;
    copy_tree(name.empty() ? template_ : template_ / name, outside / "like");
    // The launcher's store is prepared here.
    const std::filesystem::path native = name.empty() ? outside / "like/native" : outside / "like";
    const std::filesystem::path prepared = name == "native/staging" ? native : native / "staging";
    for (const char* folder : {"manifests", "versions"}) {
      std::filesystem::create_directories(prepared / "launcher-root/launcher" / folder);
    }
    const TreeState before = testing::tree_state(outside);
    for (const Command& command : changing) {
      for (const char* call : {"create", "rename", "unlink", "openat"}) {
        bool happened = true;
        for (int count = 1; happened; count += 1 + count / 4) {
          SCOPED_TRACE(std::string(command.name) + " with a link at /" + name + " ahead of " + call + " " +
                       std::to_string(count));
          restore_data(command);
          const auto exchange = [&] {
            std::error_code gone;
            std::filesystem::rename(at, aside, gone);
            if (!gone) {
              std::filesystem::create_directory_symlink(outside / "like", at);
              ++exchanged;
            }
          };
          {
            const testing::Planned plan(testing::meanwhile(call, exchange, count));
            const std::optional<Error> failure = testing::failure_of([&] { command.run(place); });
            happened = plan.happened();
            refused += failure ? 1 : 0;
          }
          ++cases;
          EXPECT_TRUE(testing::same_tree(testing::tree_state(outside), before));
          EXPECT_EQ(place.root().read("home/mine"), "mine");
          if (command.name != std::string("uninstall all")) {
            EXPECT_TRUE(testing::same_tree(
                players_in(std::filesystem::exists(aside / "userdata") ? aside : place.data()), player));
          }
        }
      }
    }
    std::filesystem::remove_all(outside / "like");
  }
  EXPECT_GT(exchanged, 500);
}

}  // namespace
}  // namespace ravok
