// What a client trusts of a repository: its root, and below it the timestamp, the snapshot and the top-level targets.
// Documents come as text, one at a time, and are verified or refused. Touches no file, no network and no clock: the
// caller says which texts there are, how large they may be and what time it is.
#pragma once

#include <cstdint>
#include <string_view>

#include "domain/json.hpp"
#include "tuf/tuf_time.hpp"

namespace ravok {

// Accepts only a document of a good shape that is valid beyond `now`; one that ends at `now` has expired. Fails with
// "expired_metadata".
void unexpired(const Json& document, TufTime now);

// What the parent of a role says of it.
struct RoleReference {
  const Json& meta;       // the role's entry in the "meta" of a timestamp or a snapshot: its version, length and hashes
  const Json& keys;       // the keys of the root or of the delegating role
  const Json& authority;  // which of these keys must sign, and how many of them
};

// Returns the document of a timestamp's or snapshot's child out of its text of at most `limit` bytes. `kind` is
// "snapshot" or "targets". Fails with "length_mismatch", "invalid_hashes" or "hash_mismatch" for another text than the
// parent means, before anything is parsed; as parse_json, shape and verify_threshold do; with "version_mismatch"; and
// with "expired_metadata".
Json verified_role(std::string_view text, const RoleReference& parent, std::string_view kind, std::uint64_t limit,
                   TufTime now);

// Accepts only a snapshot that knows every role that the stored one knows, each at the same version or a later one.
// Both must have a good shape; the stored one need not be trusted. Fails with "rollback".
void require_no_role_lost(const Json& stored, const Json& fresh);

// A root that may follow the one that is trusted.
struct NextRoot {
  Json document;
  bool rotates_online_keys = false;  // whether the roles "timestamp" and "snapshot" have other keys under it
};

class TrustedSet {
 public:
  // Begins with a root that is trusted for the place that it comes from, and must be signed by its own keys. The text
  // has at most 4,194,304 bytes. Fails as parse_json, shape and verify_threshold do.
  explicit TrustedSet(std::string_view root_text);

  // The documents that are trusted. The last three are null until they are there.
  const Json& root() const { return root_; }
  const Json& timestamp() const { return timestamp_; }
  const Json& snapshot() const { return snapshot_; }
  const Json& targets() const { return targets_; }

  // Whether the files of the repository other than the timestamp are named with their versions.
  bool has_consistent_snapshot() const;

  // What the parents of these two roles say of them. The result refers into this object and lasts until one of the
  // documents is replaced. Wants a trusted timestamp, and a trusted snapshot.
  RoleReference snapshot_reference() const;
  RoleReference targets_reference() const;

  // Returns the version that the next root must have. Fails with "invalid_version" when no number is left for it.
  std::uint64_t next_root_version() const;

  // Returns the root of a text of at most `limit` bytes, and never more than 4,194,304, that follows the trusted one:
  // it is signed by that root's keys, by its own, and is the next version. It may have expired. Fails as parse_json,
  // shape and verify_threshold do, and with "invalid_version".
  NextRoot verified_next_root(std::string_view text, std::uint64_t limit) const;

  // Returns the timestamp of a text of at most `limit` bytes that the root's keys have signed. It may have expired.
  // Fails as parse_json, shape and verify_threshold do.
  Json verified_timestamp(std::string_view text, std::uint64_t limit) const;

  // Returns whether a stored timestamp stays in force beside a verified one: it has the same version, and the root's
  // keys have signed it too. Otherwise the verified one may take its place. Fails as shape does for the stored one, and
  // with "rollback" when the verified one, or the snapshot that it refers to, has a lower version.
  bool keeps_timestamp(const Json& stored, const Json& verified) const;

  // Fails as shape and verify_threshold do unless the root's keys have signed this stored timestamp.
  void require_stored_timestamp(const Json& stored) const;

  // Put verified documents in the place of those before. A new root or timestamp takes what lies below with it.
  void trust_root(NextRoot next);
  void trust_timestamp(Json verified);
  void trust_snapshot(Json verified);
  void trust_targets(Json verified);

  // Forgets everything but the root.
  void forget_roles();

 private:
  const Json& root_keys() const;
  const Json& root_role(const char* name) const;

  Json root_;
  Json timestamp_;
  Json snapshot_;
  Json targets_;
};

}  // namespace ravok
