#include "publisher/repository/init_repository.hpp"

#include <utility>

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

RepositoryOutcome sign_first(const std::filesystem::path& folder, const std::vector<Signer>& signers, TufTime now) {
  RepositorySession session(folder, now);
  add_to_upload_list(session.folder(), {uploaded_document(role_file("root", 1))}, session.state(), session.state());
  if (signers.empty()) {
    return session.unchanged();
  }
  DraftChanges changes;
  changes.action = "init";
  changes.targets = Json::object();
  return session.conclude(RepositoryDraft::begin(session.folder(), session.state(), changes, now), signers);
}

}  // namespace

RepositoryOutcome init_repository(const RepositoryFoundation& foundation, const std::vector<Signer>& signers,
                                  TufTime now) {
  const PublisherRecord record = make_record(foundation, signers);
  require_absent(output_path(foundation.folder));
  const std::string root = about(foundation.root, [&] { return read_file(foundation.root, tuf_root_limit); });
  about(foundation.root, [&] { RepositoryFolder::create(foundation.folder, root, record); });
  try {
    RepositoryOutcome outcome = sign_first(foundation.folder, signers, now);
    const std::vector<std::string> warnings = key_warnings(outcome.state.root());
    outcome.warnings.insert(outcome.warnings.end(), warnings.begin(), warnings.end());
    return outcome;
  } catch (...) {
    remove_folder(output_path(foundation.folder));
    throw;
  }
}

}  // namespace ravok
