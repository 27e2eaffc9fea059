// What all commands have in common that change a signed repository: how they begin, and how they end.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "publisher/repository/repository_draft.hpp"
#include "publisher/repository/repository_folder.hpp"
#include "publisher/repository/repository_time.hpp"
#include "publisher/signing/signer.hpp"
#include "tuf/tuf_time.hpp"

namespace ravok {

// What a command has done to a repository.
struct RepositoryOutcome {
  bool finished_former = false;           // a publication that an earlier run had begun was finished first
  bool published = false;                 // new documents were published
  std::vector<std::string> roles;         // the roles of the new documents, published or waiting
  std::vector<MadeSignature> signatures;  // that were made
  std::vector<SignatureNeed> needs;       // the signatures that the new documents wait for
  std::vector<std::string> warnings;      // whole sentences
  RepositoryState state;                  // what is published now
};

// Returns what the needs say to people, such as "the role targets needs 1 more signature, by key-a or key-b".
std::string needs_text(const std::vector<SignatureNeed>& needs);

// A repository's folder while one command changes it.
class RepositorySession {
 public:
  // Opens the folder, finishes a publication that was broken off, reads what is published, and remembers its roots.
  // Fails as RepositoryFolder, finish_publication, RepositoryFolder::state, require_authentic, RepositoryDraft::open,
  // require_timestamp and RepositoryFolder::remember_roots do.
  RepositorySession(const std::filesystem::path& folder, TufTime now);
  RepositorySession(const RepositorySession&) = delete;
  RepositorySession& operator=(const RepositorySession&) = delete;

  RepositoryFolder& folder() { return folder_; }
  const RepositoryState& state() const { return state_; }
  std::optional<RepositoryDraft>& draft() { return draft_; }
  TufTime now() const { return now_; }
  // Whether a publication that had been broken off was finished.
  bool finished_former() const { return finished_former_; }

  // Accepts only a repository without a draft that waits for signatures, and removes what a run has left that was
  // broken off before that. Fails with "draft_pending", and the message says what to do.
  void require_no_draft();

  // Remembers what people call these keys, as far as they speak for the repository and have no name yet.
  void learn_names(const std::map<std::string, std::string>& names);

  // Signs a draft with the signers, and publishes it if that is enough. Otherwise it waits in the folder. Fails as
  // sign and publish do.
  RepositoryOutcome conclude(RepositoryDraft draft, const std::vector<Signer>& signers);

  // Begins a draft, after `prepare` has put new target files into its folder, and concludes it. A failure leaves no
  // draft in the folder, unless its publication has begun. Fails as begin, conclude and `prepare` do, which may be
  // empty.
  RepositoryOutcome conclude_or_drop(const DraftChanges& changes, const std::vector<Signer>& signers,
                                     const std::function<void()>& prepare = {});

  // The outcome of a command that had nothing to change.
  RepositoryOutcome unchanged() const;

 private:
  std::vector<std::string> warnings(const RepositoryState& state) const;
  void remember_new_root() noexcept;

  TufTime now_;
  RepositoryFolder folder_;
  bool finished_former_;
  RepositoryState state_;
  std::optional<RepositoryDraft> draft_;
};

// Returns the names of the signers' keys by their identifiers.
std::map<std::string, std::string> signer_names(const std::vector<Signer>& signers);

}  // namespace ravok
