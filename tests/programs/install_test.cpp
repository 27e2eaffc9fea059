// ravok-install as it is shipped: sealed for a package, with that package beside it.

#include <array>
#include <csignal>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "app/setup/setup_command.hpp"
#include "platform/file/handle.hpp"
#include "programs/installer_place.hpp"
#include "support/process.hpp"

namespace ravok {
namespace {

using testing::InitialPackage;
using testing::ProgramResult;
using testing::run_program;
using Arguments = std::vector<std::string>;
using Environment = std::map<std::string, std::string>;

constexpr const char* cancelled = "Setup was cancelled";
constexpr const char* no_seal = "This installer has no package seal; build it with RAVOK_INITIAL_PACKAGE_SHA256";
constexpr const char* other_package = "This package is not the one this installer was built for";

std::string problem(const std::string& code, const std::string& message) {
  return Json{{"schema_version", 1}, {"problem", {{"code", code}, {"message", message}}}}.dump() + "\n";
}

void expect(const ProgramResult& result, int exit_code, const std::string& output, const std::string& errors) {
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.exit_code, exit_code);
  EXPECT_EQ(result.output, output);
  EXPECT_EQ(result.errors, errors);
}

class Installer : public ::testing::Test, protected testing::InstallerPlace {
 protected:
  ProgramResult run_from(const std::filesystem::path& program, const Arguments& arguments,
                         const Environment& more = {}) const {
    return run_program({program, arguments, environment(more), ""});
  }
  ProgramResult run(const Arguments& arguments, const Environment& more = {}) const {
    return run_from(program(), arguments, more);
  }
  // The same with the data folder of the test.
  ProgramResult run_here(Arguments arguments) const {
    arguments.insert(arguments.end(), {"--data-dir", place.data()});
    return run(arguments);
  }
  void expect_refused(const Arguments& arguments, int exit_code, const std::string& code,
                      const std::string& message) const {
    Arguments json = arguments;
    json.emplace_back("--json");
    expect(run(arguments), exit_code, "", message + "\n");
    expect(run(json), exit_code, problem(code, message), message + "\n");
    expect_nothing_left();
  }

  Json setup_document(bool repaired, const Json& replaced, const Json& shortcuts) const {
    return {{"schema_version", 1},
            {"installed", true},
            {"repaired", repaired},
            {"data_root", place.data()},
            {"bootstrap", place.data() / "native/bootstrap/bin/ravok-bootstrap"},
            {"replaced", replaced},
            {"shortcuts", shortcuts},
            {"shortcut_problem", nullptr}};
  }
  // The document of a status, in which the time alone is taken as it is.
  Json status_document(const Json& shown, const std::string& action) const {
    return {{"schema_version", 1},
            {"data_root", place.data()},
            {"installed", true},
            {"incomplete", false},
            {"bootstrap_build", "build-1"},
            {"launcher_build", "build-1"},
            {"bootstrap_update_pending", false},
            {"shortcuts", {place.entry()}},
            {"last_operation",
             {{"action", action},
              {"outcome", "succeeded"},
              {"message", ""},
              {"finished_at", shown.at("last_operation").at("finished_at")}}}};
  }
  void expect_status(const std::string& action) const {
    const ProgramResult result = run_here({"status", "--json"});
    expect(result, 0, status_document(Json::parse(result.output), action).dump() + "\n", "");
  }
};

TEST_F(Installer, LeadsThroughTheLifeOfAnInstallation) {
  const std::string data = place.home() / ".local/share/Acme Games";
  const auto write = [&](const std::string& name, const std::string& content) {
    place.root().write("home/.local/share/Acme Games/" + name, content);
  };
  expect(run({}), 0, "Installed Acme Games in " + data + ".\n", "Verifying…\nInstalling…\n");
  const Arguments there = {"--data-dir", data};
  const auto run_there = [&](Arguments arguments) {
    arguments.insert(arguments.end(), there.begin(), there.end());
    return run(arguments);
  };
  expect(run_there({"status"}), 0, "Acme Games is installed in " + data + " (bootstrap build-1, launcher build-1).\n",
         "");
  expect(run({"repair"}), 0, "Repaired Acme Games in " + data + ". Everything was already intact.\n", "Verifying…\n");
  write("native/bootstrap/data/notes", "changed");
  expect(run({"repair"}), 0, "Repaired Acme Games in " + data + ".\n", "Verifying…\nInstalling…\n");
  EXPECT_EQ(place.root().read("home/.local/share/Acme Games/native/bootstrap/data/notes"), "notes");
  expect(run_there({"shortcut", "create", "--game", "first-game"}), 0, "Created 1 shortcut(s).\n", "");
  expect(run_there({"shortcut", "remove"}), 0, "Removed 2 shortcut(s).\n", "");
  write("userdata/save", "save");
  expect(run_there({"uninstall"}), 0, "Removed Acme Games from " + data + ". Saves and settings were kept.\n",
         "Removing…\n");
  EXPECT_EQ(testing::tree_state(data).size(), 2u);
  EXPECT_EQ(place.root().read("home/.local/share/Acme Games/userdata/save"), "save");
  expect(run({"install"}), 0, "Installed Acme Games in " + data + ".\n", "Verifying…\nInstalling…\n");
  expect(run_there({"uninstall", "--remove-data"}), 0, "Removed Acme Games from " + data + ".\n", "Removing…\n");
  EXPECT_FALSE(std::filesystem::exists(data));
}

TEST_F(Installer, AnswersInDocuments) {
  const auto expect_document = [&](const Arguments& arguments, const Json& document) {
    expect(run_here(arguments), 0, document.dump() + "\n", "");
  };
  expect_document({"--json"}, setup_document(false, {"bootstrap", "launcher", "trust"}, {place.entry()}));
  expect_status("install");
  expect_document({"--json", "repair"}, setup_document(true, Json::array(), Json::array()));
  place.write("native/bootstrap/data/notes", "changed");
  expect_document({"--json", "repair"}, setup_document(true, {"bootstrap"}, Json::array()));
  expect_status("repair");
  expect_document({"--json", "shortcut", "create"}, {{"schema_version", 1}, {"created", {place.entry()}}});
  expect_document({"--json", "shortcut", "remove"},
                  {{"schema_version", 1}, {"removed", {place.entry()}}, {"changed", Json::array()}});
  const testing::TreeState player = place.write_player_data();
  std::filesystem::remove(place.data() / "settings.json");
  Json removed = {{"schema_version", 1},
                  {"uninstalled", true},
                  {"data_root", place.data()},
                  {"data_removed", false},
                  {"kept", {place.data() / "userdata"}},
                  {"deferred", Json::array()},
                  {"changed_shortcuts", Json::array()}};
  expect_document({"--json", "uninstall"}, removed);
  EXPECT_EQ(place.state(), testing::only(player, "userdata"));
  expect_document({"--json"}, setup_document(false, {"bootstrap", "launcher", "trust"}, {place.entry()}));
  removed["kept"] = Json::array();
  removed["data_removed"] = true;
  expect_document({"--json", "uninstall", "--remove-data"}, removed);
  EXPECT_FALSE(std::filesystem::exists(place.data()));
  EXPECT_FALSE(std::filesystem::exists(place.entry()));
  expect_document({"--json", "status"}, {{"schema_version", 1},
                                         {"data_root", place.data()},
                                         {"installed", false},
                                         {"incomplete", false},
                                         {"bootstrap_build", ""},
                                         {"launcher_build", ""},
                                         {"bootstrap_update_pending", false},
                                         {"shortcuts", Json::array()},
                                         {"last_operation", nullptr}});
}

TEST_F(Installer, PutsItsShortcutWhereTheDesktopLooks) {
  const ProgramResult result =
      run({"--json", "--data-dir", place.data()}, {{"XDG_DATA_HOME", place.root().directory("menu")}});
  const std::filesystem::path entry = place.root() / "menu/applications" / place.entry().filename();
  expect(result, 0, setup_document(false, {"bootstrap", "launcher", "trust"}, {entry}).dump() + "\n", "");
  EXPECT_TRUE(std::filesystem::is_regular_file(entry));
}

TEST_F(Installer, StillWorksWhereItsFolderWasMovedTo) {
  const std::filesystem::path moved = place.root() / "another place";
  std::filesystem::rename(folder, moved);
  expect(run_from(moved / "ravok-install", {"--data-dir", place.data()}), 0,
         "Installed Acme Games in " + place.data().native() + ".\n", "Verifying…\nInstalling…\n");
}

TEST_F(Installer, TakesItsPackageFromElsewhereToo) {
  std::filesystem::rename(folder / "initial-package", place.root() / "elsewhere");
  before = place.root().names();
  expect_refused({}, 2, "usage", "Choose the initial package with --package DIR");
  expect_refused({"repair"}, 2, "usage", "Choose the initial package with --package DIR");
  expect(run_here({"--package", place.root() / "elsewhere"}), 0,
         "Installed Acme Games in " + place.data().native() + ".\n", "Verifying…\nInstalling…\n");
}

TEST_F(Installer, RefusesWrongOptions) {
  const std::string needs = " needs a value";
  const std::pair<Arguments, std::string> cases[] = {
      {{"--json", "--bogus"}, "Unknown option: --bogus"},
      {{"--json", "bogus"}, "Unknown command: bogus"},
      {{"--json", ""}, "Unknown command: "},
      {{"--json", "install", "install"}, "Choose one command"},
      {{"--json", "--package"}, "Option --package" + needs},
      {{"--json", "--data-dir", ""}, "Option --data-dir" + needs},
      {{"--json", "shortcut", "list"}, "Use shortcut create or shortcut remove"},
      {{"--json", "--remove-data"}, "--remove-data only applies to uninstall"},
      {{"--json", "--game", "game"}, "--game only applies to shortcut create"},
      {{"--json", "status", "--package", "x"}, "--package only applies to install and repair"}};
  for (const auto& [arguments, message] : cases) {
    expect(run(arguments), 2, "", message + "\n");
  }
  expect(run({"--json", "shortcut", "create", "--game", "Game"}), 1, "",
         "Game and build IDs use lower-case letters, digits, dots and hyphens\n");
  expect_nothing_left();
}

TEST_F(Installer, RefusesAFolderThatItMustNotTake) {
  place.write("other", "of another program");
  before = place.root().names();
  expect(run_here({}), 1, "", "Verifying…\nChoose an empty folder or an earlier Ravok data folder\n");
  expect(run_here({"--json"}), 1, problem("unsafe_path", "Choose an empty folder or an earlier Ravok data folder"),
         "Choose an empty folder or an earlier Ravok data folder\n");
  expect_nothing_left();
  EXPECT_EQ(place.read("other"), "of another program");
}

TEST_F(Installer, PrintsTheUsageOfAnInstaller) {
  for (const char* option : {"--help", "-h"}) {
    expect(run({option}), 0, setup_usage("ravok-install", true), "");
  }
  expect_nothing_left();
}

TEST_F(Installer, RefusesAPackageThatWasChanged) {
  const std::string name = testing::archive_name(place.package.launcher);
  std::string bytes = place.root().read("installer/initial-package/" + name);
  bytes.back() = static_cast<char>(bytes.back() ^ 1);
  place.root().write("installer/initial-package/" + name, bytes);
  expect(run({}), 1, "", "Verifying…\nInitial package resource changed: " + name + "\n");
  expect(run({"--json"}), 1, problem("content_mismatch", "Initial package resource changed: " + name),
         "Initial package resource changed: " + name + "\n");
  expect_nothing_left();
}

TEST_F(Installer, RefusesAnotherPackageThanItsOwn) {
  InitialPackage other = place.package;
  other.origin = "https://other.example";
  other.write(place.root() / "other");
  before = place.root().names();
  expect_refused({"--package", place.root() / "other"}, 1, "native_install_trust", other_package);
  place.root().write("installer/initial-package/initial-package.json", "{}");
  expect_refused({}, 1, "native_install_trust", other_package);
}

TEST_F(Installer, SaysSoWhenItHasNoSeal) {
  std::filesystem::remove(folder / "ravok-install");
  std::filesystem::copy_file(RAVOK_INSTALL, folder / "ravok-install");
  expect_refused({}, 1, "native_install_trust", no_seal);
  expect_refused({"repair"}, 1, "native_install_trust", no_seal);
  EXPECT_EQ(run({"status"}).exit_code, 0);
}

TEST_F(Installer, DoesNothingButHelpWithinAPackageThatIsNotFinished) {
  const std::pair<const char*, std::string> cases[] = {
      {".ravok-setup-incomplete",
       "Ravok setup did not finish in " + folder.native() + ". Run the Ravok installer again to repair it."},
      {".ravok-initial-package-incomplete.json", "This image belongs to an unfinished package; it cannot start"}};
  for (const auto& [marker, message] : cases) {
    place.root().write(std::string("installer/") + marker, "");
    before = place.root().names();
    for (const char* command : {"install", "repair", "status", "uninstall"}) {
      expect_refused({command}, 1, "native_install_incomplete", message);
    }
    expect(run({"--help"}), 0, setup_usage("ravok-install", true), "");
    std::filesystem::remove(folder / marker);
  }
}

// A pipe whose read end every program that is started inherits.
class ParentChannel {
 public:
  ParentChannel() {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe(ends.data()), 0);
    reader_ = Handle(ends[0]);
    writer_ = Handle(ends[1]);
    EXPECT_EQ(fcntl(writer_.get(), F_SETFD, FD_CLOEXEC), 0);
  }
  Environment announced() const { return {{"RAVOK_LAUNCHER_INTERRUPT_READER", "1:" + std::to_string(reader_.get())}}; }
  void request() const { EXPECT_EQ(write(writer_.get(), "\1", 1), 1); }
  void close_writer() { writer_.reset(); }

 private:
  Handle reader_;
  Handle writer_;
};

TEST_F(Installer, HearsTheRequestThatItsParentForwards) {
  for (const Arguments& arguments : {Arguments{}, Arguments{"--json"}}) {
    const ParentChannel channel;
    channel.request();
    const bool json = !arguments.empty();
    expect(run(arguments, channel.announced()), 4, json ? problem("cancelled", cancelled) : "",
           std::string(json ? "" : "Verifying…\n") + cancelled + "\n");
    expect_nothing_left();
  }
}

TEST_F(Installer, GoesOnWithoutItsParent) {
  ParentChannel channel;
  channel.close_writer();
  expect(run({"--data-dir", place.data()}, channel.announced()), 0,
         "Installed Acme Games in " + place.data().native() + ".\n", "Verifying…\nInstalling…\n");
}

TEST_F(Installer, EndsAtOnceForAChannelThatIsWrong) {
  for (const char* value : {"2:7", "1:2", "1:007"}) {
    const ProgramResult result = run({"--help"}, {{"RAVOK_LAUNCHER_INTERRUPT_READER", value}});
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_EQ(result.output, "");
  }
  expect_nothing_left();
}

}  // namespace
}  // namespace ravok
