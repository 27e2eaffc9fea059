// Each line of an input is an argument. A command line that is accepted begins with the words of a command and gives it
// what it takes, which a second, naive table confirms. It reads the same again when it is put together from what was
// read, and as well with its options in another place.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app/command/cli_entry.hpp"
#include "domain/error.hpp"
#include "property.hpp"

namespace {

using Arguments = std::vector<std::string>;
using ravok::CliEntry;
using ravok::fuzz::must_hold;

struct Command {
  Arguments words;
  std::size_t operands = 0;
  Arguments values = {};
  Arguments flags = {};
};

const std::vector<Command> commands = {
    {{"repository", "configure"}, 0, {"--origin", "--root", "--ca-bundle"}},
    {{"list"}},
    {{"status"}, 1},
    {{"manage"}, 1},
    {{"locations"}, 1},
    {{"install"}, 1, {}, {"--launch"}},
    {{"update"}, 1, {"--build", "--session"}, {"--launch", "--after-exit"}},
    {{"verify"}, 1},
    {{"repair"}, 1},
    {{"rollback"}, 1},
    {{"launch"}, 1, {}, {"--play-current"}},
    {{"observe"}, 1, {"--session"}},
    {{"updates", "check"}, 0, {}, {"--background"}},
    {{"updates", "show"}, 1},
    {{"updates", "defer"}, 1, {"--build"}},
    {{"preload"}, 1, {"--build"}},
    {{"preloads"}},
    {{"preloads", "discard"}, 1, {"--build"}},
    {{"self", "status"}},
    {{"self", "update"}},
    {{"self", "cleanup"}, 0, {"--keep-bytes", "--confirm-cleanup"}},
    {{"self", "uninstall"}, 0, {}, {"--remove-data"}},
    {{"self", "shortcut", "create"}, 0, {"--game"}},
    {{"self", "shortcut", "remove"}},
    {{"uninstall"}, 1, {"--confirm-game"}, {"--remove-saves"}},
    {{"operations", "list"}},
    {{"operations", "show"}, 1},
    {{"operations", "wait"}, 1},
    {{"operations", "cancel"}, 1},
    {{"operations", "retry"}, 1},
    {{"settings", "get"}},
    {{"settings", "set"}, 2},
    {{"channel", "set"}, 2},
    {{"channel", "unlock"}, 1},
    {{"open"}, 2},
    {{"available"}},
    {{"notices"}},
    {{"service", "status"}, 0, {}, {"--cached"}},
    {{"crashes", "list"}, 0, {}, {"--all"}},
    {{"crashes", "show"}, 1},
    {{"crashes", "discard"}, 1},
    {{"crashes", "restore"}, 1},
    {{"crashes", "cleanup"}},
    {{"crashes", "delete"}, 1, {"--confirm-report"}},
    {{"crashes", "send"}, 1, {"--consent-version"}, {"--age-16-or-older"}},
    {{"agreements"}},
    {{"agreements", "show"}, 1},
    {{"agreements", "agree"}, 1, {"--agreement-version"}, {"--age-16-or-older"}},
    {{"agreements", "withdraw"}, 1},
};

bool holds(const Arguments& list, const std::string& text) {
  return std::find(list.begin(), list.end(), text) != list.end();
}

bool begins_with(const Arguments& arguments, const Arguments& words) {
  return words.size() <= arguments.size() && std::equal(words.begin(), words.end(), arguments.begin());
}

const Command* command_of(const Arguments& arguments) {
  const Command* found = nullptr;
  for (const Command& command : commands) {
    if (begins_with(arguments, command.words) && (found == nullptr || command.words.size() > found->words.size())) {
      found = &command;
    }
  }
  return found;
}

Arguments lines_of(std::string_view text) {
  Arguments lines;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    lines.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

// The arguments that give an entry, with those of its command replaced.
Arguments put_together(const CliEntry& entry, const Arguments& command) {
  Arguments arguments;
  if (entry.help) {
    arguments.emplace_back("--help");
  }
  if (entry.data_dir_given) {
    arguments.insert(arguments.end(), {"--data-dir", entry.data_dir.native()});
  }
  if (entry.json) {
    arguments.emplace_back("--json");
  }
  arguments.insert(arguments.end(), command.begin(), command.end());
  return arguments;
}

void must_read_as(const Arguments& arguments, const CliEntry& entry) {
  const CliEntry again = ravok::parse_cli_entry(arguments, "/default");
  must_hold(again.json == entry.json && again.help == entry.help && again.data_dir_given == entry.data_dir_given &&
                again.data_dir.native() == entry.data_dir.native() && again.arguments == entry.arguments,
            "it reads the same again");
}

// Confirms the shape of a command, and reads it with its options before its operands.
void check_command(const CliEntry& entry) {
  const Command* const command = command_of(entry.arguments);
  must_hold(command != nullptr, "only a known command is accepted");
  Arguments operands;
  Arguments options;
  for (std::size_t i = command->words.size(); i < entry.arguments.size(); ++i) {
    const std::string& argument = entry.arguments[i];
    if (holds(command->values, argument)) {
      must_hold(i + 1 < entry.arguments.size() && !entry.arguments[i + 1].empty(), "an option has its value");
      ++i;
      options.insert(options.end(), {argument, entry.arguments[i]});
    } else if (holds(command->flags, argument)) {
      options.push_back(argument);
    } else {
      must_hold(!argument.starts_with("--") && !argument.empty(), "only a known option is accepted");
      operands.push_back(argument);
    }
  }
  must_hold(operands.size() == command->operands, "a command has its operands");
  CliEntry moved = entry;
  moved.arguments = command->words;
  moved.arguments.insert(moved.arguments.end(), options.begin(), options.end());
  moved.arguments.insert(moved.arguments.end(), operands.begin(), operands.end());
  must_read_as(put_together(entry, moved.arguments), moved);
}

void check(const Arguments& arguments, const CliEntry& entry, bool json_requested) {
  must_hold(arguments.size() <= 128, "the arguments are counted");
  for (const std::string& argument : arguments) {
    must_hold(argument.size() <= 16384 && argument.find('\0') == std::string::npos, "an argument is bounded");
  }
  must_hold(!entry.data_dir.empty(), "there is a data folder");
  must_hold(entry.data_dir_given || entry.data_dir == "/default", "the default is taken where none is given");
  must_hold(json_requested || !entry.json, "JSON that is given was seen beforehand");
  must_read_as(put_together(entry, entry.arguments), entry);
  if (!entry.help) {
    check_command(entry);
  }
}

// Whatever the arguments are, taking an option out of them takes two away, or none.
void check_taking_out(Arguments arguments) {
  const Arguments before = arguments;
  try {
    const bool taken = ravok::cli_option(arguments, "--build", "build").has_value();
    must_hold(arguments.size() + (taken ? 2 : 0) == before.size(), "an option goes with its value");
  } catch (const ravok::Error& refusal) {
    must_hold(refusal.code == "build" && arguments == before, "a refused option stays");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Arguments arguments = lines_of(std::string_view(reinterpret_cast<const char*>(data), size));
  check_taking_out(arguments);
  bool json_requested = false;
  try {
    const CliEntry entry = ravok::parse_cli_entry(arguments, "/default", &json_requested);
    try {
      check(arguments, entry, json_requested);
    } catch (const ravok::Error& refusal) {
      must_hold(false, refusal.what());
    }
  } catch (const ravok::Error& refusal) {
    must_hold(refusal.code == "usage" || refusal.code == "confirmation_required" || refusal.code == "crash_consent" ||
                  refusal.code == "agreement_version",
              "a refusal has a code of its kind");
  }
  must_hold(!json_requested || holds(arguments, "--json"), "JSON is not requested where nobody names it");
  return 0;
}
