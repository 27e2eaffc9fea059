#include "publisher/repository/former_targets.hpp"

#include <algorithm>
#include <array>
#include <set>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "publisher/publish_files.hpp"
#include "publisher/repository/repository_draft.hpp"
#include "tuf/metadata_shape.hpp"

namespace ravok {
namespace {

// What tells builds apart; only that of a game has the last one.
constexpr std::array<const char*, 4> build_keys = {"kind", "platform", "build_id", "game_id"};

}  // namespace

bool is_released_manifest(const Json& target) {
  if (!target.contains("custom")) {
    return false;
  }
  const Json& custom = target.at("custom");
  return has_text(custom, "kind") && has_text(custom, "platform") && has_text(custom, "build_id") &&
         custom.contains("files") && custom.at("files").is_array();
}

bool names_file(const Json& target, const std::string& path) {
  if (!is_released_manifest(target)) {
    return false;
  }
  const Json& files = target.at("custom").at("files");
  return std::any_of(files.begin(), files.end(), [&](const Json& file) { return is_text(file, path); });
}

bool is_same_build(const Json& target, const Json& custom) {
  if (!is_released_manifest(target)) {
    return false;
  }
  const Json& own = target.at("custom");
  return std::all_of(build_keys.begin(), build_keys.end(),
                     [&](const char* key) { return own.value(key, Json()) == custom.value(key, Json()); });
}

void drop_unnamed_files(Json& next, const Json& present) {
  std::set<std::string> named;
  for (const auto& [path, target] : next.items()) {
    if (is_released_manifest(target)) {
      const auto files = target.at("custom").at("files").get<std::vector<std::string>>();
      named.insert(files.begin(), files.end());
    }
  }
  for (const auto& [path, target] : present.items()) {
    if (is_released_manifest(target)) {
      for (const Json& file : target.at("custom").at("files")) {
        const auto name = file.get<std::string>();
        if (!named.contains(name)) {
          next.erase(name);
        }
      }
    }
  }
}

FormerTargets::FormerTargets(const RepositoryFolder& folder, const RepositoryState& state) : folder_(folder) {
  for (const auto& [version, text] : state.roots) {
    roots_.push_back(parse_json(text, repository_metadata_limit).at("signed"));
  }
}

bool FormerTargets::is_signed(const Json& document, const std::string& role) const {
  return std::any_of(roots_.begin(), roots_.end(),
                     [&](const Json& root) { return signature_need(document, role, root, folder_.record()).is_met(); });
}

// The versions and SHA-256 digests of targets documents that snapshots name.
std::set<std::pair<std::uint64_t, std::string>> FormerTargets::named_by_snapshots() const {
  std::set<std::pair<std::uint64_t, std::string>> named;
  for (const std::uint64_t version : folder_.versions("snapshot")) {
    if (folder_.record().given_up_snapshots.contains(version)) {
      continue;
    }
    // One that cannot be read now may have been published, and to pass it over would be to forget a build.
    const std::string text = folder_.read_document(role_file("snapshot", version));
    try {
      const Json document = parse_json(text, repository_metadata_limit);
      shape(document, "snapshot");
      const Json& meta = document.at("signed").at("meta").at("targets.json");
      const std::pair one(positive_version(meta.at("version")), text_at(meta.at("hashes"), "sha256"));
      if (!named.contains(one) && is_signed(document, "snapshot")) {
        named.insert(one);
      }
    } catch (const Error&) {
      // What is no snapshot names nothing: a run that was killed may have left it.
    } catch (const Json::exception&) {
    }
  }
  return named;
}

void FormerTargets::each(const std::function<bool(std::uint64_t version, const Json& targets)>& visit) const {
  const auto named = named_by_snapshots();
  const std::vector<std::uint64_t> versions = folder_.versions("targets");
  for (auto version = versions.rbegin(); version != versions.rend(); ++version) {
    const std::string file = role_file("targets", *version);
    const std::string text = folder_.read_document(file);
    if (!named.contains({*version, digest(text, "sha256")})) {
      continue;
    }
    const Json document = about(folder_.metadata() / file, [&] {
      Json read = parse_json(text, repository_metadata_limit);
      shape(read, "targets");
      return read;
    });
    if (is_signed(document, "targets") && !visit(*version, document.at("signed").at("targets"))) {
      return;
    }
  }
}

}  // namespace ravok
