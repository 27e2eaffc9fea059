#include "publisher/repository/repository_walk.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <utility>

#include "domain/error.hpp"
#include "domain/repository_layout.hpp"
#include "tuf/metadata_shape.hpp"
#include "tuf/target_search.hpp"
#include "tuf/trusted_set.hpp"

namespace ravok {
namespace {

constexpr long status_found = 200;
constexpr const char* targets_role = "targets";

// No document has expired at this time.
constexpr TufTime before_all = TufTime::min();

std::string metadata_file(const std::string& name) { return std::string(repository_metadata_folder) + "/" + name; }

const Json& body_of(const Json& document) { return document.at("signed"); }

WalkedRole role_of(const std::string& name, const std::string& file, const Json& document, std::uint64_t length) {
  const Json& body = body_of(document);
  return {name, file, positive_version(body.at("version")), length, parse_tuf_time(text_at(body, "expires"))};
}

// The roles below the top-level one, and which of them a client believes about a target.
class Delegations {
 public:
  explicit Delegations(std::uint64_t limit) : limit_(limit) {}

  // Adds a document that was verified. The first one of a role stays.
  const Json& add(const std::string& role, Json body) { return bodies_.emplace(role, std::move(body)).first->second; }

  // Tells that the role is not what its delegator describes.
  void refuse(const Json& delegation) { refused_.insert(&delegation); }

  // Returns the role whose description of the target a client believes; nothing where it finds none. Fails with
  // "delegation_limit" as the client's search does, and with "missing_role" where a role on the way was refused.
  std::optional<std::string> describer_of(const std::string& path) const {
    TargetPath searched(path);
    std::set<std::string> visited;
    bool terminated = false;
    return search(targets_role, searched, visited, terminated);
  }

 private:
  void require_room(const std::set<std::string>& visited) const {
    require(visited.size() < limit_, "delegation_limit", "Repository delegation limit reached");
  }

  // As deep as the limit at most.
  std::optional<std::string> search(const std::string& role, TargetPath& path, std::set<std::string>& visited,
                                    bool& terminated) const {
    if (visited.contains(role)) {
      return std::nullopt;
    }
    require_room(visited);
    visited.insert(role);
    const Json& body = bodies_.at(role);
    if (body.at("targets").contains(path.text())) {
      return role;
    }
    if (!body.contains("delegations")) {
      return std::nullopt;
    }
    for (const Json& delegation : body.at("delegations").at("roles")) {
      if (!delegation_covers(delegation, path)) {
        continue;
      }
      const std::string& name = text_at(delegation, "name");
      if (!visited.contains(name)) {
        require_room(visited);
      }
      require(!refused_.contains(&delegation), "missing_role", "A role on the way is refused");
      std::optional<std::string> found = search(name, path, visited, terminated);
      if (found || terminated) {
        return found;
      }
      if (delegation.at("terminating").get<bool>()) {
        terminated = true;
        return std::nullopt;
      }
    }
    return std::nullopt;
  }

  const std::uint64_t limit_;
  std::map<std::string, Json> bodies_;  // of roles by their names; nothing moves one
  std::set<const Json*> refused_;
};

class Walk {
 public:
  Walk(Transport& metadata, const TufLimits& limits, const std::function<void()>& checkpoint)
      : metadata_(metadata), limits_(limits), checkpoint_(checkpoint), delegations_(limits.delegations) {}

  RepositoryWalk run(std::string_view root_text) {
    walk_.complete = begin(root_text) && follow_roots() && read_timestamp() && read_snapshot() && read_targets();
    if (walk_.complete) {
      read_delegated();
      find_targets();
    }
    return std::move(walk_);
  }

 private:
  // Does what may go wrong with a document. Returns whether it did not.
  template <typename Work>
  bool attempt(const std::string& role, const std::string& file, Work work) {
    try {
      work();
      return true;
    } catch (const Error& error) {
      if (is_local_failure(error.code)) {
        throw;
      }
      walk_.problems.push_back({error.code, error.what(), role, file.empty() ? "" : metadata_file(file)});
      return false;
    }
  }

  std::string answered(const TransportResponse& answer) const {
    require(answer.status != 404, "http_status", "The file is missing");
    require(answer.status == status_found, "http_status",
            "The server answers with status " + std::to_string(answer.status));
    return answer.body;
  }

  bool begin(std::string_view root_text) {
    return attempt("root", "", [&] {
      require(root_text.size() <= limits_.root_bytes, "size_limit", "File exceeds read limit");
      trusted_.emplace(root_text);
      root_length_ = root_text.size();
      walk_.first_root = positive_version(body_of(trusted_->root()).at("version"));
    });
  }

  bool follow_roots() {
    bool is_last = false;
    for (std::uint64_t walked = 0; walked < limits_.root_rotations && !is_last; ++walked) {
      const std::string file = std::to_string(walk_.first_root + walked + 1) + ".root.json";
      const bool well = attempt("root", file, [&] {
        checkpoint_();
        trusted_->next_root_version();
        const TransportResponse answer = metadata_.get(file, limits_.root_bytes);
        // With both a server says that there is no such file.
        if (answer.status == 403 || answer.status == 404) {
          is_last = true;
          return;
        }
        const std::string text = answered(answer);
        trusted_->trust_root(trusted_->verified_next_root(text, limits_.root_bytes));
        root_length_ = text.size();
      });
      if (!well) {
        return false;
      }
    }
    const Json& root = trusted_->root();
    walk_.newest_root = positive_version(body_of(root).at("version"));
    walk_.consistent_snapshot = trusted_->has_consistent_snapshot();
    for (std::uint64_t version = walk_.first_root; version <= walk_.newest_root; ++version) {
      walk_.files.insert(std::to_string(version) + ".root.json");
    }
    walk_.roles.push_back(role_of("root", std::to_string(walk_.newest_root) + ".root.json", root, root_length_));
    return true;
  }

  bool read_timestamp() {
    const std::string file = "timestamp.json";
    return attempt("timestamp", file, [&] {
      checkpoint_();
      const std::string text = answered(metadata_.get(file, limits_.timestamp_bytes));
      trusted_->trust_timestamp(trusted_->verified_timestamp(text, limits_.timestamp_bytes));
      keep("timestamp", file, trusted_->timestamp(), text.size());
    });
  }

  bool read_snapshot() {
    return read_role("snapshot", trusted_->snapshot_reference(), "snapshot",
                     [&](Json document) { trusted_->trust_snapshot(std::move(document)); });
  }

  bool read_targets() {
    return read_role(targets_role, trusted_->targets_reference(), targets_role, [&](Json document) {
      trusted_->trust_targets(std::move(document));
      open(targets_role, body_of(trusted_->targets()));
    });
  }

  // Reads the document that its parent describes, and hands it on.
  template <typename Trust>
  bool read_role(const std::string& role, const RoleReference& parent, std::string_view kind, Trust trust) {
    const std::string prefix =
        walk_.consistent_snapshot ? std::to_string(positive_version(parent.meta.at("version"))) + "." : "";
    const std::string file = prefix + role + ".json";
    return attempt(role, file, [&] {
      checkpoint_();
      const std::uint64_t limit = parent.meta.contains("length") ? std::min(length(parent.meta), limits_.metadata_bytes)
                                                                 : limits_.metadata_bytes;
      const std::string text = answered(metadata_.get_component(file, limit));
      Json document = verified_role(text, parent, kind, limits_.metadata_bytes, before_all);
      keep(role, file, document, text.size());
      trust(std::move(document));
    });
  }

  void keep(const std::string& role, const std::string& file, const Json& document, std::uint64_t length) {
    if (walk_.files.insert(file).second) {
      walk_.roles.push_back(role_of(role, file, document, length));
    }
  }

  // Notes what a role describes and to whom it delegates, the first time that it is read.
  void open(const std::string& role, const Json& verified) {
    if (!opened_.insert(role).second) {
      return;
    }
    const Json& body = delegations_.add(role, verified);
    for (const auto& [path, description] : body.at("targets").items()) {
      walk_.targets.push_back({path, role, description});
    }
    if (body.contains("delegations")) {
      const Json& delegations = body.at("delegations");
      for (const Json& delegation : delegations.at("roles")) {
        pending_.emplace_back(&delegation, &delegations.at("keys"));
      }
    }
  }

  void read_delegated() {
    const Json& known = body_of(trusted_->snapshot()).at("meta");
    while (!pending_.empty()) {
      const auto [delegation, keys] = pending_.front();
      pending_.pop_front();
      const std::string& name = text_at(*delegation, "name");
      const auto meta = known.find(name + ".json");
      const bool is_known = attempt(name, "", [&] {
        require(meta != known.end(), "missing_role", "Delegated role is absent from the authenticated snapshot");
      });
      if (!is_known || !read_role(name, {*meta, *keys, *delegation}, targets_role,
                                  [&](Json document) { open(name, body_of(document)); })) {
        delegations_.refuse(*delegation);
        walk_.complete = false;
      }
    }
    for (const auto& [file, meta] : known.items()) {
      const std::string name = file.substr(0, file.rfind(".json"));
      if (!opened_.contains(name) && walk_.complete) {
        walk_.notices.push_back({"unused_role", "No delegation leads to this role", name, ""});
      }
    }
  }

  void find_targets() {
    for (WalkedTarget& target : walk_.targets) {
      if (target.role == targets_role) {
        continue;
      }
      try {
        const std::optional<std::string> describer = delegations_.describer_of(target.path);
        if (describer != target.role) {
          target.is_found = false;
          walk_.notices.push_back({"unreachable_target",
                                   "Clients never find " + target.path + " in the role " + target.role + ": " +
                                       (describer ? "the role " + *describer + " describes it before"
                                                  : std::string("no delegation leads there")),
                                   target.role, ""});
        }
      } catch (const Error& error) {
        // A role that was refused is a problem already.
        if (error.code != "missing_role") {
          walk_.problems.push_back({error.code, target.path + ": " + error.what(), target.role, ""});
        }
      }
    }
  }

  Transport& metadata_;
  const TufLimits& limits_;
  const std::function<void()>& checkpoint_;
  RepositoryWalk walk_;
  std::optional<TrustedSet> trusted_;
  std::uint64_t root_length_ = 0;
  Delegations delegations_;
  std::set<std::string> opened_;
  std::deque<std::pair<const Json*, const Json*>> pending_;  // delegations, and the keys of who delegates
};

}  // namespace

bool is_local_failure(const std::string& code) {
  constexpr std::array<std::string_view, 13> codes = {
      "cancelled",          "ca_bundle",    "transport",         "crypto_failure", "too_many_files",
      "insufficient_space", "file_write",   "file_sync",         "permissions",    "lock_failed",
      "space_reservation",  "volume_query", "allocation_changed"};
  return std::ranges::find(codes, code) != codes.end();
}

RepositoryWalk walk_repository(std::string_view root_text, Transport& metadata, const TufLimits& limits,
                               const std::function<void()>& checkpoint) {
  return Walk(metadata, limits, checkpoint).run(root_text);
}

}  // namespace ravok
