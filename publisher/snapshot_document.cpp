#include "publisher/snapshot_document.hpp"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "app/install/native_package.hpp"
#include "domain/bootstrap_contract.hpp"
#include "domain/error.hpp"
#include "domain/game_manifest.hpp"
#include "domain/identifier.hpp"
#include "domain/launcher_contract.hpp"
#include "domain/paths.hpp"

namespace ravok {
namespace {

// The helper's metadata in a bootstrap for macOS.
constexpr const char* shortcut_metadata = "bin/RavokShortcut.app/Contents/Info.plist";

// What an initial package holds beside the archives of its bootstrap and its launcher.
constexpr std::array<std::string_view, 7> package_names = {
    package_limits::descriptor_name, "root.json", "ca-bundle.pem", "bootstrap.manifest.json",
    "launcher.manifest.json",        "brand.ico", "theme.json"};

const char* kind_name(SnapshotKind kind) { return kind == SnapshotKind::bootstrap ? "bootstrap" : "launcher"; }

// Checks the parts of the outputs' names before they become file names.
void require_names(const SnapshotPublication& publication) {
  validate_identifier(publication.build_id);
  validate_relative_path(publication.platform, true);
  if (publication.kind == SnapshotKind::game) {
    validate_identifier(publication.game_id);
  }
  if (!publication.target.empty()) {
    validate_relative_path(publication.target, true);
  }
}

Json file_list(const SnapshotInventory& inventory) {
  // A file without a digest yet gets one of the right form.
  const std::string none(64, '0');
  Json list = Json::array();
  for (const auto& [path, file] : inventory) {
    list.push_back({{"path", path},
                    {"length", file.length},
                    {"mode", file.executable ? 0755 : 0644},
                    {"sha256", file.sha256.empty() ? none : file.sha256}});
  }
  return list;
}

void add_bootstrap(Json& document, const SnapshotPublication& publication) {
  document["kind"] = "ravok-bootstrap-release";
  document["bootstrap_abi"] = 1;
  // An installed bootstrap takes the place of another only with these two.
  document["runtime_lease_abi"] = 1;
  document["application_schema"] = {{"minimum", current_application_schema}, {"maximum", current_application_schema}};
  if (!publication.gui_executable.empty()) {
    document["gui_executable"] = publication.gui_executable;
  }
  if (!publication.shortcut_executable.empty()) {
    document["shortcut_executable"] = publication.shortcut_executable;
  }
}

void add_launcher(Json& document, const SnapshotPublication& publication) {
  const LauncherManifest current;
  document["kind"] = "ravok-launcher-release";
  document["bootstrap_abi"] = 1;
  document["health_abi"] = 1;
  document["application_schema"] = {{"minimum", current_application_schema}, {"maximum", current_application_schema}};
  document["runtime_lease_abi"] = current.runtime_lease_abi;
  document["staging_abi"] = current.staging_abi;
  document["console_interrupt_abi"] = current.console_interrupt_abi;
  document["gui_executable"] = publication.gui_executable;
  Json helpers = Json::array();
  for (const PublishedHelper& helper : publication.helpers) {
    helpers.push_back({{"path", helper.path}, {"role", helper.role}, {"lease_abi", 1}});
  }
  document["runtime_helpers"] = std::move(helpers);
}

void add_game(Json& document, const SnapshotPublication& publication) {
  document["minimum_launcher"] = 1;
  document["game_id"] = publication.game_id;
  document["display_name"] = publication.display_name;
  if (publication.presentation) {
    document["presentation"] = *publication.presentation;
  }
  if (!publication.release_notes.empty()) {
    document["release_notes"] = publication.release_notes;
  }
  if (publication.sdk_required) {
    document["sdk"] = {{"required", true}, {"abi_version", 1}};
  }
}

void add_program(SnapshotInventory& inventory, const std::string& path, bool executable) {
  if (!path.empty()) {
    inventory[path] = {1, "", executable};
  }
}

// The smallest tree that these options fit.
SnapshotInventory named_programs(const SnapshotPublication& publication) {
  SnapshotInventory inventory;
  if (publication.kind == SnapshotKind::bootstrap && !publication.shortcut_executable.empty()) {
    add_program(inventory, shortcut_metadata, false);
    add_program(inventory, publication.shortcut_executable, true);
  }
  if (publication.kind != SnapshotKind::game) {
    add_program(inventory, publication.gui_executable, true);
  }
  if (publication.kind == SnapshotKind::launcher) {
    for (const PublishedHelper& helper : publication.helpers) {
      add_program(inventory, helper.path, true);
    }
  }
  add_program(inventory, publication.executable, true);
  return inventory;
}

// Accepts only a name that an initial package can give the archive.
void require_package_name(const std::string& target) {
  constexpr const char* code = "invalid_native_package";
  require(target.find('/') == std::string::npos && target.front() != '.', code,
          "Initial package resources need distinct flat names");
  require(std::find(package_names.begin(), package_names.end(), target) == package_names.end() &&
              !target.starts_with("theme-"),
          code, "Initial package resources overlap");
}

}  // namespace

std::string archive_target(const SnapshotPublication& publication) {
  if (!publication.target.empty()) {
    return publication.target;
  }
  const std::string owner = publication.kind == SnapshotKind::game ? publication.game_id : kind_name(publication.kind);
  return owner + "-" + publication.platform + "-" + publication.build_id + ".tar.zst";
}

std::string manifest_name(const SnapshotPublication& publication) {
  switch (publication.kind) {
    case SnapshotKind::launcher:
      return launcher_manifest_target(publication.platform);
    case SnapshotKind::bootstrap:
      return "bootstrap-" + publication.platform + ".manifest.json";
    case SnapshotKind::game:
      break;
  }
  return publication.game_id + "-" + publication.platform + "-" + publication.build_id + ".manifest.json";
}

std::uint64_t expanded_length(const SnapshotInventory& inventory) {
  std::uint64_t total = 0;
  for (const auto& [path, file] : inventory) {
    total += file.length;
  }
  return total;
}

// The client's parsers do not check that, since every document that they read is UTF-8.
void require_texts(const SnapshotPublication& publication) {
  for (const std::string& text : {publication.target, publication.display_name, publication.release_notes}) {
    require(is_utf8(text), "invalid_manifest", "The texts of a manifest must be valid UTF-8");
  }
}

Json make_document(const SnapshotPublication& publication, const SnapshotInventory& inventory,
                   const PackedArchive& archive) {
  Json document = {{"schema_version", 1},
                   {"build_id", publication.build_id},
                   {"platform", publication.platform},
                   {"executable", publication.executable},
                   {"archive",
                    {{"format", "tar.zst-v1"},
                     {"target", archive_target(publication)},
                     {"length", archive.length},
                     {"sha256", archive.sha256},
                     {"expanded_length", expanded_length(inventory)}}},
                   {"files", file_list(inventory)}};
  switch (publication.kind) {
    case SnapshotKind::bootstrap:
      add_bootstrap(document, publication);
      break;
    case SnapshotKind::launcher:
      add_launcher(document, publication);
      break;
    case SnapshotKind::game:
      add_game(document, publication);
      break;
  }
  return document;
}

void require_accepted(SnapshotKind kind, const Json& document) {
  switch (kind) {
    case SnapshotKind::bootstrap:
      validate_bootstrap_contract(SnapshotManifest::parse(document));
      break;
    case SnapshotKind::launcher:
      LauncherManifest::parse(document);
      break;
    case SnapshotKind::game:
      GameManifest::parse(document);
      break;
  }
}

void require_options(const SnapshotPublication& publication) {
  require_names(publication);
  SnapshotPublication options = publication;
  options.presentation.reset();
  options.release_notes.clear();
  require_texts(options);
  require_accepted(options.kind, make_document(options, named_programs(options), {1, std::string(64, '0')}));
  if (options.kind != SnapshotKind::game) {
    require_package_name(archive_target(options));
  }
}

}  // namespace ravok
