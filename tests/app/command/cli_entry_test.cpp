#include "app/command/cli_entry.hpp"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "domain/crypto.hpp"
#include "support/failure.hpp"

namespace ravok::cli_entry_test {
namespace {

using Arguments = std::vector<std::string>;

constexpr const char* unknown_command = "Unknown command; run ravok --help";
constexpr const char* operand_count = "Wrong number of command operands; run ravok --help";
constexpr const char* bad_identifier = "Game and build IDs use lower-case letters, digits, dots and hyphens";
constexpr const char* bad_argument = "CLI argument exceeds its bound or contains NUL";
constexpr const char* shortcut_form = "Use self shortcut create [--game GAME] or self shortcut remove";
constexpr const char* uninstall_form = "Use self uninstall [--remove-data]";
constexpr const char* update_form =
    "Use update GAME --after-exit --build BUILD [--session SESSION], or update GAME [--launch]";
constexpr const char* repository_form = "Repository setup needs --origin and an out-of-band trusted --root";
constexpr const char* confirm_game =
    "Specify uninstall GAME --confirm-game GAME; add --remove-saves only to delete saves";
constexpr const char* confirm_report = "Confirm the exact report with --confirm-report REPORT";
constexpr const char* consent = "Review the report, then supply its exact --consent-version";
constexpr const char* agreement = "Read it with agreements show ID, then agree with --agreement-version VERSION";
constexpr const char* bad_setting = "Setting value must be bounded valid JSON";
constexpr const char* bad_place = "Open expects content, saves or state";
constexpr const char* not_digits = "Counts and byte budgets must be non-negative decimal integers";
constexpr const char* no_path = "--data-dir needs a nonempty path";

CliEntry parse(const Arguments& arguments) { return parse_cli_entry(arguments, "/default"); }

// Returns the words of a line, which has one blank between each two.
Arguments words_of(const std::string& line) {
  Arguments words = {""};
  for (const char c : line) {
    if (c == ' ') {
      words.emplace_back();
    } else {
      words.back() += c;
    }
  }
  return words;
}

void accepts_words(const Arguments& arguments) {
  const CliEntry entry = parse(arguments);
  EXPECT_EQ(entry.arguments, arguments);
  EXPECT_EQ(entry.data_dir, "/default");
  EXPECT_FALSE(entry.json || entry.help || entry.data_dir_given);
}

void accepts(const std::string& line) {
  SCOPED_TRACE(line);
  EXPECT_NO_THROW(accepts_words(words_of(line)));
}

void refuses_words(const Arguments& arguments, const std::string& message, const char* code = "usage") {
  EXPECT_FAILURE(parse(arguments), code, message) << ::testing::PrintToString(arguments).substr(0, 500);
}

void refuses(const std::string& line, const std::string& message, const char* code = "usage") {
  refuses_words(words_of(line), message, code);
}

// The row of a command, as a line that has all that the command requires and nothing more.
struct Command {
  const char* words;
  const char* operands = "";
  const char* required = "";
  std::vector<const char*> values = {};
  std::vector<const char*> flags = {};
  // The message for whatever the row does not have, where it is not a common one.
  const char* form = nullptr;

  std::string least() const {
    std::string line = words;
    for (const char* const part : {operands, required}) {
      line += *part == '\0' ? "" : std::string(" ") + part;
    }
    return line;
  }
};

// All commands. What the two options of an update may stand with is tested by itself.
const std::vector<Command> commands = {
    {"repository configure", "", "--origin https://a.example --root /root.json", {"--ca-bundle"}},
    {"list"},
    {"status", "game"},
    {"manage", "game"},
    {"locations", "game"},
    {"install", "game", "", {}, {"--launch"}},
    {"update", "game", "", {}, {"--launch"}},
    {"update", "game", "--after-exit --build b-1", {"--session"}},
    {"verify", "game"},
    {"repair", "game"},
    {"rollback", "game"},
    {"launch", "game", "", {}, {"--play-current"}},
    {"observe", "game", "", {"--session"}},
    {"updates check", "", "", {}, {"--background"}},
    {"updates show", "game"},
    {"updates defer", "game", "--build b-1"},
    {"preload", "game", "", {"--build"}},
    {"preloads"},
    {"preloads discard", "game", "--build b-1"},
    {"self status"},
    {"self update"},
    {"self cleanup"},
    {"self uninstall", "", "", {}, {"--remove-data"}, uninstall_form},
    {"self shortcut create", "", "", {"--game"}, {}, shortcut_form},
    {"self shortcut remove", "", "", {}, {}, shortcut_form},
    {"uninstall", "game", "--confirm-game game", {}, {"--remove-saves"}},
    {"operations list"},
    {"operations show", "id-1"},
    {"operations wait", "id-1"},
    {"operations cancel", "id-1"},
    {"operations retry", "id-1"},
    {"settings get"},
    {"settings set", "a.b true"},
    {"channel set", "game beta"},
    {"channel unlock", "game"},
    {"open", "game saves"},
    {"available"},
    {"notices"},
    {"service status", "", "", {}, {"--cached"}},
    {"crashes list", "", "", {}, {"--all"}},
    {"crashes show", "report-1"},
    {"crashes discard", "report-1"},
    {"crashes restore", "report-1"},
    {"crashes cleanup"},
    {"crashes delete", "report-1", "--confirm-report report-1"},
    {"crashes send", "report-1", "--consent-version 3", {}, {"--age-16-or-older"}},
    {"agreements"},
    {"agreements show", "terms"},
    {"agreements agree", "terms", "--agreement-version 3", {}, {"--age-16-or-older"}},
    {"agreements withdraw", "terms"},
};

TEST(CliGrammar, TakesEveryCommandWithTheLeastThatItNeeds) {
  for (const Command& command : commands) {
    accepts(command.least());
  }
}

TEST(CliGrammar, TakesEveryOptionOfACommandBehindAndBeforeItsOperands) {
  for (const Command& command : commands) {
    const std::string tail = command.least().substr(std::string(command.words).size());
    for (const char* const option : command.values) {
      accepts(command.least() + " " + option + " value");
      accepts(std::string(command.words) + " " + option + " value" + tail);
    }
    for (const char* const flag : command.flags) {
      accepts(command.least() + " " + flag);
      accepts(std::string(command.words) + " " + flag + tail);
    }
  }
}

TEST(CliGrammar, RefusesOneOperandMoreOfEveryCommand) {
  for (const Command& command : commands) {
    refuses(command.least() + " more", command.form != nullptr ? command.form : operand_count);
  }
}

TEST(CliGrammar, RefusesOneOperandFewerOfEveryCommand) {
  for (const Command& command : commands) {
    if (*command.operands != '\0') {
      refuses(command.words, operand_count);
    }
  }
  refuses("channel set game", operand_count);
  refuses("settings set key", operand_count);
  refuses("open game", operand_count);
}

TEST(CliGrammar, RefusesAnOptionThatTheCommandLacks) {
  for (const Command& command : commands) {
    for (const std::string option : {"--bogus", "--", "--json", "--help", "--data-dir", "--Launch"}) {
      refuses(command.least() + " " + option, command.form != nullptr ? command.form : "Unsupported option: " + option);
    }
  }
  refuses("list --launch", "Unsupported option: --launch");
  refuses("install game --play-current", "Unsupported option: --play-current");
  refuses_words({"install", "game", "--launch --launch"}, "Unsupported option: --launch --launch");
  refuses_words({"install", "game", "--launch=1"}, "Unsupported option: --launch=1");
}

TEST(CliGrammar, RefusesARepeatedFlag) {
  for (const Command& command : commands) {
    for (const std::string flag : command.flags) {
      refuses(command.least() + " " + flag + " " + flag,
              command.form != nullptr ? command.form : "Duplicate option: " + flag);
    }
  }
}

TEST(CliGrammar, RefusesARepeatedOption) {
  for (const Command& command : commands) {
    for (const std::string option : command.values) {
      refuses(command.least() + " " + option + " a " + option + " a",
              command.form != nullptr ? command.form : "Duplicate or missing option value: " + option);
    }
  }
  refuses("preloads discard game --build a --build a", "Duplicate or missing option value: --build");
}

TEST(CliGrammar, RefusesAnOptionWithoutItsValue) {
  for (const Command& command : commands) {
    for (const std::string option : command.values) {
      refuses(command.least() + " " + option,
              command.form != nullptr ? command.form : "Duplicate or missing option value: " + option);
      Arguments empty = words_of(command.least());
      empty.insert(empty.end(), {option, ""});
      refuses_words(empty, command.form != nullptr ? command.form : "Option value must not be empty: " + option);
    }
  }
  refuses("uninstall game --confirm-game", "Duplicate or missing option value: --confirm-game");
  refuses("uninstall game --confirm-game ", "Option value must not be empty: --confirm-game");
}

TEST(CliGrammar, TakesAnOptionForTheValueOfTheOptionBeforeIt) {
  accepts("observe game --session --session");
  accepts("observe game --session --json");
  accepts("observe --session -- game");
  accepts("repository configure --origin --root --root --origin");
}

TEST(CliGrammar, RefusesAnEmptyOperand) {
  refuses("status ", "Command operands must not be empty");
  refuses("channel set  beta", "Command operands must not be empty");
  refuses("settings set  1", "Command operands must not be empty");
  refuses("list ", operand_count);
}

TEST(CliGrammar, RefusesUnknownCommands) {
  refuses_words({}, unknown_command);
  for (const char* const line :
       {"", " ", "x", "List", "self", "self x", "updates", "repository", "operations", "settings", "channel", "service",
        "crashes", "-h", "--bogus", "--", "list\n", "updates --background check", "game status"}) {
    refuses(line, unknown_command);
  }
  refuses_words({"updates check"}, unknown_command);
  refuses_words({"--json", "x"}, unknown_command);
}

TEST(CliGrammar, FindsTheCommandOfTheMostWords) {
  refuses("agreements terms", operand_count);
  refuses("preloads game", operand_count);
  refuses("preloads discard", operand_count);
  accepts("status list");
}

TEST(CliGrammar, TakesOnlyIdentifiersForWhatIsNamed) {
  for (const Command& command : commands) {
    const Arguments operands = words_of(command.operands);
    if (*command.operands == '\0' || std::string(command.words) == "settings set") {
      continue;
    }
    const std::size_t named = std::string(command.words) == "open" ? 1 : operands.size();
    for (std::size_t i = 0; i < named; ++i) {
      Arguments line = words_of(command.least());
      for (const char* const bad : {"Game", "a_b", "a/b", "a b", ".", "\xc3\xa4"}) {
        line[words_of(command.words).size() + i] = bad;
        refuses_words(line, bad_identifier);
      }
    }
  }
  refuses_words({"status", std::string(81, 'a')}, bad_identifier);
  accepts_words({"status", std::string(80, 'a')});
  accepts("status -x");
}

TEST(CliGrammar, RefusesAReservedNameWithItsOwnWords) {
  refuses("status con", "Path uses a reserved platform name");
  refuses("preload game --build aux.1", "Path uses a reserved platform name");
  refuses("status game.", "Path is not portable across supported platforms");
}

TEST(CliGrammar, TakesOnlyAnIdentifierForABuild) {
  refuses("preload game --build B", bad_identifier);
  refuses("updates defer game --build a/b", bad_identifier);
  refuses("preloads discard game --build ..", bad_identifier);
  refuses("update game --after-exit --build B", bad_identifier);
}

TEST(CliGrammar, LeavesVersionsSessionsAndPlacesAsTheyAre) {
  accepts("crashes send report-1 --consent-version 2026/A_b");
  accepts("agreements agree terms --agreement-version V:1");
  accepts("observe game --session S_1");
  accepts("repository configure --origin x --root ../a:b --ca-bundle C:\\d");
}

TEST(CliGrammar, BoundsACleanupsBudget) {
  for (const char* const number : {"0", "1", "18446744073709551615", "00018446744073709551615"}) {
    accepts(std::string("self cleanup --keep-bytes ") + number);
  }
  for (const char* const number : {"18446744073709551616", "99999999999999999999999999"}) {
    refuses(std::string("self cleanup --keep-bytes ") + number, "Count or byte budget exceeds its bound");
  }
  for (const char* const number : {"-1", "+1", "1.0", "0x1", " 1", "1e3", "--json", "one"}) {
    refuses_words({"self", "cleanup", "--keep-bytes", number}, not_digits);
  }
}

TEST(CliGrammar, TakesOnlyADigestForACleanupsReview) {
  const std::string digest = std::string(63, 'a') + "0";
  accepts("self cleanup --confirm-cleanup " + digest);
  accepts("self cleanup --confirm-cleanup " + digest + " --keep-bytes 1");
  for (const std::string& bad :
       {digest.substr(1), digest + "0", std::string(64, 'A'), std::string(64, 'g'), std::string("x")}) {
    refuses("self cleanup --confirm-cleanup " + bad, "Cleanup review must be a SHA-256 digest");
  }
  refuses("self cleanup --confirm-cleanup x --keep-bytes x", not_digits);
}

TEST(CliGrammar, NamesTheTwoFormsOfAShortcutCommand) {
  for (const char* const line :
       {"self shortcut", "self shortcut list", "self shortcut --game game", "self shortcut remove --game game",
        "self shortcut create game", "self shortcut create --game", "self shortcut create --game a --game b"}) {
    refuses(line, shortcut_form);
  }
  accepts("self shortcut create --game game");
  for (const char* const game : {"Game", "con", "a_b", "a/b"}) {
    refuses(std::string("self shortcut create --game ") + game, "Choose a game after --game");
  }
}

TEST(CliGrammar, NamesTheFormOfTheClientsOwnRemoval) {
  for (const char* const line : {"self uninstall --bogus", "self uninstall game", "self uninstall ",
                                 "self uninstall --remove-data --remove-data", "self uninstall --remove-data=1"}) {
    refuses(line, uninstall_form);
  }
}

TEST(CliGrammar, WantsOriginAndRootOfARepository) {
  for (const char* const line : {"repository configure", "repository configure --origin a",
                                 "repository configure --root a", "repository configure --ca-bundle a"}) {
    refuses(line, repository_form);
  }
}

TEST(CliGrammar, WantsAnUninstallConfirmed) {
  for (const char* const line :
       {"uninstall game", "uninstall game --confirm-game other", "uninstall game --confirm-game Game",
        "uninstall game --remove-saves", "uninstall game --confirm-game game2 --remove-saves"}) {
    refuses(line, confirm_game, "confirmation_required");
  }
}

TEST(CliGrammar, WantsTheRemovalOfACrashReportConfirmed) {
  refuses("crashes delete report-1", confirm_report);
  refuses("crashes delete report-1 --confirm-report report-2", confirm_report);
}

TEST(CliGrammar, WantsConsentForSendingACrashReport) {
  refuses("crashes send report-1", consent, "crash_consent");
  refuses("crashes send report-1 --age-16-or-older", consent, "crash_consent");
}

TEST(CliGrammar, WantsTheVersionOfAnAgreement) {
  refuses("agreements agree terms", agreement, "agreement_version");
  refuses("agreements agree terms --age-16-or-older", agreement, "agreement_version");
}

TEST(CliGrammar, WantsTheBuildOfADeferralAndOfAPreloadsRemoval) {
  refuses("updates defer game", "Deferral needs --build BUILD");
  refuses("preloads discard game", "Removing a preload needs GAME --build BUILD");
}

TEST(CliGrammar, KeepsTheTwoFormsOfAnUpdateApart) {
  for (const char* const options :
       {"--after-exit", "--after-exit --launch", "--after-exit --build b --launch", "--build b", "--build b --launch",
        "--session s", "--session s --build b", "--after-exit --session s"}) {
    refuses(std::string("update game ") + options, update_form);
  }
}

TEST(CliGrammar, OpensThreePlaces) {
  for (const char* const place : {"content", "saves", "state"}) {
    accepts(std::string("open game ") + place);
  }
  for (const char* const place : {"Saves", "game", "contents", "/"}) {
    refuses(std::string("open game ") + place, bad_place);
  }
}

TEST(CliGrammar, TakesBoundedJsonForASetting) {
  for (const char* const value : {"null", "-1", "\"a b\"", "{\"a\":[1,{}]}", " [] ", "18446744073709551615"}) {
    accepts_words({"settings", "set", "Any/KEY", value});
  }
  const std::string deep = std::string(66, '[') + std::string(66, ']');
  for (const std::string& value :
       {std::string("{"), std::string("a"), std::string("1.5"), std::string("[1,]"), std::string("1 2"),
        std::string("{\"a\":1,\"a\":2}"), std::string("18446744073709551616"), std::string("\xff"), deep}) {
    refuses_words({"settings", "set", "key", value}, bad_setting);
  }
  const std::string longest = "\"" + std::string(16382, 'a') + "\"";
  accepts_words({"settings", "set", "key", longest});
}

TEST(CliEntry, TakesTheGlobalOptionsInAnyOrder) {
  const CliEntry entry = parse({"--data-dir", "/data", "--json", "list"});
  EXPECT_TRUE(entry.json);
  EXPECT_FALSE(entry.help);
  EXPECT_TRUE(entry.data_dir_given);
  EXPECT_EQ(entry.data_dir, "/data");
  EXPECT_EQ(entry.arguments, Arguments{"list"});
  const CliEntry other = parse({"--json", "--help", "--data-dir", "b", "status", "game"});
  EXPECT_TRUE(other.json && other.help && other.data_dir_given);
  EXPECT_EQ(other.data_dir, "b");
  EXPECT_EQ(other.arguments, (Arguments{"status", "game"}));
}

TEST(CliEntry, TakesWhateverStandsBehindTheDataFolderOption) {
  const CliEntry entry = parse({"--data-dir", "--json", "list"});
  EXPECT_FALSE(entry.json);
  EXPECT_EQ(entry.data_dir, "--json");
}

TEST(CliEntry, MarksADataFolderThatIsTheDefaultAsGiven) {
  EXPECT_TRUE(parse({"--data-dir", "/default", "list"}).data_dir_given);
}

TEST(CliEntry, RefusesARepeatedGlobalOption) {
  refuses("--json --json list", "Duplicate global option: --json");
  refuses("--help --json --help", "Duplicate global option: --help");
  refuses("--data-dir a --data-dir b list", "Duplicate global option: --data-dir");
  refuses("--data-dir a --data-dir", "Duplicate global option: --data-dir");
}

TEST(CliEntry, RefusesADataFolderWithoutAPath) {
  refuses("--data-dir", no_path);
  refuses("--data-dir  list", no_path);
  refuses("--json --help --data-dir", no_path);
}

TEST(CliEntry, WantsADataFolder) {
  EXPECT_FAILURE(parse_cli_entry({"list"}, ""), "usage", "Data directory must not be empty");
  EXPECT_FAILURE(parse_cli_entry({"--help"}, ""), "usage", "Data directory must not be empty");
  EXPECT_FAILURE(parse_cli_entry({"x"}, ""), "usage", "Data directory must not be empty");
  EXPECT_EQ(parse_cli_entry({"--data-dir", "a", "list"}, "").data_dir, "a");
}

TEST(CliEntry, DoesNotCheckTheCommandWhenHelpIsWanted) {
  const CliEntry bare = parse({"--help"});
  EXPECT_TRUE(bare.help);
  EXPECT_TRUE(bare.arguments.empty());
  EXPECT_EQ(parse({"--help", "x", "--y", ""}).arguments, (Arguments{"x", "--y", ""}));
}

TEST(CliEntry, BoundsTheNumberOfArguments) {
  Arguments arguments(128, "x");
  arguments[0] = "--help";
  EXPECT_EQ(parse(arguments).arguments.size(), 127u);
  arguments.emplace_back("x");
  refuses_words(arguments, "CLI invocation exceeds 128 arguments");
}

TEST(CliEntry, BoundsEachArgument) {
  const std::string longest(16384, 'x');
  accepts_words({"observe", "game", "--session", longest});
  refuses_words({"observe", "game", "--session", longest + "x"}, bad_argument);
  EXPECT_EQ(parse({"--data-dir", longest, "list"}).data_dir, longest);
  refuses_words({"--data-dir", longest + "x", "list"}, bad_argument);
  refuses_words({"--help", longest + "x"}, bad_argument);
}

TEST(CliEntry, RefusesBytesBehindANul) {
  using namespace std::string_literals;
  refuses_words({"list\0"s}, bad_argument);
  refuses_words({"list\0 --json"s}, bad_argument);
  refuses_words({"status", "game\0x"s}, bad_argument);
  refuses_words({"--data-dir", "a\0b"s, "list"}, bad_argument);
  refuses_words({"--help", "\0"s}, bad_argument);
}

bool asks_for_json(const Arguments& arguments) {
  bool requested = false;
  try {
    parse_cli_entry(arguments, "/default", &requested);
  } catch (const Error&) {
    // Only what was found before the refusal matters here.
  }
  return requested;
}

TEST(CliEntry, SaysThatJsonWasRequestedEvenOfARefusedLine) {
  EXPECT_TRUE(asks_for_json({"--json", "list"}));
  EXPECT_TRUE(asks_for_json({"--help", "--json"}));
  EXPECT_TRUE(asks_for_json({"--data-dir", "a", "--json", "x"}));
  EXPECT_TRUE(asks_for_json({"--json", "--json"}));
  EXPECT_TRUE(asks_for_json({"--json", std::string(16385, 'x')}));
  EXPECT_TRUE(asks_for_json([] {
    Arguments arguments(129, "x");
    arguments.front() = "--json";
    return arguments;
  }()));
}

TEST(CliEntry, SaysThatJsonWasRequestedBehindTheCommand) {
  bool requested = false;
  EXPECT_FAILURE(parse_cli_entry({"list", "--json"}, "/default", &requested), "usage", "Unsupported option: --json");
  EXPECT_TRUE(requested);
  EXPECT_TRUE(asks_for_json({"status", "game", "--json"}));
  EXPECT_TRUE(asks_for_json({"list", "--data-dir", "--json"}));
}

TEST(CliEntry, TakesNoDataFolderForARequestForJson) {
  EXPECT_FALSE(asks_for_json({"--data-dir", "--json", "list"}));
  EXPECT_FALSE(asks_for_json({"--help", "--data-dir", "--json"}));
  EXPECT_FALSE(asks_for_json({"list"}));
  EXPECT_FALSE(asks_for_json({"--jso", "--JSON", "json"}));
  EXPECT_FALSE(asks_for_json({}));
}

TEST(CliEntry, LeavesAnEarlierRequestForJson) {
  bool requested = true;
  parse_cli_entry({"list"}, "/default", &requested);
  EXPECT_TRUE(requested);
}

BootstrapEntry bootstrap_entry_of(const Arguments& arguments) { return parse_bootstrap_entry(arguments); }

void expect_entry(const Arguments& given, const char* interface, const Arguments& handed_on) {
  const BootstrapEntry entry = bootstrap_entry_of(given);
  EXPECT_EQ(entry.interface, interface) << ::testing::PrintToString(given);
  EXPECT_EQ(entry.arguments, handed_on) << ::testing::PrintToString(given);
}

TEST(BootstrapEntry, MeansTheWindowWithoutACommandOrToLaunchAGame) {
  expect_entry({}, "gui", {});
  expect_entry({"--launch", "game"}, "gui", {"--launch", "game"});
  expect_entry({"--data-dir", "/data"}, "gui", {});
  expect_entry({"--data-dir", "/data", "--launch", "game"}, "gui", {"--launch", "game"});
  // What stands behind --launch is the launcher's to judge.
  for (const char* const word : {"", "--", "--json", "--help", "--data-dir", "Game"}) {
    expect_entry({"--launch", word}, "gui", {"--launch", word});
  }
}

TEST(BootstrapEntry, MeansTheConsoleOtherwise) {
  for (const Arguments& arguments : {Arguments{"list"},
                                     {"self", "status"},
                                     {"--json"},
                                     {"--help"},
                                     {"--launch"},
                                     {"--launch", "game", "more"},
                                     {"launch", "game"},
                                     {""},
                                     {"--"},
                                     {"-h"},
                                     {"--json", "--launch", "game"},
                                     {"--", "--launch"},
                                     {"--bogus"},
                                     {"list", "--data-dir", "/data"},
                                     {"--launch", "game", "--data-dir", "/data"}}) {
    expect_entry(arguments, "cli", arguments);
  }
}

TEST(BootstrapEntry, TakesTheDataFolderOutOfTheGlobalOptions) {
  for (const Arguments& arguments :
       {Arguments{"--data-dir", "/data", "--json", "list"}, {"--json", "--data-dir", "/data", "list"}}) {
    const BootstrapEntry entry = bootstrap_entry_of(arguments);
    EXPECT_EQ(entry.data_dir, "/data");
    EXPECT_EQ(entry.arguments, (Arguments{"--json", "list"}));
    EXPECT_EQ(entry.interface, "cli");
    EXPECT_FALSE(entry.help);
  }
  EXPECT_EQ(bootstrap_entry_of({"--data-dir", "--json", "list"}).data_dir, "--json");
  EXPECT_EQ(bootstrap_entry_of({"list", "--data-dir", "/data"}).data_dir, std::nullopt);
  EXPECT_EQ(bootstrap_entry_of({}).data_dir, std::nullopt);
}

TEST(BootstrapEntry, SaysThatHelpIsWantedAndHandsItOn) {
  for (const Arguments& arguments : {Arguments{"--help"}, {"--help", "--launch", "game"}, {"--help", "--bogus"}}) {
    const BootstrapEntry entry = bootstrap_entry_of(arguments);
    EXPECT_TRUE(entry.help);
    EXPECT_EQ(entry.arguments, arguments);
    EXPECT_EQ(entry.interface, "cli");
  }
  const BootstrapEntry both = bootstrap_entry_of({"--help", "--data-dir", "/data", "--json"});
  EXPECT_TRUE(both.help);
  EXPECT_EQ(both.data_dir, "/data");
  EXPECT_EQ(both.arguments, (Arguments{"--json", "--help"}));
  // Behind the command it is the command's.
  EXPECT_FALSE(bootstrap_entry_of({"list", "--help"}).help);
}

TEST(BootstrapEntry, RefusesWrongGlobalOptionsAsTheClientDoes) {
  const auto refuses = [](const Arguments& arguments, const std::string& message) {
    EXPECT_FAILURE(parse_bootstrap_entry(arguments), "usage", message);
  };
  for (const char* const option : {"--json", "--help"}) {
    refuses({option, option}, std::string("Duplicate global option: ") + option);
  }
  refuses({"--data-dir", "/a", "--data-dir", "/b"}, "Duplicate global option: --data-dir");
  refuses({"--data-dir"}, no_path);
  refuses({"--data-dir", ""}, no_path);
  refuses({"--launch", std::string(16'385, 'x')}, bad_argument);
  refuses({"--launch", std::string("a\0b", 3)}, bad_argument);
  refuses(Arguments(129, "list"), "CLI invocation exceeds 128 arguments");
  expect_entry(Arguments(128, "list"), "cli", Arguments(128, "list"));
}

TEST(BootstrapEntry, SaysThatJsonWasRequestedEvenOfARefusedLine) {
  for (const Arguments& arguments :
       {Arguments{"--json"}, {"list", "--json"}, {"--help", "--json"}, {"--data-dir", "/data", "--json"}}) {
    bool json = false;
    parse_bootstrap_entry(arguments, &json);
    EXPECT_TRUE(json) << ::testing::PrintToString(arguments);
  }
  for (const Arguments& arguments : {Arguments{"--json", "--json"}, {"--json", "--data-dir"}}) {
    bool json = false;
    EXPECT_EQ(testing::failure_of([&] { parse_bootstrap_entry(arguments, &json); })->code, "usage");
    EXPECT_TRUE(json) << ::testing::PrintToString(arguments);
  }
  for (const Arguments& arguments : {Arguments{}, {"list"}, {"--data-dir", "--json"}}) {
    bool json = false;
    parse_bootstrap_entry(arguments, &json);
    EXPECT_FALSE(json) << ::testing::PrintToString(arguments);
  }
}

TEST(CliOption, TakesTheOptionAndItsValueOut) {
  Arguments arguments = {"observe", "--session", "--x", "game"};
  EXPECT_EQ(cli_option(arguments, "--session", "usage"), "--x");
  EXPECT_EQ(arguments, (Arguments{"observe", "game"}));
  EXPECT_EQ(cli_option(arguments, "--session", "usage"), std::nullopt);
  EXPECT_EQ(arguments, (Arguments{"observe", "game"}));
}

TEST(CliOption, RefusesWithTheGivenCodeAndLeavesTheArguments) {
  using namespace std::string_literals;
  const auto refuses_option = [](const Arguments& given, const std::string& message) {
    Arguments arguments = given;
    EXPECT_FAILURE(cli_option(arguments, "--build", "some_code"), "some_code", message);
    EXPECT_EQ(arguments, given);
  };
  refuses_option({"--build"}, "Duplicate or missing option value: --build");
  refuses_option({"--build", "a", "--build", "a"}, "Duplicate or missing option value: --build");
  refuses_option({"--build", "--build"}, "Duplicate or missing option value: --build");
  refuses_option({"--build", "", "x"}, "Option needs a nonempty value: --build");
  refuses_option({"--build", std::string(16385, 'a')}, "CLI option value exceeds its bound or contains NUL");
  refuses_option({"--build", "a\0"s}, "CLI option value exceeds its bound or contains NUL");
}

TEST(CliOption, TakesAValueOfTheLargestSize) {
  Arguments arguments = {"--build", std::string(16384, 'a')};
  EXPECT_EQ(cli_option(arguments, "--build", "usage"), std::string(16384, 'a'));
  EXPECT_TRUE(arguments.empty());
}

TEST(CliFlag, TakesTheFlagOut) {
  Arguments arguments = {"install", "--launch", "game"};
  EXPECT_TRUE(cli_flag(arguments, "--launch"));
  EXPECT_EQ(arguments, (Arguments{"install", "game"}));
  EXPECT_FALSE(cli_flag(arguments, "--launch"));
  EXPECT_EQ(arguments, (Arguments{"install", "game"}));
}

TEST(CliFlag, RefusesARepeatedFlagAndLeavesTheArguments) {
  Arguments arguments = {"--launch", "game", "--launch"};
  EXPECT_FAILURE(cli_flag(arguments, "--launch"), "usage", "Duplicate option: --launch");
  EXPECT_EQ(arguments, (Arguments{"--launch", "game", "--launch"}));
}

TEST(CliHelp, IsTheKnownText) {
  const std::string help = cli_help();
  EXPECT_EQ(help.size(), 1402u);
  EXPECT_EQ(digest(help, "sha256"), "9d97eb530e46aa6ec9b2f9e0e3dbae117b115e42196f54bc8e9cc12e4849d445");
  EXPECT_TRUE(help.starts_with("Ravok 0.1.0\nUsage: ravok [--data-dir PATH] [--json] COMMAND\n"));
  EXPECT_TRUE(help.ends_with("\nCommands share the GUI backend.\n"));
}

TEST(CliHelp, NamesTheFirstWordOfEveryCommand) {
  for (const Command& command : commands) {
    EXPECT_NE(cli_help().find(words_of(command.words).front()), std::string::npos) << command.words;
  }
}

}  // namespace
}  // namespace ravok::cli_entry_test
