// Starts of an installed bootstrap for which an update waits: alone, side by side, beside a setup, an uninstall and the
// staging of the next one. Whatever happens, every start starts the client.

#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "app/install/native_install.hpp"
#include "app/launcher/bootstrap_update.hpp"
#include "programs/client_place.hpp"
#include "support/bootstrap_place.hpp"
#include "support/tree_state.hpp"
#include "support/tuf_place.hpp"

namespace ravok::testing::bootstrap_self_update_test {
namespace {

// The real bootstrap; a program does not care for what follows it in its file.
BootstrapRelease real_release(const std::string& build) {
  return bootstrap_release(build, bytes_of(RAVOK_BOOTSTRAP) + build, {{"data/note", build + " note"}});
}

class BootstrapSelfUpdate : public ::testing::Test {
 protected:
  BootstrapSelfUpdate() {
    bootstrap.install(old_release());
    place.name("active", place.add("active", programs_saying("active")));
  }

  static const BootstrapRelease& old_release() {
    static const BootstrapRelease release = real_release("build-1");
    return release;
  }
  static const BootstrapRelease& new_release() {
    static const BootstrapRelease release = real_release("build-2");
    return release;
  }

  // How the installed bootstrap is started.
  ProgramStart start_of(const ClientPlace::Arguments& arguments, ClientPlace::Environment environment = {}) const {
    ProgramStart start = place.start_of(arguments, std::move(environment));
    start.program = bootstrap.program();
    start.arguments = arguments;
    return start;
  }
  ProgramResult run(const ClientPlace::Arguments& arguments, ClientPlace::Environment environment = {}) const {
    const ProgramStart how = start_of(arguments, std::move(environment));
    return run_program({how.program, how.arguments, how.environment, ""});
  }
  void expect_started(const ProgramResult& result, const std::string& errors = "") const {
    EXPECT_EQ(result.output, place.says("active console", "self status"));
    EXPECT_EQ(result.errors, errors);
    EXPECT_EQ(result.exit_code, 0);
  }

  const ClientPlace place;
  const BootstrapPlace bootstrap{place.data};
};

TEST_F(BootstrapSelfUpdate, IsAppliedByAStartThatStartsTheClientAsWell) {
  bootstrap.prepare(new_release());
  expect_started(run({"self", "status"}));
  EXPECT_TRUE(bootstrap.holds(new_release()));
  EXPECT_FALSE(std::filesystem::exists(bootstrap.paths.update_manifest));
  expect_started(run({"self", "status"}));
  EXPECT_TRUE(bootstrap.holds(new_release()));
}

TEST_F(BootstrapSelfUpdate, IsAppliedByTheWindowedStartToo) {
  bootstrap.prepare(new_release());
  const ProgramResult result = run({});
  EXPECT_EQ(result.output, place.says("active window"));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_TRUE(bootstrap.holds(new_release()));
}

TEST_F(BootstrapSelfUpdate, ThatDoesNotStartIsToldOfInALineAndForgotten) {
  const BootstrapRelease bad = bootstrap_release("build-2", ending_program(1));
  bootstrap.prepare(bad);
  expect_started(run({"self", "status"}),
                 "ravok: bootstrap update rejected (bootstrap_start): The new bootstrap does not start; it ended with "
                 "exit code 1\n");
  EXPECT_TRUE(bootstrap.holds(old_release()));
  expect_started(run({"self", "status"}));
  bootstrap.prepare(new_release());
  expect_started(run({"self", "status"}));
  EXPECT_TRUE(bootstrap.holds(new_release()));
}

TEST_F(BootstrapSelfUpdate, IsLeftAloneByAStartCheckAndByHelp) {
  bootstrap.prepare(new_release());
  const TreeState before = tree_state(place.data);
  const ProgramResult check = run({"self", "status"}, {{"RAVOK_BOOTSTRAP_START_CHECK", "1"}});
  EXPECT_EQ(check.output + check.errors, "");
  EXPECT_EQ(check.exit_code, 0);
  EXPECT_TRUE(same_tree(tree_state(place.data), before));
  EXPECT_EQ(run({"--help"}).exit_code, 0);
  EXPECT_TRUE(same_tree(tree_state(place.data), before));
  EXPECT_EQ(run({"--data-dir"}).exit_code, 2);
  EXPECT_TRUE(same_tree(tree_state(place.data), before));
}

TEST_F(BootstrapSelfUpdate, IsForTheFolderOfTheImageAndNoOther) {
  const ClientPlace other;
  other.name("active", other.add("other", programs_saying("other")));
  const BootstrapPlace other_bootstrap(other.data);
  other_bootstrap.install(old_release());
  other_bootstrap.prepare(new_release());
  bootstrap.prepare(new_release());
  const ProgramResult result = run({"--data-dir", other.data, "self", "status"});
  EXPECT_EQ(result.output, other.says("other console", "self status"));
  EXPECT_EQ(result.errors, "");
  EXPECT_TRUE(bootstrap.holds(new_release()));
  EXPECT_TRUE(other_bootstrap.holds(old_release()));
}

TEST_F(BootstrapSelfUpdate, WaitsForTheEndOfABootstrapThatRuns) {
  const Json candidate = place.add("candidate", troubled_programs());
  place.name("candidate", candidate);
  const auto first = std::make_unique<StartedProgram>(start_of({"self", "status"}, {{"RAVOK_SAMPLE_TROUBLE", "stay"}}));
  wait_until([&] { return place.is_active(candidate); });
  bootstrap.prepare(new_release());
  const ProgramResult second = run({"self", "status"}, {{"RAVOK_SAMPLE_TROUBLE", "exit"}});
  EXPECT_EQ(second.exit_code, 3) << second.errors;
  EXPECT_TRUE(bootstrap.holds(old_release()));
  EXPECT_TRUE(std::filesystem::exists(bootstrap.paths.update_manifest));
  EXPECT_FALSE(first->has_ended());
  first->send_signal(SIGINT);
  EXPECT_EQ(first->wait(), 4);
  EXPECT_EQ(run({"self", "status"}, {{"RAVOK_SAMPLE_TROUBLE", "exit"}}).exit_code, 3);
  EXPECT_TRUE(bootstrap.holds(new_release()));
}

TEST_F(BootstrapSelfUpdate, IsAppliedOnceByManyStartsAtOnce) {
  for (int round = 0; round < 5; ++round) {
    const BootstrapRelease& release = round % 2 == 0 ? new_release() : old_release();
    bootstrap.prepare(release);
    std::vector<std::unique_ptr<StartedProgram>> starts;
    for (int i = 0; i < 8; ++i) {
      starts.push_back(std::make_unique<StartedProgram>(start_of({"self", "status"})));
    }
    for (const auto& start : starts) {
      EXPECT_EQ(start->output(), place.says("active console", "self status"));
      EXPECT_EQ(start->errors(), "");
      EXPECT_EQ(start->wait(), 0);
    }
    // All of them may have found each other running.
    expect_started(run({"self", "status"}));
    EXPECT_TRUE(bootstrap.holds(release));
  }
}

TEST_F(BootstrapSelfUpdate, IsLeftAloneDuringASetup) {
  bootstrap.prepare(new_release());
  std::unique_ptr<StartedProgram> start;
  {
    const NativeFileLock setup(bootstrap.data.bootstrap_lock, true, NativeLockSharing::others, LockMode::exclusive);
    const OpenedFile lock(bootstrap.data.bootstrap_lock);
    start = std::make_unique<StartedProgram>(start_of({"self", "status"}));
    // The update is tried once, and what comes then is the wait of the start.
    lock.wait(3);
    EXPECT_TRUE(bootstrap.holds(old_release()));
  }
  EXPECT_EQ(start->output(), place.says("active console", "self status"));
  EXPECT_EQ(start->wait(), 0);
  EXPECT_TRUE(bootstrap.holds(old_release()));

  place.root.write("data/.ravok-setup-incomplete", "{}");
  EXPECT_EQ(run({"self", "status"}).exit_code, 1);
  EXPECT_TRUE(bootstrap.holds(old_release()));
  EXPECT_TRUE(std::filesystem::exists(bootstrap.paths.update_manifest));
}

TEST_F(BootstrapSelfUpdate, DoesNotKeepAnUninstallFromItsEnd) {
  for (int round = 0; round < 3; ++round) {
    const ClientPlace other;
    other.name("active", other.add("active", programs_saying("active")));
    const BootstrapPlace other_bootstrap(other.data);
    other_bootstrap.install(old_release());
    other_bootstrap.prepare(new_release());
    std::vector<std::unique_ptr<StartedProgram>> starts;
    for (int i = 0; i < 6; ++i) {
      ProgramStart start = other.start_of({"self", "status"});
      start.program = other_bootstrap.program();
      start.arguments = {"self", "status"};
      starts.push_back(std::make_unique<StartedProgram>(start));
    }
    const NativeUninstallResult result =
        NativeInstaller::uninstall({other.data, true, std::chrono::milliseconds(60'000)}, {});
    EXPECT_EQ(result.deferred.size(), 0u);
    for (const auto& start : starts) {
      const std::string output = start->output();
      const std::string errors = start->errors();
      EXPECT_TRUE(start->wait() == 0 ? output == other.says("active console", "self status") : !errors.empty())
          << output << errors;
    }
    EXPECT_TRUE(result.data_removed);
    EXPECT_FALSE(std::filesystem::exists(other.data));
  }
}

TEST(BootstrapSelfUpdateAndStaging, GoSideBySide) {
  TufPlace tuf;
  const ClientPlace place(tuf.root / "data");
  place.name("active", place.add("active", programs_saying("active")));
  const BootstrapPlace bootstrap(place.data);
  const BootstrapRelease first = real_release("build-1");
  bootstrap.install(first);
  for (int round = 2; round < 6; ++round) {
    const BootstrapRelease release = real_release("build-" + std::to_string(round));
    tuf.repository.targets().add(bootstrap_manifest_target(), release.text());
    tuf.repository.targets().add(release.archive_target(), release.archive);
    if (round == 2) {
      tuf.begin();
    } else {
      tuf.repository.publish();
    }
    std::vector<std::unique_ptr<StartedProgram>> starts;
    const auto start_one = [&] {
      ProgramStart start = place.start_of({"self", "status"});
      start.program = bootstrap.program();
      start.arguments = {"self", "status"};
      starts.push_back(std::make_unique<StartedProgram>(start));
    };
    start_one();
    int pieces = 0;
    const std::string status = stage_bootstrap_update(place.data, *tuf.client(), [&](std::uint64_t, std::uint64_t) {
      // Some starts fall into the middle of it.
      if (++pieces % 100 == 0 && starts.size() < 4) {
        start_one();
      }
      return true;
    });
    EXPECT_EQ(status, "staged");
    start_one();
    for (const auto& start : starts) {
      EXPECT_EQ(start->output(), place.says("active console", "self status"));
      EXPECT_EQ(start->errors(), "");
      EXPECT_EQ(start->wait(), 0);
    }
    const ProgramResult last = run_program(
        {bootstrap.program(), {"self", "status"}, {{"HOME", place.root / "home"}, {"PATH", "/usr/bin:/bin"}}, ""});
    EXPECT_EQ(last.exit_code, 0) << last.errors;
    EXPECT_TRUE(bootstrap.holds(release));
  }
}

}  // namespace
}  // namespace ravok::testing::bootstrap_self_update_test
