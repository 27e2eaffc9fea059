#include "platform/shortcut/linux_shortcuts.hpp"

#include <cstddef>
#include <filesystem>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/companion.hpp"
#include "support/desktop_entry.hpp"
#include "support/failure.hpp"
#include "support/ordinary_user.hpp"
#include "support/process.hpp"
#include "support/shortcut_place.hpp"
#include "support/with_environment.hpp"

namespace ravok::linux_shortcuts_test {
namespace {

using testing::desktop_entry;
using testing::ShortcutPlace;
using testing::started_by;
using testing::WithEnvironment;

constexpr const char* validator = "/usr/bin/desktop-file-validate";
constexpr const char* launcher = "/usr/bin/gio";
constexpr const char* unbounded = "Shortcut text must be bounded and contain no control characters";
constexpr const char* not_below_root = "Shortcut paths must be absolute and normalized below a filesystem root";

// Whether the standard's own validator accepts an entry without a remark.
::testing::AssertionResult is_valid_entry(const std::filesystem::path& path) {
  if (!std::filesystem::exists(validator)) {
    return ::testing::AssertionFailure() << validator << " is missing; scripts/install-packages installs it";
  }
  const testing::ProgramResult result = testing::run_program({validator, {path}, {}, ""});
  if (result.exit_code != 0 || !result.output.empty() || !result.errors.empty()) {
    return ::testing::AssertionFailure() << result.output << result.errors;
  }
  return ::testing::AssertionSuccess();
}

// The arguments that a shortcut should give its program, the program first.
std::vector<std::string> arguments_for(const DesktopShortcut& shortcut) {
  std::vector<std::string> arguments = {shortcut.bootstrap, "--data-dir", shortcut.data_root};
  if (!shortcut.game_id.empty()) {
    arguments.insert(arguments.end(), {"--launch", shortcut.game_id});
  }
  return arguments;
}

// The same for the program of its command line, which is a shell where no desktop would start the path itself.
std::vector<std::string> command_for(const DesktopShortcut& shortcut) {
  std::vector<std::string> command = arguments_for(shortcut);
  if (shortcut.bootstrap.native().find_first_of("%=") != std::string::npos) {
    command.insert(command.begin(), {"/bin/sh", "-c", "exec \"$0\" \"$@\""});
  }
  return command;
}

// Starts an entry with a desktop's own program, without this process's environment. Returns the lines in which the
// bootstrap prints its arguments.
std::vector<std::string> launched_by(const std::filesystem::path& path, std::size_t lines) {
  if (!std::filesystem::exists(launcher)) {
    throw std::runtime_error(std::string(launcher) + " is missing; scripts/install-packages installs it");
  }
  testing::Companion launch("/usr/bin/env", {"-i", "HOME=/nonexistent", launcher, "launch", path});
  std::vector<std::string> told;
  // The bootstrap may go on after the launcher; it ends the pipe that both write to.
  for (std::size_t line = 0; line < lines; ++line) {
    told.push_back(launch.read_line());
  }
  EXPECT_EQ(launch.read_line(), "") << path;
  EXPECT_EQ(launch.wait(), 0) << path;
  return told;
}

// File names with characters that are special to a shell, to the standard or to a reader of lines.
const std::vector<std::string> difficult_names = {
    "plain",
    "with space",
    " space before and behind ",
    "two  spaces",
    "\"quoted\"",
    "it's",
    "back\\slash",
    "ends in backslash\\",
    "\\\\two\\\\",
    "\\s\\n\\t\\r\\x",
    "\\\"",
    "$HOME",
    "$(reboot)",
    "`reboot`",
    "\\$\\`",
    "100%",
    "%f%u%%c%",
    "a;b;;c",
    "a=b",
    "a&b|c<d>e*f?g#h(i)j~k!l[m]n{o}",
    "Schl\xc3\xbcssel \xe6\xb8\xb8\xe6\x88\x8f \xf0\x9f\x8e\xae",
    "e\xcc\x81",
    "--launch",
    "[Desktop Entry]",
    "Exec=x",
    "-dash",
    "-c",
    "%",
    "=",
    "%%f=%U",
    "\"%=$`\\' x",
    "%25",
    "~",
    "#",
    ".hidden",
    "'%'",
};

TEST(ExecRules, AreThoseOfTheStandard) {
  using testing::exec_arguments;
  EXPECT_EQ(exec_arguments("a  b \"c d\""), (std::vector<std::string>{"a", "b", "c d"}));
  EXPECT_EQ(exec_arguments("\"\\\"\\`\\$\\\\\" %%"), (std::vector<std::string>{"\"`$\\", "%"}));
  for (const char* const bad :
       {"\"a", "\"a\\\"", "\"\\a\"", "\"$\"", "\"`\"", "a$b", "a;b", "%f", "\"%f\"", "\"a\"b"}) {
    EXPECT_THROW(exec_arguments(bad), std::runtime_error) << bad;
  }
  EXPECT_EQ(testing::desktop_value("a\\\\b\\sc"), "a\\b c");
  EXPECT_THROW(testing::desktop_value("\\x"), std::runtime_error);
  EXPECT_THROW(testing::desktop_value("\\"), std::runtime_error);
}

TEST(DesktopEntry, IsOneGroupOfTheseLines) {
  EXPECT_EQ(linux_desktop_entry({"/opt/bin/ravok-bootstrap", "/data", "game", "The Game"}),
            "[Desktop Entry]\n"
            "Type=Application\n"
            "Version=1.0\n"
            "Name=The Game\n"
            "Comment=Play The Game\n"
            "Exec=\"/opt/bin/ravok-bootstrap\" --data-dir \"/data\" --launch \"game\"\n"
            "Terminal=false\n"
            "Categories=Game;\n");
}

TEST(DesktopEntry, OfTheClientNamesNoGame) {
  EXPECT_EQ(desktop_entry(linux_desktop_entry({"/opt/bin/ravok-bootstrap", "/data", "", "Client"})).at("Exec"),
            "\"/opt/bin/ravok-bootstrap\" --data-dir \"/data\"");
  EXPECT_EQ(desktop_entry(linux_desktop_entry({"/opt/bin/ravok-bootstrap", "/data", "", "Client"})).at("Comment"),
            "Install, update and play games");
}

TEST(DesktopEntry, StartsExactlyWhatWasAskedForFromEveryPlace) {
  for (const std::string& name : difficult_names) {
    const ShortcutPlace place(name);
    for (const char* const game : {"game", ""}) {
      const std::filesystem::path path = place.desktop() / (std::string("entry") + game + ".desktop");
      const DesktopShortcut shortcut = place.shortcut(game, "The Game");
      create_linux_desktop_entry(shortcut, path);
      EXPECT_EQ(started_by(place.read(path)), command_for(shortcut)) << place.read(path);
      EXPECT_TRUE(is_valid_entry(path)) << place.read(path);
    }
  }
}

TEST(DesktopEntry, IsStartedByADesktopFromEveryPlace) {
  for (const std::string& name : difficult_names) {
    const ShortcutPlace place(name);
    place.write(place.bootstrap(), "#!/bin/sh\nprintf '%s\\n' \"$0\" \"$@\"\n");
    std::filesystem::permissions(place.bootstrap(), std::filesystem::perms::owner_all);
    for (const char* const game : {"game", ""}) {
      const std::filesystem::path path = place.desktop() / (std::string("entry") + game + ".desktop");
      const DesktopShortcut shortcut = place.shortcut(game, name);
      create_linux_desktop_entry(shortcut, path);
      const std::vector<std::string> expected = arguments_for(shortcut);
      EXPECT_EQ(launched_by(path, expected.size()), expected) << place.read(path);
    }
  }
}

TEST(DesktopEntry, StartsAPathThatNoDesktopStartsByTheShell) {
  const auto line = [](const char* bootstrap) {
    return desktop_entry(linux_desktop_entry({bootstrap, "/data=%", "game", "Client"})).at("Exec");
  };
  const std::string shell = R"(/bin/sh -c "exec \"\$0\" \"\$@\"" )";
  EXPECT_EQ(line("/50%/ravok-bootstrap"), shell + R"("/50%%/ravok-bootstrap" --data-dir "/data=%%" --launch "game")");
  EXPECT_EQ(line("/a=b/ravok-bootstrap"), shell + R"("/a=b/ravok-bootstrap" --data-dir "/data=%%" --launch "game")");
  // An equals sign or a percent sign in an argument needs no shell.
  EXPECT_EQ(line("/opt/ravok-bootstrap"), R"("/opt/ravok-bootstrap" --data-dir "/data=%%" --launch "game")");
}

TEST(DesktopEntry, ShowsExactlyTheNameThatWasGiven) {
  const ShortcutPlace place;
  for (const std::string& name : difficult_names) {
    const std::filesystem::path path = place.desktop() / "entry.desktop";
    create_linux_desktop_entry(place.shortcut("game", name), path);
    EXPECT_EQ(desktop_entry(place.read(path)).at("Name"), name) << place.read(path);
    EXPECT_EQ(desktop_entry(place.read(path)).at("Comment"), "Play " + name) << place.read(path);
    EXPECT_TRUE(is_valid_entry(path)) << place.read(path);
    std::filesystem::remove(path);
  }
}

TEST(DesktopEntry, ShowsTheBrandsIconWhereThereIsOne) {
  for (const std::string& name : difficult_names) {
    const ShortcutPlace place(name);
    const std::filesystem::path icon = place.write(place.data() / "native/brand.png", "image");
    const std::filesystem::path path = place.desktop() / "entry.desktop";
    create_linux_desktop_entry(place.shortcut(), path);
    EXPECT_EQ(desktop_entry(place.read(path)).at("Icon"), icon);
    EXPECT_TRUE(is_valid_entry(path)) << place.read(path);
  }
}

TEST(DesktopEntry, ShowsNoIconThatIsNoFile) {
  const ShortcutPlace place;
  const std::filesystem::path icon = place.data() / "native/brand.png";
  place.write(place.data() / "native/brand.ico", "icon");  // not in a form that menus read
  EXPECT_FALSE(desktop_entry(linux_desktop_entry(place.shortcut())).contains("Icon"));
  std::filesystem::create_directories(icon);
  EXPECT_FALSE(desktop_entry(linux_desktop_entry(place.shortcut())).contains("Icon"));
  std::filesystem::remove(icon);
  std::filesystem::create_symlink(place.write(place.home() / "other.png", "image"), icon);
  EXPECT_FALSE(desktop_entry(linux_desktop_entry(place.shortcut())).contains("Icon"));
}

TEST(DesktopEntry, RefusesEveryTextThatWouldNotBeOneLine) {
  const DesktopShortcut good = {"/opt/bin/ravok-bootstrap", "/data", "game", "The Game"};
  for (const char control : {'\n', '\r', '\t', '\0', '\x1b', '\x7f'}) {
    const std::string text = {'/', 'a', control, 'b'};
    for (const DesktopShortcut& bad : {DesktopShortcut{text, "/data", "game", "The Game"},
                                       DesktopShortcut{"/opt/bin/ravok-bootstrap", text, "game", "The Game"},
                                       DesktopShortcut{"/opt/bin/ravok-bootstrap", "/data", "game", text}}) {
      EXPECT_FAILURE(linux_desktop_entry(bad), "shortcut_text", unbounded) << static_cast<int>(control);
    }
  }
  DesktopShortcut bad = good;
  bad.data_root = "/\xff";
  EXPECT_FAILURE(linux_desktop_entry(bad), "shortcut_text", "Shortcut text must be valid UTF-8");
  bad = good;
  bad.name = std::string(513, 'a');
  EXPECT_FAILURE(linux_desktop_entry(bad), "shortcut_text", unbounded);
  bad.name = "";
  EXPECT_FAILURE(linux_desktop_entry(bad), "shortcut_text", unbounded);
}

TEST(DesktopEntry, RefusesPathsThatNameNothingBelowARoot) {
  for (const char* const bad : {"a", "/", "/a/", "/a/../b", "/a//b"}) {
    EXPECT_FAILURE(linux_desktop_entry({bad, "/data", "", "Name"}), "shortcut_path", not_below_root) << bad;
    EXPECT_FAILURE(linux_desktop_entry({"/bootstrap", bad, "", "Name"}), "shortcut_path", not_below_root) << bad;
  }
}

TEST(DesktopEntry, RefusesWhatIsNoGame) {
  for (const char* const bad : {"Game", "../game", "a b", "a\"b", "%f", "a\nb"}) {
    EXPECT_EQ(testing::failure_of([&] {
                linux_desktop_entry({"/bootstrap", "/data", bad, "Name"});
              })
                  .value()
                  .code,
              "invalid_identity")
        << bad;
  }
}

TEST(DesktopEntryFile, IsWrittenAndTold) {
  const ShortcutPlace place;
  const std::filesystem::path path = place.desktop() / "entry.desktop";
  const Json made = create_linux_desktop_entry(place.shortcut(), path);
  EXPECT_EQ(made, Json({{"schema_version", 1},
                        {"created", true},
                        {"path", path.native()},
                        {"game_id", "game"},
                        {"bootstrap", place.bootstrap().native()},
                        {"data_root", place.data().native()},
                        {"shortcut_abi", 1}}));
  EXPECT_EQ(place.read(path), linux_desktop_entry(place.shortcut()));
  // Nobody but the owner may change the entry.
  EXPECT_EQ(std::filesystem::status(path).permissions() &
                (std::filesystem::perms::group_write | std::filesystem::perms::others_write),
            std::filesystem::perms::none);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(place.desktop()), {}), 1);
}

TEST(DesktopEntryFile, NeedsItsExtensionBeforeAnythingIsLookedAt) {
  for (const char* const name : {"/missing/new", "/missing/new.ravok-launch", "/missing/.desktop"}) {
    EXPECT_FAILURE(create_linux_desktop_entry({"/missing/bootstrap", "/missing/data", "", "Name"}, name),
                   "shortcut_path", "Linux desktop entries must end in .desktop")
        << name;
  }
}

TEST(DesktopEntryFile, TakesNoPlaceThatIsTaken) {
  const ShortcutPlace place;
  place.write(place.desktop() / "a.desktop", "mine");
  std::filesystem::create_symlink(place.desktop() / "nowhere", place.desktop() / "b.desktop");
  std::filesystem::create_directory(place.desktop() / "c.desktop");
  for (const char* const name : {"a.desktop", "b.desktop", "c.desktop"}) {
    EXPECT_FAILURE(create_linux_desktop_entry(place.shortcut(), place.desktop() / name), "already_exists",
                   "Desktop-entry destination already exists; it was preserved")
        << name;
  }
  EXPECT_EQ(place.read(place.desktop() / "a.desktop"), "mine");
  EXPECT_FALSE(std::filesystem::exists(place.desktop() / "nowhere"));
}

TEST(DesktopEntryFile, LiesOutsideTheDataAndEveryLauncher) {
  const ShortcutPlace place;
  std::filesystem::create_directories(place.base() / "other/launcher/staging");
  EXPECT_FAILURE(create_linux_desktop_entry(place.shortcut(), place.data() / "a.desktop"), "shortcut_path",
                 "Desktop entries must be outside application data");
  EXPECT_FAILURE(create_linux_desktop_entry(place.shortcut(), place.base() / "other/launcher/staging/a.desktop"),
                 "shortcut_path", "Desktop entries must be outside managed launcher payloads");
}

TEST(DesktopEntryFile, StartsOnlyTheStableBootstrap) {
  const ShortcutPlace place;
  for (const char* other : {"launcher/versions/1/ravok-bootstrap", "launcher/versions/1/bin/ravok-bootstrap",
                            "launcher/staging/1/bin/ravok-bootstrap", "native/bootstrap/bin/other"}) {
    DesktopShortcut shortcut = place.shortcut();
    shortcut.bootstrap = place.write(place.data() / other, "");
    EXPECT_FAILURE(create_linux_desktop_entry(shortcut, place.desktop() / "a.desktop"), "shortcut_bootstrap",
                   "Linux shortcuts require the stable native bootstrap");
  }
  EXPECT_TRUE(std::filesystem::is_empty(place.desktop()));
}

TEST(DesktopEntryFile, IsNotMadeWhereTheUserMayNotWrite) {
  const ShortcutPlace place;
  const testing::OrdinaryUser user(place.root());
  const testing::WithMode closed(place.desktop(), 0500);
  const auto failure =
      testing::failure_of([&] { create_linux_desktop_entry(place.shortcut(), place.desktop() / "a.desktop"); });
  ASSERT_TRUE(failure.has_value());
  EXPECT_EQ(failure->code, "file_write");
  EXPECT_TRUE(std::string_view(failure->what()).ends_with(".tmp (13)")) << failure->what();
  EXPECT_TRUE(std::filesystem::is_empty(place.desktop()));
}

TEST(MenuDirectory, LiesBelowTheDataHome) {
  const WithEnvironment home("HOME", "/home/somebody");
  const WithEnvironment data_home("XDG_DATA_HOME", "/data/home");
  EXPECT_EQ(linux_menu_directory(), "/data/home/applications");
}

TEST(MenuDirectory, LiesBelowHomeWithoutAnAbsoluteDataHome) {
  const WithEnvironment home("HOME", "/home/somebody");
  for (const std::optional<std::string>& value :
       std::vector<std::optional<std::string>>{std::nullopt, "", "relative", "~/share"}) {
    const WithEnvironment data_home("XDG_DATA_HOME", value);
    EXPECT_EQ(linux_menu_directory(), "/home/somebody/.local/share/applications");
  }
}

TEST(MenuDirectory, NeedsAnAbsoluteHome) {
  const WithEnvironment data_home("XDG_DATA_HOME", "relative");
  for (const std::optional<std::string>& value :
       std::vector<std::optional<std::string>>{std::nullopt, "", "relative", "~"}) {
    const WithEnvironment home("HOME", value);
    EXPECT_FAILURE(linux_menu_directory(), "user_path", "Cannot locate the user's application menu");
  }
}

TEST(MenuDirectory, IsNamedInAtMost8192Bytes) {
  const WithEnvironment home("HOME", "/home/somebody");
  const std::string longest = "/" + std::string(8191, 'a');
  for (const char* const key : {"XDG_DATA_HOME", "HOME"}) {
    const WithEnvironment unset("XDG_DATA_HOME", std::nullopt);
    const WithEnvironment accepted(key, longest);
    EXPECT_NO_THROW(linux_menu_directory());
    const WithEnvironment refused(key, longest + "a");
    EXPECT_FAILURE(linux_menu_directory(), "environment_limit", "Native process text exceeds its byte bound");
  }
}

}  // namespace
}  // namespace ravok::linux_shortcuts_test
