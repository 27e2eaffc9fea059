// What the checkpoints of a partial file, and the torn writes of them, add up to for the receipt that owns it.
#pragma once

#include <cstddef>
#include <map>
#include <string>

#include "domain/json.hpp"

namespace ravok {

// The content of files by their names. Those of checkpoints have the folders of their target before them, and those of
// receipts have none.
using EvidenceFiles = std::map<std::string, std::string>;

// How many files of a receipt, or of its checkpoint, are looked at.
inline constexpr std::size_t maximum_evidence_files = 64;

// Returns an array with an object for each of the files, sorted by name: "name", "length" in bytes and "sha256".
Json evidence_entries(const EvidenceFiles& files);

// Returns the same for the checkpoint files of a receipt, each also with the "kind" "metadata". Fails with
// "launcher_download_uncertain" for a file that cannot be explained; with "size_limit" beyond the number of files; as
// validate_target_download_receipt does; and as parse_json does, but for "invalid_json".
Json parse_target_download_resume_files(const Json& receipt, const EvidenceFiles& files);

}  // namespace ravok
