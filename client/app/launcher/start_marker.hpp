// The record of a windowed launcher that was started and has not opened yet. A version that is started again and again
// without opening is given up for another one.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace ravok {

// The starts without a window after which a version is given up.
inline constexpr std::uint32_t maximum_failed_starts = 2;

// Called by a windowed launcher once it has shown itself usable: removes the record, so that its start does not count
// against its version. No record is fine. Fails with "native_install_incomplete" for a data folder whose setup has not
// ended, with "unsafe_path" for one without a launcher store, and with "file_remove".
void confirm_launcher_start(const std::filesystem::path& data_root);

// Returns the path of the record of a data folder.
std::filesystem::path start_marker(const std::filesystem::path& data_root);

// The starts of a version that have failed.
struct FailedStarts {
  std::string manifest_sha256;  // of the version; empty where no start has failed
  std::uint32_t attempts = 0;
};

// Returns what the record tells. `now` is in seconds since the epoch. A record that is younger than 30 seconds, whose
// start may still be going on, one of a time to come, and one that cannot be read or understood tell of no start.
FailedStarts failed_launcher_starts(const std::filesystem::path& data_root, std::int64_t now);

// Records that a version is being started at `now`, for the `attempts`th time without opening. The record may be lost
// in a power cut. Fails as replace_private_file does ("unsafe_path", "insufficient_space", "file_write").
void mark_start(const std::filesystem::path& data_root, std::string_view manifest_sha256, std::uint32_t attempts,
                std::int64_t now);

}  // namespace ravok
