#include "publisher/repository/repository_session.hpp"

#include <algorithm>
#include <utility>

#include "domain/paths.hpp"
#include "publisher/repository/draft_files.hpp"

namespace ravok {
namespace {

// What was not signed must neither be signed anew nor be counted on from.
RepositoryState authentic_state(const RepositoryFolder& folder) {
  RepositoryState state = folder.state();
  require_authentic(folder, state);
  return state;
}

constexpr std::uint64_t root_warning_days = 90;

std::string listed_names(const std::vector<std::string>& names) {
  std::string text;
  for (std::size_t index = 0; index < names.size(); ++index) {
    text += (index == 0 ? "" : index + 1 == names.size() ? " or " : ", ") + names[index];
  }
  return text;
}

std::string need_text(const SignatureNeed& need) {
  const std::uint64_t lacking = need.threshold - need.signed_by.size();
  const std::string wanted =
      "needs " + std::to_string(lacking) + " more " + (lacking == 1 ? "signature" : "signatures");
  const std::string whose = need.role == "root"
                                ? std::string("the new root ") + wanted +
                                      (need.by_former_root ? " of the present root's keys" : " of its own keys")
                                : "the role " + need.role + " " + wanted;
  return whose + ", by " + listed_names(need.waiting_for);
}

// Whether a key speaks for one of the roles whose documents the draft makes.
bool speaks_for(const std::string& id, const RepositoryDraft& draft, const RepositoryState& state) {
  const Json& wanted = draft.wanted_root();
  const auto authorized = [&](const Json& root, const std::string& role) {
    const Json& ids = root.at("roles").at(role).at("keyids");
    return std::find(ids.begin(), ids.end(), Json(id)) != ids.end();
  };
  return std::any_of(draft.roles().begin(), draft.roles().end(), [&](const std::string& role) {
    return authorized(wanted.is_null() ? state.root() : wanted, role) ||
           (role == "root" && authorized(state.root(), role));
  });
}

}  // namespace

std::string needs_text(const std::vector<SignatureNeed>& needs) {
  std::string text;
  for (const SignatureNeed& need : needs) {
    text += (text.empty() ? "" : "; ") + need_text(need);
  }
  return text;
}

RepositorySession::RepositorySession(const std::filesystem::path& folder, TufTime now)
    : now_(now),
      folder_(folder, RepositoryFolder::Use::change),
      finished_former_(finish_publication(folder_)),
      state_(authentic_state(folder_)),
      draft_(RepositoryDraft::open(folder_, state_, now)) {
  require_timestamp(folder_, state_);
  folder_.remember_roots(state_);
}

void RepositorySession::require_no_draft() {
  require(!draft_ || !draft_->waits() || draft_->is_stale(), "draft_pending",
          draft_ ? "A draft of '" + draft_->action() + "' waits: " + needs_text(draft_->needs()) +
                       ". Sign it with 'ravok-publish repository sign', or remove it with 'ravok-publish repository "
                       "discard'"
                 : "");
  if (draft_) {
    draft_->discard();
    draft_.reset();
  } else {
    clear_draft_folder(folder_);
  }
}

void RepositorySession::learn_names(const std::map<std::string, std::string>& names) {
  PublisherRecord record = folder_.record();
  for (const auto& [id, name] : names) {
    if (state_.root().at("keys").contains(id)) {
      record.key_names.try_emplace(id, name);
    }
  }
  if (record.key_names != folder_.record().key_names) {
    folder_.write_record(std::move(record));
  }
}

RepositoryOutcome RepositorySession::conclude(RepositoryDraft draft, const std::vector<Signer>& signers) {
  RepositoryOutcome outcome;
  outcome.finished_former = finished_former_;
  learn_names(signer_names(signers));
  outcome.signatures = draft.sign(signers, now_);
  outcome.needs = draft.needs();
  outcome.roles = draft.roles();
  std::vector<std::string> idle;
  for (const Signer& signer : signers) {
    if (!speaks_for(signer.id, draft, state_)) {
      idle.push_back("The key " + signer.name + " speaks for no document that was made");
    }
  }
  if (outcome.needs.empty()) {
    draft.publish(now_);
    state_ = folder_.state();
    outcome.published = true;
    remember_new_root();
  } else {
    draft.wait();
  }
  outcome.state = state_;
  outcome.warnings = warnings(state_);
  outcome.warnings.insert(outcome.warnings.begin(), idle.begin(), idle.end());
  return outcome;
}

void RepositorySession::remember_new_root() noexcept {
  try {
    folder_.remember_roots(state_);
  } catch (...) {
    // It is published, and the next command that changes the folder remembers it.
  }
}

RepositoryOutcome RepositorySession::conclude_or_drop(const DraftChanges& changes, const std::vector<Signer>& signers,
                                                      const std::function<void()>& prepare) {
  try {
    if (prepare) {
      prepare();
    }
    return conclude(RepositoryDraft::begin(folder_, state_, changes, now_), signers);
  } catch (...) {
    // Nobody is to be asked to sign it, and what was copied may be large, and the disk full.
    drop_failed_draft(folder_);
    throw;
  }
}

RepositoryOutcome RepositorySession::unchanged() const {
  RepositoryOutcome outcome;
  outcome.finished_former = finished_former_;
  outcome.state = state_;
  outcome.warnings = warnings(state_);
  return outcome;
}

std::vector<std::string> RepositorySession::warnings(const RepositoryState& state) const {
  const TufTime end = state.role("root").expires();
  if (end > days_after(now_, root_warning_days)) {
    return {};
  }
  return {"The root document expires on " + tuf_day_text(end) +
          ", and then no client can update any more; give the repository a new one with 'ravok-publish repository "
          "rotate'"};
}

std::map<std::string, std::string> signer_names(const std::vector<Signer>& signers) {
  std::map<std::string, std::string> names;
  for (const Signer& signer : signers) {
    names[signer.id] = signer.name;
  }
  return names;
}

}  // namespace ravok
