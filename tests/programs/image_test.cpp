// A program whose own file is gone, or replaced by another, by the time it asks for its path.

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "domain/json.hpp"
#include "support/install_place.hpp"
#include "support/process.hpp"
#include "support/temporary_root.hpp"

namespace ravok {
namespace {

using testing::ProgramResult;
using testing::run_program;

constexpr const char* unknown = "Cannot identify this native executable within its path bound";

class MovedImage : public ::testing::Test {
 protected:
  MovedImage() {
    root.directory("home");
    std::filesystem::copy_file(RAVOK_MAINTENANCE, image);
  }

  // Starts the program from its open file, after the shell's commands were run on its path, which is $0.
  ProgramResult run_after(const std::string& commands, const std::string& option = "status") const {
    return run_program({"/bin/sh",
                        {"-c", "exec 9<\"$0\"; " + commands + "; exec /proc/self/fd/9 status \"$@\"", image, option},
                        {{"HOME", root / "home"}, {"PATH", "/usr/bin:/bin"}},
                        ""});
  }
  void expect_unknown(const std::string& commands) const {
    const ProgramResult result = run_after(commands, "--json");
    EXPECT_EQ(result.exit_code, 1) << commands;
    EXPECT_EQ(Json::parse(result.output),
              (Json{{"schema_version", 1}, {"problem", {{"code", "launcher_identity"}, {"message", unknown}}}}));
    EXPECT_EQ(result.errors, std::string(unknown) + "\n");
  }

  const testing::TemporaryRoot root;
  const std::filesystem::path image = root / "program";
};

TEST_F(MovedImage, HasNoPathWhenItIsGoneOrReplaced) {
  expect_unknown("rm \"$0\"");
  std::filesystem::copy_file(RAVOK_MAINTENANCE, image);
  expect_unknown("cp \"$0\" \"$0.new\"; mv \"$0.new\" \"$0\"");
  // The path that the system then reports is that of another file.
  expect_unknown("cp \"$0\" \"$0 (deleted)\"; rm \"$0\"");
}

TEST_F(MovedImage, IsFoundWhereItWasMovedTo) {
  const std::filesystem::path unfinished = root.directory("unfinished");
  root.write("unfinished/.ravok-setup-incomplete", "");
  const ProgramResult result = run_after("mv \"$0\" '" + (unfinished / "program (deleted)").native() + "'", "--json");
  EXPECT_EQ(Json::parse(result.output).at("problem").at("message"),
            "Ravok setup did not finish in " + unfinished.native() + ". Run the Ravok installer again to repair it.");
  EXPECT_EQ(result.exit_code, 1);
}

TEST(InstalledImage, RemovesItselfWithItsInstallation) {
  testing::InstallPlace place;
  place.package.featured_game.reset();
  place.republish();
  place.install();
  const std::filesystem::path program = place.data() / "native/bootstrap/bin/ravok-maintenance";
  std::filesystem::copy_file(RAVOK_MAINTENANCE, program);
  const ProgramResult result =
      run_program({program, {"uninstall", "--remove-data", "--data-dir", place.data()}, {{"HOME", place.home()}}, ""});
  EXPECT_EQ(result.errors, "Removing…\n");
  EXPECT_EQ(result.output, "Removed Acme Games from " + place.data().native() + ".\n");
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_FALSE(std::filesystem::exists(place.data()));
}

}  // namespace
}  // namespace ravok
