#include "tuf/target_search.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "tuf/metadata_shape.hpp"
#include "tuf/target_pattern.hpp"
#include "tuf/tuf.hpp"

namespace ravok {
namespace {

constexpr const char* first_role = "targets";

bool is_any_pattern_of(const Json& patterns, std::string_view path) {
  return std::any_of(patterns.begin(), patterns.end(), [&](const Json& pattern) {
    return path_pattern_matches(pattern.get_ref<const std::string&>(), path);
  });
}

bool begins_any(const Json& prefixes, std::string_view digest_text) {
  return std::any_of(prefixes.begin(), prefixes.end(), [&](const Json& value) {
    const std::string& prefix = value.get_ref<const std::string&>();
    require(!prefix.empty() && prefix.size() <= sha256_characters && is_lower_hex(prefix), "invalid_metadata",
            "Invalid delegation hash prefix");
    return digest_text.starts_with(prefix);
  });
}

// The search for one target. The roles whose delegations it is going through are kept in a list and not on the stack,
// since a repository may let each delegate to another as often as the limit allows.
class TargetSearch {
 public:
  TargetSearch(TufClient& client, std::uint64_t limit, TargetPath path, std::set<std::string>& visited,
               bool& terminated)
      : client_(client), limit_(limit), path_(std::move(path)), visited_(visited), terminated_(terminated) {}

  std::optional<Json> find(const std::string& role, const Json& document) {
    std::optional<Json> found = enter(role, document.at("signed"));
    while (!found && !open_.empty()) {
      if (const Json* delegation = next_covering(open_.back())) {
        found = follow(*delegation, open_.back().delegations->at("keys"));
        continue;
      }
      open_.pop_back();
      if (!open_.empty() && ends_after(*open_.back().followed)) {
        break;
      }
    }
    return found;
  }

 private:
  struct OpenRole {
    Json own = nullptr;                 // the delegations, where nobody else keeps them
    const Json* delegations = nullptr;  // null for a role of which none are gone through
    std::size_t next = 0;
    const Json* followed = nullptr;  // the delegation that was followed last
  };

  void require_room() const {
    require(visited_.size() < limit_, "delegation_limit", "Repository delegation limit reached");
  }

  // Returns what the role itself says of the target. Where it says nothing, its delegations are gone through next.
  std::optional<Json> enter(const std::string& role, const Json& body) {
    open_.emplace_back();
    if (visited_.contains(role)) {
      return std::nullopt;
    }
    require_room();
    visited_.insert(role);
    const Json& targets = body.at("targets");
    if (const auto own = targets.find(path_.text()); own != targets.end()) {
      return *own;
    }
    if (body.contains("delegations")) {
      open_.back().delegations = &body.at("delegations");
    }
    return std::nullopt;
  }

  const Json* next_covering(OpenRole& role) {
    if (role.delegations == nullptr) {
      return nullptr;
    }
    const Json& delegations = role.delegations->at("roles");
    while (role.next < delegations.size()) {
      const Json& delegation = delegations[role.next++];
      if (delegation_covers(delegation, path_)) {
        role.followed = &delegation;
        return role.followed;
      }
    }
    return nullptr;
  }

  std::optional<Json> follow(const Json& delegation, const Json& keys) {
    const std::string& name = text_at(delegation, "name");
    if (!visited_.contains(name)) {
      require_room();
    }
    const Json& known = client_.trusted().snapshot().at("signed").at("meta");
    const auto meta = known.find(name + ".json");
    require(meta != known.end(), "missing_role", "Delegated role is absent from the authenticated snapshot");
    Json document = client_.load_role(name, *meta, keys, delegation, first_role);
    std::optional<Json> found = enter(name, document.at("signed"));
    if (open_.back().delegations != nullptr) {
      // No more of a document is kept than is still gone through, however many roles are open.
      open_.back().own = std::move(document.at("signed").at("delegations"));
      open_.back().delegations = &open_.back().own;
    }
    return found;
  }

  // Whether nothing more is looked at once this delegation has led to nothing.
  bool ends_after(const Json& delegation) {
    terminated_ = terminated_ || delegation.at("terminating").get<bool>();
    return terminated_;
  }

  TufClient& client_;
  const std::uint64_t limit_;
  TargetPath path_;
  std::set<std::string>& visited_;
  bool& terminated_;
  std::deque<OpenRole> open_;
};

}  // namespace

const std::string& TargetPath::digest_text() {
  if (digest_text_.empty()) {
    digest_text_ = digest(text_, "sha256");
  }
  return digest_text_;
}

bool delegation_covers(const Json& delegation, TargetPath& path) {
  if (delegation.contains("paths")) {
    return is_any_pattern_of(delegation.at("paths"), path.text());
  }
  return begins_any(delegation.at("path_hash_prefixes"), path.digest_text());
}

void require_checkable(const Json& target) {
  length(target);
  require(target.contains("hashes") && target.at("hashes").is_object() && !target.at("hashes").empty(),
          "invalid_hashes", "Target has no authenticated hashes");
}

Json TufClient::target(std::string_view path) {
  validate_relative_path(path, false);
  // The caller may have taken the path from a trusted document, which ends with the refresh.
  const std::string searched(path);
  if (!refreshed_) {
    refresh();
  }
  if (!selected_) {
    load_selected_metadata();
  }
  std::set<std::string> visited;
  bool terminated = false;
  std::optional<Json> found = visit(searched, first_role, trusted_.targets(), visited, terminated);
  require(found.has_value(), "target_not_found", "Target is not authorized by the repository: " + searched);
  require_checkable(*found);
  return *std::move(found);
}

std::optional<Json> TufClient::visit(const std::string& path, const std::string& role, const Json& document,
                                     std::set<std::string>& visited, bool& terminated) {
  return TargetSearch(*this, limits_.delegations, TargetPath(path), visited, terminated).find(role, document);
}

}  // namespace ravok
