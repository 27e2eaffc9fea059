#include "app/maintenance/maintenance_runtime.hpp"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "domain/launcher_contract.hpp"
#include "platform/process/child_process.hpp"
#include "support/clock_calls.hpp"
#include "support/companion.hpp"
#include "support/failure.hpp"
#include "support/fast_volume.hpp"
#include "support/launcher_builder.hpp"
#include "support/process.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"
#include "support/with_environment.hpp"

namespace ravok::maintenance_runtime_test {
namespace {

using testing::Companion;
using testing::ProgramResult;
using testing::SampleFile;
using testing::StillClock;
using testing::TemporaryRoot;
using testing::tree_state;
using testing::TreeState;
using testing::WithEnvironment;

using Names = std::vector<std::string>;

constexpr const char* temporary_copy = "A temporary maintenance helper cannot start Ravok";
constexpr const char* damaged_helper = "The maintenance helper is damaged; run the Ravok installer to repair it";
constexpr const char* not_opened = "The uninstall window did not open";

std::string companion_bytes() {
  std::ifstream file(RAVOK_MAINTENANCE_COMPANION, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// A store whose only version has helpers. What one of them holds is not what its role asks for unless a test needs it.
class StoreWithHelpers {
 public:
  explicit StoreWithHelpers(const std::string& helper = "#!helper") {
    const std::vector<SampleFile> files = {{"bin/program", "#!program", 0755},
                                           {"bin/window", "#!window", 0755},
                                           {"bin/second", "#!second", 0755},
                                           {"bin/help", helper, 0755}};
    const std::filesystem::path archive =
        root.write("archive", testing::zstd_frame(tar_archive(testing::members_of(files))));
    Json document =
        testing::as_launcher(testing::manifest_of(files, root.read("archive")).raw, {"bin/help", "bin/second"});
    document["platform"] = native_platform();
    build = store.seed_initial(document.dump(), archive, {});
  }

  std::filesystem::path helper() const { return store.payload(build) / "bin/help"; }
  std::unique_ptr<MaintenanceRuntime> prepare(std::string_view role = "maintenance") const {
    return MaintenanceRuntime::prepare(store, build, role, root / "copies");
  }

  const TemporaryRoot root;
  const LauncherStore store{root.directory("data")};
  Json build;
};

// How a helper that was asked to tell was started.
Json told_in(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return Json::parse(stream);
}

// What a helper must find in its environment when nothing was copied and nobody waits for a window.
const std::map<std::string, std::string> plain_hand_over = {
    {"RAVOK_LAUNCHER_BUILD", ""},     {"RAVOK_LAUNCHER_DATA_ROOT", ""}, {"RAVOK_LAUNCHER_HEALTH_NONCE", ""},
    {"RAVOK_LAUNCHER_INTERFACE", ""}, {"RAVOK_LAUNCHER_MANIFEST", ""},  {"RAVOK_MAINTENANCE_COPY", ""},
    {"RAVOK_MAINTENANCE_READY", ""}};

// The path of the file by which that helper was to say that it is ready.
std::filesystem::path ready_path_in(const std::filesystem::path& file) {
  return told_in(file).at("environment").at("RAVOK_MAINTENANCE_READY").get<std::string>();
}

std::uint64_t wait_for_end(ChildProcess& child) {
  for (;;) {
    if (const auto code = child.poll()) {
      return *code;
    }
  }
}

TEST(MaintenanceRuntimePrepare, HandsOverToTheHelperInItsPlace) {
  const StoreWithHelpers place(companion_bytes());
  const auto runtime = place.prepare();
  EXPECT_EQ(runtime->environment(), plain_hand_over);
  const auto child = runtime->launch_console({"tell", place.root / "told", "one", "", "two words"});
  EXPECT_EQ(wait_for_end(*child), 7u);
  const Json told = told_in(place.root / "told");
  EXPECT_EQ(told.at("arguments"), (Json{"one", "", "two words"}));
  EXPECT_EQ(told.at("directory"), place.helper().parent_path().native());
  EXPECT_FALSE(std::filesystem::exists(place.root / "copies"));
}

TEST(MaintenanceRuntimePrepare, MakesNoCopyAndTellsNobodyOfOne) {
  const StoreWithHelpers place;
  const TreeState before = tree_state(place.root.path());
  bool heard = false;
  const auto observer = [&](std::string_view, std::uint64_t, std::uint64_t, const std::filesystem::path&) {
    heard = true;
    return false;
  };
  EXPECT_NE(MaintenanceRuntime::prepare(place.store, place.build, "maintenance", place.root / "copies", observer),
            nullptr);
  EXPECT_FALSE(heard);
  EXPECT_EQ(tree_state(place.root.path()), before);
}

TEST(MaintenanceRuntimePrepare, NamesTheRoleThatAReleaseLacks) {
  const StoreWithHelpers place;
  for (const std::string role : {"maintenance-gui", "crash-handler", "other", ""}) {
    EXPECT_FAILURE(place.prepare(role), "maintenance_unavailable",
                   "This Ravok version has no " + role + " helper; use the Ravok installer to uninstall");
  }
}

TEST(MaintenanceRuntimePrepare, RefusesAHelperThatIsNotTheReleasesOwn) {
  const struct {
    const char* what;
    std::function<void(const std::filesystem::path&)> damage;
  } cases[] = {
      {"one byte longer", [](const auto& path) { std::ofstream(path, std::ios::app) << '.'; }},
      {"one byte shorter", [](const auto& path) { std::filesystem::resize_file(path, 7); }},
      {"another byte", [](const auto& path) { std::ofstream(path) << "#!Helper"; }},
      {"missing", [](const auto& path) { std::filesystem::remove(path); }},
      {"a directory",
       [](const auto& path) {
         std::filesystem::remove(path);
         std::filesystem::create_directory(path);
       }},
      {"a pipe",
       [](const auto& path) {
         std::filesystem::remove(path);
         ASSERT_EQ(mkfifo(path.c_str(), 0700), 0);
       }},
  };
  for (const auto& [what, damage] : cases) {
    const StoreWithHelpers place;
    damage(place.helper());
    const TreeState before = tree_state(place.root.path());
    EXPECT_FAILURE(place.prepare(), "content_mismatch", damaged_helper) << what;
    EXPECT_EQ(tree_state(place.root.path()), before) << what;
  }
}

TEST(MaintenanceRuntimePrepare, LooksOnlyAtTheHelperOfItsRole) {
  const StoreWithHelpers place;
  std::filesystem::remove(place.helper().parent_path() / "second");
  std::filesystem::remove(place.helper().parent_path() / "program");
  EXPECT_NO_THROW(place.prepare());
}

TEST(MaintenanceRuntimePrepare, RefusesALinkInThePlaceOfTheHelper) {
  const StoreWithHelpers place;
  std::filesystem::rename(place.helper(), place.root / "elsewhere");
  std::filesystem::create_symlink(place.root / "elsewhere", place.helper());
  EXPECT_FAILURE(place.prepare(), "unsafe_path", "Managed path contains a symbolic link");
}

TEST(MaintenanceRuntimePrepare, RefusesABuildThatTheStoreDoesNotHave) {
  const StoreWithHelpers place;
  EXPECT_FAILURE(MaintenanceRuntime::prepare(place.store, nullptr, "maintenance", {}), "launcher_missing",
                 "Install a verified launcher first");
}

// A program in a folder of its own below a temporary root, as a hand-over with a copy leaves it.
class HelperCopy {
 public:
  explicit HelperCopy(const std::string& folder = "ravok-maintenance-1") : folder_(root.directory(folder)) {
    std::filesystem::copy_file(RAVOK_MAINTENANCE_COMPANION, program());
    root.write(folder + "/data/file", "of the copy");
    root.write("beside/file", "of somebody");
  }

  const std::filesystem::path& folder() const { return folder_; }
  std::filesystem::path program() const { return folder_ / "helper"; }
  ProgramResult run(const std::map<std::string, std::string>& environment,
                    const std::vector<std::string>& arguments = {"attach"}) const {
    return testing::run_program({program(), arguments, environment, ""});
  }

  // Everything there but the bytes of the program, which take long to read.
  TreeState state() const {
    TreeState state = tree_state(folder_ / "data");
    state.merge(tree_state(root / "beside"));
    for (const std::string& name : root.names()) {
      state.emplace(root / name, "");
    }
    return state;
  }

  const TemporaryRoot root{testing::fast_volume()};

 private:
  const std::filesystem::path folder_;
};

TEST(MaintenanceRuntimeAttach, FindsNoHandOverWithoutItsVariables) {
  const HelperCopy copy;
  const TreeState before = copy.state();
  for (const auto& environment : {std::map<std::string, std::string>{},
                                  {{"RAVOK_MAINTENANCE_COPY", ""}},
                                  {{"RAVOK_MAINTENANCE_READY", ""}},
                                  plain_hand_over}) {
    const ProgramResult result = copy.run(environment);
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.output, "alone\n");
  }
  EXPECT_EQ(copy.state(), before);
}

TEST(MaintenanceRuntimeAttach, RemovesNothingWithoutACopy) {
  const HelperCopy copy;
  const TreeState before = copy.state();
  const ProgramResult result = copy.run({{"RAVOK_MAINTENANCE_READY", copy.root / "ready"}});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.output, "attached\n");
  EXPECT_EQ(copy.state(), before);
}

TEST(MaintenanceRuntimeAttach, RemovesItsCopyAtTheEndAndNothingElse) {
  const HelperCopy copy;
  std::filesystem::create_directory_symlink("../beside", copy.folder() / "link");
  const ProgramResult result = copy.run({{"RAVOK_MAINTENANCE_COPY", copy.folder()}});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.output, "attached\n");
  EXPECT_EQ(copy.root.names(), (Names{"beside/", "beside/file"}));
}

TEST(MaintenanceRuntimeAttach, KeepsItsCopyUntilTheEnd) {
  const HelperCopy copy;
  const WithEnvironment variable("RAVOK_MAINTENANCE_COPY", copy.folder());
  Companion helper(copy.program(), {"attach", "wait"});
  EXPECT_EQ(helper.read_line(), "attached");
  EXPECT_EQ(helper.read_line(), "waiting");
  EXPECT_TRUE(std::filesystem::exists(copy.program()));
  helper.close_input();
  EXPECT_EQ(helper.wait(), 0);
  EXPECT_EQ(copy.root.names(), (Names{"beside/", "beside/file"}));
}

TEST(MaintenanceRuntimeAttach, RemovesALinkThatTookThePlaceOfItsCopyAndNotWhatItLeadsTo) {
  const HelperCopy copy;
  const WithEnvironment variable("RAVOK_MAINTENANCE_COPY", copy.folder());
  Companion helper(copy.program(), {"attach", "wait"});
  EXPECT_EQ(helper.read_line(), "attached");
  std::filesystem::rename(copy.folder(), copy.root / "moved");
  std::filesystem::create_directory_symlink("beside", copy.folder());
  helper.close_input();
  EXPECT_EQ(helper.wait(), 0);
  EXPECT_EQ(copy.root.names(),
            (Names{"beside/", "beside/file", "moved/", "moved/data/", "moved/data/file", "moved/helper"}));
}

TEST(MaintenanceRuntimeAttach, RefusesEveryPathThatIsNotTheFolderOfItsImage) {
  const HelperCopy copy;
  copy.root.directory("ravok-maintenance-2");
  std::filesystem::create_directory_symlink("ravok-maintenance-1", copy.root / "ravok-maintenance-link");
  const std::string folder = copy.folder();
  const std::string root = copy.root.path();
  const TreeState before = copy.state();
  for (const std::string& forged : {std::string("/"),
                                    std::string("."),
                                    std::string(".."),
                                    std::string("ravok-maintenance-1"),
                                    std::string("./ravok-maintenance-1"),
                                    std::string("ravok-maintenance-"),
                                    std::string("\xff"),
                                    root,
                                    root + "/beside",
                                    root + "/ravok-maintenance-2",
                                    root + "/ravok-maintenance-missing",
                                    folder + "/",
                                    folder + "//",
                                    folder + "/.",
                                    folder + "/..",
                                    folder + "/data",
                                    folder + "/helper",
                                    folder + "/data/..",
                                    root + "/./ravok-maintenance-1",
                                    root + "/beside/../ravok-maintenance-1",
                                    root + "/ravok-maintenance-link",
                                    folder + " ",
                                    folder + "\n",
                                    " " + folder,
                                    folder + "0"}) {
    const ProgramResult result = copy.run({{"RAVOK_MAINTENANCE_COPY", forged}});
    EXPECT_EQ(result.exit_code, 1) << forged;
    EXPECT_EQ(result.output, "maintenance_copy: Maintenance helper copy path is invalid\n") << forged;
    EXPECT_EQ(copy.state(), before) << forged;
  }
}

TEST(MaintenanceRuntimeAttach, RefusesTheFolderOfItsImageUnderAnotherName) {
  for (const char* const name : {"beside-it", "ravok-maintenance", "Ravok-maintenance-1", "ravok_maintenance-1"}) {
    const HelperCopy copy(name);
    const TreeState before = copy.state();
    const ProgramResult result = copy.run({{"RAVOK_MAINTENANCE_COPY", copy.folder()}});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.output, "maintenance_copy: Maintenance helper copy path is invalid\n");
    EXPECT_EQ(copy.state(), before);
  }
}

// The system names the image by its real place, whatever path it was started by.
TEST(MaintenanceRuntimeAttach, RefusesALinkToItsFolderThroughWhichItWasStarted) {
  const HelperCopy copy("real");
  std::filesystem::create_directory_symlink("real", copy.root / "ravok-maintenance-1");
  const TreeState before = copy.state();
  const ProgramResult result = testing::run_program({copy.root / "ravok-maintenance-1/helper",
                                                     {"attach"},
                                                     {{"RAVOK_MAINTENANCE_COPY", copy.root / "ravok-maintenance-1"}},
                                                     ""});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.output, "maintenance_copy: Maintenance helper copy path is invalid\n");
  EXPECT_EQ(copy.state(), before);
}

TEST(MaintenanceRuntimeAttach, TakesVariablesOf8192BytesAndNotOneMore) {
  const HelperCopy copy;
  const TreeState before = copy.state();
  EXPECT_EQ(copy.run({{"RAVOK_MAINTENANCE_READY", std::string(8192, 'x')}}).output, "attached\n");
  for (const char* const key : {"RAVOK_MAINTENANCE_COPY", "RAVOK_MAINTENANCE_READY"}) {
    const ProgramResult result = copy.run({{key, std::string(8193, 'x')}});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.output, "environment_limit: Native process text exceeds its byte bound\n");
  }
  EXPECT_EQ(copy.state(), before);
}

TEST(MaintenanceRuntimeAttach, RemovesItsCopyAlsoWhenItFailsLater) {
  const HelperCopy copy;
  const ProgramResult result =
      copy.run({{"RAVOK_MAINTENANCE_COPY", copy.folder()}, {"RAVOK_MAINTENANCE_READY", copy.root / "missing/ready"}},
               {"attach", "ready"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.output, "attached\nunsafe_path: Export parent must be an existing plain directory\n");
  EXPECT_EQ(copy.root.names(), (Names{"beside/", "beside/file"}));
}

TEST(MaintenanceRuntimeReportReady, MakesAPrivateFileAndLeavesTheFolderAsItIs) {
  const HelperCopy copy;
  const std::filesystem::path folder = copy.root.directory("shared");
  ASSERT_EQ(chmod(folder.c_str(), 01777), 0);
  const ProgramResult result = copy.run({{"RAVOK_MAINTENANCE_READY", folder / "ready"}}, {"attach", "ready"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.output, "attached\n");
  EXPECT_EQ(copy.root.read("shared/ready"), "ready");
  EXPECT_EQ(std::filesystem::status(folder / "ready").permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  EXPECT_EQ(std::filesystem::status(folder).permissions(),
            std::filesystem::perms::all | std::filesystem::perms::sticky_bit);
}

TEST(MaintenanceRuntimeReportReady, ReplacesNothing) {
  const HelperCopy copy;
  copy.root.write("taken", "of somebody");
  std::filesystem::create_symlink("nowhere", copy.root / "link");
  const TreeState before = copy.state();
  const ProgramResult file = copy.run({{"RAVOK_MAINTENANCE_READY", copy.root / "taken"}}, {"attach", "ready"});
  EXPECT_EQ(file.output, "attached\nfile_write: Cannot create export; the destination may already exist (" +
                             std::to_string(EEXIST) + ")\n");
  const ProgramResult link = copy.run({{"RAVOK_MAINTENANCE_READY", copy.root / "link"}}, {"attach", "ready"});
  EXPECT_EQ(link.output, "attached\nunsafe_path: Refusing to replace a symbolic link\n");
  EXPECT_EQ(copy.root.read("taken"), "of somebody");
  EXPECT_EQ(copy.state(), before);
}

TEST(MaintenanceRuntimeReportReady, TellsNobodyWhereNobodyWaits) {
  const HelperCopy copy;
  const ProgramResult result = copy.run({{"RAVOK_MAINTENANCE_COPY", copy.folder()}}, {"attach", "ready"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.output, "attached\n");
  EXPECT_EQ(copy.root.names(), (Names{"beside/", "beside/file"}));
}

TEST(MaintenanceRuntimeClient, RemovesACopyThatWasNeverStarted) {
  const HelperCopy copy;
  { const MaintenanceRuntime runtime(copy.program(), copy.folder()); }
  EXPECT_EQ(copy.root.names(), (Names{"beside/", "beside/file"}));
}

TEST(MaintenanceRuntimeClient, LeavesAProgramThatIsNoCopy) {
  const HelperCopy copy;
  const TreeState before = copy.state();
  { const MaintenanceRuntime runtime(copy.program()); }
  EXPECT_EQ(copy.state(), before);
}

TEST(MaintenanceRuntimeClient, LeavesACopyThatWasStartedToTheHelper) {
  const HelperCopy copy;
  const TreeState before = copy.state();
  {
    MaintenanceRuntime runtime(copy.program(), copy.folder());
    const auto child = runtime.launch_console({"end", "5"});
    EXPECT_EQ(wait_for_end(*child), 5u);
  }
  EXPECT_EQ(copy.state(), before);
  {
    MaintenanceRuntime runtime(copy.program(), copy.folder());
    const auto child = runtime.launch_console({"attach"});
    EXPECT_EQ(wait_for_end(*child), 0u);
  }
  EXPECT_EQ(copy.root.names(), (Names{"beside/", "beside/file"}));
}

TEST(MaintenanceRuntimeClient, LeavesACopyWhoseStartHasFailed) {
  const HelperCopy copy;
  const TreeState before = copy.state();
  {
    MaintenanceRuntime runtime(copy.folder() / "missing", copy.folder());
    EXPECT_FAILURE(runtime.replace({}), "process_start", "Replacement image or directory is unavailable");
  }
  {
    MaintenanceRuntime runtime(copy.folder() / "missing", copy.folder());
    EXPECT_FAILURE(runtime.launch_console({}), "launch_executable",
                   "The installed game executable is missing or linked");
  }
  EXPECT_EQ(copy.state(), before);
}

TEST(MaintenanceRuntimeReplace, BecomesTheHelperInItsFolderWithoutALaunchersAuthority) {
  const HelperCopy copy;
  const ProgramResult result =
      testing::run_program({RAVOK_MAINTENANCE_COMPANION,
                            {"replace", copy.program(), "tell", copy.root / "told", "argument"},
                            {{"RAVOK_LAUNCHER_HEALTH_NONCE", "nonce"},
                             {"RAVOK_LAUNCHER_MANIFEST", "manifest"},
                             {"RAVOK_LAUNCHER_BUILD", "build"},
                             {"RAVOK_LAUNCHER_INTERFACE", "cli"},
                             {"RAVOK_LAUNCHER_DATA_ROOT", "/data"},
                             {"RAVOK_MAINTENANCE_COPY", "/forged"},
                             {"RAVOK_MAINTENANCE_READY", "/forged"},
                             {"LD_BIND_NOW", "1"},
                             {"OTHER", "kept"}},
                            ""});
  EXPECT_EQ(result.exit_code, 7);
  const Json told = told_in(copy.root / "told");
  EXPECT_EQ(told.at("arguments"), Json{"argument"});
  EXPECT_EQ(told.at("directory"), copy.folder().native());
  Json expected = plain_hand_over;
  expected["OTHER"] = "kept";
  EXPECT_EQ(told.at("environment"), expected);
}

// A folder for temporary files of the test's own, and a wait for a window on a clock that stands still.
class MaintenanceRuntimeWindow : public ::testing::Test {
 protected:
  static constexpr std::uint64_t timeout = 5000;

  // Waits until a child has ended, and leaves its end to the code under test.
  static void wait_for_child() {
    siginfo_t end;
    EXPECT_EQ(waitid(P_ALL, 0, &end, WEXITED | WNOWAIT), 0);
  }
  // Waits until the ready file is there, or the child that is to make it has ended.
  void wait_for_ready_file() const {
    siginfo_t end = {};
    while (ready_files().empty() && end.si_pid == 0) {
      ASSERT_EQ(waitid(P_ALL, 0, &end, WEXITED | WNOWAIT | WNOHANG), 0);
    }
  }
  // Waits until only so many names are left: the helper removes the one under which it wrote the ready file after it
  // has said that it is ready.
  void wait_for_names(std::size_t count) const {
    while (temporary.names().size() > count) {
      std::this_thread::yield();
    }
  }
  Names ready_files() const {
    Names files;
    for (const std::string& name : temporary.names()) {
      if (name.starts_with("ravok-maintenance-ready-") && name.size() == 24 + 32) {
        files.push_back(name);
      }
    }
    return files;
  }

  const HelperCopy copy;
  const TemporaryRoot temporary;
  const WithEnvironment directory{"TMPDIR", temporary.path()};
  MaintenanceRuntime runtime{copy.program()};
};

TEST_F(MaintenanceRuntimeWindow, IsUpOnceTheHelperSaysSo) {
  const StillClock clock([&] { wait_for_ready_file(); });
  const auto child = runtime.launch_gui({"open"}, timeout);
  EXPECT_FALSE(child->poll());
  EXPECT_LT(clock.slept(), std::chrono::milliseconds(timeout));
  EXPECT_EQ(ready_files(), Names());
  wait_for_names(0);
  EXPECT_EQ(kill(static_cast<pid_t>(child->pid()), SIGKILL), 0);
  EXPECT_EQ(wait_for_end(*child), 128u + SIGKILL);
}

TEST_F(MaintenanceRuntimeWindow, IsAnnouncedByAFileOfItsOwnInTheSystemsTemporaryFolder) {
  const StillClock clock([&] { wait_for_child(); });
  EXPECT_FAILURE(runtime.launch_gui({"tell", copy.root / "told"}, timeout), "maintenance_startup", not_opened);
  const Json told = told_in(copy.root / "told");
  const std::filesystem::path ready = ready_path_in(copy.root / "told");
  EXPECT_EQ(ready.parent_path(), std::filesystem::canonical(temporary.path()));
  const std::string name = ready.filename();
  ASSERT_EQ(name.size(), 24u + 32u);
  EXPECT_EQ(name.substr(0, 24), "ravok-maintenance-ready-");
  EXPECT_EQ(name.find_first_not_of("0123456789abcdef", 24), std::string::npos);
  EXPECT_EQ(runtime.environment().at("RAVOK_MAINTENANCE_READY"), ready);
  EXPECT_EQ(told.at("environment").at("RAVOK_MAINTENANCE_COPY"), "");
  EXPECT_EQ(told.at("directory"), copy.folder().native());
}

TEST_F(MaintenanceRuntimeWindow, IsAnnouncedInTheFolderOfACopy) {
  MaintenanceRuntime with_copy(copy.program(), copy.folder());
  const StillClock clock([&] { wait_for_child(); });
  EXPECT_FAILURE(with_copy.launch_gui({"tell", copy.root / "told"}, timeout), "maintenance_startup", not_opened);
  const std::filesystem::path ready = ready_path_in(copy.root / "told");
  EXPECT_EQ(ready.parent_path(), std::filesystem::canonical(copy.folder()));
}

TEST_F(MaintenanceRuntimeWindow, IsAnnouncedWithoutALinkOrARelativePath) {
  std::filesystem::create_directory(temporary / "real");
  std::filesystem::create_directory_symlink("real", temporary / "link");
  for (const std::filesystem::path& folder :
       {temporary / "link", std::filesystem::relative(temporary / "real", std::filesystem::current_path())}) {
    const WithEnvironment other("TMPDIR", folder);
    const StillClock clock([&] { wait_for_child(); });
    EXPECT_FAILURE(runtime.launch_gui({"tell", copy.root / "told"}, timeout), "maintenance_startup", not_opened);
    const std::filesystem::path ready = ready_path_in(copy.root / "told");
    EXPECT_EQ(ready.parent_path(), std::filesystem::canonical(temporary / "real"));
  }
}

TEST_F(MaintenanceRuntimeWindow, IsNoLongerWaitedForOnceTheHelperHasEnded) {
  const StillClock clock([&] { wait_for_child(); });
  EXPECT_FAILURE(runtime.launch_gui({"end", "0"}, timeout), "maintenance_startup", not_opened);
  EXPECT_LE(clock.slept(), std::chrono::milliseconds(10));
  EXPECT_TRUE(temporary.names().empty());
}

TEST_F(MaintenanceRuntimeWindow, IsWaitedForAsLongAsToldAndThenTheHelperIsEnded) {
  for (const std::uint64_t limit : {timeout, std::uint64_t{10}, std::uint64_t{0}}) {
    const StillClock* present = nullptr;
    const StillClock clock([&] {
      if (present->slept() > std::chrono::milliseconds(limit)) {
        // The helper was asked to end, and does.
        wait_for_child();
      }
    });
    present = &clock;
    EXPECT_FAILURE(runtime.launch_gui({"hang"}, limit), "maintenance_startup", not_opened);
    EXPECT_GE(clock.slept(), std::chrono::milliseconds(limit));
    EXPECT_LE(clock.slept(), std::chrono::milliseconds(limit + 10));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
    EXPECT_TRUE(temporary.names().empty());
  }
}

TEST_F(MaintenanceRuntimeWindow, LeavesNoFileWhenTheHelperSaysSoTooLate) {
  const StillClock* present = nullptr;
  const StillClock clock([&] {
    if (present->slept() == std::chrono::milliseconds(10)) {
      // The time is over when the helper has made its file, and removed the name under which it wrote it.
      copy.root.write("go", "");
      wait_for_ready_file();
      wait_for_names(1);
    } else {
      wait_for_child();
    }
  });
  present = &clock;
  EXPECT_FAILURE(runtime.launch_gui({"late", copy.root / "go"}, 10), "maintenance_startup", not_opened);
  EXPECT_TRUE(temporary.names().empty());
}

TEST_F(MaintenanceRuntimeWindow, IsNotWaitedForWhenTheHelperCannotStart) {
  MaintenanceRuntime missing(copy.folder() / "missing");
  const StillClock clock;
  EXPECT_FAILURE(missing.launch_gui({}, timeout), "launch_executable",
                 "The installed game executable is missing or linked");
  EXPECT_EQ(clock.sleeps(), 0u);
  EXPECT_TRUE(temporary.names().empty());
}

TEST(MaintenanceRuntimeImage, IsRefusedInATemporaryCopyAtAnyDepth) {
  for (const char* const program :
       {"/ravok-maintenance-/program", "/ravok-maintenance-1/program", "/tmp/ravok-maintenance-1/program",
        "/tmp/ravok-maintenance-1/bin/program", "/tmp/ravok-maintenance-1/a/b/c/program",
        "/ravok-maintenance-1/ravok-maintenance-2/program", "/tmp/ravok-maintenance-ready-1/program",
        "ravok-maintenance-1/program", "/tmp/ravok-maintenance-\xff/program", "/tmp/ravok-maintenance-1//program"}) {
    EXPECT_FAILURE(require_maintenance_runtime_image(program), "maintenance_copy", temporary_copy) << program;
  }
}

TEST(MaintenanceRuntimeImage, PassesEverywhereElse) {
  for (const char* const program :
       {"/program", "program", "", "/", "/tmp/ravok-maintenance", "/tmp/ravok-maintenance-1",
        "/tmp/ravok-maintenance/program", "/tmp/Ravok-maintenance-1/program", "/tmp/a-ravok-maintenance-1/program",
        "/tmp/ravok-maintenanc-e/program", "/tmp/ravok_maintenance-1/program"}) {
    EXPECT_NO_THROW(require_maintenance_runtime_image(program)) << program;
  }
}

TEST(MaintenanceRuntimeImage, LooksAtTheNameAloneAndNotAtTheDisk) {
  const TemporaryRoot root;
  root.directory("ravok-maintenance-1");
  std::filesystem::create_directory_symlink("ravok-maintenance-1", root / "link");
  root.write("ravok-maintenance-1/program", "");
  EXPECT_NO_THROW(require_maintenance_runtime_image(root / "link/program"));
  EXPECT_FAILURE(require_maintenance_runtime_image(root / "ravok-maintenance-1/missing/program"), "maintenance_copy",
                 temporary_copy);
}

TEST(MaintenanceRuntimeImage, LiesInAtMost256Folders) {
  std::string path = "/";
  for (int folder = 0; folder < 256; ++folder) {
    path += "x/";
  }
  EXPECT_NO_THROW(require_maintenance_runtime_image(path + "program"));
  EXPECT_FAILURE(require_maintenance_runtime_image(path + "x/program"), "unsafe_path", "Native image path is too deep");
  // The nearest folders are looked at first.
  EXPECT_FAILURE(require_maintenance_runtime_image(path + "x/ravok-maintenance-1/program"), "maintenance_copy",
                 temporary_copy);
}

}  // namespace
}  // namespace ravok::maintenance_runtime_test
