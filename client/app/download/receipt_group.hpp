// What the files of one receipt add up to: the receipt in force, and the writes that a crash left beside it.
//
// A group is an object of "nonce"; "receipt", the receipt in force; "receipt_sha256", of the bytes of the receipt's
// file, or, without that, of the write that holds the receipt in force; "files", an entry for each of the files; and
// "resume_files", an entry for each file of its checkpoint. An entry is as evidence_entries makes it.
#pragma once

#include <string>
#include <string_view>

#include "app/download/resume_evidence.hpp"
#include "domain/json.hpp"

namespace ravok {

// Returns the group of 1 to 64 files, without any file of a checkpoint. A receipt that says "complete" is in force,
// even where it is only in a write that did not end. Fails with "launcher_download_uncertain" for a file that cannot be
// explained, as validate_target_download_receipt does, and as parse_json does, but for "invalid_json".
Json parse_target_download_receipt_group(std::string_view nonce, const EvidenceFiles& files);

// What is said of two receipts for one target, or for a file that is one's target and the other's partial file.
inline constexpr std::string_view overlapping_downloads =
    "Download target and partial ownership overlap; preserve them";

// Accepts only groups that share no target and no partial file, and none whose partial file is another's target. Fails
// with "launcher_download_uncertain".
void require_separate_downloads(const Json& groups);

// Returns the name of the file in a group whose bytes "receipt_sha256" is of, and of the file that holds the receipt in
// force, which is another one after a crash between two phases.
std::string receipt_file_of(const Json& group);
std::string receipt_in_force_of(const Json& group);

}  // namespace ravok
