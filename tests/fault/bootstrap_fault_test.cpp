// Whatever call of a start is spoilt, every version stays whole, the player's data is as it was, and the next start
// knows what it has found and starts a version that works.

#include <csignal>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/launcher/launcher_store.hpp"
#include "app/launcher/start_marker.hpp"
#include "domain/data_layout.hpp"
#include "fault/fault_chain.hpp"
#include "fault/fault_runner.hpp"
#include "support/fast_volume.hpp"
#include "support/launcher_place.hpp"

namespace ravok::testing::bootstrap_fault_test {
namespace {

using Arguments = std::vector<std::string>;
using Files = std::map<std::string, std::string>;

// A program that says this and its arguments.
std::string script(const std::string& words) { return "#!/bin/sh\necho \"" + words + ":$*\"\n"; }

LauncherPrograms programs_of(const std::string& version) {
  return {script(version + " console"), script(version + " window"), script(version + " helper")};
}

class BootstrapFault : public ::testing::Test {
 protected:
  BootstrapFault() {
    old_ = place_.add_version("old", programs_of("old"));
    active_ = place_.add_version("active", programs_of("active"));
    place_.root.write("userdata/save", "a long way");
    place_.root.write("settings.json", "{\"volume\": 11}");
    place_.set("rollback", old_);
    place_.set("active", active_);
  }

  // Ends the making of the place.
  void keep() {
    document_ = place_.document_text();
    precious_ = precious();
  }

  void damage(const Json& version) const { write_bytes(place_.store.payload(version) / "data/file", "damaged"); }

  std::string root() const { return place_.root.path(); }
  ProgramRun bootstrap(const Arguments& arguments) const {
    Arguments all = {"--data-dir", root()};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return {RAVOK_BOOTSTRAP, all, {{"HOME", "/nowhere"}, {"PATH", "/usr/bin:/bin"}}, ""};
  }
  // What a version says when it is started.
  std::string says(const std::string& who, const std::string& rest = "") const {
    return who + ":--data-dir " + root() + rest + "\n";
  }

  // The versions, their manifests and the player's data.
  Files precious() const {
    Files found;
    for (const std::string& name : place_.root.names()) {
      for (const char* const kept : {"launcher/versions/", "launcher/manifests/", "userdata/", "settings.json"}) {
        if (name.starts_with(kept)) {
          found[name] = name.ends_with('/') ? "" : place_.root.read(name);
        }
      }
    }
    return found;
  }

  // Takes back all that a start leaves.
  void reset() const {
    for (const std::filesystem::path& folder : {paths_.leases, paths_.health}) {
      std::filesystem::remove_all(folder);
    }
    for (const auto& entry : std::filesystem::directory_iterator(paths_.store)) {
      if (entry.is_regular_file()) {
        std::filesystem::remove(entry.path());
      }
    }
    std::filesystem::remove(DataPaths(root()).bootstrap_lock);
    const LauncherStore made(root());
    write_bytes(paths_.document, document_);
  }

  // Records a start of a version that was so long ago that it counts as one that has not opened.
  void mark(const std::string& sha256, std::uint32_t attempts) const {
    mark_start(root(), sha256, attempts, std::time(nullptr) - 60);
  }

  // Does so with the start that was recorded last, and returns what is known of it. A record that a power cut has torn
  // tells of nothing.
  FailedStarts age_marker() const {
    const Json record = Json::parse(bytes_of(paths_.start_marker), nullptr, false);
    if (!record.is_object()) {
      return {};
    }
    mark(text_at(record, "manifest_sha256"), record.at("attempts").get<std::uint32_t>());
    return failed_launcher_starts(root(), std::time(nullptr));
  }

  // Starts once more, unspoilt, and returns all that was said.
  std::string start_again(const Arguments& arguments) const {
    const ProgramResult result = run_program(bootstrap(arguments));
    EXPECT_EQ(result.exit_code, 0);
    return result.output + result.errors;
  }

  // Judges what a hand-over to maintenance leaves where a candidate's attempt was interrupted, and hands over once
  // more. Returns whether that attempt had been recovered by then.
  std::string handed_over(const ProgramResult& result, const Json& candidate, const std::string& helper) const {
    EXPECT_TRUE(result.output.empty() || result.output == helper) << result.output;
    const Json found = place_.store.load();
    EXPECT_EQ(start_again({"self", "uninstall"}), helper);
    const Json left = place_.store.load();
    for (const Json& document : {found, left}) {
      EXPECT_EQ(document.at("active"), active_);
      EXPECT_EQ(document.at("rollback"), old_);
      EXPECT_EQ(document.at("candidate"), Json());
    }
    EXPECT_EQ(left.at("attempt"), Json());
    EXPECT_EQ(left.at("failed_candidate"), (Json{{"reference", candidate}, {"problem", "startup_interrupted"}}));
    return found.at("attempt").is_null() ? "recovered" : "on trial";
  }

  // The start again and again of one folder. `judge` gets what was spoilt.
  std::map<std::string, int> try_all(const Arguments& arguments,
                                     const std::function<std::string(const FaultOutcome&)>& judge) {
    keep();
    std::map<std::string, int> states;
    FaultPlan plan;
    plan.run = bootstrap(arguments);
    plan.root = root();
    plan.reset = [&] {
      reset();
      started_from_();
    };
    plan.judge = [&](const FaultOutcome& outcome) {
      EXPECT_EQ(outcome.result.signal == SIGKILL, ends_process(outcome.mode));
      if (!ends_process(outcome.mode) && outcome.result.exit_code != 0) {
        EXPECT_EQ(outcome.result.output, "");
        EXPECT_TRUE(outcome.result.errors.ends_with('\n')) << "nothing was told";
      }
      EXPECT_EQ(precious(), precious_);
      ++states[judge(outcome)];
      EXPECT_EQ(precious(), precious_);
    };
    const FaultTable table = run_faults(plan);
    std::cout << table;
    for (const auto& [state, count] : states) {
      std::cout << state << " (" << count << ")\n";
    }
    EXPECT_GT(table.runs, 50u);
    return states;
  }

  // Faults in one start after the other.
  void try_chains(const Arguments& arguments, const std::function<std::string(const ChainLink&)>& judge) {
    keep();
    FaultChainPlan plan;
    plan.root = root();
    plan.folders = {place_.root.path()};
    plan.chains = 12;
    plan.reset = [&] {
      reset();
      started_from_();
    };
    plan.next = [&](ChainRandom&) {
      age_marker_in_place();
      found_ = place_.store.load();
      return bootstrap(arguments);
    };
    plan.judge = [&](const ChainLink& link) {
      if (!link.is_cut() && link.result.exit_code != 0) {
        EXPECT_EQ(link.result.output, "");
        EXPECT_TRUE(link.result.errors.ends_with('\n')) << "nothing was told";
      }
      EXPECT_EQ(precious(), precious_);
      const std::string state = judge(link);
      EXPECT_EQ(precious(), precious_);
      return state;
    };
    std::cout << run_fault_chains(plan);
  }

  // Lets the start that was recorded last be long ago, in the same file.
  void age_marker_in_place() const {
    const std::string text = std::filesystem::exists(paths_.start_marker) ? bytes_of(paths_.start_marker) : "";
    Json record = Json::parse(text, nullptr, false);
    if (record.is_object()) {
      record["started_at"] = std::time(nullptr) - 60;
      write_bytes(paths_.start_marker, record.dump());
    }
  }

  LauncherPlace place_{fast_volume()};
  const LauncherPaths paths_{DataPaths(place_.root.path()).launcher};
  Json old_;
  Json active_;
  std::string document_;
  Files precious_;
  // What is done to the place before every start.
  std::function<void()> started_from_ = [] {};
  // The store's document before the start that is judged in a chain.
  Json found_;
};

constexpr const char* unusable = "ravok: launcher version unusable (";

// How many times the active version had not opened before.
class BootstrapFaultWithWindows : public BootstrapFault, public ::testing::WithParamInterface<std::uint32_t> {};

TEST_P(BootstrapFaultWithWindows, KeepsTheVersionsAndTheirCount) {
  const std::uint32_t failed = GetParam();
  const std::string& sha256 = text_at(active_, "manifest_sha256");
  const auto try_start = [&](const FaultOutcome& outcome) -> std::string {
    const ProgramResult& result = outcome.result;
    const FailedStarts known = age_marker();
    EXPECT_EQ(place_.document_text(), document_);
    const bool is_given_up = known.manifest_sha256 == sha256 && known.attempts == maximum_failed_starts;
    EXPECT_TRUE(!is_given_up || failed > 0);
    EXPECT_EQ(start_again({}), is_given_up ? says("old window") + unusable +
                                                 "launcher_damaged): This Ravok version failed to start twice\n"
                                           : says("active window"));
    EXPECT_EQ(place_.document_text(), document_);
    if (result.output == says("active window")) {
      EXPECT_EQ(known.manifest_sha256, sha256);
      return "active";
    }
    if (result.output == says("old window")) {
      EXPECT_TRUE(result.errors.starts_with(unusable)) << result.errors;
      EXPECT_EQ(known.manifest_sha256, text_at(old_, "manifest_sha256"));
      EXPECT_EQ(known.attempts, 1u);
      return "rollback";
    }
    return ends_process(outcome.mode) ? "killed" : "refused";
  };
  started_from_ = [&] {
    if (failed > 0) {
      mark(sha256, failed);
    }
  };
  EXPECT_EQ(try_all({}, try_start).size(), 4u);
}

INSTANTIATE_TEST_SUITE_P(Failed, BootstrapFaultWithWindows, ::testing::Values(0u, 1u),
                         [](const auto& each) { return each.param == 0 ? "Never" : "Once"; });

TEST_F(BootstrapFault, OfAGoingBackFindsTheWholeVersionAgain) {
  damage(active_);
  const auto damaged = std::string(unusable) + "content_mismatch): ";
  const auto try_start = [&](const FaultOutcome& outcome) -> std::string {
    const ProgramResult& result = outcome.result;
    EXPECT_TRUE(result.output.empty() || result.output == says("old window")) << result.output;
    EXPECT_EQ(place_.document_text(), document_);
    age_marker();
    const std::string next = start_again({});
    EXPECT_TRUE(next.starts_with(says("old window") + damaged)) << next;
    EXPECT_EQ(place_.document_text(), document_);
    return !result.output.empty() ? "rollback" : ends_process(outcome.mode) ? "killed" : "refused";
  };
  EXPECT_EQ(try_all({}, try_start).size(), 3u);
}

TEST_F(BootstrapFault, OfADamagedCandidateKeepsTheActiveVersion) {
  const Json candidate = place_.add_version("candidate", programs_of("candidate"));
  place_.set("candidate", candidate);
  damage(candidate);
  const auto try_start = [&](const FaultOutcome& outcome) -> std::string {
    EXPECT_TRUE(outcome.result.output.empty() || outcome.result.output == says("active console", " self status") ||
                outcome.result.output == says("old console", " self status"))
        << outcome.result.output;
    const Json found = place_.store.load();
    EXPECT_EQ(start_again({"self", "status"}), says("active console", " self status"));
    const Json left = place_.store.load();
    for (const Json& document : {found, left}) {
      EXPECT_EQ(document.at("active"), active_);
      EXPECT_EQ(document.at("rollback"), old_);
    }
    const bool was_on_trial = !found.at("attempt").is_null();
    EXPECT_EQ(left.at("candidate"), Json());
    EXPECT_EQ(left.at("attempt"), Json());
    EXPECT_EQ(left.at("failed_candidate"),
              (Json{{"reference", candidate}, {"problem", was_on_trial ? "startup_interrupted" : "startup_failed"}}));
    return was_on_trial ? "on trial" : found.at("candidate").is_null() ? "rejected" : "waiting";
  };
  EXPECT_EQ(try_all({"self", "status"}, try_start).size(), 3u);
}

TEST_F(BootstrapFault, OfAHandOverToMaintenanceChangesNothing) {
  // An attempt that was interrupted is recovered on the way.
  const Json candidate = place_.add_version("candidate", programs_of("candidate"));
  place_.set("attempt", {{"nonce", std::string(32, 'a')}, {"reference", candidate}});
  const std::string helper = "active helper:uninstall --data-dir " + root() + "\n";
  const auto try_start = [&](const FaultOutcome& outcome) { return handed_over(outcome.result, candidate, helper); };
  EXPECT_EQ(try_all({"self", "uninstall"}, try_start).size(), 2u);
}

TEST_F(BootstrapFault, InChainsKeepsTheVersionsAndTheirCount) {
  const std::string& sha256 = text_at(active_, "manifest_sha256");
  int starts = 0;
  started_from_ = [&] { starts = 0; };
  const auto try_start = [&](const ChainLink& link) -> std::string {
    ++starts;
    const FailedStarts known = age_marker();
    EXPECT_EQ(place_.document_text(), document_);
    const bool is_given_up = known.manifest_sha256 == sha256 && known.attempts == maximum_failed_starts;
    EXPECT_TRUE(!is_given_up || starts >= 2);
    EXPECT_EQ(start_again({}), is_given_up ? says("old window") + unusable +
                                                 "launcher_damaged): This Ravok version failed to start twice\n"
                                           : says("active window"));
    EXPECT_EQ(place_.document_text(), document_);
    if (!link.is_cut() && link.result.output == says("active window")) {
      EXPECT_EQ(known.manifest_sha256, sha256);
    }
    if (!link.is_cut() && link.result.output == says("old window")) {
      EXPECT_TRUE(link.result.errors.starts_with(unusable)) << link.result.errors;
      EXPECT_EQ(known.manifest_sha256, text_at(old_, "manifest_sha256"));
      EXPECT_LE(known.attempts, static_cast<std::uint32_t>(starts));
    }
    return is_given_up ? "given up" : "active";
  };
  try_chains({}, try_start);
}

TEST_F(BootstrapFault, InChainsOfADamagedCandidateKeepsTheActiveVersion) {
  const Json candidate = place_.add_version("candidate", programs_of("candidate"));
  place_.set("candidate", candidate);
  damage(candidate);
  Json promised;
  started_from_ = [&] { promised = nullptr; };
  const auto try_start = [&](const ChainLink& link) -> std::string {
    const Json found = place_.store.load();
    EXPECT_EQ(start_again({"self", "status"}), says("active console", " self status"));
    const Json left = place_.store.load();
    for (const Json& document : {found, left}) {
      EXPECT_EQ(document.at("active"), active_);
      EXPECT_EQ(document.at("rollback"), old_);
    }
    const bool was_on_trial = !found.at("attempt").is_null();
    const bool was_rejected = !found.at("failed_candidate").is_null();
    EXPECT_EQ(left.at("candidate"), Json());
    EXPECT_EQ(left.at("attempt"), Json());
    EXPECT_EQ(left.at("failed_candidate"),
              was_rejected ? found.at("failed_candidate")
                           : Json({{"reference", candidate},
                                   {"problem", was_on_trial ? "startup_interrupted" : "startup_failed"}}));
    // What a start has done itself and reported is not taken back. One that has no room leaves it to a later one.
    const bool is_put_off = link.call && link.mode == FaultMode::enospc && !was_rejected;
    if (link.has_succeeded() && !is_put_off && found_.at("failed_candidate").is_null()) {
      promised = found.at("failed_candidate");
      EXPECT_TRUE(was_rejected);
    }
    EXPECT_TRUE(promised.is_null() || found.at("failed_candidate") == promised) << found;
    return was_on_trial ? "on trial" : was_rejected ? "rejected" : "waiting";
  };
  try_chains({"self", "status"}, try_start);
}

TEST_F(BootstrapFault, InChainsOfAHandOverToMaintenanceChangesNothing) {
  const Json candidate = place_.add_version("candidate", programs_of("candidate"));
  place_.set("attempt", {{"nonce", std::string(32, 'a')}, {"reference", candidate}});
  const std::string helper = "active helper:uninstall --data-dir " + root() + "\n";
  bool is_recovered = false;
  started_from_ = [&] { is_recovered = false; };
  const auto try_start = [&](const ChainLink& link) -> std::string {
    std::string state = handed_over(link.result, candidate, helper);
    is_recovered = is_recovered || (link.has_succeeded() && !found_.at("attempt").is_null());
    EXPECT_TRUE(!is_recovered || state == "recovered");
    return state;
  };
  try_chains({"self", "uninstall"}, try_start);
}

}  // namespace
}  // namespace ravok::testing::bootstrap_fault_test
