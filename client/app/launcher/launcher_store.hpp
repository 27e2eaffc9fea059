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

// Returns the version that a status of the store has for the client's: the active one, else the candidate, else null.
const Json& current_build(const Json& status);

class LauncherStore {
 public:
  // Opens the store of a data root for writing: makes its private directories where they are missing, and
  // fails at once for a damaged document. Only the installer's seeding passes `allow_incomplete`, with
  // which a setup that has not ended is no failure. Fails with "native_install_incomplete", as
  // private_directory and load do.
  explicit LauncherStore(const std::filesystem::path& root, bool allow_incomplete = false);

  // The same, with `allow_incomplete`, for a root that is used as it stands: no link in it is followed, where the other
  // follows those of the user. Fails with "unsafe_path" for a link.
  struct AsItStands {};
  LauncherStore(const std::filesystem::path& root, AsItStands);

  // Opens a store that must be there, and makes nothing. Only a repair, which proves what an interrupted setup
  // has left, passes `allow_incomplete`. Fails as the other does, and as inspect_storage_directory.
  static std::unique_ptr<LauncherStore> existing(const std::filesystem::path& root, bool allow_incomplete = false);

  // Opens a store for its paths alone: looks at no directory and no document.
  static std::unique_ptr<LauncherStore> for_launch(const std::filesystem::path& root);

  // Returns the document, or a fresh one of generation 0 where there is none yet. Fails with
  // "unsupported_schema", "launcher_state", "invalid_version", and as read_file and parse_json do.
  Json load() const;

  // Writes the document with its generation one higher. The caller holds owner(). Fails with
  // "launcher_state" and as atomic_write does; the former document then stays.
  void save(Json document) const;

  // Returns the document with "installed", which tells whether a version is active. Fails as load does.
  Json status() const;

  // Returns the document, or null where it cannot be used. Fails as load does for all other reasons.
  Json selection() const;

  // Takes the store's lock, asking for 2 seconds. Fails with "busy" and as FileLock does.
  std::unique_ptr<FileLock> owner() const;

  // Returns the manifest of a reference. Fails with "launcher_missing" for null, "content_mismatch" for a
  // manifest that is not the one referred to, "launcher_state", and as reading and parsing it do.
  LauncherManifest manifest(const Json& reference) const;

  // Returns the folder of a reference. Fails with "launcher_missing" for null and with "launcher_state".
  std::filesystem::path payload(const Json& reference) const;

  // Returns the reference of the newest version on disk whose manifest is whole. Fails with
  // "launcher_state" beyond 64 entries and with "launcher_missing" when there is none.
  Json fallback_active() const;

  // Unpacks the first version of a new store and makes it the candidate. Returns its reference. Fails with
  // "already_installed", "launcher_incompatible", "insufficient_space", and as the parsing of the manifest,
  // atomic_create, extract_snapshot and save do.
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
  // The first names in a folder of the store, one more than there may be versions; none where it cannot be read.
  std::optional<std::vector<std::string>> names_below(const std::filesystem::path& folder) const;

  std::filesystem::path root_;
  LauncherPaths paths_;
};

}  // namespace ravok
