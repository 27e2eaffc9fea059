#include "app/download/abandoned_downloads.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string_view>
#include <vector>

#include "app/download/download_receipt.hpp"
#include "app/download/receipt_folder.hpp"
#include "app/download/torn_write.hpp"
#include "domain/crypto.hpp"
#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/allocated_file.hpp"
#include "platform/file/files.hpp"
#include "platform/file/held_directory.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/status.hpp"
#include "tuf/resume_state.hpp"

namespace ravok {
namespace {

std::filesystem::path intents_of(const std::filesystem::path& store) {
  return safe_join(store, path_utf8(LauncherPaths({}).download_intents), true);
}

std::filesystem::path download_of(const std::filesystem::path& store, const std::string& name) {
  return safe_join(store, path_utf8(LauncherPaths({}).downloads / path_from_utf8(name)), true);
}

// Whether the file holds the first bytes of a receipt and not all of one.
bool is_torn_receipt(const HeldDirectory& folder, const std::string& name) {
  const std::string text = read_file_at(folder.handle(), name, maximum_receipt_bytes).bytes;
  try {
    parse_json(text, maximum_receipt_bytes);
    return false;
  } catch (const Error& error) {
    return error.code == "invalid_json" && initial_write_prefix(text);
  }
}

bool is_identical(const Json& state, const Status& partial) {
  return state.at("identity") == Json::array({partial.device, partial.inode});
}

// Whether the file begins with all the bytes that the checkpoint vouches for.
bool has_recorded_bytes(const std::filesystem::path& partial, const Json& state) {
  const FileReservation found = AllocatedFile::inspect_file(partial);
  const auto received = state.at("received").get<std::uint64_t>();
  if (received > found.size) {
    return false;
  }
  DigestState bytes("sha256");
  AllocatedFile(found, received)
      .read_prefix(
          received, [&](std::string_view piece) { bytes.update(piece); }, nullptr);
  return is_text(state.at("prefix_sha256"), bytes.value());
}

// Whether a partial file is the one that the checkpoint tells of, under another identity: a file system may have
// another number after each start of the machine, and in a copy of a data folder every file has. Its random name says
// so, and the bytes that the checkpoint vouches for. Where it vouches for none, there are none to lose.
bool is_own_under_other_identity(const std::filesystem::path& partial, const Json& state, const Status& status) {
  return !is_identical(state, status) && has_recorded_bytes(partial, state);
}

// What a group's checkpoint says of its partial file. Where there is none, what each write of one says that has not
// ended. Beside a checkpoint such a write says nothing: what it vouches for may have been written over since.
std::vector<Json> checkpoint_states(const std::filesystem::path& store, const Json& group) {
  const std::string checkpoint = resume_state_name(text_at(group.at("receipt"), "temporary"));
  std::vector<Json> states;
  for (const Json& entry : group.at("resume_files")) {
    const std::string& name = text_at(entry, "name");
    const std::string text = read_file(download_of(store, name), maximum_resume_state_bytes);
    const Json state = Json::parse(text, nullptr, false);
    if (name == checkpoint) {
      return std::vector<Json>(1, state);
    }
    if (!state.is_discarded()) {
      states.push_back(state);
    }
  }
  return states;
}

// Accepts a partial file only if it is the one that a checkpoint tells of. Without one the receipt has told its random
// name before it was made.
void require_own_partial(const std::filesystem::path& store, const Json& group, const std::filesystem::path& partial) {
  constexpr std::string_view other = "A partial download is not the file of its checkpoint; it was preserved";
  const auto status = link_status_of(partial);
  require(status && is_single_link_file(*status), download_uncertain_code, other);
  const std::vector<Json> states = checkpoint_states(store, group);
  const bool is_own = std::any_of(states.begin(), states.end(), [&](const Json& state) {
    return is_identical(state, *status) || is_own_under_other_identity(partial, state, *status);
  });
  require(states.empty() || is_own, download_uncertain_code, other);
}

// Whether a download with this partial file goes on from its checkpoint. One whose file is not the one of its
// checkpoint is refused and preserved when it goes on, unless the file has only got another identity.
bool can_continue(const std::filesystem::path& store, const Json& group, const std::filesystem::path& partial) {
  const std::string checkpoint = resume_state_name(text_at(group.at("receipt"), "temporary"));
  const Json& entries = group.at("resume_files");
  const bool has_checkpoint = std::any_of(entries.begin(), entries.end(),
                                          [&](const Json& entry) { return is_text(entry.at("name"), checkpoint); });
  if (!has_checkpoint) {
    return false;
  }
  const Json state =
      parse_json(read_file(download_of(store, checkpoint), maximum_resume_state_bytes), maximum_resume_state_bytes);
  const auto status = link_status_of(partial);
  return !status || !is_single_link_file(*status) || !is_own_under_other_identity(partial, state, *status);
}

}  // namespace

void remove_torn_receipts(const std::filesystem::path& store) {
  const HeldDirectory folder = HeldDirectory::open(intents_of(store));
  std::map<std::string, std::vector<std::string>> writes;
  for (const std::string& name : receipt_file_names(folder)) {
    writes[name.substr(0, download_nonce_characters)].push_back(name);
  }
  bool has_changed = false;
  for (const auto& [nonce, names] : writes) {
    const std::string receipt = receipt_file_name(nonce);
    const bool is_torn = std::all_of(names.begin(), names.end(), [&](const std::string& name) {
      return name != receipt && is_torn_receipt(folder, name);
    });
    for (const std::string& name : is_torn ? names : std::vector<std::string>()) {
      folder.remove(name);
      has_changed = true;
    }
  }
  if (has_changed) {
    folder.flush();
  }
}

void discard_download(const std::filesystem::path& store, const Json& group) {
  const std::filesystem::path partial = download_of(store, text_at(group.at("receipt"), "temporary"));
  if (is_there(partial)) {
    require_own_partial(store, group, partial);
    const HeldDirectory folder = HeldDirectory::open(partial.parent_path());
    folder.remove(name_of(partial));
    folder.flush();
  }
  remove_receipt_files(store, group);
}

bool is_receipt_of(const Json& receipt, const std::string& target, const Json& description, const Json& reference) {
  const Json& authorization = receipt.at("authorization");
  return is_text(receipt.at("target"), target) && receipt.at("reference") == reference &&
         authorization.at("length") == description.at("length") &&
         authorization.at("hashes") == description.at("hashes");
}

void make_way_for_download(const std::filesystem::path& store, const std::string& target, const Json& description,
                           const Json& reference) {
  for (const Json& group : target_download_receipts(store)) {
    const Json& receipt = group.at("receipt");
    if (!is_text(receipt.at("target"), target) || !is_text(receipt.at("phase"), download_phase::prepared)) {
      continue;
    }
    const bool is_same = is_receipt_of(receipt, target, description, reference);
    const std::filesystem::path partial = download_of(store, text_at(receipt, "temporary"));
    const bool has_partial = is_there(partial);
    // The partial file has become the target, and the receipt is completed when the download is told of it.
    const bool has_ended = is_same && !has_partial && is_there(download_of(store, target));
    const bool goes_on = is_same && has_partial && can_continue(store, group, partial);
    if (!goes_on && !has_ended) {
      discard_download(store, group);
    }
  }
}

}  // namespace ravok
