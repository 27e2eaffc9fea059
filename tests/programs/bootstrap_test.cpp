// ravok-bootstrap as it is installed: the program that users start.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "app/command/cli_entry.hpp"
#include "app/launcher/launcher_reference.hpp"
#include "app/launcher/launcher_store.hpp"
#include "domain/crypto.hpp"
#include "domain/launcher_contract.hpp"
#include "platform/file/files.hpp"
#include "platform/snapshot/snapshot_archive.hpp"
#include "programs/started_program.hpp"
#include "support/fast_volume.hpp"
#include "support/game_at_hand.hpp"
#include "support/install_place.hpp"
#include "support/launcher_release.hpp"
#include "support/process.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"

namespace ravok::bootstrap_test {
namespace {

using testing::bytes_of;
using testing::InstallPlace;
using testing::LauncherPrograms;
using testing::ProgramResult;
using testing::ProgramStart;
using testing::StartedProgram;
using testing::TemporaryRoot;
using testing::tree_state;
using testing::TreeState;
using Arguments = std::vector<std::string>;
using Environment = std::map<std::string, std::string>;

constexpr const char* build = RAVOK_LAUNCHER_BUILD_ID;
constexpr const char* misplaced = "Set the data directory on the native bootstrap, before forwarded arguments";
constexpr const char* unknown_command = "Unknown command; run ravok --help";
constexpr const char* damaged_files = "Ravok's files are damaged. Reinstall Ravok to repair them.";
constexpr const char* no_version = "No installed Ravok version could be started";
constexpr const char* directly = "ravok: starting game directly; repair Ravok by running its installer again\n";
constexpr const char* cancelled = "Ravok's start was cancelled";
constexpr const char* entry = "native/bootstrap/bin/ravok-bootstrap";
constexpr const char* cli_script = "#!/bin/sh\necho \"console of NAME: $*\"\nexit 7\n";
constexpr const char* gui_script = "#!/bin/sh\necho \"window of NAME: $*\"\nexit 8\n";

std::string problem(const std::string& code, const std::string& message) {
  return Json{{"schema_version", 1}, {"problem", {{"code", code}, {"message", message}}}}.dump() + "\n";
}

std::string unusable(const std::string& code, const std::string& message) {
  return "ravok: launcher version unusable (" + code + "): " + message + "\n";
}

void expect(const ProgramResult& result, int exit_code, const std::string& output, const std::string& errors) {
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.exit_code, exit_code);
  EXPECT_EQ(result.output, output);
  EXPECT_EQ(result.errors, errors);
}

// The programs of a version that say how they were started.
LauncherPrograms scripts_of(const std::string& name) {
  const auto named = [&](std::string script) { return script.replace(script.find("NAME"), 4, name); };
  LauncherPrograms programs;
  programs.console = named(cli_script);
  programs.windowed = named(gui_script);
  return programs;
}

// An installation of the bootstrap. Its launcher has the programs of the test.
class InstalledClient {
 public:
  explicit InstalledClient(const LauncherPrograms& programs, bool branded = true) {
    testing::use_bootstrap(place.package, root, RAVOK_BOOTSTRAP);
    testing::use_launcher(place.package, testing::publish_launcher(root, build, programs, "first"));
    place.package.featured_game.reset();
    if (!branded) {
      place.package.brand.reset();
    }
    place.republish();
    place.install();
    first = store().load().at("candidate");
  }

  const std::filesystem::path& data() const { return place.data(); }
  std::filesystem::path program() const { return data() / entry; }
  LauncherStore store() const { return LauncherStore(data()); }
  std::filesystem::path payload(const Json& reference) const { return store().payload(reference); }

  // Unpacks another version beside those that are there.
  Json add(const std::string& note, const LauncherPrograms& programs) const {
    const testing::LauncherRelease release = testing::publish_launcher(root, build, programs, note);
    const Json reference = make_reference(digest(release.manifest, "sha256"), build);
    atomic_private_create(data() / "launcher/manifests" / (text_at(reference, "manifest_sha256") + ".json"),
                          release.manifest);
    extract_snapshot(LauncherManifest::parse(Json::parse(release.manifest)), release.archive, payload(reference), {},
                     nullptr);
    return reference;
  }
  void select(const Json& active, const Json& rollback, const Json& candidate = nullptr) const {
    Json document = store().load();
    document["active"] = active;
    document["rollback"] = rollback;
    document["candidate"] = candidate;
    document["failed_candidate"] = nullptr;
    store().save(document);
  }

  Environment environment(Environment more = {}) const {
    more["HOME"] = place.home();
    return more;
  }
  ProgramResult run_from(const std::string& image, const Arguments& arguments, const Environment& more = {}) const {
    return testing::run_program({image, arguments, environment(more), ""});
  }
  ProgramResult run(const Arguments& arguments, const Environment& more = {}) const {
    return run_from(program(), arguments, more);
  }
  // The program fails so, in a line and as JSON too, and changes nothing.
  void expect_refused(const Arguments& arguments, int exit_code, const std::string& code,
                      const std::string& message) const {
    const TreeState untouched = state();
    expect(run(arguments), exit_code, "", message + "\n");
    Arguments json = {"--json"};
    json.insert(json.end(), arguments.begin(), arguments.end());
    expect(run(json), exit_code, problem(code, message), message + "\n");
    EXPECT_TRUE(testing::same_tree(state(), untouched));
  }

  // All but the bootstrap's own tree, which takes long to read, and the files of locks that were held.
  TreeState state() const {
    TreeState state = testing::without(tree_state(data() / "launcher"), {"leases/versions"});
    state.merge(tree_state(place.home()));
    for (const auto& node : std::filesystem::directory_iterator(data())) {
      const std::string name = node.path().filename();
      if (name != ".native-bootstrap.lock") {
        state.emplace("data/" + name, "");
      }
    }
    return state;
  }

  const TemporaryRoot root{testing::fast_volume()};
  InstallPlace place;
  Json first;
};

// Several versions that are scripts. A scenario spoils what it wants, and everything is as before for the next one.
class BootstrapOfScripts : public ::testing::Test {
 protected:
  BootstrapOfScripts() {
    for (const Json& version : {client.first, second}) {
      set_time(version, -1);
    }
    set_time(third, 1);
    client.select(client.first, second);
    std::filesystem::copy(launcher, saved, std::filesystem::copy_options::recursive);
  }

  void set_time(const Json& version, int hours) const {
    std::filesystem::last_write_time(client.payload(version),
                                     std::filesystem::file_time_type::clock::now() + std::chrono::hours(hours));
  }
  void restore() const {
    std::filesystem::remove_all(launcher);
    std::filesystem::copy(saved, launcher, std::filesystem::copy_options::recursive);
    set_time(client.first, -1);
    set_time(second, -1);
    set_time(third, 1);
  }

  std::filesystem::path manifest(const Json& version) const {
    return launcher / "manifests" / (text_at(version, "manifest_sha256") + ".json");
  }
  std::string name_of_version(const Json& version) const {
    return version == client.first ? "first" : version == second ? "second" : "third";
  }
  void expect_started(const ProgramResult& result, const std::string& role, const Json& version,
                      const std::string& arguments, const std::string& errors) const {
    expect(result, role == "console" ? 7 : 8,
           role + " of " + name_of_version(version) + ": --data-dir " + client.data().native() + arguments + "\n",
           errors);
  }
  // This version is started on the console and with its window. Of the store, only the marker changes.
  void expect_version(const Json& version, const std::string& errors) const {
    const TreeState untouched = client.state();
    expect_started(client.run({"--json", "list"}), "console", version, " --json list", errors);
    EXPECT_TRUE(testing::same_tree(client.state(), untouched));
    expect_started(client.run({}), "window", version, "", errors);
    EXPECT_EQ(marker().at("manifest_sha256"), version.at("manifest_sha256"));
    std::filesystem::remove(launcher / "start-attempt.json");
    EXPECT_TRUE(testing::same_tree(client.state(), untouched));
  }
  Json marker() const { return Json::parse(client.place.read("launcher/start-attempt.json")); }
  void write_marker(const Json& version, int attempts, std::int64_t age) const {
    const auto now =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch());
    client.place.write("launcher/start-attempt.json", Json{{"manifest_sha256", version.at("manifest_sha256")},
                                                           {"started_at", now.count() - age},
                                                           {"attempts", attempts}}
                                                          .dump());
  }
  void install_game() const {
    const std::string script = "#!/bin/sh\necho \"game in $(pwd -P)\"\nexit 6\n";
    Json document = testing::as_game(testing::manifest_document());
    document["files"][0]["length"] = script.size();
    document["archive"]["expanded_length"] = script.size();
    const std::filesystem::path file = client.place.write("games/game/versions/1.0/bin/program", script);
    std::filesystem::permissions(file, std::filesystem::perms::owner_all);
    client.place.write(
        "games/game/record.json",
        Json{{"installed", true}, {"game_id", "game"}, {"active", {{"version", "1.0"}, {"manifest", document}}}}
            .dump());
  }

  const InstalledClient client{scripts_of("first")};
  const Json second = client.add("second", scripts_of("second"));
  const Json third = client.add("third", scripts_of("third"));
  const std::filesystem::path launcher = client.data() / "launcher";
  const std::filesystem::path saved = client.root / "saved";
};

void append_blank(const std::filesystem::path& path) { std::ofstream(path, std::ios::app) << ' '; }

// What is wrong with a version, and how it is said.
struct Spoiling {
  const char* name;
  std::function<void(const std::filesystem::path& payload, const std::filesystem::path& manifest)> make;
  const char* code;
  const char* message;
};

const std::vector<Spoiling>& spoilings() {
  static const std::vector<Spoiling> all = {
      {"changed file", [](const auto& payload, const auto&) { std::ofstream(payload / "data/note") << "FIRST"; },
       "content_mismatch", "Game content differs from the verified manifest: data/note"},
      {"missing file", [](const auto& payload, const auto&) { std::filesystem::remove(payload / "data/note"); },
       "missing_file", "Game content is incomplete; repair is available"},
      {"extra file", [](const auto& payload, const auto&) { std::ofstream(payload / "data/other") << "x"; },
       "unexpected_file", "Game tree contains an unmanaged file"},
      {"larger entries",
       [](const auto& payload, const auto&) {
         append_blank(payload / "bin/ravok");
         append_blank(payload / "bin/ravok-gui");
       },
       "launcher_damaged", damaged_files},
      {"changed manifest", [](const auto&, const auto& manifest) { append_blank(manifest); }, "content_mismatch",
       "Stored launcher manifest changed"},
  };
  return all;
}

TEST_F(BootstrapOfScripts, StartsTheActiveVersionOrElseTheOneBeforeOrElseTheNewest) {
  expect_version(client.first, "");
  for (const Spoiling& spoiling : spoilings()) {
    SCOPED_TRACE(spoiling.name);
    const std::string said = unusable(spoiling.code, spoiling.message);
    spoiling.make(client.payload(client.first), manifest(client.first));
    expect_version(second, said);
    append_blank(manifest(second));
    const std::string both = said + unusable("content_mismatch", "Stored launcher manifest changed");
    expect_version(third, both);
    client.select(client.first, nullptr);
    expect_version(third, said);
    restore();
  }
}

TEST_F(BootstrapOfScripts, FailsInWordsWhereNoVersionCanBeStarted) {
  install_game();
  const std::string damaged = unusable("launcher_damaged", damaged_files);
  for (const Json& version : {client.first, second, third}) {
    std::filesystem::remove(client.payload(version) / "bin/ravok");
    std::filesystem::remove(client.payload(version) / "bin/ravok-gui");
  }
  TreeState untouched = client.state();
  const std::string all = damaged + damaged + damaged;
  expect(client.run({"list"}), 1, "", all + damaged_files + "\n");
  expect(client.run({"--json", "list"}), 1, problem("launcher_damaged", damaged_files), all + damaged_files + "\n");
  expect(client.run({}), 1, "", all + damaged_files + "\n");
  EXPECT_TRUE(testing::same_tree(client.state(), untouched));

  std::filesystem::remove_all(launcher / "versions");
  std::filesystem::remove(launcher / "installation.json");
  untouched = client.state();
  client.expect_refused({"list"}, 1, "launcher_damaged", no_version);
  expect(client.run({}), 1, "", std::string(no_version) + "\n");

  // The game is started all the same, unless it is damaged itself.
  expect(client.run({"--launch", "game"}), 6, "game in " + (client.data() / "games/game/versions/1.0").native() + "\n",
         directly);
  append_blank(client.data() / "games/game/versions/1.0/bin/program");
  expect(client.run({"--launch", "game"}), 1, "", std::string(directly) + "The game's program is missing or changed\n");
  expect(client.run({"--launch", "other"}), 1, "",
         "ravok: starting other directly; repair Ravok by running its installer again\nCannot open file: " +
             (client.data() / "games/other/record.json").native() + "\n");
  EXPECT_TRUE(testing::same_tree(client.state(), untouched));
}

TEST_F(BootstrapOfScripts, StartsTheNewestVersionWhereTheRecordIsOfNoUse) {
  for (const char* const text :
       {"{\"schema_version\":1,\"format\":\"ravok-launcher-store-v2\"}", "{", "", "{\"schema_version\":1}", "[]"}) {
    client.place.write("launcher/installation.json", text);
    expect_version(third, "");
    EXPECT_EQ(client.place.read("launcher/installation.json"), text);
  }
}

TEST_F(BootstrapOfScripts, GivesUpAVersionWhoseWindowDidNotOpenTwice) {
  write_marker(client.first, 2, 1000);
  expect_started(client.run({}), "window", second, "",
                 unusable("launcher_damaged", "This Ravok version failed to start twice"));
  EXPECT_EQ(marker().at("manifest_sha256"), second.at("manifest_sha256"));
  EXPECT_EQ(marker().at("attempts"), 1);

  write_marker(client.first, 1, 1000);
  expect_started(client.run({"--launch", "game"}), "window", client.first, " --launch game", "");
  EXPECT_EQ(marker().at("attempts"), 2);

  // What was started just now may still open, and what was started is another version.
  for (const auto& [version, age] : {std::pair(client.first, 0), std::pair(second, 1000)}) {
    write_marker(version, 2, age);
    expect_started(client.run({}), "window", client.first, "", "");
    EXPECT_EQ(marker().at("manifest_sha256"), client.first.at("manifest_sha256"));
    EXPECT_EQ(marker().at("attempts"), 1);
  }

  write_marker(client.first, 2, 1000);
  const TreeState untouched = client.state();
  expect_started(client.run({"list"}), "console", client.first, " list", "");
  EXPECT_TRUE(testing::same_tree(client.state(), untouched));
}

TEST_F(BootstrapOfScripts, RefusesAWrongCommandLine) {
  client.expect_refused({"bogus"}, 2, "usage", unknown_command);
  client.expect_refused({"--launch", "game", "more"}, 2, "usage", unknown_command);
  client.expect_refused({"list", "--data-dir", "/other"}, 2, "usage", "Unsupported option: --data-dir");
  client.expect_refused({"--data-dir", "/a", "--data-dir", "/b", "list"}, 2, "usage",
                        "Duplicate global option: --data-dir");
  client.expect_refused({"--data-dir"}, 2, "usage", "--data-dir needs a nonempty path");
  client.expect_refused({"--data-dir", "", "list"}, 2, "usage", "--data-dir needs a nonempty path");
  client.expect_refused({"self", "shortcut", "list"}, 2, "usage",
                        "Use self shortcut create [--game GAME] or self shortcut remove");
  client.expect_refused({"self", "uninstall", "--now"}, 2, "usage", "Use self uninstall [--remove-data]");
  client.expect_refused({"uninstall", "game"}, 1, "confirmation_required",
                        "Specify uninstall GAME --confirm-game GAME; add --remove-saves only to delete saves");

  const TreeState untouched = client.state();
  expect(client.run({"--launch", "--data-dir"}), 2, "", std::string(misplaced) + "\n");
  // A request for JSON is heard wherever it stands.
  expect(client.run({"bogus", "--json"}), 2, problem("usage", unknown_command), std::string(unknown_command) + "\n");
  expect(client.run({"list", "--json"}), 2, problem("usage", "Unsupported option: --json"),
         "Unsupported option: --json\n");
  expect(client.run({"--json"}), 2, problem("usage", unknown_command), std::string(unknown_command) + "\n");
  EXPECT_TRUE(testing::same_tree(client.state(), untouched));
  expect_started(client.run({"--launch", "--"}), "window", client.first, " --launch --", "");
}

TEST_F(BootstrapOfScripts, RunsOnTheNamedFolderWhereSomethingIsInstalled) {
  const std::string own = client.data();
  std::filesystem::create_directory_symlink(own, client.root / "link");
  expect_started(client.run({"--data-dir", client.root / "link", "list"}), "console", client.first, " list", "");
  expect_started(client.run({"--json", "--data-dir", own + "/.", "list"}), "console", client.first, " --json list", "");

  // A program that is installed nowhere belongs to no folder, and runs on one that is named.
  client.expect_refused({"--data-dir", client.root / "missing"}, 1, "not_installed",
                        "Ravok is not installed in " + (client.root / "missing").native());
  expect(client.run_from(RAVOK_BOOTSTRAP, {"list"}), 1, "", "Unknown installed bootstrap entry\n");
  expect(client.run_from(RAVOK_BOOTSTRAP, {"--json", "list"}), 1,
         problem("native_install_trust", "Unknown installed bootstrap entry"), "Unknown installed bootstrap entry\n");
  expect_started(client.run_from(RAVOK_BOOTSTRAP, {"--data-dir", own, "list"}), "console", client.first, " list", "");
  expect_started(client.run_from(RAVOK_BOOTSTRAP, {"--data-dir", own}), "window", client.first, "", "");
  std::filesystem::remove(launcher / "start-attempt.json");

  // Another installation has its own versions.
  const std::filesystem::path other = client.root / "other";
  std::filesystem::create_directory(other);
  std::filesystem::copy(launcher, other / "launcher", std::filesystem::copy_options::recursive);
  std::filesystem::remove(other / "launcher/installation.json");
  for (const Json& version : {client.first, third}) {
    std::filesystem::remove_all(other / "launcher/versions" / text_at(version, "manifest_sha256"));
  }
  expect(client.run({"--data-dir", other, "list"}), 7, "console of second: --data-dir " + other.native() + " list\n",
         "");

  // Nothing is made in a folder without an installation.
  client.root.write("plain/file", "of somebody");
  for (const char* const folder : {"plain", "missing", "plain/file"}) {
    client.expect_refused({"--data-dir", client.root / folder, "list"}, 1, "not_installed",
                          "Ravok is not installed in " + (client.root / folder).native());
  }
  EXPECT_EQ(tree_state(client.root / "plain").size(), 1u);
  EXPECT_FALSE(std::filesystem::exists(client.root / "missing"));
}

TEST_F(BootstrapOfScripts, RefusesAFolderWhoseSetupHasNotEnded) {
  client.place.write(".ravok-setup-incomplete", "");
  const std::string message =
      "Ravok setup did not finish in " + client.data().native() + ". Run the Ravok installer again to repair it.";
  client.expect_refused({"list"}, 1, "native_install_incomplete", message);
  client.expect_refused({"self", "uninstall"}, 1, "native_install_incomplete", message);
  client.expect_refused({"self", "shortcut", "remove"}, 1, "native_install_incomplete", message);
  expect(client.run({}), 1, "", message + "\n");
  expect(client.run({"--help"}), 0, cli_help(), "");
}

TEST_F(BootstrapOfScripts, ShowsHelpWhateverIsInstalled) {
  const std::string json = Json{{"schema_version", 1}, {"kind", "help"}, {"text", cli_help()}}.dump() + "\n";
  const TreeState untouched = client.state();
  for (const std::string& image : {client.program().native(), std::string(RAVOK_BOOTSTRAP)}) {
    expect(client.run_from(image, {"--help"}), 0, cli_help(), "");
    expect(client.run_from(image, {"--help", "--launch", "game"}), 0, cli_help(), "");
    expect(client.run_from(image, {"--help", "--json"}), 0, json, "");
    expect(client.run_from(image, {"--json", "--help", "bogus"}), 0, json, "");
    expect(testing::run_program({image, {"--help"}, {}, "/dev/full"}), 1, "", "Cannot write to standard output\n");
  }
  EXPECT_TRUE(testing::same_tree(client.state(), untouched));
}

TEST_F(BootstrapOfScripts, EndsAtOnceWhereItIsOnlyAskedWhetherItStarts) {
  client.place.write(".ravok-setup-incomplete", "");
  client.place.write("launcher/installation.json", "{");
  std::filesystem::remove(client.data() / ".native-bootstrap.lock");
  const TreeState untouched = client.state();
  for (const Arguments& arguments : {Arguments{}, {"list"}, {"bogus"}, {"--help"}, {"self", "uninstall"}}) {
    for (const char* const value : {"1", "0", "anything"}) {
      expect(client.run(arguments, {{"RAVOK_BOOTSTRAP_START_CHECK", value}}), 0, "", "");
    }
  }
  EXPECT_FALSE(std::filesystem::exists(client.data() / ".native-bootstrap.lock"));
  EXPECT_TRUE(testing::same_tree(client.state(), untouched));
  EXPECT_EQ(client.run({"bogus"}, {{"RAVOK_BOOTSTRAP_START_CHECK", ""}}).exit_code, 1);
}

TEST_F(BootstrapOfScripts, SaysWhatItSaysOtherwiseWithoutItsStreams) {
  std::filesystem::remove(client.payload(client.first) / "bin/ravok");
  const auto has = [](const std::vector<int>& closed, int stream) {
    return std::find(closed.begin(), closed.end(), stream) != closed.end();
  };
  const std::string started = "console of second: --data-dir " + client.data().native() + " list\n";
  const TreeState untouched = client.state();
  for (const std::vector<int>& closed :
       std::vector<std::vector<int>>{{}, {0}, {1}, {2}, {0, 1}, {0, 2}, {1, 2}, {0, 1, 2}}) {
    for (const bool good : {true, false}) {
      StartedProgram program({.program = client.program(),
                              .arguments = {good ? "list" : "bogus"},
                              .environment = client.environment(),
                              .closed = closed});
      EXPECT_EQ(program.output(), good && !has(closed, 1) ? started : "");
      EXPECT_EQ(program.errors(), has(closed, 2) ? ""
                                  : good         ? unusable("launcher_damaged", damaged_files)
                                                 : std::string(unknown_command) + "\n");
      EXPECT_EQ(program.wait(), good ? 7 : 2);
    }
  }
  EXPECT_TRUE(testing::same_tree(client.state(), untouched));
}

// The versions that are asked first are damaged, and the third is so large that the user's wish comes before its end.
TEST_F(BootstrapOfScripts, EndsWithFourWhereItIsToldToEndBeforeTheLauncherRuns) {
  constexpr std::uint64_t large = launcher_limits::bytes - 65'536;
  Json document = Json::parse(bytes_of(manifest(client.first)));
  for (Json& file : document["files"]) {
    if (file.at("path") == "data/note") {
      file["length"] = large;
    }
  }
  std::uint64_t total = 0;
  for (const Json& file : document.at("files")) {
    total += file.at("length").get<std::uint64_t>();
  }
  document["archive"]["expanded_length"] = total;
  const std::string text = document.dump();
  const Json reference = make_reference(digest(text, "sha256"), build);
  atomic_private_create(manifest(reference), text);
  std::filesystem::copy(client.payload(client.first), client.payload(reference),
                        std::filesystem::copy_options::recursive);
  std::filesystem::resize_file(client.payload(reference) / "data/note", large);
  for (const Json& version : {client.first, second}) {
    std::filesystem::remove(client.payload(version) / "bin/ravok");
  }
  set_time(reference, 2);
  client.select(client.first, second);
  const std::string untouched = client.place.read("launcher/installation.json");
  const std::string notice = unusable("launcher_damaged", damaged_files);
  for (const auto& [signal, json] : {std::pair(SIGINT, true), std::pair(SIGTERM, false), std::pair(SIGHUP, false)}) {
    StartedProgram program({.program = client.program(),
                            .arguments = json ? Arguments{"--json", "list"} : Arguments{"list"},
                            .environment = client.environment(),
                            .error_room = notice.size()});
    // It has told of the first version, and cannot tell of the second before that is read.
    EXPECT_TRUE(program.wait_until_full());
    program.send_signal(signal);
    const std::string errors = program.errors();
    const std::string end = std::string(cancelled) + "\n";
    EXPECT_TRUE(errors == notice + end || errors == notice + notice + end) << signal << errors;
    EXPECT_EQ(program.output(), json ? problem("cancelled", cancelled) : "") << signal;
    EXPECT_EQ(program.wait(), 4) << signal;
    EXPECT_EQ(client.place.read("launcher/installation.json"), untouched);
  }
}

TEST_F(BootstrapOfScripts, MakesAndRemovesShortcutsWithoutALauncher) {
  std::filesystem::remove_all(launcher / "versions");
  const std::string own = native_menu_entry(client.data(), "", "");
  const std::string game = native_menu_entry(client.data(), "first-game", "");
  const auto created = [](const std::string& path) {
    return Json{{"schema_version", 1}, {"created", Json::array({path})}}.dump() + "\n";
  };
  const auto removed = [](const Json& paths) {
    return Json{{"schema_version", 1}, {"removed", paths}, {"changed", Json::array()}}.dump() + "\n";
  };
  expect(client.run({"self", "shortcut", "create"}), 0, created(own), "");
  EXPECT_NE(bytes_of(own).find("\nName=Acme Games\n"), std::string::npos) << bytes_of(own);
  expect(client.run({"--json", "self", "shortcut", "create", "--game", "first-game"}), 0, created(game), "");
  EXPECT_TRUE(std::filesystem::exists(game));
  client.expect_refused({"self", "shortcut", "create", "--game", "First"}, 2, "usage", "Choose a game after --game");
  const ProgramResult result = client.run({"--json", "self", "shortcut", "remove"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(Json::parse(result.output).at("removed").size(), 2u);
  EXPECT_FALSE(std::filesystem::exists(own));
  EXPECT_FALSE(std::filesystem::exists(game));
  expect(client.run({"self", "shortcut", "remove"}), 0, removed(Json::array()), "");
  expect(testing::run_program({client.program(), {"self", "shortcut", "remove"}, client.environment(), "/dev/full"}), 1,
         "", "Cannot write to standard output\n");
}

TEST(BootstrapWithoutBrand, GivesItsShortcutItsOwnName) {
  const InstalledClient client(scripts_of("first"), false);
  EXPECT_EQ(client.run({"self", "shortcut", "create"}).exit_code, 0);
  const std::string own = native_menu_entry(client.data(), "", "");
  EXPECT_NE(bytes_of(own).find("\nName=Ravok\n"), std::string::npos) << bytes_of(own);
}

// The launcher of examples/launcher with the helper that removes the client.
class BootstrapOfSample : public ::testing::Test {
 protected:
  static LauncherPrograms sample() {
    return {bytes_of(RAVOK_LAUNCHER), bytes_of(RAVOK_LAUNCHER_GUI), bytes_of(RAVOK_MAINTENANCE)};
  }
  static std::string words_of(const Json& reference) {
    return std::string(build) + " (" + text_at(reference, "manifest_sha256").substr(0, 12) + ")";
  }
  static std::string status_text(const std::string& active, const std::string& trial, const std::string& rollback) {
    return std::string("Ravok ") + build + "\nActive: " + active + "\nCandidate: none\nOn trial: " + trial +
           "\nRollback: " + rollback + "\n";
  }
  Json state() const { return client.store().load(); }
  void expect_failed(const Json& reference) const {
    EXPECT_EQ(state().at("failed_candidate"), (Json{{"reference", reference}, {"problem", "startup_failed"}}));
    EXPECT_EQ(state().at("candidate"), nullptr);
    EXPECT_EQ(state().at("attempt"), nullptr);
  }
  bool has_marker() const { return std::filesystem::exists(client.data() / "launcher/start-attempt.json"); }

  const InstalledClient client{sample()};
};

TEST_F(BootstrapOfSample, LeadsANewVersionFromItsFirstStartToTheNext) {
  const std::string first = words_of(client.first);
  expect(client.run({"self", "status"}), 0, status_text("none", first, "none"), "");
  EXPECT_EQ(state().at("active"), client.first);
  expect(client.run({"self", "status"}), 0, status_text(first, "none", "none"), "");
  // The window opens, and its start does not count.
  expect(client.run({}), 0, "", "");
  expect(client.run({"--launch", "game"}), 0, "", "");
  EXPECT_FALSE(has_marker());

  LauncherPrograms programs = sample();
  programs.maintenance.clear();
  const Json next = client.add("next", programs);
  client.select(client.first, nullptr, next);
  expect(client.run({}), 0, "", "");
  EXPECT_EQ(state().at("active"), next);
  EXPECT_EQ(state().at("rollback"), client.first);
  EXPECT_FALSE(has_marker());
  const ProgramResult status = client.run({"--json", "self", "status"});
  EXPECT_EQ(status.exit_code, 0) << status.errors;
  EXPECT_EQ(Json::parse(status.output).at("active"), next);
  EXPECT_EQ(Json::parse(status.output).at("rollback"), client.first);

  // This version has no helper of its own.
  client.expect_refused({"self", "uninstall"}, 1, "maintenance_unavailable",
                        "This Ravok version has no maintenance helper; use the Ravok installer to uninstall");
}

TEST_F(BootstrapOfSample, GoesOnWithTheActiveVersionWhereANewOneFails) {
  LauncherPrograms programs = sample();
  programs.console = bytes_of(RAVOK_LAUNCHER_TROUBLED);
  programs.windowed = "#!/bin/sh\nexit 5\n";
  programs.maintenance.clear();
  const Json troubled = client.add("troubled", programs);
  const std::string first = words_of(client.first);
  client.select(client.first, nullptr, troubled);
  const ProgramResult status = client.run({"self", "status"}, {{"RAVOK_SAMPLE_TROUBLE", "wrong-health"}});
  EXPECT_EQ(status.exit_code, 0);
  EXPECT_EQ(status.output, status_text(first, "none", "none") + "Failed: " + words_of(troubled) + ": startup_failed\n");
  EXPECT_EQ(status.errors, "");
  expect_failed(troubled);
  EXPECT_EQ(state().at("active"), client.first);

  client.select(client.first, nullptr, troubled);
  expect(client.run({}), 0, "", "");
  expect_failed(troubled);
  EXPECT_EQ(state().at("active"), client.first);
  EXPECT_FALSE(has_marker());

  // Its exit code is the bootstrap's once it has proved itself.
  client.select(client.first, nullptr, troubled);
  EXPECT_EQ(client.run({"self", "status"}, {{"RAVOK_SAMPLE_TROUBLE", "crash-later"}}).exit_code, 128 + SIGABRT);
  EXPECT_EQ(state().at("active"), troubled);
  EXPECT_EQ(state().at("rollback"), client.first);
}

// What the user asks while a new version runs, or has not proved itself yet, goes to that version.
TEST_F(BootstrapOfSample, HandsAnInterruptToTheNewVersion) {
  LauncherPrograms programs = sample();
  programs.console = bytes_of(RAVOK_LAUNCHER_TROUBLED);
  programs.maintenance.clear();
  const Json troubled = client.add("troubled", programs);
  const auto start = [&](const char* trouble) {
    client.select(client.first, nullptr, troubled);
    return ProgramStart{.program = client.program(),
                        .arguments = {"self", "status"},
                        .environment = client.environment({{"RAVOK_SAMPLE_TROUBLE", trouble}})};
  };
  {
    StartedProgram program(start("hang"));
    const auto has_attached = [&] {
      const Json attempt = state().at("attempt");
      return !attempt.is_null() && std::filesystem::exists(client.store().startup_ack_path(attempt));
    };
    while (!has_attached() && !program.has_ended()) {
    }
    program.send_signal(SIGINT);
    // The version is given up, and no other does in its place what the user no longer wants.
    EXPECT_EQ(program.output(), "");
    EXPECT_EQ(program.errors(), "Ravok's start was cancelled\n");
    EXPECT_EQ(program.wait(), 4);
    expect_failed(troubled);
  }
  StartedProgram program(start("stay"));
  while (state().at("active") != troubled && !program.has_ended()) {
  }
  program.send_signal(SIGINT);
  EXPECT_EQ(program.output(), "");
  EXPECT_EQ(program.errors(), "Cancelled\n");
  EXPECT_EQ(program.wait(), 4);
  EXPECT_EQ(state().at("active"), troubled);
}

TEST_F(BootstrapOfSample, SaysWhatIsWrongWithANewVersionWhereNoneWorks) {
  LauncherPrograms programs = sample();
  programs.console = bytes_of(RAVOK_LAUNCHER_TROUBLED);
  programs.windowed = "#!/bin/sh\nexit 5\n";
  const Json troubled = client.add("troubled", programs);
  for (const auto& [trouble, code, message] :
       {std::tuple("exit", "launcher_startup_failed", "Launcher candidate exited before initialization"),
        std::tuple("no-lease", "launcher_lease", "The running launcher did not retain native startup ownership")}) {
    client.select(nullptr, nullptr, troubled);
    expect(client.run({"self", "status"}, {{"RAVOK_SAMPLE_TROUBLE", trouble}}), 1, "", std::string(message) + "\n");
    expect_failed(troubled);
    client.select(nullptr, nullptr, troubled);
    expect(client.run({"--json", "self", "status"}, {{"RAVOK_SAMPLE_TROUBLE", trouble}}), 1, problem(code, message),
           std::string(message) + "\n");
    EXPECT_EQ(state().at("active"), nullptr);
  }
  client.select(nullptr, nullptr, troubled);
  expect(client.run({"--launch", "game"}), 1, "", "Launcher candidate exited before initialization\n");
  expect_failed(troubled);
  EXPECT_FALSE(has_marker());
}

TEST_F(BootstrapOfSample, HandsOverToTheHelperThatRemovesTheClient) {
  const TreeState player_data = client.place.write_player_data();
  client.select(client.first, nullptr);
  EXPECT_EQ(client.run({"self", "shortcut", "create"}).exit_code, 0);
  const ProgramResult kept = client.run({"--json", "self", "uninstall"});
  EXPECT_EQ(kept.exit_code, 0) << kept.errors;
  EXPECT_EQ(kept.errors, "");
  EXPECT_EQ(Json::parse(kept.output).at("data_removed"), false);
  EXPECT_EQ(tree_state(client.data()), player_data);
  EXPECT_FALSE(std::filesystem::exists(native_menu_entry(client.data(), "", "")));

  client.place.install();
  const ProgramResult all = client.run({"self", "uninstall", "--remove-data"});
  EXPECT_EQ(all.exit_code, 0) << all.errors;
  EXPECT_EQ(all.output, "Removed Acme Games from " + client.data().native() + ".\n");
  EXPECT_FALSE(std::filesystem::exists(client.data()));
}

TEST_F(BootstrapOfSample, StartsNoHelperThatIsDamaged) {
  client.select(client.first, nullptr);
  append_blank(client.payload(client.first) / "bin/ravok-maintenance");
  client.expect_refused({"self", "uninstall"}, 1, "content_mismatch",
                        "The maintenance helper is damaged; run the Ravok installer to repair it");
}

}  // namespace
}  // namespace ravok::bootstrap_test
