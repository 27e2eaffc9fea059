// A copy of the client that lies beside the program of one game of another store, and serves that game alone.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "domain/json.hpp"

namespace ravok {

struct PlatformedGame {
  std::string game_id;
  std::string name;
  std::string build;
  std::optional<std::string> channel;
  std::filesystem::path directory;                 // where ravok-platform.json lies
  std::filesystem::path executable;                // the game's program, below the directory
  std::string crash_service;                       // the address "https://" and a host, perhaps with a port
  std::optional<std::filesystem::path> ca_bundle;  // below the directory
};

// Returns the game that a ravok-platform.json in this directory describes. Fails with "platformed_config", for a bad
// identifier with "invalid_identity" or "unsafe_path", and with "unsafe_path" for a path that leaves the directory or
// goes through a link.
PlatformedGame parse_platformed_game(const Json& document, const std::filesystem::path& directory);

// Returns the game that this process serves: the one of the ravok-platform.json beside its program, which is looked for
// once, also where another file has taken the program's place; nothing where no plain file has that name. May be called
// from any thread. Fails with "launcher_identity" when the program's place cannot be told, as read_file and parse_json
// do beyond 16,384 bytes, and as above.
const std::optional<PlatformedGame>& platformed_game();

// Returns the game that this process serves if it is this one, otherwise null. Fails in the same way.
const PlatformedGame* platformed_game(std::string_view game_id);

// Returns the data folder of such a game; it is neither made nor opened. Fails with "user_path" as user_data_root does.
std::filesystem::path platformed_data_root(const PlatformedGame& game);

}  // namespace ravok
