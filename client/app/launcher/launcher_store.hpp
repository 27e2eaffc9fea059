// The launcher's versions side by side, each in a folder named by its manifest's digest, and the one
// document that says which of them is active, which is kept to go back to, and which waits to be tried.
// A document that is not understood is never rewritten.
//
// A reference is an object of "manifest_sha256" and "build_id", or null for none.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "domain/data_layout.hpp"
#include "domain/json.hpp"
#include "domain/launcher_contract.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/snapshot/progress.hpp"

namespace ravok {

// Returns the client's version by a status of the store: the active one, else the candidate, else null.
const Json& current_build(const Json& status);

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

  // Returns the folder of a reference. Fails with "launcher_missing" for null and with "launcher_state".
  std::filesystem::path payload(const Json& reference) const;

  // Returns the reference of the newest version on disk whose manifest is whole. Fails with
  // "launcher_state" beyond 64 entries and with "launcher_missing" when there is none.
  Json fallback_active() const;

  // Unpacks the first version of a new store and makes it the candidate. Returns its reference. Fails with "busy",
  // "already_installed", "launcher_incompatible", "insufficient_space", and as LauncherManifest::parse,
  // atomic_private_create, extract_snapshot ("content_mismatch", "cancelled") and save do.
  Json seed_initial(std::string_view manifest_text, const std::filesystem::path& archive,
                    const ProgressCallback& progress) const;

  // The data root in its one canonical form, and the store below it.
  const std::filesystem::path& root() const { return root_; }
  const std::filesystem::path& store() const { return paths_.store; }

 private:
  struct LaunchView {};
  LauncherStore(const std::filesystem::path& root, LaunchView);

  void make_directories() const;
  std::filesystem::path manifest_path(std::string_view sha256) const;
  void require_new() const;
  // Returns the names in a folder of the store, at most one more than there may be versions; nothing where the folder
  // cannot be read.
  std::optional<std::vector<std::string>> names_below(const std::filesystem::path& folder) const;

  std::filesystem::path root_;
  LauncherPaths paths_;
};

}  // namespace ravok
