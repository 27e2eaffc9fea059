#include "app/maintenance/maintenance_command.hpp"

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/brand/brand.hpp"
#include "support/desktop_entry.hpp"
#include "support/failure.hpp"
#include "support/install_place.hpp"
#include "support/launcher_place.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"

namespace ravok::maintenance_command_test {
namespace {

using testing::InstallPlace;
using testing::same_tree;
using testing::TemporaryRoot;
using testing::tree_state;
using testing::TreeState;

using Words = std::vector<std::string>;

constexpr const char* uninstall_form = "Use self uninstall [--remove-data]";
constexpr const char* shortcut_form = "Use self shortcut create [--game GAME] or self shortcut remove";

TEST(WithoutJson, LeavesOutEveryJsonAndKeepsTheOrder) {
  bool found = false;
  EXPECT_EQ(without_json({"--json", "b", "--json", "a", "--json"}, found), (Words{"b", "a"}));
  EXPECT_TRUE(found);
  EXPECT_EQ(without_json({"c"}, found), Words{"c"});
  EXPECT_TRUE(found) << "it stays as an earlier call left it";
}

TEST(WithoutJson, TakesNothingElseForIt) {
  const Words others = {"-json", "--JSON", "--json=1", "json", "", "--json "};
  bool found = false;
  EXPECT_EQ(without_json(others, found), others);
  EXPECT_EQ(without_json({}, found), Words{});
  EXPECT_FALSE(found);
}

TEST(MaintenanceArguments, AreTheHelpersForTheRemovalOfTheClient) {
  EXPECT_EQ(maintenance_arguments({"self", "uninstall"}, "/data"), (Words{"uninstall", "--data-dir", "/data"}));
  EXPECT_EQ(maintenance_arguments({"self", "uninstall", "--remove-data"}, "/d/\xc3\xa9 x"),
            (Words{"uninstall", "--data-dir", "/d/\xc3\xa9 x", "--remove-data"}));
}

TEST(MaintenanceArguments, PutJsonAtTheEndWhereverItStood) {
  const Words expected = {"uninstall", "--data-dir", "/data", "--remove-data", "--json"};
  for (const Words& arguments : {Words{"self", "uninstall", "--json", "--remove-data"},
                                 {"--json", "self", "uninstall", "--remove-data"},
                                 {"self", "--json", "uninstall", "--remove-data"},
                                 {"--json", "self", "uninstall", "--remove-data", "--json"}}) {
    EXPECT_EQ(maintenance_arguments(arguments, "/data"), expected);
  }
}

TEST(MaintenanceArguments, AreNoneForAnyOtherCommand) {
  for (const Words& arguments : {Words{},
                                 {"status"},
                                 {"self"},
                                 {"self", "status"},
                                 {"self", "--json"},
                                 {"uninstall"},
                                 {"uninstall", "self"},
                                 {"uninstall", "game", "--bogus"},
                                 {"other", "uninstall"},
                                 {"", "self", "uninstall"},
                                 {"--help", "self", "uninstall"},
                                 {"self", "shortcut", "remove"},
                                 {"self", "Uninstall"}}) {
    EXPECT_EQ(maintenance_arguments(arguments, "/data"), Words{});
  }
}

TEST(MaintenanceArguments, RefuseAnyOtherTail) {
  for (const Words& tail : {Words{"--bogus"},
                            {""},
                            {"now"},
                            {"--help"},
                            {"--remove-data", "--bogus"},
                            {"--remove-data="},
                            {"--data-dir", "/other"}}) {
    Words arguments = {"self", "uninstall"};
    arguments.insert(arguments.end(), tail.begin(), tail.end());
    EXPECT_FAILURE(maintenance_arguments(arguments, "/data"), "usage", uninstall_form) << tail.front();
  }
}

TEST(NativeMaintenanceControl, IsNothingForAnyOtherCommand) {
  const TemporaryRoot root;
  for (const Words& arguments : {Words{},
                                 {"status"},
                                 {"self"},
                                 {"self", "status"},
                                 {"self", "uninstall", "--bogus"},
                                 {"shortcut"},
                                 {"shortcut", "create"},
                                 {"shortcut", "self"},
                                 {"--help", "self", "shortcut"},
                                 {"self", "shortcuts", "remove"}}) {
    EXPECT_EQ(native_maintenance_control(root.path(), arguments), Json(nullptr));
  }
  EXPECT_TRUE(root.names().empty());
}

class MaintenanceControl : public ::testing::Test {
 protected:
  ~MaintenanceControl() override { set_product_name("Ravok"); }

  Json run(const Words& arguments) const { return native_maintenance_control(place.data(), arguments); }
  // What the menu shows for a shortcut.
  std::string shown_name(const std::filesystem::path& shortcut) const {
    return testing::desktop_entry(testing::bytes_of(shortcut)).at("Name");
  }
  TreeState all() const { return tree_state(place.root().path()); }

  InstallPlace place;
};

TEST_F(MaintenanceControl, RefusesEveryOtherFormOfItsFamily) {
  place.install();
  const TreeState before = all();
  for (const Words& tail : {Words{},
                            {"list"},
                            {""},
                            {"--json"},
                            {"remove", "now"},
                            {"remove", "--game", "first-game"},
                            {"create", "first-game"},
                            {"create", "--game"},
                            {"create", "--game", ""},
                            {"create", "--game", "--json"},
                            {"create", "--name", "first-game"},
                            {"create", "--game", "first-game", "more"},
                            {"create", "--game", "first-game", "--game", "second-game"},
                            {"--game", "first-game", "create"},
                            {"create", "create"},
                            {"Create"}}) {
    Words arguments = {"self", "shortcut"};
    arguments.insert(arguments.end(), tail.begin(), tail.end());
    EXPECT_FAILURE(run(arguments), "usage", shortcut_form) << Json(arguments).dump();
  }
  EXPECT_TRUE(same_tree(all(), before));
  EXPECT_EQ(product_name(), "Ravok");
}

TEST_F(MaintenanceControl, RefusesAGameThatIsNoIdentifier) {
  place.install();
  const TreeState before = all();
  for (const char* const game : {"First", "a/b", "..", "a b"}) {
    EXPECT_FAILURE(run({"self", "shortcut", "create", "--game", game}), "invalid_identity",
                   "Game and build IDs use lower-case letters, digits, dots and hyphens")
        << game;
  }
  EXPECT_TRUE(same_tree(all(), before));
}

TEST_F(MaintenanceControl, MakesTheClientsShortcutByTheProductsName) {
  place.install();
  EXPECT_EQ(run({"self", "shortcut", "create"}), (Json{{"schema_version", 1}, {"created", {place.entry()}}}));
  EXPECT_EQ(product_name(), "Acme Games");
  EXPECT_EQ(shown_name(place.entry()), "Acme Games");
  // Once more it is there already.
  const std::string made = testing::bytes_of(place.entry());
  EXPECT_EQ(run({"self", "--json", "shortcut", "create"}), (Json{{"schema_version", 1}, {"created", {place.entry()}}}));
  EXPECT_EQ(testing::bytes_of(place.entry()), made);
}

TEST_F(MaintenanceControl, KeepsItsOwnNameForAProductWithoutOne) {
  place.package.brand.reset();
  place.republish();
  place.install();
  run({"--json", "self", "shortcut", "create"});
  EXPECT_EQ(product_name(), "Ravok");
  EXPECT_EQ(shown_name(place.entry()), "Ravok");
}

TEST_F(MaintenanceControl, MakesAGamesShortcutAndRemovesAll) {
  place.install();
  const std::filesystem::path game = native_menu_entry(place.data(), "first-game", "");
  EXPECT_EQ(run({"self", "shortcut", "create", "--game", "--json", "first-game"}),
            (Json{{"schema_version", 1}, {"created", {game}}}));
  EXPECT_EQ(shown_name(game), "first-game");
  EXPECT_FALSE(std::filesystem::exists(place.entry()));
  run({"self", "shortcut", "create"});
  std::filesystem::remove(place.entry());
  place.root().write(place.entry().lexically_relative(place.root().path()).native(), "of somebody");
  EXPECT_EQ(run({"self", "shortcut", "remove"}),
            (Json{{"schema_version", 1}, {"removed", {game}}, {"changed", {place.entry()}}}));
  EXPECT_FALSE(std::filesystem::exists(game));
  EXPECT_EQ(testing::bytes_of(place.entry()), "of somebody");
  EXPECT_EQ(run({"self", "shortcut", "remove"}),
            (Json{{"schema_version", 1}, {"removed", Json::array()}, {"changed", Json::array()}}));
}

TEST_F(MaintenanceControl, NeedsAnInstallation) {
  const TreeState before = all();
  const std::string message = "Ravok is not installed in " + place.data().native();
  EXPECT_FAILURE(run({"self", "shortcut", "create"}), "not_installed", message);
  EXPECT_FAILURE(run({"self", "shortcut", "create", "--game", "first-game"}), "not_installed", message);
  EXPECT_FAILURE(run({"self", "shortcut", "remove"}), "not_installed", message);
  EXPECT_TRUE(same_tree(all(), before));
}

}  // namespace
}  // namespace ravok::maintenance_command_test
