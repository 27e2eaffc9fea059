// The files of a signed repository's folder, each written whole and durably.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "platform/snapshot/progress.hpp"

namespace ravok {

// Removes what killed runs have left of files that were being made in `workshop`. No other run may work there. Fails
// with "file_write" and "tree_read" for a folder that cannot be opened or read.
void sweep_workshop(const std::filesystem::path& workshop);

// Accepts only a folder below `base` to which no link leads: neither the folder nor one on the way is one. Those that
// are missing are passed over. Fails with "unsafe_path".
void require_no_links(const std::filesystem::path& base, const std::filesystem::path& folder);

// Makes a folder and the missing ones above it, durably. Fails with "file_write" and "file_sync".
void make_folders(const std::filesystem::path& folder);

// Replaces or makes a file of mode 0644, as limited by the process's mask, durably: it is made in `workshop`, on the
// same volume, and moved into place. The file's folder must be there, below the workshop, and none on the way a link.
// Fails with "unsafe_path", "insufficient_space" and "file_write", and then the file is as it was; and with "file_sync"
// when only the last flush failed.
void replace_file(const std::filesystem::path& workshop, const std::filesystem::path& path, std::string_view bytes);

// Copies an ordinary file in the same way to a place where nothing is, or where a file of this length and digest is
// already; proves on the way that it has this length and this lower-case SHA-256. `progress`, which may be empty, is
// told of the bytes copied. Fails as replace_file does, with "file_read", with "cancelled", and with
// "content_mismatch" for other content.
void copy_into_repository(const std::filesystem::path& workshop, const std::filesystem::path& source,
                          const std::filesystem::path& path, std::uint64_t length, std::string_view sha256,
                          const ProgressCallback& progress);

// Moves a file to another folder, durably, in place of one that has the name. Both folders must be there. Fails with
// "file_write" and "file_sync".
void move_file(const std::filesystem::path& from, const std::filesystem::path& to);

// Removes a file that may be missing, durably. Fails with "file_remove" and "file_sync".
void remove_file(const std::filesystem::path& path);

// Removes a folder that may be missing, with all that it holds, durably. Fails with "file_remove", "file_sync", and as
// remove_tree_at does.
void remove_folder(const std::filesystem::path& path);

}  // namespace ravok
