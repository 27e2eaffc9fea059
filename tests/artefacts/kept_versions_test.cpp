// That everything is kept which every version can write: one artefact for each state, and each name of a data folder in
// one of them.

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "artefacts/kept_folder.hpp"
#include "domain/data_layout.hpp"
#include "support/bytes_of.hpp"

namespace ravok::kept_versions_test {
namespace {

using testing::KeptVersion;
using Names = std::set<std::string>;

// The artefacts, each with the first version that has it.
const std::map<std::string, std::string>& artefacts() {
  static const std::map<std::string, std::string> known = {
      {"data-attempt-cut", "0.1.0"},
      {"data-bootstrap-half", "0.1.0"},
      {"data-bootstrap-old-files", "0.1.0"},
      {"data-bootstrap-pending", "0.1.0"},
      {"data-bootstrap-rejected", "0.1.0"},
      {"data-bootstrap-unpacked", "0.1.0"},
      {"data-branded", "0.1.0"},
      {"data-cleanup-cut", "0.1.0"},
      {"data-damaged", "0.1.0"},
      {"data-download-cut", "0.1.0"},
      {"data-fresh", "0.1.0"},
      {"data-game", "0.1.0"},
      {"data-install-cut", "0.1.0"},
      {"data-no-shortcut", "0.1.0"},
      {"data-repair-cut", "0.1.0"},
      {"data-repair-prepared", "0.1.0"},
      {"data-repaired", "0.1.0"},
      {"data-shortcuts", "0.1.0"},
      {"data-staging-cut", "0.1.0"},
      {"data-trust-cut", "0.1.0"},
      {"data-uninstall-cut", "0.1.0"},
      {"data-uninstalled", "0.1.0"},
      {"data-updated", "0.1.0"},
      {"data-waiting", "0.1.0"},
      {"game-install", "0.1.0"},
      {"keys", "0.1.0"},
      {"package-branded", "0.1.0"},
      {"package-featured", "0.1.0"},
      {"package-plain", "0.1.0"},
      {"package-single-file", "0.1.0"},
      {"platformed-game", "0.1.0"},
      {"repository", "0.1.0"},
      {"repository-delegated", "0.1.0"},
      {"repository-draft", "0.1.0"},
      {"repository-schemes", "0.1.0"},
      {"sdk-sessions", "0.1.0"},
      {"snapshots", "0.1.0"},
  };
  return known;
}

// The names below a data folder of which no artefact can hold one, with the reason.
const std::map<std::string, std::string>& names_that_are_not_kept() {
  static const std::map<std::string, std::string> reasons = {};
  return reasons;
}

// A name with HASH and NONCE in the place of what is made anew each time.
std::string general(const std::string& name) {
  static const std::regex hash("[0-9a-f]{64}");
  static const std::regex nonce("[0-9a-f]{32}");
  return std::regex_replace(std::regex_replace(name, hash, "HASH"), nonce, "NONCE");
}

// The names below the data folders of all artefacts of a version.
Names kept_data_names(const KeptVersion& version) {
  Names names;
  for (const auto& [artefact, since] : artefacts()) {
    if (!std::filesystem::exists(version.archive(artefact))) {
      continue;
    }
    for (std::string name : testing::kept_names(version, artefact)) {
      if (name.starts_with("data/")) {
        name = general(name.substr(5));
        names.insert(name.ends_with("/") ? name.substr(0, name.size() - 1) : name);
      }
    }
  }
  return names;
}

// Every place that the layout of a data folder knows. A member that is added to one of the layouts does not compile
// here until it is named, so that it cannot be forgotten.
Names names_of_the_layout() {
  const std::string hash = "HASH";
  const std::string nonce = "NONCE";
  Names names;
  const auto add = [&](const auto&... paths) {
    (names.insert(std::filesystem::path(paths).lexically_relative("/data").native()), ...);
  };
  const auto& [root, native, marker, setup_lock, bootstrap_lock, installation, status, bootstrap, bootstrap_manifest,
               bootstrap_update, update_tree, traces, brand_icon, menu_icon, theme, ledger, ledger_lock, staging,
               launcher, trust, trusted_root, repository, repository_ca] = DataPaths("/data");
  add(native, marker, setup_lock, bootstrap_lock, installation, status, bootstrap, bootstrap_manifest, bootstrap_update,
      update_tree, brand_icon, menu_icon, theme, ledger, ledger_lock, staging, launcher, trust, trusted_root,
      repository, repository_ca);
  for (const std::filesystem::path& trace : traces) {
    add(trace);
  }
  add(trust / trusted_root_file, trust / trust_rotation_mark, trust / trust_lock_file, theme / theme_definition_file);
  const auto& [tree, manifest, next_tree, partial_tree, next_manifest, downloads, rejected, update_lock, old_files] =
      BootstrapPaths("/data");
  add(tree, manifest, next_tree, partial_tree, next_manifest, downloads, rejected, update_lock, old_files);
  const auto& [staged_bootstrap, launcher_root, staged_trust, staged_theme, old_bootstrap, old_launcher, old_trust,
               old_theme] = StagingPaths(staging);
  add(staged_bootstrap, launcher_root, staged_trust, staged_theme, old_bootstrap, old_launcher, old_trust, old_theme);
  const LauncherPaths paths(launcher);
  const auto& [store, document, owner_lock, start_marker, cleanup, versions, manifests, store_downloads,
               intents_of_downloads, stagings, intents, health, leases, version_leases, attempt_leases] = paths;
  add(store, document, owner_lock, start_marker, cleanup, versions, manifests, store_downloads, intents_of_downloads,
      stagings, intents, health, leases, version_leases, attempt_leases);
  add(paths.version(hash), paths.manifest(hash), paths.version_lease(hash), paths.removed_manifest(hash),
      paths.attempt_lease(nonce), paths.attempt_acknowledgement(nonce), paths.attempt_health(nonce),
      paths.staging_work(nonce), paths.staging_intent(nonce));
  const GamePaths game("first-game");
  const auto& [game_folder, game_record] = game;
  names.insert({game_folder, game_record, game.version("1.0"), game.manifest(hash)});
  for (const std::string_view name : player_data) {
    names.insert(std::string(name));
  }
  for (const std::string_view name : ravok_entries) {
    names.insert(std::string(name));
  }
  return names;
}

TEST(KeptVersions, AreThereForEveryReleaseThatTheChangesName) {
  Names kept;
  for (const KeptVersion& version : testing::kept_versions()) {
    kept.insert(version.version);
  }
  Names released;
  std::ifstream changes(RAVOK_CHANGES);
  const std::regex heading("## ([0-9]+\\.[0-9]+\\.[0-9]+) \\([0-9]{4}-[0-9]{2}-[0-9]{2}\\)");
  std::smatch found;
  for (std::string line; std::getline(changes, line);) {
    if (std::regex_match(line, found, heading)) {
      released.insert(found[1]);
    }
  }
  ASSERT_TRUE(released.contains(RAVOK_VERSION));
  if (std::getenv("RAVOK_ARTEFACTS") == nullptr) {
    EXPECT_EQ(kept, released) << "scripts/keep-artefacts writes those of the present version";
  }
}

TEST(KeptVersions, HoldEveryArtefactAndNoOther) {
  for (const KeptVersion& version : testing::kept_versions()) {
    Names expected;
    for (const auto& [artefact, since] : artefacts()) {
      if (!testing::is_older(version.version, since)) {
        expected.insert(artefact + ".tar.gz");
      }
    }
    Names found;
    for (const auto& entry : std::filesystem::directory_iterator(version.folder)) {
      found.insert(entry.path().filename());
    }
    EXPECT_EQ(found, expected) << version.version;
  }
}

TEST(KeptVersions, HoldEveryNameOfADataFolder) {
  const Names wanted = names_of_the_layout();
  const Names kept = kept_data_names(testing::kept_versions().back());
  for (const std::string& name : wanted) {
    const bool is_excused = names_that_are_not_kept().contains(name);
    EXPECT_NE(kept.contains(name), is_excused)
        << name << (is_excused ? " is kept after all" : " is in no artefact of the newest version");
  }
}

TEST(KeptVersions, StaySmall) {
  for (const KeptVersion& version : testing::kept_versions()) {
    std::uint64_t bytes = 0;
    for (const auto& entry : std::filesystem::directory_iterator(version.folder)) {
      bytes += entry.file_size();
    }
    EXPECT_LE(bytes, 512u * 1024) << version.version;
  }
}

}  // namespace
}  // namespace ravok::kept_versions_test
