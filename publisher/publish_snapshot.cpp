#include "publisher/publish_snapshot.hpp"

#include <string_view>
#include <system_error>
#include <utility>

#include "domain/bootstrap_contract.hpp"
#include "domain/error.hpp"
#include "domain/game_manifest.hpp"
#include "domain/identifier.hpp"
#include "domain/launcher_contract.hpp"
#include "domain/manifest.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "publisher/publish_files.hpp"
#include "publisher/snapshot_pack.hpp"

namespace ravok {
namespace {

// No manifest within the bounds on files and paths is longer than this.
constexpr std::uint64_t manifest_limit = std::uint64_t{1} << 31;

const char* kind_name(SnapshotKind kind) { return kind == SnapshotKind::bootstrap ? "bootstrap" : "launcher"; }

std::string archive_name(const SnapshotPublication& publication) {
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

// Accepts only texts in UTF-8. The client's parsers do not check that, since every document that they read is UTF-8.
void require_texts(const SnapshotPublication& publication) {
  for (const std::string& text : {publication.target, publication.display_name, publication.release_notes}) {
    require(is_utf8(text), "invalid_manifest", "The texts of a manifest must be valid UTF-8");
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

std::uint64_t expanded_length(const SnapshotInventory& inventory) {
  std::uint64_t total = 0;
  for (const auto& [path, file] : inventory) {
    total += file.length;
  }
  return total;
}

void add_bootstrap(Json& document, const SnapshotPublication& publication) {
  document["kind"] = "ravok-bootstrap-release";
  document["bootstrap_abi"] = 1;
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

Json make_document(const SnapshotPublication& publication, const SnapshotInventory& inventory,
                   const std::string& target, const PackedArchive& archive) {
  Json document = {{"schema_version", 1},
                   {"build_id", publication.build_id},
                   {"platform", publication.platform},
                   {"executable", publication.executable},
                   {"archive",
                    {{"format", "tar.zst-v1"},
                     {"target", target},
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

// Judges the document as the client does.
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

void require_outside(const std::filesystem::path& output, const std::filesystem::path& tree) {
  std::error_code problem;
  const std::filesystem::path below = std::filesystem::relative(output, tree, problem);
  require(!problem && (below.empty() || *below.begin() == ".."), "unsafe_path",
          "The output directory must lie outside the tree");
}

void write_manifest(const std::filesystem::path& path, SnapshotKind kind, const Json& document) {
  NewOutput file(path, document.dump());
  require_accepted(kind, parse_json(read_file(path, manifest_limit), manifest_limit));
  file.keep();
}

}  // namespace

PublishedSnapshot publish_snapshot(const SnapshotPublication& publication, const ProgressCallback& progress) {
  require_names(publication);
  require_texts(publication);
  const std::string target = publication.target.empty() ? archive_name(publication) : publication.target;
  PublishedSnapshot published;
  published.archive = publication.output / path_from_utf8(target).filename();
  published.manifest = publication.output / manifest_name(publication);
  require(published.archive != published.manifest, "output_exists",
          "The archive and its manifest need different names: " + path_utf8(published.archive));
  require_absent(published.archive);
  require_absent(published.manifest);

  SnapshotInventory inventory = scan_snapshot_tree(publication.tree);
  require_outside(publication.output, publication.tree);
  const PackedArchive smallest = {1, std::string(64, '0')};
  require_accepted(publication.kind, make_document(publication, inventory, target, smallest));

  ExportFile file(published.archive);
  const PackedArchive archive = pack_snapshot(
      publication.tree, inventory, publication.level, [&](std::string_view bytes) { file.write(bytes); }, progress);
  const Json document = make_document(publication, inventory, target, archive);
  require_accepted(publication.kind, document);
  commit_or_remove(file);
  try {
    write_manifest(published.manifest, publication.kind, document);
  } catch (...) {
    // Without its manifest the archive is of no use to anybody.
    file.remove();
    throw;
  }
  published.files = inventory.size();
  published.expanded_length = expanded_length(inventory);
  published.archive_length = archive.length;
  return published;
}

}  // namespace ravok
