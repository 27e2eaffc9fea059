#include "publisher/repository/discard_draft.hpp"

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

// Removes the draft unread. Returns whether there was one.
bool remove_any_draft(const std::filesystem::path& folder) {
  const RepositoryFolder opened(folder, RepositoryFolder::Use::change);
  if (is_missing(draft_record(opened))) {
    return false;
  }
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
