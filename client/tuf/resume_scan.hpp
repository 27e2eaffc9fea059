// Finds the unfinished download of a target that can be continued, among what earlier runs have left.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "domain/json.hpp"

namespace ravok {

// A checkpoint that was found.
struct FoundCheckpoint {
  std::string partial;  // the name of its partial file
  Json state;
  std::string text;  // as it is stored
};

// What a checkpoint must be of to be continued.
struct WantedCheckpoint {
  std::string_view target;
  const Json& authorization;  // of "length" and "hashes"
  std::string_view scope_sha256;
};

// Returns the checkpoint that vouches for the most bytes among those that are wanted and have their partial file in the
// folder. Those of another target, authorization or scope are left alone. Fails with "size_limit" beyond 4096 entries,
// with "download_resume_capacity" beyond 32 checkpoints of files of the target's name, with "download_resume_state" for
// any other name that begins like theirs and for a checkpoint that is not understood, and as read_file and parse_json
// do.
std::optional<FoundCheckpoint> best_checkpoint(const std::filesystem::path& folder, const WantedCheckpoint& wanted);

}  // namespace ravok
