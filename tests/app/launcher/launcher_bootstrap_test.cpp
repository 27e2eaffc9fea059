// The run of the bootstrap, each in a process of its own, since it becomes what it starts. The versions are scripts
// that say how they were started.

#include "app/launcher/launcher_bootstrap.hpp"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "app/command/cli_entry.hpp"
#include "app/launcher/launcher_reference.hpp"
#include "app/launcher/launcher_startup.hpp"
#include "domain/exit_code.hpp"
#include "platform/posix/native.hpp"
#include "support/clock_calls.hpp"
#include "support/failure.hpp"
#include "support/fast_volume.hpp"
#include "support/game_at_hand.hpp"
#include "support/launcher_place.hpp"
#include "support/tree_state.hpp"
#include "support/with_environment.hpp"

namespace ravok::launcher_bootstrap_test {
namespace {

using std::chrono::milliseconds;
using testing::as_game;
using testing::LauncherPlace;
using testing::LauncherPrograms;
using testing::manifest_document;
using testing::StillClock;
using testing::TemporaryRoot;
using testing::tree_state;
using testing::TreeState;
using testing::WithEnvironment;
using Arguments = std::vector<std::string>;
using Names = std::vector<std::string>;

constexpr const char* misplaced = "usage: Set the data directory on the native bootstrap, before forwarded arguments\n";
constexpr const char* no_version = "launcher_damaged: No installed Ravok version could be started\n";
constexpr const char* failed_twice =
    "ravok: launcher version unusable (launcher_damaged): This Ravok version failed to start twice\n";
constexpr const char* damaged =
    "ravok: launcher version unusable (launcher_damaged): Ravok's files are damaged. Reinstall Ravok to repair them.\n";
constexpr const char* changed_manifest =
    "ravok: launcher version unusable (content_mismatch): Stored launcher manifest changed\n";
constexpr const char* directly = "ravok: starting game directly; repair Ravok by running its installer again\n";
constexpr const char* state_name = "launcher/installation.json";
constexpr const char* marker_name = "launcher/start-attempt.json";

// What a process that was the bootstrap at first has come to.
struct Said {
  int code = 0;  // its exit code, or minus the signal that ended it
  std::string output;
  std::string errors;
};

// The code of a process in which the bootstrap failed. The failure is the last line of its errors.
constexpr int failed_code = 100;

// Work that runs in a copy of this process.
class Fork {
 public:
  explicit Fork(const std::function<int()>& work) {
    std::fflush(nullptr);
    child_ = fork();
    if (child_ == 0) {
      run(work);
    }
  }
  ~Fork() {
    if (child_ > 0) {
      kill(child_, SIGKILL);
      wait();
    }
  }
  Fork(const Fork&) = delete;
  Fork& operator=(const Fork&) = delete;

  void send_signal(int signal) const { kill(child_, signal); }
  // Waits for its end and returns how many bytes it has read from files; nothing where the system does not tell.
  std::optional<std::uint64_t> bytes_read() const {
    siginfo_t info{};
    posix::retry_interrupted([&] { return waitid(P_PID, static_cast<id_t>(child_), &info, WEXITED | WNOWAIT); });
    std::ifstream account("/proc/" + std::to_string(child_) + "/io");
    std::string key;
    std::uint64_t bytes = 0;
    return account >> key >> bytes && key == "rchar:" ? std::optional(bytes) : std::nullopt;
  }
  Said wait() {
    int status = 0;
    posix::retry_interrupted([&] { return waitpid(child_, &status, 0); });
    child_ = -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), streams_.read("output"),
            streams_.read("errors")};
  }

 private:
  [[noreturn]] void run(const std::function<int()>& work) const {
    redirect(1, "output");
    redirect(2, "errors");
    int code = failed_code;
    try {
      code = work();
    } catch (const Error& error) {
      std::fprintf(stderr, "%s: %s\n", error.code.c_str(), error.what());
    }
    std::fflush(nullptr);
    _exit(code);
  }
  void redirect(int descriptor, const char* name) const {
    const int file = open((streams_ / name).c_str(), O_WRONLY | O_APPEND);
    if (file < 0 || dup2(file, descriptor) < 0) {
      _exit(101);
    }
    close(file);
  }

  const TemporaryRoot streams_{testing::fast_volume()};
  const std::filesystem::path output_ = streams_.write("output", "");
  const std::filesystem::path errors_ = streams_.write("errors", "");
  pid_t child_ = -1;
};

std::string script(const std::string& role, const std::string& build_id, int code) {
  return "#!/bin/sh\necho \"" + role + " of " + build_id +
         " in $(pwd -P)\"\n"
         "for word; do echo \"[$word]\"; done\n"
         "echo \"trial:$RAVOK_LAUNCHER_HEALTH_NONCE$RAVOK_LAUNCHER_MANIFEST$RAVOK_LAUNCHER_BUILD"
         "$RAVOK_LAUNCHER_INTERFACE$RAVOK_LAUNCHER_DATA_ROOT\"\nexit " +
         std::to_string(code) + "\n";
}

std::string unusable(const std::string& words) { return "ravok: launcher version unusable " + words + "\n"; }

// The clock that the bootstrap reads. std::time may lag behind it.
std::int64_t seconds_now() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

class LauncherBootstrap : public ::testing::Test {
 protected:
  Json add(const std::string& build_id) const {
    return place.add_version(
        build_id, {script("console", build_id, 7), script("window", build_id, 8), script("helper", build_id, 9)});
  }
  void select(const Json& now, const Json& former) const {
    place.set("active", now);
    place.set("rollback", former);
  }
  // Makes this version the newest of the store.
  void make_newest(const Json& reference) const {
    std::filesystem::last_write_time(payload(reference),
                                     std::filesystem::file_time_type::clock::now() + std::chrono::hours(1));
  }
  std::filesystem::path payload(const Json& reference) const { return place.store.payload(reference); }

  int bootstrap(const char* interface, const Arguments& arguments) const {
    return run_launcher_bootstrap(place.root.path(), interface, arguments, milliseconds(30'000), nullptr);
  }
  Said run(const char* interface, const Arguments& arguments) const {
    return Fork([&] { return bootstrap(interface, arguments); }).wait();
  }
  Said run_console() const { return run("cli", {"list"}); }
  Said run_window() const { return run("gui", {}); }

  // What a version says that was started so.
  std::string started(const std::string& role, const Json& reference, const Arguments& arguments) const {
    std::string text = role + " of " + text_at(reference, "build_id") + " in " + payload(reference).native() +
                       "\n[--data-dir]\n[" + place.root.path().native() + "]\n";
    for (const std::string& argument : arguments) {
      text += "[" + argument + "]\n";
    }
    return text + "trial:\n";
  }
  void expect_console(const Said& said, const Json& reference, const std::string& errors = "") const {
    EXPECT_EQ(said.code, 7);
    EXPECT_EQ(said.output, started("console", reference, {"list"}));
    EXPECT_EQ(said.errors, errors);
  }
  void expect_window(const Said& said, const Json& reference, const std::string& errors = "") const {
    EXPECT_EQ(said.code, 8);
    EXPECT_EQ(said.output, started("window", reference, {}));
    EXPECT_EQ(said.errors, errors);
  }
  static void expect_failure(const Said& said, const std::string& errors) {
    EXPECT_EQ(said.code, failed_code);
    EXPECT_EQ(said.output, "");
    EXPECT_EQ(said.errors, errors);
  }

  TreeState state() const { return tree_state(place.root.path()); }

  void write_marker(const Json& reference, std::uint32_t attempts, std::int64_t age) const {
    place.root.write(marker_name, Json{{"manifest_sha256", reference.at("manifest_sha256")},
                                       {"started_at", seconds_now() - age},
                                       {"attempts", attempts}}
                                      .dump());
  }
  bool has_marker() const { return std::filesystem::exists(place.root / marker_name); }
  void expect_marker(const Json& reference, std::uint32_t attempts) const {
    ASSERT_TRUE(has_marker());
    const Json marker = Json::parse(place.root.read(marker_name));
    EXPECT_EQ(marker.at("manifest_sha256"), reference.at("manifest_sha256"));
    EXPECT_EQ(marker.at("attempts"), attempts);
    EXPECT_GE(marker.at("started_at").get<std::int64_t>(), before);
    EXPECT_LE(marker.at("started_at").get<std::int64_t>(), seconds_now());
    EXPECT_EQ(marker.size(), 3u);
  }

  // Installs the game "game", whose program is a script.
  void install_game() const {
    const std::string program = "#!/bin/sh\necho \"game in $(pwd -P) with $#\"\nexit 6\n";
    Json document = as_game(manifest_document());
    document["files"][0]["length"] = program.size();
    document["archive"]["expanded_length"] = program.size();
    std::filesystem::permissions(place.root.write("games/game/versions/1.0/bin/program", program),
                                 std::filesystem::perms::owner_all);
    const Json record = {
        {"installed", true}, {"game_id", "game"}, {"active", {{"version", "1.0"}, {"manifest", document}}}};
    place.root.write("games/game/record.json", record.dump());
  }

  const LauncherPlace place{testing::fast_volume()};
  const Json active = add("build-1");
  const Json rollback = add("build-2");
  const std::int64_t before = seconds_now();
};

TEST_F(LauncherBootstrap, BecomesTheActiveVersionOnTheConsole) {
  select(active, rollback);
  const TreeState untouched = state();
  expect_console(run_console(), active);
  const Said json = run("cli", {"--json", "status", "game"});
  EXPECT_EQ(json.code, 7);
  EXPECT_EQ(json.output, started("console", active, {"--json", "status", "game"}));
  EXPECT_EQ(state(), untouched);
}

TEST_F(LauncherBootstrap, BecomesTheActiveVersionWithItsWindow) {
  select(active, rollback);
  const TreeState untouched = state();
  expect_window(run_window(), active);
  expect_marker(active, 1);
  const Said game = run("gui", {"--launch", "game"});
  EXPECT_EQ(game.output, started("window", active, {"--launch", "game"}));
  EXPECT_EQ(game.errors, "");
  std::filesystem::remove(place.root / marker_name);
  EXPECT_EQ(state(), untouched);
}

TEST_F(LauncherBootstrap, HandsOnNoAuthorityOfATrial) {
  select(active, nullptr);
  std::vector<std::unique_ptr<WithEnvironment>> stale;
  for (const std::string_view variable : startup_variables) {
    stale.push_back(std::make_unique<WithEnvironment>(std::string(variable), "stale"));
  }
  expect_console(run_console(), active);
  expect_window(run_window(), active);
}

TEST_F(LauncherBootstrap, RefusesWhatTheCallerChoseWrongBeforeAnythingElse) {
  const TreeState untouched = state();
  const auto fails = [&](const char* interface, int limit, const std::string& errors) {
    const Said said = Fork([&] {
                        return run_launcher_bootstrap(place.root / "missing", interface, {"--data-dir"},
                                                      milliseconds(limit), nullptr);
                      }).wait();
    expect_failure(said, errors);
  };
  for (const char* const interface : {"", "tui", "CLI", "gui "}) {
    fails(interface, 0, "launcher_interface: Choose the CLI or GUI launcher interface\n");
  }
  for (const char* const interface : {"cli", "gui"}) {
    for (const int limit : {-1, 0, 30'001}) {
      fails(interface, limit, "launcher_health: Launcher startup limit must be bounded to 30 seconds\n");
    }
    for (const int limit : {1, 30'000}) {
      fails(interface, limit, interface[0] == 'g' ? misplaced : "usage: --data-dir needs a nonempty path\n");
    }
  }
  EXPECT_EQ(state(), untouched);
}

TEST_F(LauncherBootstrap, TakesNoDataFolderFromTheArguments) {
  select(active, nullptr);
  const TreeState untouched = state();
  for (const Arguments& arguments : {Arguments{"--data-dir", "/other"},
                                     {"--data-dir"},
                                     {"--launch", "--data-dir"},
                                     {"a", "b", "--data-dir", "/other", "--"}}) {
    expect_failure(run("gui", arguments), misplaced);
  }
  for (const Arguments& arguments : {Arguments{"--data-dir", "/other", "list"},
                                     {"--json", "--data-dir", "/o", "list"},
                                     {"--help", "--data-dir", "/other"}}) {
    expect_failure(run("cli", arguments), misplaced);
  }
  expect_failure(run("cli", {"list", "--data-dir", "/other"}), "usage: Unsupported option: --data-dir\n");
  EXPECT_EQ(state(), untouched);
}

TEST_F(LauncherBootstrap, LeavesWindowedArgumentsBehindTwoDashesAlone) {
  select(active, nullptr);
  const Arguments arguments = {"--", "--data-dir", "/other", "--help", "--json", ""};
  const Said said = run("gui", arguments);
  EXPECT_EQ(said.code, 8);
  EXPECT_EQ(said.output, started("window", active, arguments));
  EXPECT_EQ(said.errors, "");
}

TEST_F(LauncherBootstrap, RefusesACommandThatIsNone) {
  select(active, nullptr);
  const TreeState untouched = state();
  expect_failure(run("cli", {}), "usage: Unknown command; run ravok --help\n");
  expect_failure(run("cli", {"--launch", "game"}), "usage: Unknown command; run ravok --help\n");
  expect_failure(run("cli", {"self", "uninstall", "--now"}), "usage: Use self uninstall [--remove-data]\n");
  expect_failure(run("cli", {"self", "shortcut", "list"}),
                 "usage: Use self shortcut create [--game GAME] or self shortcut remove\n");
  expect_failure(run("cli", {"uninstall", "game"}),
                 "confirmation_required: Specify uninstall GAME --confirm-game GAME; add --remove-saves only to delete "
                 "saves\n");
  EXPECT_EQ(state(), untouched);
}

// What no program can be started with is refused before a version is looked at, however good the candidate is.
TEST_F(LauncherBootstrap, SpendsNoVersionOnArgumentsThatNoneCanTake) {
  select(active, rollback);
  place.set("candidate", active);
  const TreeState untouched = state();
  const std::string long_value = '"' + std::string(4096, 'x') + '"';
  expect_failure(run("cli", {"settings", "set", "key", long_value}),
                 "argument_encoding: Invalid maintenance argument\n");
  expect_failure(run("gui", {"--launch", long_value}), "argument_encoding: Invalid maintenance argument\n");
  expect_failure(run("gui", Arguments(63, "a")), "argument_limit: Too many replacement arguments\n");
  expect_failure(run("gui", Arguments(9, std::string(4000, 'x'))),
                 "argument_limit: Maintenance arguments exceed their bound\n");
  EXPECT_EQ(state(), untouched);
}

TEST_F(LauncherBootstrap, ShowsHelpWithoutAnInstallation) {
  const auto help = [&](const Arguments& arguments) {
    return Fork([&] {
             return run_launcher_bootstrap(place.root / "missing", "cli", arguments, milliseconds(1), nullptr);
           })
        .wait();
  };
  const TreeState untouched = state();
  for (const Arguments& arguments : {Arguments{"--help"}, {"--help", "bogus"}, {"--help", "self", "uninstall"}}) {
    const Said said = help(arguments);
    EXPECT_EQ(said.code, 0);
    EXPECT_EQ(said.output, cli_help());
    EXPECT_EQ(said.errors, "");
  }
  for (const Arguments& arguments : {Arguments{"--help", "--json"}, {"--json", "--help", "list"}}) {
    const Said said = help(arguments);
    EXPECT_EQ(said.code, 0);
    EXPECT_EQ(said.output, Json({{"schema_version", 1}, {"kind", "help"}, {"text", cli_help()}}).dump() + "\n");
    EXPECT_EQ(said.errors, "");
  }
  EXPECT_EQ(state(), untouched);
}

TEST_F(LauncherBootstrap, RefusesAFolderWhoseSetupHasNotEnded) {
  select(active, nullptr);
  place.root.write(".ravok-setup-incomplete", "");
  const TreeState untouched = state();
  const std::string refusal = "native_install_incomplete: Ravok setup did not finish in " + place.root.path().native() +
                              ". Run the Ravok installer again to repair it.\n";
  expect_failure(run_console(), refusal);
  expect_failure(run_window(), refusal);
  expect_failure(run("cli", {"self", "uninstall"}), refusal);
  expect_failure(run("gui", {"--launch", "game"}), refusal);
  EXPECT_EQ(state(), untouched);
}

// Something that is wrong with a version, and what is said of it.
struct Damage {
  const char* name;
  std::function<void(const std::filesystem::path& payload, const std::filesystem::path& manifest)> make;
  std::string said;
};

void append(const std::filesystem::path& path, const char* text) { std::ofstream(path, std::ios::app) << text; }

const std::vector<Damage>& damages() {
  static const std::vector<Damage> all = {
      {"a file changed", [](auto payload, auto) { testing::write_bytes(payload / "data/file", "CONTENT of build-1"); },
       "(content_mismatch): Game content differs from the verified manifest: data/file"},
      {"a file is missing", [](auto payload, auto) { std::filesystem::remove(payload / "data/file"); },
       "(missing_file): Game content is incomplete; repair is available"},
      {"there is another file", [](auto payload, auto) { testing::write_bytes(payload / "data/other", ""); },
       "(unexpected_file): Game tree contains an unmanaged file"},
      {"the helper is larger", [](auto payload, auto) { append(payload / "bin/helper", " "); },
       "(content_mismatch): Game content differs from the verified manifest: bin/helper"},
      {"a program cannot be executed", [](auto payload, auto) { chmod((payload / "bin/program").c_str(), 0644); },
       "(content_mode): Game executable permission is missing"},
      {"the folder is missing", [](auto payload, auto) { std::filesystem::remove_all(payload); },
       "(launcher_damaged): Ravok's files are damaged. Reinstall Ravok to repair them."},
      {"a link stands for a folder",
       [](auto payload, auto) {
         std::filesystem::rename(payload / "bin", payload / "elsewhere");
         std::filesystem::create_directory_symlink("elsewhere", payload / "bin");
       },
       "(unsafe_path): Managed path contains a symbolic link"},
      {"the manifest changed", [](auto, auto manifest) { append(manifest, " "); },
       "(content_mismatch): Stored launcher manifest changed"},
      {"the manifest is missing", [](auto, auto manifest) { std::filesystem::remove(manifest); },
       "(file_read): MANIFEST"},
  };
  return all;
}

TEST_F(LauncherBootstrap, GoesBackToTheVersionBeforeOneThatIsDamaged) {
  for (const Damage& damage : damages()) {
    SCOPED_TRACE(damage.name);
    std::filesystem::remove_all(payload(active));
    add("build-1");
    select(active, rollback);
    damage.make(payload(active), place.manifest_path(active));
    std::string said = damage.said;
    if (said == "(file_read): MANIFEST") {
      said = "(file_read): Cannot open file: " + place.manifest_path(active).native();
    }
    const TreeState untouched = state();
    expect_console(run_console(), rollback, unusable(said));
    EXPECT_EQ(state(), untouched);
    expect_window(run_window(), rollback, unusable(said));
    expect_marker(rollback, 1);
    std::filesystem::remove(place.root / marker_name);
    EXPECT_EQ(state(), untouched);
  }
}

TEST_F(LauncherBootstrap, LooksAtTheEntryOfTheInterface) {
  select(active, rollback);
  append(payload(active) / "bin/program", " ");
  expect_console(run_console(), rollback, damaged);
  // The other entry has its size, and the whole tree is verified.
  expect_window(run_window(), rollback,
                unusable("(content_mismatch): Game content differs from the verified manifest: bin/program"));
  std::filesystem::remove(payload(active) / "bin/window");
  expect_window(run_window(), rollback, damaged);
}

TEST_F(LauncherBootstrap, GoesBackToTheNewestOtherVersion) {
  const Json oldest = add("build-0");
  const Json newest = add("build-3");
  make_newest(newest);
  select(active, rollback);
  append(payload(active) / "bin/program", " ");
  append(payload(rollback) / "bin/program", " ");
  const TreeState untouched = state();
  expect_console(run_console(), newest, std::string(damaged) + damaged);
  // Only the newest, and not what is left beside it.
  append(place.manifest_path(newest), " ");
  make_newest(oldest);
  expect_console(run_console(), oldest, std::string(damaged) + damaged);
  append(payload(oldest) / "bin/program", " ");
  expect_failure(run_console(), std::string(damaged) + damaged + damaged +
                                    "launcher_damaged: Ravok's files are damaged. Reinstall Ravok to repair them.\n");
  EXPECT_EQ(place.root.read(state_name), untouched.at(state_name).substr(untouched.at(state_name).find('{')));
}

TEST_F(LauncherBootstrap, TriesEachVersionOnce) {
  select(active, active);
  make_newest(active);
  append(payload(active) / "bin/program", " ");
  expect_failure(run_console(), std::string(damaged) +
                                    "launcher_damaged: Ravok's files are damaged. Reinstall Ravok to repair them.\n");
  // The version is known by its manifest alone.
  select(active, make_reference(text_at(active, "manifest_sha256"), "other"));
  expect_failure(run_console(), std::string(damaged) +
                                    "launcher_damaged: Ravok's files are damaged. Reinstall Ravok to repair them.\n");
}

TEST_F(LauncherBootstrap, FailsAsTheLastVersionDoes) {
  select(active, rollback);
  make_newest(active);
  append(payload(active) / "bin/program", " ");
  append(place.manifest_path(rollback), " ");
  const TreeState untouched = state();
  expect_failure(run_console(),
                 std::string(damaged) + changed_manifest + "content_mismatch: Stored launcher manifest changed\n");
  EXPECT_EQ(state(), untouched);
}

TEST_F(LauncherBootstrap, StartsTheNewestVersionWhereNoneIsSelected) {
  make_newest(rollback);
  const TreeState untouched = state();
  expect_console(run_console(), rollback);
  make_newest(active);
  std::filesystem::last_write_time(payload(rollback), std::filesystem::file_time_type::clock::now());
  expect_console(run_console(), active);
  EXPECT_EQ(state(), untouched);
  EXPECT_EQ(untouched.count(state_name), 0u);
}

TEST_F(LauncherBootstrap, FailsWhereThereIsNoVersion) {
  std::filesystem::remove_all(place.store.store() / "versions");
  for (const bool whole : {true, false}) {
    if (!whole) {
      std::filesystem::remove_all(place.store.store());
    }
    const TreeState untouched = state();
    expect_failure(run_console(), no_version);
    expect_failure(run_window(), no_version);
    expect_failure(run("gui", {"--launch", "game", "more"}), no_version);
    EXPECT_EQ(state(), untouched);
  }
}

TEST_F(LauncherBootstrap, PassesOverVersionsThatAreTooManyToChooseFrom) {
  select(active, nullptr);
  for (int i = 0; i < 63; ++i) {
    place.root.directory("launcher/versions/" + std::to_string(i));
  }
  append(payload(active) / "bin/program", " ");
  make_newest(rollback);
  const std::string failure =
      std::string(damaged) + "launcher_damaged: Ravok's files are damaged. Reinstall Ravok to repair them.\n";
  expect_failure(run_console(), failure);
  std::filesystem::remove(place.root / "launcher/versions/0");
  expect_console(run_console(), rollback, damaged);
}

TEST_F(LauncherBootstrap, StartsTheNewestVersionWhereItsRecordCannotBeUsed) {
  select(active, nullptr);
  make_newest(rollback);
  const Json good = place.store.load();
  const auto with = [&](const char* key, const Json& value) {
    Json document = good;
    document[key] = value;
    return document.dump();
  };
  const Json attempt = {{"nonce", std::string(32, 'a')}, {"reference", active}};
  Json contradictory = good;
  contradictory["attempt"] = attempt;
  contradictory["candidate"] = rollback;
  for (const std::string& text : {with("schema_version", 2),
                                  with("format", "ravok-launcher-store-v2"),
                                  with("active", "build-1"),
                                  with("active", {{"manifest_sha256", "a"}}),
                                  with("rollback", Json::array()),
                                  with("candidate", 1),
                                  with("attempt", {{"nonce", "a"}}),
                                  with("failed_candidate", 1),
                                  contradictory.dump(),
                                  std::string("{"),
                                  std::string(),
                                  std::string("[]"),
                                  std::string("null"),
                                  good.dump() + "}",
                                  std::string("\xff"),
                                  with("generation", 0),
                                  with("generation", -1),
                                  with("generation", 1.5),
                                  std::string("{\"active\":null,\"active\":null}"),
                                  std::string(65, '[') + std::string(65, ']'),
                                  good.dump() + std::string(32'769 - good.dump().size(), ' ')}) {
    SCOPED_TRACE(text.substr(0, 200));
    place.root.write(state_name, text);
    const TreeState untouched = state();
    expect_console(run_console(), rollback);
    EXPECT_EQ(state(), untouched);
  }
  expect_window(run_window(), rollback);
  expect_marker(rollback, 1);
}

TEST_F(LauncherBootstrap, StopsAtARecordThatItMayNotRead) {
  select(active, nullptr);
  const std::string good = place.document_text();
  const auto fails = [&](const std::string& errors) {
    const TreeState untouched = state();
    expect_failure(run_console(), errors);
    expect_failure(run_window(), errors);
    EXPECT_EQ(state(), untouched);
  };
  place.root.write(state_name, good + std::string(32'768 - good.size(), ' '));
  expect_console(run_console(), active);
  std::filesystem::remove(place.root / state_name);
  std::filesystem::create_symlink("elsewhere", place.root / state_name);
  fails("unsafe_path: Cannot open file: " + (place.root / state_name).native() + "\n");
}

TEST_F(LauncherBootstrap, GoesOnWhereAVersionCannotBeExecuted) {
  const Json broken = place.add_version("build-3", {"no program", "no program", "#!helper"});
  select(broken, rollback);
  const std::string no_program =
      unusable("(process_start): Cannot replace this process (native error " + std::to_string(ENOEXEC) + ")");
  const TreeState untouched = state();
  expect_console(run_console(), rollback, no_program);
  EXPECT_EQ(state(), untouched);
  expect_window(run_window(), rollback, no_program);
  // The start that did not come about is not counted beside the one that did.
  expect_marker(rollback, 1);
}

TEST_F(LauncherBootstrap, CountsTheStartsOfItsWindow) {
  select(active, rollback);
  write_marker(active, 1, 100);
  expect_window(run_window(), active);
  expect_marker(active, 2);
}

TEST_F(LauncherBootstrap, GivesUpAVersionWhoseWindowFailedTwice) {
  select(active, rollback);
  for (const std::uint32_t attempts : {2u, 3u, 4'294'967'295u}) {
    write_marker(active, attempts, 100);
    expect_window(run_window(), rollback, failed_twice);
    expect_marker(rollback, 1);
  }
}

TEST_F(LauncherBootstrap, CountsNoStartThatMayStillBeGoingOn) {
  select(active, rollback);
  // Started now: younger than 30 seconds, however slowly this test runs beside others. In the future: so is this.
  for (const std::int64_t age : {std::int64_t{0}, std::int64_t{-100'000}}) {
    write_marker(active, 2, age);
    expect_window(run_window(), active);
    expect_marker(active, 1);
  }
}

TEST_F(LauncherBootstrap, CountsNoStartOfAnotherVersion) {
  select(active, rollback);
  write_marker(rollback, 2, 100);
  expect_window(run_window(), active);
  expect_marker(active, 1);
  write_marker(rollback, 1, 100);
  append(payload(active) / "bin/window", " ");
  expect_window(run_window(), rollback, damaged);
  expect_marker(rollback, 2);
}

TEST_F(LauncherBootstrap, TakesAMarkerThatCannotBeReadForNone) {
  select(active, rollback);
  for (const char* const text : {"", "{}", "{", "[]", "\xff"}) {
    place.root.write(marker_name, text);
    expect_window(run_window(), active);
    expect_marker(active, 1);
  }
}

TEST_F(LauncherBootstrap, StartsNoWindowThatItCannotMark) {
  select(active, nullptr);
  std::filesystem::remove_all(payload(rollback));
  place.root.write("launcher/start-attempt.json/file", "");
  const TreeState untouched = state();
  const std::string words = "Cannot commit transaction file (" + std::to_string(EISDIR) + ")\n";
  expect_failure(run_window(), "ravok: launcher version unusable (file_write): " + words + "file_write: " + words);
  expect_console(run_console(), active);
  EXPECT_EQ(state(), untouched);
}

TEST_F(LauncherBootstrap, NeitherCountsNorMarksStartsOnTheConsole) {
  select(active, rollback);
  write_marker(active, 2, 100);
  const TreeState untouched = state();
  expect_console(run_console(), active);
  EXPECT_EQ(state(), untouched);
}

TEST_F(LauncherBootstrap, FailsWhereTheOnlyVersionFailedTwice) {
  select(active, nullptr);
  std::filesystem::remove_all(payload(rollback));
  write_marker(active, 2, 100);
  const TreeState untouched = state();
  expect_failure(run_window(),
                 std::string(failed_twice) + "launcher_damaged: This Ravok version failed to start twice\n");
  EXPECT_EQ(state(), untouched);
}

TEST_F(LauncherBootstrap, StartsTheGameItselfWhereNoVersionCanBeStarted) {
  install_game();
  std::filesystem::remove_all(place.store.store() / "versions");
  const TreeState untouched = state();
  const Said game = run("gui", {"--launch", "game"});
  EXPECT_EQ(game.code, 6);
  EXPECT_EQ(game.output, "game in " + (place.root / "games/game/versions/1.0").native() + " with 0\n");
  EXPECT_EQ(game.errors, directly);

  // Nothing else does.
  for (const Arguments& arguments :
       {Arguments{}, {"--launch"}, {"--launch", "game", "more"}, {"game", "--launch"}, {"--", "--launch", "game"}}) {
    expect_failure(run("gui", arguments), no_version);
  }
  expect_failure(run("cli", {"launch", "game"}), no_version);

  append(place.root / "games/game/versions/1.0/bin/program", " ");
  expect_failure(run("gui", {"--launch", "game"}),
                 std::string(directly) + "content_mismatch: The game's program is missing or changed\n");
  std::filesystem::remove_all(place.root / "games");
  expect_failure(run("gui", {"--launch", "game"}), std::string(directly) + "file_read: Cannot open file: " +
                                                       (place.root / "games/game/record.json").native() + "\n");
  expect_failure(run("gui", {"--launch", "Not\x1b[31m"}),
                 "ravok: starting Not\\x1b[31m directly; repair Ravok by running its installer again\n"
                 "invalid_identity: Game and build IDs use lower-case letters, digits, dots and hyphens\n");
  expect_failure(run("gui", {"--launch", ""}),
                 "ravok: starting  directly; repair Ravok by running its installer again\n"
                 "invalid_identity: Game and build IDs use lower-case letters, digits, dots and hyphens\n");
  EXPECT_TRUE(testing::same_tree(state(), testing::without(untouched, {"games"})));
}

TEST_F(LauncherBootstrap, StartsTheGameOnlyWhereNoVersionCan) {
  install_game();
  select(active, nullptr);
  append(payload(active) / "bin/window", " ");
  const Said said = run("gui", {"--launch", "game"});
  EXPECT_EQ(said.code, 8);
  EXPECT_EQ(said.output, started("window", rollback, {"--launch", "game"}));
  EXPECT_EQ(said.errors, damaged);
}

TEST_F(LauncherBootstrap, ReachesItsFolderThroughALink) {
  select(active, nullptr);
  const TemporaryRoot links;
  std::filesystem::create_directory_symlink(place.root.path(), links / "data");
  const Said said =
      Fork([&] { return run_launcher_bootstrap(links / "data", "cli", {"list"}, milliseconds(1), nullptr); }).wait();
  EXPECT_EQ(said.code, 7);
  EXPECT_EQ(said.output, "console of build-1 in " + payload(active).native() + "\n[--data-dir]\n[" +
                             (links / "data").native() + "]\n[list]\ntrial:\n");
  EXPECT_EQ(said.errors, "");
}

// A version whose verification takes longer than anybody waits.
class LargeLauncher : public LauncherBootstrap {
 protected:
  LargeLauncher() {
    const std::vector<testing::SampleFile> files = {{"bin/program", script("console", "large", 7), 0755},
                                                    {"bin/window", script("window", "large", 8), 0755},
                                                    {"data/large", ""}};
    Json document = testing::as_launcher(testing::manifest_of(files, "archive").raw);
    document["build_id"] = "large";
    document["platform"] = native_platform();
    document["files"][2]["length"] = large;
    document["archive"]["expanded_length"] = document["archive"]["expanded_length"].get<std::uint64_t>() + large;
    const std::string text = document.dump();
    reference = make_reference(digest(text, "sha256"), "large");
    place.root.write("launcher/manifests/" + text_at(reference, "manifest_sha256") + ".json", text);
    for (const testing::SampleFile& file : files) {
      const auto path = place.root.write("launcher/versions/" + text_at(reference, "manifest_sha256") + "/" + file.path,
                                         file.content);
      chmod(path.c_str(), file.mode);
    }
    std::filesystem::resize_file(payload(reference) / "data/large", large);
    select(reference, rollback);
  }

  // The user wishes to stop once this process has used so much time of its processor: it has begun to verify by then,
  // and is far from its end, however busy the machine is.
  static void stop_while_verifying(int signal) {
    static volatile sig_atomic_t wish;
    wish = signal;
    struct sigaction action = {};
    action.sa_handler = [](int) { kill(getpid(), wish); };
    action.sa_flags = SA_RESTART;
    const itimerval once = {.it_interval = {}, .it_value = {.tv_sec = 0, .tv_usec = 100'000}};
    if (sigaction(SIGPROF, &action, nullptr) != 0 || setitimer(ITIMER_PROF, &once, nullptr) != 0) {
      _exit(102);
    }
  }

  static constexpr std::uint64_t large = launcher_limits::bytes - 4096;
  Json reference;
};

TEST_F(LargeLauncher, IsNotStartedWhereTheUserWantsToStop) {
  const std::string untouched = place.document_text();
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    Fork fork([&] {
      stop_while_verifying(signal);
      return bootstrap("cli", {"list"});
    });
    EXPECT_LT(fork.bytes_read().value_or(0), large);
    expect_failure(fork.wait(), "cancelled: Ravok's start was cancelled\n");
    EXPECT_EQ(place.document_text(), untouched);
    EXPECT_FALSE(has_marker());
  }
}

TEST_F(LargeLauncher, IsNotTriedFurtherWhereTheUserWantsToStop) {
  place.set("active", rollback);
  place.set("candidate", reference);
  Fork fork([&] {
    stop_while_verifying(SIGINT);
    return bootstrap("cli", {"list"});
  });
  EXPECT_LT(fork.bytes_read().value_or(0), large);
  expect_failure(fork.wait(), "cancelled: Ravok's start was cancelled\n");
  EXPECT_EQ(place.value("active"), rollback);
  EXPECT_EQ(place.value("failed_candidate"), (Json{{"reference", reference}, {"problem", "startup_failed"}}));
}

TEST_F(LargeLauncher, EndsByTheSignalWhereItHasAWindow) {
  Fork fork([&] { return bootstrap("gui", {}); });
  fork.send_signal(SIGINT);
  EXPECT_EQ(fork.wait().code, -SIGINT);
  EXPECT_FALSE(has_marker());
}

// The client's own removal.
TEST_F(LauncherBootstrap, BecomesTheHelperOfTheActiveVersionToRemoveTheClient) {
  select(active, rollback);
  make_newest(rollback);
  const std::string root = place.root.path();
  const auto helper = [&](const Json& reference, const std::string& arguments) {
    return "helper of " + text_at(reference, "build_id") + " in " + (payload(reference) / "bin").native() + "\n" +
           arguments + "trial:\n";
  };
  const std::string plain = "[uninstall]\n[--data-dir]\n[" + root + "]\n";
  const Said said = run("cli", {"self", "uninstall"});
  EXPECT_EQ(said.code, 9);
  EXPECT_EQ(said.output, helper(active, plain));
  EXPECT_EQ(said.errors, "");
  const Said all = run("cli", {"--json", "self", "uninstall", "--remove-data"});
  EXPECT_EQ(all.output, helper(active, plain + "[--remove-data]\n[--json]\n"));
  // Only these commands and those of shortcuts take it in any place.
  for (const Arguments& words : {Arguments{"self", "--json", "uninstall", "--remove-data"},
                                 {"self", "uninstall", "--json", "--remove-data"},
                                 {"self", "uninstall", "--remove-data", "--json"}}) {
    EXPECT_EQ(run("cli", words).output, all.output);
  }
  expect_failure(run("cli", {"list", "--json"}), "usage: Unsupported option: --json\n");
  // Without an active version, the newest one's.
  place.set("active", nullptr);
  EXPECT_EQ(run("cli", {"self", "uninstall"}).output, helper(rollback, plain));
}

TEST_F(LauncherBootstrap, GivesUpItsLifetimeOnlyForTheHelper) {
  select(active, rollback);
  const auto with_lock = [&](const Arguments& arguments, bool breaks) {
    if (breaks) {
      chmod((payload(active) / "bin/helper").c_str(), 0644);
    }
    return Fork([&] {
             auto lifetime = std::make_unique<NativeFileLock>(place.root / ".native-bootstrap.lock", true,
                                                              NativeLockSharing::others, LockMode::shared);
             try {
               run_launcher_bootstrap(place.root.path(), "cli", arguments, milliseconds(1), &lifetime);
             } catch (const Error& error) {
               std::fprintf(stderr, "%s: %s\n", error.code.c_str(), error.what());
             }
             return lifetime ? 1 : 0;
           })
        .wait();
  };
  const Said help = with_lock({"--help"}, false);
  EXPECT_EQ(help.code, 1);
  // The helper is whole, but cannot be executed.
  const Said said = with_lock({"self", "uninstall"}, true);
  EXPECT_EQ(said.code, 0);
  EXPECT_EQ(said.errors, "process_start: Cannot replace this process (native error " + std::to_string(EACCES) + ")\n");
  append(payload(active) / "bin/helper", " ");
  EXPECT_EQ(with_lock({"self", "uninstall"}, false).code, 1);
}

TEST_F(LauncherBootstrap, StartsNoHelperThatIsDamagedOrMissing) {
  select(active, rollback);
  append(payload(active) / "bin/helper", " ");
  const std::string untouched = place.document_text();
  expect_failure(run("cli", {"self", "uninstall"}),
                 "content_mismatch: The maintenance helper is damaged; run the Ravok installer to repair it\n");
  append(place.manifest_path(active), " ");
  expect_failure(run("cli", {"self", "uninstall"}), "content_mismatch: Stored launcher manifest changed\n");
  EXPECT_EQ(place.document_text(), untouched);
  std::filesystem::remove_all(place.store.store() / "versions");
  place.set("active", nullptr);
  expect_failure(run("cli", {"self", "uninstall"}), "launcher_missing: No installed Ravok version could be started\n");
}

TEST_F(LauncherBootstrap, EndsAnInterruptedAttemptBeforeTheClientIsRemoved) {
  place.set("active", active);
  place.set("attempt", {{"nonce", std::string(32, 'a')}, {"reference", rollback}});
  EXPECT_EQ(run("cli", {"self", "uninstall"}).code, 9);
  EXPECT_EQ(place.value("attempt"), nullptr);
  EXPECT_EQ(place.value("failed_candidate"), Json({{"reference", rollback}, {"problem", "startup_interrupted"}}));
}

TEST_F(LauncherBootstrap, LeavesAnAttemptThatRunsAndRemovesNothing) {
  place.set("active", active);
  const Json attempt = {{"nonce", std::string(32, 'a')}, {"reference", rollback}};
  place.set("attempt", attempt);
  const std::string untouched = place.document_text();
  const FileLock launcher(place.store.startup_lease_path(attempt), false, LockMode::shared);
  const char* const running =
      "launcher_running: The unfinished launcher is still using its startup attempt; close it before restarting\n";
  expect_failure(run("cli", {"self", "uninstall"}), running);
  expect_failure(run_console(), running);
  expect_failure(run_window(), running);
  EXPECT_EQ(place.document_text(), untouched);
  EXPECT_FALSE(has_marker());
}

TEST_F(LauncherBootstrap, BecomesNoHelperWhereTheUserWantsToStop) {
  select(active, nullptr);
  const std::string untouched = place.document_text();
  const Said said =
      Fork([&] {
        auto other = std::make_unique<FileLock>(place.root / "launcher/bootstrap.lock", false, LockMode::exclusive);
        const StillClock clock([&] {
          raise(SIGINT);
          other.reset();
        });
        return bootstrap("cli", {"self", "uninstall"});
      }).wait();
  expect_failure(said, "cancelled: Uninstall cancelled\n");
  EXPECT_EQ(place.document_text(), untouched);
}

TEST_F(LauncherBootstrap, SpendsNoCandidateWhereTheUserWantsToStop) {
  select(active, nullptr);
  place.set("candidate", rollback);
  const std::string untouched = place.document_text();
  const Said said =
      Fork([&] {
        auto other = std::make_unique<FileLock>(place.root / "launcher/bootstrap.lock", false, LockMode::exclusive);
        const StillClock clock([&] {
          raise(SIGINT);
          other.reset();
        });
        return bootstrap("cli", {"list"});
      }).wait();
  expect_failure(said, "cancelled: Ravok's start was cancelled\n");
  EXPECT_EQ(place.document_text(), untouched);
}

TEST_F(LauncherBootstrap, IsBusyWhileAnotherWaitsForItsAttempt) {
  place.set("active", active);
  place.set("candidate", rollback);
  const std::string untouched = place.document_text();
  const FileLock other(place.root / "launcher/bootstrap.lock", false, LockMode::exclusive);
  const StillClock clock;
  for (const Said& said : {run_console(), run_window(), run("cli", {"self", "uninstall"})}) {
    expect_failure(said, "busy: Another Ravok operation is using this state\n");
  }
  EXPECT_EQ(place.document_text(), untouched);
  EXPECT_FALSE(has_marker());
}

TEST_F(LauncherBootstrap, StartsBesideAnotherThatWaitsForNoAttempt) {
  place.set("active", active);
  const FileLock other(place.root / "launcher/bootstrap.lock", false, LockMode::exclusive);
  expect_console(run_console(), active);
}

TEST_F(LauncherBootstrap, EndsAnInterruptedAttemptAndGoesOnWithTheActiveVersion) {
  place.set("active", active);
  place.set("attempt", {{"nonce", std::string(32, 'a')}, {"reference", rollback}});
  expect_console(run_console(), active);
  EXPECT_EQ(place.value("attempt"), nullptr);
  EXPECT_EQ(place.value("active"), active);
  EXPECT_EQ(place.value("failed_candidate"), Json({{"reference", rollback}, {"problem", "startup_interrupted"}}));
}

// A version that waits for its first start, as a real process. Its task stands in its own arguments.
class BootstrapCandidate : public LauncherBootstrap {
 protected:
  BootstrapCandidate() { place.set("candidate", candidate); }

  void expect_rejected() const {
    EXPECT_EQ(place.value("attempt"), nullptr);
    EXPECT_EQ(place.value("candidate"), nullptr);
    EXPECT_EQ(place.value("failed_candidate"), Json({{"reference", candidate}, {"problem", "startup_failed"}}));
  }

  const Json candidate =
      place.add_version("build-1", {"#!console", testing::bytes_of(RAVOK_LAUNCHER_COMPANION), "#!helper"});
};

TEST_F(BootstrapCandidate, IsStartedAsAChildAndGivesItsExitCode) {
  select(active, nullptr);
  const Said said = run("gui", {"gui", "run", "5"});
  EXPECT_EQ(said.code, 5);
  EXPECT_EQ(said.output, "");
  EXPECT_EQ(said.errors, "");
  EXPECT_EQ(place.value("active"), candidate);
  EXPECT_EQ(place.value("rollback"), active);
  EXPECT_EQ(place.value("attempt"), nullptr);
  EXPECT_FALSE(has_marker());
}

TEST_F(BootstrapCandidate, ThatFailsIsFollowedByTheActiveVersion) {
  select(active, nullptr);
  const Said said = run("gui", {"gui", "refuse"});
  EXPECT_EQ(said.code, 8);
  EXPECT_EQ(said.output, started("window", active, {"gui", "refuse"}));
  EXPECT_EQ(said.errors, "");
  expect_rejected();
  EXPECT_EQ(place.value("active"), active);
  expect_marker(active, 1);
}

TEST_F(BootstrapCandidate, ThatFailsEndsTheRunWhereNoVersionWorks) {
  expect_failure(run("gui", {"gui", "refuse"}),
                 "launcher_startup_failed: Launcher candidate exited before initialization\n");
  expect_rejected();
  EXPECT_FALSE(has_marker());
  // The next run finds what is on the disk.
  make_newest(rollback);
  expect_window(run_window(), rollback);
}

TEST_F(BootstrapCandidate, ThatIsDamagedIsFollowedByTheActiveVersion) {
  select(active, nullptr);
  append(payload(candidate) / "data/file", " ");
  expect_console(run_console(), active);
  expect_rejected();
}

}  // namespace
}  // namespace ravok::launcher_bootstrap_test
