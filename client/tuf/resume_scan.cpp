#include "tuf/resume_scan.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/file/held_directory.hpp"
#include "tuf/resume_state.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_scanned_entries = 4096;
constexpr std::size_t maximum_checkpoints = 32;

// What a name in the folder is.
enum class EntryRole {
  partial,
  checkpoint,
  write,  // of a checkpoint; a crash leaves one where it ends the write
  unknown,
};

// Tells a name that begins with the target's file name and a dot.
EntryRole role_of(std::string_view name, std::string_view file_name) {
  const std::size_t partial_size = partial_name(file_name, std::string(download_nonce_characters, '0')).size();
  const std::string_view partial = name.substr(0, partial_size);
  const std::string checkpoint = resume_state_name(partial);
  if (partial_nonce(partial, file_name).empty()) {
    return EntryRole::unknown;
  }
  if (name == partial) {
    return EntryRole::partial;
  }
  if (name == checkpoint) {
    return EntryRole::checkpoint;
  }
  return is_record_file(name, checkpoint) ? EntryRole::write : EntryRole::unknown;
}

// Returns the names of the partial files that have a checkpoint, whether they are there or not.
std::vector<std::string> checkpointed_partials(const std::vector<std::string>& names, const std::string& file_name) {
  std::vector<std::string> partials;
  for (const std::string& name : names) {
    if (!name.starts_with(file_name + ".")) {
      continue;
    }
    const EntryRole role = role_of(name, file_name);
    require(role != EntryRole::unknown, "download_resume_state", "Unknown resume filename was preserved");
    if (role == EntryRole::checkpoint) {
      partials.push_back(name.substr(0, name.size() - resume_state_name({}).size()));
    }
  }
  require(partials.size() <= maximum_checkpoints, "download_resume_capacity",
          "Retained partial downloads reached their capacity");
  std::sort(partials.begin(), partials.end());
  return partials;
}

FoundCheckpoint read_checkpoint(const HeldDirectory& folder, const std::string& partial) {
  FoundCheckpoint found;
  found.partial = partial;
  found.text = read_file_at(folder.handle(), resume_state_name(partial), maximum_resume_state_bytes).bytes;
  found.state = parse_json(found.text, maximum_resume_state_bytes);
  resume_shape(found.state, partial);
  return found;
}

bool is_wanted(const Json& state, const WantedCheckpoint& wanted) {
  return is_text(state.at("target"), wanted.target) && state.at("authorization") == wanted.authorization &&
         is_text(state.at("scope_sha256"), wanted.scope_sha256) &&
         !partial_nonce(text_at(state, "temporary"), wanted.target).empty();
}

}  // namespace

std::optional<FoundCheckpoint> best_checkpoint(const std::filesystem::path& folder, const WantedCheckpoint& wanted) {
  const HeldDirectory directory = HeldDirectory::open(folder);
  const std::vector<std::string> names = directory.names(maximum_scanned_entries + 1);
  require(names.size() <= maximum_scanned_entries, "size_limit", "Download directory exceeds its bounded resume scan");
  std::optional<FoundCheckpoint> best;
  for (const std::string& partial : checkpointed_partials(names, name_of(path_from_utf8(wanted.target)))) {
    FoundCheckpoint found = read_checkpoint(directory, partial);
    const auto received = [](const FoundCheckpoint& checkpoint) {
      return checkpoint.state.at("received").get<std::uint64_t>();
    };
    if (is_wanted(found.state, wanted) && directory.type_of(partial) && (!best || received(found) > received(*best))) {
      best = std::move(found);
    }
  }
  return best;
}

}  // namespace ravok
