// The files of a repository's draft, and how they become those that are published.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "domain/error.hpp"
#include "domain/json.hpp"
#include "domain/paths.hpp"
#include "publisher/repository/repository_folder.hpp"

namespace ravok {

inline constexpr const char* draft_kind = "ravok-repository-draft";

// The draft's record as it lies in the folder. One that names what is to be uploaded is being published.
struct StoredDraft {
  Json document;
  bool publishing = false;
};

// The place of the draft's record. Without it there is no draft.
std::filesystem::path draft_record(const RepositoryFolder& folder);

// Whether a failure says nothing of the draft: this machine has no room or cannot read, write or lock a file that is
// there, so the same may go well later.
bool says_nothing_of_draft(const std::string& code);

// A failure of what is published, by which a draft was to be judged. It says nothing of the draft.
class PublishedFailure : public Error {
 public:
  explicit PublishedFailure(const Error& error) : Error(error) {}
};

// Returns what `work` finds in what is published. Fails with PublishedFailure.
template <typename Work>
auto look_at_published(Work work) {
  try {
    return work();
  } catch (const Error& error) {
    throw PublishedFailure(error);
  }
}

// Returns what `work` makes of the draft's files. Whatever is wrong with them is one failure, which says what to do.
// Fails with "invalid_draft", with what says_nothing_of_draft tells, and with PublishedFailure.
template <typename Work>
auto read_files_of_draft(const RepositoryFolder& folder, Work work) {
  constexpr const char* code = "invalid_draft";
  try {
    return refuse_malformed(code, "A field is missing or of another type", work);
  } catch (const PublishedFailure&) {
    throw;
  } catch (const Error& error) {
    require(!says_nothing_of_draft(error.code), error.code, error.what());
    fail(code, "The draft in " + path_utf8(folder.draft()) +
                   " cannot be read, and 'ravok-publish repository discard' removes it: " + error.what());
  }
}

// Returns the draft's record, if there is one. Fails with "invalid_draft", and with what says_nothing_of_draft tells.
std::optional<StoredDraft> read_draft(const RepositoryFolder& folder);

// Returns the text of a document of the draft. Fails with "missing_file", and as read_file does.
std::string read_draft_document(const RepositoryFolder& folder, const std::string& file);

// Returns the text of a document of the draft that has a good shape and the name that its role and version give it.
// Fails with "invalid_draft", and as read_draft_document, parse_json and shape do.
std::string read_role_of_draft(const RepositoryFolder& folder, const std::string& role, const std::string& file);

// What is looked at of the targets' new files in the draft.
enum class NewFiles {
  ignored,           // nothing: the draft is another one
  judged_by_length,  // enough for the run that has copied them
  proved,            // their digests too
};

// Accepts only targets whose files are there, each of its length: a new one in the draft, or else the published one.
// Fails with "missing_file", with "unsafe_path" where a folder of a file is a link, with "content_mismatch" for a new
// file that is proved and has another digest than its name says, with "file_read", and as digest_file does.
void require_target_files(const RepositoryFolder& folder, const Json& targets, NewFiles how);

// Whether the draft has a new file of a target.
bool has_new_file(const RepositoryFolder& folder, const std::string& path, const Json& target);

// Publishes a draft that has been judged, on the state that it was begun on or on what has appeared of it: first adds
// to the list of what to upload; then the files of targets, the root, targets, snapshot and the timestamp appear; then
// removes the draft. May be done again at any time before it is through. Fails as add_to_upload_list, move_file,
// publish_document, tidy_upload_list and remove_draft do.
void publish_draft(const RepositoryFolder& folder, const RepositoryState& present, const Json& stored);

// Finishes a publication that was broken off. Returns whether there was one. What lies in the draft is judged anew,
// since a folder may have been copied from somebody else: fails with "invalid_draft" for documents that the published
// ones do not authorize, and for targets whose files are not there; and as RepositoryFolder::state, require_authentic
// and publish_draft do.
bool finish_publication(const RepositoryFolder& folder);

// Removes the draft. Fails with "file_remove" and "file_sync".
void remove_draft(const RepositoryFolder& folder);

// Removes what a run has made of a draft that it could not conclude. It stays where its publication has begun, so that
// the next run finishes it, and where it cannot be removed now, until the next run does that.
void drop_failed_draft(const RepositoryFolder& folder) noexcept;

// Removes what a run has left that was killed before its draft was there. Wants a folder without a draft. Fails as
// remove_folder does.
void clear_draft_folder(const RepositoryFolder& folder);

}  // namespace ravok
