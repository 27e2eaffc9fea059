#include "publisher/repository/repository_draft.hpp"

#include <algorithm>
#include <chrono>
#include <utility>

#include "domain/crypto.hpp"
#include "domain/paths.hpp"
#include "domain/signature.hpp"
#include "platform/file/files.hpp"
#include "platform/file/status.hpp"
#include "publisher/repository/draft_files.hpp"
#include "publisher/repository/repository_files.hpp"
#include "publisher/repository/repository_time.hpp"
#include "publisher/repository/upload_list.hpp"
#include "tuf/keys.hpp"
#include "tuf/metadata_shape.hpp"
#include "tuf/trusted_set.hpp"
#include "tuf/tuf.hpp"

namespace ravok {
namespace {

constexpr const char* spec_version = "1.0.31";
constexpr const char* invalid_draft = "invalid_draft";

// By how much the clocks of those who sign one after the other may differ.
constexpr std::chrono::hours clock_difference{24};

std::string document_text(const Json& document) { return document.dump(1) + "\n"; }

std::uint64_t version_in(const Json& document) { return positive_version(document.at("signed").at("version")); }

Json reference_to(const Json& document, const std::string& text) {
  return {{"version", version_in(document)}, {"length", text.size()}, {"hashes", {{"sha256", digest(text, "sha256")}}}};
}

}  // namespace

RepositoryDraft RepositoryDraft::begin(RepositoryFolder& folder, const RepositoryState& state,
                                       const DraftChanges& changes, TufTime now, Place place) {
  require_authentic(folder, state);
  RepositoryDraft draft(folder, state, place);
  draft.action_ = changes.action;
  draft.days_ = folder.record().days;
  for (const auto& [role, days] : changes.days) {
    draft.days_[role] = days;
  }
  if (changes.root) {
    draft.root_ = *changes.root;
    draft.root_["_type"] = "root";
    draft.root_["spec_version"] = spec_version;
    draft.root_["consistent_snapshot"] = true;
    draft.root_["version"] = folder.next_version("root", state);
  }
  if (changes.targets) {
    draft.targets_ = *changes.targets;
  }
  std::set<std::string> wanted = changes.renew;
  if (changes.targets) {
    wanted.insert("targets");
  }
  draft.choose_roles(wanted, now);
  draft.store();
  return draft;
}

std::optional<RepositoryDraft> RepositoryDraft::open(RepositoryFolder& folder, const RepositoryState& state,
                                                     TufTime now) {
  const std::optional<StoredDraft> stored = read_draft(folder);
  if (!stored) {
    return {};
  }
  require(!stored->publishing, "interrupted_publication",
          "A publication is under way or was broken off; the next command that changes the repository finishes it");
  require_authentic(folder, state);
  RepositoryDraft draft(folder, state, Place::folder);
  read_files_of_draft(folder, [&] { draft.load(stored->document, now); });
  return draft;
}

bool RepositoryDraft::makes(const std::string& role) const {
  return std::find(roles_.begin(), roles_.end(), role) != roles_.end();
}

const Json& RepositoryDraft::document(const std::string& role) const {
  static const Json no_document;
  const auto found = documents_.find(role);
  return found == documents_.end() ? no_document : found->second;
}

Json RepositoryDraft::stored() const {
  Json documents = Json::object();
  for (const auto& [role, document] : documents_) {
    documents[role] = file(role);
  }
  return {{"schema_version", 1},
          {"kind", draft_kind},
          {"action", action_},
          {"root", root_},
          {"targets", targets_},
          {"days", days_},
          {"roles", roles_},
          {"waits", waits_},
          {"documents", std::move(documents)},
          {"base", {{"root", state_.role("root").version}, {"targets", state_.role("targets").version}}}};
}

void RepositoryDraft::store() const {
  if (place_ == Place::folder) {
    make_folders(folder_->draft());
    replace_file(folder_->path(), draft_record(*folder_), stored().dump() + "\n");
  }
}

void RepositoryDraft::load(const Json& document, TufTime now) {
  is_loaded_ = true;
  action_ = text_at(document, "action");
  root_ = document.at("root");
  targets_ = document.at("targets");
  days_ = document.at("days").get<std::map<std::string, std::uint64_t>>();
  roles_ = document.at("roles").get<std::vector<std::string>>();
  waits_ = document.at("waits").get<bool>();
  const Json& base = document.at("base");
  stale_ = base.at("root") != state_.role("root").version ||
           (!targets_.is_null() && base.at("targets") != state_.role("targets").version);
  require_wanted();
  for (const std::string& role : roles_) {
    if (const Json& documents = document.at("documents"); documents.contains(role)) {
      documents_[role] = parse_json(read_role_of_draft(*folder_, role, text_at(documents, role.c_str())),
                                    repository_document_limit(role));
    }
  }
  if (!stale_) {
    // What stood when it was begun may have expired, or have been replaced by what the next root does not accept.
    choose_roles({roles_.begin(), roles_.end()}, now);
  }
  drop_overtaken(now);
  if (!stale_) {
    require_made_as_wanted(now);
  }
}

// Accepts only a record that a draft could have written.
void RepositoryDraft::require_wanted() const {
  const auto* next = repository_roles.begin();
  for (const std::string& role : roles_) {
    next = std::find(next, repository_roles.end(), role);
    require(next != repository_roles.end(), invalid_draft, "Its roles are not in their order");
    ++next;
  }
  for (const char* const role : {"targets", "snapshot", "timestamp"}) {
    require(days_.contains(role), invalid_draft, "It does not say how long its documents last");
    require_days(days_.at(role));
  }
  require(makes("root") == !root_.is_null() && (targets_.is_null() || makes("targets")), invalid_draft,
          "It asks for what none of its roles makes");
  if (!root_.is_null()) {
    shape({{"signed", root_}, {"signatures", Json::array()}}, "root");
  }
  if (!targets_.is_null()) {
    const Json body = {{"_type", "targets"},
                       {"spec_version", spec_version},
                       {"version", 1},
                       {"expires", "2000-01-01T00:00:00Z"},
                       {"targets", targets_}};
    shape({{"signed", body}, {"signatures", Json::array()}}, "targets");
  }
}

// What is signed must be what people are shown.
void RepositoryDraft::require_made_as_wanted(TufTime now) const {
  for (const auto& [role, document] : documents_) {
    Json made = document.at("signed");
    Json wanted = made_body(role, now);
    if (role != "root") {
      require(parse_tuf_time(text_at(made, "expires")) <= parse_tuf_time(text_at(wanted, "expires")) + clock_difference,
              invalid_draft, "The document of the role " + role + " would last longer than the draft asks for");
      for (Json* const body : {&made, &wanted}) {
        body->erase("version");
        body->erase("expires");
      }
    }
    require(made == wanted, invalid_draft, "The document of the role " + role + " is not what the draft asks for");
  }
}

// A document that is dropped takes with it those that refer to it.
void RepositoryDraft::drop_overtaken(TufTime now) {
  bool dropped = false;
  for (const char* const role : {"targets", "snapshot", "timestamp"}) {
    const auto found = documents_.find(role);
    if (found == documents_.end()) {
      dropped = dropped || makes(role);
      continue;
    }
    const Json& body = found->second.at("signed");
    dropped = dropped || positive_version(body.at("version")) <= state_.role(role).version || is_name_taken(role) ||
              parse_tuf_time(text_at(body, "expires")) <= now;
    if (dropped) {
      documents_.erase(found);
    }
  }
}

// Whether the folder has another document under the name of a made one.
bool RepositoryDraft::is_name_taken(const std::string& role) const {
  const std::string name = file(role);
  return role != "timestamp" && look_at_published([&] {
           return !is_missing(folder_->metadata() / name) && folder_->read_document(name) != text(role);
         });
}

// Chooses the roles that are wanted, those that clients would refuse otherwise, and all that refer to one of them.
void RepositoryDraft::choose_roles(const std::set<std::string>& wanted, TufTime now) {
  roles_.clear();
  if (!root_.is_null()) {
    roles_.push_back("root");
  }
  bool below = false;
  for (const std::string role : {"targets", "snapshot", "timestamp"}) {
    const RoleDocument& present = state_.role(role);
    const bool stands = present.is_accepted() && present.expires() > now &&
                        signature_need(present.document, role, root_in_force(), folder_->record()).is_met();
    below = below || !stands || wanted.contains(role);
    if (below) {
      roles_.push_back(role);
    }
  }
}

const Json& RepositoryDraft::root_in_force() const { return root_.is_null() ? state_.root() : root_; }

std::string RepositoryDraft::file(const std::string& role) const {
  const Json& made = document(role);
  return made.is_null() ? state_.role(role).file : role_file(role, version_in(made));
}

// The text of a document as it is published, or will be.
std::string RepositoryDraft::text(const std::string& role) const {
  const Json& made = document(role);
  return made.is_null() ? state_.role(role).text : document_text(made);
}

Json RepositoryDraft::made_body(const std::string& role, TufTime now) const {
  if (role == "root") {
    return root_;
  }
  const RoleDocument& present = state_.role(role);
  Json body = present.exists() ? present.document.at("signed") : Json::object();
  body["_type"] = role;
  body["spec_version"] = spec_version;
  body["version"] = look_at_published([&] { return folder_->next_version(role, state_); });
  body["expires"] = tuf_time_text(days_after(now, days_.at(role)));
  if (role == "targets") {
    body["targets"] = targets_.is_null() ? state_.targets() : targets_;
    return body;
  }
  const std::string below = role == "snapshot" ? "targets" : "snapshot";
  const Json& referred = makes(below) ? document(below) : state_.role(below).document;
  body["meta"][below + ".json"] = reference_to(referred, text(below));
  return body;
}

void RepositoryDraft::put(const std::string& role, const Json& document) {
  const std::string written = document_text(document);
  require(written.size() <= repository_document_limit(role), "size_limit",
          "The document of the role " + role + " would have " + std::to_string(written.size()) +
              " bytes, and clients take at most " + std::to_string(repository_document_limit(role)));
  documents_[role] = document;
  if (place_ == Place::folder) {
    replace_file(folder_->path(), folder_->draft() / file(role), written);
    store();
  }
}

std::vector<SignatureNeed> RepositoryDraft::needs_of(const std::string& role) const {
  const Json& made = document(role);
  std::vector<SignatureNeed> needs;
  if (role == "root") {
    needs.push_back(signature_need(made, role, state_.root(), folder_->record()));
    needs.back().by_former_root = true;
  }
  needs.push_back(signature_need(made, role, root_in_force(), folder_->record()));
  return needs;
}

bool RepositoryDraft::is_signed(const std::string& role) const {
  if (document(role).is_null()) {
    return false;
  }
  const std::vector<SignatureNeed> needs = needs_of(role);
  return std::all_of(needs.begin(), needs.end(), [](const SignatureNeed& need) { return need.is_met(); });
}

bool RepositoryDraft::sign_document(const std::string& role, const Signer& signer) {
  Json made = document(role);
  const auto speaks = [&](const Json& root) {
    const Json& ids = root.at("roles").at(role).at("keyids");
    return std::find(ids.begin(), ids.end(), Json(signer.id)) != ids.end();
  };
  if (!speaks(root_in_force()) && !(role == "root" && speaks(state_.root()))) {
    return false;
  }
  Json& signatures = made.at("signatures");
  const std::string payload = canonical_json(made.at("signed"));
  const auto own = std::find_if(signatures.begin(), signatures.end(),
                                [&](const Json& signature) { return text_at(signature, "keyid") == signer.id; });
  if (own != signatures.end()) {
    if (verify_signature(signer.key, payload, text_at(*own, "sig"))) {
      return false;
    }
    // What was spoiled on the way between two machines is made again.
    signatures.erase(own);
  }
  const std::string signature = signer.sign(payload);
  require(verify_signature(signer.key, payload, signature), "invalid_signature",
          "The signature of " + signer.name + " does not fit its key");
  signatures.push_back({{"keyid", signer.id}, {"sig", signature}});
  put(role, made);
  return true;
}

std::vector<MadeSignature> RepositoryDraft::sign(const std::vector<Signer>& signers, TufTime now) {
  require(!stale_, "stale_draft",
          "The repository has changed since this draft was begun; remove it with 'ravok-publish repository discard'");
  std::vector<MadeSignature> made;
  for (const std::string& role : roles_) {
    if (document(role).is_null()) {
      put(role, {{"signed", made_body(role, now)}, {"signatures", Json::array()}});
    }
    if (is_signed(role)) {
      continue;
    }
    for (const Signer& signer : signers) {
      if (sign_document(role, signer)) {
        made.push_back({role, signer.id, signer.name});
      }
    }
    if (!is_signed(role)) {
      break;
    }
  }
  return made;
}

std::vector<SignatureNeed> RepositoryDraft::needs() const {
  for (const std::string& role : roles_) {
    if (document(role).is_null()) {
      // Nobody has signed what is not made yet.
      Json unsigned_document = {{"signed", Json::object()}, {"signatures", Json::array()}};
      std::vector<SignatureNeed> needs;
      if (role == "root") {
        needs.push_back(signature_need(unsigned_document, role, state_.root(), folder_->record()));
        needs.back().by_former_root = true;
      }
      needs.push_back(signature_need(unsigned_document, role, root_in_force(), folder_->record()));
      return needs;
    }
    if (!is_signed(role)) {
      std::vector<SignatureNeed> needs = needs_of(role);
      std::erase_if(needs, [](const SignatureNeed& need) { return need.is_met(); });
      return needs;
    }
  }
  return {};
}

void RepositoryDraft::wait() {
  waits_ = true;
  store();
}

// Walks what will be published as a client does that trusts this root, and knows the present documents if it trusts the
// present one.
void RepositoryDraft::read_back(std::uint64_t oldest_root, TufTime now) const {
  const auto read = [&](const std::string& role) {
    return makes(role) && place_ == Place::folder ? read_draft_document(*folder_, file(role)) : text(role);
  };
  TrustedSet trusted(state_.roots.at(oldest_root));
  for (auto root = state_.roots.upper_bound(oldest_root); root != state_.roots.end(); ++root) {
    trusted.trust_root(trusted.verified_next_root(root->second, tuf_root_limit));
  }
  bool knows_present = oldest_root == state_.role("root").version;
  if (makes("root")) {
    NextRoot next = trusted.verified_next_root(read("root"), tuf_root_limit);
    knows_present = knows_present && !next.rotates_online_keys;
    trusted.trust_root(std::move(next));
  }
  unexpired(trusted.root(), now);
  Json timestamp = trusted.verified_timestamp(read("timestamp"), repository_timestamp_limit);
  unexpired(timestamp, now);
  if (knows_present && makes("timestamp") && state_.is_published()) {
    const bool is_overtaken = trusted.keeps_timestamp(state_.role("timestamp").document, timestamp);
    require(!is_overtaken, "rollback", "The next timestamp is not newer than the present one");
  }
  trusted.trust_timestamp(std::move(timestamp));
  Json snapshot =
      verified_role(read("snapshot"), trusted.snapshot_reference(), "snapshot", repository_metadata_limit, now);
  if (state_.role("snapshot").exists()) {
    require_no_role_lost(state_.role("snapshot").document, snapshot);
  }
  trusted.trust_snapshot(std::move(snapshot));
  trusted.trust_targets(
      verified_role(read("targets"), trusted.targets_reference(), "targets", repository_metadata_limit, now));
}

std::vector<std::string> RepositoryDraft::changed_files() const {
  std::vector<std::string> files;
  if (!targets_.is_null()) {
    const Json present = state_.targets();
    for (const auto& [path, target] : targets_.items()) {
      if (!present.contains(path) || present.at(path).at("hashes") != target.at("hashes") ||
          has_new_file(*folder_, path, target)) {
        files.push_back(uploaded_target(path, text_at(target.at("hashes"), "sha256")));
      }
    }
  }
  for (const std::string& role : roles_) {
    files.push_back(uploaded_document(file(role)));
  }
  if (!state_.is_published()) {
    files.push_back(uploaded_document(state_.role("root").file));
  }
  return files;
}

void RepositoryDraft::publish(TufTime now) {
  read_back(state_.role("root").version, now);
  read_back(state_.roots.begin()->first, now);
  require_target_files(*folder_, targets_.is_null() ? state_.targets() : targets_,
                       place_ == Place::memory ? NewFiles::ignored
                       : is_loaded_            ? NewFiles::proved
                                               : NewFiles::judged_by_length);
  if (place_ == Place::memory) {
    publish_from_memory();
    return;
  }
  Json begun = stored();
  begun["upload"] = changed_files();
  replace_file(folder_->path(), draft_record(*folder_), begun.dump() + "\n");
  publish_draft(*folder_, state_, begun);
  const RepositoryState published = folder_->state();
  for (const std::string& role : roles_) {
    require(published.role(role).is_accepted() && published.role(role).text == text(role), "content_mismatch",
            "The repository does not hold the document that was published: " + file(role));
  }
}

// Nothing remembers this draft, so the list must be there before the timestamp that needs it.
void RepositoryDraft::publish_from_memory() const {
  RepositoryState next = state_;
  for (const std::string& role : roles_) {
    if (role != "timestamp") {
      folder_->publish_document(file(role), text(role));
    }
    next.documents[role] = {file(role), text(role), document(role), version_in(document(role)), "", ""};
  }
  add_to_upload_list(*folder_, changed_files(), state_, next);
  folder_->publish_document(file("timestamp"), text("timestamp"));
  tidy_upload_list(*folder_, next);
}

void RepositoryDraft::discard() { remove_draft(*folder_); }

}  // namespace ravok
