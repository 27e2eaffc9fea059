// Who signs what in a repository, until when, and whose signature is still missing.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "publisher/repository/repository_draft.hpp"
#include "tuf/tuf_time.hpp"

namespace ravok {

struct KeyStatus {
  std::string id;
  std::string name;
  std::string scheme;
};

struct RoleStatus {
  std::string role;
  std::uint64_t threshold = 0;
  std::vector<KeyStatus> keys;
  bool exists = false;  // whether there is a document; the other members tell of it
  std::uint64_t version = 0;
  TufTime expires;
  std::int64_t days_left = 0;          // whole days until it expires; negative once it has
  std::vector<std::string> signed_by;  // the names of the keys that have signed it
  std::string problem;                 // why clients refuse it apart from its age; empty when they do not
};

// A document that waits to be published.
struct DraftDocument {
  std::string role;
  bool is_made = false;  // otherwise it is made when the one before is signed
  std::uint64_t version = 0;
  std::optional<TufTime> expires;
  std::vector<SignatureNeed> signatures;  // for a root both of the present root's keys and of its own
};

struct DraftStatus {
  std::string action;     // the command that began it
  bool is_stale = false;  // whether the repository has changed since, so that it can only be discarded
  std::vector<DraftDocument> documents;
  std::vector<SignatureNeed> needs;  // what it waits for now
};

struct RepositoryStatus {
  std::vector<RoleStatus> roles;     // in the order root, targets, snapshot, timestamp
  std::optional<DraftStatus> draft;  // nothing when none waits
  // A publication is under way, or was broken off, and then the next command that changes the folder finishes it.
  bool is_interrupted = false;
  std::vector<std::string> warnings;  // about the keys; whole sentences
};

// Reads the status of a repository's folder and changes nothing. Fails as RepositoryFolder, RepositoryFolder::state and
// RepositoryDraft::open do.
RepositoryStatus repository_status(const std::filesystem::path& folder, TufTime now);

}  // namespace ravok
