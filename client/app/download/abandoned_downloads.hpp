// Ends downloads that broke off and cannot be continued, so that they do not stand in the way of the next one. Only
// what a receipt explains is removed. `store` is the folder of a launcher store, and the caller holds its lock.
#pragma once

#include <filesystem>
#include <string>

#include "domain/json.hpp"

namespace ravok {

// Removes the first bytes of receipts that were being written when their process ended. Nothing else is there of such a
// download, since its partial file is made only after its receipt. What is not the start of a receipt stays. Fails with
// "size_limit" beyond 64 files among the receipts, with "unsafe_path", "file_remove" and "file_sync", and as read_file
// does.
void remove_torn_receipts(const std::filesystem::path& store);

// Removes the partial file of a group of target_download_receipts, then its checkpoints, and its receipt last, each
// durably; the downloaded file stays. Fails with "launcher_download_uncertain" for a partial file that is not the one
// that the checkpoint tells of, and removes nothing then; with "unsafe_path", "file_remove" and "file_sync". A file
// that has another identity than the checkpoint says is still that one if it begins with the bytes that the checkpoint
// vouches for, or if it vouches for none: volumes get other numbers when a machine starts, and folders are copied.
void discard_download(const std::filesystem::path& store, const Json& group);

// Discards each download of a target that has not ended and that a download with this signed description and for this
// reference cannot continue: one of other bytes or for another reference, one without its partial file or its
// checkpoint, and one whose partial file has another identity than its checkpoint says and is still its file. Fails as
// target_download_receipts and discard_download do.
void make_way_for_download(const std::filesystem::path& store, const std::string& target, const Json& description,
                           const Json& reference);

// Whether a receipt is of a download with this signed description and for this reference.
bool is_receipt_of(const Json& receipt, const std::string& target, const Json& description, const Json& reference);

}  // namespace ravok
