// Histories of versions at random: releases good and bad, a repository that goes back, changes its keys or expires, a
// server that is down, full disks and crashes, and between them the real programs of a client. After every step a model
// says what the client must be like.
//
//   RAVOK_HISTORY_STEPS  how many steps each history has
//   RAVOK_HISTORY_SEED   the seed of the first one; the others have those that follow

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fault/fault_runner.hpp"
#include "programs/history_model.hpp"
#include "programs/history_place.hpp"
#include "support/process.hpp"

namespace ravok {
namespace {

using testing::BootstrapState;
using testing::FaultMode;
using testing::FaultRun;
using testing::HistoryPlace;
using testing::HistoryState;
using testing::no_release;
using testing::ProgramResult;
using testing::ProgramRun;
using testing::ReleaseKind;
using testing::StartedVersion;
using testing::StoreRoom;
using testing::UpdateAnswer;

std::uint64_t number_from_environment(const char* variable, std::uint64_t otherwise) {
  const char* const text = std::getenv(variable);
  return text == nullptr ? otherwise : std::stoull(text);
}

std::string part_answer(const Json& document, const char* part) {
  if (!document.contains(part) || document.at(part).is_null()) {
    return "none";
  }
  const Json& result = document.at(part);
  if (result.contains("problem")) {
    return "problem: " + result.at("problem").at("code").get<std::string>();
  }
  if (result.contains("skipped")) {
    return "skipped: " + result.at("skipped").get<std::string>();
  }
  if (result.contains("status")) {
    return result.at("status").get<std::string>();
  }
  return result.contains("already_current") ? "current" : "staged";
}

UpdateAnswer answer_of(const ProgramResult& result) {
  const Json document = Json::parse(result.output);
  UpdateAnswer answer{part_answer(document, "launcher"), part_answer(document, "bootstrap"), result.exit_code};
  if (!document.contains("launcher")) {
    answer.launcher = "problem: " + document.at("problem").at("code").get<std::string>();
  }
  return answer;
}

class History {
 public:
  explicit History(std::uint64_t seed) : random_(seed), state_(place_.state()) {
    HistoryState first{.store = {}, .bootstrap = {.installed = 0}, .trust = {}};
    first.store.active = 0;
    expect(first, "installed");
  }

  void step() {
    struct Choice {
      unsigned weight;
      void (History::*act)();
    };
    static constexpr std::array<Choice, 19> choices = {{{8, &History::release_launcher},
                                                        {5, &History::release_bad_launcher},
                                                        {4, &History::release_bootstrap},
                                                        {4, &History::release_bad_bootstrap},
                                                        {3, &History::withdraw},
                                                        {4, &History::rotate},
                                                        {3, &History::serve_older},
                                                        {3, &History::serve_newest},
                                                        {2, &History::expire},
                                                        {2, &History::switch_server},
                                                        {16, &History::update},
                                                        {6, &History::check},
                                                        {14, &History::start},
                                                        {12, &History::spoil_update},
                                                        {13, &History::spoil_start},
                                                        {3, &History::clean},
                                                        {3, &History::spoil_cleanup},
                                                        {1, &History::repair},
                                                        {1, &History::begin_again}}};
    unsigned total = 0;
    for (const Choice& choice : choices) {
      total += choice.weight;
    }
    std::uint64_t chosen = below(total);
    for (const Choice& choice : choices) {
      if (chosen < choice.weight) {
        (this->*choice.act)();
        break;
      }
      chosen -= choice.weight;
    }
    judge();
    if (full_answers_ >= 2 || place_.is_nearly_full()) {
      clean();
      judge();
    }
  }

  // The last steps, for somebody who looks for what went wrong.
  std::string story() const {
    std::string text;
    for (std::size_t i = steps_.size() > 30 ? steps_.size() - 30 : 0; i < steps_.size(); ++i) {
      text += std::to_string(i + 1) + ". " + steps_[i] + "\n";
    }
    return text + place_.complaints();
  }

  std::string counts() const {
    std::ostringstream text;
    for (const auto& [name, count] : counts_) {
      text << "  " << count << " " << name << "\n";
    }
    return text.str();
  }

 private:
  // --- Chance ----------------------------------------------------------------------------------

  std::uint64_t below(std::uint64_t limit) { return random_() % limit; }
  bool one_in(std::uint64_t count) { return below(count) == 0; }
  ReleaseKind bad_kind() {
    static constexpr std::array<ReleaseKind, 4> kinds = {ReleaseKind::exits, ReleaseKind::lacks_library,
                                                         ReleaseKind::no_program, ReleaseKind::crashes};
    return kinds[below(kinds.size())];
  }

  void tell(const std::string& what) { steps_.push_back(what); }
  void tell_more(const std::string& what) { steps_.back() += what; }
  void count(const std::string& what) { ++counts_[what]; }

  // --- The publisher ---------------------------------------------------------------------------

  int newest_launcher() const { return place_.world.states.back().launcher; }
  int newest_bootstrap() const { return place_.world.states.back().bootstrap; }

  void publish(int launcher, int bootstrap, const std::string& expired = "") {
    place_.publish(launcher, bootstrap, expired);
    tell_more(", publication " + std::to_string(place_.world.served));
  }

  void release_launcher() { release_launcher_as(ReleaseKind::good, "good"); }
  void release_bad_launcher() { release_launcher_as(bad_kind(), "bad"); }
  void release_launcher_as(ReleaseKind kind, const std::string& name) {
    const int release = place_.release_launcher(kind);
    tell("release the " + name + " launcher " + std::to_string(release));
    count(name + " launchers released");
    publish(release, newest_bootstrap());
  }

  void release_bootstrap() { release_bootstrap_as(ReleaseKind::good, "good"); }
  void release_bad_bootstrap() { release_bootstrap_as(bad_kind(), "bad"); }
  void release_bootstrap_as(ReleaseKind kind, const std::string& name) {
    const int release = place_.release_bootstrap(kind);
    tell("release the " + name + " bootstrap " + std::to_string(release));
    count(name + " bootstraps released");
    publish(newest_launcher(), release);
  }

  std::size_t any_state() {
    const std::size_t oldest = place_.oldest_state();
    return oldest + below(place_.world.states.size() - oldest);
  }

  void withdraw() {
    const testing::PublishedState former = place_.world.states.at(any_state());
    tell("withdraw to launcher " + std::to_string(former.launcher) + " and bootstrap " +
         std::to_string(former.bootstrap));
    count("withdrawals");
    publish(former.launcher, former.bootstrap);
  }

  void rotate() {
    static constexpr std::array<const char*, 4> roles = {"root", "timestamp", "snapshot", "targets"};
    const std::string role = roles[below(roles.size())];
    tell("rotate the keys of " + role);
    count("rotations of keys");
    place_.rotate(role);
    publish(newest_launcher(), newest_bootstrap());
  }

  void expire() {
    static constexpr std::array<const char*, 4> roles = {"root", "timestamp", "snapshot", "targets"};
    const std::string role = roles[below(roles.size())];
    tell("let " + role + " expire");
    count("expiries");
    publish(newest_launcher(), newest_bootstrap(), role);
  }

  void serve_older() {
    const std::size_t state = any_state();
    place_.serve(state);
    tell("serve publication " + std::to_string(state) + " again");
    count("older copies served");
  }

  void serve_newest() {
    place_.serve(place_.world.states.size() - 1);
    tell("serve the newest publication");
  }

  void switch_server() {
    tell(place_.world.is_down ? "bring the server up" : "take the server down");
    count("times that the server went down or up");
    place_.world.is_down ? place_.bring_up() : place_.take_down();
  }

  // --- The client ------------------------------------------------------------------------------

  void begin_again() {
    // What was released until then may be newer than what the new installation begins with.
    tell("install anew");
    count("installations");
    place_.install();
    full_answers_ = 0;
    interrupted_ = false;
    state_ = place_.state();
    HistoryState first{.store = {}, .bootstrap = {.installed = 0}, .trust = {}};
    first.store.active = 0;
    expect(first, "installed");
  }

  bool is_published_unpacked() const { return place_.is_unpacked(place_.world.served_state().launcher); }

  void update() { update_as({"self", "update"}, false); }
  void check() { update_as({"updates", "check", "--background"}, true); }
  void update_as(const std::vector<std::string>& command, bool background) {
    tell(background ? "check for updates" : "update");
    count(background ? "checks" : "updates");
    const StoreRoom room = place_.room();
    const bool is_unpacked = is_published_unpacked();
    HistoryState expected = state_;
    // A start that brings a half applied update to an end is judged by itself.
    const bool started_anew = one_in(2) && !interrupted_;
    StartedVersion started{expected.store.active, false};
    if (started_anew) {
      tell_more(" through the bootstrap");
      started = begin_start(expected);
    }
    UpdateAnswer answer;
    if (started.was_on_trial) {
      answer = {background ? "skipped: startup_pending" : "problem: busy", "none", background ? 0 : 1};
    } else {
      answer = testing::update(expected, place_.world, background, room, is_unpacked);
    }
    const ProgramResult result =
        run_program(started_anew ? place_.start_of(command) : place_.active_launcher(state_.store.active, command));
    expect_update(result, answer);
    finish_start();
    expect(expected, "after an update");
  }

  void expect_update(const ProgramResult& result, const UpdateAnswer& answer) {
    std::ostringstream said;
    if (result.output.empty()) {
      ADD_FAILURE() << "Expected " << answer << ", but nothing was said, with exit code " << result.exit_code
                    << ", signal " << result.signal << ": " << result.errors;
      return;
    }
    const UpdateAnswer given = answer_of(result);
    said << ": " << given;
    tell_more(said.str());
    EXPECT_EQ(given, answer) << result.output << result.errors;
    count("answers of the launcher: " + given.launcher);
    count("answers of the bootstrap: " + given.bootstrap);
    full_answers_ += given.launcher == "problem: launcher_storage_full" ? 1 : 0;
  }

  // The state in which the model begins a start. Where an earlier one was stopped while it applied an update of the
  // bootstrap, that update may have been given up by now.
  StartedVersion begin_start(HistoryState& expected) {
    const BootstrapState before = expected.bootstrap;
    const StartedVersion started = testing::start(expected, place_.world);
    if (interrupted_) {
      // Taken over when the start is done.
      before_interrupted_start_ = before;
    }
    return started;
  }

  void finish_start() { after_start_ = true; }

  void start() {
    tell("start");
    count("starts");
    HistoryState expected = state_;
    const StartedVersion started = begin_start(expected);
    const ProgramResult result = run_program(place_.start_of({"self", "status"}));
    expect_start(result, expected, started);
    finish_start();
    expect(expected, "after a start");
  }

  void expect_start(const ProgramResult& result, const HistoryState& expected, const StartedVersion& started) {
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    EXPECT_TRUE(place_.world.is_good_launcher(started.version));
    if (result.exit_code != 0) {
      return;
    }
    const Json status = Json::parse(result.output);
    const std::string build = place_.launchers.at(static_cast<std::size_t>(started.version)).build;
    EXPECT_EQ(status.at("version"), build) << result.errors;
    const auto named = [](const Json& reference) {
      return reference.is_null() ? std::string("none") : reference.at("build_id").get<std::string>();
    };
    EXPECT_EQ(named(status.at(started.was_on_trial ? "on_trial" : "active")), build);
    const int failed = started.was_on_trial ? no_release : expected.store.failed;
    if (failed != no_release) {
      EXPECT_EQ(named(status.at("failed_candidate").at("reference")),
                place_.launchers.at(static_cast<std::size_t>(failed)).build);
    }
    EXPECT_FALSE(status.at("bootstrap_update_pending").get<bool>());
    tell_more(": " + build + (started.was_on_trial ? " on trial" : ""));
  }

  // Cleans the store, which then holds nothing but the versions that it names.
  void clean() {
    tell("clean up");
    count("clean-ups");
    const ProgramResult result = run_program(place_.active_launcher(state_.store.active, {"self", "cleanup"}));
    expect_cleanup(result);
  }

  void expect_cleanup(const ProgramResult& result) {
    HistoryState expected = state_;
    const Json document = Json::parse(result.output);
    if (expected.store.attempt != no_release) {
      testing::interrupt_attempt(expected.store);
    }
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    EXPECT_EQ(document.at("kept"), Json::array());
    expected.store.is_cleaning = false;
    full_answers_ = 0;
    std::set<int> named = {expected.store.active, expected.store.rollback, expected.store.candidate,
                           expected.store.failed};
    named.erase(no_release);
    EXPECT_TRUE(place_.is_clean(named)) << result.output;
    expect(expected, "after a clean-up");
  }

  void repair() {
    tell("repair");
    count("repairs");
    const ProgramResult result = place_.run_setup("repair");
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    if (interrupted_) {
      // The files of the bootstrap need not be whole, and then the installer's own take their place.
      const HistoryState found = place_.state();
      if (found.bootstrap == BootstrapState{.installed = 0}) {
        state_.bootstrap = found.bootstrap;
        interrupted_ = false;
      }
    }
    expect(state_, "after a repair");
  }

  // --- What goes wrong -------------------------------------------------------------------------

  struct Fault {
    FaultMode mode;
    std::uint64_t number;
    testing::NameLoss loss;
  };

  // Chooses a call of the command and what can happen to it, by what the calls were the last time that nothing was
  // spoilt. The calls of two runs need not be the same.
  Fault choose_fault(const std::string& command) {
    std::vector<testing::FaultCall> calls;
    for (const testing::FaultCall& call : calls_[command]) {
      if (!call.modes.empty()) {
        calls.push_back(call);
      }
    }
    if (calls.empty()) {
      return {FaultMode::exit, 0, {}};
    }
    // A mode that few calls can meet is chosen as often as the others.
    Fault fault{testing::all_fault_modes[below(std::size(testing::all_fault_modes))], 0, {}};
    std::erase_if(calls, [&](const testing::FaultCall& call) {
      return std::find(call.modes.begin(), call.modes.end(), fault.mode) == call.modes.end();
    });
    if (!calls.empty()) {
      const testing::FaultCall& call = calls[below(calls.size())];
      fault.number = call.number;
      if (fault.mode == FaultMode::names && !call.pending.empty() && !one_in(3)) {
        fault.loss = {one_in(2) ? testing::NameLoss::Kind::only : testing::NameLoss::Kind::but,
                      call.pending[below(call.pending.size())]};
      }
    }
    return fault;
  }

  // Runs it and tells whether anything has been spoilt.
  bool run_spoilt(const ProgramRun& run, const std::string& command, ProgramResult& result, bool& fails) {
    const Fault fault = choose_fault(command);
    const FaultRun done = run_with_fault(run, place_.data(), fault.number, fault.mode, fault.loss);
    place_.end_programs();
    result = done.result;
    fails = !testing::ends_process(fault.mode);
    std::string at;
    for (const testing::FaultCall& call : done.calls) {
      if (!call.applied.empty()) {
        at = call.name + " " + call.path.lexically_relative(place_.data()).native();
      }
    }
    if (done.end && !done.end->applied.empty()) {
      at = "its end";
    }
    if (at.empty()) {
      calls_[command] = done.calls;
      if (done.end) {
        calls_[command].push_back(*done.end);
      }
      tell_more(", spared");
      return false;
    }
    count(std::string("times ") + testing::fault_mode_name(fault.mode) + " in " + command);
    tell_more(std::string(", ") + testing::fault_mode_name(fault.mode) + " at call " + std::to_string(fault.number) +
              ", " + at + " (exit code " + std::to_string(result.exit_code) + ")");
    return true;
  }

  void spoil_update() {
    const bool background = one_in(4);
    tell(background ? "check for updates" : "update");
    HistoryState whole = state_;
    const UpdateAnswer answer =
        testing::update(whole, place_.world, background, place_.room(), is_published_unpacked());
    const std::vector<std::string> command = background ? std::vector<std::string>{"updates", "check", "--background"}
                                                        : std::vector<std::string>{"self", "update"};
    ProgramResult result;
    bool fails = false;
    if (!run_spoilt(place_.active_launcher(state_.store.active, command),
                    "an update" + std::string(answer.launcher == "staged" ? " that stages" : ""), result, fails)) {
      expect_update(result, answer);
      expect(whole, "after an update");
      return;
    }
    const HistoryState found = place_.state();
    EXPECT_TRUE(update_may_leave(state_, whole, found, place_.world))
        << "before: " << state_ << "\nwhole:  " << whole << "\nfound:  " << found << "\n"
        << result.errors;
    state_ = found;
  }

  void spoil_cleanup() {
    tell("clean up");
    ProgramResult result;
    bool fails = false;
    if (!run_spoilt(place_.active_launcher(state_.store.active, {"self", "cleanup"}), "a clean-up", result, fails)) {
      expect_cleanup(result);
      return;
    }
    const HistoryState found = place_.state();
    EXPECT_TRUE(cleanup_may_leave(state_, found)) << "before: " << state_ << "\nfound:  " << found << "\n"
                                                  << result.errors;
    state_ = found;
  }

  void spoil_start() {
    tell("start");
    HistoryState whole = state_;
    const bool was_interrupted = interrupted_;
    const StartedVersion started = begin_start(whole);
    ProgramResult result;
    bool fails = false;
    const std::string command = std::string("a start") + (started.was_on_trial ? " of a candidate" : "") +
                                (state_.bootstrap.pending != no_release ? " with an update" : "");
    if (!run_spoilt(place_.start_of({"self", "status"}), command, result, fails)) {
      expect_start(result, whole, started);
      finish_start();
      expect(whole, "after a start");
      return;
    }
    before_interrupted_start_.reset();
    const HistoryState found = place_.state();
    EXPECT_TRUE(start_may_leave(state_.store, found.store, place_.world, fails) &&
                start_may_leave(state_.bootstrap, found.bootstrap, place_.world, fails, was_interrupted) &&
                found.trust == state_.trust)
        << "before: " << state_ << "\nfound:  " << found << "\n"
        << result.errors;
    interrupted_ = state_.bootstrap.pending != no_release;
    state_ = found;
  }

  // --- The judge -------------------------------------------------------------------------------

  // Takes the state over that is expected and there.
  void expect(HistoryState expected, const std::string& when) {
    const HistoryState found = place_.state();
    if (after_start_ && before_interrupted_start_) {
      // One start or two bring a half applied update to an end.
      EXPECT_TRUE(start_may_leave(*before_interrupted_start_, found.bootstrap, place_.world, false, true)) << found;
      interrupted_ = found.bootstrap.pending != no_release && starts_since_interruption_++ == 0;
      EXPECT_TRUE(interrupted_ || found.bootstrap.pending == no_release) << found;
      starts_since_interruption_ = interrupted_ ? starts_since_interruption_ : 0;
      expected.bootstrap = found.bootstrap;
      before_interrupted_start_.reset();
    }
    after_start_ = false;
    EXPECT_EQ(found, expected) << when;
    state_ = found;
  }

  void judge() {
    for (const std::string& violation : place_.violations(!interrupted_)) {
      ADD_FAILURE() << violation;
    }
  }

  std::mt19937_64 random_;
  HistoryPlace place_;
  HistoryState state_;
  // Whether a start was stopped that had an update of the bootstrap to apply, and none has ended well since.
  bool interrupted_ = false;
  int starts_since_interruption_ = 0;
  std::optional<BootstrapState> before_interrupted_start_;
  bool after_start_ = false;
  int full_answers_ = 0;  // since there was room in the store
  std::map<std::string, std::vector<testing::FaultCall>> calls_;
  std::map<std::string, std::uint64_t> counts_;
  std::vector<std::string> steps_;
};

class VersionHistory : public ::testing::TestWithParam<std::uint64_t> {};

TEST_P(VersionHistory, LeadsToWhatTheModelSays) {
  if (!testing::NginxServer::is_installed()) {
    GTEST_SKIP() << "nginx is not installed";
  }
  const std::uint64_t seed = number_from_environment("RAVOK_HISTORY_SEED", 1) + GetParam();
  const std::uint64_t steps = number_from_environment("RAVOK_HISTORY_STEPS", 250);
  History history(seed);
  for (std::uint64_t step = 0; step < steps; ++step) {
    try {
      history.step();
    } catch (const std::exception& problem) {
      ADD_FAILURE() << problem.what();
    }
    if (HasFailure()) {
      FAIL() << "Seed " << seed << ", the last steps:\n" << history.story();
    }
  }
  std::cout << "Seed " << seed << ", " << steps << " steps:\n" << history.counts();
}

INSTANTIATE_TEST_SUITE_P(Seeds, VersionHistory, ::testing::Range<std::uint64_t>(0, 4));

}  // namespace
}  // namespace ravok
