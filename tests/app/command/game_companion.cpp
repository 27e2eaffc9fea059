// Tells which game it serves and where a game lies, and starts games, as a client beside that program would. With
// "accompany" it stays until the game has ended.

#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <sys/wait.h>

#include "app/command/direct_start.hpp"
#include "app/command/platformed_game.hpp"
#include "domain/error.hpp"
#include "domain/json.hpp"

namespace {

void say(const std::string& line) {
  std::puts(line.c_str());
  std::fflush(stdout);
}

void tell_platformed_game() {
  const std::optional<ravok::PlatformedGame>& game = ravok::platformed_game();
  if (!game) {
    say("no game");
    return;
  }
  say(game->game_id + " in " + game->directory.native() + " as " + game->executable.native());
}

// Whether several threads that ask at the same time find one game.
bool is_found_once() {
  std::vector<const ravok::PlatformedGame*> found(4);
  std::vector<std::thread> threads;
  for (const ravok::PlatformedGame*& game : found) {
    threads.emplace_back([&game] { game = &ravok::platformed_game().value(); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  return found == std::vector(found.size(), found.front());
}

void run(const std::vector<std::string>& words) {
  if (words[0] == "platformed") {
    tell_platformed_game();
  } else if (words[0] == "replaced") {
    // As an update does, with the program that runs.
    std::filesystem::copy_file(words[1], words[1] + ".new");
    std::filesystem::rename(words[1] + ".new", words[1]);
    tell_platformed_game();
  } else if (words[0] == "threads") {
    say(is_found_once() ? "one game" : "several games");
  } else if (words[0] == "serves") {
    say(ravok::platformed_game(words[1]) != nullptr ? "yes" : "no");
  } else if (words[0] == "locate") {
    const ravok::LocatedGame game = ravok::locate_installed_game(words[1], words[2]);
    say(game.program.native() + " in " + game.directory.native());
  } else {
    ravok::start_installed_game(words[1], words[2], words[0] == "replace");
    say("this process goes on");
    while (words[0] == "accompany" && wait(nullptr) > 0) {
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    run({argv + 1, argv + argc});
    return 0;
  } catch (const ravok::Error& failure) {
    say(failure.code + ": " + failure.what());
    return 1;
  }
}
