#include "publisher/repository/discard_draft.hpp"

#include <utility>

#include "platform/file/status.hpp"
#include "publisher/repository/draft_files.hpp"
#include "publisher/repository/upload_list.hpp"

namespace ravok {

namespace {

DiscardOutcome discard(const std::filesystem::path& folder, TufTime now) {
  DiscardOutcome outcome;
  RepositorySession session(folder, now);
  if (session.draft()) {
    outcome.action = session.draft()->action();
    session.draft()->discard();
  } else {
    clear_draft_folder(session.folder());
    // A publication that was given up has put files on the list that will not come.
    tidy_upload_list(session.folder(), session.state());
  }
  outcome.repository = session.unchanged();
  return outcome;
}

// Snapshots above the one in force were to be published with the draft. Later they would look as if they had been.
void remember_given_up(RepositoryFolder& folder, const RepositoryState& state) {
  PublisherRecord record = folder.record();
  for (const std::uint64_t version : folder.versions("snapshot")) {
    if (version > state.role("snapshot").version) {
      record.given_up_snapshots.insert(version);
    }
  }
  if (record.given_up_snapshots != folder.record().given_up_snapshots) {
    folder.write_record(std::move(record));
  }
}

// Removes the draft unread. Returns whether there was one.
bool remove_any_draft(const std::filesystem::path& folder) {
  RepositoryFolder opened(folder, RepositoryFolder::Use::change);
  if (is_missing(draft_record(opened))) {
    return false;
  }
  const RepositoryState state = opened.state();
  require_authentic(opened, state);
  require_timestamp(opened, state);
  remember_given_up(opened, state);
  remove_draft(opened);
  return true;
}

}  // namespace

DiscardOutcome discard_draft(const std::filesystem::path& folder, TufTime now) {
  try {
    return discard(folder, now);
  } catch (const Error& error) {
    const bool is_of_draft = error.code == "invalid_draft" || error.code == "version_taken";
    if (!is_of_draft || !remove_any_draft(folder)) {
      throw;
    }
  }
  DiscardOutcome outcome = discard(folder, now);
  outcome.action = "unknown";
  return outcome;
}

}  // namespace ravok
