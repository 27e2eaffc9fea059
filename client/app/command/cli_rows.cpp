#include "app/command/cli_rows.hpp"

#include <array>
#include <charconv>
#include <cstdint>
#include <string>
#include <system_error>

#include "domain/error.hpp"
#include "domain/identifier.hpp"
#include "domain/json.hpp"
#include "domain/text_rules.hpp"

namespace ravok {
namespace {

constexpr std::string_view shortcut_forms = "Use self shortcut create [--game GAME] or self shortcut remove";
constexpr std::string_view places_of_game = "content saves state";

bool fits_64_bits(std::string_view digits) {
  std::uint64_t number = 0;
  return std::from_chars(digits.data(), digits.data() + digits.size(), number).ec == std::errc();
}

void check_cleanup(const CliCommand& command) {
  const std::string_view bytes = command.value("--keep-bytes");
  require(are_digits(bytes), "usage", "Counts and byte budgets must be non-negative decimal integers");
  require(bytes.empty() || fits_64_bits(bytes), "usage", "Count or byte budget exceeds its bound");
  const std::string_view review = command.value("--confirm-cleanup");
  require(review.empty() || is_sha256_text(review), "usage", "Cleanup review must be a SHA-256 digest");
}

void refuse_shortcut(const CliCommand&) { fail("usage", shortcut_forms); }

void check_shortcut_game(const CliCommand& command) {
  if (!command.has("--game")) {
    return;
  }
  try {
    validate_identifier(command.value("--game"));
  } catch (const Error&) {
    fail("usage", "Choose a game after --game");
  }
}

void check_repository(const CliCommand& command) {
  require(command.has("--origin") && command.has("--root"), "usage",
          "Repository setup needs --origin and an out-of-band trusted --root");
}

void check_uninstall(const CliCommand& command) {
  require(command.value("--confirm-game") == command.operands.front(), "confirmation_required",
          "Specify uninstall GAME --confirm-game GAME; add --remove-saves only to delete saves");
}

void check_crash_deletion(const CliCommand& command) {
  require(command.value("--confirm-report") == command.operands.front(), "usage",
          "Confirm the exact report with --confirm-report REPORT");
}

void check_crash_consent(const CliCommand& command) {
  require(command.has("--consent-version"), "crash_consent",
          "Review the report, then supply its exact --consent-version");
}

void check_agreement(const CliCommand& command) {
  require(command.has("--agreement-version"), "agreement_version",
          "Read it with agreements show ID, then agree with --agreement-version VERSION");
}

void check_deferral(const CliCommand& command) {
  require(command.has("--build"), "usage", "Deferral needs --build BUILD");
}

void check_preload_removal(const CliCommand& command) {
  require(command.has("--build"), "usage", "Removing a preload needs GAME --build BUILD");
}

void check_update(const CliCommand& command) {
  const bool after_exit = command.has("--after-exit") && command.has("--build") && !command.has("--launch");
  const bool at_once = !command.has("--after-exit") && !command.has("--build") && !command.has("--session");
  require(after_exit || at_once, "usage",
          "Use update GAME --after-exit --build BUILD [--session SESSION], or update GAME [--launch]");
}

void check_place(const CliCommand& command) {
  const std::string_view place = command.operands.back();
  require(holds_word(places_of_game, place), "usage", "Open expects content, saves or state");
}

void check_setting(const CliCommand& command) {
  try {
    parse_json(command.operands.back(), maximum_cli_argument_bytes);
  } catch (const Error&) {
    fail("usage", "Setting value must be bounded valid JSON");
  }
}

constexpr auto client_rows = std::to_array<CliRow>({
    {.words = "repository configure",
     .text = "Says where updates come from, and which root document is trusted",
     .values = "--origin=HTTPS_ORIGIN --root=FILE --ca-bundle=FILE",
     .required = "--origin --root",
     .rule = check_repository},
    {.words = "list", .text = "Lists the games"},
    {.words = "status", .text = "Says how a game stands", .operands = "GAME"},
    {.words = "manage", .text = "Shows what can be done with a game", .operands = "GAME"},
    {.words = "locations", .text = "Says where a game's files lie", .operands = "GAME"},
    {.words = "install", .text = "Installs a game", .operands = "GAME", .flags = "--launch"},
    {.words = "update",
     .text = "Updates a game, at once or, with --after-exit and --build, when it has ended",
     .operands = "GAME",
     .values = "--build=BUILD --session=SESSION",
     .flags = "--launch --after-exit",
     .rule = check_update},
    {.words = "verify", .text = "Proves a game's files", .operands = "GAME"},
    {.words = "repair", .text = "Replaces a game's files that are damaged", .operands = "GAME"},
    {.words = "rollback", .text = "Goes back to the build before", .operands = "GAME"},
    {.words = "launch", .text = "Starts a game", .operands = "GAME", .flags = "--play-current"},
    {.words = "observe", .text = "Follows a game that runs", .operands = "GAME", .values = "--session=SESSION"},
    {.words = "updates check", .text = "Looks for updates", .flags = "--background"},
    {.words = "updates show", .text = "Shows the update of a game", .operands = "GAME"},
    {.words = "updates defer",
     .text = "Puts the update of a game off",
     .operands = "GAME",
     .values = "--build=BUILD",
     .required = "--build",
     .rule = check_deferral},
    {.words = "preload",
     .text = "Downloads a build before it comes out",
     .operands = "GAME",
     .values = "--build=BUILD"},
    {.words = "preloads", .text = "Lists what was downloaded so"},
    {.words = "preloads discard",
     .text = "Removes what was downloaded so",
     .operands = "GAME",
     .values = "--build=BUILD",
     .required = "--build",
     .rule = check_preload_removal},
    {.words = "self status", .text = "Says which versions of the client there are"},
    {.words = "self update", .text = "Brings the newest version of the client; the next start uses it"},
    {.words = "self cleanup",
     .text = "Removes versions and downloads that nothing needs any more",
     .values = "--keep-bytes=BYTES --confirm-cleanup=SHA256",
     .rule = check_cleanup},
    {.words = "self uninstall",
     .text = "Removes the client; saves and settings stay",
     .flags = "--remove-data",
     .form = "Use self uninstall [--remove-data]"},
    {.words = "self shortcut", .text = "", .rule = refuse_shortcut, .form = shortcut_forms},
    {.words = "self shortcut create",
     .text = "Puts the client, or a game, into the application menu",
     .values = "--game=GAME",
     .rule = check_shortcut_game,
     .form = shortcut_forms},
    {.words = "self shortcut remove",
     .text = "Takes the entries that the client made out of the menu",
     .form = shortcut_forms},
    {.words = "uninstall",
     .text = "Removes a game; its saves stay",
     .operands = "GAME",
     .values = "--confirm-game=GAME",
     .flags = "--remove-saves",
     .required = "--confirm-game",
     .rule = check_uninstall},
    {.words = "operations list", .text = "Lists what is being done"},
    {.words = "operations show", .text = "Shows one operation", .operands = "ID"},
    {.words = "operations wait", .text = "Waits for the end of an operation", .operands = "ID"},
    {.words = "operations cancel", .text = "Stops an operation", .operands = "ID"},
    {.words = "operations retry", .text = "Tries an operation again", .operands = "ID"},
    {.words = "settings get", .text = "Shows the settings"},
    {.words = "settings set", .text = "Changes a setting", .operands = "KEY JSON_VALUE", .rule = check_setting},
    {.words = "channel set", .text = "Chooses a game's channel", .operands = "GAME CHANNEL"},
    {.words = "channel unlock", .text = "Opens a channel with the access code on standard input", .operands = "GAME"},
    {.words = "open", .text = "Shows one of a game's folders", .operands = "GAME PLACE", .rule = check_place},
    {.words = "available", .text = "Lists the games that can be installed"},
    {.words = "notices", .text = "Shows the notices"},
    {.words = "service status", .text = "Says how the service stands", .flags = "--cached"},
    {.words = "crashes list", .text = "Lists the crash reports", .flags = "--all"},
    {.words = "crashes show", .text = "Shows a crash report", .operands = "REPORT"},
    {.words = "crashes discard", .text = "Puts a crash report away", .operands = "REPORT"},
    {.words = "crashes restore", .text = "Takes back that a crash report was put away", .operands = "REPORT"},
    {.words = "crashes cleanup", .text = "Removes crash reports that nothing needs any more"},
    {.words = "crashes delete",
     .text = "Removes a crash report",
     .operands = "REPORT",
     .values = "--confirm-report=REPORT",
     .required = "--confirm-report",
     .rule = check_crash_deletion},
    {.words = "crashes send",
     .text = "Sends a crash report",
     .operands = "REPORT",
     .values = "--consent-version=VERSION",
     .flags = "--age-16-or-older",
     .required = "--consent-version",
     .rule = check_crash_consent},
    {.words = "agreements", .text = "Lists the agreements"},
    {.words = "agreements show", .text = "Shows an agreement", .operands = "ID"},
    {.words = "agreements agree",
     .text = "Agrees to an agreement",
     .operands = "ID",
     .values = "--agreement-version=VERSION",
     .flags = "--age-16-or-older",
     .required = "--agreement-version",
     .rule = check_agreement},
    {.words = "agreements withdraw", .text = "Takes the consent to an agreement back", .operands = "ID"},
});

// What the manual says of an option, which means the same wherever it stands.
struct CliOption {
  std::string_view name;
  std::string_view text;
};

constexpr auto client_option_texts = std::to_array<CliOption>({
    {"--after-exit", "Waits for the end of the game"},
    {"--age-16-or-older", "Says that you are 16 or older"},
    {"--agreement-version", "The version that you have read"},
    {"--all", "Those too that were put away"},
    {"--background", "For a timer: says nothing, and takes it as no failure that there is no network"},
    {"--build", "The build, by its identifier"},
    {"--ca-bundle", "Certificates to trust in place of the system's, a PEM file"},
    {"--cached", "What is known already, without asking the service"},
    {"--confirm-cleanup", "The digest of what was shown to be removed"},
    {"--confirm-game", "The same game once more, as a confirmation"},
    {"--confirm-report", "The same report once more, as a confirmation"},
    {"--consent-version", "The version of the terms that you have read"},
    {"--game", "The game, by its identifier"},
    {"--keep-bytes", "How many bytes of what could be removed may stay"},
    {"--launch", "Starts the game afterwards"},
    {"--origin", "The address of the server, which begins with https://"},
    {"--play-current", "Starts the build that is installed, though there is an update"},
    {"--remove-data", "Removes saves and settings too"},
    {"--remove-saves", "Removes its saves too"},
    {"--root", "The root document, which you have from a source that you trust"},
    {"--session", "The session of the game that runs"},
});

constexpr auto client_global_options = std::to_array<std::array<std::string_view, 3>>({
    {"--data-dir", "PATH", "The folder of the installation, in place of the one that the program lies in"},
    {"--json", "", "Prints the result, or the failure, as one JSON document"},
    {"--help", "", "Prints a short help"},
});

OptionOutline client_option(std::string_view name, std::string_view value, std::string_view required) {
  const auto known = std::find_if(client_option_texts.begin(), client_option_texts.end(),
                                  [&](const CliOption& option) { return option.name == name; });
  const std::string_view text = known == client_option_texts.end() ? std::string_view() : known->text;
  return {std::string(name), std::string(value), std::string(text), holds_word(required, name)};
}

CommandOutline client_command(const CliRow& row) {
  CommandOutline command = {std::string(row.words), std::string(row.text), {}, {}};
  for (std::string_view names = row.operands; !names.empty();) {
    const std::string_view name = next_word(names);
    OperandOutline operand = {std::string(name), "", {}};
    for (std::string_view places = name == "PLACE" ? places_of_game : ""; !places.empty();) {
      operand.words.emplace_back(next_word(places));
    }
    command.operands.push_back(std::move(operand));
  }
  for (std::string_view values = row.values; !values.empty();) {
    const std::string_view value = next_word(values);
    const std::size_t end = value.find('=');
    command.options.push_back(client_option(value.substr(0, end), value.substr(end + 1), row.required));
  }
  for (std::string_view flags = row.flags; !flags.empty();) {
    command.options.push_back(client_option(next_word(flags), "", row.required));
  }
  return command;
}

}  // namespace

std::span<const CliRow> cli_rows() { return client_rows; }

// Takes the first word off a list.
std::string_view next_word(std::string_view& words) {
  const std::string_view word = words.substr(0, words.find(' '));
  words.remove_prefix(std::min(word.size() + 1, words.size()));
  return word;
}

bool holds_word(std::string_view words, std::string_view word) {
  while (!words.empty()) {
    if (next_word(words) == word) {
      return true;
    }
  }
  return false;
}

std::size_t count_words(std::string_view words) {
  std::size_t count = 0;
  while (!words.empty()) {
    next_word(words);
    ++count;
  }
  return count;
}

bool takes_value(const CliRow& row, std::string_view option) {
  for (std::string_view values = row.values; !values.empty();) {
    const std::string_view value = next_word(values);
    if (value.substr(0, value.find('=')) == option) {
      return true;
    }
  }
  return false;
}

ProgramOutline cli_outline(std::string_view program_name) {
  ProgramOutline outline;
  outline.program = program_name;
  for (const auto& [name, value, text] : client_global_options) {
    outline.options.push_back({std::string(name), std::string(value), std::string(text)});
  }
  for (const CliRow& row : client_rows) {
    // Words that lead to commands alone are none.
    if (!row.text.empty()) {
      outline.commands.push_back(client_command(row));
    }
  }
  return outline;
}

}  // namespace ravok
