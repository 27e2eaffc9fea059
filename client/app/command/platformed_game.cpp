#include "app/command/platformed_game.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "domain/identifier.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/files.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/status.hpp"
#include "platform/process/process.hpp"

namespace ravok {
namespace {

constexpr const char* platformed_config = "platformed_config";

constexpr std::uint64_t maximum_platform_file_bytes = 16'384;
constexpr std::size_t maximum_platformed_identifier_bytes = 128;
constexpr std::size_t maximum_platformed_name_bytes = 200;
constexpr std::size_t maximum_crash_service_bytes = 2048;

constexpr std::array<std::string_view, 8> platform_keys = {
    "schema_version", "game_id", "name", "build", "channel", "executable", "crash_service", "ca_bundle"};

void require_platform_schema(const Json& document) {
  require(document.is_object() && document.contains("schema_version") && is_integer(document.at("schema_version"), 1),
          platformed_config, "ravok-platform.json is not a version 1 platform file");
  for (const auto& [key, value] : document.get_ref<const Json::object_t&>()) {
    require(std::find(platform_keys.begin(), platform_keys.end(), key) != platform_keys.end(), platformed_config,
            "ravok-platform.json has an unknown field: " + key);
  }
}

const std::string& platform_text(const Json& document, const char* key, std::size_t limit) {
  const std::string quoted = "\"" + std::string(key) + "\"";
  require(has_text(document, key), platformed_config, "ravok-platform.json needs a " + quoted + " text");
  const std::string& text = text_at(document, key);
  require(!text.empty() && text.size() <= limit && !has_nul(text), platformed_config,
          "ravok-platform.json has an unusable " + quoted);
  return text;
}

std::string platform_identifier(const Json& document, const char* key) {
  const std::string& text = platform_text(document, key, maximum_platformed_identifier_bytes);
  validate_identifier(text);
  return text;
}

std::filesystem::path platform_path(const Json& document, const char* key, const std::filesystem::path& directory) {
  return safe_join(directory, platform_text(document, key, maximum_path_bytes), true);
}

std::string crash_service(const Json& document) {
  constexpr std::string_view scheme = "https://";
  const std::string& address = platform_text(document, "crash_service", maximum_crash_service_bytes);
  require(address.starts_with(scheme) && address.size() > scheme.size() &&
              address.find_first_of("/?#@ \t\\", scheme.size()) == std::string::npos,
          platformed_config, "ravok-platform.json needs \"crash_service\" as a plain https:// origin");
  return address;
}

std::optional<PlatformedGame> find_platformed_game() {
  // An update of the client may have replaced the program since it was started.
  const std::filesystem::path directory = folder_of(started_executable_path());
  const std::filesystem::path file = directory / platformed_game_file;
  const auto status = link_status_of(file);
  if (!status || !is_file(*status)) {
    return std::nullopt;
  }
  constexpr std::uint64_t limit = maximum_platform_file_bytes;
  return parse_platformed_game(parse_json(read_file(file, limit), limit), directory);
}

}  // namespace

PlatformedGame parse_platformed_game(const Json& document, const std::filesystem::path& directory) {
  require_platform_schema(document);
  PlatformedGame game;
  game.directory = directory;
  game.game_id = platform_identifier(document, "game_id");
  game.name = platform_text(document, "name", maximum_platformed_name_bytes);
  game.build = platform_identifier(document, "build");
  if (document.contains("channel")) {
    game.channel = platform_identifier(document, "channel");
  }
  game.executable = platform_path(document, "executable", directory);
  game.crash_service = crash_service(document);
  if (document.contains("ca_bundle")) {
    game.ca_bundle = platform_path(document, "ca_bundle", directory);
  }
  return game;
}

const std::optional<PlatformedGame>& platformed_game() {
  static const std::optional<PlatformedGame> game = find_platformed_game();
  return game;
}

const PlatformedGame* platformed_game(std::string_view game_id) {
  const std::optional<PlatformedGame>& game = platformed_game();
  return game && game->game_id == game_id ? &*game : nullptr;
}

std::filesystem::path platformed_data_root(const PlatformedGame& game) {
  return user_data_root() / platformed_games_folder / game.game_id;
}

}  // namespace ravok
