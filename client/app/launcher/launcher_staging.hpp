// How much a launcher store may hold. LauncherStore::stage keeps to it before each of its steps, and the clean-up of
// the store makes room again.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string_view>

#include "domain/data_layout.hpp"
#include "tuf/target_download.hpp"

namespace ravok {

namespace launcher_store_limits {

inline constexpr std::uint64_t bytes = 4'294'967'296;      // of all files of the store
inline constexpr std::uint64_t reserve_bytes = 1'048'576;  // for the records of a download and of a staging
inline constexpr std::size_t versions = 8;
inline constexpr std::size_t downloads_before_new = 46;  // a new download takes two more: a file and its checkpoint

}  // namespace launcher_store_limits

// A folder of the store that may hold fewer entries than this.
struct LauncherFolderLimit {
  std::filesystem::path LauncherPaths::*folder;
  std::size_t entries;
};

inline constexpr std::array<LauncherFolderLimit, 7> launcher_folder_limits = {{
    {&LauncherPaths::downloads, 48},
    {&LauncherPaths::manifests, 31},
    {&LauncherPaths::health, 63},
    {&LauncherPaths::attempt_leases, 127},
    {&LauncherPaths::intents, 15},
    {&LauncherPaths::staging, 15},
    {&LauncherPaths::download_intents, 32},
}};

// The hint for a store that has no room for more records, and for one with a clean-up to finish.
inline constexpr std::string_view cleanup_hint = "self cleanup";

// The kind of the record that a staging has begun, its member "kind".
inline constexpr std::string_view staging_intent_kind = "ravok-launcher-staging";

// Accepts a store whose files, with `extra` bytes that are to come, take at most 4 GiB, and whose folders are all below
// their limits. Fails with "launcher_storage_full", in the latter case with the hint, and as tree_bytes does
// ("unsafe_path", "size_limit", "tree_read").
void require_launcher_budget(const LauncherPaths& paths, std::uint64_t extra);

// A download into the store that asks for admission.
struct LauncherDownload {
  std::uint64_t required = 0;       // how many bytes are made from it once it is there
  std::uint64_t signed_length = 0;  // in bytes
  bool has_receipt = false;         // from an earlier run, so that its blocks are claimed already
};

// Accepts a download that has room, with what is made from it, in bytes and in entries. Fails with
// "launcher_storage_full", and as require_launcher_budget does.
void admit_launcher_download(const LauncherPaths& paths, const LauncherDownload& download,
                             const DownloadAdmission& facts);

}  // namespace ravok
