// The client of a signed repository: the state that it trusts lies in one directory, which begins with a
// root document that the caller obtained out of band.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "domain/json.hpp"
#include "platform/file/native_lock.hpp"
#include "transport/transport.hpp"
#include "tuf/target_download.hpp"
#include "tuf/trusted_set.hpp"
#include "tuf/tuf_time.hpp"

namespace ravok {

// The most bytes of a root document.
inline constexpr std::size_t tuf_root_limit = 524'288;

// The most bytes of a timestamp. It describes one other document, so nearly all of it are signatures. Sixteen of the
// longest kind fit.
inline constexpr std::uint64_t tuf_timestamp_limit = 262'144;

// The most bytes of any other document. No request for metadata may ask for more.
inline constexpr std::uint64_t tuf_metadata_limit = 16'777'216;

// How much of a repository is taken. HttpsTransport refuses every request that allows more than 16 MiB, so beside it
// none of the sizes may be greater.
struct TufLimits {
  std::uint64_t root_bytes = 0;       // of a root, stored or received; beyond 4,194,304 bytes none is taken anyway
  std::uint64_t timestamp_bytes = 0;  // of a received timestamp; at most metadata_bytes, or it could not be read again
  std::uint64_t metadata_bytes = 0;   // of a snapshot, of targets or of a delegated role, and of any stored role
  std::uint64_t root_rotations = 0;   // how many newer roots one refresh takes; with 0 it asks for none
  std::uint64_t delegations = 0;      // how many roles the search for one target looks at
};

// Returns what time it is.
using TufClock = std::function<TufTime()>;

// Used by one thread. While an object lives, no other process has a client at the same directory. Neither a transport
// nor the clock may call the object that calls it.
//
// The directory holds, beside ".lock": "root.json", the newest trusted root; "timestamp.json", "snapshot.json",
// "targets.json" and the files of delegated roles, all byte for byte as received; and "root-invalidation.json" between
// two steps of a change of keys. No role is trusted for lying there: it is verified each time that it is read. A file
// is replaced only by a verified successor of what it holds, so a failure leaves what was trusted before, or what the
// steps before it have finished. Nothing is removed but by clear_rotated_state.
class TufClient {
 public:
  // Puts the first root document, byte for byte, into a trusted directory that has none. Waits while another holds the
  // directory, and so forever for a client of the same thread. The document must be signed by its own keys; the caller
  // judges whether it has expired. Fails with "already_initialized", or as is_there does when that cannot be told; with
  // "lock_failed", "unsafe_path" or "permissions" for a directory or a lock that is not private; as parse_json, shape
  // and verify_threshold do ("invalid_json", "invalid_metadata", "signature_threshold"); and with "insufficient_space",
  // "file_write" or "file_sync" as atomic_write does. After a failure other than "file_sync", nothing but the lock file
  // was written.
  static void initialize(const std::filesystem::path& directory, std::string_view root_text);

  // Opens an initialized directory and finishes a change of keys that was broken off. Asks the network for nothing.
  // Both transports must outlive the object and may be the same one; the clock must not be empty. Fails at once with
  // "busy" when another client has the directory; with "lock_failed", "unsafe_path", "size_limit", "permissions" or
  // "file_sync" as FileLock does; with "file_read", "unsafe_path" or "size_limit" as read_file does for the stored
  // root; as parse_json, shape and verify_threshold do for what it holds; and as clear_rotated_state does.
  TufClient(const std::filesystem::path& directory, Transport& metadata_transport, Transport& target_transport,
            const TufLimits& limits, TufClock clock);

  TufClient(const TufClient&) = delete;
  TufClient& operator=(const TufClient&) = delete;

  // Brings the trusted state up to date: newer roots first, one by one, then the timestamp, the snapshot and the
  // targets. The clock is read once. Each root that was walked and a newer timestamp stay stored even if a later step
  // fails; the object then trusts no role until another call or load_selected_metadata succeeds. Fails with:
  //
  // - "http_status" when a document cannot be had; for a next root, 403 and 404 only say that there is none
  // - "signature_threshold", "keyid_mismatch" and what else verify_threshold, shape and parse_json refuse
  // - "invalid_version" for a root that is not the next version, or when there is no number left for one
  // - "expired_metadata" for the newest root, or a role for which the repository has nothing newer
  // - "rollback" for a timestamp or a snapshot that takes anything back that is stored
  // - "length_mismatch", "hash_mismatch", "invalid_hashes" and "version_mismatch" for a role that is not the one that
  //   its parent describes
  // - "invalid_trusted_metadata" for a stored timestamp or snapshot that is no strict JSON, and as shape does for
  //   one of another shape; it is left in place
  // - "lock_failed" when the directory was replaced meanwhile
  // - what the transport fails with, and read_file and atomic_write for a file of the directory
  void refresh();

  // Verifies the snapshot and the targets that the timestamp leads to, out of the directory as far as they lie there
  // and from the repository otherwise. Part of a refresh. Without a successful one, it begins with the stored
  // timestamp, and then needs no network at all if nothing has changed and nothing has expired since a refresh. Fails
  // as the later steps of refresh do, and with "missing_metadata" when no timestamp is stored.
  void load_selected_metadata();

  // Returns the stored document of a role, which is not verified; nothing when none is stored. Fails with
  // "invalid_trusted_metadata" for a file that is no strict JSON, and as role_cache and read_file do.
  std::optional<Json> local(std::string_view role) const;

  // Stores a role's text, durably. Nothing is verified. Fails as role_cache and atomic_write do, and with "lock_failed"
  // when the directory was replaced while the object had it.
  void persist(std::string_view role, std::string_view text);

  // Returns where a role is stored below a directory. The name of a delegated role never takes part in the path, only
  // its digest does. Fails with "unsafe_path" when a link has that name.
  static std::filesystem::path role_cache(const std::filesystem::path& directory, std::string_view role);

  // Finishes a change of the keys of "timestamp" or "snapshot": removes the two stored documents, durably, and then the
  // mark that asks for it. Does nothing without the mark. Fails with "file_remove", with "file_sync", with
  // "unsafe_path" or "permissions" for a directory that is not private, and as is_there does when it cannot be told
  // whether there is a mark; the mark then stays for the next time.
  void clear_rotated_state();

  // Returns the verified document of a role: out of the directory if what is stored there is what the parent describes
  // and has not expired, and from the repository otherwise. `meta` is the role's entry in the timestamp or the
  // snapshot; `keys` and `authority` are those of its parent; `kind` is "snapshot" or "targets". A received document is
  // stored, except that of the role "snapshot", which is stored after its check against the one before. Fails with
  // "size_limit" for a role name that is empty or longer than 4096 bytes; with "http_status"; as verified_role does;
  // and as the transport, role_cache and atomic_write do.
  Json load_role(const std::string& role, const Json& meta, const Json& keys, const Json& authority,
                 std::string_view kind);

  // Returns what the repository has signed about a target: an object with "length", "hashes" and perhaps "custom". The
  // top-level targets are asked first and then, one after the other and each with all that it delegates to, the roles
  // that they delegate the path to; the first role that knows the path is believed. Refreshes first unless this object
  // has refreshed before. A role that cannot be had or verified fails the search, which is never taken to another role
  // by that. Fails with:
  //
  // - "unsafe_path" for a path that validate_relative_path does not accept
  // - "target_not_found" when no role knows it, or none before a terminating delegation has led to nothing
  // - "delegation_limit" when more roles would have to be looked at than the limit allows, the first one counted
  // - "missing_role" for a delegated role of which the snapshot knows nothing
  // - "invalid_metadata", "invalid_length", "invalid_hashes" or "size_limit" for a description, a prefix or a pattern
  //   that is none
  // - and as refresh, load_selected_metadata and load_role do
  Json target(std::string_view path);

  // Returns what a role's verified document, or a role that it delegates to at any depth, says of a target; nothing if
  // none of them knows it. Wants a trusted snapshot. `visited` holds the roles that were looked at, of which none is
  // looked at again, and gains those that are now; `terminated` becomes true when a terminating delegation has led to
  // nothing, after which the search is over. Takes the same room on the stack however deep the delegations go. Fails as
  // target does for them.
  std::optional<Json> visit(const std::string& path, const std::string& role, const Json& document,
                            std::set<std::string>& visited, bool& terminated);

  // Makes a target a verified file at its path below a directory, and returns where it is. Fetches nothing where the
  // file is there already, and otherwise only what is missing, if the transport can resume and `options` has a scope;
  // resumed_target says how. The file is written beside its place, in a directory that is made private, and moved there
  // once its length and all its digests are those that were signed; what was there before stays until then. Progress
  // may be empty, and so may the observer. Fails with:
  //
  // - "size_limit" for a scope that is too long
  // - "unsafe_path" for a path through a link, or a partial file that is there already
  // - as target, private_directory, the transport, verify_target_file, resumed_target and the callbacks do
  // - "file_write" when the file cannot be moved into its place, and "file_sync"
  std::filesystem::path download(std::string_view path, const std::filesystem::path& directory,
                                 const ProgressCallback& progress, const TargetObserver& observer = {},
                                 const TufDownloadOptions& options = {});

  // What is trusted now. All but the root is null until a refresh or load_selected_metadata has succeeded that far.
  const TrustedSet& trusted() const { return trusted_; }

 private:
  void require_directory_in_place() const;
  void write(const std::filesystem::path& path, std::string_view text) const;
  TufTime now();

  void walk_roots();
  bool take_next_root();
  void refresh_timestamp();
  void take_stored_timestamp();
  void load_snapshot();
  void load_targets();

  std::optional<Json> stored_role(const std::string& role, const RoleReference& parent, std::string_view kind);
  std::string fetched_role(const std::string& role, const Json& meta);
  Json load_role(const std::string& role, const RoleReference& parent, std::string_view kind);

  const std::filesystem::path directory_;
  const FileLock lock_;
  Transport& metadata_transport_;
  Transport& target_transport_;
  const TufLimits limits_;
  const TufClock clock_;
  std::optional<TufTime> now_;  // when the last refresh began
  TrustedSet trusted_;
  bool asked_ = false;  // whether the timestamp is the one of the last refresh
  bool refreshed_ = false;
  bool selected_ = false;
  std::optional<std::string> pending_snapshot_;  // a received snapshot that may not be stored yet
};

}  // namespace ravok
