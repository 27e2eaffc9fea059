#include "platform/file/storage.hpp"

#include <limits>
#include <string_view>
#include <system_error>
#include <utility>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_operations.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t unknown = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t unknown_entries = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint64_t default_margin_bytes = 16'777'216;
constexpr std::uint64_t default_margin_entries = 64;
// A native installation writes more records than a game's.
constexpr std::uint64_t native_margin_bytes = 20'971'520;
constexpr std::string_view overflow = "Peak storage calculation overflowed";

bool is_ordinary_directory(const std::filesystem::path& path) {
  const auto status = link_status_of(without_end_separator(path));
  return status && is_directory(*status);
}

std::uint64_t shortfall(std::uint64_t additional, std::uint64_t available) {
  return additional < available ? 0 : storage_subtract(additional, available);
}

std::uint64_t round_up(std::uint64_t bytes, std::uint64_t unit) {
  return storage_multiply(bytes / unit + (bytes % unit != 0 ? 1 : 0), unit);
}

// What the unpacked tree takes: whole units of content, and one unit for each entry.
std::uint64_t tree_allocation(const SnapshotManifest& manifest, std::uint64_t unit) {
  std::uint64_t total = 0;
  for (const auto& [path, file] : manifest.files) {
    total = storage_add(total, round_up(file.length, unit));
  }
  return storage_add(total, storage_multiply(snapshot_storage_file_entries(manifest), unit));
}

// A count with its unit: `one` for exactly one, otherwise `more`.
std::string counted(std::uint64_t count, std::string_view one, std::string_view more) {
  return std::to_string(count) + std::string(count == 1 ? one : more);
}

Json count_or_null(const std::optional<std::uint64_t>& count) { return count ? Json(*count) : Json(nullptr); }

}  // namespace

std::uint64_t storage_add(std::uint64_t first, std::uint64_t second) {
  require(second <= std::numeric_limits<std::uint64_t>::max() - first, "size_limit", overflow);
  return first + second;
}

std::uint64_t storage_multiply(std::uint64_t first, std::uint64_t second) {
  require(first == 0 || second <= std::numeric_limits<std::uint64_t>::max() / first, "size_limit", overflow);
  return first * second;
}

std::uint64_t storage_subtract(std::uint64_t from, std::uint64_t amount) {
  require(amount <= from, "size_limit", overflow);
  return from - amount;
}

void validate_storage_volume(const StorageVolume& volume) {
  require(volume.path.is_absolute() && !volume.id.empty() && volume.allocation_unit != 0 &&
              volume.capacity_bytes != unknown && volume.available_bytes <= volume.capacity_bytes,
          "volume_query", "Storage capacity or allocation geometry is unavailable");
  require(volume.inode_capacity.has_value() == volume.available_inodes.has_value(), "volume_query",
          "Storage file-entry counters are incomplete");
  require(!volume.inode_capacity || (*volume.inode_capacity != 0 && *volume.inode_capacity != unknown &&
                                     *volume.available_inodes <= *volume.inode_capacity),
          "volume_query", "Storage file-entry counters are invalid");
}

StorageVolume inspect_storage_volume(const std::filesystem::path& path) {
  require(path.is_absolute() && is_ordinary_directory(path), "unsafe_path",
          "Storage needs an ordinary absolute directory");
  StorageVolume volume;
  volume.path = path;
  // After a failure all its members have all bits set, which the check below refuses.
  std::error_code ignored;
  const std::filesystem::space_info space = std::filesystem::space(path, ignored);
  volume.capacity_bytes = space.capacity;
  volume.available_bytes = space.available;

  constexpr const char* no_geometry = "Cannot inspect storage volume allocation geometry";
  const auto status = target_status_of(path);
  require(status.has_value(), "volume_query", no_geometry);
  const auto geometry = os::volume_geometry(path);
  require(geometry.has_value(), "volume_query", no_geometry);
  volume.id = "device:" + std::to_string(status->device);
  volume.allocation_unit = geometry->allocation_unit;
  if (geometry->entries != 0 && geometry->entries < unknown_entries && geometry->available_entries < unknown_entries) {
    volume.inode_capacity = geometry->entries;
    volume.available_inodes = geometry->available_entries;
  }
  validate_storage_volume(volume);
  return volume;
}

Json make_storage_volume_budget(const StorageVolume& volume) {
  validate_storage_volume(volume);
  const std::uint64_t none = 0;
  return {{"path", path_utf8(volume.path)},
          {"allocation_unit", volume.allocation_unit},
          {"capacity_bytes", volume.capacity_bytes},
          {"available_bytes", volume.available_bytes},
          {"download_bytes", none},
          {"staging_bytes", none},
          {"control_margin_bytes", default_margin_bytes},
          {"inode_capacity", count_or_null(volume.inode_capacity)},
          {"available_inodes", count_or_null(volume.available_inodes)},
          {"download_file_entries", none},
          {"staging_file_entries", none},
          {"control_margin_file_entries", default_margin_entries}};
}

void finish_storage_volume_budget(Json& budget) {
  const auto value = [&](const char* key) { return budget.at(key).get<std::uint64_t>(); };

  const std::uint64_t additional =
      storage_add(storage_add(value("download_bytes"), value("staging_bytes")), value("control_margin_bytes"));
  const std::uint64_t existing = storage_subtract(value("capacity_bytes"), value("available_bytes"));
  Json figures = {{"additional_bytes", additional},
                  {"existing_or_unavailable_bytes", existing},
                  {"peak_capacity_bytes", storage_add(existing, additional)},
                  {"shortfall_bytes", shortfall(additional, value("available_bytes"))}};

  const std::uint64_t entries = storage_add(storage_add(value("download_file_entries"), value("staging_file_entries")),
                                            value("control_margin_file_entries"));
  figures["additional_file_entries"] = entries;
  if (budget.at("available_inodes").is_null()) {
    figures["existing_or_unavailable_inodes"] = nullptr;
    figures["peak_inodes"] = nullptr;
    figures["shortfall_file_entries"] = nullptr;
  } else {
    const std::uint64_t used = storage_subtract(value("inode_capacity"), value("available_inodes"));
    figures["existing_or_unavailable_inodes"] = used;
    figures["peak_inodes"] = storage_add(used, entries);
    figures["shortfall_file_entries"] = shortfall(entries, value("available_inodes"));
  }
  budget.update(figures);
}

std::uint64_t snapshot_storage_file_entries(const SnapshotManifest& manifest) {
  return storage_add(storage_add(manifest.files.size(), manifest.directories().size()), 1);
}

Json plan_install_storage(const SnapshotManifest& manifest, const StorageVolume& volume, bool verified_archive_cached,
                          std::uint64_t existing_archive_allocation_bytes, bool existing_partial) {
  require(existing_archive_allocation_bytes == 0 || existing_partial, "volume_query",
          "Existing allocation needs an owned partial file");
  Json budget = make_storage_volume_budget(volume);
  const std::uint64_t unit = volume.allocation_unit;
  if (!verified_archive_cached) {
    const std::uint64_t archive = round_up(manifest.archive_length, unit);
    const std::uint64_t missing = shortfall(archive, existing_archive_allocation_bytes);
    budget["download_file_entries"] = existing_partial ? 0U : 1U;
    budget["download_bytes"] = existing_partial ? missing : storage_add(missing, unit);
  }
  budget["staging_bytes"] = tree_allocation(manifest, unit);
  budget["staging_file_entries"] = snapshot_storage_file_entries(manifest);
  finish_storage_volume_budget(budget);
  return {{"schema_version", 1U},
          {"reserved", false},
          {"verified_archive_cached", verified_archive_cached},
          {"existing_partial", existing_partial},
          {"existing_archive_allocation_bytes", existing_archive_allocation_bytes},
          {"volume", std::move(budget)}};
}

Json plan_native_payload_storage(const SnapshotManifest& first, const SnapshotManifest& second,
                                 const StorageVolume& volume, std::uint64_t extra_entries) {
  Json budget = make_storage_volume_budget(volume);
  const std::uint64_t unit = volume.allocation_unit;
  budget["staging_bytes"] = storage_add(storage_add(tree_allocation(first, unit), tree_allocation(second, unit)),
                                        storage_multiply(extra_entries, unit));
  budget["staging_file_entries"] = storage_add(
      storage_add(snapshot_storage_file_entries(first), snapshot_storage_file_entries(second)), extra_entries);
  budget["control_margin_bytes"] = native_margin_bytes;
  finish_storage_volume_budget(budget);
  return {{"schema_version", 1U}, {"reserved", false}, {"volume", std::move(budget)}};
}

void require_install_storage(const Json& budget, std::string_view hint) {
  const auto shortfall_of = [&](const char* key) {
    const auto value = budget.find(key);
    return value == budget.end() || value->is_null() ? std::uint64_t{0} : value->get<std::uint64_t>();
  };
  const std::uint64_t bytes = shortfall_of("shortfall_bytes");
  const std::uint64_t entries = shortfall_of("shortfall_file_entries");
  if (bytes == 0 && entries == 0) {
    return;
  }
  const std::string missing = bytes != 0 ? counted(bytes, " more byte", " more bytes")
                                         : counted(entries, " more file entry", " more file entries");
  fail("insufficient_space",
       "Storage at " + text_at(budget, "path") + " needs " + missing + " before installation; free space first",
       {hint.empty() ? "ravok-install --status --data-dir PATH" : "locations " + std::string(hint)});
}

}  // namespace ravok
