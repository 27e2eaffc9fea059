// Programs that are started without some of the three standard streams. No file that they open may get the number of a
// stream, or what they say would go into that file.

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "programs/installer_place.hpp"
#include "programs/started_program.hpp"
#include "support/few_descriptors.hpp"
#include "support/temporary_root.hpp"

namespace ravok {
namespace {

using testing::ProgramStart;
using testing::StartedProgram;
using Arguments = std::vector<std::string>;
using Descriptors = std::vector<int>;

const std::vector<Descriptors> closed_descriptors = {{0}, {1}, {2}, {0, 1}, {0, 2}, {1, 2}, {0, 1, 2}};

bool has(const Descriptors& closed, int descriptor) {
  return std::find(closed.begin(), closed.end(), descriptor) != closed.end();
}

struct Said {
  int exit_code;
  std::string output;
  std::string errors;
};

Said said_by(const ProgramStart& start) {
  StartedProgram program(start);
  Said said{0, program.output(), program.errors()};
  said.exit_code = program.wait();
  return said;
}

// The program says what it says with all streams, except on those that it does not have.
void expect_as_ever(ProgramStart start, const Descriptors& closed) {
  const Said whole = said_by(start);
  EXPECT_NE(whole.output + whole.errors, "");
  start.closed = closed;
  const Said said = said_by(start);
  EXPECT_EQ(said.exit_code, whole.exit_code);
  EXPECT_EQ(said.output, has(closed, 1) ? "" : whole.output);
  EXPECT_EQ(said.errors, has(closed, 2) ? "" : whole.errors);
}

TEST(ProgramWithoutStreams, SaysWhatItSaysOtherwise) {
  for (const Descriptors& closed : closed_descriptors) {
    for (const char* const program : {RAVOK_INSTALL, RAVOK_MAINTENANCE}) {
      for (const Arguments& arguments : {Arguments{"--help"}, {"--version"}}) {
        expect_as_ever({.program = program, .arguments = arguments, .environment = {}}, closed);
      }
    }
    for (const Arguments& arguments : {Arguments{"status"}, {"bogus"}}) {
      expect_as_ever({.program = RAVOK_MAINTENANCE, .arguments = arguments, .environment = {{"HOME", "/nowhere"}}},
                     closed);
    }
    for (const char* const program : {RAVOK_BOOTSTRAP, RAVOK_LAUNCHER, RAVOK_PUBLISH}) {
      for (const Arguments& arguments : {Arguments{"--help"}, {"--version"}, {"bogus"}}) {
        expect_as_ever({.program = program, .arguments = arguments, .environment = {}}, closed);
      }
    }
  }
}

TEST(ProgramWithoutStreams, WritesNothingButTheFilesOfAKeyIntoThem) {
  for (const Descriptors& closed : closed_descriptors) {
    const testing::TemporaryRoot root;
    const Said said =
        said_by({.program = RAVOK_PUBLISH, .arguments = {"key", root / "key"}, .environment = {}, .closed = closed});
    EXPECT_EQ(said.exit_code, 0);
    EXPECT_EQ(root.names(), (std::vector<std::string>{"key", "key.pub"}));
    EXPECT_EQ(Json::parse(root.read("key.pub")).at("scheme"), "ed25519");
  }
}

class InstallerWithoutStreams : public ::testing::Test, protected testing::InstallerPlace {
 protected:
  ProgramStart start(const std::string& command, const Descriptors& closed) const {
    return {.program = program(),
            .arguments = {command, "--data-dir", place.data()},
            .environment = environment(),
            .closed = closed};
  }
  void expect_done(const std::string& command, const Descriptors& closed, const std::string& output) const {
    const Said said = said_by(start(command, closed));
    EXPECT_EQ(said.exit_code, 0) << command << said.errors;
    EXPECT_EQ(said.output, has(closed, 1) ? "" : output);
    for (const std::filesystem::path& lock : {place.paths().setup_lock, place.paths().bootstrap_lock}) {
      EXPECT_TRUE(!std::filesystem::exists(lock) || std::filesystem::is_empty(lock)) << lock;
    }
  }
  const std::string data = place.data();
};

TEST_F(InstallerWithoutStreams, LeadsThroughTheLifeOfAnInstallation) {
  for (const Descriptors& closed : closed_descriptors) {
    expect_done("status", closed, "Ravok is not installed in " + data + ".\n");
    expect_done("install", closed, "Installed Acme Games in " + data + ".\n");
    EXPECT_TRUE(std::filesystem::exists(place.paths().setup_lock));
    expect_done("repair", closed, "Repaired Acme Games in " + data + ". Everything was already intact.\n");
    place.write("native/bootstrap/data/notes", "changed");
    expect_done("repair", closed, "Repaired Acme Games in " + data + ".\n");
    expect_done("uninstall", closed, "Removed Acme Games from " + data + ".\n");
  }
}

TEST_F(InstallerWithoutStreams, LeavesAnInstallationThatIsRepairedAndRemovedWithThem) {
  for (const Descriptors& closed : closed_descriptors) {
    expect_done("install", closed, "Installed Acme Games in " + data + ".\n");
    expect_done("repair", {}, "Repaired Acme Games in " + data + ". Everything was already intact.\n");
    expect_done("uninstall", {}, "Removed Acme Games from " + data + ".\n");
  }
}

TEST_F(InstallerWithoutStreams, DoesNothingWhenItCannotHaveAnyInTheirPlace) {
  if (!testing::can_do_without_descriptors) {
    GTEST_SKIP() << "the sanitizer needs descriptors of its own";
  }
  ProgramStart limited = start("install", {0, 1});
  // Descriptors are left for the first stream and not for the second.
  limited.descriptor_limit = 1;
  const Said said = said_by(limited);
  EXPECT_EQ(said.exit_code, 1);
  EXPECT_EQ(said.errors, "");
  expect_nothing_left();
}

}  // namespace
}  // namespace ravok
