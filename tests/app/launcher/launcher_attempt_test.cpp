#include "app/launcher/launcher_attempt.hpp"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "app/launcher/launcher_startup.hpp"
#include "support/clock_calls.hpp"
#include "support/failure.hpp"
#include "support/fast_volume.hpp"
#include "support/file_calls.hpp"
#include "support/launcher_place.hpp"
#include "support/patient_start.hpp"

namespace ravok::launcher_attempt_test {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using testing::failure_of;
using testing::is_lock_busy;
using testing::LauncherPlace;
using testing::LauncherPrograms;
using testing::StillClock;
using testing::write_bytes;

constexpr const char* exited_early = "Launcher candidate exited before initialization";
constexpr const char* not_confirmed = "Launcher candidate did not confirm initialization";
constexpr const char* no_lease = "The running launcher did not retain native startup ownership";
constexpr const char* unconfirmed_exit =
    "Launcher candidate exit is unconfirmed; the working launcher remains selected";
constexpr const char* bad_limit = "Launcher startup limit must be bounded to 30 seconds";
constexpr const char* bad_health =
    "Launcher health does not match its build, process, mode, interrupt contract and attempt";
constexpr const char* in_use = "Another Ravok operation is using this state";

// What a child does as time passes. It does the next of its steps each time that it is asked whether it has ended.
class Play {
 public:
  explicit Play(const LauncherPlace& place) : place_(place) {}

  // Each returns the play, so that a test reads as what the child does.
  Play& then(std::function<void()> step) {
    steps_.push_back(std::move(step));
    return *this;
  }
  Play& takes_lease() {
    return then([this] {
      lease_ = std::make_unique<FileLock>(store().startup_lease_path(attempt()), false, LockMode::shared);
    });
  }
  Play& acknowledges() {
    return then([this] {
      write_bytes(store().startup_ack_path(attempt()), lease_document(manifest(), attempt(), pid, interface).dump());
    });
  }
  Play& is_healthy(std::uint64_t as = pid) {
    return then([this, as] {
      write_bytes(store().health_path(attempt()),
                  manifest().startup_health(attempt(), as, interface, interface == "cli").dump());
    });
  }
  Play& drops_lease() {
    return then([this] { lease_.reset(); });
  }
  Play& ends(std::uint64_t code) {
    return then([this, code] { end(code); });
  }
  // Starts as a whole launcher does, and is ready when it is first looked at.
  Play& starts_well() {
    at_start = [this] {
      takes_lease().acknowledges().is_healthy();
      while (next_ < steps_.size()) {
        steps_[next_++]();
      }
    };
    return *this;
  }

  LauncherChild start(const LauncherProgram& program) {
    started.push_back(program);
    attempt_ = store().load().at("attempt");
    code_.reset();
    if (at_start) {
      // Only what the child does before it is first looked at; the other steps follow.
      std::vector<std::function<void()>> later = std::exchange(steps_, {});
      at_start();
      steps_.insert(steps_.end(), later.begin(), later.end());
    }
    return {pid,
            [this]() -> std::optional<std::uint64_t> {
              if (!code_ && next_ < steps_.size()) {
                steps_[next_++]();
              }
              return code_;
            },
            [this] {
              ++interrupts;
              return true;
            },
            [this](std::uint64_t grace) {
              graces.push_back(grace);
              if (at_termination) {
                at_termination();
              }
              if (dies) {
                end(143);
              }
              return dies;
            }};
  }

  const Json& attempt() const { return attempt_; }

  static constexpr std::uint64_t pid = 4711;
  std::string interface = "cli";
  bool dies = true;  // whether it ends when it is terminated
  std::function<void()> at_start;
  std::function<void()> at_termination;
  std::vector<LauncherProgram> started;
  std::vector<std::uint64_t> graces;
  int interrupts = 0;

 private:
  const LauncherStore& store() const { return place_.store; }
  LauncherManifest manifest() const { return store().manifest(attempt_.at("reference")); }
  void end(std::uint64_t code) {
    code_ = code;
    lease_.reset();
  }

  const LauncherPlace& place_;
  Json attempt_;
  std::vector<std::function<void()>> steps_;
  std::size_t next_ = 0;
  std::unique_ptr<FileLock> lease_;
  std::optional<std::uint64_t> code_;
};

class LauncherAttempts : public ::testing::Test {
 protected:
  LauncherAttempts() { place_.set("candidate", candidate_); }

  void with_working_version() { place_.set("active", working_); }

  std::optional<int> run() {
    return run_launcher_attempt(place_.store, start_,
                                [this](const LauncherProgram& program) { return play_.start(program); });
  }

  // The attempt fails in this way where no version works. Where one does, it is rejected in the same way, and the
  // bootstrap goes on.
  void expect_failure(const std::string& code, const std::string& message) {
    EXPECT_FAILURE(run(), code, message);
    expect_rejection("startup_failed");
    EXPECT_EQ(place_.value("active"), nullptr);
  }
  void expect_rejection(const std::string& problem) const {
    const Json document = place_.store.load();
    EXPECT_EQ(document.at("attempt"), nullptr);
    EXPECT_EQ(document.at("candidate"), nullptr);
    EXPECT_EQ(document.at("failed_candidate"), Json({{"reference", candidate_}, {"problem", problem}}));
    EXPECT_FALSE(is_lock_busy(place_.root / "launcher/bootstrap.lock"));
  }

  const LauncherPlace place_;
  const Json working_ = place_.add_version("build-0");
  const Json candidate_ = place_.add_version("build-1");
  Play play_{place_};
  LauncherStart start_{"cli", {"play", "--now"}, milliseconds(100), {}};
};

TEST_F(LauncherAttempts, DoNothingWithoutACandidate) {
  place_.set("candidate", nullptr);
  const std::string before = place_.document_text();
  EXPECT_EQ(run(), std::nullopt);
  EXPECT_EQ(place_.document_text(), before);
  EXPECT_TRUE(play_.started.empty());
}

TEST_F(LauncherAttempts, BoundTheirLimitBeforeAnythingElse) {
  const std::string before = place_.document_text();
  for (const int limit : {-1, 0, 30'001}) {
    start_.limit = milliseconds(limit);
    EXPECT_FAILURE(run(), "launcher_health", bad_limit);
  }
  start_.limit = milliseconds(1);
  start_.interface = "tui";
  EXPECT_FAILURE(run(), "launcher_interface", "Choose the CLI or GUI launcher interface");
  EXPECT_EQ(place_.document_text(), before);
  require_startup_limit(milliseconds(1));
  require_startup_limit(milliseconds(30'000));
}

TEST_F(LauncherAttempts, MakeAProvenVersionActive) {
  with_working_version();
  const StillClock clock;
  play_.starts_well().then([] {}).then([] {}).ends(5);
  EXPECT_EQ(run(), 5);
  const Json document = place_.store.load();
  EXPECT_EQ(document.at("active"), candidate_);
  EXPECT_EQ(document.at("rollback"), working_);
  EXPECT_EQ(document.at("attempt"), nullptr);
  EXPECT_EQ(document.at("failed_candidate"), nullptr);
  EXPECT_TRUE(play_.graces.empty());
  EXPECT_EQ(play_.interrupts, 0);
}

TEST_F(LauncherAttempts, StartTheEntryOfTheInterface) {
  const StillClock clock;
  play_.starts_well().ends(0);
  EXPECT_EQ(run(), 0);
  ASSERT_EQ(play_.started.size(), 1u);
  const LauncherProgram& console = play_.started[0];
  const auto folder = place_.store.payload(candidate_);
  EXPECT_EQ(console.entry, folder / "bin/program");
  EXPECT_EQ(console.directory, folder);
  const std::vector<std::string> arguments = {"--data-dir", place_.root.path().string(), "play", "--now"};
  EXPECT_EQ(console.arguments, arguments);
  EXPECT_EQ(console.environment, place_.store.health_environment(play_.attempt(), "cli"));
  EXPECT_TRUE(console.console);
}

TEST_F(LauncherAttempts, StartTheEntryWithWindows) {
  const StillClock clock;
  start_.interface = play_.interface = "gui";
  play_.starts_well().ends(0);
  EXPECT_EQ(run(), 0);
  const LauncherProgram& window = play_.started.at(0);
  EXPECT_EQ(window.entry, place_.store.payload(candidate_) / "bin/window");
  EXPECT_EQ(window.environment, place_.store.health_environment(play_.attempt(), "gui"));
  EXPECT_FALSE(window.console);
  EXPECT_EQ(place_.value("active"), candidate_);
}

TEST_F(LauncherAttempts, PutTheDataFolderBeforeTheArguments) {
  using Words = std::vector<std::string>;
  EXPECT_EQ(launcher_arguments("/data/a/../b", {}), (Words{"--data-dir", "/data/b"}));
  EXPECT_EQ(launcher_arguments("/data", {"--", "x"}), (Words{"--data-dir", "/data", "--", "x"}));
  EXPECT_EQ(launcher_arguments("data", {}), (Words{"--data-dir", (std::filesystem::current_path() / "data").string()}));
}

TEST_F(LauncherAttempts, HoldEveryLeaseUntilTheChildHasItsOwn) {
  const StillClock clock;
  const auto lease = [&] { return place_.store.startup_lease_path(play_.attempt()); };
  const auto owner = place_.root / "launcher/bootstrap.lock";
  bool looked = false;
  play_
      .then([&] {
        EXPECT_TRUE(is_lock_busy(owner));
        EXPECT_TRUE(is_lock_busy(lease()));
        EXPECT_FALSE(is_lock_busy(lease(), LockMode::shared));
        EXPECT_TRUE(is_lock_busy(place_.version_lease_path(candidate_)));
        EXPECT_FALSE(is_lock_busy(place_.version_lease_path(candidate_), LockMode::shared));
      })
      .takes_lease()
      .acknowledges()
      .is_healthy()
      .then([] {})  // the look for the lease
      .then([&] {
        // Confirmed: only the owner's lock is still the bootstrap's.
        looked = true;
        EXPECT_EQ(place_.value("active"), candidate_);
        EXPECT_TRUE(is_lock_busy(owner));
        EXPECT_FALSE(is_lock_busy(place_.version_lease_path(candidate_)));
        EXPECT_TRUE(is_lock_busy(lease()));
      })
      .drops_lease()
      .then([&] { EXPECT_FALSE(is_lock_busy(lease())); })
      .ends(0);
  EXPECT_EQ(run(), 0);
  EXPECT_TRUE(looked);
  EXPECT_FALSE(is_lock_busy(owner));
}

TEST_F(LauncherAttempts, ReturnTheExitCodeOfTheChild) {
  for (const auto& [code, expected] : std::vector<std::pair<std::uint64_t, int>>{
           {0, 0}, {1, 1}, {137, 137}, {255, 255}, {256, 1}, {std::uint64_t{1} << 32, 1}}) {
    const StillClock clock;
    place_.set("candidate", candidate_);
    Play play(place_);
    play.starts_well().then([] {}).then([] {}).ends(code);
    EXPECT_EQ(
        run_launcher_attempt(place_.store, start_, [&](const LauncherProgram& program) { return play.start(program); }),
        expected);
  }
}

TEST_F(LauncherAttempts, ConfirmAChildThatWasReadyAndEndedAtOnce) {
  const StillClock clock;
  play_.starts_well().ends(0);
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(place_.value("active"), candidate_);
  EXPECT_EQ(clock.sleeps(), 0u);
}

TEST_F(LauncherAttempts, ConfirmAChildThatEndsWithinAHundredMillisecondsWithoutItsLease) {
  const StillClock clock;
  play_.starts_well().drops_lease();
  for (int i = 0; i < 19; ++i) {
    play_.then([] {});
  }
  play_.ends(3);
  start_.limit = milliseconds(1000);
  with_working_version();
  EXPECT_EQ(run(), 3);
  EXPECT_EQ(clock.slept(), milliseconds(100));
  EXPECT_EQ(place_.value("active"), candidate_);
}

TEST_F(LauncherAttempts, RejectAChildThatRunsWithoutItsLease) {
  const StillClock clock;
  play_.starts_well().drops_lease();
  expect_failure("launcher_lease", no_lease);
  EXPECT_EQ(clock.slept(), milliseconds(100));
  EXPECT_EQ(play_.graces, std::vector<std::uint64_t>{250});
}

TEST_F(LauncherAttempts, WaitForAChildWithoutItsLeaseNoLongerThanItsDeadline) {
  with_working_version();
  start_.limit = milliseconds(20);
  const StillClock clock;
  play_.starts_well().drops_lease();
  EXPECT_EQ(run(), std::nullopt);
  expect_rejection("startup_failed");
  EXPECT_EQ(clock.slept(), milliseconds(20));
}

TEST_F(LauncherAttempts, RejectAChildThatEndsTooEarly) {
  const StillClock clock;
  play_.takes_lease().acknowledges().ends(0);
  expect_failure("launcher_startup_failed", exited_early);
  EXPECT_EQ(clock.slept(), milliseconds(20));
}

TEST_F(LauncherAttempts, GiveTheFirstVersionThirtySeconds) {
  const StillClock clock;
  start_.limit = milliseconds(1);
  expect_failure("launcher_startup_timeout", not_confirmed);
  EXPECT_EQ(clock.slept(), milliseconds(30'000));
  EXPECT_EQ(play_.graces, std::vector<std::uint64_t>{250});
}

TEST_F(LauncherAttempts, GiveAnUpgradeTheLimitOfTheCaller) {
  with_working_version();
  for (const int limit : {10, 100, 30'000}) {
    const StillClock clock;
    place_.set("candidate", candidate_);
    start_.limit = milliseconds(limit);
    EXPECT_EQ(run(), std::nullopt);
    EXPECT_EQ(clock.slept(), milliseconds(limit));
    expect_rejection("startup_failed");
  }
}

TEST_F(LauncherAttempts, GoOnWithTheWorkingVersion) {
  with_working_version();
  const StillClock clock;
  play_.ends(1);
  EXPECT_EQ(run(), std::nullopt);
  expect_rejection("startup_failed");
  EXPECT_EQ(place_.value("active"), working_);
  EXPECT_EQ(place_.value("rollback"), nullptr);
  // The failed version is not tried again.
  EXPECT_EQ(run(), std::nullopt);
  EXPECT_EQ(play_.started.size(), 1u);
}

TEST_F(LauncherAttempts, RejectAChildThatSpeaksForAnother) {
  const StillClock clock;
  play_.takes_lease().acknowledges().is_healthy(Play::pid + 1);
  expect_failure("launcher_health", bad_health);
  EXPECT_EQ(play_.graces, std::vector<std::uint64_t>{250});
}

TEST_F(LauncherAttempts, RejectAChildWithoutAnAcknowledgement) {
  const StillClock clock;
  play_.takes_lease().is_healthy();
  expect_failure("launcher_lease", "Launcher startup did not acknowledge native content ownership");
}

TEST_F(LauncherAttempts, ReadWhatTheChildSaysWithinBounds) {
  const StillClock clock;
  const auto says = [&](const std::string& text) {
    play_.then([this, text] { write_bytes(place_.store.health_path(play_.attempt()), text); });
  };
  says(std::string(4097, ' '));
  expect_failure("size_limit", "File exceeds read limit");
  place_.set("candidate", candidate_);
  says("{");
  EXPECT_EQ(failure_of([&] { run(); }).value().code, "invalid_json");
  expect_rejection("startup_failed");
}

TEST_F(LauncherAttempts, PassAnInterruptOnAndReject) {
  const StillClock clock;
  int asked = 0;
  start_.interrupted = [&] { return ++asked == 3; };
  const auto failure = failure_of([&] { run(); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "file_read");
  EXPECT_EQ(play_.interrupts, 1);
  EXPECT_EQ(asked, 3);
  EXPECT_EQ(clock.slept(), milliseconds(20));
  EXPECT_EQ(play_.graces, std::vector<std::uint64_t>{250});
  expect_rejection("startup_failed");
}

TEST_F(LauncherAttempts, BeginNothingThatTheUserNoLongerWants) {
  start_.cancelled = [] { return true; };
  const std::string before = place_.document_text();
  const auto failure = failure_of([&] { run(); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "cancelled");
  EXPECT_STREQ(failure->what(), "Ravok's start was cancelled");
  EXPECT_EQ(place_.document_text(), before);
}

TEST_F(LauncherAttempts, PassAnInterruptOnWhileTheChildRuns) {
  const StillClock clock;
  bool wanted = false;
  start_.interrupted = [&] { return wanted; };
  play_.starts_well().then([] {}).then([&] { wanted = true; }).then([&] { EXPECT_EQ(play_.interrupts, 1); }).ends(130);
  EXPECT_EQ(run(), 130);
  EXPECT_EQ(play_.interrupts, 2);
  EXPECT_EQ(clock.slept(), milliseconds(40));
  EXPECT_EQ(place_.value("active"), candidate_);
}

TEST_F(LauncherAttempts, FailWhenTheUserCannotBeAsked) {
  const StillClock clock;
  start_.interrupted = []() -> bool { fail("launcher_control", "Cannot read launcher interrupt channel"); };
  expect_failure("launcher_control", "Cannot read launcher interrupt channel");
  EXPECT_EQ(play_.graces, std::vector<std::uint64_t>{250});
}

TEST_F(LauncherAttempts, TellOfAChildThatMayStillRun) {
  for (const bool throws : {false, true}) {
    for (const bool working : {false, true}) {
      const StillClock clock;
      place_.set("active", working ? working_ : Json(nullptr));
      place_.set("candidate", candidate_);
      Play play(place_);
      play.dies = false;
      if (throws) {
        play.at_termination = [] { fail("process_wait", "Cannot inspect game process"); };
      }
      play.takes_lease();
      EXPECT_FAILURE(run_launcher_attempt(place_.store, start_,
                                          [&](const LauncherProgram& program) { return play.start(program); }),
                     "launcher_startup_timeout", unconfirmed_exit);
      expect_rejection("startup_unconfirmed");
      EXPECT_EQ(place_.value("active"), working ? working_ : Json(nullptr));
    }
  }
}

TEST_F(LauncherAttempts, RejectAVersionThatCannotBeStarted) {
  const auto failure = failure_of([&] {
    run_launcher_attempt(place_.store, start_, [](const LauncherProgram&) -> LauncherChild {
      fail("process_start", "Cannot execute the installed game", {"verify GAME", "repair GAME"});
    });
  });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "process_start");
  EXPECT_STREQ(failure->what(), "Cannot execute the installed game");
  EXPECT_EQ(failure->details, (std::vector<std::string>{"verify GAME", "repair GAME"}));
  expect_rejection("startup_failed");
}

// A lack of memory is no refusal, and goes on past the working version. But nothing runs on unproved.
TEST_F(LauncherAttempts, EndTheChildWhateverFails) {
  place_.set("active", working_);
  play_.takes_lease();
  start_.interrupted = []() -> bool { throw std::bad_alloc(); };
  EXPECT_THROW(
      run_launcher_attempt(place_.store, start_, [&](const LauncherProgram& program) { return play_.start(program); }),
      std::bad_alloc);
  EXPECT_EQ(play_.graces, std::vector<std::uint64_t>{250});
  expect_rejection("startup_failed");
  EXPECT_EQ(place_.value("active"), working_);
}

TEST_F(LauncherAttempts, StartNoVersionWhoseFilesAreDamaged) {
  write_bytes(place_.store.payload(candidate_) / "bin/program", "#!Program");
  const auto failure = failure_of([&] { run(); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "content_mismatch");
  EXPECT_TRUE(play_.started.empty());
  expect_rejection("startup_failed");
}

TEST_F(LauncherAttempts, StartNoVersionWhoseManifestIsAnother) {
  write_bytes(place_.manifest_path(candidate_), "{}");
  expect_failure("content_mismatch", "Stored launcher manifest changed");
  EXPECT_TRUE(play_.started.empty());
}

TEST_F(LauncherAttempts, StartNoVersionThatIsBeingRemoved) {
  const auto removal = place_.store.version_guard(candidate_, LockMode::exclusive);
  expect_failure("busy", in_use);
  EXPECT_TRUE(play_.started.empty());
}

TEST_F(LauncherAttempts, LookForAWorkingVersionBeforeTheChildExists) {
  play_.at_start = [] { FAIL() << "a child was started"; };
  LauncherAttempt attempt(place_.store, start_, place_.store.begin_candidate());
  attempt.take_leases();
  attempt.verify_files();
  const std::string before = place_.document_text();
  write_bytes(place_.root / "launcher/installation.json", "{");
  EXPECT_EQ(
      failure_of([&] { attempt.start_child([&](const LauncherProgram& program) { return play_.start(program); }); })
          .value()
          .code,
      "invalid_json");
  write_bytes(place_.root / "launcher/installation.json", before);
  attempt.reject();
  expect_rejection("startup_failed");
}

// The kernel's locks belong to open files, so the bootstrap's own lease would be found in place of the child's.
TEST_F(LauncherAttempts, GiveUpTheirOwnLeaseBeforeTheyLookForTheChilds) {
  with_working_version();
  const StillClock clock;
  const Json record = place_.store.begin_candidate();
  LauncherAttempt attempt(place_.store, start_, record);
  attempt.take_leases();
  attempt.start_child([this](const LauncherProgram& program) { return play_.start(program); });
  EXPECT_TRUE(is_lock_busy(place_.store.startup_lease_path(record)));
  attempt.require_lease_of_child();  // finds the bootstrap's own
  attempt.release_attempt_lease();
  EXPECT_FALSE(is_lock_busy(place_.store.startup_lease_path(record)));
  EXPECT_FAILURE(attempt.require_lease_of_child(), "launcher_lease", no_lease);
  // Looking has left nothing locked.
  EXPECT_FALSE(is_lock_busy(place_.store.startup_lease_path(record)));
}

TEST_F(LauncherAttempts, RecoverWhatABootstrapHasLeft) {
  const StillClock clock;
  with_working_version();
  const Json left = place_.store.begin_candidate();
  {
    const FileLock launcher(place_.store.startup_lease_path(left), false, LockMode::shared);
    const std::string before = place_.document_text();
    EXPECT_FAILURE(run(), "launcher_running",
                   "The unfinished launcher is still using its startup attempt; close it before restarting");
    EXPECT_EQ(place_.document_text(), before);
  }
  EXPECT_EQ(run(), std::nullopt);
  expect_rejection("startup_interrupted");
  EXPECT_TRUE(play_.started.empty());
}

TEST_F(LauncherAttempts, WaitForRoomWhereAVersionWorks) {
  with_working_version();
  const std::string before = place_.document_text();
  {
    const testing::Planned full(testing::failing_to_write("installation.json", ENOSPC));
    EXPECT_EQ(run(), std::nullopt);
    EXPECT_TRUE(full.happened());
  }
  EXPECT_TRUE(play_.started.empty());
  EXPECT_EQ(place_.document_text(), before);
  const StillClock clock;
  play_.starts_well().ends(0);
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(place_.value("active"), candidate_);
}

TEST_F(LauncherAttempts, WaitForRoomToRecordAnInterruptedOneWhereAVersionWorks) {
  with_working_version();
  place_.set("candidate", nullptr);
  place_.set("attempt", {{"nonce", std::string(32, 'a')}, {"reference", candidate_}});
  const std::string before = place_.document_text();
  {
    const testing::Planned full(testing::failing_to_write("installation.json", ENOSPC));
    EXPECT_EQ(run(), std::nullopt);
    EXPECT_TRUE(full.happened());
  }
  EXPECT_EQ(place_.document_text(), before);
  EXPECT_EQ(run(), std::nullopt);
  expect_rejection("startup_interrupted");
}

TEST_F(LauncherAttempts, WaitForRoomForTheLeaseOfAnInterruptedOneWhereAVersionWorks) {
  const std::string nonce(32, 'a');
  place_.set("candidate", nullptr);
  place_.set("attempt", {{"nonce", nonce}, {"reference", candidate_}});
  const auto expect_no_room = [&](const std::optional<const char*>& code) {
    const std::string before = place_.document_text();
    const testing::Planned full(testing::failing_to_write(nonce, ENOSPC));
    const auto failure = failure_of([&] { EXPECT_EQ(run(), std::nullopt); });
    EXPECT_EQ(failure ? std::optional(failure->code) : std::nullopt, code);
    EXPECT_TRUE(full.happened());
    EXPECT_EQ(place_.document_text(), before);
  };
  expect_no_room("lock_failed");
  with_working_version();
  expect_no_room(std::nullopt);
  // What is no lease stays for somebody to look at.
  write_bytes(place_.store.startup_lease_path(place_.value("attempt")), "");
  std::filesystem::permissions(place_.store.startup_lease_path(place_.value("attempt")), std::filesystem::perms(0644));
  EXPECT_FAILURE(run(), "lock_failed", "Operation lock must be an ordinary private owned file");
  std::filesystem::remove(place_.store.startup_lease_path(place_.value("attempt")));
  EXPECT_EQ(run(), std::nullopt);
  expect_rejection("startup_interrupted");
}

TEST_F(LauncherAttempts, WaitForRoomToRecordAFailureWhereAVersionWorks) {
  const StillClock clock;
  const auto fail_unrecorded = [&](int problem) {
    play_.ends(1);
    testing::Plan plan = testing::failing_to_write("installation.json", problem);
    plan.countdown = 2;
    const testing::Planned full(plan);
    const auto failure = failure_of([&] { EXPECT_EQ(run(), std::nullopt); });
    EXPECT_TRUE(full.happened());
    EXPECT_EQ(place_.value("attempt"), play_.attempt());
    EXPECT_FALSE(is_lock_busy(place_.store.startup_lease_path(play_.attempt())));
    return failure ? failure->code : "";
  };
  const auto try_again = [&] {
    place_.set("attempt", nullptr);
    place_.set("candidate", candidate_);
  };
  EXPECT_EQ(fail_unrecorded(ENOSPC), "insufficient_space");
  try_again();
  with_working_version();
  EXPECT_EQ(fail_unrecorded(EIO), "file_write");
  try_again();
  EXPECT_EQ(fail_unrecorded(ENOSPC), "");
  EXPECT_EQ(place_.value("active"), working_);
  EXPECT_EQ(run(), std::nullopt);
  expect_rejection("startup_interrupted");
  EXPECT_EQ(place_.value("active"), working_);
  EXPECT_EQ(play_.started.size(), 3u);
}

TEST_F(LauncherAttempts, TellOfAChildThatMayRunOnAlsoWithoutRoom) {
  with_working_version();
  const StillClock clock;
  play_.dies = false;
  testing::Plan plan = testing::failing_to_write("installation.json", ENOSPC);
  plan.countdown = 2;
  const testing::Planned full(plan);
  EXPECT_FAILURE(run(), "launcher_startup_timeout", unconfirmed_exit);
  EXPECT_TRUE(full.happened());
}

TEST_F(LauncherAttempts, FailWhereTheyCannotBeRecorded) {
  const std::string before = place_.document_text();
  const auto expect_refused = [&](int problem, const char* code, const char* message) {
    const testing::Planned failing(testing::failing_to_write("installation.json", problem));
    const auto failure = failure_of([&] { run(); });
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->code, code);
    EXPECT_NE(std::string(failure->what()).find(message), std::string::npos) << failure->what();
  };
  expect_refused(ENOSPC, "insufficient_space", "Local storage cannot save data; free space and try again");
  EXPECT_EQ(place_.document_text(), before);
  with_working_version();
  expect_refused(EIO, "file_write", "Cannot create transaction file");
  EXPECT_TRUE(play_.started.empty());
}

TEST_F(LauncherAttempts, RunOneAtATime) {
  const auto owner = place_.store.owner();
  const StillClock clock;
  const std::string before = place_.document_text();
  EXPECT_FAILURE(run(), "busy", in_use);
  EXPECT_GE(clock.slept(), nanoseconds(std::chrono::seconds(2)));
  EXPECT_EQ(place_.document_text(), before);
}

// With real processes.
class LauncherProcesses : public ::testing::Test {
 protected:
  LauncherProcesses() { place_.set("candidate", candidate_); }

  std::optional<int> run(std::vector<std::string> words) {
    words.insert(words.begin(), start_.interface);
    start_.arguments = std::move(words);
    return run_launcher_attempt(place_.store, start_, testing::start_to_be_ended);
  }
  void expect_rejection(const std::string& problem) const {
    EXPECT_EQ(place_.value("attempt"), nullptr);
    EXPECT_EQ(place_.value("active"), nullptr);
    EXPECT_EQ(place_.value("failed_candidate"), Json({{"reference", candidate_}, {"problem", problem}}));
    EXPECT_FALSE(is_lock_busy(place_.version_lease_path(candidate_)));
  }

  static std::string companion() { return testing::bytes_of(RAVOK_LAUNCHER_COMPANION); }

  const LauncherPlace place_{testing::fast_volume()};
  const Json candidate_ = place_.add_version("build-1", {companion(), companion() + " ", companion()});
  LauncherStart start_{"cli", {}, milliseconds(30'000), {}};
};

TEST_F(LauncherProcesses, ProveThemselvesAndRun) {
  EXPECT_EQ(run({"run", "5"}), 5);
  EXPECT_EQ(place_.value("active"), candidate_);
}

TEST_F(LauncherProcesses, ProveThemselvesWithWindows) {
  start_.interface = "gui";
  EXPECT_EQ(run({"run", "0"}), 0);
  EXPECT_EQ(place_.value("active"), candidate_);
}

TEST_F(LauncherProcesses, MayCrashLater) {
  EXPECT_EQ(run({"killed"}), 137);
  EXPECT_EQ(place_.value("active"), candidate_);
}

TEST_F(LauncherProcesses, HearOfAnInterrupt) {
  start_.interrupted = [this] { return !place_.value("active").is_null(); };
  EXPECT_EQ(run({"serve"}), 7);
}

TEST_F(LauncherProcesses, AreRejectedWhenTheyEndTooEarly) {
  EXPECT_FAILURE(run({"refuse"}), "launcher_startup_failed", exited_early);
  expect_rejection("startup_failed");
}

TEST_F(LauncherProcesses, AreRejectedWhenTheySpeakForAnother) {
  EXPECT_FAILURE(run({"forge"}), "launcher_health", bad_health);
  expect_rejection("startup_failed");
}

TEST_F(LauncherProcesses, AreRejectedWithoutTheirLease) {
  EXPECT_FAILURE(run({"drop"}), "launcher_lease", no_lease);
  expect_rejection("startup_failed");
}

TEST_F(LauncherProcesses, AreEndedWhenTheUserDoesNotWait) {
  for (const char* task : {"hang", "stubborn"}) {
    place_.set("candidate", candidate_);
    start_.interrupted = [this] {
      const Json attempt = place_.value("attempt");
      return !attempt.is_null() && std::filesystem::exists(place_.store.startup_ack_path(attempt));
    };
    EXPECT_EQ(failure_of([&] { run({task}); }).value().code, "file_read");
    expect_rejection("startup_failed");
  }
}

TEST_F(LauncherProcesses, AreRejectedAtTheLimitOfAnUpgrade) {
  const Json working = place_.add_version("build-0");
  place_.set("active", working);
  start_.limit = milliseconds(1);
  EXPECT_EQ(run({"hang"}), std::nullopt);
  EXPECT_EQ(place_.value("active"), working);
  EXPECT_EQ(place_.value("failed_candidate").at("problem"), "startup_failed");
}

TEST_F(LauncherProcesses, ThatCannotRunAreRejected) {
  place_.set("candidate", place_.add_version("build-2", {"no program", "#!window", "#!helper"}));
  EXPECT_FAILURE(run({"run", "0"}), "process_start", "Cannot execute the installed game");
  EXPECT_EQ(place_.value("failed_candidate").at("problem"), "startup_failed");
}

}  // namespace
}  // namespace ravok::launcher_attempt_test
