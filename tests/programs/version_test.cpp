// What every program says when it is asked for its version or its help, wherever it is started.

#include <algorithm>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "app/command/program_commit.hpp"
#include "app/command/program_version.hpp"
#include "platform/file/files.hpp"
#include "support/process.hpp"

namespace ravok::version_test {
namespace {

using testing::ProgramResult;
using testing::run_program;

struct Program {
  std::string path;
  ProgramVersion version;
};

// All programs, those with a window last: whether there are any is up to the build.
std::vector<Program> all_programs() {
  std::vector<Program> programs = {
      {RAVOK_INSTALL, {"ravok-install", program_commit()}},
      {RAVOK_MAINTENANCE, {"ravok-maintenance", program_commit()}},
      {RAVOK_BOOTSTRAP, {"ravok-bootstrap", program_commit()}},
      {RAVOK_PUBLISH, {"ravok-publish", program_commit()}},
      {RAVOK_LAUNCHER, {"ravok", program_commit(), RAVOK_LAUNCHER_BUILD_ID}},
      {RAVOK_LAUNCHER_GUI, {"ravok-gui", program_commit(), RAVOK_LAUNCHER_BUILD_ID}},
  };
  std::string_view with_window = RAVOK_WINDOW_PROGRAMS;
  while (!with_window.empty()) {
    const std::string_view path = with_window.substr(0, with_window.find(':'));
    programs.push_back({std::string(path), {path.substr(path.rfind('/') + 1), program_commit()}});
    with_window.remove_prefix(std::min(path.size() + 1, with_window.size()));
  }
  return programs;
}

const std::vector<Program> programs = all_programs();

using Environment = std::map<std::string, std::string>;

// No home, and none that could be one.
const Environment homes[] = {{}, {{"HOME", ""}}, {{"HOME", "relative"}}};

// What programs tell each other, and get from nobody else.
const Environment odd_surroundings[] = {{},
                                        {{"HOME", ""}},
                                        {{"HOME", "relative"}},
                                        {{"RAVOK_LAUNCHER_INTERRUPT_READER", "2:7"}},
                                        {{"RAVOK_MAINTENANCE_COPY", "/nowhere"}},
                                        {{"RAVOK_LAUNCHER_HEALTH_NONCE", "x"}}};

// No program needs a home, an installation or its own surroundings for this.
ProgramResult run(const Program& program, const std::vector<std::string>& arguments,
                  const std::string& output_path = "") {
  return run_program({program.path, arguments, {}, output_path});
}

TEST(Version, IsThatOfTheProject) { EXPECT_EQ(client_version, RAVOK_VERSION); }

TEST(Version, IsTheNewestOfTheListOfChanges) {
  const std::string changes = read_file(RAVOK_CHANGES, 1'048'576);
  const std::string heading = "\n## " + std::string(client_version) + " (" + std::string(client_version_date) + ")\n";
  EXPECT_NE(changes.find(heading), std::string::npos);
  EXPECT_EQ(changes.find(heading), changes.find("\n## "));
}

TEST(Version, IsToldByEveryProgramInWords) {
  for (const Program& program : programs) {
    const ProgramResult result = run(program, {"--version"});
    EXPECT_EQ(result.exit_code, 0) << program.path;
    EXPECT_EQ(result.output, version_text(program.version));
    EXPECT_EQ(result.errors, "");
  }
}

TEST(Version, IsToldByEveryProgramAsADocument) {
  for (const Program& program : programs) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"--version", "--json"}, {"--json", "--version"}}) {
      const ProgramResult result = run(program, arguments);
      EXPECT_EQ(result.exit_code, 0) << program.path;
      EXPECT_EQ(result.output, version_document(program.version).dump() + "\n");
      EXPECT_EQ(result.errors, "");
    }
  }
}

TEST(Version, StandsBesideNoCommand) {
  const struct {
    const Program& program;
    std::vector<std::string> arguments;
    std::string errors;
  } cases[] = {
      {programs.at(0), {"status", "--version"}, "Unknown option: --version\n"},
      {programs.at(0), {"--version", "status"}, "Unknown option: --version\n"},
      {programs.at(1), {"status", "--version"}, "Unknown option: --version\n"},
      {programs.at(1), {"--version", "status"}, "Unknown option: --version\n"},
      {programs.at(3),
       {"--version", "key"},
       "--version stands alone, or beside --json\nRun with --help for more information.\n"},
      {programs.at(3),
       {"--version", "--version"},
       "--version stands alone, or beside --json\nRun with --help for more information.\n"},
      {programs.at(3),
       {"key", "key", "--version"},
       "The following argument was not expected: --version\nRun with --help for more information.\n"},
      {programs.at(4), {"self", "status", "--version"}, "Unsupported option: --version\n"},
      {programs.at(4), {"--version", "self", "status"}, "Unknown command; run ravok --help\n"},
      {programs.at(5), {"--launch", "game", "--version"}, "--version stands alone, or beside --json\n"},
  };
  for (const auto& [program, arguments, errors] : cases) {
    const ProgramResult result = run_program({program.path, arguments, {{"HOME", "/nowhere"}}, ""});
    EXPECT_EQ(result.exit_code, 2) << program.path;
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, errors);
  }
}

TEST(Version, IsRefusedBesideACommandInADocumentToo) {
  for (const Program& program : {programs.at(3), programs.at(4)}) {
    const ProgramResult result = run(program, {"--version", "key", "--json"});
    EXPECT_EQ(result.exit_code, 2) << program.path;
    EXPECT_EQ(Json::parse(result.output).at("problem").at("code"), "usage");
    EXPECT_NE(result.errors, "");
  }
}

TEST(Version, NeedsNothingOfItsSurroundings) {
  for (const Program& program : programs) {
    for (const Environment& environment : odd_surroundings) {
      const ProgramResult result = run_program({program.path, {"--version"}, environment, ""});
      EXPECT_EQ(result.exit_code, 0) << program.path << result.errors;
      EXPECT_EQ(result.output, version_text(program.version));
      EXPECT_EQ(result.errors, "");
    }
  }
}

TEST(Help, NeedsNoHome) {
  for (const Program& program : programs) {
    // A launcher's entry with a window has no help.
    if (program.path == RAVOK_LAUNCHER_GUI) {
      continue;
    }
    const ProgramResult whole = run_program({program.path, {"--help"}, {{"HOME", "/nowhere"}}, ""});
    EXPECT_EQ(whole.exit_code, 0) << program.path;
    EXPECT_NE(whole.output.find("Usage: "), std::string::npos) << whole.output;
    for (const Environment& environment : homes) {
      const ProgramResult result = run_program({program.path, {"--help"}, environment, ""});
      EXPECT_EQ(result.exit_code, 0) << program.path;
      EXPECT_EQ(result.output, whole.output);
      EXPECT_EQ(result.errors, "");
    }
  }
}

TEST(Version, FailsWhereItCannotBePrinted) {
  for (const Program& program : programs) {
    const ProgramResult result = run(program, {"--version"}, "/dev/full");
    EXPECT_EQ(result.exit_code, 1) << program.path;
    EXPECT_EQ(result.errors, "Cannot write to standard output\n");
  }
}

}  // namespace
}  // namespace ravok::version_test
