#include "publisher/repository/init_repository.hpp"

#include <optional>
#include <utility>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "publisher/publish_files.hpp"
#include "publisher/repository/key_advice.hpp"
#include "publisher/repository/repository_files.hpp"
#include "publisher/repository/upload_list.hpp"
#include "publisher/signing/publish_key.hpp"
#include "publisher/signing/signing_key.hpp"
#include "tuf/tuf.hpp"

namespace ravok {
namespace {

PublisherRecord make_record(const RepositoryFoundation& foundation, const std::vector<Signer>& signers) {
  PublisherRecord record;
  for (const auto& [role, days] : foundation.days) {
    require_days(days);
    record.days[role] = days;
  }
  record.key_names = signer_names(signers);
  for (const std::filesystem::path& file : foundation.public_keys) {
    record.key_names[key_id(read_public_key(file))] = key_name(file);
  }
  return record;
}

// Whether the repository is as it was made.
bool is_untouched(RepositorySession& session) {
  return !session.finished_former() && !session.draft() && !session.state().is_published() &&
         session.state().roots.size() == 1;
}

RepositoryOutcome sign_first(RepositorySession& session, const std::vector<Signer>& signers) {
  require(is_untouched(session), "busy",
          "Another run has changed this repository: " + path_utf8(session.folder().path()));
  add_to_upload_list(session.folder(), {uploaded_document(role_file("root", 1))}, session.state(), session.state());
  if (signers.empty()) {
    return session.unchanged();
  }
  DraftChanges changes;
  changes.action = "init";
  changes.targets = Json::object();
  return session.conclude(RepositoryDraft::begin(session.folder(), session.state(), changes, session.now()), signers);
}

// Removes a repository that could not be signed, under its lock. It stays where another run has come to it before.
void remove_made(const std::filesystem::path& folder, std::optional<RepositorySession>& session, TufTime now) {
  if (!session) {
    session.emplace(folder, now);
  }
  if (is_untouched(*session)) {
    remove_folder(session->folder().path());
  }
}

}  // namespace

RepositoryOutcome init_repository(const RepositoryFoundation& foundation, const std::vector<Signer>& signers,
                                  TufTime now) {
  const PublisherRecord record = make_record(foundation, signers);
  require_absent(output_path(foundation.folder));
  const std::string root = about(foundation.root, [&] { return read_file(foundation.root, tuf_root_limit); });
  about(foundation.root, [&] { RepositoryFolder::require_first_document(root); });
  RepositoryFolder::create(foundation.folder, root, record);
  std::optional<RepositorySession> session;
  try {
    session.emplace(foundation.folder, now);
    RepositoryOutcome outcome = sign_first(*session, signers);
    const std::vector<std::string> warnings = key_warnings(outcome.state.root());
    outcome.warnings.insert(outcome.warnings.end(), warnings.begin(), warnings.end());
    return outcome;
  } catch (...) {
    try {
      remove_made(foundation.folder, session, now);
    } catch (const Error&) {
      // The first failure is the one to tell.
    }
    throw;
  }
}

}  // namespace ravok
