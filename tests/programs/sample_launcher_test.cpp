// The launcher of examples/launcher as a real process: by itself, installed, and on trial.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/wait.h>

#include "app/command/cli_entry.hpp"
#include "app/launcher/launcher_attempt.hpp"
#include "app/launcher/launcher_reference.hpp"
#include "app/launcher/launcher_store.hpp"
#include "domain/crypto.hpp"
#include "domain/display_text.hpp"
#include "domain/launcher_contract.hpp"
#include "platform/file/files.hpp"
#include "platform/snapshot/snapshot_archive.hpp"
#include "support/failure.hpp"
#include "support/fast_volume.hpp"
#include "support/install_place.hpp"
#include "support/launcher_release.hpp"
#include "support/process.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"
#include "support/with_environment.hpp"

namespace ravok::sample_launcher_test {
namespace {

using testing::bytes_of;
using testing::InstallPlace;
using testing::ProgramResult;
using testing::TemporaryRoot;
using testing::tree_state;
using testing::TreeState;
using testing::WithEnvironment;
using Arguments = std::vector<std::string>;

constexpr std::chrono::milliseconds patience(30'000);
constexpr const char* build = RAVOK_LAUNCHER_BUILD_ID;
const std::string product = std::string("Ravok ") + build + "\n";
constexpr const char* no_command =
    "This sample launcher has no such command; it knows self status, self update, self cleanup, self uninstall, self "
    "shortcut and updates check --background";

std::string words_of(const Json& reference) {
  return std::string(build) + " (" + text_at(reference, "manifest_sha256").substr(0, 12) + ")";
}

Json status_of(const std::string& output) {
  EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 1) << output;
  return Json::parse(output);
}

TEST(SampleLauncher, TellsThatItBelongsToNoInstallation) {
  const TemporaryRoot home;
  for (const char* const folder : {"data", "missing"}) {
    const Arguments place = {"--data-dir", home / folder};
    home.directory("data");
    Arguments plain = place;
    plain.insert(plain.end(), {"self", "status"});
    const ProgramResult text = testing::run_program({RAVOK_LAUNCHER, plain, {{"HOME", home.path()}}, ""});
    EXPECT_EQ(text.exit_code, 0);
    EXPECT_EQ(text.output, product + "This build belongs to no installation.\n");
    EXPECT_EQ(text.errors, "");
    plain.insert(plain.begin(), "--json");
    const ProgramResult document = testing::run_program({RAVOK_LAUNCHER, plain, {{"HOME", home.path()}}, ""});
    EXPECT_EQ(document.exit_code, 0);
    EXPECT_EQ(status_of(document.output), (Json{{"schema_version", 1},
                                                {"version", build},
                                                {"installed", false},
                                                {"active", nullptr},
                                                {"candidate", nullptr},
                                                {"on_trial", nullptr},
                                                {"rollback", nullptr},
                                                {"failed_candidate", nullptr},
                                                {"bootstrap_update_pending", false}}));
  }
  const ProgramResult window = testing::run_program({RAVOK_LAUNCHER_GUI, {}, {{"HOME", home.path()}}, ""});
  EXPECT_EQ(window.exit_code, 0) << window.errors;
  EXPECT_EQ(home.names(), (std::vector<std::string>{"data/"}));
}

TEST(SampleLauncher, ShowsTheClientsHelp) {
  const ProgramResult result = testing::run_program({RAVOK_LAUNCHER, {"--help"}, {{"HOME", "/nowhere"}}, ""});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.output, cli_help());
  EXPECT_EQ(result.errors, "");
}

TEST(SampleLauncher, RefusesTheOtherCommandsInOneLine) {
  for (const Arguments& command :
       {Arguments{"list"}, {"updates", "check"}, {"launch", "first-game"}, {"settings", "get"}}) {
    const ProgramResult text = testing::run_program({RAVOK_LAUNCHER, command, {{"HOME", "/nowhere"}}, ""});
    EXPECT_EQ(text.exit_code, 1);
    EXPECT_EQ(text.output, "");
    EXPECT_EQ(text.errors, std::string(no_command) + "\n");
    Arguments with_json = command;
    with_json.insert(with_json.begin(), "--json");
    const ProgramResult document = testing::run_program({RAVOK_LAUNCHER, with_json, {{"HOME", "/nowhere"}}, ""});
    EXPECT_EQ(document.exit_code, 1);
    EXPECT_EQ(status_of(document.output),
              (Json{{"schema_version", 1}, {"problem", {{"code", "unavailable"}, {"message", no_command}}}}));
    EXPECT_EQ(document.errors, std::string(no_command) + "\n");
  }
}

TEST(SampleLauncher, HasNoUpdatesWhereItBelongsToNoInstallation) {
  constexpr const char* no_updates = "This build of Ravok belongs to no installation, so it has no updates";
  const TemporaryRoot root;
  for (const Arguments& command : {Arguments{"self", "update"}, {"updates", "check", "--background"}}) {
    Arguments with_json = {"--json", "--data-dir", root.path()};
    with_json.insert(with_json.end(), command.begin(), command.end());
    const ProgramResult result = testing::run_program({RAVOK_LAUNCHER, with_json, {}, ""});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.errors, std::string(no_updates) + "\n");
    EXPECT_EQ(status_of(result.output),
              (Json{{"schema_version", 1}, {"problem", {{"code", "not_installed"}, {"message", no_updates}}}}));
  }
  EXPECT_TRUE(root.names().empty());
}

TEST(SampleLauncher, RefusesAWrongCommandLineAsTheGrammarDoes) {
  const ProgramResult result = testing::run_program({RAVOK_LAUNCHER, {"bogus"}, {{"HOME", "/nowhere"}}, ""});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors, "Unknown command; run ravok --help\n");
}

TEST(SampleLauncher, SaysSoWhenItsOutputCannotBeWritten) {
  const ProgramResult result =
      testing::run_program({RAVOK_LAUNCHER, {"self", "status"}, {{"HOME", "/nowhere"}}, "/dev/full"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.errors, "Cannot write to standard output\n");
}

TEST(SampleLauncher, NeedsNoHomeWhereItIsToldItsFolder) {
  const TemporaryRoot root;
  const std::string folder = root.path();
  const ProgramResult told = testing::run_program({RAVOK_LAUNCHER, {"--data-dir", folder, "self", "status"}, {}, ""});
  EXPECT_EQ(told.exit_code, 0) << told.errors;
  EXPECT_EQ(told.output, product + "This build belongs to no installation.\n");
  const ProgramResult help = testing::run_program({RAVOK_LAUNCHER, {"--help"}, {}, ""});
  EXPECT_EQ(help.exit_code, 0) << help.errors;
  EXPECT_EQ(help.output, cli_help());
  EXPECT_EQ(testing::run_program({RAVOK_LAUNCHER, {"bogus"}, {}, ""}).errors, "Unknown command; run ravok --help\n");

  constexpr const char* needs_home = "HOME must identify an absolute user directory";
  const ProgramResult untold = testing::run_program({RAVOK_LAUNCHER, {"--json", "self", "status"}, {}, ""});
  EXPECT_EQ(untold.exit_code, 1);
  EXPECT_EQ(untold.errors, std::string(needs_home) + "\n");
  EXPECT_EQ(status_of(untold.output),
            (Json{{"schema_version", 1}, {"problem", {{"code", "user_path"}, {"message", needs_home}}}}));
}

TEST(SampleLauncher, TellsOfAFolderThatCannotBeResolvedAsOfEveryFailure) {
  const TemporaryRoot root;
  const std::filesystem::path loop = root / "loop\x1b[31m";
  std::filesystem::create_symlink(loop, loop);
  std::string message;
  try {
    ordinary_root(loop);
  } catch (const std::filesystem::filesystem_error& problem) {
    message = shown_text(problem.what());
  }
  ASSERT_NE(message.find("\\x1b[31m"), std::string::npos) << message;
  for (const char* const program : {RAVOK_LAUNCHER, RAVOK_LAUNCHER_GUI}) {
    const ProgramResult text = testing::run_program({program, {"--data-dir", loop, "self", "status"}, {}, ""});
    EXPECT_EQ(text.exit_code, 1);
    EXPECT_EQ(text.output, "");
    EXPECT_EQ(text.errors, message + "\n");
  }
  const ProgramResult document =
      testing::run_program({RAVOK_LAUNCHER, {"--json", "--data-dir", loop, "self", "status"}, {}, ""});
  EXPECT_EQ(document.exit_code, 1);
  EXPECT_EQ(document.errors, message + "\n");
  EXPECT_EQ(status_of(document.output),
            (Json{{"schema_version", 1}, {"problem", {{"code", "launcher_failed"}, {"message", message}}}}));
}

// What a run of the bootstrap's trial came to.
struct Trial {
  std::optional<int> exit_code;
  std::optional<Error> failure;
  std::string output;
  std::string errors;
};

Trial run_trial(const LauncherStore& store, LauncherStart start) {
  Trial trial;
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  trial.failure = testing::failure_of([&] { trial.exit_code = run_launcher_attempt(store, start); });
  trial.output = ::testing::internal::GetCapturedStdout();
  trial.errors = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
  EXPECT_EQ(errno, ECHILD);
  return trial;
}

TEST(SampleLauncherInstalled, ProvesItselfAndBecomesTheActiveVersion) {
  InstallPlace place;
  const TemporaryRoot root(testing::fast_volume());
  testing::use_launcher(
      place.package,
      testing::publish_launcher(root, build, {bytes_of(RAVOK_LAUNCHER), bytes_of(RAVOK_LAUNCHER_GUI)}, "first"));
  place.republish();
  place.install();
  const LauncherStore store(place.data());
  const Json first = store.status().at("candidate");
  const std::string program = store.payload(first) / "bin/ravok";
  const std::string rest = "Rollback: none\n";

  // Started by hand, it is no attempt, and proves nothing.
  const ProgramResult by_hand = testing::run_program({program, {"self", "status"}, {{"HOME", place.home()}}, ""});
  EXPECT_EQ(by_hand.exit_code, 0) << by_hand.errors;
  EXPECT_EQ(by_hand.output, product + "Active: none\nCandidate: " + words_of(first) + "\nOn trial: none\n" + rest);
  EXPECT_EQ(store.status().at("candidate"), first);

  const Trial trial = run_trial(store, {"cli", {"self", "status"}, patience, {}});
  EXPECT_FALSE(trial.failure) << trial.failure->what();
  EXPECT_EQ(trial.exit_code, 0);
  EXPECT_EQ(trial.output, product + "Active: none\nCandidate: none\nOn trial: " + words_of(first) + "\n" + rest);
  EXPECT_EQ(trial.errors, "");
  EXPECT_EQ(store.status().at("active"), first);
  EXPECT_TRUE(store.status().at("attempt").is_null());
  EXPECT_TRUE(store.status().at("failed_candidate").is_null());

  // There is no candidate any more, and the version can be started as often as wanted.
  EXPECT_EQ(run_trial(store, {"cli", {"self", "status"}, patience, {}}).exit_code, std::nullopt);
  for (int time = 0; time < 2; ++time) {
    const ProgramResult again =
        testing::run_program({program, {"--json", "self", "status"}, {{"HOME", place.home()}}, ""});
    EXPECT_EQ(again.exit_code, 0) << again.errors;
    EXPECT_EQ(status_of(again.output), (Json{{"schema_version", 1},
                                             {"version", build},
                                             {"installed", true},
                                             {"active", first},
                                             {"candidate", nullptr},
                                             {"on_trial", nullptr},
                                             {"rollback", nullptr},
                                             {"failed_candidate", nullptr},
                                             {"bootstrap_update_pending", false}}));
  }
}

// An installation whose release has the launcher as its console's entry and the real helper.
class SampleLauncherRemoval : public ::testing::Test {
 protected:
  SampleLauncherRemoval() {
    testing::use_launcher(
        place.package,
        testing::publish_launcher(
            root, build, {bytes_of(RAVOK_LAUNCHER), bytes_of(RAVOK_LAUNCHER_GUI), bytes_of(RAVOK_MAINTENANCE)}, "own"));
    place.package.brand.reset();
    place.republish();
    place.install(true);
    place.write_player_data();
  }
  ~SampleLauncherRemoval() override { EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left"; }

  ProgramResult run(const Arguments& arguments) const {
    const LauncherStore store(place.data());
    const std::string program = store.payload(current_build(store.status())) / "bin/ravok";
    return testing::run_program({program, arguments, {{"HOME", place.home()}}, ""});
  }
  // What the data folder holds but for the locks that a refused run may have made.
  TreeState installed() const {
    return testing::without(place.state(), {".ravok-setup.lock", ".native-bootstrap.lock", "launcher/bootstrap.lock",
                                            "launcher/leases/versions"});
  }

  const TemporaryRoot root{testing::fast_volume()};
  InstallPlace place;
};

TEST_F(SampleLauncherRemoval, RemovesItsOwnInstallationAndKeepsThePlayersData) {
  const TreeState player_data = place.player_data();
  EXPECT_TRUE(std::filesystem::exists(place.entry()));
  const ProgramResult result = run({"self", "uninstall"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, "Removed Ravok from " + place.data().native() + ". Saves and settings were kept.\n");
  EXPECT_EQ(place.state(), player_data);
  EXPECT_FALSE(std::filesystem::exists(place.entry()));
}

TEST_F(SampleLauncherRemoval, RemovesEverythingWhereItIsToldSo) {
  const ProgramResult result = run({"--json", "--data-dir", place.data(), "self", "uninstall", "--remove-data"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(status_of(result.output).at("data_removed"), true);
  EXPECT_FALSE(std::filesystem::exists(place.data()));
}

TEST_F(SampleLauncherRemoval, RemovesNoOtherFolder) {
  constexpr const char* other_image = "Maintenance handoff requires this build's verified CLI image";
  const TemporaryRoot other;
  other.write("file", "of somebody");
  const TreeState before = installed();
  const ProgramResult result = run({"--json", "--data-dir", other.path(), "self", "uninstall"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(status_of(result.output),
            (Json{{"schema_version", 1}, {"problem", {{"code", "launcher_identity"}, {"message", other_image}}}}));
  EXPECT_TRUE(testing::same_tree(installed(), before));
  EXPECT_EQ(other.names(), std::vector<std::string>{"file"});
}

TEST_F(SampleLauncherRemoval, LeavesEverythingWithoutItsHelper) {
  const LauncherStore store(place.data());
  std::filesystem::resize_file(store.payload(current_build(store.status())) / "bin/ravok-maintenance", 100);
  const TreeState before = installed();
  const ProgramResult result = run({"self", "uninstall"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors, "The maintenance helper is damaged; run the Ravok installer to repair it\n");
  EXPECT_TRUE(testing::same_tree(installed(), before));
}

TEST_F(SampleLauncherRemoval, ChangesItsShortcuts) {
  EXPECT_EQ(status_of(run({"self", "shortcut", "remove"}).output),
            (Json{{"schema_version", 1}, {"removed", {place.entry()}}, {"changed", Json::array()}}));
  EXPECT_FALSE(std::filesystem::exists(place.entry()));
  EXPECT_EQ(status_of(run({"--json", "self", "shortcut", "create"}).output),
            (Json{{"schema_version", 1}, {"created", {place.entry()}}}));
  EXPECT_TRUE(std::filesystem::exists(place.entry()));
}

TEST(SampleLauncher, IsNotRemovedByItselfOutsideAnInstallation) {
  const TemporaryRoot root;
  const ProgramResult result =
      testing::run_program({RAVOK_LAUNCHER, {"--data-dir", root.path(), "self", "uninstall"}, {}, ""});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.errors, "Start the installed Ravok or use the external installer to remove it\n");
  EXPECT_TRUE(root.names().empty());
}

// A store with versions that were put there by hand.
class SampleLauncherStore : public ::testing::Test {
 protected:
  // Unpacks a version of these programs and returns its reference.
  Json add(const std::string& console, const std::string& windowed, const std::string& note) const {
    const testing::LauncherRelease release = testing::publish_launcher(root, build, {console, windowed}, note);
    const Json reference = make_reference(digest(release.manifest, "sha256"), build);
    atomic_create(store.store() / "manifests" / (text_at(reference, "manifest_sha256") + ".json"), release.manifest);
    extract_snapshot(LauncherManifest::parse(Json::parse(release.manifest)), release.archive, store.payload(reference),
                     {}, nullptr);
    return reference;
  }
  void name(const std::string& role, const Json& reference) const {
    Json document = store.load();
    document[role] = reference;
    store.save(document);
  }
  // The files of the version that works, and what the store says of it.
  TreeState working() const {
    TreeState state = tree_state(store.payload(active));
    state.emplace("active", store.load().at("active").dump());
    state.emplace("rollback", store.load().at("rollback").dump());
    return state;
  }

  const TemporaryRoot root{testing::fast_volume()};
  const WithEnvironment home{"HOME", root.directory("home").native()};
  const LauncherStore store{root.directory("data")};
  const Json active = add("#!ravok", "#!ravok-gui", "active");
};

// What a troubled launcher does, and what the trial of it says where no other version works.
struct Trouble {
  const char* name;
  const char* code;
  const char* message;
};

constexpr Trouble troubles[] = {
    {"exit", "launcher_startup_failed", "Launcher candidate exited before initialization"},
    {"wrong-health", "launcher_health",
     "Launcher health does not match its build, process, mode, interrupt contract and attempt"},
    {"deaf", "launcher_health",
     "Launcher health does not match its build, process, mode, interrupt contract and attempt"},
    {"no-acknowledgement", "launcher_lease", "Launcher startup did not acknowledge native content ownership"},
    {"no-lease", "launcher_lease", "The running launcher did not retain native startup ownership"}};

TEST_F(SampleLauncherStore, RejectsACandidateInTroubleAndKeepsTheVersionThatWorks) {
  const Json candidate = add(bytes_of(RAVOK_LAUNCHER_TROUBLED), "#!ravok-gui", "candidate");
  name("active", active);
  const TreeState before = working();
  for (const Trouble& trouble : troubles) {
    name("candidate", candidate);
    const WithEnvironment variable("RAVOK_SAMPLE_TROUBLE", trouble.name);
    const Trial trial = run_trial(store, {"cli", {"self", "status"}, patience, {}});
    EXPECT_FALSE(trial.failure) << trouble.name;
    EXPECT_EQ(trial.exit_code, std::nullopt) << trouble.name;
    EXPECT_EQ(trial.output, "") << trouble.name;
    EXPECT_EQ(store.load().at("failed_candidate"), (Json{{"reference", candidate}, {"problem", "startup_failed"}}))
        << trouble.name;
    EXPECT_TRUE(store.load().at("candidate").is_null()) << trouble.name;
    EXPECT_TRUE(store.load().at("attempt").is_null()) << trouble.name;
    EXPECT_EQ(working(), before) << trouble.name;
  }
}

TEST_F(SampleLauncherStore, EndsACandidateThatHangsAndKeepsTheVersionThatWorks) {
  const Json candidate = add(bytes_of(RAVOK_LAUNCHER_TROUBLED), "#!ravok-gui", "candidate");
  name("active", active);
  const TreeState before = working();
  for (const char* const trouble : {"hang", "hang-for-good"}) {
    name("candidate", candidate);
    const WithEnvironment variable("RAVOK_SAMPLE_TROUBLE", trouble);
    // It is never ready, however long one waits.
    const Trial trial = run_trial(store, {"cli", {"self", "status"}, std::chrono::milliseconds(1), {}});
    EXPECT_FALSE(trial.failure) << trouble;
    EXPECT_EQ(trial.exit_code, std::nullopt) << trouble;
    EXPECT_EQ(store.load().at("failed_candidate"), (Json{{"reference", candidate}, {"problem", "startup_failed"}}));
    EXPECT_EQ(working(), before) << trouble;
  }
}

TEST_F(SampleLauncherStore, SaysWhatIsWrongWithACandidateWhereNoVersionWorks) {
  const Json candidate = add(bytes_of(RAVOK_LAUNCHER_TROUBLED), "#!ravok-gui", "candidate");
  for (const Trouble& trouble : troubles) {
    name("candidate", candidate);
    const WithEnvironment variable("RAVOK_SAMPLE_TROUBLE", trouble.name);
    const Trial trial = run_trial(store, {"cli", {"self", "status"}, patience, {}});
    ASSERT_TRUE(trial.failure) << trouble.name;
    EXPECT_EQ(trial.failure->code, trouble.code) << trouble.name;
    EXPECT_STREQ(trial.failure->what(), trouble.message) << trouble.name;
    EXPECT_EQ(store.load().at("failed_candidate"), (Json{{"reference", candidate}, {"problem", "startup_failed"}}));
    EXPECT_TRUE(store.load().at("active").is_null()) << trouble.name;
  }
}

TEST_F(SampleLauncherStore, TellsOfAFailedCandidateAndOfTheRollback) {
  const Json candidate = add(bytes_of(RAVOK_LAUNCHER), "#!ravok-gui", "candidate");
  name("active", active);
  name("candidate", candidate);
  EXPECT_EQ(run_trial(store, {"cli", {"self", "status"}, patience, {}}).exit_code, 0);
  name("failed_candidate", {{"reference", active}, {"problem", "startup_interrupted"}});
  const std::string program = store.payload(candidate) / "bin/ravok";
  const ProgramResult text = testing::run_program({program, {"self", "status"}, {{"HOME", root / "home"}}, ""});
  EXPECT_EQ(text.exit_code, 0) << text.errors;
  EXPECT_EQ(text.output, product + "Active: " + words_of(candidate) + "\nCandidate: none\nOn trial: none\nRollback: " +
                             words_of(active) + "\nFailed: " + words_of(active) + ": startup_interrupted\n");
  const Json document =
      status_of(testing::run_program({program, {"--json", "self", "status"}, {{"HOME", root / "home"}}, ""}).output);
  EXPECT_EQ(document.at("failed_candidate"), (Json{{"reference", active}, {"problem", "startup_interrupted"}}));
  EXPECT_EQ(document.at("rollback"), active);

  // The store takes any record that has a reference.
  for (const Json& problem : {Json(nullptr), Json(1), Json("\x1b[31m")}) {
    name("failed_candidate", {{"reference", nullptr}, {"problem", problem}});
    const ProgramResult odd = testing::run_program({program, {"self", "status"}, {{"HOME", root / "home"}}, ""});
    EXPECT_EQ(odd.exit_code, 0) << odd.errors;
    const std::string last = std::string("Failed: none: ") + (problem.is_string() ? "\\x1b[31m" : "unknown") + "\n";
    EXPECT_EQ(odd.output.substr(odd.output.find("Failed")), last);
  }
}

TEST_F(SampleLauncherStore, TrustsAVersionThatCrashesOnlyLater) {
  const Json candidate = add(bytes_of(RAVOK_LAUNCHER_TROUBLED), "#!ravok-gui", "candidate");
  name("active", active);
  name("candidate", candidate);
  const WithEnvironment variable("RAVOK_SAMPLE_TROUBLE", "crash-later");
  const Trial trial = run_trial(store, {"cli", {"self", "status"}, patience, {}});
  EXPECT_FALSE(trial.failure);
  EXPECT_EQ(trial.exit_code, 128 + SIGABRT);
  EXPECT_EQ(store.load().at("active"), candidate);
  EXPECT_EQ(store.load().at("rollback"), active);
}

TEST_F(SampleLauncherStore, HearsTheUsersInterrupt) {
  const Json candidate = add(bytes_of(RAVOK_LAUNCHER_TROUBLED), "#!ravok-gui", "candidate");
  name("candidate", candidate);
  const WithEnvironment variable("RAVOK_SAMPLE_TROUBLE", "stay");
  const Trial trial =
      run_trial(store, {"cli", {"self", "status"}, patience, [&] { return store.load().at("active") == candidate; }});
  EXPECT_FALSE(trial.failure);
  EXPECT_EQ(trial.exit_code, 4);
  EXPECT_EQ(trial.errors, "Cancelled\n");
  EXPECT_EQ(store.load().at("active"), candidate);
}

TEST_F(SampleLauncherStore, ConfirmsTheStartOfItsWindow) {
  const Json candidate = add("#!ravok", bytes_of(RAVOK_LAUNCHER_GUI), "candidate");
  name("candidate", candidate);
  const std::filesystem::path marker = store.store() / "start-attempt.json";
  replace_private_file(marker, "{}");
  const Trial trial = run_trial(store, {"gui", {"--launch", "first-game"}, patience, {}});
  EXPECT_FALSE(trial.failure) << trial.failure->what();
  EXPECT_EQ(trial.exit_code, 0);
  EXPECT_EQ(trial.errors, "");
  EXPECT_EQ(store.load().at("active"), candidate);
  EXPECT_FALSE(std::filesystem::exists(marker));

  // Later starts are no attempts, and are confirmed in the same way.
  replace_private_file(marker, "{}");
  const ProgramResult again = testing::run_program({store.payload(candidate) / "bin/ravok-gui",
                                                    {"--data-dir", root / "data", "--launch", "first-game"},
                                                    {{"HOME", root / "home"}},
                                                    ""});
  EXPECT_EQ(again.exit_code, 0) << again.errors;
  EXPECT_FALSE(std::filesystem::exists(marker));
}

TEST_F(SampleLauncherStore, RefusesToRunAsAnotherEntryThanItsOwn) {
  // The console's program in the place of the window's.
  const Json candidate = add("#!ravok", bytes_of(RAVOK_LAUNCHER), "candidate");
  name("active", candidate);
  const ProgramResult result = testing::run_program(
      {store.payload(candidate) / "bin/ravok-gui", {"self", "status"}, {{"HOME", root / "home"}}, ""});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors, "Running launcher image differs from its verified native entry point\n");
}

}  // namespace
}  // namespace ravok::sample_launcher_test
