// A small program that makes, removes and restores shortcuts by the ledger of a data folder. A refusal is printed as
// "CODE: MESSAGE" and ends it with code 1.
//
//   sample_shortcuts create ROOT BOOTSTRAP PATH
//   sample_shortcuts remove ROOT                   prints "removed PATH" and "changed PATH"
//   sample_shortcuts release ROOT                  prints the same
//   sample_shortcuts restore ROOT BOOTSTRAP        prints "made PATH"

#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "platform/shortcut/shortcuts.hpp"
#include "sample_main.hpp"

namespace ravok {
namespace {

void print(const char* what, const std::vector<std::filesystem::path>& paths) {
  for (const std::filesystem::path& path : paths) {
    std::cout << what << ' ' << path.native() << '\n';
  }
}

int run(const std::vector<std::string>& arguments) {
  const std::string action = arguments.empty() ? "" : arguments[0];
  if (action == "create" && arguments.size() == 4) {
    create_owned_native_shortcut({arguments[2], arguments[1], "game", "The Game"}, arguments[3]);
  } else if ((action == "remove" || action == "release") && arguments.size() == 2) {
    const ShortcutRemoval removal =
        action == "remove" ? remove_owned_native_shortcuts(arguments[1]) : release_owned_native_shortcuts(arguments[1]);
    print("removed", removal.removed);
    print("changed", removal.changed);
  } else if (action == "restore" && arguments.size() == 3) {
    print("made", restore_owned_native_shortcuts(arguments[1], arguments[2]));
  } else {
    return 64;
  }
  return 0;
}

}  // namespace
}  // namespace ravok

int main(int argc, char** argv) { return ravok::testing::sample_main(argc, argv, ravok::run); }
