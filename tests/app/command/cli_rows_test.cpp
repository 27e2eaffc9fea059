#include "app/command/cli_rows.hpp"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/command/cli_entry.hpp"
#include "domain/error.hpp"

namespace ravok::cli_rows_test {
namespace {

using Arguments = std::vector<std::string>;

// A value that the grammar takes, by the name that the help gives it.
std::string value_for(const std::string& name) {
  if (name == "JSON_VALUE" || name == "BYTES") {
    return "1";
  }
  return name == "SHA256" ? std::string(64, 'a') : "one";
}

// Returns a command line with these options alone.
Arguments line_of(const CommandOutline& command, const std::vector<OptionOutline>& options) {
  Arguments arguments;
  for (std::string_view words = command.words; !words.empty();) {
    arguments.emplace_back(next_word(words));
  }
  for (const OperandOutline& operand : command.operands) {
    arguments.push_back(operand.words.empty() ? value_for(operand.name) : operand.words.front());
  }
  for (const OptionOutline& option : options) {
    arguments.push_back(option.name);
    if (!option.value.empty()) {
      arguments.push_back(value_for(option.value));
    }
  }
  return arguments;
}

bool is_taken(const Arguments& arguments) {
  try {
    parse_cli_entry(arguments, "/data");
    return true;
  } catch (const Error&) {
    return false;
  }
}

std::vector<OptionOutline> required_of(const CommandOutline& command) {
  std::vector<OptionOutline> required;
  std::copy_if(command.options.begin(), command.options.end(), std::back_inserter(required),
               [](const OptionOutline& option) { return option.required; });
  return required;
}

TEST(CliOutline, SaysWhatEveryCommandAndOptionDoes) {
  const ProgramOutline outline = cli_outline("ravok");
  EXPECT_EQ(outline.program, "ravok");
  EXPECT_EQ(outline.options.size(), 3u);
  EXPECT_EQ(outline.commands.size(), 49u);
  for (const CommandOutline& command : outline.commands) {
    EXPECT_NE(command.text, "") << command.words;
    for (const OptionOutline& option : command.options) {
      EXPECT_NE(option.text, "") << command.words << " " << option.name;
    }
  }
}

TEST(CliOutline, HoldsWhatTheGrammarTakesAndNeeds) {
  for (const CommandOutline& command : cli_outline("ravok").commands) {
    const std::vector<OptionOutline> required = required_of(command);
    EXPECT_TRUE(is_taken(line_of(command, required))) << command.words;
    for (std::size_t i = 0; i < required.size(); ++i) {
      std::vector<OptionOutline> fewer = required;
      fewer.erase(fewer.begin() + static_cast<std::ptrdiff_t>(i));
      EXPECT_FALSE(is_taken(line_of(command, fewer))) << command.words << " without " << required[i].name;
    }
    Arguments more = line_of(command, required);
    more.emplace_back("operand");
    EXPECT_FALSE(is_taken(more)) << command.words;
  }
}

TEST(CliOutline, HoldsEachOptionWithOrWithoutAValueAsTheGrammarDoes) {
  for (const CommandOutline& command : cli_outline("ravok").commands) {
    if (command.words == "update") {
      continue;  // its options go together
    }
    for (const OptionOutline& option : command.options) {
      std::vector<OptionOutline> options = required_of(command);
      if (!option.required) {
        options.push_back(option);
      }
      EXPECT_TRUE(is_taken(line_of(command, options))) << command.words << " " << option.name;
    }
  }
  EXPECT_TRUE(is_taken({"update", "one", "--after-exit", "--build", "one", "--session", "one"}));
  EXPECT_TRUE(is_taken({"update", "one", "--launch"}));
}

TEST(CliOutline, NamesThePlacesThatCanBeOpened) {
  for (const char* place : {"content", "saves", "state"}) {
    EXPECT_TRUE(is_taken({"open", "one", place}));
  }
  EXPECT_FALSE(is_taken({"open", "one", "PLACE"}));
  EXPECT_FALSE(is_taken({"open", "one", "content saves"}));
}

TEST(TakesValue, KnowsTheOptionsOfARowByTheirWholeNames) {
  const CliRow row = {.words = "update", .text = "", .values = "--build=BUILD --session=SESSION"};
  EXPECT_TRUE(takes_value(row, "--build"));
  EXPECT_TRUE(takes_value(row, "--session"));
  for (const char* other : {"--buil", "--build=", "--build=BUILD", "BUILD", "", "--", "--build --session"}) {
    EXPECT_FALSE(takes_value(row, other)) << other;
  }
}

}  // namespace
}  // namespace ravok::cli_rows_test
