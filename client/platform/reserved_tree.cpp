#include "platform/reserved_tree.hpp"

#include <set>
#include <string_view>

#include <unistd.h>

#include "domain/error.hpp"
#include "platform/file_status.hpp"
#include "platform/files.hpp"
#include "platform/managed_paths.hpp"
#include "platform/posix_files.hpp"

namespace ravok {

ReservedTree::ReservedTree(const SnapshotManifest& manifest, const std::filesystem::path& root,
                           const ProgressCallback& progress, const Recorder& recorder)
    : root_(std::filesystem::absolute(root)) {
  require(is_missing(root_), "staging_exists", "A fresh reservation directory is required");
  const auto parent = link_status_of(root_.parent_path());
  require(parent && is_directory(*parent), "unsafe_path", "Allocation requires an ordinary parent directory");
  private_directory_new(root_);
  identity_ = inspect_storage_directory(root_);
  try {
    reserve(manifest, progress, recorder);
  } catch (...) {
    remove_reserved(manifest);
    throw;
  }
}

void ReservedTree::reserve(const SnapshotManifest& manifest, const ProgressCallback& progress,
                           const Recorder& recorder) {
  sync_directory(root_);
  sync_directory(root_.parent_path());
  if (recorder) {
    recorder(identity_);
  }
  require(inspect_storage_directory(root_) == identity_, "allocation_changed",
          "Prepared root changed while recording ownership");
  reserve_files(manifest, progress);
  synchronize(manifest);
  require(inspect_storage_directory(root_) == identity_, "allocation_changed",
          "Prepared directory changed during reservation");
}

void ReservedTree::reserve_files(const SnapshotManifest& manifest, const ProgressCallback& progress) {
  for (const auto& [path, file] : manifest.files) {
    require(!progress || progress(requested_bytes_, manifest.expanded_length), "cancelled",
            "Storage preparation cancelled before download");
    const std::filesystem::path output = safe_join(root_, path, true);
    private_directory(output.parent_path());
    const FileReservation reservation = AllocatedFile(output, file.length, nullptr).retain_reservation();
    requested_bytes_ = storage_add(requested_bytes_, file.length);
    if (reservation.allocated) {
      reserved_bytes_ = storage_add(reserved_bytes_, file.length);
    }
    files_.emplace_hint(files_.end(), path, reservation);
  }
}

// Each directory ahead of the one that holds it, and the root last.
void ReservedTree::synchronize(const SnapshotManifest& manifest) const {
  const std::set<std::string_view> directories = manifest.directories();
  for (auto directory = directories.rbegin(); directory != directories.rend(); ++directory) {
    sync_directory(root_ / *directory);
  }
  sync_directory(root_);
}

void ReservedTree::remove_reserved(const SnapshotManifest& manifest) const noexcept {
  try {
    if (inspect_storage_directory(root_) != identity_) {
      return;
    }
    for (const auto& [path, reservation] : files_) {
      AllocatedFile::verify_identity(reservation);
      unlink(reservation.path.c_str());
    }
    const std::set<std::string_view> directories = manifest.directories();
    for (auto directory = directories.rbegin(); directory != directories.rend(); ++directory) {
      rmdir((root_ / *directory).c_str());
    }
    if (rmdir(root_.c_str()) == 0) {
      sync_directory(root_.parent_path());
    }
  } catch (...) {
    // What cannot be proved ours stays; its owner's record binds it.
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
              std::filesystem::absolute(root) == root_ && inspect_storage_directory(root_) == identity_,
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
