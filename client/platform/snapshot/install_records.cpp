#include "platform/snapshot/install_records.hpp"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/identifier.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/status.hpp"
#include "platform/file/tree.hpp"
#include "platform/file/tree_walk.hpp"
#include "platform/process/native_platform.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_document_bytes = 16'384;

// What differs between the two records.
struct Kind {
  std::string_view code;
  const char* name;
  bool needs_identity;
};

constexpr Kind preparation_kind = {"install_preparation_state", "ravok-install-preparation", false};
constexpr Kind ready_kind = {"install_ready_state", "ravok-install-ready", true};

bool is_identity(const Json& value) {
  return value.is_array() && value.size() == 2 && value[0].is_number_unsigned() && value[1].is_number_unsigned();
}

DirectoryIdentity read_identity(const Json& value) {
  return {value.at(0).get<std::uint64_t>(), value.at(1).get<std::uint64_t>()};
}

Json identity_document(const DirectoryIdentity& identity) { return Json::array({identity.device, identity.inode}); }

void require_reference(const Json& reference, const Kind& kind) {
  for (const char* key : {"version", "build_id", "manifest_ref", "manifest_target"}) {
    require(reference.contains(key) && reference.at(key).is_string(), kind.code,
            "Installation ownership reference is malformed");
  }
  validate_identifier(text_at(reference, "version"));
  validate_identifier(text_at(reference, "build_id"));
  require(is_sha256_text(text_at(reference, "manifest_ref")), kind.code,
          "Installation ownership needs an exact manifest digest");
  validate_relative_path(text_at(reference, "manifest_target"), true);
}

void require_install_document(const Json& document, const Kind& kind) {
  require(
      document.is_object() && document.contains("schema_version") && document.at("schema_version").is_number_integer(),
      kind.code, "Installation ownership has no known schema");
  require(is_integer(document.at("schema_version"), 1), "unsupported_schema",
          "Unknown installation ownership schema was preserved");
  require(is_text(document.at("kind"), kind.name) && document.at("versions_path").is_string() &&
              document.at("reference").is_object(),
          kind.code, "Unknown installation ownership contract was preserved");
  const Json& identity = document.at("staging_identity");
  require(is_identity(identity) || (identity.is_null() && !kind.needs_identity), kind.code,
          "Invalid prepared directory identity");
  const std::filesystem::path versions = path_from_utf8(text_at(document, "versions_path"));
  require(versions.is_absolute() && path_utf8(versions) == path_utf8(versions.lexically_normal()), kind.code,
          "Prepared storage path is not absolute and normalized");
  require_reference(document.at("reference"), kind);
  require(document.dump().size() <= maximum_document_bytes, "size_limit",
          "Installation ownership exceeds its bounded format");
}

void validate_install_document(const Json& document, const Kind& kind) {
  refuse_malformed(kind.code, "Malformed installation ownership was preserved",
                   [&] { require_install_document(document, kind); });
}

// Whether a validated record belongs to this manifest, and the build to this platform.
bool binds_manifest(const Json& document, const GameManifest& manifest) {
  const Json& reference = document.at("reference");
  return digest(manifest.raw.dump(), "sha256") == text_at(reference, "manifest_ref") &&
         text_at(reference, "build_id") == manifest.build_id && manifest.platform == native_platform();
}

std::filesystem::path normal_form(const std::filesystem::path& path) {
  return std::filesystem::absolute(path).lexically_normal();
}

std::filesystem::path build_folder(const Json& document) {
  return path_from_utf8(text_at(document, "versions_path")) / text_at(document.at("reference"), "version");
}

// Whether a record belongs to this operation: its build's folder is the destination and not the
// staging directory.
bool binds_places(const Json& document, const std::filesystem::path& staging,
                  const std::filesystem::path& destination) {
  return normal_form(destination) == build_folder(document) && normal_form(staging) != build_folder(document);
}

// Fails with "allocation_changed": with the first message when the root lies on another volume than the
// recorded directory, with the second when it is another directory.
void require_recorded_root(const std::filesystem::path& root, const DirectoryIdentity& identity,
                           std::string_view other_volume, std::string_view other_directory) {
  const auto status = link_status_of(root);
  require(status && is_directory(*status), "allocation_changed", other_directory);
  require(status->device == identity.device, "allocation_changed", other_volume);
  require(inspect_storage_directory(root) == identity, "allocation_changed", other_directory);
}

bool is_manifest_file(const SnapshotManifest& manifest, const TreeEntry& entry) {
  const auto expected = manifest.files.find(std::string(entry.path));
  const auto status = link_status_at(entry.directory, entry.name);
  return expected != manifest.files.end() && status && is_single_link_file(*status) &&
         status->size <= expected->second.length;
}

// Accepts only a tree that holds nothing but what the manifest names, so that it may be removed whole.
void require_manifest_tree(const SnapshotManifest& manifest, const std::filesystem::path& root,
                           const DirectoryIdentity& identity) {
  const std::set<std::string_view> directories = manifest.directories(maximum_tree_entries);
  require(directories.size() <= maximum_tree_entries, "size_limit", "Prepared directory inventory exceeds its bound");
  std::size_t entries = 0;
  walk_tree(open_tree(root), [&](const TreeEntry& entry) {
    require(++entries <= maximum_tree_entries, "size_limit", "Prepared cleanup entry count exceeds its bound");
    if (entry.type == EntryType::directory) {
      require(directories.contains(entry.path), "unexpected_file", "Prepared cleanup preserves unmanaged directories");
    } else {
      require(entry.type == EntryType::file && is_manifest_file(manifest, entry), "unexpected_file",
              "Prepared cleanup preserves unmanaged, linked or oversized files");
    }
  });
  require(inspect_storage_directory(root) == identity, "allocation_changed",
          "Prepared directory changed during cleanup validation");
}

void ready_tree(const SnapshotManifest& manifest, const std::filesystem::path& root,
                const DirectoryIdentity& identity) {
  require_recorded_root(root, identity, "Prepared storage volume changed",
                        "Prepared directory identity changed; preserve its replacement");
  require_manifest_tree(manifest, root, identity);
}

void activated_tree(const SnapshotManifest& manifest, const std::filesystem::path& root,
                    const DirectoryIdentity& identity) {
  require_recorded_root(root, identity, "Activation storage volume changed",
                        "Activation directory identity changed; preserve its replacement");
  require_manifest_tree(manifest, root, identity);
}

void dispose_install_root(const std::filesystem::path& root, const DirectoryIdentity& identity, bool checked) {
  require(inspect_storage_directory(root) == identity, "allocation_changed",
          "Prepared directory changed before disposal");
  if (checked) {
    remove_plain_tree(root);
  }
}

void require_staging_parent(const std::filesystem::path& staging) {
  const auto parent = link_status_of(normal_form(staging).parent_path());
  require(parent && is_directory(*parent), "allocation_changed", "Allocation requires an ordinary parent directory");
}

}  // namespace

void validate_install_preparation(const Json& document) { validate_install_document(document, preparation_kind); }

void validate_install_ready(const Json& document) { validate_install_document(document, ready_kind); }

Json make_install_preparation(const GameManifest& manifest, const Json& reference,
                              const std::filesystem::path& versions) {
  Json document = {{"schema_version", 1U},
                   {"kind", preparation_kind.name},
                   {"reference", reference},
                   {"versions_path", path_utf8(normal_form(versions))},
                   {"staging_identity", nullptr}};
  validate_install_preparation(document);
  require(binds_manifest(document, manifest), preparation_kind.code,
          "Preparation differs from its saved verified manifest");
  return document;
}

void record_install_preparation(Json& document, const DirectoryIdentity& identity) {
  validate_install_preparation(document);
  require(document.at("staging_identity").is_null(), preparation_kind.code,
          "Prepared directory ownership is already recorded");
  Json recorded = document;
  recorded["staging_identity"] = identity_document(identity);
  validate_install_preparation(recorded);
  document = std::move(recorded);
}

Json make_install_ready(const GameManifest& manifest, const Json& preparation, const std::filesystem::path& staging,
                        const ReservedTree& tree) {
  validate_install_preparation(preparation);
  Json ready = {{"schema_version", 1U},
                {"kind", ready_kind.name},
                {"reference", preparation.at("reference")},
                {"versions_path", preparation.at("versions_path")},
                {"staging_identity", preparation.at("staging_identity")}};
  validate_install_ready(ready);
  require(binds_manifest(ready, manifest), ready_kind.code, "Readiness differs from its saved verified manifest");
  const std::filesystem::path destination = build_folder(ready);
  require(binds_places(ready, staging, destination), ready_kind.code, "Readiness differs from its prepared operation");
  tree.validate(manifest, staging);
  require(is_missing(destination), "destination_exists", "Activation destination already exists; it was preserved");
  require(inspect_storage_directory(staging) == read_identity(ready.at("staging_identity")), ready_kind.code,
          "Activation storage differs from its prepared source");
  return ready;
}

void cleanup_prepared_install(const GameManifest& manifest, const Json& preparation,
                              const std::filesystem::path& staging, const std::filesystem::path& destination) {
  validate_install_preparation(preparation);
  require(binds_manifest(preparation, manifest) && binds_places(preparation, staging, destination),
          preparation_kind.code, "Preparation no longer binds this manifest, operation or storage");
  require_staging_parent(staging);
  require(is_missing(destination), "allocation_changed",
          "An activation destination appeared before readiness; preserve all roots");
  if (is_missing(staging)) {
    return;
  }
  const Json& recorded = preparation.at("staging_identity");
  require(!recorded.is_null(), preparation_kind.code, "Unrecorded preparation root was preserved");
  const DirectoryIdentity identity = read_identity(recorded);
  ready_tree(manifest, staging, identity);
  dispose_install_root(staging, identity, true);
}

void cleanup_ready_install(const GameManifest& manifest, const Json& ready, const std::filesystem::path& staging,
                           const std::filesystem::path& destination, bool checked) {
  validate_install_ready(ready);
  require(binds_manifest(ready, manifest) && binds_places(ready, staging, destination), ready_kind.code,
          "Readiness no longer binds this manifest, operation or storage");
  const DirectoryIdentity identity = read_identity(ready.at("staging_identity"));
  if (is_missing(staging)) {
    activated_tree(manifest, destination, identity);
    dispose_install_root(destination, identity, checked);
    return;
  }
  ready_tree(manifest, staging, identity);
  require(is_missing(destination), "allocation_changed", "Prepared source reappeared after activation");
  dispose_install_root(staging, identity, checked);
}

}  // namespace ravok
