#include "app/download/resume_evidence.hpp"

#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "app/download/download_receipt.hpp"
#include "app/download/torn_write.hpp"
#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "tuf/resume_state.hpp"

namespace ravok {
namespace {

// The checkpoints among the files, and the texts that are only the start of one.
struct ResumeWrites {
  std::vector<Json> parsed;
  std::vector<std::string_view> torn;
};

ResumeWrites read_writes(const std::string& record, const EvidenceFiles& files) {
  ResumeWrites writes;
  for (const auto& [name, text] : files) {
    try {
      writes.parsed.push_back(parse_json(text, maximum_resume_state_bytes));
    } catch (const Error& error) {
      if (error.code != "invalid_json") {
        throw;
      }
      require(name != record && is_record_start(text), download_uncertain_code,
              "Unknown resume-write bytes were preserved");
      writes.torn.push_back(text);
    }
  }
  return writes;
}

void require_known_state(const Json& state) {
  constexpr std::string_view unknown = "Unknown resume metadata was preserved";
  require(state.is_object() && has_text(state, "temporary"), download_uncertain_code, unknown);
  try {
    validate_target_resume_state(state, text_at(state, "temporary"));
  } catch (const Error&) {
    fail(download_uncertain_code, unknown);
  }
}

void require_owned_state(const Json& receipt, const Json& state) {
  require_known_state(state);
  require(state.at("temporary") == receipt.at("temporary"), download_uncertain_code,
          "Unowned resume evidence was preserved");
  const std::string scope = target_download_resume_scope(text_at(receipt, "target"), receipt.at("reference"));
  require(state.at("authorization") == receipt.at("authorization") && state.at("target") == receipt.at("target") &&
              state.at("scope_sha256") == digest(scope, "sha256"),
          download_uncertain_code, "Resume metadata differs from its owning receipt");
}

// Returns what all checkpoints of one partial file have in common.
Json lasting_part(Json state) {
  state.erase("received");
  state.erase("prefix_sha256");
  return state;
}

void require_one_partial(const std::vector<Json>& states) {
  for (const Json& state : states) {
    require(lasting_part(state) == lasting_part(states.front()), download_uncertain_code,
            "Resume checkpoints disagree about native file ownership");
  }
}

}  // namespace

Json evidence_entries(const EvidenceFiles& files) {
  Json entries = Json::array();
  for (const auto& [name, text] : files) {
    entries.push_back({{"name", name}, {"length", text.size()}, {"sha256", digest(text, "sha256")}});
  }
  return entries;
}

Json parse_target_download_resume_files(const Json& receipt, const EvidenceFiles& files) {
  validate_target_download_receipt(receipt);
  require(files.size() <= maximum_evidence_files, "size_limit", "Frozen resume evidence exceeds its bound");
  const std::string& temporary = text_at(receipt, "temporary");
  for (const auto& [name, text] : files) {
    require(target_download_resume_file_name(name, temporary) && text.size() <= maximum_resume_state_bytes,
            download_uncertain_code, "Unknown resume metadata name or bound was preserved");
  }
  const ResumeWrites writes = read_writes(resume_state_name(temporary), files);
  for (const Json& state : writes.parsed) {
    require_owned_state(receipt, state);
  }
  require_one_partial(writes.parsed);
  const std::optional<Json> identity =
      writes.parsed.empty() ? std::nullopt : std::optional(writes.parsed.front().at("identity"));
  for (const std::string_view text : writes.torn) {
    require(is_resume_write_start(text, receipt, identity), download_uncertain_code,
            "Torn resume write shows a different or future contract");
  }
  Json entries = evidence_entries(files);
  for (Json& entry : entries) {
    entry["kind"] = "metadata";
  }
  return entries;
}

}  // namespace ravok
