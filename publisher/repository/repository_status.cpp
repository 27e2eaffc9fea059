#include "publisher/repository/repository_status.hpp"

#include <chrono>
#include <utility>

#include "domain/error.hpp"
#include "publisher/repository/key_advice.hpp"
#include "publisher/repository/repository_folder.hpp"

namespace ravok {
namespace {

constexpr int most_readings = 3;

RoleStatus role_status(const std::string& role, const RepositoryState& state, const PublisherRecord& record,
                       TufTime now) {
  const Json& root = state.root();
  const Json& authority = root.at("roles").at(role);
  RoleStatus status;
  status.role = role;
  status.threshold = positive_version(authority.at("threshold"));
  for (const Json& id : authority.at("keyids")) {
    const auto text = id.get<std::string>();
    status.keys.push_back({text, record.key_name(text), text_at(root.at("keys").at(text), "scheme")});
  }
  const RoleDocument& document = state.role(role);
  status.exists = document.exists();
  if (status.exists) {
    status.version = document.version;
    status.expires = document.expires();
    status.days_left = std::chrono::floor<std::chrono::days>(status.expires - now).count();
    status.signed_by = signature_need(document.document, role, root, record).signed_by;
    status.problem = document.message;
  }
  return status;
}

DraftDocument draft_document(const std::string& role, const RepositoryDraft& draft, const RepositoryState& state,
                             const PublisherRecord& record) {
  DraftDocument described;
  described.role = role;
  const Json& made = draft.document(role);
  described.is_made = !made.is_null();
  const Json document = described.is_made ? made : Json{{"signed", Json::object()}, {"signatures", Json::array()}};
  if (described.is_made) {
    described.version = positive_version(made.at("signed").at("version"));
    described.expires = parse_tuf_time(text_at(made.at("signed"), "expires"));
  }
  if (role == "root") {
    described.signatures.push_back(signature_need(document, role, state.root(), record));
    described.signatures.back().by_former_root = true;
  }
  const Json& next = draft.wanted_root().is_null() ? state.root() : draft.wanted_root();
  described.signatures.push_back(signature_need(document, role, next, record));
  return described;
}

DraftStatus draft_status(const RepositoryDraft& draft, const RepositoryState& state, const PublisherRecord& record) {
  DraftStatus status;
  status.action = draft.action();
  status.is_stale = draft.is_stale();
  for (const std::string& role : draft.roles()) {
    status.documents.push_back(draft_document(role, draft, state, record));
  }
  status.needs = draft.needs();
  return status;
}

RepositoryStatus read_status(const std::filesystem::path& folder, TufTime now) {
  RepositoryFolder opened(folder, RepositoryFolder::Use::read);
  const RepositoryState state = opened.state();
  RepositoryStatus status;
  for (const char* const role : repository_roles) {
    status.roles.push_back(role_status(role, state, opened.record(), now));
  }
  try {
    if (const std::optional<RepositoryDraft> draft = RepositoryDraft::open(opened, state, now)) {
      status.draft = draft_status(*draft, state, opened.record());
    }
  } catch (const Error& error) {
    if (error.code != "interrupted_publication") {
      throw;
    }
    status.is_interrupted = true;
  }
  status.warnings = key_warnings(state.root());
  return status;
}

}  // namespace

RepositoryStatus repository_status(const std::filesystem::path& folder, TufTime now) {
  for (int left = most_readings - 1;; --left) {
    try {
      return read_status(folder, now);
    } catch (const Error&) {
      // No lock is taken, so another run may have changed the folder in the middle.
      if (left == 0) {
        throw;
      }
    }
  }
}

}  // namespace ravok
