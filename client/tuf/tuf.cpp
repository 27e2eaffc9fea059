#include "tuf/tuf.hpp"

#include <algorithm>
#include <array>
#include <utility>

#include "domain/crypto.hpp"
#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "platform/file/files.hpp"
#include "platform/file/held_directory.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/status.hpp"
#include "tuf/keys.hpp"
#include "tuf/metadata_shape.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_role_bytes = 4096;
constexpr const char* timestamp_name = "timestamp";
constexpr const char* snapshot_name = "snapshot";
constexpr const char* targets_name = "targets";

constexpr long status_found = 200;
// With these a repository says that there is no such file. Storage services answer the first where nobody may list
// files.
constexpr std::array<long, 2> statuses_of_nothing = {403, 404};

std::string file_of(std::string_view role) { return std::string(role) + ".json"; }

// The most bytes that a role's document can have if it is the one that its parent describes.
std::uint64_t expected_bytes(const Json& meta, std::uint64_t limit) {
  return meta.contains("length") ? std::min(length(meta), limit) : limit;
}

}  // namespace

void TufClient::initialize(const std::filesystem::path& directory, std::string_view root_text) {
  const FileLock lock(directory / trust_lock_file, true, LockMode::exclusive);
  const std::filesystem::path path = directory / trusted_root_file;
  require(!is_there(path), "already_initialized", "Trusted root is already initialized");
  const Json root = parse_json(root_text, tuf_root_limit);
  shape(root, "root");
  verify_threshold(root, root.at("signed").at("keys"), root.at("signed").at("roles").at("root"));
  atomic_write(path, root_text);
}

TufClient::TufClient(const std::filesystem::path& directory, Transport& metadata_transport, Transport& target_transport,
                     const TufLimits& limits, TufClock clock)
    : directory_(directory),
      lock_(directory_ / trust_lock_file, false, LockMode::exclusive),
      metadata_transport_(metadata_transport),
      target_transport_(target_transport),
      limits_(limits),
      clock_(std::move(clock)),
      trusted_(read_file(directory_ / trusted_root_file, limits_.root_bytes)) {
  clear_rotated_state();
}

// Another directory at the path could be another client's by now.
void TufClient::require_directory_in_place() const {
  require(lock_.matches_path(directory_ / trust_lock_file), "lock_failed",
          "Trusted metadata directory changed while it was in use");
}

void TufClient::write(const std::filesystem::path& path, std::string_view text) const {
  require_directory_in_place();
  atomic_write(path, text);
}

TufTime TufClient::now() {
  if (!now_) {
    now_ = clock_();
  }
  return *now_;
}

void TufClient::refresh() {
  asked_ = false;
  refreshed_ = false;
  selected_ = false;
  trusted_.forget_roles();
  pending_snapshot_.reset();
  now_ = clock_();
  require_directory_in_place();
  // The refresh before may have failed in the middle of a change of keys.
  clear_rotated_state();
  walk_roots();
  unexpired(trusted_.root(), now());
  refresh_timestamp();
  asked_ = true;
  load_selected_metadata();
  refreshed_ = true;
}

void TufClient::walk_roots() {
  std::uint64_t walked = 0;
  while (walked < limits_.root_rotations && take_next_root()) {
    ++walked;
  }
}

// Returns whether there was one.
bool TufClient::take_next_root() {
  const std::string version = std::to_string(trusted_.next_root_version());
  const TransportResponse answer = metadata_transport_.get(version + ".root.json", limits_.root_bytes);
  if (std::ranges::find(statuses_of_nothing, answer.status) != statuses_of_nothing.end()) {
    return false;
  }
  require(answer.status == status_found, "http_status", "Could not download next trusted root");
  NextRoot next = trusted_.verified_next_root(answer.body, limits_.root_bytes);
  const bool rotates = next.rotates_online_keys;
  if (rotates) {
    // From here on the next run clears the state, whenever this one ends.
    const Json mark = {{"version", next.document.at("signed").at("version")}};
    write(directory_ / trust_rotation_mark, mark.dump());
  }
  write(directory_ / trusted_root_file, answer.body);
  trusted_.trust_root(std::move(next));
  if (rotates) {
    clear_rotated_state();
  }
  return true;
}

void TufClient::refresh_timestamp() {
  const TransportResponse answer = metadata_transport_.get(file_of(timestamp_name), limits_.timestamp_bytes);
  require(answer.status == status_found, "http_status", "Could not download timestamp metadata");
  Json received = trusted_.verified_timestamp(answer.body, limits_.timestamp_bytes);
  std::optional<Json> stored = local(timestamp_name);
  if (stored && trusted_.keeps_timestamp(*stored, received)) {
    trusted_.trust_timestamp(*std::move(stored));
    return;
  }
  unexpired(received, now());
  if (stored) {
    if (const std::optional<Json> snapshot = local(snapshot_name)) {
      shape(*snapshot, snapshot_name);
    }
  }
  persist(timestamp_name, answer.body);
  trusted_.trust_timestamp(std::move(received));
}

void TufClient::take_stored_timestamp() {
  trusted_.forget_roles();
  now_ = clock_();
  unexpired(trusted_.root(), now());
  std::optional<Json> stored = local(timestamp_name);
  require(stored.has_value(), "missing_metadata", "No timestamp metadata is stored; refresh the repository first");
  trusted_.require_stored_timestamp(*stored);
  trusted_.trust_timestamp(*std::move(stored));
}

void TufClient::load_selected_metadata() {
  selected_ = false;
  if (!asked_) {
    take_stored_timestamp();
  }
  unexpired(trusted_.timestamp(), now());
  pending_snapshot_.reset();
  load_snapshot();
  load_targets();
  selected_ = true;
}

void TufClient::load_snapshot() {
  const std::optional<Json> stored = local(snapshot_name);
  if (stored) {
    shape(*stored, snapshot_name);
  }
  Json snapshot = load_role(snapshot_name, trusted_.snapshot_reference(), snapshot_name);
  if (stored) {
    require_no_role_lost(*stored, snapshot);
  }
  if (pending_snapshot_) {
    persist(snapshot_name, *pending_snapshot_);
    pending_snapshot_.reset();
  }
  trusted_.trust_snapshot(std::move(snapshot));
}

void TufClient::load_targets() {
  trusted_.trust_targets(load_role(targets_name, trusted_.targets_reference(), targets_name));
}

std::optional<Json> TufClient::local(std::string_view role) const {
  const std::filesystem::path path = role_cache(directory_, role);
  if (is_missing(path)) {
    return std::nullopt;
  }
  const std::string text = read_file(path, limits_.metadata_bytes);
  try {
    return parse_json(text, limits_.metadata_bytes);
  } catch (const Error&) {
    fail("invalid_trusted_metadata",
         "Stored " + std::string(role) + " metadata is malformed; preserve and restore trusted state");
  }
}

void TufClient::persist(std::string_view role, std::string_view text) { write(role_cache(directory_, role), text); }

std::filesystem::path TufClient::role_cache(const std::filesystem::path& directory, std::string_view role) {
  const bool is_top_level = role == "root" || role == timestamp_name || role == snapshot_name || role == targets_name;
  return safe_join(directory, is_top_level ? file_of(role) : "delegated-" + digest(role, "sha256") + ".json", true);
}

void TufClient::clear_rotated_state() {
  // Not is_missing: a mark that cannot be looked at must not clear anything.
  if (!is_there(directory_ / trust_rotation_mark)) {
    return;
  }
  const HeldDirectory directory = HeldDirectory::open_private(directory_);
  directory.remove(file_of(timestamp_name));
  directory.remove(file_of(snapshot_name));
  directory.flush();
  directory.remove(trust_rotation_mark);
  directory.flush();
}

Json TufClient::load_role(const std::string& role, const Json& meta, const Json& keys, const Json& authority,
                          std::string_view kind) {
  return load_role(role, {meta, keys, authority}, kind);
}

Json TufClient::load_role(const std::string& role, const RoleReference& parent, std::string_view kind) {
  require(!role.empty() && role.size() <= maximum_role_bytes, "size_limit", "Metadata role name exceeds its bound");
  if (std::optional<Json> stored = stored_role(role, parent, kind)) {
    return *std::move(stored);
  }
  std::string text = fetched_role(role, parent.meta);
  Json document = verified_role(text, parent, kind, limits_.metadata_bytes, now());
  if (role == snapshot_name) {
    pending_snapshot_ = std::move(text);
  } else {
    persist(role, text);
  }
  return document;
}

// Returns nothing when there is no stored document, or none that the parent describes.
std::optional<Json> TufClient::stored_role(const std::string& role, const RoleReference& parent,
                                           std::string_view kind) {
  const std::filesystem::path path = role_cache(directory_, role);
  if (is_missing(path)) {
    return std::nullopt;
  }
  try {
    return verified_role(read_file(path, limits_.metadata_bytes), parent, kind, limits_.metadata_bytes, now());
  } catch (const Error&) {
    return std::nullopt;
  } catch (const Json::exception&) {
    return std::nullopt;
  }
}

std::string TufClient::fetched_role(const std::string& role, const Json& meta) {
  const std::uint64_t limit = expected_bytes(meta, limits_.metadata_bytes);
  const std::string version =
      trusted_.has_consistent_snapshot() ? std::to_string(positive_version(meta.at("version"))) + "." : "";
  TransportResponse answer = metadata_transport_.get_component(version + file_of(role), limit);
  require(answer.status == status_found, "http_status", "Could not download metadata for role " + role);
  return std::move(answer.body);
}

}  // namespace ravok
