#include "publisher/repository/publish_withdrawal.hpp"

#include <map>
#include <utility>

#include "domain/error.hpp"
#include "publisher/repository/former_targets.hpp"
#include "publisher/repository/key_advice.hpp"
#include "publisher/repository/publish_release.hpp"

namespace ravok {
namespace {

bool is_build(const Json& target, const std::string& build_id) {
  return is_released_manifest(target) && text_at(target.at("custom"), "build_id") == build_id;
}

// What a manifest's target was before a build came to it, and all that was described then.
struct Former {
  bool reached_first = false;  // whether all documents with the build were seen
  Json targets = Json::object();
};

// Finds for each of the manifests the newest document that is older than all those in which it had the build.
std::map<std::string, Former> find_former(const RepositorySession& session, const FormerTargets& former,
                                          const std::vector<WithdrawnBuild>& builds, const std::string& build_id) {
  // The oldest document with the build may lie behind others without it, so all must be seen.
  std::map<std::string, Former> found;
  const std::uint64_t present = session.state().role("targets").version;
  former.each([&](std::uint64_t version, const Json& targets) {
    if (version > present) {
      return true;
    }
    for (const WithdrawnBuild& build : builds) {
      Former& one = found[build.target];
      const bool has_build = targets.contains(build.target) && is_build(targets.at(build.target), build_id);
      if (has_build) {
        one = {};
      } else if (!one.reached_first) {
        one = {true, targets};
      }
    }
    return true;
  });
  return found;
}

// Refuses to give a target other content than a manifest among the next targets names under it, or than it has itself.
void require_unnamed(const Json& next, const std::string& path, const Json& described) {
  if (!next.contains(path) || next.at(path).at("hashes") == described.at("hashes")) {
    return;
  }
  for (const auto& [target, manifest] : next.items()) {
    require(target == path ? !is_released_manifest(manifest) : !names_file(manifest, path), "target_conflict",
            "The former build has another file under the target " + path + ", which stays because of " + target);
  }
}

// Gives a manifest, which is none of the next targets now, and its files back what they were.
void restore(Json& next, WithdrawnBuild& build, const Json& former) {
  if (!former.contains(build.target)) {
    return;
  }
  const Json& manifest = former.at(build.target);
  next[build.target] = manifest;
  if (is_released_manifest(manifest)) {
    build.former_build_id = text_at(manifest.at("custom"), "build_id");
    for (const Json& file : manifest.at("custom").at("files")) {
      const auto name = file.get<std::string>();
      if (former.contains(name)) {
        require_unnamed(next, name, former.at(name));
        next[name] = former.at(name);
      }
    }
  }
}

}  // namespace

WithdrawalOutcome withdraw_build(const RepositoryWithdrawal& withdrawal, const std::vector<Signer>& signers,
                                 TufTime now) {
  if (withdrawal.days) {
    require_days(*withdrawal.days);
  }
  RepositorySession session(withdrawal.folder, now);
  require_known_keys(session.state().root(), signers);
  session.require_no_draft();
  require_sound(session.state(), now);
  const Json present = session.state().targets();
  WithdrawalOutcome outcome;
  for (const auto& [path, target] : present.items()) {
    if (is_build(target, withdrawal.build_id)) {
      outcome.builds.push_back({path, build_text(target.at("custom")), ""});
    }
  }
  if (outcome.builds.empty() && session.finished_former()) {
    // What was finished may have been this very withdrawal.
    outcome.repository = session.unchanged();
    return outcome;
  }
  require(!outcome.builds.empty(), "build_not_published",
          "The repository describes no build " + withdrawal.build_id + " now, so there is nothing to withdraw");
  const std::map<std::string, Former> former =
      find_former(session, FormerTargets(session.folder(), session.state()), outcome.builds, withdrawal.build_id);
  Json next = present;
  for (const WithdrawnBuild& build : outcome.builds) {
    next.erase(build.target);
  }
  for (WithdrawnBuild& build : outcome.builds) {
    restore(next, build, former.at(build.target).targets);
  }
  drop_unnamed_files(next, present);
  DraftChanges changes;
  changes.action = "withdraw";
  changes.targets = std::move(next);
  if (withdrawal.days) {
    changes.days = {{"targets", *withdrawal.days}, {"snapshot", *withdrawal.days}, {"timestamp", *withdrawal.days}};
  }
  outcome.repository = session.conclude_or_drop(changes, signers);
  return outcome;
}

}  // namespace ravok
