// Whatever call is spoilt of a bootstrap that tries a candidate, or of the candidate itself, the store names a version
// that works, the candidate is active only with its proof, and the next start finds one of the known states.

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "app/launcher/launcher_store.hpp"
#include "domain/data_layout.hpp"
#include "fault/fault_chain.hpp"
#include "fault/fault_runner.hpp"
#include "support/fast_volume.hpp"
#include "support/launcher_place.hpp"

namespace ravok::testing::attempt_fault_test {
namespace {

// The codes with which a bootstrap may refuse when a call of it fails. "launcher_state" stands for an attempt that the
// document does not name any more: what made the candidate active failed after it had replaced the document.
const std::set<std::string> known_codes = {
    "busy",        "content_mismatch", "file_read",   "file_sync",          "file_write",
    "lock_failed", "launcher_state",   "permissions", "insufficient_space", "native_install_incomplete",
    "unsafe_path"};

class AttemptFault : public ::testing::Test {
 protected:
  AttemptFault() {
    old_ = place_.add_version("old");
    new_ = place_.add_version("new", {bytes_of(RAVOK_SAMPLE_CANDIDATE), "#!window", "#!helper"});
    place_.set("active", old_);
    place_.set("candidate", new_);
    document_ = place_.document_text();
  }

  // Takes back all that a start leaves; the versions stay.
  void reset() const {
    for (const std::filesystem::path& folder : {paths_.leases, paths_.health}) {
      std::filesystem::remove_all(folder);
    }
    std::filesystem::remove(paths_.owner_lock);
    const LauncherStore made(place_.root.path());
    write_bytes(paths_.document, document_);
  }

  ProgramRun bootstrap() const { return {RAVOK_SAMPLE_ATTEMPT, {place_.root.path()}, {{"HOME", "/nowhere"}}, ""}; }

  // Starts once more, unspoilt, as soon as no former launcher holds its attempt any more.
  ProgramResult start_again() const {
    ProgramResult result = run_program(bootstrap());
    while (result.errors.starts_with("launcher_running: ")) {
      EXPECT_EQ(result.exit_code, 1);
      ++running_;
      result = run_program(bootstrap());
    }
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    return result;
  }

  // The proofs that an active version needs: it has acknowledged its leases and said that it is ready. A candidate
  // whose names are lost while its bootstrap runs on may have been believed on a name that is lost only then; a
  // bootstrap that lost its power with it would have had no time to read it.
  static const std::set<std::string>& proofs_behind(const FaultOutcome& outcome, bool is_bootstrap) {
    static const std::set<std::string> all = {"attempts", "health"};
    static const std::set<std::string> kept = {"attempts"};
    const bool may_lose_health = !is_bootstrap && outcome.mode == FaultMode::names;
    return may_lose_health ? kept : all;
  }

  // Returns in one word what the document says of the candidate.
  std::string state(const std::set<std::string>& proofs) const {
    const Json document = place_.store.load();
    const bool is_active = document.at("active") == new_;
    EXPECT_TRUE(is_active || document.at("active") == old_);
    EXPECT_EQ(document.at("rollback"), is_active ? old_ : Json());
    const bool is_failed = !document.at("failed_candidate").is_null();
    if (is_failed) {
      EXPECT_EQ(document.at("failed_candidate").at("reference"), new_);
    }
    const int places = (is_active ? 1 : 0) + (is_failed ? 1 : 0) + (document.at("candidate") == new_ ? 1 : 0) +
                       (document.at("attempt").is_null() ? 0 : 1);
    EXPECT_EQ(places, 1) << document.dump();
    if (is_active) {
      expect_proofs(proofs);
      return "active";
    }
    if (is_failed) {
      return text_at(document.at("failed_candidate"), "problem");
    }
    return document.at("candidate") == new_ ? "waiting" : "on trial";
  }

  void expect_proofs(const std::set<std::string>& wanted) const {
    std::set<std::string> found;
    for (const std::filesystem::path& folder : {paths_.attempt_leases, paths_.health}) {
      for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().extension() == ".json") {
          found.insert(folder.filename());
        }
      }
    }
    EXPECT_TRUE(std::includes(found.begin(), found.end(), wanted.begin(), wanted.end()))
        << ::testing::PrintToString(found);
  }

  // The next start knows what it has found, and what comes after it is stable.
  std::string judge(const FaultOutcome& outcome, bool is_bootstrap) const {
    const ProgramResult& result = outcome.result;
    const std::set<std::string>& proofs = proofs_behind(outcome, is_bootstrap);
    const std::string found = state(proofs);
    if (is_bootstrap && ends_process(outcome.mode)) {
      EXPECT_EQ(result.signal, SIGKILL);
    } else if (result.exit_code == 0) {
      const bool has_no_room = outcome.mode == FaultMode::enospc && found == "waiting";
      EXPECT_TRUE(found == "active" || ((found == "startup_failed" || has_no_room) && result.output == "none\n"))
          << found;
    } else {
      // A file operation of the standard library ends the sample with code 2.
      EXPECT_TRUE(is_bootstrap && (result.exit_code == 1 || result.exit_code == 2)) << result.errors;
      expect_known_failure(result);
    }
    judge_next_starts(found, proofs);
    return found;
  }

  static void expect_known_failure(const ProgramResult& result) {
    EXPECT_TRUE(result.exit_code == 2 || known_codes.contains(result.errors.substr(0, result.errors.find(':'))))
        << result.errors;
  }

  void judge_next_starts(const std::string& found, const std::set<std::string>& proofs) const {
    const ProgramResult next = start_again();
    const std::string later = state(proofs);
    if (found == "waiting") {
      EXPECT_EQ(later, "active");
      EXPECT_EQ(next.output, "0\n");
    } else {
      EXPECT_EQ(later, found == "on trial" ? "startup_interrupted" : found);
      EXPECT_EQ(next.output, "none\n");
    }
    const std::string document = place_.document_text();
    EXPECT_EQ(start_again().output, "none\n");
    EXPECT_EQ(place_.document_text(), document);
  }

  // Judges a start among others, which has found the candidate in the state `before`.
  std::string judge(const ChainLink& link, const std::string& before) const {
    static const std::set<std::string> proofs = {"attempts", "health"};
    const std::string found = state(proofs);
    if (link.has_succeeded()) {
      const bool has_run = link.said() != "none\n";
      EXPECT_TRUE(found == "active" || !has_run) << found;
      if (!has_run && has_no_room(link) && found == before) {
        // It has left the candidate to a later start.
      } else if (before == "waiting") {
        EXPECT_EQ(found, has_run ? "active" : "startup_failed");
      } else if (before == "on trial") {
        EXPECT_EQ(found, "startup_interrupted");
      } else if (!link.at_end()) {
        // A start that finds nothing to do for the candidate reports nothing of it, and flushes nothing: a power cut
        // may take back what one that was ended has made of it.
        EXPECT_EQ(found, before);
      }
    } else if (!link.is_cut()) {
      EXPECT_TRUE(link.result.exit_code == 1 || link.result.exit_code == 2) << link.result.errors;
      expect_known_failure(link.result);
    }
    judge_next_starts(found, proofs);
    return found;
  }

  static bool has_no_room(const ChainLink& link) { return link.call && link.mode == FaultMode::enospc; }

  std::map<std::string, int> try_all(bool is_bootstrap) const {
    std::map<std::string, int> states;
    FaultPlan plan;
    plan.run = bootstrap();
    plan.root = place_.root.path();
    if (!is_bootstrap) {
      plan.run.environment["RAVOK_FAULT_PROGRAM"] = "program";
      plan.acts_in_child = true;
    }
    plan.reset = [&] { reset(); };
    plan.judge = [&](const FaultOutcome& outcome) { ++states[judge(outcome, is_bootstrap)]; };
    const FaultTable table = run_faults(plan);
    std::cout << table;
    for (const auto& [state, count] : states) {
      std::cout << state << " (" << count << ")\n";
    }
    EXPECT_GT(table.runs, 50u);
    return states;
  }

  LauncherPlace place_{fast_volume()};
  const LauncherPaths paths_{DataPaths(place_.root.path()).launcher};
  Json old_;
  Json new_;
  std::string document_;
  mutable int running_ = 0;  // starts that had to wait for a launcher of an attempt
};

TEST_F(AttemptFault, OfTheBootstrapLeavesAKnownState) {
  const std::map<std::string, int> states = try_all(true);
  for (const char* const state : {"waiting", "on trial", "startup_failed", "active"}) {
    EXPECT_TRUE(states.contains(state)) << state;
  }
}

TEST_F(AttemptFault, OfTheCandidateLeavesAKnownState) {
  const std::map<std::string, int> states = try_all(false);
  for (const char* const state : {"startup_failed", "active"}) {
    EXPECT_TRUE(states.contains(state)) << state;
  }
  EXPECT_EQ(states.size(), 2u);
}

TEST_F(AttemptFault, InChainsLeavesAKnownState) {
  std::string before;
  // What an earlier start has made of the candidate and reported is not taken back.
  std::string promised;
  FaultChainPlan plan;
  plan.root = place_.root.path();
  plan.folders = {place_.root.path()};
  plan.chains = 20;
  plan.reset = [&] {
    promised.clear();
    reset();
  };
  plan.next = [&](ChainRandom&) {
    before = state({"attempts", "health"});
    return bootstrap();
  };
  plan.judge = [&](const ChainLink& link) {
    const std::string found = judge(link, before);
    const bool was_open = before == "waiting" || before == "on trial";
    const bool is_put_off = has_no_room(link) && found == before;
    promised = link.has_succeeded() && was_open && !is_put_off ? found : promised;
    EXPECT_TRUE(promised.empty() || found == promised) << found << " where " << promised << " was reported";
    return found;
  };
  std::cout << run_fault_chains(plan);
}

}  // namespace
}  // namespace ravok::testing::attempt_fault_test
