// Several starts of the client at once, and starts beside a setup: each gets its launcher or a plain answer why not,
// and nobody starts a version that has not proved itself.

#include <array>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "app/launcher/start_marker.hpp"
#include "platform/file/native_lock.hpp"
#include "programs/client_place.hpp"
#include "support/install_place.hpp"
#include "support/tree_state.hpp"

namespace ravok::testing::bootstrap_crowd_test {
namespace {

using Starts = std::vector<std::unique_ptr<StartedProgram>>;

constexpr int crowd = 8;

std::int64_t now() { return std::time(nullptr); }

void end_process(const Json& acknowledgement) { ASSERT_EQ(kill(acknowledgement.at("pid").get<pid_t>(), SIGKILL), 0); }

class BootstrapCrowd : public ::testing::Test {
 protected:
  Starts start_many(int count, const ClientPlace::Arguments& arguments) const {
    Starts starts;
    for (int i = 0; i < count; ++i) {
      starts.push_back(place.start(arguments));
    }
    return starts;
  }

  const ClientPlace place;
};

TEST_F(BootstrapCrowd, ASecondStartIsToldOfTheFirstOnesTrial) {
  const Json active = place.add("active", programs_saying("active"));
  const Json candidate = place.add("candidate", troubled_programs());
  place.name("active", active);
  place.name("candidate", candidate);
  // Another place, whose version has proved itself and runs on while the next one waits.
  const ClientPlace other;
  const Json proved = other.add("proved", troubled_programs());
  other.name("candidate", proved);
  const auto running = other.start_troubled("stay");
  wait_until([&] { return other.is_active(proved); });
  other.name("candidate", other.add("next", programs_saying("next")));

  const auto first = place.start_troubled("hang");
  const Json launcher = place.acknowledgement();
  // The first start stands still, so that its trial does not end before the others are refused.
  first->send_signal(SIGSTOP);
  const auto second = place.start({"--json", "self", "status"});
  const auto third = other.start({"--json", "self", "status"});
  for (StartedProgram* const refused : {second.get(), third.get()}) {
    EXPECT_EQ(refused->output(), problem_document("busy", "Another Ravok operation is using this state"));
    EXPECT_EQ(refused->errors(), "Another Ravok operation is using this state\n");
    EXPECT_EQ(refused->wait(), 1);
  }

  end_process(launcher);
  first->send_signal(SIGCONT);
  EXPECT_EQ(first->output(), place.says("active console", "self status"));
  EXPECT_EQ(first->errors(), "");
  EXPECT_EQ(first->wait(), 0);
  EXPECT_TRUE(place.is_active(active));
  EXPECT_EQ(place.store.load().at("failed_candidate"), (Json{{"reference", candidate}, {"problem", "startup_failed"}}));
  running->send_signal(SIGINT);
  EXPECT_EQ(running->wait(), 4);
  // The next one is tried only then. It fails, and the one that works is started; that ends with 3 by itself.
  const ProgramResult next = other.run({"self", "status"});
  EXPECT_EQ(next.output, other.says("next console", "self status"));
  EXPECT_EQ(next.exit_code, 3);
  EXPECT_TRUE(other.is_active(proved));
}

TEST_F(BootstrapCrowd, ASecondStartStartsTheVersionThatHasProvedItself) {
  const Json candidate = place.add("candidate", troubled_programs());
  place.name("candidate", candidate);
  const auto first = place.start_troubled("stay");
  wait_until([&] { return place.is_active(candidate); });
  const auto second = place.start_troubled("exit");
  EXPECT_EQ(second->wait(), 3) << second->errors();
  EXPECT_FALSE(first->has_ended());
  first->send_signal(SIGINT);
  EXPECT_EQ(first->wait(), 4);
  EXPECT_EQ(first->errors(), "Cancelled\n");
}

TEST_F(BootstrapCrowd, AnAttemptWithoutItsBootstrapIsOverWithItsLauncher) {
  const Json active = place.add("active", programs_saying("active"));
  const Json candidate = place.add("candidate", troubled_programs());
  place.name("active", active);
  place.name("candidate", candidate);
  const auto first = place.start_troubled("hang");
  const Json launcher = place.acknowledgement();
  first->send_signal(SIGKILL);
  EXPECT_EQ(first->wait(), -SIGKILL);
  const Json attempt = place.store.load().at("attempt");

  const std::string words = "The unfinished launcher is still using its startup attempt; close it before restarting";
  for (int i = 0; i < 2; ++i) {
    const ProgramResult refused = place.run({"--json", "self", "status"});
    EXPECT_EQ(refused.output, problem_document("launcher_running", words));
    EXPECT_EQ(refused.errors, words + "\n");
    EXPECT_EQ(refused.exit_code, 1);
    EXPECT_EQ(place.store.load().at("attempt"), attempt);
  }

  end_process(launcher);
  wait_until([&] { return !is_held(place.store.startup_lease_path(attempt)); });
  const ProgramResult next = place.run({"self", "status"});
  EXPECT_EQ(next.output, place.says("active console", "self status"));
  EXPECT_EQ(next.errors, "");
  EXPECT_EQ(next.exit_code, 0);
  const Json document = place.store.load();
  EXPECT_EQ(document.at("attempt"), Json());
  EXPECT_EQ(document.at("active"), active);
  EXPECT_EQ(document.at("failed_candidate"), (Json{{"reference", candidate}, {"problem", "startup_interrupted"}}));
}

TEST_F(BootstrapCrowd, OneOfManyTriesACandidateThatFails) {
  const std::filesystem::path tries = place.root.write("tries", "");
  const std::string trying = "#!/bin/sh\necho tried >> '" + tries.native() + "'\nexit 1\n";
  place.name("active", place.add("active", programs_saying("active")));
  const Json candidate = place.add("candidate", {trying, trying});
  place.name("candidate", candidate);
  int started = 0;
  for (const auto& start : start_many(crowd, {"--json", "self", "status"})) {
    const std::string output = start->output();
    const bool is_started = output == place.says("active console", "--json self status");
    started += is_started ? 1 : 0;
    EXPECT_EQ(start->wait(), is_started ? 0 : 1);
    EXPECT_TRUE(is_started || output == problem_document("busy", "Another Ravok operation is using this state"))
        << output;
  }
  EXPECT_GE(started, 1);
  EXPECT_EQ(place.root.read("tries"), "tried\n");
  EXPECT_EQ(place.store.load().at("failed_candidate"), (Json{{"reference", candidate}, {"problem", "startup_failed"}}));
}

TEST_F(BootstrapCrowd, OneOfManyTriesTheFirstVersionAndTheOthersStartItOnceItHasProvedItself) {
  const Json candidate = place.add("candidate", {bytes_of(RAVOK_LAUNCHER), bytes_of(RAVOK_LAUNCHER_GUI)});
  place.name("candidate", candidate);
  int tried = 0;
  for (const auto& start : start_many(crowd, {"--json", "self", "status"})) {
    const std::string output = start->output();
    const Json said = Json::parse(output);
    // Who waited in vain for the end of the trial is told so.
    if (said.contains("problem")) {
      EXPECT_EQ(output, problem_document("busy", "Another Ravok operation is using this state"));
      EXPECT_EQ(start->wait(), 1);
      continue;
    }
    EXPECT_EQ(start->wait(), 0);
    EXPECT_EQ(said.at("candidate"), Json());
    const bool is_trial = said.at("active").is_null();
    EXPECT_EQ(said.at(is_trial ? "on_trial" : "active").at("manifest_sha256"), candidate.at("manifest_sha256"));
    tried += is_trial ? 1 : 0;
  }
  EXPECT_EQ(tried, 1);
  EXPECT_TRUE(place.is_active(candidate));
  const Json later = Json::parse(place.run({"--json", "self", "status"}).output);
  EXPECT_EQ(later.at("active").at("manifest_sha256"), candidate.at("manifest_sha256"));
}

TEST_F(BootstrapCrowd, ADoubleClickStartsTwiceAndCountsNoFailure) {
  const Json active = place.add("active", programs_saying("active"));
  place.name("active", active);
  for (const auto& start : start_many(2, {})) {
    EXPECT_EQ(start->output(), place.says("active window"));
    EXPECT_EQ(start->errors(), "");
    EXPECT_EQ(start->wait(), 0);
  }
  EXPECT_EQ(failed_launcher_starts(place.data, now()).attempts, 0u);
  const FailedStarts later = failed_launcher_starts(place.data, now() + 60);
  EXPECT_EQ(later.manifest_sha256, text_at(active, "manifest_sha256"));
  EXPECT_EQ(later.attempts, 1u);
}

TEST_F(BootstrapCrowd, ASignalGoesOnToTheLauncherOfTheConsole) {
  const Json candidate = place.add("candidate", troubled_programs());
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    place.name("active", nullptr);
    place.name("candidate", candidate);
    const auto start = place.start_troubled("stay");
    wait_until([&] { return place.is_active(candidate); });
    start->send_signal(signal);
    EXPECT_EQ(start->errors(), "Cancelled\n");
    EXPECT_EQ(start->wait(), 4);
    EXPECT_FALSE(is_held(place.version_lease(candidate)));
  }
}

TEST_F(BootstrapCrowd, ASignalEndsATrialAndItsLauncher) {
  const Json candidate = place.add("candidate", troubled_programs());
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    place.name("candidate", candidate);
    const auto start = place.start_troubled("hang");
    const Json launcher = place.acknowledgement();
    start->send_signal(signal);
    EXPECT_EQ(start->errors(), "Ravok's start was cancelled\n");
    EXPECT_EQ(start->wait(), 4);
    EXPECT_EQ(kill(launcher.at("pid").get<pid_t>(), 0), -1);
    EXPECT_EQ(place.store.load().at("active"), Json());
    EXPECT_EQ(place.store.load().at("failed_candidate"),
              (Json{{"reference", candidate}, {"problem", "startup_failed"}}));
  }
}

// A setup in a process of its own, which stops where it has got hold of the folder.
class HeldSetup {
 public:
  // `work` is given what it calls once it is to stop.
  explicit HeldSetup(const std::function<void(const std::function<void()>&)>& work) {
    std::array<int, 2> met;
    std::array<int, 2> go;
    if (pipe2(met.data(), O_CLOEXEC) != 0 || pipe2(go.data(), O_CLOEXEC) != 0) {
      throw std::runtime_error("Cannot make a pipe for a test");
    }
    const Handle reader(met[0]);
    Handle writer(met[1]);
    Handle waiter(go[0]);
    go_ = Handle(go[1]);
    child_ = fork();
    if (child_ == 0) {
      go_.reset();
      bool has_met = false;
      try {
        work([&] {
          char byte = 0;
          if (!std::exchange(has_met, true) && (write(met[1], "!", 1) != 1 || read(go[0], &byte, 1) != 1)) {
            _exit(2);
          }
        });
        _exit(0);
      } catch (const Error& error) {
        std::cerr << error.code << ": " << error.what() << '\n';
        _exit(1);
      }
    }
    writer.reset();
    waiter.reset();
    char byte = 0;
    if (child_ < 0 || read(met[0], &byte, 1) != 1) {
      throw std::runtime_error("The setup of a test has not begun");
    }
  }
  ~HeldSetup() { end(); }
  HeldSetup(const HeldSetup&) = delete;
  HeldSetup& operator=(const HeldSetup&) = delete;

  // Lets it go on, and returns its exit code.
  int go_on() {
    EXPECT_EQ(write(static_cast<int>(go_.get()), "!", 1), 1);
    int status = 0;
    const pid_t child = std::exchange(child_, 0);
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  void end() {
    if (child_ > 0) {
      kill(child_, SIGKILL);
      waitpid(std::exchange(child_, 0), nullptr, 0);
    }
  }

 private:
  pid_t child_ = 0;
  Handle go_;
};

// An installation whose launcher is the one of the test's choice.
class BootstrapAndSetup : public ::testing::Test {
 protected:
  BootstrapAndSetup() {
    setup.write_player_data();
    setup.install();
    client.emplace(setup.data());
  }

  // Makes a version the one that is started.
  Json use(const LauncherPrograms& programs) const {
    Json version = client->add("used", programs);
    client->name("candidate", nullptr);
    client->name("active", version);
    return version;
  }

  // A repair that stops before it has changed anything.
  std::unique_ptr<HeldSetup> hold_repair() const {
    setup.write("native/bootstrap/bin/ravok-bootstrap", "damaged");
    return std::make_unique<HeldSetup>([&](const std::function<void()>& stop) {
      NativeSetupCallbacks callbacks;
      callbacks.progress = [&](std::string_view phase, std::uint64_t, std::uint64_t) {
        if (phase == "installing") {
          stop();
        }
      };
      NativeInstaller::install({setup.package_directory(), setup.data(), true, false}, setup.seal(), callbacks);
    });
  }
  // A setup that stops in the midst of its changes.
  std::unique_ptr<HeldSetup> hold_commit() const {
    return std::make_unique<HeldSetup>([&](const std::function<void()>& stop) {
      const NativeFileLock lock(setup.paths().bootstrap_lock, true, NativeLockSharing::none, LockMode::exclusive);
      setup.write(setup.paths().incomplete_marker.filename(), "{}");
      stop();
    });
  }

  // Neither a repair nor an uninstall does anything.
  void expect_running() const {
    constexpr const char* words = "Ravok or a game from this folder is still running; close it and try again";
    // What a launcher has written is there a moment before the name under which it was made is gone.
    wait_until([&] { return !is_being_written(); });
    const TreeState before = without_status(setup.state());
    EXPECT_FAILURE(setup.repair(), "ravok_running", words);
    EXPECT_FAILURE(NativeInstaller::uninstall({setup.data(), true, std::chrono::milliseconds(0)}, {}), "ravok_running",
                   words);
    EXPECT_EQ(without_status(setup.state()), before);
  }
  // Starts a launcher that runs until it is asked to stop, and waits until it holds its version's lease.
  std::unique_ptr<StartedProgram> start_staying(const Json& version) const {
    for (;;) {
      auto start = client->start_troubled("stay");
      wait_until([&] { return start->has_ended() || is_held(client->version_lease(version)); });
      // Who looks whether the lease is held takes it for a moment, and a launcher that wants it just then gives up.
      if (!start->has_ended()) {
        return start;
      }
    }
  }
  bool is_being_written() const {
    const LauncherPaths paths(setup.paths().launcher);
    for (const std::filesystem::path& folder : {paths.attempt_leases, paths.health}) {
      for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().extension() == ".tmp") {
          return true;
        }
      }
    }
    return false;
  }
  static TreeState without_status(TreeState state) {
    state.erase("native/setup-status.json");
    return state;
  }

  std::string unfinished() const {
    return "Ravok setup did not finish in " + setup.data().native() + ". Run the Ravok installer again to repair it.";
  }

  InstallPlace setup;
  std::optional<ClientPlace> client;
};

TEST_F(BootstrapAndSetup, AStartWaitsForARepairAndThenStarts) {
  use(programs_saying("active"));
  const auto repair = hold_repair();
  const OpenedFile lock(setup.paths().bootstrap_lock);
  const auto start = client->start({"self", "status"});
  lock.wait(4);
  EXPECT_FALSE(start->has_ended());
  EXPECT_EQ(repair->go_on(), 0);
  EXPECT_EQ(start->output(), client->says("active console", "self status"));
  EXPECT_EQ(start->errors(), "");
  EXPECT_EQ(start->wait(), 0);
}

TEST_F(BootstrapAndSetup, AStartGoesOnWhenTheRepairIsKilledBeforeItHasChangedAnything) {
  use(programs_saying("active"));
  const auto repair = hold_repair();
  const OpenedFile lock(setup.paths().bootstrap_lock);
  const auto start = client->start({"self", "status"});
  lock.wait(4);
  EXPECT_FALSE(start->has_ended());
  repair->end();
  EXPECT_EQ(start->output(), client->says("active console", "self status"));
  EXPECT_EQ(start->wait(), 0);
}

TEST_F(BootstrapAndSetup, AStartRefusesAFolderWhoseSetupWasKilledInTheMidst) {
  use(programs_saying("active"));
  const OpenedFile lock(setup.paths().bootstrap_lock);
  const auto start = client->start({"--json", "self", "status"});
  EXPECT_EQ(start->wait(), 0);
  lock.wait(1);
  auto commit = hold_commit();
  // While the setup goes on, and after it was killed.
  for (int i = 0; i < 2; ++i) {
    for (const ClientPlace::Arguments& arguments : {ClientPlace::Arguments{}, {"--json", "self", "status"}}) {
      const ProgramResult refused = client->run(arguments);
      EXPECT_EQ(refused.output, arguments.empty() ? "" : problem_document("native_install_incomplete", unfinished()));
      EXPECT_EQ(refused.errors, unfinished() + "\n");
      EXPECT_EQ(refused.exit_code, 1);
    }
    commit->end();
  }
}

TEST_F(BootstrapAndSetup, AStartThatWaitsRefusesWhenTheSetupIsKilledInTheMidst) {
  use(programs_saying("active"));
  HeldSetup commit([&](const std::function<void()>& stop) {
    const NativeFileLock lock(setup.paths().bootstrap_lock, true, NativeLockSharing::none, LockMode::exclusive);
    stop();
    setup.write(setup.paths().incomplete_marker.filename(), "{}");
    _exit(9);
  });
  const OpenedFile lock(setup.paths().bootstrap_lock);
  const auto start = client->start({"self", "status"});
  lock.wait(4);
  EXPECT_FALSE(start->has_ended());
  EXPECT_EQ(commit.go_on(), 9);
  EXPECT_EQ(start->output(), "");
  EXPECT_EQ(start->errors(), unfinished() + "\n");
  EXPECT_EQ(start->wait(), 1);
}

TEST_F(BootstrapAndSetup, AStartThatWaitsForASetupEndsByASignal) {
  use(programs_saying("active"));
  const auto repair = hold_repair();
  const OpenedFile lock(setup.paths().bootstrap_lock);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    const auto start = client->start({"self", "status"});
    lock.wait(4);
    start->send_signal(signal);
    EXPECT_EQ(start->wait(), -signal);
    EXPECT_EQ(start->output(), "");
  }
  EXPECT_EQ(repair->go_on(), 0);
}

TEST_F(BootstrapAndSetup, ASetupChangesNothingWhileALauncherRuns) {
  const Json version = use(troubled_programs());
  const auto start = start_staying(version);
  expect_running();
  start->send_signal(SIGINT);
  EXPECT_EQ(start->wait(), 4);
  EXPECT_NO_THROW(setup.repair());
}

TEST_F(BootstrapAndSetup, ASetupChangesNothingDuringATrialAndWhileItsLauncherRuns) {
  const Json version = client->add("used", troubled_programs());
  client->name("candidate", version);
  const auto trial = client->start_troubled("hang");
  const Json launcher = client->acknowledgement();
  expect_running();
  end_process(launcher);
  EXPECT_EQ(trial->wait(), 1);

  client->name("candidate", version);
  const auto start = client->start_troubled("stay");
  wait_until([&] { return client->is_active(version); });
  expect_running();
  // Its launcher goes on without it.
  start->send_signal(SIGKILL);
  EXPECT_EQ(start->wait(), -SIGKILL);
  expect_running();
  client->end_launchers();
  wait_until([&] { return !is_held(client->version_lease(version)); });
  EXPECT_NO_THROW(setup.repair());
}

TEST_F(BootstrapAndSetup, AnUninstallGoesThroughOnceTheLauncherHasEnded) {
  LauncherPrograms programs = troubled_programs();
  programs.maintenance = bytes_of(RAVOK_MAINTENANCE);
  const Json version = use(programs);
  const TreeState player_data = setup.player_data();
  const auto launcher = start_staying(version);
  const std::vector<std::string> before = setup.root().names();

  const OpenedFile lease(client->version_lease(version));
  const auto uninstall = client->start({"self", "uninstall"});
  lease.wait(6);
  EXPECT_FALSE(uninstall->has_ended());
  EXPECT_EQ(setup.root().names(), before);
  // A start that waits for the uninstall leaves nothing behind either.
  const OpenedFile lock(setup.paths().bootstrap_lock);
  const auto late = client->start({"--json", "self", "status"});
  lock.wait(4);
  launcher->send_signal(SIGINT);
  EXPECT_EQ(launcher->wait(), 4);
  EXPECT_EQ(uninstall->output(),
            "Removed Acme Games from " + setup.data().native() + ". Saves and settings were kept.\n");
  EXPECT_EQ(uninstall->errors(), "Removing…\n");
  EXPECT_EQ(uninstall->wait(), 0);
  EXPECT_EQ(late->output(), problem_document("not_installed", "Ravok is not installed in " + setup.data().native()));
  EXPECT_EQ(late->wait(), 1);
  EXPECT_EQ(setup.state(), player_data);
}

// What a start may answer besides its launcher, whatever setups are at work. The launcher of this test's package is a
// script, which cannot prove itself.
const std::set<std::string> plain_answers = {
    "busy",        "content_mismatch",          "file_read",     "launcher_damaged", "launcher_startup_failed",
    "lock_failed", "native_install_incomplete", "not_installed", "unsafe_path"};

class BootstrapAmongSetups : public ::testing::Test {
 protected:
  BootstrapAmongSetups() {
    use_launcher(setup.package,
                 publish_launcher(setup.root(), RAVOK_LAUNCHER_BUILD_ID, programs_saying("installed"), "release"));
    setup.republish();
    setup.write_player_data();
  }

  // Does one thing in a process of its own.
  pid_t start_setup(const std::string& action) const {
    const pid_t child = fork();
    if (child == 0) {
      try {
        if (action == "uninstall") {
          NativeInstaller::uninstall({setup.data(), false, std::chrono::milliseconds(0)}, {});
        } else {
          NativeInstaller::install({setup.package_directory(), setup.data(), action == "repair", false}, setup.seal(),
                                   {});
        }
      } catch (const Error&) {
        // It could not be done now.
      }
      _exit(0);
    }
    return child;
  }

  std::unique_ptr<StartedProgram> start() const {
    return std::make_unique<StartedProgram>(ProgramStart{RAVOK_BOOTSTRAP,
                                                         {"--json", "--data-dir", setup.data(), "self", "status"},
                                                         {{"HOME", setup.home()}, {"PATH", "/usr/bin:/bin"}}});
  }
  std::string launcher_says() const {
    return "installed console:--data-dir " + setup.data().native() + " --json self status\n";
  }

  InstallPlace setup;
};

TEST_F(BootstrapAmongSetups, AStartGetsItsLauncherOrAPlainAnswer) {
  const TreeState player_data = setup.player_data();
  const std::vector<std::string> actions = {"install", "repair", "uninstall", "start", "start", "start"};
  std::minstd_rand random(1);
  std::map<std::string, int> answers;
  const auto all_was_seen = [&] {
    return answers["started"] > 0 && answers["not_installed"] > 0 && answers["launcher_startup_failed"] > 0;
  };
  for (int round = 0; round < 40 || (!all_was_seen() && round < 500); ++round) {
    std::vector<pid_t> setups;
    Starts starts;
    for (int i = 0; i < crowd; ++i) {
      const std::string action = actions[random() / 7 % actions.size()];
      if (action == "start") {
        starts.push_back(start());
      } else {
        setups.push_back(start_setup(action));
      }
    }
    for (const auto& started : starts) {
      const std::string output = started->output();
      if (started->wait() == 0) {
        EXPECT_EQ(output, launcher_says());
        ++answers["started"];
      } else if (output.empty()) {
        // It has become the launcher and holds no lock any more, and an uninstall was faster than the script's reader.
        EXPECT_NE(started->errors().find("/bin/ravok: "), std::string::npos);
        ++answers["removed"];
      } else {
        // A launcher on trial has said what it is before it was found to prove nothing.
        const std::size_t document = output.rfind("{\"problem\"");
        ASSERT_NE(document, std::string::npos) << output;
        const std::string before = output.substr(0, document);
        EXPECT_TRUE(before == "" || before == launcher_says()) << output;
        const Json said = Json::parse(output.substr(document));
        const std::string problem = text_at(said.at("problem"), "code");
        EXPECT_TRUE(plain_answers.contains(problem)) << output;
        ++answers[problem];
      }
    }
    for (const pid_t child : setups) {
      EXPECT_EQ(waitpid(child, nullptr, 0), child);
    }
    EXPECT_EQ(setup.player_data(), player_data);
  }
  for (const auto& [answer, count] : answers) {
    std::cout << answer << " (" << count << ")\n";
  }
  EXPECT_TRUE(all_was_seen());

  const NativeInstallStatus status = NativeInstaller::status(setup.data());
  if (status.installed || status.incomplete) {
    setup.repair();
  } else {
    setup.install();
  }
  // The first start tries a version that waits, which is none that proves itself; the second starts it all the same,
  // since there is no other.
  start()->wait();
  EXPECT_EQ(start()->output(), launcher_says());
  EXPECT_EQ(setup.player_data(), player_data);
  NativeInstaller::uninstall({setup.data(), false, std::chrono::milliseconds(0)}, {});
  EXPECT_EQ(setup.state(), player_data);
}

}  // namespace
}  // namespace ravok::testing::bootstrap_crowd_test
