// The desktop entry beside an installer in a folder, opened as a file manager opens it.

#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "domain/json.hpp"
#include "programs/installer_place.hpp"
#include "support/bytes_of.hpp"
#include "support/desktop_entry.hpp"
#include "support/process.hpp"
#include "support/window_program.hpp"

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
  ProgramResult publish_with(const std::filesystem::path& output, Arguments options, const Arguments& more) const {
    Arguments arguments = {"installer", place.package_directory(), output, "--program", RAVOK_INSTALL};
    arguments.insert(arguments.end(), options.begin(), options.end());
    arguments.insert(arguments.end(), more.begin(), more.end());
    return run_program({RAVOK_PUBLISH, arguments, {}, ""});
  }
  ProgramResult publish_to(const std::filesystem::path& output, const Arguments& more = {}) const {
    return publish_with(output, {"--desktop-file"}, more);
  }

  static void expect_valid(const std::filesystem::path& entry) {
    const char* validator = "/usr/bin/desktop-file-validate";
    ASSERT_TRUE(std::filesystem::exists(validator)) << "scripts/install-packages installs it";
    const ProgramResult judged = run_program({validator, {entry}, {}, ""});
    EXPECT_EQ(judged.exit_code, 0);
    EXPECT_EQ(judged.output + judged.errors, "");
  }

  // All that a desktop may say of where a file lies.
  static Arguments places_of(const std::filesystem::path& entry) {
    const std::string address = address_of(entry);
    return {entry.native(), address, "file://localhost" + address.substr(std::string_view("file://").size())};
  }

  // Runs the entry's command line with `location` in the place of its field code. The input ends at once, as a terminal
  // does that is closed.
  ProgramResult open(const std::filesystem::path& entry, const std::string& location) const {
    return open_in("/", entry, location);
  }
  ProgramResult open_in(const std::filesystem::path& current, const std::filesystem::path& entry,
                        const std::string& location, const std::map<std::string, std::string>& more = {}) const {
    std::string line = testing::desktop_entry(testing::bytes_of(entry)).at("Exec");
    const std::string code = " %k";
    EXPECT_TRUE(line.ends_with(code)) << line;
    Arguments command = {"-c", "cd -- \"$0\" && exec \"$@\"", current};
    const Arguments started = testing::exec_arguments(line.substr(0, line.size() - code.size()));
    command.insert(command.end(), started.begin(), started.end());
    command.push_back(location);
    return run_program({"/bin/sh", command, environment(more), ""});
  }

  // What no place of an entry may be, whichever the desktop that says it.
  const Arguments unknown_places = {"",
                                    "file://",
                                    "%k",
                                    "ravok-install.desktop",
                                    "./ravok-install.desktop",
                                    "-/x",
                                    "file://elsewhere/ravok-install.desktop",
                                    "/a\n/ravok-install.desktop",
                                    "file:///a%0A/ravok-install.desktop"};
  const Arguments difficult_names = {"installer-here", "it's \"my\" $HOME `id` ~;&|*?#()<>!", "-n",
                                     "Spiele f\u00fcr alle", "100%41 \\x41 \\n"};
};

TEST_F(DesktopInstaller, IsValidAndStartsTheProgramBesideItWhereverThatLies) {
  for (const std::string& name : difficult_names) {
    const std::filesystem::path output = place.root() / name;
    const ProgramResult published = publish_to(output, {"--json"});
    ASSERT_EQ(published.exit_code, 0) << published.errors;
    const std::filesystem::path entry = output / "ravok-install.desktop";
    EXPECT_EQ(Json::parse(published.output).at("desktop_file").at("path"), entry.native());

    expect_valid(entry);
    for (const std::string& location : places_of(entry)) {
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
  for (const std::string& location : unknown_places) {
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

// The program with a window is a script here, and so are the programs that desktops show messages with.
class DesktopWindowInstaller : public DesktopInstaller {
 protected:
  DesktopWindowInstaller() {
    put_script("window", testing::window_program("pwd >&2; exit 7"));
    for (const char* tool : {"env", "printf", "sed", "dirname"}) {
      std::filesystem::create_symlink(std::filesystem::path("/usr/bin") / tool, tools / tool);
    }
    before = place.root().names();
  }

  void put_script(const std::string& name, const std::string& text) const {
    std::filesystem::permissions(place.root().write(name, text), std::filesystem::perms(0755));
  }
  // One that desktops have, which shows its name and its words, and ends with this code.
  void put_tool(const std::string& name, int exit_code = 0) const {
    put_script("tools/" + name,
               "#!/bin/sh\nprintf '%s|' " + name + " \"$@\"\nexit " + std::to_string(exit_code) + "\n");
  }

  void publish_window_to(const std::filesystem::path& output) const {
    const ProgramResult published = publish_with(output, {"--gui", "--gui-program", place.root() / "window"}, {});
    ASSERT_EQ(published.exit_code, 0) << published.errors;
  }

  // Opens the entry of an installer's folder on a desktop with these programs alone.
  ProgramResult open_window(const std::filesystem::path& output, const std::string& location,
                            const std::string& display = ":7") const {
    return open_in(output, output / "ravok-install-gui.desktop", location, {{"PATH", tools}, {"DISPLAY", display}});
  }

  const std::filesystem::path tools = place.root().directory("tools");
  const std::string no_place =
      "This desktop does not say where the installer lies. Open its folder, and start ravok-install-gui there.";
  const std::string no_window = "The installer cannot show its window here. Start ravok-install in a terminal.";
};

TEST_F(DesktopWindowInstaller, IsValidAndStartsTheProgramBesideItWhereverThatLies) {
  for (const std::string& name : difficult_names) {
    const std::filesystem::path output = place.root() / name;
    publish_window_to(output);
    const std::filesystem::path entry = output / "ravok-install-gui.desktop";
    expect_valid(entry);
    EXPECT_EQ(testing::desktop_entry(testing::bytes_of(entry)).at("Name"), "Install Acme Games");
    for (const std::string& location : places_of(entry)) {
      const ProgramResult opened = open_window(output, location);
      EXPECT_EQ(opened.exit_code, 7) << opened.errors;
      EXPECT_EQ(opened.output, "");
      EXPECT_EQ(opened.errors, output.native() + "\n");
    }
  }
}

TEST_F(DesktopWindowInstaller, StartsNothingWhereTheDesktopDoesNotSayWhereItLiesAndShowsThat) {
  const std::filesystem::path output = place.root() / "installer-here";
  publish_window_to(output);
  put_tool("zenity");
  // The current folder and the path hold a program of the name.
  std::filesystem::copy(output / "ravok-install-gui", tools / "ravok-install-gui");
  for (const std::string& location : unknown_places) {
    const ProgramResult opened = open_window(output, location);
    EXPECT_EQ(opened.exit_code, 1);
    EXPECT_EQ(opened.output, "zenity|--error|--text|" + no_place + "|") << location;
    EXPECT_EQ(opened.errors, no_place + "\n") << location;
  }
}

TEST_F(DesktopWindowInstaller, ShowsThatNoWindowCanBeOpened) {
  const std::filesystem::path output = place.root() / "installer-here";
  publish_window_to(output);
  put_tool("zenity");
  const std::string location = output / "ravok-install-gui.desktop";
  const auto expect_shown = [&](const ProgramResult& opened) {
    EXPECT_EQ(opened.exit_code, 1);
    EXPECT_EQ(opened.output, "zenity|--error|--text|" + no_window + "|");
    EXPECT_TRUE(opened.errors.ends_with(no_window + "\n")) << opened.errors;
  };
  expect_shown(open_window(output, location, ""));
  expect_shown(open_window(output, place.root() / "missing/ravok-install-gui.desktop"));
  std::filesystem::permissions(output / "ravok-install-gui", std::filesystem::perms(0644));
  expect_shown(open_window(output, location));
  std::filesystem::remove(output / "ravok-install-gui");
  expect_shown(open_window(output, location));
}

TEST_F(DesktopWindowInstaller, ShowsThatTheProgramEndedWithoutAWindow) {
  const std::filesystem::path output = place.root() / "installer-here";
  publish_window_to(output);
  put_tool("zenity");
  for (const auto& [end, is_told] : std::vector<std::pair<std::string, bool>>{{"exit 0", false},
                                                                              {"exit 1", false},
                                                                              {"exit 2", false},
                                                                              {"exit 3", false},
                                                                              {"exit 4", false},
                                                                              {"exit 125", false},
                                                                              {"exit 126", true},
                                                                              {"exit 127", true},
                                                                              {"kill -SEGV $$", true},
                                                                              {"kill -KILL $$", true}}) {
    put_script("installer-here/ravok-install-gui", "#!/bin/sh\n" + end + "\n");
    const ProgramResult opened = open_window(output, output / "ravok-install-gui.desktop");
    if (is_told) {
      EXPECT_EQ(opened.exit_code, 1) << end;
      EXPECT_EQ(opened.output, "zenity|--error|--text|" + no_window + "|") << end;
      EXPECT_TRUE(opened.errors.ends_with(no_window + "\n")) << end << opened.errors;
    } else {
      EXPECT_EQ("exit " + std::to_string(opened.exit_code), end);
      EXPECT_EQ(opened.output + opened.errors, "") << end;
    }
  }
}

TEST_F(DesktopWindowInstaller, TellsByWhateverTheDesktopHas) {
  const std::filesystem::path output = place.root() / "installer-here";
  publish_window_to(output);
  const auto shown = [&] {
    const ProgramResult opened = open_window(output, "");
    EXPECT_EQ(opened.exit_code, 1);
    EXPECT_TRUE(opened.errors.starts_with(no_place + "\n")) << opened.errors;
    return opened.output;
  };
  EXPECT_EQ(shown(), "");
  put_tool("xmessage");
  EXPECT_EQ(shown(), "xmessage|" + no_place + "|");
  put_tool("notify-send");
  EXPECT_EQ(shown(), "notify-send|" + no_place + "|");
  // Nobody shows its messages.
  put_tool("notify-send", 1);
  EXPECT_EQ(shown(), "notify-send|" + no_place + "|xmessage|" + no_place + "|");
  put_tool("kdialog", 1);
  EXPECT_EQ(shown(), "kdialog|--error|" + no_place + "|");
  put_tool("zenity", 1);
  EXPECT_EQ(shown(), "zenity|--error|--text|" + no_place + "|");
}

}  // namespace
}  // namespace ravok::desktop_installer_test
