#include "app/download/receipt_group.hpp"

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "app/download/download_receipt.hpp"
#include "app/download/torn_write.hpp"
#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "tuf/resume_state.hpp"

namespace ravok {
namespace {

constexpr std::string_view invalid_group = "Invalid frozen download receipt group";

// The receipts among the files, by their names, and the texts that are only the start of one.
struct ReceiptWrites {
  std::map<std::string, Json> parsed;
  std::vector<std::string_view> torn;
};

void require_known_names(std::string_view nonce, const EvidenceFiles& files) {
  for (const auto& [name, text] : files) {
    require(target_download_file_name(name, nonce) && text.size() <= maximum_receipt_bytes, download_uncertain_code,
            "Unknown download receipt write was preserved");
  }
}

ReceiptWrites read_receipts(const std::string& record, const EvidenceFiles& files) {
  ReceiptWrites writes;
  for (const auto& [name, text] : files) {
    try {
      writes.parsed.emplace(name, parse_json(text, maximum_receipt_bytes));
    } catch (const Error& error) {
      if (error.code != "invalid_json") {
        throw;
      }
      require(name != record && initial_write_prefix(text), download_uncertain_code,
              "Unrecognized receipt-write bytes were preserved");
      writes.torn.push_back(text);
    }
  }
  return writes;
}

void require_owned_receipts(std::string_view nonce, const std::map<std::string, Json>& receipts) {
  for (const auto& [name, receipt] : receipts) {
    validate_target_download_receipt(receipt);
    require(text_at(receipt, "nonce") == nonce, download_uncertain_code,
            "Download receipt filename differs from its ownership identity");
  }
}

// Returns the name and the receipt that is in force: one that says "complete", or else the first.
const std::pair<const std::string, Json>& in_force(const std::map<std::string, Json>& receipts) {
  const std::pair<const std::string, Json>* found = nullptr;
  for (const auto& named : receipts) {
    require(describe_same_download(named.second, receipts.begin()->second), download_uncertain_code,
            "Atomic receipt writes disagree about their owned download");
    if (found == nullptr || (is_text(named.second.at("phase"), download_phase::complete) &&
                             !is_text(found->second.at("phase"), download_phase::complete))) {
      found = &named;
    }
  }
  require(found != nullptr, download_uncertain_code, invalid_group);
  return *found;
}

void require_torn_from(const Json& receipt, const std::vector<std::string_view>& torn) {
  const std::string prepared = receipt_in_phase(receipt, download_phase::prepared).dump();
  const std::string complete = receipt_in_phase(receipt, download_phase::complete).dump();
  for (const std::string_view text : torn) {
    require(prepared.starts_with(text) || complete.starts_with(text), download_uncertain_code,
            "Torn receipt write does not match its known download");
  }
}

}  // namespace

Json parse_target_download_receipt_group(std::string_view nonce, const EvidenceFiles& files) {
  require(is_download_nonce(nonce) && !files.empty() && files.size() <= maximum_evidence_files, download_uncertain_code,
          invalid_group);
  require_known_names(nonce, files);
  const std::string record = receipt_file_name(nonce);
  const ReceiptWrites writes = read_receipts(record, files);
  require_owned_receipts(nonce, writes.parsed);
  const auto& [name, receipt] = in_force(writes.parsed);
  require_torn_from(receipt, writes.torn);
  const std::string& bytes = files.at(files.contains(record) ? record : name);
  return {{"nonce", nonce},
          {"receipt", receipt},
          {"receipt_sha256", digest(bytes, "sha256")},
          {"files", evidence_entries(files)},
          {"resume_files", Json::array()}};
}

void require_separate_downloads(const Json& groups) {
  std::set<std::string> claimed;
  for (const Json& group : groups) {
    const Json& receipt = group.at("receipt");
    const bool is_first_claim =
        claimed.insert(text_at(receipt, "target")).second && claimed.insert(text_at(receipt, "temporary")).second;
    require(is_first_claim, download_uncertain_code, overlapping_downloads);
  }
}

std::string receipt_file_of(const Json& group) {
  const Json& files = group.at("files");
  const auto found = std::find_if(files.begin(), files.end(),
                                  [&](const Json& entry) { return entry.at("sha256") == group.at("receipt_sha256"); });
  require(found != files.end(), download_uncertain_code, invalid_group);
  return text_at(*found, "name");
}

std::string receipt_in_force_of(const Json& group) {
  const Json& files = group.at("files");
  const std::string sha256 = digest(group.at("receipt").dump(), "sha256");
  const auto found =
      std::find_if(files.begin(), files.end(), [&](const Json& entry) { return entry.at("sha256") == sha256; });
  return found == files.end() ? receipt_file_of(group) : text_at(*found, "name");
}

}  // namespace ravok
