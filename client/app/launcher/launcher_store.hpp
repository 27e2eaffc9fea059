// The launcher's versions side by side, each in a folder named by its manifest's digest, and the one
// document that says which of them is active, which is kept to go back to, and which waits to be tried.
// A document that is not understood is never rewritten.
//
// A reference is an object of "manifest_sha256" and "build_id", or null for none.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "domain/data_layout.hpp"
#include "domain/json.hpp"
#include "domain/launcher_contract.hpp"
#include "platform/file/file_range.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/process/process.hpp"
#include "platform/snapshot/progress.hpp"

namespace ravok {

class TufClient;

// Told which part of a long operation begins, and whether the operation can be cancelled in it. May be empty.
using PhaseCallback = std::function<void(std::string_view name, bool can_cancel)>;

// Returns the client's version by a status of the store: the active one, else the candidate, else null.
const Json& current_build(const Json& status);

// Returns the one form of a data root, in whatever form it is given: absolute and without links. Fails with
// "unsafe_path" for a name that no data root can have, and with the standard library's exception for a path that the
// system cannot resolve.
std::filesystem::path ordinary_root(const std::filesystem::path& path);

class LauncherStore {
 public:
  // Opens the store of a data root for writing: makes its private directories where they are missing, and fails at once
  // for a damaged document. With `allow_incomplete`, which only the installer's seeding passes, it accepts a folder
  // whose setup has not ended. Fails with "native_install_incomplete", with "unsafe_path", "permissions" or "file_sync"
  // as private_directory does, and as load does.
  explicit LauncherStore(const std::filesystem::path& root, bool allow_incomplete = false);

  // The same, with `allow_incomplete`, for a root whose path has no link of the user's in it; the constructor above
  // follows such a link. Fails with "unsafe_path" for one.
  struct AsItStands {};
  LauncherStore(const std::filesystem::path& root, AsItStands);

  // Opens a store that must be there, and makes nothing. With `allow_incomplete`, which only a repair passes to prove
  // what an interrupted setup has left, it accepts a folder whose setup has not ended. Fails with
  // "native_install_incomplete", with "unsafe_path" where a directory is missing, and as load does.
  static std::unique_ptr<LauncherStore> existing(const std::filesystem::path& root, bool allow_incomplete = false);

  // Opens a store for its paths alone: looks at no directory of it and no document. Fails with
  // "native_install_incomplete".
  static std::unique_ptr<LauncherStore> for_launch(const std::filesystem::path& root);

  // Returns the document, or a fresh one of generation 0 where there is none yet. Fails with "unsupported_schema",
  // "launcher_state", "invalid_version", and as read_file and parse_json do ("unsafe_path", "size_limit", "file_read",
  // "invalid_json").
  Json load() const;

  // Writes the document with its generation one higher. The caller holds owner(). Fails with "launcher_state" for the
  // last generation or a document that has become too large, and with "insufficient_space", "file_write" or "file_sync"
  // as atomic_write does. The former document then stays, except after "file_sync".
  void save(Json document) const;

  // Returns the document with "installed", which tells whether a version is active. Fails as load does.
  Json status() const;

  // Returns the document, or null where load would fail with "launcher_state", "unsupported_schema" or "invalid_json".
  // Fails as load does for all other reasons.
  Json selection() const;

  // Takes the store's lock, and waits for it at most 2 seconds. Fails with "busy" when another still holds it, and with
  // "lock_failed" and the other codes of FileLock.
  std::unique_ptr<FileLock> owner() const;

  // Returns the manifest of a reference. Fails with "launcher_missing" for null, "content_mismatch" for a manifest that
  // is not the one referred to, "launcher_state" for a malformed reference or another build or platform, and as
  // read_file, parse_json and LauncherManifest::parse do.
  LauncherManifest manifest(const Json& reference) const;

  // Returns the text of that manifest, which its digest has proved to be the one that is referred to. For a caller that
  // has parsed it before. Fails as manifest does, short of parsing.
  std::string manifest_text(const Json& reference) const;

  // Returns the folder of a reference. Fails with "launcher_missing" for null and with "launcher_state".
  std::filesystem::path payload(const Json& reference) const;

  // Returns the reference of the version whose manifest has this digest, with the build that the manifest on disk
  // states. Proves nothing else of the manifest; manifest() does. Fails with "launcher_state" for a text that is no
  // digest and for a document that states no build, and as read_file and parse_json do.
  Json stored_reference(const std::string& manifest_sha256) const;

  // Returns the reference of the newest version on disk whose manifest is whole. Fails with
  // "launcher_state" beyond 64 entries and with "launcher_missing" when there is none.
  Json fallback_active() const;

  // Unpacks the first version of a new store and makes it the candidate. Returns its reference. Fails with "busy",
  // "already_installed", "launcher_incompatible", "insufficient_space", and as LauncherManifest::parse,
  // atomic_private_create, extract_snapshot ("content_mismatch", "cancelled") and save do.
  Json seed_initial(std::string_view manifest_text, const std::filesystem::path& archive,
                    const ProgressCallback& progress) const;

  // The same from an archive that is a part of a file.
  Json seed_initial(std::string_view manifest_text, const FileRange& archive, const ProgressCallback& progress) const;

  // Brings the newest published launcher into the store as the next candidate, and touches nothing that runs. Holds
  // owner() from start to end, so only one staging runs. `phase` is told "verifying", "downloading" and "activating",
  // the last of them with false. `progress`, which may be empty, is told bytes: of each file that is downloaded, and
  // then of the unpacking.
  //
  // Returns {"staged": true, "activated": false, "build_id", "manifest_sha256"} once the version is the candidate;
  // {"staged": false, "already_current": true} where the active version is the newest; or {"staged": false, "skipped":
  // REASON}. Only with `background` is anything skipped:
  //
  // - "not_installed", without asking the repository: no version is active
  // - "cleanup_pending", likewise: a clean-up was begun and not ended
  // - "not_published": the repository has no launcher for this platform
  // - "candidate_pending": the newest version waits to be tried
  // - "failed_before": the newest version has failed
  // - "startup_pending": the start of a version has begun and not ended
  //
  // In the background, the active version is "already_current" by its signed digest alone; without `background` its
  // files are verified too. Before anything else it ends what a staging that was killed has left half-way.
  //
  // Fails with:
  //
  // - "launcher_cleanup_pending", with the hint "self cleanup", and "busy" for a start that has not ended; both only
  //   without `background`. Also with "busy" as owner() does
  // - "size_limit" for a manifest of more than 524,288 bytes
  // - "launcher_incompatible" for a launcher of another platform, and as LauncherManifest::parse does
  // - "content_mismatch" for an archive of which the repository says something else than the manifest, and for a stored
  //   manifest that is not what its name says
  // - "launcher_build_conflict" for a build that is in the store with other content
  // - "launcher_pending" while another candidate waits
  // - "launcher_storage_full" beyond 8 versions, beyond 4 GiB for the whole store with what is to come, and beyond the
  //   number of records of each kind, then with the hint "self cleanup"
  // - "cancelled"
  // - as load, save, TufClient, TargetDownloads, require_path_room, extract_snapshot and verify_snapshot_tree do
  //
  // After a failure the document is as it was, except after "file_sync". What is complete by then is met by the next
  // staging, which goes on from there.
  Json stage(TufClient& tuf, const ProgressCallback& progress, const PhaseCallback& phase, bool background) const;

  // --- How a version proves itself -----------------------------------------------------------
  //
  // The bootstrap makes the candidate an attempt, starts it with the attempt's environment, and makes it active once it
  // has proved that it runs and holds its leases. An attempt is the object of "nonce" and "reference" that stands in
  // the document; all operations on one fail with "launcher_state" for a value of another shape. The caller holds
  // owner() across the four operations that change the document, which also fail as load and save do.

  // Turns an attempt that has been interrupted into the failed candidate; it is not tried again by itself. Does nothing
  // without an attempt. Fails with "launcher_running" while its launcher still runs, and as FileLock does. After
  // "insufficient_space", here and below, the attempt or the candidate stands as before, and a version that works can
  // be started.
  void recover_attempt() const;

  // Makes the candidate the attempt and returns that, or null where no candidate waits. Fails with "busy" where an
  // attempt stands already.
  Json begin_candidate() const;

  // Return the places of an attempt: its lease, what a launcher writes when it is ready, and what it writes when it has
  // taken its leases.
  std::filesystem::path startup_lease_path(const Json& attempt) const;
  std::filesystem::path health_path(const Json& attempt) const;
  std::filesystem::path startup_ack_path(const Json& attempt) const;

  // Takes the lease of a version without waiting: shared by all who run it or rely on it, exclusive for its removal.
  // Fails with "launcher_missing" for null, with "launcher_state" for a malformed reference, with "busy" while others
  // hold the lease, and as FileLock does; in the exclusive mode with "launcher_recovery_uncertain" where the version's
  // manifest cannot be relied on, so that its files must stay.
  std::unique_ptr<FileLock> version_guard(const Json& reference, LockMode mode) const;

  // Returns the five variables that tell a launcher that it runs as this attempt. Fails with "launcher_interface".
  ProcessEnvironment health_environment(const Json& attempt, std::string_view interface) const;

  // Makes the attempt's version active, and the one that was active the rollback, if the attempt stands in the document
  // and the process `pid` has proved itself: by `health`, which may be any value, by its acknowledgement on disk, and
  // by files that are whole. Fails with "launcher_interface"; with "launcher_health" for the number 0 or a health
  // document that differs; with "launcher_state" for another attempt; with "launcher_lease" for an acknowledgement that
  // is missing or differs; and as manifest, read_file, parse_json and verify_snapshot_tree do. The document then stays.
  void confirm_candidate(const Json& attempt, const Json& health, std::uint64_t pid, std::string_view interface) const;

  // Turns the attempt into the failed candidate with this problem, 1 to 80 characters of a-z, 0-9, "_" and "-". Fails
  // with "launcher_state" for another problem or another attempt.
  void reject_candidate(const Json& attempt, std::string_view problem) const;

  // The data root in its one canonical form, and the store below it.
  const std::filesystem::path& root() const { return root_; }
  const std::filesystem::path& store() const { return paths_.store; }

 private:
  struct LaunchView {};
  LauncherStore(const std::filesystem::path& root, LaunchView);

  void make_directories() const;
  void require_new() const;
  template <typename Archive>
  Json seed(std::string_view manifest_text, const Archive& archive, const ProgressCallback& progress) const;
  // Returns the names in a folder of the store, at most one more than there may be versions; nothing where the folder
  // cannot be read.
  std::optional<std::vector<std::string>> names_below(const std::filesystem::path& folder) const;

  std::filesystem::path root_;
  LauncherPaths paths_;
};

}  // namespace ravok
