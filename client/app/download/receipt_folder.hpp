// Reads the receipts and the checkpoints of a store. What it cannot explain stays as it is, and ends the reading.
//
// `store` is the folder of a launcher store, in which "download-intents" and "downloads" lie.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "domain/json.hpp"
#include "platform/file/held_directory.hpp"

namespace ravok {

// Returns the entries of the checkpoint files of a receipt, as parse_target_download_resume_files does, whose failures
// pass through. Fails also with "launcher_download_uncertain" for names that are unknown and for more than 4096 entries
// in the folder, with "unsafe_path", and as read_file does ("size_limit", "file_read").
Json target_download_resume_files(const std::filesystem::path& store, const Json& receipt);

// Returns the names of the receipts and of their writes in the open "download-intents". Fails with "size_limit" beyond
// 64 of them, with "launcher_download_uncertain" for unknown names, and with "tree_read".
std::vector<std::string> receipt_file_names(const HeldDirectory& folder);

// Returns an array of the groups of all receipts, as parse_target_download_receipt_group makes them, whose failures
// pass through, sorted by nonce and each with its checkpoint files. Empty where nothing was ever downloaded. Fails also
// with "launcher_download_uncertain" for unknown names and for downloads that overlap, with "size_limit" beyond 64
// files, with "unsafe_path", and as target_download_resume_files and read_file do.
Json target_download_receipts(const std::filesystem::path& store);

// Removes the checkpoint files of a group and the files of its receipt, durably, and the receipt in force last: only
// that explains the others. Fails with "file_remove", "file_sync" and "unsafe_path"; what is left then is still
// explained.
void remove_receipt_files(const std::filesystem::path& store, const Json& group);

}  // namespace ravok
