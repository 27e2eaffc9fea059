// Names that would steer a terminal, wherever a program may meet them. What the program says of them must be harmless.

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "programs/installer_place.hpp"
#include "support/process.hpp"
#include "support/temporary_root.hpp"

namespace ravok {
namespace {

using testing::ProgramResult;
using testing::run_program;
using Arguments = std::vector<std::string>;

struct HostileName {
  std::string name;
  std::string shown;
};

const std::vector<HostileName> hostile_names = {{"a\x1b]0;title\x07z", "a\\x1b]0;title\\x07z"},
                                                {"a\x1b[2Jz", "a\\x1b[2Jz"},
                                                {"a\nz", "a\\x0az"},
                                                {"a\rz", "a\\x0dz"},
                                                {"a\tz", "a\\x09z"},
                                                {"a\x7fz", "a\\x7fz"},
                                                {"a\xc2\x9bz", "a\\xc2\\x9bz"},
                                                {"a\xe2\x80\xaez", "a\\xe2\\x80\\xaez"},
                                                {"a\xe2\x81\xa6z", "a\\xe2\\x81\\xa6z"},
                                                {"a\xffz", "a\\xffz"},
                                                {"a\x9bz", "a\\x9bz"}};

// The text has only lines of printable ASCII, except for the ellipsis after a phase.
void expect_harmless(std::string text) {
  const std::string dots = "…";
  for (std::size_t at = 0; (at = text.find(dots)) != std::string::npos;) {
    text.erase(at, dots.size());
  }
  EXPECT_TRUE(std::all_of(text.begin(), text.end(), [](char c) { return c == '\n' || (c >= 0x20 && c <= 0x7e); }))
      << ::testing::PrintToString(text);
}

void expect_said(const ProgramResult& result, int exit_code, const std::string& output, const std::string& errors) {
  EXPECT_EQ(result.exit_code, exit_code);
  EXPECT_EQ(result.output, output);
  EXPECT_EQ(result.errors, errors);
  expect_harmless(result.output);
  expect_harmless(result.errors);
}

class ShownByInstaller : public ::testing::Test, protected testing::InstallerPlace {
 protected:
  ProgramResult run(const Arguments& arguments) const { return run_program({program(), arguments, environment(), ""}); }
};

TEST_F(ShownByInstaller, DataFoldersAreHarmless) {
  const std::string parent = place.root().path().native() + "/";
  for (const auto& [name, shown] : hostile_names) {
    const Arguments there = {"--data-dir", parent + name};
    expect_said(run({"status", there[0], there[1]}), 0, "Ravok is not installed in " + parent + shown + ".\n", "");
    expect_said(run({"uninstall", there[0], there[1]}), 1, "", "Ravok is not installed in " + parent + shown + "\n");
    const ProgramResult installed = run({"install", there[0], there[1]});
    expect_harmless(installed.output);
    expect_harmless(installed.errors);
    if (installed.exit_code == 0) {
      EXPECT_EQ(installed.output.find("Installed Acme Games in " + parent + shown + "."), 0u) << installed.output;
      EXPECT_EQ(run({"uninstall", "--remove-data", there[0], there[1]}).exit_code, 0);
    }
  }
}

TEST_F(ShownByInstaller, WrongArgumentsAreHarmless) {
  for (const auto& [name, shown] : hostile_names) {
    expect_said(run({name}), 2, "", "Unknown command: " + shown + "\n");
    expect_said(run({"--" + name}), 2, "", "Unknown option: --" + shown + "\n");
  }
}

TEST_F(ShownByInstaller, FilesOfAPackageAreHarmless) {
  for (const auto& [name, shown] : hostile_names) {
    const std::filesystem::path file = folder / "initial-package" / name;
    place.root().write("installer/initial-package/" + name, "");
    expect_said(run({"install"}), 1, "", "Verifying…\nInitial package contains an unexpected entry: " + shown + "\n");
    std::filesystem::remove(file);
    expect_nothing_left();
  }
}

TEST_F(ShownByInstaller, ADocumentIsThereWhateverTheName) {
  const std::string parent = place.root().path().native() + "/";
  for (const auto& [name, shown] : hostile_names) {
    const ProgramResult result = run({"uninstall", "--json", "--data-dir", parent + name});
    const Json problem = Json::parse(result.output).at("problem");
    EXPECT_EQ(problem.at("code"), "not_installed");
    const std::string message = "Ravok is not installed in " + parent;
    EXPECT_EQ(problem.at("message"), message + (is_utf8(name) ? name : shown));
    EXPECT_EQ(result.errors, message + shown + "\n");
    EXPECT_EQ(result.exit_code, 1);
  }
}

class ShownByPublisher : public ::testing::Test {
 protected:
  ShownByPublisher() {
    std::filesystem::permissions(root.write("tree/program", "#!program"), std::filesystem::perms(0755));
  }
  static ProgramResult run(const Arguments& arguments) { return run_program({RAVOK_PUBLISH, arguments, {}, ""}); }
  Arguments snapshot(const std::string& output) const {
    return {"snapshot", root / "tree", "--kind", "game",           "--build-id", "build-1",  "--executable",
            "program",  "--game-id",   "game",   "--display-name", "The Game",   "--output", output};
  }

  const testing::TemporaryRoot root;
};

TEST_F(ShownByPublisher, FilesOfATreeAreHarmless) {
  for (const auto& [name, shown] : hostile_names) {
    const std::filesystem::path file = root.write("tree/" + name, "");
    std::filesystem::permissions(file, std::filesystem::perms(0644));
    const ProgramResult result = run(snapshot(root.directory("output")));
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_NE(result.errors.find(": " + shown + "\n" + shown + ", limit: "), std::string::npos) << result.errors;
    expect_said(result, 1, "", result.errors);
    std::filesystem::remove(file);
  }
}

TEST_F(ShownByPublisher, OutputsAreHarmless) {
  const std::string parent = root.path().native() + "/";
  for (const auto& [name, shown] : hostile_names) {
    root.directory(name);
    const ProgramResult result = run(snapshot(parent + name));
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    EXPECT_NE(result.output.find("\nManifest: " + parent + shown + "/game-"), std::string::npos) << result.output;
    expect_harmless(result.output);
    const ProgramResult again = run(snapshot(parent + name));
    EXPECT_EQ(again.exit_code, 1);
    EXPECT_EQ(again.errors.find("The output already exists: " + parent + shown + "/game-"), 0u) << again.errors;
    expect_harmless(again.errors);
    const ProgramResult key = run({"key", parent + name + "/key"});
    EXPECT_EQ(key.exit_code, 0);
    expect_harmless(key.output);
  }
}

TEST_F(ShownByPublisher, WrongArgumentsAreHarmless) {
  const std::string help = "\nRun with --help for more information.\n";
  for (const auto& [name, shown] : hostile_names) {
    const ProgramResult result = run({"snapshot", "--" + name});
    EXPECT_EQ(result.exit_code, 2);
    expect_harmless(result.errors);
    expect_said(run({"root", root / "root.json", name, "--expires", "x", "--root", "x", "--timestamp", "x",
                     "--snapshot", "x", "--targets", "x"}),
                2, "", "The following argument was not expected: " + shown + help);
  }
}

}  // namespace
}  // namespace ravok
