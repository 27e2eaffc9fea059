// The desktop entry beside an installer in a folder, opened as a file manager opens it.

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "domain/json.hpp"
#include "programs/installer_place.hpp"
#include "support/bytes_of.hpp"
#include "support/desktop_entry.hpp"
#include "support/process.hpp"

namespace ravok::desktop_installer_test {
namespace {

using testing::ProgramResult;
using testing::run_program;
using Arguments = std::vector<std::string>;

// The address of a file, as desktops write it.
std::string address_of(const std::filesystem::path& path) {
  constexpr std::string_view digits = "0123456789ABCDEF";
  std::string address = "file://";
  for (const char c : path.native()) {
    const auto byte = static_cast<unsigned char>(c);
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       std::string_view("/-._~").find(c) != std::string_view::npos;
    address += plain ? std::string(1, c) : std::string{'%', digits[byte / 16], digits[byte % 16]};
  }
  return address;
}

class DesktopInstaller : public ::testing::Test, protected testing::InstallerPlace {
 protected:
  ProgramResult publish_to(const std::filesystem::path& output, const Arguments& more = {}) const {
    Arguments arguments = {"installer",   place.package_directory(), output, "--program",
                           RAVOK_INSTALL, "--desktop-file"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return run_program({RAVOK_PUBLISH, arguments, {}, ""});
  }

  // Runs the entry's command line with `location` in the place of its field code. The input ends at once, as a terminal
  // does that is closed.
  ProgramResult open(const std::filesystem::path& entry, const std::string& location) const {
    return open_in("/", entry, location);
  }
  ProgramResult open_in(const std::filesystem::path& current, const std::filesystem::path& entry,
                        const std::string& location) const {
    std::string line = testing::desktop_entry(testing::bytes_of(entry)).at("Exec");
    const std::string code = " %k";
    EXPECT_TRUE(line.ends_with(code)) << line;
    Arguments command = {"-c", "cd -- \"$0\" && exec \"$@\"", current};
    const Arguments started = testing::exec_arguments(line.substr(0, line.size() - code.size()));
    command.insert(command.end(), started.begin(), started.end());
    command.push_back(location);
    return run_program({"/bin/sh", command, environment(), ""});
  }
};

TEST_F(DesktopInstaller, IsValidAndStartsTheProgramBesideItWhereverThatLies) {
  for (const char* name :
       {"installer-here", "it's \"my\" $HOME `id` ~;&|*?#()<>!", "-n", "Spiele f\u00fcr alle", "100%41 \\x41 \\n"}) {
    const std::filesystem::path output = place.root() / name;
    const ProgramResult published = publish_to(output, {"--json"});
    ASSERT_EQ(published.exit_code, 0) << published.errors;
    const std::filesystem::path entry = output / "ravok-install.desktop";
    EXPECT_EQ(Json::parse(published.output).at("desktop_file").at("path"), entry.native());

    const char* validator = "/usr/bin/desktop-file-validate";
    ASSERT_TRUE(std::filesystem::exists(validator)) << "scripts/install-packages installs it";
    const ProgramResult judged = run_program({validator, {entry}, {}, ""});
    EXPECT_EQ(judged.exit_code, 0);
    EXPECT_EQ(judged.output + judged.errors, "");

    const std::string address = address_of(entry);
    for (const std::string& location :
         {entry.native(), address, "file://localhost" + address.substr(std::string_view("file://").size())}) {
      const ProgramResult opened = open(entry, location);
      const std::filesystem::path data = place.home() / ".local/share/Acme Games";
      EXPECT_NE(opened.output.find("Installed Acme Games in " + data.native() + ".\n"), std::string::npos)
          << opened.output << opened.errors;
      EXPECT_NE(opened.output.find("Press Enter to close this window."), std::string::npos);
      EXPECT_TRUE(std::filesystem::remove_all(data) > 0);
      std::filesystem::remove_all(place.home() / ".local/share/applications");
    }
  }
}

TEST_F(DesktopInstaller, StartsNothingWhereTheDesktopDoesNotSayWhereItLies) {
  const std::filesystem::path output = place.root() / "installer-here";
  const ProgramResult published = publish_to(output);
  ASSERT_EQ(published.exit_code, 0) << published.errors;
  // The current folder holds a program of the name.
  for (const char* location :
       {"", "file://", "%k", "ravok-install.desktop", "./ravok-install.desktop", "-/x",
        "file://elsewhere/ravok-install.desktop", "/a\n/ravok-install.desktop", "file:///a%0A/ravok-install.desktop"}) {
    const ProgramResult opened = open_in(output, output / "ravok-install.desktop", location);
    EXPECT_EQ(opened.output,
              "This desktop does not say where the installer lies. Start ravok-install in a terminal.\n\n"
              "Press Enter to close this window.\n")
        << location << opened.errors;
    EXPECT_FALSE(std::filesystem::exists(place.home() / ".local/share/Acme Games"));
  }
}

TEST_F(DesktopInstaller, IsForAFolderOnly) {
  const ProgramResult result = publish_to(place.root() / "file", {"--single-file"});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_EQ(result.errors.substr(0, result.errors.find('\n')), "--desktop-file is for an installer in a folder");
  expect_nothing_left();
}

}  // namespace
}  // namespace ravok::desktop_installer_test
