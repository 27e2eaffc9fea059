#include "app/install/installation_record.hpp"

#include <ctime>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "app/install/setup_marker.hpp"
#include "app/launcher/launcher_store.hpp"
#include "support/failure.hpp"
#include "support/install_place.hpp"
#include "support/manifest_builder.hpp"
#include "support/ordinary_user.hpp"

namespace ravok {
namespace {

using testing::InstallPlace;
using testing::manifest_document;
using testing::same_tree;
using testing::TreeState;
using testing::utc_now;

constexpr const char* unsupported = "unsupported_schema";

Json good_record() {
  return {{"schema_version", 1},
          {"kind", "ravok-installation"},
          {"descriptor_sha256", std::string(64, 'a')},
          {"origin", "https://games.example"},
          {"installed_at", "2030-01-31T23:59:59Z"}};
}

Json good_status() {
  return {{"schema_version", 1}, {"kind", "ravok-setup-status"}, {"action", "repair"},
          {"outcome", "failed"}, {"message", "It went wrong"},   {"finished_at", "2030-01-31T23:59:59Z"}};
}

Json with(Json document, const std::string& key, Json value) {
  document[key] = std::move(value);
  return document;
}

Json without_key(Json document, const std::string& key) {
  document.erase(key);
  return document;
}

class InstallationRecord : public ::testing::Test {
 protected:
  // A folder with a record and a bootstrap that says what it is, and nothing else.
  void write_installation_by_hand() const {
    place.write("native/installation.json", good_record().dump());
    place.write("native/bootstrap.json", manifest_document().dump());
  }

  NativeInstallStatus status() const { return NativeInstaller::status(place.data()); }

  std::string of_record(const std::string& words) const { return words + paths.installation_record.native(); }
  std::string of_status(const std::string& words) const { return words + paths.status_record.native(); }

  InstallPlace place;
  const DataPaths& paths = place.paths();
};

// --- The two files that tell the state ---------------------------------------------------------

TEST_F(InstallationRecord, TellsTheStateOfAFolder) {
  EXPECT_EQ(installation_state(paths), InstallationState::none);
  place.write("native/installation.json", "{}");
  EXPECT_EQ(installation_state(paths), InstallationState::complete);
  place.write(".ravok-setup-incomplete", "");
  EXPECT_EQ(installation_state(paths), InstallationState::interrupted);
  std::filesystem::remove(paths.installation_record);
  EXPECT_EQ(installation_state(paths), InstallationState::interrupted);
}

TEST_F(InstallationRecord, FollowsNoLinkForTheState) {
  place.write("native/x", "");
  std::filesystem::create_symlink("nowhere", paths.installation_record);
  EXPECT_EQ(installation_state(paths), InstallationState::complete);
  std::filesystem::create_symlink("nowhere", paths.incomplete_marker);
  EXPECT_EQ(installation_state(paths), InstallationState::interrupted);
}

TEST_F(InstallationRecord, MarkerIsTheOnlyWordOfASetupThatRuns) {
  place.write("userdata/save", "save");
  write_setup_marker(HeldDirectory::open_private(paths.root));
  EXPECT_EQ(place.read(".ravok-setup-incomplete"), R"({"kind":"ravok-setup-incomplete","schema_version":1})");
  EXPECT_TRUE(place.state().at(".ravok-setup-incomplete").starts_with("600 file "));
  remove_setup_marker(HeldDirectory::open(paths.root));
  EXPECT_NE(installation_state(paths), InstallationState::interrupted);
  remove_setup_marker(HeldDirectory::open(paths.root));
  EXPECT_EQ(place.read("userdata/save"), "save");
}

TEST_F(InstallationRecord, MarkerThatCannotGoIsAFailure) {
  place.write(".ravok-setup-incomplete/file", "");
  EXPECT_FAILURE(remove_setup_marker(HeldDirectory::open(paths.root)), "file_remove",
                 "Cannot remove " + paths.incomplete_marker.native());
  EXPECT_EQ(installation_state(paths), InstallationState::interrupted);
}

TEST_F(InstallationRecord, MarkerReplacesALinkInItsPlaceAndNotWhatThatLeadsTo) {
  place.write("elsewhere", "kept");
  std::filesystem::create_symlink("elsewhere", paths.incomplete_marker);
  write_setup_marker(HeldDirectory::open_private(paths.root));
  EXPECT_TRUE(place.state().at(".ravok-setup-incomplete").starts_with("600 file "));
  EXPECT_EQ(place.read("elsewhere"), "kept");
}

// --- The record of an installation -------------------------------------------------------------

TEST_F(InstallationRecord, PassesWithItsKindAndVersionAlone) {
  for (const Json& record : {good_record(), with(good_record(), "later", {{"more", true}}),
                             Json{{"schema_version", 1}, {"kind", "ravok-installation"}, {"brand", 7}}}) {
    place.write("native/installation.json", record.dump());
    EXPECT_NO_THROW(check_installation(paths)) << record;
  }
}

TEST_F(InstallationRecord, OfAnotherKindOrVersionIsUnsupported) {
  for (const Json& record :
       {with(good_record(), "schema_version", 2), with(good_record(), "schema_version", 0),
        with(good_record(), "schema_version", "1"), with(good_record(), "schema_version", nullptr),
        with(good_record(), "schema_version", true), with(good_record(), "kind", "ravok-setup-status"),
        with(good_record(), "kind", 1), with(good_record(), "kind", nullptr)}) {
    place.write("native/installation.json", record.dump());
    EXPECT_FAILURE(check_installation(paths), unsupported, of_record("Unsupported installation record ")) << record;
  }
}

TEST_F(InstallationRecord, ThatCannotBeReadIsMalformed) {
  const std::string malformed = of_record("Installation record is malformed: ");
  EXPECT_FAILURE(check_installation(paths), unsupported, malformed);
  for (const std::string& text :
       {std::string(), std::string("{"), std::string("[]"), std::string("7"), std::string("{}"),
        without_key(good_record(), "schema_version").dump(), without_key(good_record(), "kind").dump(),
        std::string("{\"a\":1,\"a\":2}"), good_record().dump() + "x"}) {
    place.write("native/installation.json", text);
    EXPECT_FAILURE(check_installation(paths), unsupported, malformed) << text;
  }
  std::filesystem::remove(paths.installation_record);
  std::filesystem::create_directory(paths.installation_record);
  EXPECT_FAILURE(check_installation(paths), unsupported, malformed);
  std::filesystem::remove(paths.installation_record);
  place.write("native/other", good_record().dump());
  std::filesystem::create_symlink("other", paths.installation_record);
  EXPECT_FAILURE(check_installation(paths), unsupported, malformed);
}

TEST_F(InstallationRecord, IsAtMost65536Bytes) {
  const Json record = good_record();
  const std::size_t size = record.dump().size() + std::string_view(R"("pad":"",)").size();
  place.write("native/installation.json", with(record, "pad", std::string(65536 - size, 'p')).dump());
  ASSERT_EQ(std::filesystem::file_size(paths.installation_record), 65536u);
  EXPECT_NO_THROW(check_installation(paths));
  place.write("native/installation.json", with(record, "pad", std::string(65537 - size, 'p')).dump());
  EXPECT_FAILURE(check_installation(paths), unsupported, of_record("Installation record is malformed: "));
}

NativePackage package_to_record() {
  NativePackage package;
  package.descriptor_sha256 = std::string(64, 'c');
  package.origin = "https://games.example";
  return package;
}

TEST_F(InstallationRecord, SaysWhatWasInstalledAndWhen) {
  const std::string before = utc_now();
  write_installation(HeldDirectory::open_private(paths.native), package_to_record());
  const std::string time = place.record("native/installation.json").at("installed_at").get<std::string>();
  EXPECT_LE(before, time);
  EXPECT_LE(time, utc_now());
  EXPECT_EQ(place.read("native/installation.json"),
            R"({"descriptor_sha256":")" + std::string(64, 'c') + R"(","installed_at":")" + time +
                R"(","kind":"ravok-installation","origin":"https://games.example","schema_version":1})");
  EXPECT_TRUE(place.state().at("native/installation.json").starts_with("600 file "));
  EXPECT_NO_THROW(check_installation(paths));
}

TEST_F(InstallationRecord, NamesTheBrandOfABrandedPackage) {
  NativePackage package = package_to_record();
  package.brand = Brand{"Acme Games", "acme", "Acme", true};
  write_installation(HeldDirectory::open_private(paths.native), package);
  EXPECT_EQ(place.record("native/installation.json").at("brand"),
            Json({{"name", "Acme Games"}, {"id", "acme"}, {"publisher", "Acme"}, {"icon", true}}));
  EXPECT_EQ(place.record("native/installation.json").size(), 6u);
  EXPECT_EQ(installed_brand(paths.root), package.brand);
}

// --- The record of how the last setup ended ----------------------------------------------------

TEST_F(InstallationRecord, TellsHowASetupEnded) {
  place.write("native/x", "");
  const std::string before = utc_now();
  write_status(paths, "repair", "failed", "A \"quoted\" message");
  const std::string time = place.record("native/setup-status.json").at("finished_at").get<std::string>();
  EXPECT_LE(before, time);
  EXPECT_LE(time, utc_now());
  EXPECT_EQ(
      place.read("native/setup-status.json"),
      R"({"action":"repair","finished_at":")" + time +
          R"(","kind":"ravok-setup-status","message":"A \"quoted\" message","outcome":"failed","schema_version":1})");
  write_status(paths, "install", "succeeded", "");
  const Json record = place.record("native/setup-status.json");
  EXPECT_EQ(record.at("action"), "install");
  EXPECT_EQ(record.at("outcome"), "succeeded");
  EXPECT_EQ(record.at("message"), "");
}

TEST_F(InstallationRecord, OfASetupNeedsTheNativeFolder) {
  write_status(paths, "repair", "failed", "message");
  EXPECT_FALSE(std::filesystem::exists(paths.root));
  place.write("native", "a file");
  write_status(paths, "repair", "failed", "message");
  EXPECT_EQ(place.state().size(), 1u);
  EXPECT_EQ(place.read("native"), "a file");
}

TEST_F(InstallationRecord, OfASetupThatCannotBeWrittenIsPassedOver) {
  place.write("native/setup-status.json/file", "kept");
  const TreeState before = place.state();
  write_status(paths, "repair", "failed", "message");
  EXPECT_TRUE(same_tree(place.state(), before));
  std::filesystem::remove_all(paths.status_record);
  place.write("native/setup-status.json", "former");
  write_status(paths, "repair", "failed", "not UTF-8: \xff");
  EXPECT_EQ(place.read("native/setup-status.json"), "former");
}

TEST_F(InstallationRecord, OfASetupReplacesALinkAndNotWhatThatLeadsTo) {
  place.write("native/elsewhere", "kept");
  std::filesystem::create_symlink("elsewhere", paths.status_record);
  write_status(paths, "repair", "failed", "message");
  EXPECT_EQ(place.read("native/elsewhere"), "kept");
  EXPECT_EQ(place.record("native/setup-status.json").at("message"), "message");
}

TEST_F(InstallationRecord, OfASetupIsNotWrittenThroughALinkedFolder) {
  place.write("elsewhere/file", "kept");
  std::filesystem::create_directory_symlink("elsewhere", paths.native);
  const TreeState before = place.state();
  write_status(paths, "repair", "failed", "message");
  EXPECT_TRUE(same_tree(place.state(), before));
}

TEST_F(InstallationRecord, IsNotLookedForBehindALink) {
  place.write("elsewhere/installation.json", "{}");
  std::filesystem::create_directory_symlink("elsewhere", paths.native);
  EXPECT_FAILURE(
      installation_state(paths), "unsafe_path",
      paths.native.native() + " is a symbolic link, which setup does not follow; replace it with the folder");
  place.write(".ravok-setup-incomplete", "{}");
  EXPECT_EQ(installation_state(paths), InstallationState::interrupted);
}

TEST_F(InstallationRecord, OfAFolderThatMayNotBeLookedIntoIsUnknown) {
  place.write("native/installation.json", "{}");
  const testing::OrdinaryUser user(place.root());
  for (const std::filesystem::path& folder : {paths.root, paths.native}) {
    const testing::WithMode closed(folder, 0);
    EXPECT_FAILURE(NativeInstaller::status(paths.root), "permissions",
                   "Cannot look at " + paths.installation_record.native() + ": Permission denied");
  }
}

// --- What the records say of the bootstrap -----------------------------------------------------

TEST_F(InstallationRecord, KnowsTheInstalledBootstrap) {
  place.write("native/bootstrap.json", manifest_document().dump());
  EXPECT_EQ(current_bootstrap(paths).build_id, "build-1");
  EXPECT_EQ(shortcut_bootstrap(paths), paths.bootstrap_directory / "bin/program");
  place.write("native/bootstrap.json", with(manifest_document(), "gui_executable", "bin/window").dump());
  EXPECT_EQ(current_bootstrap(paths).executable, "bin/program");
  EXPECT_EQ(shortcut_bootstrap(paths), paths.bootstrap_directory / "bin/window");
}

TEST_F(InstallationRecord, KnowsNoBootstrapWithoutItsManifest) {
  const std::string path = paths.bootstrap_manifest.native();
  EXPECT_FAILURE(current_bootstrap(paths), "file_read", "Cannot open file: " + path);
  EXPECT_FAILURE(shortcut_bootstrap(paths), "file_read", "Cannot open file: " + path);
  place.write("native/bootstrap.json", manifest_document().dump() + std::string(524'288, ' '));
  EXPECT_FAILURE(current_bootstrap(paths), "size_limit", "File exceeds read limit");
  const std::string text = manifest_document().dump();
  place.write("native/bootstrap.json", text + std::string(524'288 - text.size(), ' '));
  EXPECT_NO_THROW(current_bootstrap(paths));
}

TEST_F(InstallationRecord, LetsNoShortcutStartWhatLiesElsewhere) {
  place.write("native/bootstrap/x", "");
  std::filesystem::create_symlink("..", paths.bootstrap_directory / "bin");
  place.write("native/bootstrap.json", manifest_document().dump());
  EXPECT_FAILURE(shortcut_bootstrap(paths), "unsafe_path", "Managed path contains a symbolic link");
  place.write("native/bootstrap.json", with(manifest_document(), "gui_executable", "../program").dump());
  EXPECT_FAILURE(shortcut_bootstrap(paths), "unsafe_path", "Path contains an unsafe component");
}

TEST_F(InstallationRecord, KnowsWhetherAnUpdateOfTheBootstrapWaits) {
  const std::filesystem::path update = paths.native / "bootstrap-update.json";
  EXPECT_FALSE(bootstrap_update_pending(paths.root));
  place.write("native/bootstrap-update", "another");
  EXPECT_FALSE(bootstrap_update_pending(paths.root));
  place.write("native/bootstrap-update.json", "");
  EXPECT_TRUE(bootstrap_update_pending(paths.root));
  std::filesystem::remove(update);
  std::filesystem::create_symlink("nowhere", update);
  EXPECT_TRUE(bootstrap_update_pending(paths.root));
  std::filesystem::remove(update);
  std::filesystem::create_directory(update);
  EXPECT_TRUE(bootstrap_update_pending(paths.root));
}

// --- The status of a folder --------------------------------------------------------------------

TEST_F(InstallationRecord, StatusOfAMissingFolderIsNoFailure) {
  const NativeInstallStatus status = this->status();
  EXPECT_EQ(status.data_root, paths.root);
  EXPECT_FALSE(status.installed);
  EXPECT_FALSE(status.incomplete);
  EXPECT_FALSE(status.last_operation.has_value());
  EXPECT_FALSE(std::filesystem::exists(paths.root));
  EXPECT_EQ(status.to_json(), Json({{"schema_version", 1},
                                    {"data_root", paths.root.native()},
                                    {"installed", false},
                                    {"incomplete", false},
                                    {"bootstrap_build", ""},
                                    {"launcher_build", ""},
                                    {"bootstrap_update_pending", false},
                                    {"shortcuts", Json::array()},
                                    {"last_operation", nullptr}}));
}

TEST_F(InstallationRecord, StatusJudgesTheChoiceOfAFolder) {
  EXPECT_FAILURE(NativeInstaller::status(""), "unsafe_path", "Choose a data folder");
  EXPECT_FAILURE(NativeInstaller::status("/"), "unsafe_path", "The data folder cannot be a filesystem root");
  EXPECT_EQ(NativeInstaller::status(place.root() / "other/../data").data_root, paths.root);
}

TEST_F(InstallationRecord, StatusOfAnInterruptedSetupReadsNoRecord) {
  place.write(".ravok-setup-incomplete", "");
  for (const bool recorded : {false, true}) {
    if (recorded) {
      place.write("native/installation.json", "damaged");
      place.write("native/bootstrap.json", "damaged");
      place.write("native/setup-status.json", good_status().dump());
    }
    const NativeInstallStatus status = this->status();
    EXPECT_FALSE(status.installed);
    EXPECT_TRUE(status.incomplete);
    EXPECT_EQ(status.bootstrap_build, "");
    EXPECT_FALSE(status.last_operation.has_value());
  }
}

TEST_F(InstallationRecord, StatusOfAFolderWithoutARecordTellsOfNoOperation) {
  place.write("native/setup-status.json", good_status().dump());
  place.write("native/bootstrap.json", manifest_document().dump());
  place.write("native/bootstrap-update.json", "");
  const NativeInstallStatus status = this->status();
  EXPECT_FALSE(status.installed);
  EXPECT_FALSE(status.incomplete);
  EXPECT_EQ(status.bootstrap_build, "");
  EXPECT_FALSE(status.bootstrap_update_pending);
  EXPECT_FALSE(status.last_operation.has_value());
}

TEST_F(InstallationRecord, StatusOfAnInstallationTellsAllThatIsKnown) {
  place.package.featured_game.reset();
  place.republish();
  const std::vector<std::filesystem::path> shortcuts = place.install(true).shortcuts;
  ASSERT_EQ(shortcuts.size(), 1u);
  place.write("native/bootstrap-update.json", "{}");
  place.write("native/setup-status.json", good_status().dump());
  const TreeState before = place.state();
  const NativeInstallStatus status = this->status();
  EXPECT_EQ(status.to_json(), Json({{"schema_version", 1},
                                    {"data_root", paths.root.native()},
                                    {"installed", true},
                                    {"incomplete", false},
                                    {"bootstrap_build", "build-1"},
                                    {"launcher_build", "build-1"},
                                    {"bootstrap_update_pending", true},
                                    {"shortcuts", {shortcuts[0].native()}},
                                    {"last_operation",
                                     {{"action", "repair"},
                                      {"outcome", "failed"},
                                      {"message", "It went wrong"},
                                      {"finished_at", "2030-01-31T23:59:59Z"}}}}));
  EXPECT_TRUE(same_tree(place.state(), before));
}

TEST_F(InstallationRecord, StatusTakesNoLock) {
  write_installation_by_hand();
  const NativeFileLock setup(paths.setup_lock, true, NativeLockSharing::others, LockMode::exclusive);
  const NativeFileLock bootstrap(paths.bootstrap_lock, true, NativeLockSharing::none, LockMode::exclusive);
  EXPECT_TRUE(status().installed);
}

TEST_F(InstallationRecord, StatusFailsAsTheInstallationRecordDoes) {
  write_installation_by_hand();
  place.write("native/installation.json", with(good_record(), "schema_version", 2).dump());
  EXPECT_FAILURE(status(), unsupported, of_record("Unsupported installation record "));
  place.write("native/installation.json", "{");
  EXPECT_FAILURE(status(), unsupported, of_record("Installation record is malformed: "));
}

TEST_F(InstallationRecord, StatusNeedsTheManifestOfTheBootstrap) {
  write_installation_by_hand();
  std::filesystem::remove(paths.bootstrap_manifest);
  EXPECT_FAILURE(status(), "file_read", "Cannot open file: " + paths.bootstrap_manifest.native());
}

TEST_F(InstallationRecord, StatusFailsAsTheLedgerDoes) {
  write_installation_by_hand();
  place.write("native/shortcuts.json", "{");
  EXPECT_FAILURE(status(), "shortcut_ledger",
                 "Shortcut list is malformed: " + (paths.native / "shortcuts.json").native());
}

TEST_F(InstallationRecord, StatusKnowsNoLauncherOfAMissingOrBrokenStore) {
  write_installation_by_hand();
  EXPECT_EQ(status().launcher_build, "");
  place.write("launcher/installation.json", "broken");
  EXPECT_EQ(status().launcher_build, "");
  std::filesystem::remove_all(paths.launcher);
  { const LauncherStore store(paths.root); }
  EXPECT_EQ(status().launcher_build, "");
  place.write("launcher/installation.json", "broken");
  EXPECT_EQ(status().launcher_build, "");
  EXPECT_EQ(status().bootstrap_build, "build-1");
}

Json launcher_state(const Json& active, const Json& candidate) {
  return {{"schema_version", 1}, {"format", "ravok-launcher-store-v1"},
          {"generation", 3},     {"active", active},
          {"rollback", nullptr}, {"candidate", candidate},
          {"attempt", nullptr},  {"failed_candidate", nullptr}};
}

Json reference(const std::string& build) { return {{"manifest_sha256", std::string(64, 'd')}, {"build_id", build}}; }

TEST_F(InstallationRecord, StatusNamesTheActiveLauncherBeforeTheCandidate) {
  write_installation_by_hand();
  { const LauncherStore store(paths.root); }
  const auto build_of = [&](const Json& active, const Json& candidate) {
    place.write("launcher/installation.json", launcher_state(active, candidate).dump());
    return status().launcher_build;
  };
  EXPECT_EQ(build_of(reference("active"), reference("candidate")), "active");
  EXPECT_EQ(build_of(reference("active"), nullptr), "active");
  EXPECT_EQ(build_of(nullptr, reference("candidate")), "candidate");
  EXPECT_EQ(build_of(nullptr, nullptr), "");
}

TEST_F(InstallationRecord, StatusWithoutARecordedSetupTellsOfNone) {
  write_installation_by_hand();
  EXPECT_FALSE(status().last_operation.has_value());
  place.write("native/setup-status.json", with(good_status(), "later", 1).dump());
  ASSERT_TRUE(status().last_operation.has_value());
  EXPECT_EQ(status().last_operation->message, "It went wrong");
}

TEST_F(InstallationRecord, StatusFailsForASetupRecordOfAnotherKind) {
  write_installation_by_hand();
  for (const Json& record : {with(good_status(), "kind", "ravok-installation"), with(good_status(), "kind", 7),
                             with(good_status(), "schema_version", 2), with(good_status(), "schema_version", "1")}) {
    place.write("native/setup-status.json", record.dump());
    EXPECT_FAILURE(status(), unsupported, "Unsupported setup status record") << record;
  }
}

TEST_F(InstallationRecord, StatusFailsForASetupRecordThatCannotBeRead) {
  write_installation_by_hand();
  const std::string malformed = of_status("Setup status record is malformed: ");
  std::vector<std::string> texts = {"", "{", "[]", "{}"};
  for (const char* key : {"schema_version", "kind", "action", "outcome", "message", "finished_at"}) {
    texts.push_back(without_key(good_status(), key).dump());
  }
  for (const char* key : {"action", "outcome", "message", "finished_at"}) {
    texts.push_back(with(good_status(), key, 7).dump());
  }
  texts.push_back(with(good_status(), "message", std::string(65'536, 'm')).dump());
  for (const std::string& text : texts) {
    place.write("native/setup-status.json", text);
    EXPECT_FAILURE(status(), unsupported, malformed) << text.substr(0, 100);
  }
  std::filesystem::remove(paths.status_record);
  std::filesystem::create_symlink("nowhere", paths.status_record);
  EXPECT_FAILURE(status(), unsupported, malformed);
}

// --- A store that must be there ----------------------------------------------------------------

constexpr const char* no_prepared_directory = "Cannot inspect prepared directory identity";

TEST_F(InstallationRecord, ExistingStoreMakesNothing) {
  EXPECT_FAILURE(LauncherStore::existing(paths.root), "unsafe_path", no_prepared_directory);
  EXPECT_FALSE(std::filesystem::exists(paths.root));
  place.write("launcher/manifests/x", "");
  const TreeState before = place.state();
  EXPECT_FAILURE(LauncherStore::existing(paths.root), "unsafe_path", no_prepared_directory);
  EXPECT_FAILURE(LauncherStore::existing(paths.root, true), "unsafe_path", no_prepared_directory);
  EXPECT_TRUE(same_tree(place.state(), before));
}

TEST_F(InstallationRecord, ExistingStoreNeedsEachOfItsRecordsFolders) {
  for (const char* name : {"manifests", "downloads", "download-intents", "intents"}) {
    { const LauncherStore store(paths.root); }
    std::filesystem::remove_all(paths.launcher / name);
    EXPECT_FAILURE(LauncherStore::existing(paths.root, true), "unsafe_path", no_prepared_directory) << name;
    std::filesystem::create_directory_symlink("versions", paths.launcher / name);
    EXPECT_FAILURE(LauncherStore::existing(paths.root, true), "unsafe_path", no_prepared_directory) << name;
    std::filesystem::remove(paths.launcher / name);
  }
}

TEST_F(InstallationRecord, ExistingStoreOfAnInterruptedSetupIsOpenedOnlyOnRequest) {
  { const LauncherStore store(paths.root); }
  place.write(".ravok-setup-incomplete", "");
  const TreeState before = place.state();
  EXPECT_FAILURE(
      LauncherStore::existing(paths.root), "native_install_incomplete",
      "Ravok setup did not finish in " + paths.root.native() + ". Run the Ravok installer again to repair it.");
  EXPECT_EQ(LauncherStore::existing(paths.root, true)->store(), paths.launcher);
  EXPECT_TRUE(LauncherStore::existing(paths.root, true)->status().at("candidate").is_null());
  EXPECT_TRUE(same_tree(place.state(), before));
  std::filesystem::remove(paths.incomplete_marker);
  EXPECT_NO_THROW(LauncherStore::existing(paths.root));
}

TEST_F(InstallationRecord, ExistingStoreRefusesADamagedDocument) {
  { const LauncherStore store(paths.root); }
  place.write("launcher/installation.json", Json({{"schema_version", 2}, {"format", "x"}}).dump());
  EXPECT_FAILURE(LauncherStore::existing(paths.root, true), unsupported, "Unknown launcher state was preserved");
}

}  // namespace
}  // namespace ravok
