#include "publisher/repository/repository_folder.hpp"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <utility>

#include "domain/crypto.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/files.hpp"
#include "platform/file/tree_walk.hpp"
#include "publisher/publish_files.hpp"
#include "publisher/publish_root.hpp"
#include "publisher/repository/repository_files.hpp"
#include "publisher/repository/repository_time.hpp"
#include "tuf/keys.hpp"
#include "tuf/metadata_shape.hpp"
#include "tuf/trusted_set.hpp"
#include "tuf/tuf.hpp"

namespace ravok {
namespace {

constexpr const char* record_kind = "ravok-publisher-repository";
constexpr std::uint64_t record_limit = 1'048'576;
constexpr std::size_t most_documents = 10'000'000;
constexpr std::size_t shown_id_characters = 12;
constexpr std::size_t sha256_characters = 64;

bool is_sha256(std::string_view text) { return text.size() == sha256_characters && is_lower_hex(text); }

// Returns the version that digits tell, or none for what role_file does not write.
std::optional<std::uint64_t> version_of(std::string_view digits) {
  std::uint64_t version = 0;
  const auto [end, problem] = std::from_chars(digits.data(), digits.data() + digits.size(), version);
  if (problem != std::errc() || end != digits.data() + digits.size() || std::to_string(version) != digits) {
    return {};
  }
  return version;
}

Json record_document(const PublisherRecord& record) {
  Json roots = Json::object();
  for (const auto& [version, sha256] : record.roots) {
    roots[std::to_string(version)] = sha256;
  }
  return {{"schema_version", 1},       {"kind", record_kind},
          {"days", record.days},       {"key_names", record.key_names},
          {"roots", std::move(roots)}, {"given_up_snapshots", record.given_up_snapshots}};
}

std::string record_text(const PublisherRecord& record) { return record_document(record).dump(2) + "\n"; }

PublisherRecord parse_record(const Json& document) {
  constexpr const char* code = "invalid_record";
  constexpr const char* malformed = "The repository's record is malformed";
  return refuse_malformed(code, malformed, [&] {
    require(document.is_object() && is_text(document.at("kind"), record_kind), code, malformed);
    require(is_integer(document.at("schema_version"), 1), "unsupported_schema",
            "The repository's record was written by another version of this program");
    PublisherRecord record;
    for (const auto& [role, days] : document.at("days").items()) {
      require(record.days.contains(role) && days.is_number_unsigned() && days > 0u && days <= 36'500u, code, malformed);
      record.days[role] = days.get<std::uint64_t>();
    }
    for (const auto& [id, name] : document.at("key_names").items()) {
      record.key_names[id] = name.get<std::string>();
    }
    // The first versions of this program did not write these.
    const Json roots = document.value("roots", Json::object());
    const Json given_up = document.value("given_up_snapshots", Json::array());
    require(roots.is_object() && given_up.is_array(), code, malformed);
    for (const auto& [digits, sha256] : roots.items()) {
      const std::optional<std::uint64_t> version = version_of(digits);
      require(version && is_sha256(sha256.get<std::string>()), code, malformed);
      record.roots[*version] = sha256.get<std::string>();
    }
    for (const Json& version : given_up) {
      require(version.is_number_unsigned(), code, malformed);
      record.given_up_snapshots.insert(version.get<std::uint64_t>());
    }
    return record;
  });
}

Handle take_lock(const std::filesystem::path& folder) {
  const Result<Handle> parent = os::open(folder, os::OpenAs::linked_directory);
  require(parent.has_value(), "lock_failed", "Cannot open the folder " + path_utf8(folder));
  constexpr const char* name = ".lock";
  Result<Handle> file = os::open_at(parent->get(), name, os::OpenAs::file_to_change);
  if (file.problem() == Cause::missing) {
    file = os::create_at(parent->get(), name, os::CreateAs::file_to_change, permissions::private_file);
    if (file.problem() == Cause::exists) {
      file = os::open_at(parent->get(), name, os::OpenAs::file_to_change);
    }
  }
  require(file.has_value(), "lock_failed", "Cannot open the repository's lock: " + path_utf8(folder / name));
  const Problem problem = os::lock(file->get(), true, false);
  require(!(problem == Cause::busy), "busy", "Another run is changing this repository: " + path_utf8(folder));
  require(!problem, "lock_failed", "Cannot take the repository's lock: " + path_utf8(folder / name));
  return *std::move(file);
}

// Returns the version that begins the name of a role's document, or none.
std::optional<std::uint64_t> version_in(std::string_view name, const std::string& role) {
  const std::string ending = "." + role + ".json";
  return name.ends_with(ending) ? version_of(name.substr(0, name.size() - ending.size())) : std::nullopt;
}

// Reads the documents that a folder publishes, one after the other.
class StateReader {
 public:
  explicit StateReader(const RepositoryFolder& folder) : folder_(folder) {}

  RepositoryState read() {
    read_roots();
    read_timestamp();
    if (state_.is_published()) {
      read_child("snapshot", "timestamp", "snapshot.json");
      read_child("targets", "snapshot", "targets.json");
    }
    return std::move(state_);
  }

 private:
  // The oldest root that the record knows is the one that the folder was made with.
  void read_roots() {
    for (const char* const role : repository_roles) {
      state_.documents[role] = {};
    }
    const std::vector<std::uint64_t> versions = folder_.root_versions();
    std::string file = role_file("root", versions.front());
    std::string text = folder_.read_document(file);
    TrustedSet trusted = about(folder_.metadata() / file, [&] { return TrustedSet(text); });
    take_root(versions.front(), text, trusted);
    for (std::size_t next = 1; next < versions.size() && versions[next] == versions[next - 1] + 1; ++next) {
      file = role_file("root", versions[next]);
      text = folder_.read_document(file);
      about(folder_.metadata() / file, [&] { trusted.trust_root(trusted.verified_next_root(text, tuf_root_limit)); });
      take_root(versions[next], text, trusted);
    }
    const std::uint64_t version = state_.roots.rbegin()->first;
    state_.documents["root"] = {
        role_file("root", version), state_.roots.rbegin()->second, trusted.root(), version, "", ""};
  }

  void take_root(std::uint64_t version, const std::string& text, const TrustedSet& trusted) {
    state_.roots[version] = text;
    roots_.push_back(trusted.root().at("signed"));
  }

  void read_timestamp() {
    if (is_missing(folder_.metadata() / role_file("timestamp", 0))) {
      return;
    }
    RoleDocument& found = read_shaped("timestamp", role_file("timestamp", 0), repository_timestamp_limit);
    judge(found, [&](const Json& root) {
      verify_threshold(found.document, root.at("keys"), root.at("roles").at("timestamp"));
    });
  }

  void read_child(const std::string& role, const std::string& parent, const char* name) {
    const Json& meta = state_.documents.at(parent).document.at("signed").at("meta").at(name);
    const std::uint64_t version = positive_version(meta.at("version"));
    RoleDocument& found = read_shaped(role, role_file(role, version), repository_metadata_limit);
    judge(found, [&](const Json& root) {
      verified_role(found.text, {meta, root.at("keys"), root.at("roles").at(role)}, role, repository_metadata_limit,
                    TufTime::min());
    });
  }

  RoleDocument& read_shaped(const std::string& role, const std::string& file, std::uint64_t limit) {
    RoleDocument& found = state_.documents[role];
    found.file = file;
    found.text = folder_.read_document(file);
    about(folder_.metadata() / file, [&] {
      found.document = parse_json(found.text, limit);
      shape(found.document, role);
    });
    found.version = positive_version(found.document.at("signed").at("version"));
    return found;
  }

  // Verifies a document by the root in force. One that this root refuses may still be what a former one has authorized.
  template <typename Work>
  void judge(RoleDocument& found, Work verify) const {
    try {
      verify(roots_.back());
    } catch (const Error& error) {
      found.code = error.code;
      found.message = error.what();
      found.is_authentic = std::any_of(roots_.begin(), roots_.end(), [&](const Json& root) {
        try {
          verify(root);
          return true;
        } catch (const Error&) {
          return false;
        }
      });
    }
  }

  const RepositoryFolder& folder_;
  std::vector<Json> roots_;  // the "signed" parts of those that clients walk; the last one is in force
  RepositoryState state_;
};

}  // namespace

std::uint64_t repository_document_limit(std::string_view role) {
  return role == "root" ? tuf_root_limit : role == "timestamp" ? repository_timestamp_limit : repository_metadata_limit;
}

std::string PublisherRecord::key_name(const std::string& id) const {
  const auto found = key_names.find(id);
  return found != key_names.end() ? found->second : "key " + id.substr(0, shown_id_characters);
}

TufTime RoleDocument::expires() const { return parse_tuf_time(text_at(document.at("signed"), "expires")); }

Json RepositoryState::targets() const {
  const RoleDocument& targets = role("targets");
  return targets.exists() ? targets.document.at("signed").at("targets") : Json::object();
}

std::string role_file(const std::string& role, std::uint64_t version) {
  return role == "timestamp" ? "timestamp.json" : std::to_string(version) + "." + role + ".json";
}

std::filesystem::path target_file(const std::string& path, const std::string& sha256) {
  const std::size_t slash = path.rfind('/');
  const std::size_t name = slash == std::string::npos ? 0 : slash + 1;
  return path_from_utf8(path.substr(0, name) + sha256 + "." + path.substr(name));
}

void RepositoryFolder::require_first_document(const std::string& root_text) {
  require_first_root(root_text);
  const TrustedSet trusted(root_text);
  require(is_integer(trusted.root().at("signed").at("version"), 1), "invalid_version",
          "A repository begins with a root document of version 1");
  require(trusted.has_consistent_snapshot(), "invalid_root",
          "The root document does not ask for consistent snapshots, which this repository has");
}

void RepositoryFolder::create(const std::filesystem::path& folder, const std::string& root_text,
                              const PublisherRecord& record) {
  const std::filesystem::path output = output_path(folder);
  require_absent(output);
  require_first_document(root_text);
  NewFolder made(output);
  const std::filesystem::path metadata = made.path() / "public/tuf/metadata";
  make_folders(metadata);
  make_folders(made.path() / "public/tuf/targets");
  write_new_file(metadata / role_file("root", 1), root_text);
  PublisherRecord first = record;
  first.roots = {{1, digest(root_text, "sha256")}};
  write_new_file(record_of(made.path()), record_text(first));
  // On a volume without locks nobody could change the repository, nor remove it under its lock.
  static_cast<void>(take_lock(made.path()));
  made.commit();
}

RepositoryFolder::RepositoryFolder(const std::filesystem::path& folder, Use use) : folder_(output_path(folder)) {
  require(!is_missing(record_file()), "no_repository",
          "This is no repository's folder; 'ravok-publish repository init' makes one: " + path_utf8(folder_));
  if (use == Use::change) {
    lock_ = take_lock(folder_);
    for (const std::filesystem::path& own : {metadata(), targets(), draft() / "targets"}) {
      require_no_links(folder_, own);
    }
    sweep_workshop(folder_);
  }
  record_ = about(record_file(),
                  [&] { return parse_record(parse_json(read_file(record_file(), record_limit), record_limit)); });
}

void RepositoryFolder::write_record(PublisherRecord record) {
  replace_file(folder_, record_file(), record_text(record));
  record_ = std::move(record);
}

void RepositoryFolder::remember_roots(const RepositoryState& state) {
  PublisherRecord record = record_;
  for (const auto& [version, text] : state.roots) {
    record.roots.try_emplace(version, digest(text, "sha256"));
  }
  if (record.roots != record_.roots) {
    write_record(std::move(record));
  }
}

RepositoryState RepositoryFolder::state() const { return StateReader(*this).read(); }

std::uint64_t RepositoryFolder::next_version(const std::string& role, const RepositoryState& state) const {
  std::uint64_t highest = state.role(role).version;
  // A root follows the one before it, and a timestamp has one name for all versions.
  if (role == "targets" || role == "snapshot") {
    for (const std::uint64_t version : versions(role)) {
      highest = std::max(highest, version);
    }
  }
  require(highest < UINT64_MAX, "invalid_version", "No number is left for the next version of the role " + role);
  return highest + 1;
}

std::vector<std::uint64_t> RepositoryFolder::versions(const std::string& role) const {
  std::vector<std::uint64_t> found;
  for (const std::string& name : names_in(metadata(), most_documents)) {
    if (const auto version = version_in(name, role)) {
      found.push_back(*version);
    }
  }
  std::sort(found.begin(), found.end());
  return found;
}

// Whoever can write to what is served could put roots of their own there, or take the newest ones away.
std::vector<std::uint64_t> RepositoryFolder::root_versions() const {
  for (const auto& [version, sha256] : record_.roots) {
    const std::string file = role_file("root", version);
    require(digest(read_document(file), "sha256") == sha256, "unsigned_role",
            "The root document " + file + " is none that this repository had; fetch it from your site into " +
                path_utf8(metadata()));
  }
  std::vector<std::uint64_t> found = versions("root");
  if (!record_.roots.empty()) {
    found.erase(found.begin(), std::lower_bound(found.begin(), found.end(), record_.roots.begin()->first));
  }
  require(!found.empty(), "missing_file", "The repository has no root document: " + path_utf8(metadata()));
  return found;
}

std::string RepositoryFolder::read_document(const std::string& file) const {
  const std::filesystem::path path = metadata() / file;
  require(!is_missing(path), "missing_file", "The repository lacks a document: " + path_utf8(path));
  return read_file(path, repository_metadata_limit);
}

void RepositoryFolder::publish_document(const std::string& file, const std::string& text) const {
  const std::filesystem::path path = metadata() / file;
  if (file != role_file("timestamp", 0) && !is_missing(path)) {
    require(read_file(path, repository_metadata_limit) == text, "version_taken",
            "Another document has this name already, and 'ravok-publish repository discard' gives up what was to have "
            "it: " +
                path_utf8(path));
    // It may be there without being durable yet.
    sync_directory(metadata());
    return;
  }
  replace_file(folder_, path, text);
}

void require_authentic(const RepositoryFolder& folder, const RepositoryState& state) {
  for (const char* const role : {"timestamp", "snapshot", "targets"}) {
    const RoleDocument& document = state.role(role);
    require(document.is_authentic, "unsigned_role",
            std::string("The document of the role ") + role +
                " is none that the keys of this repository have signed: " + document.message + "; fetch " +
                document.file + " from your site into " + path_utf8(folder.metadata()));
  }
}

void require_timestamp(const RepositoryFolder& folder, const RepositoryState& state) {
  require(state.is_published() || folder.versions("snapshot").empty(), "missing_file",
          "timestamp.json is gone; fetch the newest one from your site into " + path_utf8(folder.metadata()));
}

void require_sound(const RepositoryState& state, TufTime now) {
  const RoleDocument& root = state.role("root");
  require(root.expires() > now, "expired_role",
          "The root document has expired on " + tuf_day_text(root.expires()) +
              "; give the repository a new one with 'ravok-publish repository rotate'");
  for (const char* const role : {"targets", "snapshot", "timestamp"}) {
    const RoleDocument& document = state.role(role);
    if (!document.exists()) {
      continue;
    }
    require(document.is_accepted(), "unsigned_role",
            std::string("Clients would refuse the document of the role ") + role + ": " + document.message +
                "; sign it anew with 'ravok-publish repository refresh'");
    require(document.expires() > now, "expired_role",
            std::string("The role ") + role + " has expired on " + tuf_day_text(document.expires()) +
                "; sign it anew with 'ravok-publish repository refresh'");
  }
}

}  // namespace ravok
