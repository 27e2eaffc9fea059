#include "publisher/repository/release_manifest.hpp"

#include <array>
#include <optional>

#include "app/launcher/bootstrap_release.hpp"
#include "domain/bootstrap_contract.hpp"
#include "domain/error.hpp"
#include "domain/json.hpp"
#include "domain/launcher_contract.hpp"
#include "domain/limits.hpp"
#include "platform/process/native_platform.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t maximum_game_manifest_bytes = 16'777'216;
constexpr std::array<const char*, 3> platforms = {"linux-x86_64", "macos-aarch64", "windows-x86_64"};

struct ClientPath {
  const char* kind;
  const char* platform;
};

// Which manifest a client looks for at this path; none for any other.
std::optional<ClientPath> client_path(std::string_view path) {
  for (const char* const platform : platforms) {
    if (path == launcher_manifest_target(platform)) {
      return ClientPath{"launcher", platform};
    }
    if (path == "bootstrap-" + std::string(platform) + ".manifest.json") {
      return ClientPath{"bootstrap", platform};
    }
  }
  return std::nullopt;
}

std::string kind_of(const std::optional<ClientPath>& place, const Json& document) {
  if (place) {
    return place->kind;
  }
  const bool has_kind = document.is_object() && has_text(document, "kind");
  if (has_kind && is_text(document.at("kind"), "ravok-launcher-release")) {
    return "launcher";
  }
  return has_kind && is_text(document.at("kind"), "ravok-bootstrap-release") ? "bootstrap" : "game";
}

OfferedRelease offered(const std::string& kind, const SnapshotManifest& manifest) {
  return {"",
          kind,
          manifest.build_id,
          manifest.platform,
          "",
          {{manifest.target, manifest.archive_length, manifest.archive_sha256}}};
}

OfferedRelease offered_game(const GameManifest& manifest) {
  OfferedRelease release = offered("game", manifest);
  release.game_id = manifest.game_id;
  if (manifest.encrypted) {
    release.artifacts.push_back(manifest.encrypted->artifact);
    release.artifacts.push_back(manifest.encrypted->key);
  }
  for (const DirectPatch& patch : manifest.patches) {
    release.artifacts.push_back(patch.artifact);
  }
  return release;
}

OfferedRelease parse_release(const std::string& kind, const Json& document) {
  if (kind == "launcher") {
    return offered(kind, LauncherManifest::parse(document));
  }
  if (kind == "game") {
    return offered_game(GameManifest::parse(document));
  }
  const SnapshotManifest manifest = SnapshotManifest::parse(document);
  validate_bootstrap_contract(manifest);
  if (manifest.platform == native_platform()) {
    validate_bootstrap_update(manifest);
  }
  return offered(kind, manifest);
}

}  // namespace

bool is_manifest(std::string_view path, const Json& description) {
  if (path.ends_with(".manifest.json")) {
    return true;
  }
  const auto custom = description.find("custom");
  return custom != description.end() && has_text(*custom, "kind") && has_text(*custom, "build_id");
}

std::uint64_t manifest_limit(std::string_view path) {
  return client_path(path) ? maximum_manifest_bytes : maximum_game_manifest_bytes;
}

OfferedRelease read_release(const std::string& path, std::string_view text) {
  const std::optional<ClientPath> place = client_path(path);
  const Json document = parse_json(text, manifest_limit(path));
  OfferedRelease release = parse_release(kind_of(place, document), document);
  release.manifest = path;
  require(!place || release.platform == place->platform, "launcher_incompatible",
          "The manifest is for another platform than its path says");
  return release;
}

}  // namespace ravok
