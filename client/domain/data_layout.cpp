#include "domain/data_layout.hpp"

#include <string>

namespace ravok {
namespace {

constexpr const char* update_tree_name = "bootstrap-update";
constexpr const char* downloads_name = "bootstrap-downloads";
constexpr const char* rejected_name = "bootstrap-update.rejected";
constexpr const char* old_files_name = "bootstrap-old-files";

std::filesystem::path named(const std::filesystem::path& folder, std::string_view name, std::string_view extension) {
  return folder / (std::string(name) += extension);
}

}  // namespace

DataPaths::DataPaths(const std::filesystem::path& data_root)
    : root(data_root),
      native(root / "native"),
      incomplete_marker(root / incomplete_install_marker),
      setup_lock(root / ".ravok-setup.lock"),
      bootstrap_lock(root / ".native-bootstrap.lock"),
      installation_record(native / "installation.json"),
      status_record(native / "setup-status.json"),
      bootstrap_directory(native / "bootstrap"),
      bootstrap_manifest(native / "bootstrap.json"),
      bootstrap_update(native / "bootstrap-update.json"),
      bootstrap_update_tree(native / "bootstrap-update.partial"),
      bootstrap_update_traces{native / update_tree_name, bootstrap_update_tree,  native / downloads_name,
                              bootstrap_update,          native / rejected_name, native / old_files_name},
      brand_icon(native / "brand.ico"),
      menu_icon(native / "brand.png"),
      theme_directory(native / "theme"),
      shortcut_ledger(native / "shortcuts.json"),
      shortcut_lock(native / "shortcuts.lock"),
      staging(native / "staging"),
      launcher(root / "launcher"),
      trust(root / "trust"),
      trusted_root(trust / trusted_root_file),
      repository_record(root / "repository.json"),
      repository_ca(root / "repository-ca.pem") {}

BootstrapPaths::BootstrapPaths(const std::filesystem::path& data_root) {
  const DataPaths paths(data_root);
  tree = paths.bootstrap_directory;
  manifest = paths.bootstrap_manifest;
  update_tree = paths.native / update_tree_name;
  partial_tree = paths.bootstrap_update_tree;
  update_manifest = paths.bootstrap_update;
  downloads = paths.native / downloads_name;
  rejected = paths.native / rejected_name;
  update_lock = paths.native / "bootstrap-update.lock";
  old_files_mark = paths.native / old_files_name;
}

StagingPaths::StagingPaths(const std::filesystem::path& folder)
    : bootstrap(folder / "bootstrap"),
      launcher_root(folder / "launcher-root"),
      trust(folder / "trust"),
      theme(folder / "theme"),
      old_bootstrap(folder / "old-bootstrap"),
      old_launcher(folder / "old-launcher"),
      old_trust(folder / "old-trust"),
      old_theme(folder / "old-theme") {}

LauncherPaths::LauncherPaths(const std::filesystem::path& folder)
    : store(folder),
      document(store / "installation.json"),
      owner_lock(store / "bootstrap.lock"),
      start_marker(store / "start-attempt.json"),
      cleanup(store / "cleanup.json"),
      versions(store / "versions"),
      manifests(store / "manifests"),
      downloads(store / "downloads"),
      download_intents(store / "download-intents"),
      staging(store / "staging"),
      intents(store / "intents"),
      health(store / "health"),
      leases(store / "leases"),
      version_leases(leases / "versions"),
      attempt_leases(leases / "attempts") {}

std::array<std::filesystem::path, 9> LauncherPaths::directories() const {
  return {versions, manifests, downloads, download_intents, staging, intents, health, version_leases, attempt_leases};
}

std::filesystem::path LauncherPaths::version(std::string_view sha256) const { return named(versions, sha256, ""); }

std::filesystem::path LauncherPaths::manifest(std::string_view sha256) const {
  return named(manifests, sha256, ".json");
}

std::filesystem::path LauncherPaths::version_lease(std::string_view sha256) const {
  return named(version_leases, sha256, ".lock");
}

std::filesystem::path LauncherPaths::removed_manifest(std::string_view sha256) const {
  return named(manifests, sha256, ".json.removed");
}

std::filesystem::path LauncherPaths::attempt_lease(std::string_view nonce) const {
  return named(attempt_leases, nonce, ".lock");
}

std::filesystem::path LauncherPaths::attempt_acknowledgement(std::string_view nonce) const {
  return named(attempt_leases, nonce, ".json");
}

std::filesystem::path LauncherPaths::attempt_health(std::string_view nonce) const {
  return named(health, nonce, ".json");
}

std::filesystem::path LauncherPaths::staging_work(std::string_view nonce) const { return named(staging, nonce, ""); }

std::filesystem::path LauncherPaths::staging_intent(std::string_view nonce) const {
  return named(intents, nonce, ".json");
}

GamePaths::GamePaths(std::string_view game_id)
    : folder("games/" + std::string(game_id)), record(folder + "/record.json") {}

std::string GamePaths::version(std::string_view name) const { return folder + "/versions/" + std::string(name); }

std::string GamePaths::manifest(std::string_view sha256) const {
  return folder + "/verified-manifests/application-" + std::string(sha256) + ".json";
}

}  // namespace ravok
