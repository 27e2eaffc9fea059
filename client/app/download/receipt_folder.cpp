#include "app/download/receipt_folder.hpp"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app/download/download_receipt.hpp"
#include "app/download/receipt_group.hpp"
#include "app/download/resume_evidence.hpp"
#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/file/held_directory.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/status.hpp"
#include "tuf/resume_state.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_receipt_files = 64;
constexpr std::size_t maximum_scanned_downloads = 4096;

// Returns a folder of the store, or nothing where it is missing.
std::optional<HeldDirectory> find_folder(const std::filesystem::path& store, const std::filesystem::path& relative,
                                         std::string_view refusal) {
  const std::filesystem::path folder = safe_join(store, path_utf8(relative), true);
  const auto status = link_status_of(folder);
  if (!status && status.problem() == Cause::missing) {
    return std::nullopt;
  }
  require(status && is_directory(*status), "unsafe_path", refusal);
  return HeldDirectory::open(folder);
}

std::string read_entry(const HeldDirectory& folder, const std::string& name, std::uint64_t limit) {
  return read_file_at(folder.handle(), name, limit).bytes;
}

void require_receipt_names(const std::vector<std::string>& names) {
  require(names.size() <= maximum_receipt_files, "size_limit", "Target download receipt count exceeds its scan bound");
  for (const std::string& name : names) {
    require(target_download_file_name(name, std::string_view(name).substr(0, download_nonce_characters)),
            download_uncertain_code, "Unknown download receipt names preserve the target store");
  }
}

std::map<std::string, EvidenceFiles> read_receipt_files(const HeldDirectory& folder) {
  const std::vector<std::string> names = receipt_file_names(folder);
  std::map<std::string, EvidenceFiles> files;
  for (const std::string& name : names) {
    files[name.substr(0, download_nonce_characters)].emplace(name, read_entry(folder, name, maximum_receipt_bytes));
  }
  return files;
}

std::vector<std::string> resume_names(const HeldDirectory& folder, const std::string& partial) {
  std::vector<std::string> names = folder.names(maximum_scanned_downloads + 1);
  require(names.size() <= maximum_scanned_downloads, download_uncertain_code,
          "Target resume metadata scan exceeds its bound");
  std::erase_if(names, [&](const std::string& name) { return !name.starts_with(resume_state_name(partial)); });
  for (const std::string& name : names) {
    require(target_download_resume_file_name(name, partial), download_uncertain_code,
            "Unknown resume metadata names were preserved");
  }
  return names;
}

EvidenceFiles read_resume_files(const HeldDirectory& folder, const std::filesystem::path& temporary) {
  EvidenceFiles files;
  for (const std::string& name : resume_names(folder, name_of(temporary))) {
    // One file too many is enough to be refused.
    if (files.size() <= maximum_evidence_files) {
      files.emplace(path_utf8(temporary.parent_path() / name), read_entry(folder, name, maximum_resume_state_bytes));
    }
  }
  return files;
}

}  // namespace

std::vector<std::string> receipt_file_names(const HeldDirectory& folder) {
  std::vector<std::string> names = folder.names(maximum_receipt_files + 1);
  require_receipt_names(names);
  return names;
}

Json target_download_resume_files(const std::filesystem::path& store, const Json& receipt) {
  validate_target_download_receipt(receipt);
  const std::filesystem::path temporary = path_from_utf8(text_at(receipt, "temporary"));
  const auto folder = find_folder(store, (LauncherPaths({}).downloads / temporary).parent_path(),
                                  "Download resume parent is not an ordinary directory");
  EvidenceFiles files;
  if (folder) {
    files = read_resume_files(*folder, temporary);
  }
  return parse_target_download_resume_files(receipt, files);
}

Json target_download_receipts(const std::filesystem::path& store) {
  Json groups = Json::array();
  const auto folder =
      find_folder(store, LauncherPaths({}).download_intents, "Download receipt folder is not an ordinary directory");
  if (!folder) {
    return groups;
  }
  for (const auto& [nonce, files] : read_receipt_files(*folder)) {
    Json group = parse_target_download_receipt_group(nonce, files);
    group["resume_files"] = target_download_resume_files(store, group.at("receipt"));
    groups.push_back(std::move(group));
  }
  require_separate_downloads(groups);
  return groups;
}

void remove_receipt_files(const std::filesystem::path& store, const Json& group) {
  for (const Json& entry : group.at("resume_files")) {
    const std::filesystem::path name = path_from_utf8(text_at(entry, "name"));
    const std::filesystem::path file = safe_join(store, path_utf8(LauncherPaths({}).downloads / name), true);
    const HeldDirectory downloads = HeldDirectory::open(file.parent_path());
    downloads.remove(name_of(file));
    downloads.flush();
  }
  const HeldDirectory folder =
      HeldDirectory::open(safe_join(store, path_utf8(LauncherPaths({}).download_intents), true));
  const std::string last = receipt_in_force_of(group);
  for (const Json& entry : group.at("files")) {
    if (!is_text(entry.at("name"), last)) {
      folder.remove(text_at(entry, "name"));
    }
  }
  // None of them may come back once the receipt is gone.
  folder.flush();
  folder.remove(last);
  folder.flush();
}

}  // namespace ravok
