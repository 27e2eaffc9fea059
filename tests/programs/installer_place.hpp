// An installer as it is shipped, sealed for a package that lies beside it, and the home of whoever starts it.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/install_place.hpp"
#include "support/process.hpp"

namespace ravok::testing {

class InstallerPlace {
 public:
  InstallerPlace() {
    // Folders that every user's home has. Setup makes them where they are missing, and leaves them.
    place.root().directory("home/.local/share");
    place.package.featured_game.reset();
    publish();
  }

  // Makes the installer of the package as it is now.
  void publish() {
    place.republish();
    std::filesystem::remove_all(folder);
    const ProgramResult published = run_program(
        {RAVOK_PUBLISH, {"installer", place.package_directory(), folder, "--program", RAVOK_INSTALL}, {}, ""});
    ASSERT_EQ(published.exit_code, 0) << published.errors;
    before = place.root().names();
  }

  std::string program() const { return folder / "ravok-install"; }
  std::map<std::string, std::string> environment(std::map<std::string, std::string> more = {}) const {
    more["HOME"] = place.home();
    return more;
  }
  void expect_nothing_left() const { EXPECT_EQ(place.root().names(), before); }

  InstallPlace place;
  const std::filesystem::path folder = place.root() / "installer";
  // All names that were there before the installer was started.
  std::vector<std::string> before;
};

}  // namespace ravok::testing
