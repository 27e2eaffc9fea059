#include "tuf/trusted_set.hpp"

#include <algorithm>
#include <limits>
#include <string>
#include <utility>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "tuf/keys.hpp"
#include "tuf/metadata_shape.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t maximum_root_bytes = 4'194'304;

std::uint64_t version_of(const Json& document) { return positive_version(document.at("signed").at("version")); }

const Json& references_of(const Json& document) { return document.at("signed").at("meta"); }

std::uint64_t referenced_version(const Json& document, const std::string& name) {
  return positive_version(references_of(document).at(name).at("version"));
}

Json parsed(std::string_view text, std::string_view kind, std::uint64_t limit) {
  Json document = parse_json(text, limit);
  shape(document, kind);
  return document;
}

void require_self_signed(const Json& root) {
  const Json& body = root.at("signed");
  verify_threshold(root, body.at("keys"), body.at("roles").at("root"));
}

void require_next_version(const Json& next, std::uint64_t expected) {
  require(version_of(next) == expected, "invalid_version", "Root version is not exactly the next version");
}

void require_timestamp_not_older(const Json& stored, const Json& verified) {
  require(version_of(verified) >= version_of(stored), "rollback", "Timestamp version went backwards");
}

void require_reference_not_older(const Json& stored, const Json& verified) {
  require(referenced_version(verified, "snapshot.json") >= referenced_version(stored, "snapshot.json"), "rollback",
          "Timestamp references an older snapshot");
}

void require_parent_length(std::string_view text, const Json& meta) {
  require(!meta.contains("length") || length(meta) == text.size(), "length_mismatch",
          "Metadata length does not match its parent");
}

void require_parent_hashes(std::string_view text, const Json& meta) {
  if (!meta.contains("hashes")) {
    return;
  }
  const Json& hashes = meta.at("hashes");
  require(hashes.is_object() && !hashes.empty(), "invalid_hashes", "Metadata hashes must be a nonempty object");
  for (const auto& [algorithm, value] : hashes.items()) {
    require(is_text(value, digest(text, algorithm)), "hash_mismatch", "Metadata hash does not match its parent");
  }
}

void require_parent_version(const Json& document, const Json& meta) {
  require(version_of(document) == positive_version(meta.at("version")), "version_mismatch",
          "Metadata version does not match its parent");
}

}  // namespace

void unexpired(const Json& document, TufTime now) {
  require(parse_tuf_time(text_at(document.at("signed"), "expires")) > now, "expired_metadata",
          "Repository metadata has expired; previously installed games remain playable");
}

Json verified_role(std::string_view text, const RoleReference& parent, std::string_view kind, std::uint64_t limit,
                   TufTime now) {
  require_parent_length(text, parent.meta);
  require_parent_hashes(text, parent.meta);
  Json document = parsed(text, kind, limit);
  verify_threshold(document, parent.keys, parent.authority);
  require_parent_version(document, parent.meta);
  unexpired(document, now);
  return document;
}

void require_no_role_lost(const Json& stored, const Json& fresh) {
  const Json& now_known = references_of(fresh);
  for (const auto& [name, meta] : references_of(stored).items()) {
    require(now_known.contains(name) && referenced_version(fresh, name) >= positive_version(meta.at("version")),
            "rollback", "Snapshot removed or rolled back a known targets role");
  }
}

TrustedSet::TrustedSet(std::string_view root_text) : root_(parsed(root_text, "root", maximum_root_bytes)) {
  require_self_signed(root_);
}

const Json& TrustedSet::root_keys() const { return root_.at("signed").at("keys"); }

const Json& TrustedSet::root_role(const char* name) const { return root_.at("signed").at("roles").at(name); }

bool TrustedSet::has_consistent_snapshot() const { return root_.at("signed").value("consistent_snapshot", false); }

RoleReference TrustedSet::snapshot_reference() const {
  return {references_of(timestamp_).at("snapshot.json"), root_keys(), root_role("snapshot")};
}

RoleReference TrustedSet::targets_reference() const {
  return {references_of(snapshot_).at("targets.json"), root_keys(), root_role("targets")};
}

std::uint64_t TrustedSet::next_root_version() const {
  const std::uint64_t version = version_of(root_);
  require(version < std::numeric_limits<std::uint64_t>::max(), "invalid_version", "Root version cannot be incremented");
  return version + 1;
}

NextRoot TrustedSet::verified_next_root(std::string_view text, std::uint64_t limit) const {
  // A greater one could be stored, but never be read again.
  NextRoot next{parsed(text, "root", std::min(limit, maximum_root_bytes))};
  verify_threshold(next.document, root_keys(), root_role("root"));
  require_self_signed(next.document);
  require_next_version(next.document, next_root_version());
  next.rotates_online_keys = online_keys(root_) != online_keys(next.document);
  return next;
}

Json TrustedSet::verified_timestamp(std::string_view text, std::uint64_t limit) const {
  Json document = parsed(text, "timestamp", limit);
  verify_threshold(document, root_keys(), root_role("timestamp"));
  return document;
}

bool TrustedSet::keeps_timestamp(const Json& stored, const Json& verified) const {
  shape(stored, "timestamp");
  require_timestamp_not_older(stored, verified);
  if (version_of(stored) == version_of(verified)) {
    try {
      require_stored_timestamp(stored);
      return true;
    } catch (const Error&) {
      // Nothing is trusted for lying on the disk: the root may ask for more signatures by now than it has.
    }
  }
  require_reference_not_older(stored, verified);
  return false;
}

void TrustedSet::require_stored_timestamp(const Json& stored) const {
  shape(stored, "timestamp");
  verify_threshold(stored, root_keys(), root_role("timestamp"));
}

void TrustedSet::trust_root(NextRoot next) {
  root_ = std::move(next.document);
  forget_roles();
}

void TrustedSet::trust_timestamp(Json verified) {
  forget_roles();
  timestamp_ = std::move(verified);
}

void TrustedSet::trust_snapshot(Json verified) {
  snapshot_ = std::move(verified);
  targets_ = nullptr;
}

void TrustedSet::trust_targets(Json verified) { targets_ = std::move(verified); }

void TrustedSet::forget_roles() {
  timestamp_ = nullptr;
  snapshot_ = nullptr;
  targets_ = nullptr;
}

}  // namespace ravok
