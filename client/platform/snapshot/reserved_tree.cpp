#include "platform/snapshot/reserved_tree.hpp"

#include <algorithm>
#include <set>
#include <string_view>
#include <system_error>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/files.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/storage.hpp"

namespace ravok {

namespace {

// The absolute form of a root, with or without a separator at its end; empty where there is none.
std::filesystem::path absolute_root(const std::filesystem::path& root) {
  std::error_code ignored;
  return without_end_separator(std::filesystem::absolute(root, ignored));
}

// The directories of a manifest below a root, each ahead of the one that holds it.
std::vector<std::filesystem::path> directories_below(const std::filesystem::path& root,
                                                     const SnapshotManifest& manifest) {
  const std::set<std::string_view> names = manifest.directories();
  std::vector<std::filesystem::path> directories;
  directories.reserve(names.size());
  for (auto name = names.rbegin(); name != names.rend(); ++name) {
    directories.push_back(root / path_from_utf8(*name));
  }
  return directories;
}

bool is_identical(const Status& status, std::uint64_t device, std::uint64_t inode) {
  return status.device == device && status.inode == inode;
}

bool is_reserved(const Status& status, const FileReservation& reservation) {
  return is_single_link_file(status) && is_identical(status, reservation.device, reservation.inode) &&
         status.size <= reservation.size;
}

}  // namespace

ReservedTree::ReservedTree(const SnapshotManifest& manifest, const std::filesystem::path& root,
                           const ProgressCallback& progress, const Recorder& recorder)
    : root_(absolute_root(root)) {
  require(is_missing(root_), "staging_exists", "A fresh reservation directory is required");
  const std::filesystem::path parent = root_.parent_path();
  const auto status = link_status_of(parent);
  require(status && is_directory(*status), "unsafe_path", "Allocation requires an ordinary parent directory");
  // Made before the tree, so that its removal needs no memory.
  const std::vector<std::filesystem::path> directories = directories_below(root_, manifest);
  private_directory_new(root_);
  identity_ = inspect_storage_directory(root_);
  try {
    reserve(manifest, directories, progress, recorder);
  } catch (...) {
    remove_reserved(directories, parent);
    throw;
  }
}

void ReservedTree::reserve(const SnapshotManifest& manifest, const std::vector<std::filesystem::path>& directories,
                           const ProgressCallback& progress, const Recorder& recorder) {
  sync_directory(root_);
  sync_directory(root_.parent_path());
  if (recorder) {
    recorder(identity_);
  }
  require(inspect_storage_directory(root_) == identity_, "allocation_changed",
          "Prepared root changed while recording ownership");
  reserve_files(manifest, progress);
  std::for_each(directories.begin(), directories.end(), sync_directory);
  sync_directory(root_);
  require(inspect_storage_directory(root_) == identity_, "allocation_changed",
          "Prepared directory changed during reservation");
}

void ReservedTree::reserve_files(const SnapshotManifest& manifest, const ProgressCallback& progress) {
  for (const auto& [path, file] : manifest.files) {
    require(!progress || progress(requested_bytes_, manifest.expanded_length), "cancelled",
            "Storage preparation cancelled before download");
    const std::filesystem::path output = safe_join(root_, path, true);
    private_directory(output.parent_path());
    requested_bytes_ = storage_add(requested_bytes_, file.length);
    // The inventory gets its place before the file is made, so that no file exists without one.
    FileReservation& reservation = files_.emplace_hint(files_.end(), path, FileReservation())->second;
    reservation = AllocatedFile(output, file.length, nullptr).retain_reservation();
    if (reservation.allocated) {
      reserved_bytes_ = storage_add(reserved_bytes_, file.length);
    }
  }
}

// Stops at the first file that is not the one reserved. What stays is bound by the caller's record.
void ReservedTree::remove_reserved(const std::vector<std::filesystem::path>& directories,
                                   const std::filesystem::path& parent) const noexcept {
  const auto found = link_status_of(root_);
  if (!found || !is_directory(*found) || !is_identical(*found, identity_.device, identity_.inode)) {
    return;
  }
  for (const auto& [name, reservation] : files_) {
    if (reservation.path.empty()) {
      continue;  // the file could not be made
    }
    const auto file = link_status_of(reservation.path);
    if (!file || !is_reserved(*file, reservation)) {
      return;
    }
    os::remove(reservation.path);
  }
  for (const std::filesystem::path& directory : directories) {
    os::remove_directory(directory);
  }
  if (os::remove_directory(root_)) {
    return;
  }
  if (const Result<Handle> holder = os::open(parent, os::OpenAs::linked_directory)) {
    os::flush(holder->get());
  }
}

const FileReservation& ReservedTree::file(std::string_view path, std::uint64_t length) const {
  const auto found = files_.find(path);
  require(found != files_.end() && found->second.size == length, "allocation_changed",
          "File differs from the prepared inventory");
  return found->second;
}

void ReservedTree::validate(const SnapshotManifest& manifest, const std::filesystem::path& root) const {
  require(files_.size() == manifest.files.size() && requested_bytes_ == manifest.expanded_length &&
              absolute_root(root) == root_ && inspect_storage_directory(root_) == identity_,
          "allocation_changed", "Prepared tree differs from the requested snapshot");
  for (const auto& [path, expected] : manifest.files) {
    file(path, expected.length);
  }
}

Json ReservedTree::summary() const {
  return {{"requested_bytes", requested_bytes_},
          {"reserved_bytes", reserved_bytes_},
          {"file_count", files_.size()},
          {"data_reserved", reserved_bytes_ == requested_bytes_}};
}

}  // namespace ravok
