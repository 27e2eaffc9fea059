#include "publisher/repository/key_rotation.hpp"

#include <algorithm>
#include <map>
#include <utility>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "publisher/publish_files.hpp"
#include "publisher/repository/key_advice.hpp"
#include "publisher/repository/repository_time.hpp"
#include "publisher/signing/publish_key.hpp"
#include "publisher/signing/signing_key.hpp"

namespace ravok {
namespace {

constexpr const char* rotate_action = "rotate";
constexpr const char* one_step =
    "Clients that meet the new root before the new timestamp wait for it. To avoid that, add the new key first, "
    "refresh with --force and both, and remove the old one then";
constexpr const char* raised_threshold =
    "Clients that meet the new root before the new timestamp wait for it. To avoid that, refresh with --force and as "
    "many keys as are to sign first, and raise the threshold then";
constexpr const char* joined_threshold =
    "Clients that meet the new root before the new timestamp wait for it. To avoid that, add the new keys first, "
    "refresh with --force and as many keys as are to sign, and raise the threshold then";

// A key that joins roles.
struct NewKey {
  Json key;
  std::string id;
  std::filesystem::path file;
};

std::vector<NewKey> read_keys(const std::vector<std::filesystem::path>& files) {
  std::vector<NewKey> keys;
  for (const std::filesystem::path& file : files) {
    const Json key = read_public_key(file);
    about(file, [&] { require_verifiable(key); });
    keys.push_back({key, key_id(key), file});
  }
  return keys;
}

std::string listed(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) {
    all += (all.empty() ? "" : ", ") + text;
  }
  return all;
}

std::string counted_keys(std::size_t count) { return std::to_string(count) + (count == 1 ? " key" : " keys"); }

// The next root while it is made out of the present one.
class NextRootBody {
 public:
  NextRootBody(Json present, const PublisherRecord& record) : body_(std::move(present)), record_(record) {}

  void add(const std::string& role, const NewKey& key) {
    Json& ids = ids_of(role);
    require(std::find(ids.begin(), ids.end(), Json(key.id)) == ids.end(), "known_key",
            "The role " + role + " has the key of this file already: " + path_utf8(key.file));
    body_["keys"][key.id] = key.key;
    ids.push_back(key.id);
  }

  void remove(const std::string& role, const std::string& wanted) {
    Json& ids = ids_of(role);
    std::vector<std::string> found;
    for (const Json& id : ids) {
      const auto text = id.get<std::string>();
      if (text == wanted || record_.key_name(text) == wanted) {
        found.push_back(text);
      }
    }
    require(!found.empty(), "unknown_key",
            "The role " + role + " has no key " + wanted + "; it has " + listed(names_of(role)));
    require(found.size() == 1, "ambiguous_key",
            "Several keys of the role " + role + " have the name " + wanted +
                "; give the identifier of one: " + listed(found));
    ids.erase(std::find(ids.begin(), ids.end(), Json(found.front())));
  }

  void set_threshold(const std::string& role, std::uint64_t threshold) {
    body_["roles"][role]["threshold"] = threshold;
  }

  void set_expires(const std::string& expires) { body_["expires"] = expires; }

  // Refuses a role whose keys cannot sign for it.
  void require_usable(const std::string& role) const {
    const Json& authority = body_.at("roles").at(role);
    const std::size_t count = authority.at("keyids").size();
    const std::uint64_t threshold = positive_version(authority.at("threshold"));
    require(count > 0, "invalid_key", "The role " + role + " would have no key left; give it another with --add");
    require(threshold <= count, "invalid_threshold",
            "The role " + role + " would have " + counted_keys(count) + ", which cannot meet its threshold of " +
                std::to_string(threshold) + "; keep or add keys, or give another with --threshold");
  }

  // Returns the body with no other keys than those that a role names.
  Json finish() const {
    Json body = body_;
    Json keys = Json::object();
    for (const Json& authority : body.at("roles")) {
      for (const Json& id : authority.at("keyids")) {
        const auto text = id.get<std::string>();
        keys[text] = body.at("keys").at(text);
      }
    }
    body["keys"] = std::move(keys);
    return body;
  }

 private:
  Json& ids_of(const std::string& role) { return body_["roles"][role]["keyids"]; }

  std::vector<std::string> names_of(const std::string& role) const {
    std::vector<std::string> names;
    for (const Json& id : body_.at("roles").at(role).at("keyids")) {
      names.push_back(record_.key_name(id.get<std::string>()));
    }
    return names;
  }

  Json body_;
  const PublisherRecord& record_;
};

// Keys leave before others join, so that the name of one that is replaced may be that of the new one too.
Json next_root(const KeyRotation& rotation, const std::vector<NewKey>& keys, const Json& present,
               const PublisherRecord& record, TufTime now) {
  NextRootBody body(present, record);
  for (const std::string& role : rotation.roles) {
    for (const std::string& wanted : rotation.remove) {
      body.remove(role, wanted);
    }
    for (const NewKey& key : keys) {
      body.add(role, key);
    }
    if (rotation.threshold) {
      body.set_threshold(role, *rotation.threshold);
    }
    body.require_usable(role);
  }
  if (rotation.expires) {
    body.set_expires(*rotation.expires);
  } else {
    const TufTime end = parse_tuf_time(text_at(present, "expires"));
    require(end > now, "expired_metadata",
            "The root document has expired on " + tuf_day_text(end) + "; say with --expires when the next one does");
  }
  return body.finish();
}

// Whether two roots differ in nothing but their version.
bool is_same_root(Json one, const Json& other) {
  if (!one.is_object() || !other.is_object()) {
    return false;
  }
  one["version"] = other.at("version");
  return one == other;
}

// Whether a root is what a rotation asks for already.
bool is_in_force(const KeyRotation& rotation, const std::vector<NewKey>& keys, const Json& root,
                 const PublisherRecord& record) {
  const auto is_new = [&](const std::string& id) {
    return std::any_of(keys.begin(), keys.end(), [&](const NewKey& key) { return key.id == id; });
  };
  const auto is_to_leave = [&](const std::string& id) {
    return !is_new(id) && std::any_of(rotation.remove.begin(), rotation.remove.end(), [&](const std::string& wanted) {
      return id == wanted || record.key_name(id) == wanted;
    });
  };
  const auto is_done = [&](const std::string& role) {
    const Json& authority = root.at("roles").at(role);
    const auto ids = authority.at("keyids").get<std::set<std::string>>();
    return std::all_of(keys.begin(), keys.end(), [&](const NewKey& key) { return ids.contains(key.id); }) &&
           std::none_of(ids.begin(), ids.end(), is_to_leave) &&
           (!rotation.threshold || authority.at("threshold") == *rotation.threshold);
  };
  return std::all_of(rotation.roles.begin(), rotation.roles.end(), is_done) &&
         (!rotation.expires || root.at("expires") == *rotation.expires);
}

// Remembers what people call the keys that join, so that what waits for their signatures names them.
void name_keys(RepositoryFolder& folder, const std::vector<NewKey>& keys) {
  PublisherRecord record = folder.record();
  for (const NewKey& key : keys) {
    record.key_names.try_emplace(key.id, key_name(key.file));
  }
  if (record.key_names != folder.record().key_names) {
    folder.write_record(std::move(record));
  }
}

// Warns of keys that leave a role and stay in another: whoever has found one can still use it there.
std::vector<std::string> rotation_warnings(const KeyRotation& rotation, const Json& present, const Json& next,
                                           const PublisherRecord& record) {
  std::vector<std::string> warnings = key_warnings(next);
  for (const auto& [id, key] : next.at("keys").items()) {
    std::vector<std::string> left;
    std::vector<std::string> kept;
    for (const auto& [role, authority] : next.at("roles").items()) {
      const Json& ids = authority.at("keyids");
      const Json& before = present.at("roles").at(role).at("keyids");
      const bool is_there = std::find(ids.begin(), ids.end(), Json(id)) != ids.end();
      const bool was_there = std::find(before.begin(), before.end(), Json(id)) != before.end();
      if (is_there) {
        kept.push_back(role);
      } else if (was_there && rotation.roles.contains(role)) {
        left.push_back(role);
      }
    }
    if (!left.empty()) {
      warnings.push_back("The key " + record.key_name(id) + " leaves the role " + listed(left) +
                         " and still speaks for " + listed(kept));
    }
  }
  return warnings;
}

// Returns how a role would get its next keys without any client that waits.
const char* advice_for(const Json& present_ids, const Json& next_ids) {
  const bool all_stay = std::all_of(present_ids.begin(), present_ids.end(), [&](const Json& id) {
    return std::find(next_ids.begin(), next_ids.end(), id) != next_ids.end();
  });
  return !all_stay ? one_step : next_ids.size() > present_ids.size() ? joined_threshold : raised_threshold;
}

// Warns of documents that clients accept now and refuse under the next root.
void add_left_behind_warnings(const RepositoryState& state, const Json& next, const PublisherRecord& record,
                              std::vector<std::string>& warnings) {
  const auto keys = [](const Json& root, const char* role) -> const Json& {
    return root.at("roles").at(role).at("keyids");
  };
  std::set<std::string> advice;
  for (const char* role : {"targets", "snapshot", "timestamp"}) {
    const RoleDocument& document = state.role(role);
    if (document.is_accepted() && !signature_need(document.document, role, next, record).is_met()) {
      advice.insert(advice_for(keys(state.root(), role), keys(next, role)));
    }
  }
  warnings.insert(warnings.end(), advice.begin(), advice.end());
}

bool speaks_for_any(const std::string& id, const Json& root) { return !root.is_null() && root.at("keys").contains(id); }

}  // namespace

void require_rotation(const KeyRotation& rotation, TufTime now) {
  for (const std::string& role : rotation.roles) {
    require(std::find(repository_roles.begin(), repository_roles.end(), role) != repository_roles.end(), "usage",
            "There is no role " + role + "; there are root, targets, snapshot and timestamp");
  }
  require(!rotation.roles.empty() || (rotation.add.empty() && rotation.remove.empty() && !rotation.threshold), "usage",
          "--add, --remove and --threshold need a --role");
  require(rotation.roles.empty() || !rotation.add.empty() || !rotation.remove.empty() || rotation.threshold, "usage",
          "--role needs --add, --remove or --threshold");
  require(!rotation.roles.empty() || rotation.expires, "usage",
          "Say what is to change: a --role with --add, --remove or --threshold, or --expires");
  require(!rotation.threshold || *rotation.threshold >= 1, "invalid_threshold", "A threshold is at least 1");
  require(!rotation.expires || parse_tuf_time(*rotation.expires) > now, "expired_metadata",
          "The root document would have expired already");
}

RotationOutcome rotate_keys(const KeyRotation& rotation, const std::vector<Signer>& signers, TufTime now) {
  require_rotation(rotation, now);
  const std::vector<NewKey> keys = read_keys(rotation.add);
  RepositorySession session(rotation.folder, now);
  const Json present = session.state().root();
  const PublisherRecord& record = session.folder().record();
  RotationOutcome outcome;
  if (session.unchanged().finished_former && is_in_force(rotation, keys, present, record)) {
    return {session.unchanged(), present, key_warnings(present)};
  }
  outcome.root = next_root(rotation, keys, present, record, now);
  require(!is_same_root(outcome.root, present), "nothing_to_change", "The root would be the same as it is");
  outcome.warnings = rotation_warnings(rotation, present, outcome.root, record);
  add_left_behind_warnings(session.state(), outcome.root, record, outcome.warnings);

  const std::optional<RepositoryDraft>& draft = session.draft();
  const bool goes_on = draft && !draft->is_stale() && draft->action() == rotate_action &&
                       is_same_root(outcome.root, draft->wanted_root());
  if (!goes_on) {
    session.require_no_draft();
  }
  name_keys(session.folder(), keys);
  DraftChanges changes;
  changes.action = rotate_action;
  changes.root = outcome.root;
  outcome.repository = session.conclude(
      goes_on ? *draft : RepositoryDraft::begin(session.folder(), session.state(), changes, now), signers);
  return outcome;
}

RepositoryOutcome sign_draft(const std::filesystem::path& folder, const std::vector<Signer>& signers, TufTime now) {
  RepositorySession session(folder, now);
  const std::optional<RepositoryDraft>& draft = session.draft();
  if (!draft && session.unchanged().finished_former) {
    return session.unchanged();
  }
  require(draft.has_value(), "no_draft", "Nothing waits for signatures in this repository");
  for (const Signer& signer : signers) {
    require(speaks_for_any(signer.id, session.state().root()) || speaks_for_any(signer.id, draft->wanted_root()),
            "wrong_key",
            "The key " + signer.name +
                " speaks for no role of this repository; what waits is this: " + needs_text(draft->needs()));
  }
  return session.conclude(*draft, signers);
}

}  // namespace ravok
