#include "app/launcher/start_marker.hpp"

#include <algorithm>
#include <exception>
#include <memory>
#include <new>

#include "app/launcher/launcher_reference.hpp"
#include "app/launcher/launcher_store.hpp"
#include "domain/data_layout.hpp"
#include "domain/json.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/file/held_directory.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t maximum_marker_bytes = 4096;
constexpr std::uint64_t seconds_of_a_start = 29;

// Throws for a record that cannot be read or understood.
FailedStarts read_failed_starts(const std::filesystem::path& marker, std::int64_t now) {
  const Json record = parse_json(read_file(marker, maximum_marker_bytes), maximum_marker_bytes);
  const std::uint64_t attempts = record.at("attempts").get_ref<const std::uint64_t&>();
  const std::uint64_t started_at = record.at("started_at").get_ref<const std::uint64_t&>();
  const std::string& manifest_sha256 = hash_identity(record.at("manifest_sha256"));
  const auto time = static_cast<std::uint64_t>(std::max<std::int64_t>(now, 0));
  if (started_at > time || time - started_at <= seconds_of_a_start || attempts > UINT32_MAX) {
    return {};
  }
  return {manifest_sha256, static_cast<std::uint32_t>(attempts)};
}

}  // namespace

void confirm_launcher_start(const std::filesystem::path& data_root) {
  const LauncherPaths paths(LauncherStore::for_launch(data_root)->store());
  HeldDirectory::open(paths.store).remove(name_of(paths.start_marker));
}

std::filesystem::path start_marker(const std::filesystem::path& data_root) {
  return LauncherPaths(DataPaths(data_root).launcher).start_marker;
}

FailedStarts failed_launcher_starts(const std::filesystem::path& data_root, std::int64_t now) {
  try {
    return read_failed_starts(start_marker(data_root), now);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception&) {
    // Without a record that tells of failed starts, each version gets its chance.
    return {};
  }
}

void mark_start(const std::filesystem::path& data_root, std::string_view manifest_sha256, std::uint32_t attempts,
                std::int64_t now) {
  const Json record = {{"manifest_sha256", manifest_sha256}, {"started_at", now}, {"attempts", attempts}};
  replace_private_file(start_marker(data_root), record.dump());
}

}  // namespace ravok
