#include "publisher/repository/publish_release.hpp"

#include <algorithm>
#include <map>
#include <set>
#include <string_view>
#include <utility>

#include "domain/crypto.hpp"
#include "domain/game_manifest.hpp"
#include "domain/launcher_contract.hpp"
#include "domain/manifest.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/file/status.hpp"
#include "publisher/publish_files.hpp"
#include "publisher/repository/former_targets.hpp"
#include "publisher/repository/key_advice.hpp"
#include "publisher/repository/release_manifest.hpp"
#include "publisher/repository/repository_files.hpp"

namespace ravok {
namespace {

// No manifest within the bounds on files and paths is longer than this.
constexpr std::uint64_t longest_manifest = std::uint64_t{1} << 31;

constexpr std::string_view manifest_ending = ".manifest.json";

// A file that a manifest names.
struct NamedFile {
  ArtifactDescriptor descriptor;
  bool may_come_later = false;
};

// A manifest that clients accept, and what it asks for.
struct JudgedManifest {
  std::filesystem::path file;
  std::string text;
  ReleasedBuild build;
  std::vector<NamedFile> files;
};

const char* kind_text(SnapshotKind kind) {
  switch (kind) {
    case SnapshotKind::bootstrap:
      return "bootstrap";
    case SnapshotKind::launcher:
      return "launcher";
    case SnapshotKind::game:
      break;
  }
  return "game";
}

SnapshotKind kind_of(const Json& document) {
  const Json kind = document.is_object() ? document.value("kind", Json()) : Json();
  return is_text(kind, "ravok-launcher-release")    ? SnapshotKind::launcher
         : is_text(kind, "ravok-bootstrap-release") ? SnapshotKind::bootstrap
                                                    : SnapshotKind::game;
}

std::string fixed_target(SnapshotKind kind, const std::string& platform) {
  return kind == SnapshotKind::launcher ? launcher_manifest_target(platform)
                                        : "bootstrap-" + platform + ".manifest.json";
}

bool is_fixed_target(const std::string& target) {
  for (const SnapshotKind kind : {SnapshotKind::launcher, SnapshotKind::bootstrap}) {
    for (const char* const platform : {"linux-x86_64", "windows-x86_64", "macos-aarch64"}) {
      if (target == fixed_target(kind, platform)) {
        return true;
      }
    }
  }
  return false;
}

// Returns the target of a manifest, which the input may choose for a game.
std::string manifest_target(const ReleaseInput& input, const ReleasedBuild& build) {
  if (build.kind == SnapshotKind::game) {
    const std::string usual = "games/" + build.game_id + "/" + build.platform + ".manifest.json";
    std::string target = input.target.empty() ? usual : input.target;
    validate_relative_path(target, true);
    require(!is_fixed_target(target) && target.ends_with(manifest_ending), "usage",
            "The target " + target + " is not one of a game's manifest, which ends in " + std::string(manifest_ending));
    return target;
  }
  std::string fixed = fixed_target(build.kind, build.platform);
  require(input.target.empty() || input.target == fixed, "usage",
          std::string("Clients look for the manifest of this ") + kind_text(build.kind) + " under the target " + fixed);
  return fixed;
}

void add_game_files(const GameManifest& game, JudgedManifest& judged) {
  judged.build.game_id = game.game_id;
  if (game.encrypted) {
    judged.files.front().may_come_later = true;
    judged.files.push_back({game.encrypted->artifact});
    judged.files.push_back({game.encrypted->key, true});
  }
  for (const DirectPatch& patch : game.patches) {
    judged.files.push_back({patch.artifact});
  }
}

JudgedManifest judge_manifest(const ReleaseInput& input) {
  return about(input.manifest, [&] {
    JudgedManifest judged;
    judged.file = input.manifest;
    judged.text = read_file(input.manifest, longest_manifest);
    const Json document = parse_json(judged.text, longest_manifest);
    ReleasedBuild& build = judged.build;
    build.kind = kind_of(document);
    require_accepted(build.kind, document);
    const SnapshotManifest snapshot = SnapshotManifest::parse(document);
    build.platform = snapshot.platform;
    build.build_id = snapshot.build_id;
    judged.files.push_back({{snapshot.target, snapshot.archive_length, snapshot.archive_sha256}});
    if (build.kind == SnapshotKind::game) {
      add_game_files(GameManifest::parse(document), judged);
    }
    build.target = manifest_target(input, build);
    require(judged.text.size() <= manifest_limit(build.target), "size_limit",
            "The manifest has " + std::to_string(judged.text.size()) + " bytes, and clients take at most " +
                std::to_string(manifest_limit(build.target)));
    build.manifest_sha256 = digest(judged.text, "sha256");
    return judged;
  });
}

std::filesystem::path file_beside(const JudgedManifest& judged, const NamedFile& file) {
  return folder_of(judged.file) / path_from_utf8(file.descriptor.target).filename();
}

Json description(std::uint64_t length, const std::string& sha256) {
  return {{"length", length}, {"hashes", {{"sha256", sha256}}}};
}

// What the repository says of a manifest beside its length and digest, so that the publisher knows its builds again.
Json custom_of(const ReleasedBuild& build) {
  Json custom = {{"kind", kind_text(build.kind)},
                 {"platform", build.platform},
                 {"build_id", build.build_id},
                 {"files", build.files}};
  if (!build.game_id.empty()) {
    custom["game_id"] = build.game_id;
  }
  return custom;
}

// A release that is being put together.
class ReleaseRun {
 public:
  ReleaseRun(const RepositoryRelease& release, RepositorySession& session)
      : session_(session), present_(session.state().targets()), next_(present_) {
    for (const ReleaseInput& input : release.manifests) {
      manifests_.push_back(judge_manifest(input));
    }
  }

  // Refuses what must not be released, without looking at the files that the manifests name.
  void judge() {
    std::set<std::string> targets;
    for (const JudgedManifest& judged : manifests_) {
      require(targets.insert(judged.build.target).second, "usage",
              "Two of the manifests have the target " + judged.build.target);
    }
    FormerTargets(session_.folder(), session_.state()).each([&](std::uint64_t version, const Json& former) {
      for (const JudgedManifest& judged : manifests_) {
        require_unreleased(judged, version, former);
      }
      return true;
    });
  }

  // Adds the manifests and their files to the targets, and finds the files that do not lie in the repository yet.
  void describe() {
    for (JudgedManifest& judged : manifests_) {
      describe_files(judged);
      Json described = description(judged.text.size(), judged.build.manifest_sha256);
      described["custom"] = custom_of(judged.build);
      judged.build.is_new = !present_.contains(judged.build.target) || present_.at(judged.build.target) != described;
      put(judged.build.target, std::move(described), judged.file);
      lacks_a_manifest_ =
          lacks_a_manifest_ ||
          !is_served(target_file(judged.build.target, judged.build.manifest_sha256), judged.text.size());
    }
    drop_unnamed_files(next_, present_);
  }

  // Files that are lost or damaged are a reason to publish the same targets once more.
  bool changes_anything() const { return next_ != present_ || !copies_.empty() || lacks_a_manifest_; }
  const Json& targets() const { return next_; }

  // Copies what is new into the draft's folder.
  void copy(const ProgressCallback& progress) const {
    std::uint64_t total = 0;
    for (const auto& [path, copy] : copies_) {
      total += copy.length;
    }
    std::uint64_t before = 0;
    for (const auto& [path, copy] : copies_) {
      const std::filesystem::path place = draft_place(path);
      require_no_links(session_.folder().path(), folder_of(place));
      make_folders(folder_of(place));
      copy_into_repository(
          session_.folder().path(), copy.source, place, copy.length, copy.sha256,
          [&](std::uint64_t done, std::uint64_t) { return !progress || progress(before + done, total); });
      before += copy.length;
    }
    for (const JudgedManifest& judged : manifests_) {
      const std::filesystem::path file = target_file(judged.build.target, judged.build.manifest_sha256);
      if (!is_served(file, judged.text.size())) {
        const std::filesystem::path place = session_.folder().draft() / "targets" / file;
        require_no_links(session_.folder().path(), folder_of(place));
        make_folders(folder_of(place));
        replace_file(session_.folder().path(), place, judged.text);
      }
    }
  }

  std::vector<ReleasedBuild> builds() const {
    std::vector<ReleasedBuild> builds;
    for (const JudgedManifest& judged : manifests_) {
      builds.push_back(judged.build);
    }
    return builds;
  }

 private:
  struct Copy {
    std::filesystem::path source;
    std::uint64_t length = 0;
    std::string sha256;
  };

  static void require_unreleased(const JudgedManifest& judged, std::uint64_t version, const Json& former) {
    const Json custom = custom_of(judged.build);
    for (const auto& [path, target] : former.items()) {
      require(!is_same_build(target, custom) || is_text(target.at("hashes").at("sha256"), judged.build.manifest_sha256),
              "build_released",
              "The " + build_text(custom) + " was released before with other content, in version " +
                  std::to_string(version) +
                  " of the targets; give the new one another build ID: " + path_utf8(judged.file));
    }
  }

  void describe_files(JudgedManifest& judged) {
    for (const NamedFile& file : judged.files) {
      const ArtifactDescriptor& named = file.descriptor;
      const std::filesystem::path source = file_beside(judged, file);
      const bool is_published = is_served(target_file(named.target, named.sha256), named.length);
      if (!is_published && file.may_come_later && is_missing(source)) {
        judged.build.missing.push_back(named.target);
        continue;
      }
      judged.build.files.push_back(named.target);
      put(named.target, description(named.length, named.sha256), judged.file);
      if (!is_published) {
        copies_[named.target] = {source, named.length, named.sha256};
      }
    }
  }

  // Whether the repository has a target's file. What is there with another length is damaged, and made anew.
  bool is_served(const std::filesystem::path& file, std::uint64_t length) const {
    const Result<Status> status = link_status_of(session_.folder().targets() / file);
    return status && is_file(*status) && status->size == length;
  }

  // A target that another of these manifests, or one that stays, names with other content is refused.
  void put(const std::string& path, Json described, const std::filesystem::path& manifest) {
    require(!put_.contains(path) || put_.at(path) == described, "target_conflict",
            "Another manifest names the target " + path + " with other content: " + path_utf8(manifest));
    require(!is_kept(path) || !next_.contains(path) || next_.at(path).at("hashes") == described.at("hashes"),
            "target_conflict",
            "A released manifest names the target " + path + " with other content: " + path_utf8(manifest));
    put_[path] = described;
    next_[path] = std::move(described);
  }

  // Whether a manifest that is not replaced names the target, or is it.
  bool is_kept(const std::string& path) const {
    const auto replaced = [&](const std::string& target) {
      return std::any_of(manifests_.begin(), manifests_.end(),
                         [&](const JudgedManifest& judged) { return judged.build.target == target; });
    };
    for (const auto& [target, described] : present_.items()) {
      if (!replaced(target) && (target == path ? is_released_manifest(described) : names_file(described, path))) {
        return true;
      }
    }
    return false;
  }

  std::filesystem::path draft_place(const std::string& path) const {
    return session_.folder().draft() / "targets" / target_file(path, copies_.at(path).sha256);
  }

  RepositorySession& session_;
  const Json present_;
  Json next_;
  std::map<std::string, Json> put_;
  std::map<std::string, Copy> copies_;  // by target
  std::vector<JudgedManifest> manifests_;
  bool lacks_a_manifest_ = false;  // of these, in the repository
};

}  // namespace

std::string build_text(const ReleasedBuild& build) { return build_text(custom_of(build)); }

std::string build_text(const Json& custom) {
  const std::string owner = custom.contains("game_id") ? " of " + text_at(custom, "game_id") : "";
  return text_at(custom, "kind") + " build " + text_at(custom, "build_id") + owner + " for " +
         text_at(custom, "platform");
}

ReleaseOutcome publish_release(const RepositoryRelease& release, const std::vector<Signer>& signers, TufTime now,
                               const ProgressCallback& progress) {
  if (release.days) {
    require_days(*release.days);
  }
  RepositorySession session(release.folder, now);
  require_known_keys(session.state().root(), signers);
  session.require_no_draft();
  require_sound(session.state(), now);
  ReleaseRun wanted(release, session);
  wanted.judge();
  wanted.describe();
  ReleaseOutcome outcome;
  outcome.builds = wanted.builds();
  if (!wanted.changes_anything()) {
    outcome.repository = session.unchanged();
    return outcome;
  }
  DraftChanges changes;
  changes.action = "release";
  changes.targets = wanted.targets();
  if (release.days) {
    changes.days = {{"targets", *release.days}, {"snapshot", *release.days}, {"timestamp", *release.days}};
  }
  outcome.repository = session.conclude_or_drop(changes, signers, [&] { wanted.copy(progress); });
  return outcome;
}

}  // namespace ravok
