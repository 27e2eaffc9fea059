#include "app/command/direct_start.hpp"

#include <cstdint>
#include <string>
#include <system_error>

#include "app/command/platformed_game.hpp"
#include "domain/crypto.hpp"
#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "domain/game_manifest.hpp"
#include "domain/identifier.hpp"
#include "domain/json.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/files.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/status.hpp"
#include "platform/process/child_process.hpp"
#include "platform/process/native_platform.hpp"
#include "platform/process/process.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t maximum_game_record_bytes = 524'288;
constexpr std::uint64_t maximum_game_manifest_bytes = 4'194'304;

LocatedGame locate_platformed_game(const PlatformedGame& game) {
  const auto status = link_status_of(game.executable);
  require(status && is_file(*status), "missing_file", "The game's program is missing");
  return {game.directory, game.executable};
}

bool is_installed(const Json& record, std::string_view game_id) {
  return record.is_object() && record.contains("installed") && record.at("installed").is_boolean() &&
         record.at("installed").get_ref<const bool&>() && record.contains("game_id") &&
         is_text(record.at("game_id"), game_id);
}

// The installed games of a data folder. No link below the folder is followed.
class InstalledGames {
 public:
  explicit InstalledGames(const std::filesystem::path& data_root) {
    std::error_code problem;
    root_ = std::filesystem::absolute(data_root, problem).lexically_normal();
    require(!problem, "unsafe_path", "Cannot make a path absolute");
  }

  LocatedGame locate(std::string_view game_id) const {
    const GamePaths places(game_id);
    const Json record = parse_json(read(places.record, maximum_game_record_bytes), maximum_game_record_bytes);
    require(is_installed(record, game_id), "not_installed", "The game is not installed");
    return refuse_malformed("invalid_state", "The record of the installed game is malformed",
                            [&] { return locate_active(places, record.at("active")); });
  }

 private:
  // A link in place of the file itself is left to read_file, whose refusal names it.
  std::string read(const std::filesystem::path& relative, std::uint64_t limit) const {
    return read_file(safe_join(root_, path_utf8(relative.parent_path()), true) / relative.filename(), limit);
  }

  LocatedGame locate_active(const GamePaths& places, const Json& active) const {
    const std::string& version = text_at(active, "version");
    const GameManifest manifest = read_manifest(places, active);
    require(manifest.platform == native_platform(), "platform_mismatch",
            "Installed game build is for another platform");
    LocatedGame game;
    game.directory = safe_join(root_, places.version(version), true);
    game.program = safe_join(game.directory, manifest.executable, true);
    const auto status = link_status_of(game.program);
    require(status && is_file(*status) && status->size == manifest.files.at(manifest.executable).length,
            "content_mismatch", "The game's program is missing or changed");
    return game;
  }

  GameManifest read_manifest(const GamePaths& places, const Json& active) const {
    if (!active.contains("manifest_ref")) {
      return GameManifest::parse(active.at("manifest"));
    }
    const Json& reference = active.at("manifest_ref");
    require(reference.is_string() && is_sha256_text(reference.get_ref<const std::string&>()), "invalid_state",
            "Installed manifest reference is malformed");
    const std::string& sha256 = reference.get_ref<const std::string&>();
    const std::string text = read(places.manifest(sha256), maximum_game_manifest_bytes);
    require(digest(text, "sha256") == sha256, "content_mismatch", "The stored game manifest changed");
    return GameManifest::parse(parse_json(text, maximum_game_manifest_bytes));
  }

  std::filesystem::path root_;
};

}  // namespace

LocatedGame locate_installed_game(const std::filesystem::path& data_root, std::string_view game_id) {
  validate_identifier(game_id);
  if (const PlatformedGame* const game = platformed_game(game_id)) {
    return locate_platformed_game(*game);
  }
  return InstalledGames(data_root).locate(game_id);
}

void start_installed_game(const std::filesystem::path& data_root, std::string_view game_id, bool replace) {
  const LocatedGame game = locate_installed_game(data_root, game_id);
  if (replace) {
    exec_process(game.program, {}, game.directory, {});
  }
  try {
    // A child that still runs when its object goes is left to itself.
    const ChildProcess child(game.program, {}, game.directory, {});
  } catch (const Error& refusal) {
    fail("process_start", "The game could not be started", refusal.details);
  }
}

bool local_storage_failure(std::string_view failure_code) {
  return failure_code == "file_write" || failure_code == "file_sync" || failure_code == "journal_write" ||
         failure_code == "insufficient_space" || failure_code == "permissions";
}

}  // namespace ravok
