#include "publisher/repository/draft_files.hpp"

#include <algorithm>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "platform/file/file_digest.hpp"
#include "platform/file/files.hpp"
#include "platform/file/status.hpp"
#include "publisher/repository/repository_files.hpp"
#include "publisher/repository/repository_walk.hpp"
#include "publisher/repository/upload_list.hpp"
#include "tuf/metadata_shape.hpp"
#include "tuf/trusted_set.hpp"
#include "tuf/tuf.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t draft_limit = std::uint64_t{64} << 20;

std::filesystem::path draft_targets(const RepositoryFolder& folder) { return folder.draft() / "targets"; }

// All targets that the documents of a draft make; an empty object for documents that leave them as they are.
Json targets_of_draft(const RepositoryFolder& folder, const Json& documents) {
  return documents.contains("targets")
             ? parse_json(read_draft_document(folder, text_at(documents, "targets")), repository_metadata_limit)
                   .at("signed")
                   .at("targets")
             : Json::object();
}

// A target's file below a folder of targets.
std::filesystem::path file_of(const std::string& path, const Json& target) {
  return target_file(path, text_at(target.at("hashes"), "sha256"));
}

// Gives the new target files their places. Only those move that the targets describe.
void move_targets(const RepositoryFolder& folder, const Json& targets) {
  if (is_missing(draft_targets(folder))) {
    return;
  }
  for (const auto& [path, target] : targets.items()) {
    const std::filesystem::path file = file_of(path, target);
    const std::filesystem::path from = draft_targets(folder) / file;
    if (is_missing(from)) {
      continue;
    }
    const std::filesystem::path to = folder.targets() / file;
    require_no_links(folder.path(), folder_of(from));
    require_no_links(folder.path(), folder_of(to));
    make_folders(folder_of(to));
    move_file(from, to);
  }
}

// Gives a state the document of a role that was judged.
void put_document(RepositoryState& state, const std::string& role, const std::string& file, const std::string& text) {
  Json document = parse_json(text, repository_document_limit(role));
  const std::uint64_t version = positive_version(document.at("signed").at("version"));
  if (role == "root") {
    state.roots[version] = text;
  }
  state.documents[role] = {file, text, std::move(document), version, "", ""};
}

// Accepts only what clients may be given, whoever has written the draft: documents that the published ones authorize,
// each under the name of its role and version, and none older than what is published. They may have expired.
void require_authorized(const RepositoryFolder& folder, const RepositoryState& state, const Json& stored) {
  constexpr const char* code = "invalid_draft";
  stored.at("upload").get<std::vector<std::string>>();
  std::map<std::string, std::string> texts;
  for (const auto& [role, file] : stored.at("documents").items()) {
    texts[role] = read_role_of_draft(folder, role, file.get<std::string>());
  }
  const auto text = [&](const std::string& role) { return texts.contains(role) ? texts[role] : state.role(role).text; };
  TrustedSet trusted(state.role("root").text);
  if (text("root") != state.role("root").text) {
    trusted.trust_root(trusted.verified_next_root(text("root"), tuf_root_limit));
  }
  require(texts.contains("timestamp") || state.is_published(), code, "It has no timestamp");
  Json timestamp = trusted.verified_timestamp(text("timestamp"), repository_timestamp_limit);
  if (state.is_published() && text("timestamp") != state.role("timestamp").text) {
    require(!trusted.keeps_timestamp(state.role("timestamp").document, timestamp), code,
            "Its timestamp is not newer than the present one");
  }
  trusted.trust_timestamp(std::move(timestamp));
  Json snapshot = verified_role(text("snapshot"), trusted.snapshot_reference(), "snapshot", repository_metadata_limit,
                                TufTime::min());
  if (state.role("snapshot").exists()) {
    require_no_role_lost(state.role("snapshot").document, snapshot);
  }
  trusted.trust_snapshot(std::move(snapshot));
  verified_role(text("targets"), trusted.targets_reference(), "targets", repository_metadata_limit, TufTime::min());
}

}  // namespace

std::filesystem::path draft_record(const RepositoryFolder& folder) { return folder.draft() / "draft.json"; }

bool says_nothing_of_draft(const std::string& code) {
  return is_local_failure(code) || code == "busy" || code == "tree_read" || code.starts_with("file_");
}

std::optional<StoredDraft> read_draft(const RepositoryFolder& folder) {
  const std::filesystem::path file = draft_record(folder);
  if (is_missing(file)) {
    return {};
  }
  return read_files_of_draft(folder, [&] {
    std::optional<StoredDraft> stored = StoredDraft{parse_json(read_file(file, draft_limit), draft_limit)};
    require(is_text(stored->document.at("kind"), draft_kind) && is_integer(stored->document.at("schema_version"), 1),
            "invalid_draft", "It was written by another version of this program");
    stored->publishing = stored->document.contains("upload");
    return stored;
  });
}

std::string read_draft_document(const RepositoryFolder& folder, const std::string& file) {
  const std::filesystem::path path = folder.draft() / file;
  require(!is_missing(path), "missing_file", "A document of the draft is missing: " + path_utf8(path));
  return read_file(path, repository_metadata_limit);
}

std::string read_role_of_draft(const RepositoryFolder& folder, const std::string& role, const std::string& file) {
  constexpr const char* code = "invalid_draft";
  require(std::find(repository_roles.begin(), repository_roles.end(), role) != repository_roles.end(), code,
          "There is no role " + role);
  const std::string wrong_name = "A document of the role " + role + " has another name than its version gives it";
  require(file.find_first_of("/\\") == std::string::npos, code, wrong_name);
  std::string text = read_draft_document(folder, file);
  const Json document = parse_json(text, repository_document_limit(role));
  shape(document, role);
  require(file == role_file(role, positive_version(document.at("signed").at("version"))), code, wrong_name);
  return text;
}

void require_target_files(const RepositoryFolder& folder, const Json& targets, NewFiles how) {
  const bool has_new_files = how != NewFiles::ignored && !is_missing(draft_targets(folder));
  for (const auto& [path, target] : targets.items()) {
    const std::filesystem::path file = file_of(path, target);
    const std::filesystem::path served = folder.targets() / file;
    const std::filesystem::path made = draft_targets(folder) / file;
    const bool is_new = has_new_files && !is_missing(made);
    look_at_published([&] { require_no_links(folder.path(), folder_of(served)); });
    if (is_new) {
      require_no_links(folder.path(), folder_of(made));
    }
    const Result<Status> status = link_status_of(is_new ? made : served);
    require(status || is_missing(is_new ? made : served), "file_read",
            "Cannot look at the file of the target " + path + ": " + path_utf8(served));
    require(status && is_file(*status) && status->size == length(target), "missing_file",
            "The file of the target " + path + " is missing or has another length: " + path_utf8(served));
    require(!is_new || how != NewFiles::proved || digest_file(made, "sha256") == text_at(target.at("hashes"), "sha256"),
            "content_mismatch", "The draft's file is not the one that its name says: " + path_utf8(made));
  }
}

bool has_new_file(const RepositoryFolder& folder, const std::string& path, const Json& target) {
  return !is_missing(draft_targets(folder) / file_of(path, target));
}

void publish_draft(const RepositoryFolder& folder, const RepositoryState& present, const Json& stored) {
  RepositoryState next = present;
  for (const auto& [role, file] : stored.at("documents").items()) {
    put_document(next, role, file.get<std::string>(), read_draft_document(folder, file.get<std::string>()));
  }
  add_to_upload_list(folder, stored.at("upload").get<std::vector<std::string>>(), present, next);
  move_targets(folder, targets_of_draft(folder, stored.at("documents")));
  for (const char* const role : repository_roles) {
    if (stored.at("documents").contains(role)) {
      folder.publish_document(next.role(role).file, next.role(role).text);
    }
  }
  tidy_upload_list(folder, next);
  remove_draft(folder);
}

bool finish_publication(const RepositoryFolder& folder) {
  const std::optional<StoredDraft> stored = read_draft(folder);
  if (!stored || !stored->publishing) {
    return false;
  }
  const RepositoryState state = folder.state();
  require_authentic(folder, state);
  read_files_of_draft(folder, [&] {
    require_authorized(folder, state, stored->document);
    require_target_files(folder, targets_of_draft(folder, stored->document.at("documents")), NewFiles::proved);
  });
  publish_draft(folder, state, stored->document);
  return true;
}

void remove_draft(const RepositoryFolder& folder) {
  remove_file(draft_record(folder));
  remove_folder(folder.draft());
}

void drop_failed_draft(const RepositoryFolder& folder) noexcept {
  try {
    const std::optional<StoredDraft> stored = read_draft(folder);
    if (!stored || !stored->publishing) {
      remove_draft(folder);
    }
  } catch (...) {
    // The failure for which it is dropped is the one to tell.
  }
}

void clear_draft_folder(const RepositoryFolder& folder) { remove_folder(folder.draft()); }

}  // namespace ravok
