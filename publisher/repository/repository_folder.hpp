// The folder of a signed repository: its names, the publisher's own record, and the state that it publishes.
//
//   public/                    what a web server serves as the root of the repository's origin; nothing else is in it
//     tuf/metadata/            N.root.json, N.targets.json, N.snapshot.json, and timestamp.json
//     tuf/targets/             SHA256.NAME of each target file, in the folders of its target's path
//   repository.json            the publisher's record
//   draft/                     the next documents while they are not published
//   upload.txt                 what is to be uploaded, in this order
//   .lock                      held by whoever changes the folder
//
// The state of a repository is what its timestamp.json leads to. Every other file keeps its bytes for ever under its
// name, so no cache can hold another document of the same name.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.hpp"
#include "platform/file/handle.hpp"
#include "tuf/tuf.hpp"
#include "tuf/tuf_time.hpp"

namespace ravok {

// The roles in the order in which their documents are made. All but the root refer to the one before them.
inline constexpr std::array<const char*, 4> repository_roles = {"root", "targets", "snapshot", "timestamp"};

// The largest documents that installed clients take, in bytes.
inline constexpr std::uint64_t repository_timestamp_limit = tuf_timestamp_limit;
inline constexpr std::uint64_t repository_metadata_limit = tuf_metadata_limit;

// The most bytes of a document of a role.
std::uint64_t repository_document_limit(std::string_view role);

// The publisher's record. Nothing in it is secret. It lies outside of what is served, and the roots that it knows are
// what the published documents are judged by.
struct PublisherRecord {
  // For how many days a role's next document is valid, by the role's name; of all but the root.
  std::map<std::string, std::uint64_t> days = {{"targets", 365}, {"snapshot", 30}, {"timestamp", 14}};
  // What people call a key, by its identifier.
  std::map<std::string, std::string> key_names;
  // The SHA-256 of the roots that were seen in force, by their versions. Empty in a folder that an older version of
  // this program has made, until a command changes it.
  std::map<std::uint64_t, std::string> roots;
  // The versions of snapshots that lie in the folder and were never published, since their publication was given up.
  std::set<std::uint64_t> given_up_snapshots;

  // Returns the name of a key; for one without a name, "key" and the first twelve characters of its identifier.
  std::string key_name(const std::string& id) const;
};

// A document of a role, and what is wrong with it apart from its age.
struct RoleDocument {
  std::string file;  // its name, such as "3.targets.json"; empty for none
  std::string text;
  Json document;  // null for none
  std::uint64_t version = 0;
  // Why clients that trust the repository's root would refuse it; empty for a document that they accept while it lasts.
  std::string code;
  std::string message;
  // Whether the keys of the root in force or of a former one have signed it, and it is the one that its parent
  // describes.
  bool is_authentic = true;

  bool exists() const { return !file.empty(); }
  bool is_accepted() const { return exists() && code.empty(); }
  // Fails as parse_tuf_time does.
  TufTime expires() const;
};

// What a folder publishes. Each document was verified as clients do, from the oldest root on that the record knows;
// none was refused for its age.
struct RepositoryState {
  // The texts of the roots that clients walk, by their versions. The last one is in force.
  std::map<std::uint64_t, std::string> roots;
  std::map<std::string, RoleDocument> documents;  // of all four roles

  const RoleDocument& role(const std::string& name) const { return documents.at(name); }
  // The "signed" part of the root in force.
  const Json& root() const { return role("root").document.at("signed"); }
  // Whether there is a timestamp.
  bool is_published() const { return role("timestamp").exists(); }
  // All targets by their paths; an empty object while nothing is published.
  Json targets() const;
};

// The name of a role's document, which a version begins except that of the timestamp.
std::string role_file(const std::string& role, std::uint64_t version);

// The file of a target below the folder of targets: the name, within the target's folders, begins with its SHA-256.
std::filesystem::path target_file(const std::string& path, const std::string& sha256);

class RepositoryFolder {
 public:
  enum class Use {
    read,    // looks at files that others may change meanwhile
    change,  // holds the lock, and removes what killed runs have left of single files
  };

  // Accepts only the text of a root that a repository can begin with. Fails with "invalid_version" for one of another
  // version than 1, with "invalid_root" for one without consistent snapshots, and as require_first_root does.
  static void require_first_document(const std::string& root_text);

  // Makes the folder of a repository that has published nothing but its first root, whose text it is given. The folder
  // must not exist yet. Fails with "output_exists", with "lock_failed" on a volume that has no locks, "file_write" and
  // "file_sync", and as require_first_document does.
  static void create(const std::filesystem::path& folder, const std::string& root_text, const PublisherRecord& record);

  // The place of the record in a repository's folder.
  static std::filesystem::path record_of(const std::filesystem::path& folder) { return folder / "repository.json"; }

  // Opens a repository's folder. Fails with "no_repository", "busy" when another run changes it, "lock_failed",
  // "unsafe_path" where a folder of it is a link and it is to be changed, and with "unsupported_schema" or
  // "invalid_record" for the record.
  RepositoryFolder(const std::filesystem::path& folder, Use use);

  const std::filesystem::path& path() const { return folder_; }
  std::filesystem::path public_folder() const { return folder_ / "public"; }
  std::filesystem::path metadata() const { return folder_ / "public/tuf/metadata"; }
  std::filesystem::path targets() const { return folder_ / "public/tuf/targets"; }
  std::filesystem::path draft() const { return folder_ / "draft"; }
  std::filesystem::path upload_list() const { return folder_ / "upload.txt"; }
  std::filesystem::path record_file() const { return record_of(folder_); }

  const PublisherRecord& record() const { return record_; }
  // Replaces the record, durably. Fails as replace_file does.
  void write_record(PublisherRecord record);

  // Reads what is published. Fails with "missing_file" for a document that another one refers to, as root_versions
  // does, and as parse_json, shape and the trusted set do for a root that does not follow the one before; a message
  // begins with the file. What is wrong with any other document is told in it.
  RepositoryState state() const;

  // Puts the roots of a state into the record that it does not know yet, durably. Fails as replace_file does.
  void remember_roots(const RepositoryState& state);

  // Returns the version of a role's next document: one above the present one and above all that lie in the folder.
  std::uint64_t next_version(const std::string& role, const RepositoryState& state) const;

  // Returns the versions of a role's documents that lie in the folder, ascending.
  std::vector<std::uint64_t> versions(const std::string& role) const;

  // Returns the versions of the roots that lie in the folder, from the oldest one on that the record knows, ascending.
  // Fails with "missing_file" where there is none or one is missing that the record knows, with "unsigned_role" where
  // such a one has other bytes, and as read_document does.
  std::vector<std::uint64_t> root_versions() const;

  // Returns the text of a published document. Fails with "missing_file", and as read_file does.
  std::string read_document(const std::string& file) const;

  // Puts a document in its place, durably. One of a versioned name may be there already if it has the same bytes. Fails
  // with "version_taken" for other bytes, and as replace_file does.
  void publish_document(const std::string& file, const std::string& text) const;

 private:
  std::filesystem::path folder_;
  Handle lock_;
  PublisherRecord record_;
};

// Accepts only a state whose content may be signed anew: every document is authentic. Fails with "unsigned_role", and
// the message says where the document is to be had.
void require_authentic(const RepositoryFolder& folder, const RepositoryState& state);

// Accepts only a state with a timestamp, or a folder that has never had one: to begin again with the first would strand
// every client that has seen a later one. Fails with "missing_file", and the message says what to do.
void require_timestamp(const RepositoryFolder& folder, const RepositoryState& state);

// Accepts only a state that a new document may stand on: every role is signed as its root demands and, at `now`, has
// not expired. Roles without a document are passed over. Fails with "unsigned_role" and "expired_role"; the messages
// say what to do.
void require_sound(const RepositoryState& state, TufTime now);

}  // namespace ravok
