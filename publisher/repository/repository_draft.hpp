// The next documents of a repository, from what is to change until they are published.
//
// They are made in the order root, targets, snapshot, timestamp, each when the one before has all its signatures, so
// several people can sign one after the other. They wait in the folder's draft/ meanwhile:
//
//   draft.json       what is to change, and how far it has come; without it there is no draft
//   N.ROLE.json      the documents that were made
//   targets/         the new target files, as they will lie in public/tuf/targets
//
// Wherever a run is killed: before draft.json there is nothing; before the publication has begun the draft is there and
// can be signed further, replaced or discarded; after that the next command that changes the folder finishes it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "domain/json.hpp"
#include "publisher/repository/repository_folder.hpp"
#include "publisher/repository/signature_need.hpp"
#include "publisher/signing/signer.hpp"
#include "tuf/tuf_time.hpp"

namespace ravok {

// What is to change in a repository.
struct DraftChanges {
  std::string action;           // the command that asks for it, such as "release"
  std::optional<Json> root;     // the "signed" part of the next root; its version is set here
  std::optional<Json> targets;  // all targets of the next targets document
  std::set<std::string> renew;  // roles that get a new document though nothing in it changes; the root is none of them
  // For how many days the new documents of a role are valid, where not as the record says.
  std::map<std::string, std::uint64_t> days;
};

// A signature that was made.
struct MadeSignature {
  std::string role;
  std::string key_id;
  std::string name;
};

class RepositoryDraft {
 public:
  enum class Place {
    folder,  // in the folder's draft/
    memory,  // nowhere: what is not signed at once is gone with the object
  };

  // Begins a draft on a state. Beside what is asked for, it makes whatever else needs it: documents that the root does
  // not accept any more or whose time has passed, and those that refer to a new one. In the folder there must be no
  // draft; new target files may lie in its targets/ already. Fails as require_authentic
  // and replace_file do.
  static RepositoryDraft begin(RepositoryFolder& folder, const RepositoryState& state, const DraftChanges& changes,
                               TufTime now, Place place = Place::folder);

  // Returns the draft that waits in the folder, if there is one. Documents whose time has passed, or that the present
  // ones have overtaken, will be made again; and it makes the roles too whose present documents would not stand beside
  // what it publishes, since they have expired or were published after it was begun. Fails with
  // "interrupted_publication" for a draft whose publication has begun, with "invalid_draft", and as
  // require_authentic, read_file and parse_json do.
  static std::optional<RepositoryDraft> open(RepositoryFolder& folder, const RepositoryState& state, TufTime now);

  // The command that began it.
  const std::string& action() const { return action_; }
  // Whether a run has ended and left it to wait for signatures. Otherwise its run was broken off.
  bool waits() const { return waits_; }
  // Whether the repository has changed since in what it stands on, so that it can only be discarded.
  bool is_stale() const { return stale_; }
  // The roles whose documents it makes, in their order.
  const std::vector<std::string>& roles() const { return roles_; }
  bool makes(const std::string& role) const;
  // What it wants of the root's "signed" part and of the targets; null where it changes nothing.
  const Json& wanted_root() const { return root_; }
  const Json& wanted_targets() const { return targets_; }

  // The document of a role as far as it is signed; null when it is not made yet.
  const Json& document(const std::string& role) const;

  // Makes the next documents and signs them with all signers whose keys speak for them, until one lacks a signature.
  // Every signature is stored at once. Fails with "invalid_signature" for one that clients would refuse, with
  // "stale_draft", as the signers and replace_file do, and with "size_limit" for a document that clients do not take.
  std::vector<MadeSignature> sign(const std::vector<Signer>& signers, TufTime now);

  // Who must sign the document at which sign() has stopped; nothing when all are signed.
  std::vector<SignatureNeed> needs() const;
  bool is_signed() const { return needs().empty(); }

  // Leaves the draft to wait for signatures.
  void wait();

  // Publishes a draft that is wholly signed. First reads everything back as the clients do that trust the present root,
  // and those that begin with the oldest one. Then the list of what to upload grows, and the folder's files appear:
  // those of targets, the root, targets, snapshot and the timestamp; and the draft is gone. Fails as the trusted set
  // does, with "rollback", as require_target_files does, and as replace_file, move_file and remove_file do; what has
  // begun is finished by finish_publication.
  void publish(TufTime now);

  // Removes the draft.
  void discard();

 private:
  RepositoryDraft(RepositoryFolder& folder, const RepositoryState& state, Place place)
      : folder_(&folder), state_(state), place_(place) {}

  Json stored() const;
  void store() const;
  void load(const Json& document, TufTime now);
  void require_wanted() const;
  void require_made_as_wanted(TufTime now) const;
  void drop_overtaken(TufTime now);
  bool is_name_taken(const std::string& role) const;
  void choose_roles(const std::set<std::string>& wanted, TufTime now);
  const Json& root_in_force() const;
  std::string file(const std::string& role) const;
  std::string text(const std::string& role) const;
  Json made_body(const std::string& role, TufTime now) const;
  void put(const std::string& role, const Json& document);
  std::vector<SignatureNeed> needs_of(const std::string& role) const;
  bool is_signed(const std::string& role) const;
  bool sign_document(const std::string& role, const Signer& signer);
  void read_back(std::uint64_t oldest_root, TufTime now) const;
  std::vector<std::string> changed_files() const;
  void publish_from_memory() const;

  RepositoryFolder* folder_;
  RepositoryState state_;
  Place place_;
  std::string action_;
  Json root_;
  Json targets_;
  std::map<std::string, std::uint64_t> days_;
  std::vector<std::string> roles_;
  bool waits_ = false;
  bool stale_ = false;
  bool is_loaded_ = false;  // whether another run has begun it
  std::map<std::string, Json> documents_;
};

}  // namespace ravok
