#include "publisher/repository/refresh_repository.hpp"

#include <algorithm>
#include <array>
#include <set>
#include <string>
#include <utility>

#include "publisher/repository/key_advice.hpp"
#include "publisher/repository/repository_time.hpp"

namespace ravok {
namespace {

constexpr std::array<const char*, 3> renewed_roles = {"targets", "snapshot", "timestamp"};

// What is due in a repository, and what the signers at hand can do about it.
class Refresh {
 public:
  Refresh(const RepositoryRefresh& refresh, RepositorySession& session, const std::vector<Signer>& signers)
      : refresh_(refresh), session_(session), signers_(signers) {}

  // Returns when a role is due: half of its days before it expires.
  TufTime due(const std::string& role) const {
    const std::uint64_t days = refresh_.days.value_or(session_.folder().record().days.at(role));
    return session_.state().role(role).expires() - std::chrono::hours(static_cast<std::int64_t>(days) * 12);
  }

  bool is_due(const std::string& role) const { return !stands(role) || due(role) < session_.now(); }

  // Whether a signer whose key speaks for the role has not signed its document, and all of its documents can be signed.
  bool lacks_a_signer(const std::string& role) const {
    const RoleDocument& document = session_.state().role(role);
    if (!document.exists() || !can_sign(role)) {
      return false;
    }
    const Json& ids = session_.state().root().at("roles").at(role).at("keyids");
    const Json& signatures = document.document.at("signatures");
    return std::any_of(signers_.begin(), signers_.end(), [&](const Signer& signer) {
      return std::find(ids.begin(), ids.end(), Json(signer.id)) != ids.end() &&
             std::none_of(signatures.begin(), signatures.end(),
                          [&](const Json& signature) { return is_text(signature.at("keyid"), signer.id); });
    });
  }

  // Whether clients accept the role's document now.
  bool stands(const std::string& role) const {
    const RoleDocument& document = session_.state().role(role);
    return document.is_accepted() && document.expires() > session_.now();
  }

  // Whether the signers can sign a document of the role and all that refer to it.
  bool can_sign(const std::string& role) const {
    for (auto one = std::find(renewed_roles.begin(), renewed_roles.end(), role); one != renewed_roles.end(); ++one) {
      const Json& authority = session_.state().root().at("roles").at(*one);
      const auto ids = authority.at("keyids").get<std::set<std::string>>();
      const auto count = std::count_if(signers_.begin(), signers_.end(),
                                       [&](const Signer& signer) { return ids.contains(signer.id); });
      if (static_cast<std::uint64_t>(count) < positive_version(authority.at("threshold"))) {
        return false;
      }
    }
    return true;
  }

 private:
  const RepositoryRefresh& refresh_;
  RepositorySession& session_;
  const std::vector<Signer>& signers_;
};

// Chooses the roles to renew, and tells which are left for another time. Beside a draft of other targets the present
// ones are left as they are while they stand: they are what it was begun on.
std::set<std::string> choose_renewed(const RepositoryRefresh& refresh, const Refresh& judged, bool stands_on_targets,
                                     RefreshOutcome& outcome) {
  std::set<std::string> due;
  for (const std::string role : renewed_roles) {
    if (judged.is_due(role) || (refresh.force && (role == "timestamp" || judged.lacks_a_signer(role)))) {
      due.insert(role);
    }
  }
  if (!judged.can_sign("timestamp")) {
    // Others will have to sign anyway.
    return due;
  }
  std::set<std::string> renewed;
  for (const std::string& role : due) {
    const bool is_of_draft = stands_on_targets && role == "targets";
    if ((judged.can_sign(role) && !is_of_draft) || !judged.stands(role)) {
      renewed.insert(role);
    } else {
      outcome.left.push_back(role);
      outcome.left_for_draft = outcome.left_for_draft || is_of_draft;
      // Only the targets of a draft are left although the signers could sign them.
      outcome.left_though_asked = outcome.left_though_asked || !judged.is_due(role);
    }
  }
  return renewed;
}

std::optional<TufTime> earliest_due(const RepositoryRefresh& refresh, RepositorySession& session) {
  if (!session.state().is_published()) {
    return {};
  }
  const Refresh judged(refresh, session, {});
  return std::min({judged.due("targets"), judged.due("snapshot"), judged.due("timestamp")});
}

}  // namespace

RefreshOutcome refresh_repository(const RepositoryRefresh& refresh, const std::vector<Signer>& signers, TufTime now) {
  if (refresh.days) {
    require_days(*refresh.days);
  }
  RepositorySession session(refresh.folder, now);
  const RoleDocument& root = session.state().role("root");
  require(root.expires() > now, "expired_role",
          "The root document has expired on " + tuf_day_text(root.expires()) +
              "; give the repository a new one with 'ravok-publish repository rotate'");
  require_known_keys(session.state().root(), signers);
  const Refresh judged(refresh, session, signers);
  RefreshOutcome outcome;
  const bool is_beside_draft = session.draft() && session.draft()->waits() && !session.draft()->is_stale();
  const bool stands_on_targets = is_beside_draft && !session.draft()->wanted_targets().is_null();
  const std::set<std::string> renewed = choose_renewed(refresh, judged, stands_on_targets, outcome);
  outcome.was_due = !renewed.empty();
  if (!outcome.was_due) {
    if (!session.draft() || !session.draft()->waits()) {
      // What a killed run has left goes with any command.
      session.require_no_draft();
    }
    outcome.repository = session.unchanged();
    outcome.next_due = earliest_due(refresh, session);
    return outcome;
  }
  DraftChanges changes;
  changes.action = "refresh";
  changes.renew = renewed;
  if (refresh.days) {
    changes.days = {{"targets", *refresh.days}, {"snapshot", *refresh.days}, {"timestamp", *refresh.days}};
  }
  const bool fits_beside =
      is_beside_draft && !(stands_on_targets && renewed.contains("targets")) &&
      std::all_of(renewed.begin(), renewed.end(), [&](const std::string& role) { return judged.can_sign(role); });
  if (fits_beside) {
    outcome.repository = session.conclude(
        RepositoryDraft::begin(session.folder(), session.state(), changes, now, RepositoryDraft::Place::memory),
        signers);
  } else {
    session.require_no_draft();
    outcome.repository = session.conclude_or_drop(changes, signers);
  }
  outcome.next_due = earliest_due(refresh, session);
  return outcome;
}

}  // namespace ravok
