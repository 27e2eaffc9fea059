// What a volume holds and can still take, the budget of an operation at its peak (all that is there
// now, the download, the unpacked tree and a margin, at the same time), and the plan of an
// installation, which counts what its files take on that volume rather than what they hold.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "domain/json.hpp"
#include "domain/manifest.hpp"

namespace ravok {

// The facts of a volume, as seen from one of its directories.
struct StorageVolume {
  std::filesystem::path path;                     // the inspected directory
  std::string id;                                 // "device:" and the decimal device number
  std::uint64_t allocation_unit = 0;              // bytes per allocation block
  std::uint64_t capacity_bytes = 0;               // all bytes, whoever may use them
  std::uint64_t available_bytes = 0;              // bytes that this user can still claim
  std::optional<std::uint64_t> inode_capacity;    // all file entries; absent when not counted
  std::optional<std::uint64_t> available_inodes;  // entries still free; present with the capacity
};

// Return the sum, the product and the difference of two sizes. All size arithmetic on storage
// goes through them. Fail with "size_limit" when the result is no unsigned 64-bit number.
std::uint64_t storage_add(std::uint64_t first, std::uint64_t second);
std::uint64_t storage_multiply(std::uint64_t first, std::uint64_t second);
std::uint64_t storage_subtract(std::uint64_t from, std::uint64_t amount);

// Accepts only facts that a budget can be made from: an absolute path, an id, an allocation unit, a known
// capacity, and no more available than there is. Fails with "volume_query".
void validate_storage_volume(const StorageVolume& volume);

// Returns the facts of the volume that holds an absolute directory, which must not be a link.
// The file entries are absent on a volume that does not count them.
// Fails with "unsafe_path" for any other path, and with "volume_query" when the volume does not
// tell what a budget needs.
StorageVolume inspect_storage_volume(const std::filesystem::path& path);

// Returns the budget of an operation that demands nothing yet but the margin for records and logs:
// 16 MiB and 64 file entries. The caller sets `download_bytes`, `staging_bytes`,
// `download_file_entries` and `staging_file_entries`, and the margins where it needs others.
// Fails with "volume_query" for facts that validate_storage_volume does not accept.
Json make_storage_volume_budget(const StorageVolume& volume);

// Completes a budget in place with the additional demand, the peak, and what is short of it, in
// bytes and in file entries. Where the volume does not count file entries, what exists, the peak and the
// shortfall of them are null. The budget must hold all twelve keys of make_storage_volume_budget, unsigned sizes;
// without one of them a JSON exception is thrown. Fails with "size_limit" when a figure is no unsigned 64-bit number.
// After any failure the budget is as it was.
void finish_storage_volume_budget(Json& budget);

// Returns the file entries of an unpacked snapshot: its files, their directories and the root.
std::uint64_t snapshot_storage_file_entries(const SnapshotManifest& manifest);

// Returns the plan of an installation: an object with `schema_version`, `reserved` (false),
// `verified_archive_cached`, `existing_partial`, `existing_archive_allocation_bytes` and the finished
// budget as `volume`. The download takes nothing with `verified_archive_cached`, and what an owned
// partial file already has in blocks is taken off. Fails with "volume_query" for such blocks without
// a partial file and for facts that validate_storage_volume does not accept, and with "size_limit" when a figure
// is no unsigned 64-bit number.
Json plan_install_storage(const SnapshotManifest& manifest, const StorageVolume& volume, bool verified_archive_cached,
                          std::uint64_t existing_archive_allocation_bytes, bool existing_partial);

// Returns the plan of unpacking two snapshots with `extra_entries` further file entries, under a
// margin of 20 MiB: an object with `schema_version`, `reserved` and `volume`. Fails with "volume_query" and
// "size_limit" in the same cases.
Json plan_native_payload_storage(const SnapshotManifest& first, const SnapshotManifest& second,
                                 const StorageVolume& volume, std::uint64_t extra_entries);

// Accepts only a finished budget without a shortfall. Fails with "insufficient_space"; the one line in
// its details names the command that tells what takes the space: "locations" followed by the `hint`, or
// ravok-install's status where the hint is empty.
void require_install_storage(const Json& budget, std::string_view hint);

}  // namespace ravok
