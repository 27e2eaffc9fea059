// Other keys for the roles of a repository: a new root, and anew the documents of the roles that it changes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "domain/json.hpp"
#include "publisher/repository/repository_session.hpp"
#include "publisher/signing/signer.hpp"
#include "tuf/tuf_time.hpp"

namespace ravok {

// What is to change. Each of the roles gets the keys and loses the keys that are named here.
struct KeyRotation {
  std::filesystem::path folder;
  std::set<std::string> roles;             // "root", "targets", "snapshot" or "timestamp"; may be none
  std::vector<std::filesystem::path> add;  // public key files
  std::vector<std::string> remove;         // names or identifiers of keys
  std::optional<std::uint64_t> threshold;  // how many keys of each of the roles must sign; else as it is
  std::optional<std::string> expires;      // when the new root expires; else when the present one does
};

struct RotationOutcome {
  RepositoryOutcome repository;
  Json root;                          // the "signed" part of the root that is asked for
  std::vector<std::string> warnings;  // about the keys that it names; whole sentences
};

// Accepts only a rotation of which nothing that can be judged without a look at any file is refused. Fails with
// "usage", "invalid_threshold", "invalid_expiry" and "expired_metadata".
void require_rotation(const KeyRotation& rotation, TufTime now);

// Makes the next root and signs it with the signers whose keys speak for the present root or for the next one, then the
// documents of the roles whose keys change; publishes all of it once it is signed. Until then it waits in the folder.
// The same rotation again goes on with what waits or was broken off. Nothing changes when it is refused. Fails with
// - "known_key" for a key that a role has already, "unknown_key" for one to remove that it has not, "ambiguous_key" for
//   a name that several of its keys have;
// - "invalid_key" for a role that would have no key, and for a key that clients cannot verify with;
// - "invalid_threshold" for more signatures than the role would have keys;
// - "expired_metadata" for a present root that has expired, unless a new time is given;
// - "nothing_to_change" for a root that would be the same;
// - "draft_pending" for another draft that waits for signatures;
// - as the readers of key files do, and as RepositorySession does.
RotationOutcome rotate_keys(const KeyRotation& rotation, const std::vector<Signer>& signers, TufTime now);

// Adds what signatures the signers can give to the draft that waits in a folder, and publishes it if that is enough.
// Fails with "no_draft" when nothing waits, with "wrong_key" for a signer that speaks for no role of the repository,
// nor will, with "stale_draft", and as RepositorySession does.
RepositoryOutcome sign_draft(const std::filesystem::path& folder, const std::vector<Signer>& signers, TufTime now);

}  // namespace ravok
