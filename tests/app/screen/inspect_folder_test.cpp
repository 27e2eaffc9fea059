#include <cstdint>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "app/install/install_folder.hpp"
#include "app/screen/folder_probe.hpp"
#include "domain/display_text.hpp"
#include "domain/json.hpp"
#include "platform/file/storage.hpp"
#include "support/failure.hpp"
#include "support/install_place.hpp"
#include "support/ordinary_user.hpp"
#include "support/working_directory.hpp"

namespace ravok::inspect_folder_test {
namespace {

using State = FolderFacts::State;

constexpr const char* other_things = "Choose an empty folder or an earlier Ravok data folder";
constexpr const char* overlap = "The package and data folders overlap";

class InspectFolder : public ::testing::Test {
 protected:
  InspectFolder() : manifests(package_manifests(place.package_directory(), place.seal())) {}

  // Looks at a folder, which changes nothing.
  FolderFacts inspect(const std::string& text) const {
    const testing::TreeState before = testing::tree_state(place.root().path());
    FolderFacts facts = inspect_folder(text, place.package_directory(), &manifests);
    EXPECT_TRUE(testing::same_tree(testing::tree_state(place.root().path()), before));
    EXPECT_EQ(facts.asked, text);
    return facts;
  }
  FolderFacts inspect() const { return inspect(place.data()); }

  void expect_free(const std::string& text, const std::filesystem::path& root) const {
    const FolderFacts facts = inspect(text);
    EXPECT_EQ(facts.state, State::free) << facts.problem;
    EXPECT_EQ(facts.problem, "");
    EXPECT_EQ(facts.root, root);
    EXPECT_TRUE(facts.room);
    EXPECT_TRUE(facts.status.is_null());
  }
  void expect_refused(const std::string& text, const std::filesystem::path& root, const std::string& problem) const {
    const FolderFacts facts = inspect(text);
    EXPECT_EQ(facts.state, State::refused);
    EXPECT_EQ(facts.problem, problem);
    EXPECT_EQ(facts.root, root);
    EXPECT_FALSE(facts.room);
    EXPECT_TRUE(facts.status.is_null());
  }
  // The console's refusal of the same folder is the same.
  void expect_refused_as_by_install(const std::string& problem) const {
    expect_refused(place.data(), place.data(), problem);
    const auto failure = testing::failure_of([&] { place.install(); });
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->what(), problem);
  }

  testing::InstallPlace place;
  PackageManifests manifests;
};

TEST_F(InspectFolder, TakesAFolderThatIsNotThere) {
  expect_free(place.data(), place.data());
  expect_free(place.root() / "a/b/c", place.root() / "a/b/c");
}

TEST_F(InspectFolder, TakesAnEmptyFolderAndAnEarlierDataFolder) {
  std::filesystem::create_directory(place.data());
  expect_free(place.data(), place.data());
  place.write_player_data();
  place.write("notes", "of the player");
  expect_free(place.data(), place.data());
}

TEST_F(InspectFolder, GivesAnAbsoluteAndNormalFolder) {
  const testing::WorkingDirectory working(place.root().path());
  expect_free("data", place.data());
  expect_free("./x/../data", place.data());
  expect_free((place.root() / "x/.././data").native(), place.data());
}

TEST_F(InspectFolder, RefusesWhatIsNoFolder) {
  expect_refused("", "", "Choose a data folder");
  expect_refused(std::string(4097, 'x'), "", "Choose a data folder");
  expect_refused(std::string("/a\0b", 4), "", "Native path contains a NUL byte");
  expect_refused("/", "", "The data folder cannot be a filesystem root");
  expect_refused("//", "", "The data folder cannot be a filesystem root");
  expect_refused(place.data().native() + "/", "", "The data folder cannot be a filesystem root");
}

TEST_F(InspectFolder, RefusesALinkEvenToNothing) {
  std::filesystem::create_directory_symlink(place.home(), place.data());
  expect_refused(place.data(), "", "The data folder cannot be a symbolic link");
  std::filesystem::remove(place.data());
  std::filesystem::create_symlink("nowhere", place.data());
  expect_refused(place.data(), "", "The data folder cannot be a symbolic link");
}

TEST_F(InspectFolder, RefusesAFolderThatNoClientStartsFrom) {
  for (const char* name : {"a\xff", "\xc3", "a\xed\xa0\x80"}) {
    expect_refused(place.root() / name, place.root() / name, "The path of the data folder must be valid UTF-8");
  }
  for (const char* name : {"a:b", "a\\b"}) {
    expect_refused(place.root() / name, place.root() / name,
                   "The path of the data folder must hold no backslash and no colon");
  }
}

TEST_F(InspectFolder, RefusesAFolderThatOverlapsWithThePackage) {
  const std::filesystem::path package = place.package_directory();
  for (const std::filesystem::path& folder : {package, package / "data", place.root().path()}) {
    expect_refused(folder, folder, overlap);
  }
  expect_free(place.root() / "package-2", place.root() / "package-2");
}

TEST_F(InspectFolder, RefusesAFolderWithOtherThings) {
  std::filesystem::create_directory(place.data());
  place.root().write("data/notes", "of somebody");
  expect_refused_as_by_install(other_things);
}

TEST_F(InspectFolder, RefusesAFile) {
  place.root().write("data", "");
  expect_refused_as_by_install(other_things);
}

TEST_F(InspectFolder, RefusesALinkInThePlaceOfTheProgramsFolder) {
  std::filesystem::create_directory(place.data());
  std::filesystem::create_directory_symlink(place.home(), place.paths().native);
  expect_refused_as_by_install(place.paths().native.native() +
                               " is a symbolic link, which setup does not follow; replace it with the folder");
}

TEST_F(InspectFolder, RefusesAFolderThatItMayNotLookInto) {
  place.write_player_data();
  const testing::OrdinaryUser user(place.root());
  const testing::WithMode closed(place.data(), 0);
  // The whole tree cannot be compared without the permission to read it.
  const FolderFacts facts = inspect_folder(place.data().native(), place.package_directory(), &manifests);
  EXPECT_EQ(facts.state, State::refused);
  EXPECT_EQ(facts.problem, "Cannot look at " + place.paths().installation_record.native() + ": Permission denied");
  EXPECT_EQ(facts.root, place.data());
  EXPECT_FALSE(facts.room);
}

TEST_F(InspectFolder, KnowsAnInstallation) {
  place.install();
  const FolderFacts facts = inspect();
  EXPECT_EQ(facts.state, State::installed);
  EXPECT_EQ(facts.problem, "");
  EXPECT_EQ(facts.root, place.data());
  EXPECT_FALSE(facts.room);
  EXPECT_EQ(facts.status, NativeInstaller::status(place.data()).to_json());
  EXPECT_EQ(facts.status.at("installed"), true);
}

TEST_F(InspectFolder, KnowsAnInterruptedSetup) {
  place.install();
  place.write(".ravok-setup-incomplete", "");
  const FolderFacts facts = inspect();
  EXPECT_EQ(facts.state, State::interrupted);
  EXPECT_EQ(facts.problem, "");
  EXPECT_FALSE(facts.room);
  EXPECT_EQ(facts.status, NativeInstaller::status(place.data()).to_json());
  EXPECT_EQ(facts.status.at("incomplete"), true);
}

TEST_F(InspectFolder, KnowsADamagedInstallation) {
  place.install();
  place.write("native/shortcuts.json", R"({"schema_version":1,"kind":"ravok-shortcuts","entries":[]})");
  const auto expect_damaged = [&](const std::filesystem::path& record, const std::string& problem) {
    const std::string name = record.lexically_relative(place.data());
    const std::string before = place.root().read("data/" + name);
    place.write(name, "{");
    const FolderFacts facts = inspect();
    EXPECT_EQ(facts.state, State::damaged) << name;
    EXPECT_EQ(facts.problem, problem);
    EXPECT_EQ(facts.root, place.data());
    EXPECT_FALSE(facts.room);
    EXPECT_TRUE(facts.status.is_null());
    place.write(name, before);
    EXPECT_EQ(inspect().state, State::installed) << name;
  };
  const DataPaths paths = place.paths();
  expect_damaged(paths.status_record, "Setup status record is malformed: " + paths.status_record.native());
  expect_damaged(paths.shortcut_ledger, "Shortcut list is malformed: " + paths.shortcut_ledger.native());
  expect_damaged(paths.bootstrap_manifest, testing::failure_of([] { parse_json("{", 1); }).value().what());
}

TEST_F(InspectFolder, RefusesADamagedInstallationThatNoRepairTakes) {
  place.install();
  place.write(place.paths().status_record.lexically_relative(place.data()), "{");
  place.write("native/installation.json", "{");
  expect_refused_as_by_install("Installation record is malformed: " + place.paths().installation_record.native());
}

TEST_F(InspectFolder, RefusesARecordThatItDoesNotUnderstand) {
  place.install();
  const std::string record = place.paths().installation_record;
  place.write("native/installation.json", "{\"schema_version\":2,\"kind\":\"ravok-installation\"}");
  expect_refused_as_by_install("Unsupported installation record " + record);
  place.write("native/installation.json", "{");
  expect_refused_as_by_install("Installation record is malformed: " + record);
}

TEST_F(InspectFolder, JudgesNoPlaceAndNoRoomWithoutManifests) {
  const auto look = [&](const std::filesystem::path& folder) {
    return inspect_folder(folder.native(), place.package_directory(), nullptr);
  };
  EXPECT_EQ(look(place.package_directory() / "data").state, State::free);
  EXPECT_FALSE(look(place.data()).room);
  EXPECT_EQ(look(place.package_directory()).problem, other_things);
  place.install();
  EXPECT_EQ(look(place.data()).state, State::installed);
}

TEST_F(InspectFolder, TellsTheRoomOfTheVolume) {
  const StorageVolume volume = inspect_storage_volume(place.root().path());
  const Json plan = plan_native_payload_storage(manifests.bootstrap, manifests.launcher, volume, 0);
  const Json& needed = plan.at("volume").at("additional_bytes");
  for (const char* folder : {"data", "a/b/c", "home"}) {
    const FolderFacts facts = inspect(place.root() / folder);
    ASSERT_TRUE(facts.room) << folder;
    EXPECT_EQ(Json(facts.room->needed), needed);
    EXPECT_GT(facts.room->available, facts.room->needed);
    EXPECT_LE(facts.room->available, volume.capacity_bytes);
  }
}

TEST_F(InspectFolder, IsFreeWhereTheRoomIsNotKnown) {
  // More than any number of bytes can tell.
  manifests.bootstrap.files.begin()->second.length = std::numeric_limits<std::uint64_t>::max();
  const FolderFacts facts = inspect();
  EXPECT_EQ(facts.state, State::free);
  EXPECT_FALSE(facts.room);
}

// --- The judgement with which every install and repair begins ---

class InstallFolder : public InspectFolder {
 protected:
  void place_of(const std::filesystem::path& folder) const {
    require_install_place(DataPaths(folder), place.package_directory(), manifests.bootstrap, manifests.launcher);
  }
  void state_for(bool repair) const { require_install_state(place.paths(), !exists(place.data()), repair); }
};

TEST_F(InstallFolder, LiesApartFromThePackage) {
  const std::filesystem::path package = place.package_directory();
  place_of(place.data());
  place_of(package.native() + "-2");
  place_of(place.root() / "other/package");
  for (const std::filesystem::path& folder : {package, package / "a/b", place.root().path(), package.root_path()}) {
    EXPECT_FAILURE(place_of(folder), "unsafe_path", overlap) << folder;
  }
}

TEST_F(InstallFolder, HasAPathThatTheLauncherTakes) {
  EXPECT_FAILURE(place_of(place.root() / "a\xff"), "unsafe_path", "The path of the data folder must be valid UTF-8");
  for (const char* name : {"a:b", "a\\b", "a/b:/c"}) {
    EXPECT_FAILURE(place_of(place.root() / name), "unsafe_path",
                   "The path of the data folder must hold no backslash and no colon");
  }
  // The first failure of the two is that of the text.
  EXPECT_FAILURE(place_of(place.package_directory() / "a\xff"), "unsafe_path",
                 "The path of the data folder must be valid UTF-8");
}

TEST_F(InstallFolder, TakesAnInstallWhereNothingOrAnEarlierFolderIs) {
  const std::string words = "Ravok is not installed in " + place.data().native();
  state_for(false);
  EXPECT_FAILURE(state_for(true), "not_installed", words);
  std::filesystem::create_directory(place.data());
  state_for(false);
  EXPECT_FAILURE(state_for(true), "not_installed", words);
  // The lock of a setup that made nothing else.
  place.write(".ravok-setup.lock", "");
  state_for(false);
  place.root().write("data/notes", "");
  EXPECT_FAILURE(state_for(false), "unsafe_path", other_things);
  for (const char* entry : {"settings.json", "native", "launcher", "userdata"}) {
    const std::filesystem::path path = place.data() / entry;
    std::filesystem::create_directory(path);
    state_for(false);
    std::filesystem::remove(path);
  }
}

TEST_F(InstallFolder, TakesARepairOfAnInstallation) {
  place.install();
  const testing::TreeState before = place.state();
  state_for(true);
  EXPECT_FAILURE(state_for(false), "already_installed",
                 "Ravok is already installed in " + place.data().native() + "; use repair");
  EXPECT_TRUE(testing::same_tree(place.state(), before));
}

TEST_F(InstallFolder, TakesBothWhereASetupHasNotEnded) {
  place.write(".ravok-setup-incomplete", "");
  state_for(false);
  state_for(true);
}

TEST_F(InstallFolder, RefusesAnInstallationThatIsNotUnderstood) {
  place.install();
  place.write("native/installation.json", "[]");
  for (const bool repair : {false, true}) {
    EXPECT_FAILURE(state_for(repair), "unsupported_schema",
                   "Installation record is malformed: " + place.paths().installation_record.native());
  }
}

TEST_F(InstallFolder, HasTheRoomOfTheNearestFolderAbove) {
  const auto room = [&](const std::filesystem::path& root) {
    return install_room(root, manifests.bootstrap, manifests.launcher);
  };
  place.root().write("file", "");
  std::filesystem::create_directory_symlink(place.home(), place.root() / "link");
  for (const char* folder : {"data", "a/b/c", "link", "link/x", "file", "file/x", "home"}) {
    ASSERT_TRUE(room(place.root() / folder)) << folder;
    EXPECT_EQ(room(place.root() / folder)->needed, room(place.home())->needed) << folder;
  }
  EXPECT_FALSE(std::filesystem::exists(place.root() / "a"));
}

TEST_F(InstallFolder, NeedsTheRoomOfBothTreesAndOfNothingElse) {
  const Json plan =
      plan_native_payload_storage(manifests.bootstrap, manifests.launcher, inspect_storage_volume(place.home()), 0);
  EXPECT_EQ(install_room(place.home(), manifests.bootstrap, manifests.launcher)->needed,
            plan.at("volume").at("additional_bytes"));
}

TEST_F(InstallFolder, HasNoKnownRoomWhereItCannotBeCounted) {
  manifests.launcher.files.begin()->second.length = std::numeric_limits<std::uint64_t>::max();
  EXPECT_FALSE(install_room(place.data(), manifests.bootstrap, manifests.launcher));
}

}  // namespace
}  // namespace ravok::inspect_folder_test
