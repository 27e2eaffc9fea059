// A file that makes a program serve one game and is accepted keeps every bound, which a second, naive check confirms;
// its paths stay below its directory and go through no link; and it reads the same when it is written again.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <string_view>

#include "app/command/platformed_game.hpp"
#include "domain/error.hpp"
#include "domain/identifier.hpp"
#include "memory_volume.hpp"
#include "property.hpp"
#include "support/temporary_root.hpp"

namespace {

using ravok::Json;
using ravok::PlatformedGame;
using ravok::fuzz::must_hold;

// A directory that holds a program, and links that lead out of it.
struct Directory {
  Directory() : root(ravok::fuzz::memory_volume()) {
    root.write("bin/game", "game");
    std::filesystem::create_directory_symlink("/", root / "l");
    std::filesystem::create_symlink("/dev/null", root / "bin/n");
  }

  ravok::testing::TemporaryRoot root;
};

void check_path(const std::filesystem::path& path, const std::filesystem::path& directory) {
  const std::filesystem::path relative = path.lexically_relative(directory);
  must_hold(!relative.empty() && relative.begin()->native() != "." && relative.begin()->native() != "..",
            "a path lies below the directory");
  must_hold(relative.native().size() <= 4096, "a path is bounded");
  std::filesystem::path place = directory;
  for (const std::filesystem::path& name : relative) {
    place /= name;
    std::error_code ignored;
    must_hold(!std::filesystem::is_symlink(place, ignored), "a path goes through no link");
  }
}

void check_text(const std::string& text, std::size_t limit) {
  must_hold(!text.empty() && text.size() <= limit && text.find('\0') == std::string::npos, "a text is bounded");
}

void check(const PlatformedGame& game) {
  ravok::validate_identifier(game.game_id);
  ravok::validate_identifier(game.build);
  if (game.channel) {
    ravok::validate_identifier(*game.channel);
  }
  check_text(game.name, 200);
  check_path(game.executable, game.directory);
  if (game.ca_bundle) {
    check_path(*game.ca_bundle, game.directory);
  }
  check_text(game.crash_service, 2048);
  must_hold(game.crash_service.starts_with("https://"), "reports go over HTTPS");
  const std::string host = game.crash_service.substr(8);
  must_hold(!host.empty() && host.find_first_of("/?#@ \t\\") == std::string::npos, "reports go to a plain origin");
}

Json written(const PlatformedGame& game) {
  Json document = {{"schema_version", 1},
                   {"game_id", game.game_id},
                   {"name", game.name},
                   {"build", game.build},
                   {"executable", game.executable.lexically_relative(game.directory).native()},
                   {"crash_service", game.crash_service}};
  if (game.channel) {
    document["channel"] = *game.channel;
  }
  if (game.ca_bundle) {
    document["ca_bundle"] = game.ca_bundle->lexically_relative(game.directory).native();
  }
  return document;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Directory directory;
  Json document;
  try {
    document = ravok::parse_json(std::string_view(reinterpret_cast<const char*>(data), size), 16384);
  } catch (const ravok::Error&) {
    return 0;
  }
  try {
    const PlatformedGame game = ravok::parse_platformed_game(document, directory.root.path());
    try {
      check(game);
      must_hold(written(game) == document, "nothing is read that is not kept");
    } catch (const ravok::Error& refusal) {
      must_hold(false, refusal.what());
    }
  } catch (const ravok::Error& refusal) {
    static const std::set<std::string> codes = {"platformed_config", "invalid_identity", "unsafe_path"};
    must_hold(codes.contains(refusal.code), "a refusal has a code of its kind");
  }
  return 0;
}
