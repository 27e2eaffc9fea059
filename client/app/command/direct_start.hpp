// The start of an installed game without the client's interface, from what its installation has left in the data
// folder.
#pragma once

#include <filesystem>
#include <string_view>

namespace ravok {

struct LocatedGame {
  std::filesystem::path directory;  // the unpacked version's
  std::filesystem::path program;    // the file to run
};

// Returns where an installed game lies: the game that this process serves, or else the one of a data folder. Its
// program is there and has the size that its manifest records; its content is not looked at. No link in the data folder
// is followed. Fails with "not_installed"; "missing_file" for the program of a game that this process serves;
// "content_mismatch" for a manifest or a program that changed; "platform_mismatch"; "invalid_state" for a record that
// is not whole; and as validate_identifier, platformed_game, safe_join, read_file, parse_json and GameManifest::parse
// do.
LocatedGame locate_installed_game(const std::filesystem::path& data_root, std::string_view game_id);

// Starts the game in its directory, without arguments. With `replace` it takes the place of this process, and this
// returns only by failing; otherwise it runs beside this process, which neither waits for it nor learns of its end.
// Fails as locate_installed_game does, with "process_start" when the game cannot be started, and with `replace` also as
// exec_process does.
void start_installed_game(const std::filesystem::path& data_root, std::string_view game_id, bool replace);

// Whether a failure with this code is of a disk that is full or cannot be written to.
bool local_storage_failure(std::string_view failure_code);

}  // namespace ravok
