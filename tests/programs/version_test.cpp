// What every program says when it is asked for its version.

#include <string>
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

const Program programs[] = {
    {RAVOK_INSTALL, {"ravok-install", program_commit()}},
    {RAVOK_MAINTENANCE, {"ravok-maintenance", program_commit()}},
    {RAVOK_BOOTSTRAP, {"ravok-bootstrap", program_commit()}},
    {RAVOK_PUBLISH, {"ravok-publish", program_commit()}},
    {RAVOK_LAUNCHER, {"ravok", program_commit(), RAVOK_LAUNCHER_BUILD_ID}},
    {RAVOK_LAUNCHER_GUI, {"ravok-gui", program_commit(), RAVOK_LAUNCHER_BUILD_ID}},
};

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

TEST(Version, IsNoWordOfAnyGrammar) {
  const struct {
    const Program& program;
    std::vector<std::string> arguments;
    std::string errors;
  } cases[] = {{programs[0], {"status", "--version"}, "Unknown option: --version\n"},
               {programs[1], {"status", "--version"}, "Unknown option: --version\n"},
               {programs[4], {"self", "status", "--version"}, "Unsupported option: --version\n"}};
  for (const auto& [program, arguments, errors] : cases) {
    const ProgramResult result = run_program({program.path, arguments, {{"HOME", "/nowhere"}}, ""});
    EXPECT_EQ(result.exit_code, 2) << program.path;
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, errors);
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
