// A whole tree of empty files whose blocks are held, so that what is unpacked into it later cannot
// run out of space.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.hpp"
#include "domain/manifest.hpp"
#include "platform/file/allocated_file.hpp"
#include "platform/file/directory_identity.hpp"
#include "platform/snapshot/progress.hpp"

namespace ravok {

class ReservedTree {
 public:
  // Told of the new root before anything is reserved below it, to record durably that it exists.
  using Recorder = std::function<void(const DirectoryIdentity&)>;

  // Makes `root`, which must not exist yet in an ordinary directory, with a reserved file for every
  // file of the manifest. A separator at the end of `root` is ignored. `progress`, which may be empty, is told
  // before each file of the bytes reserved; `recorder` may be empty. When this fails after the root is made, it
  // removes again what it can prove to have reserved. A failure while the root itself is made may leave an empty
  // root that is not recorded.
  // Fails with "staging_exists", "allocation_changed", "cancelled", "insufficient_space" without room,
  // "space_reservation", "unsafe_path", "permissions", "size_limit", "native_install_commit" and "file_sync".
  ReservedTree(const SnapshotManifest& manifest, const std::filesystem::path& root, const ProgressCallback& progress,
               const Recorder& recorder);

  // Returns the reservation of a file, which AllocatedFile reopens it with. Fails with "allocation_changed" for any
  // other path or length.
  const FileReservation& file(std::string_view path, std::uint64_t length) const;

  // Accepts only the manifest and the root that this tree was made with. The root is compared by its absolute path; a
  // separator at its end is ignored. Fails with "allocation_changed", and with "unsafe_path" when the root is no
  // directory any more.
  void validate(const SnapshotManifest& manifest, const std::filesystem::path& root) const;

  // Returns an object of `requested_bytes`, `reserved_bytes`, `file_count` and `data_reserved`, which
  // tells whether all bytes are held.
  Json summary() const;

  const std::filesystem::path& root() const { return root_; }
  const DirectoryIdentity& identity() const { return identity_; }

 private:
  void reserve(const SnapshotManifest& manifest, const std::vector<std::filesystem::path>& directories,
               const ProgressCallback& progress, const Recorder& recorder);
  void reserve_files(const SnapshotManifest& manifest, const ProgressCallback& progress);
  void remove_reserved(const std::vector<std::filesystem::path>& directories,
                       const std::filesystem::path& parent) const noexcept;

  std::filesystem::path root_;
  DirectoryIdentity identity_;
  std::uint64_t reserved_bytes_ = 0;
  std::uint64_t requested_bytes_ = 0;
  std::map<std::string, FileReservation, std::less<>> files_;
};

}  // namespace ravok
