// Many processes that set up one data folder at once: each gets its work done or a plain answer why not, and what they
// leave is in a known state, from which one more run makes a whole installation.

#include <algorithm>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "domain/error.hpp"
#include "support/failure.hpp"
#include "support/setup_place.hpp"

namespace ravok::testing {
namespace {

using Answers = std::map<std::string, std::set<std::string>>;

constexpr int processes = 8;
// The least number of rounds, and the most: between them, rounds go on until the processes have really met.
constexpr int least_rounds = 25;
constexpr int most_rounds = 500;

// What may be answered besides success, whoever else is at work. Neither a folder nor its lock can be taken while an
// uninstall removes them. A record that an uninstall is removing is not the one that was expected. An install may write
// its status into a folder that an uninstall is removing; a second uninstall then finishes.
const Answers plain_answers = {
    {"install",
     {"already_installed", "busy", "lock_failed", "permissions", "ravok_running", "unsafe_path", "unsupported_schema"}},
    {"repair",
     {"busy", "lock_failed", "not_installed", "permissions", "ravok_running", "unsafe_path", "unsupported_schema"}},
    {"uninstall", {"busy", "file_remove", "lock_failed", "not_installed", "ravok_running"}},
    {"status", {}},
};

// What "permissions" and "unsafe_path" may say: a directory went after it was looked at and before something was made
// in it or it was opened, or the folder is not known as a data folder, as just before an uninstall removes it.
const std::vector<std::string> words_of_the_overtaken = {
    " private directory path changed", " directory ancestry changed", " directory ancestry is missing or linked",
    "permissions: Cannot reserve a new Linux private directory",
    "install unsafe_path: Choose an empty folder or an earlier Ravok data folder"};

bool is_plain(const std::string& action, const std::string& code, const std::string& line) {
  return plain_answers.at(action).contains(code) &&
         ((code != "unsafe_path" && code != "permissions") ||
          std::any_of(words_of_the_overtaken.begin(), words_of_the_overtaken.end(),
                      [&](const std::string& words) { return line.ends_with(words); }));
}

class SetupCrowd : public ::testing::Test {
 protected:
  using Work = std::function<void(std::ostream&)>;

  // Runs each work in a process of its own, all at once, and returns the lines that each has said.
  std::vector<std::vector<std::string>> at_once(const std::vector<Work>& works) const {
    std::vector<pid_t> children;
    const std::filesystem::path gate = place_.root().write("gate", "");
    for (const Work& work : works) {
      const std::filesystem::path said = place_.root() / ("said-" + std::to_string(children.size()));
      const pid_t child = fork();
      if (child == 0) {
        while (access(gate.c_str(), F_OK) == 0) {
        }
        std::ofstream stream(said);
        work(stream);
        stream << "end" << std::endl;
        _exit(0);
      }
      children.push_back(child);
    }
    std::filesystem::remove(gate);
    std::vector<std::vector<std::string>> answers;
    for (const pid_t child : children) {
      int status = 0;
      EXPECT_EQ(waitpid(child, &status, 0), child);
      EXPECT_EQ(status, 0);
      std::istringstream lines(place_.root().read("said-" + std::to_string(answers.size())));
      answers.emplace_back();
      for (std::string line; std::getline(lines, line) && line != "end";) {
        answers.back().push_back(line);
      }
    }
    return answers;
  }

  // Does one action and says "ACTION done" or "ACTION CODE: MESSAGE".
  void answer(std::ostream& stream, const std::string& action) const {
    stream << action << ' ';
    try {
      if (action == "install") {
        place_.install();
      } else if (action == "repair") {
        place_.repair();
      } else if (action == "uninstall") {
        place_.uninstall();
      } else {
        place_.status();
      }
      stream << "done" << std::endl;
    } catch (const Error& error) {
      stream << error.code << ": " << error.what() << std::endl;
    } catch (const std::exception& error) {
      stream << "not an Error: " << error.what() << std::endl;
    }
  }

  const SetupPlace place_;
};

// Whether the folder holds a player's data; without them, it comes and goes as a whole.
class SetupCrowdAtWork : public SetupCrowd, public ::testing::WithParamInterface<bool> {};

TEST_P(SetupCrowdAtWork, LeavesAFolderThatOneMoreRunMakesWhole) {
  const bool with_player_data = GetParam();
  if (with_player_data) {
    place_.write_player_data();
  }
  const std::vector<std::string> actions = {"install", "repair", "uninstall", "status"};
  std::minstd_rand random(1);
  std::map<std::string, int> counts;
  const auto all_was_seen = [&] {
    return counts["install done"] > 0 && counts["repair done"] > 0 && counts["uninstall done"] > 0 &&
           counts["install busy"] + counts["repair busy"] + counts["uninstall busy"] > 0;
  };
  for (int round = 0; round < least_rounds || (!all_was_seen() && round < most_rounds); ++round) {
    std::vector<Work> works;
    for (int process = 0; process < processes; ++process) {
      const std::string action = actions[random() / 7 % actions.size()];
      works.push_back([&, action](std::ostream& stream) {
        answer(stream, action);
        answer(stream, "status");
      });
    }
    for (const auto& lines : at_once(works)) {
      EXPECT_EQ(lines.size(), 2u);
      for (const std::string& line : lines) {
        const std::string action = line.substr(0, line.find(' '));
        const std::string said = line.substr(line.find(' ') + 1, line.find(':') - line.find(' ') - 1);
        ++counts[action + " " + said];
        EXPECT_TRUE(said == "done" || is_plain(action, said, line)) << line;
      }
    }
  }
  for (const auto& [words, count] : counts) {
    std::cout << words << " (" << count << ")\n";
  }
  EXPECT_TRUE(all_was_seen());
  const NativeInstallStatus status = place_.status();
  if (status.installed || status.incomplete) {
    place_.repair();
  } else {
    place_.install();
  }
  place_.expect_complete();
  if (with_player_data) {
    EXPECT_EQ(place_.read("userdata/save"), "a long way");
    EXPECT_EQ(place_.read("settings.json"), "{\"volume\": 11}");
  }
}

INSTANTIATE_TEST_SUITE_P(Folder, SetupCrowdAtWork, ::testing::Bool(),
                         [](const auto& each) { return each.param ? "WithPlayerData" : "WithoutPlayerData"; });

TEST_F(SetupCrowd, OfTwoFirstInstallsOneInstalls) {
  bool met = false;
  for (int round = 0; round < least_rounds || (!met && round < most_rounds); ++round) {
    const Work install = [&](std::ostream& stream) { answer(stream, "install"); };
    int done = 0;
    for (const auto& lines : at_once({install, install})) {
      ASSERT_EQ(lines.size(), 1u);
      const bool busy = lines[0] == "install busy: Another worker owns this native installation";
      met = met || busy;
      done += lines[0] == "install done" ? 1 : 0;
      EXPECT_TRUE(lines[0] == "install done" || busy ||
                  lines[0].starts_with("install already_installed: Ravok is already installed in "))
          << lines[0];
    }
    EXPECT_EQ(done, 1);
    place_.expect_complete();
    place_.uninstall();
    EXPECT_TRUE(is_missing(place_.data()));
  }
  EXPECT_TRUE(met);
}

}  // namespace
}  // namespace ravok::testing
