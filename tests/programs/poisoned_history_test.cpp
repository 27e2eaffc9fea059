// Updates by the real programs through a network that poisons what it carries: each ends right or in a failure that is
// told, leaves a state that the model of histories knows, and succeeds later through a clean network.
//
//   RAVOK_NETWORK_PROGRAM_UPDATES  how many updates there are
//   RAVOK_NETWORK_SEED             the seed

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "programs/history_model.hpp"
#include "programs/history_place.hpp"
#include "support/nginx_server.hpp"
#include "support/process.hpp"

namespace ravok::poisoned_history_test {
namespace {

using testing::HistoryPlace;
using testing::HistoryState;
using testing::ProgramResult;
using testing::ReleaseKind;

std::uint64_t number_from_environment(const char* variable, std::uint64_t otherwise) {
  const char* const text = std::getenv(variable);
  return text == nullptr ? otherwise : std::stoull(text);
}

class PoisonedClient {
 public:
  explicit PoisonedClient(std::uint64_t seed) : random_(seed), place_(seed) {}

  // A release and how it reaches the client.
  void update() {
    release();
    const unsigned rate = std::array<unsigned, 5>{5, 20, 40, 70, 100}.at(below(5));
    const bool only_targets = one_in(2);
    bool is_right = false;
    const std::size_t tries = 1 + below(3);
    for (std::size_t attempt = 0; attempt < tries && !is_right && !::testing::Test::HasFailure(); ++attempt) {
      place_.network().poison({.percent = rate, .only_targets = only_targets, .may_stall = false});
      is_right = try_update().empty();
      ++counts_[is_right ? "right through poison" : "tries through poison that failed"];
    }
    place_.network().poison({});
    // Each of the targets may have begun with poisoned bytes, which are found out when it is whole.
    for (int attempt = 0; attempt <= 4 && !is_right && !::testing::Test::HasFailure(); ++attempt) {
      const std::string code = try_update();
      is_right = code.empty();
      ++counts_[is_right ? "right through a clean network" : "clean tries that found out about poisoned bytes"];
      EXPECT_TRUE(is_right || code == "hash_mismatch") << code;
    }
    EXPECT_TRUE(is_right);
    start();
  }

  const std::map<std::string, std::uint64_t>& counts() const { return counts_; }
  std::map<testing::Poison, std::uint64_t> injected() { return place_.network().counts(); }

 private:
  std::size_t below(std::size_t bound) { return static_cast<std::size_t>(random_() % bound); }
  bool one_in(std::size_t count) { return below(count) == 0; }

  void release() {
    const int launcher = place_.release_launcher(ReleaseKind::good);
    bootstrap_ = one_in(2) ? place_.release_bootstrap(ReleaseKind::good) : bootstrap_;
    if (one_in(3)) {
      place_.rotate(std::array<const char*, 4>{"root", "timestamp", "snapshot", "targets"}.at(below(4)));
    }
    place_.publish(launcher, bootstrap_);
  }

  // Returns the code of the failure, if it is one.
  std::string try_update() {
    place_.network().take_connections();
    const HistoryState before = place_.state();
    HistoryState whole = before;
    const testing::UpdateAnswer answer = testing::update(whole, place_.world, false, place_.room(),
                                                         place_.is_unpacked(place_.world.served_state().launcher));
    EXPECT_EQ(answer.exit_code, 0);
    const ProgramResult result = run_program(place_.active_launcher(before.store.active, {"self", "update"}));
    std::ostringstream happened;
    happened << "exit code " << result.exit_code << ", signal " << result.signal << ": " << result.output
             << result.errors;
    for (const testing::PoisonedConnection& connection : place_.network().take_connections()) {
      happened << "  " << poison_name(connection.poison) << " " << connection.path << "\n";
    }
    SCOPED_TRACE(happened.str());
    const HistoryState found = place_.state();
    judge_state(before, whole, found);
    return judge_result(result, found == whole);
  }

  void judge_state(const HistoryState& before, const HistoryState& whole, HistoryState found) {
    // With other online keys a client forgets which timestamp it has seen, and may then take an earlier one whose
    // snapshot it refuses.
    if (found.trust.root > before.trust.root && before.trust.state && found.trust.state &&
        *found.trust.state < *before.trust.state) {
      found.trust.state.reset();
    }
    EXPECT_TRUE(update_may_leave(before, whole, found, place_.world))
        << "before: " << before << "\nwhole:  " << whole << "\nfound:  " << found;
    for (const std::string& violation : place_.violations(true)) {
      ADD_FAILURE() << violation;
    }
  }

  static std::string judge_result(const ProgramResult& result, bool is_whole) {
    EXPECT_EQ(result.signal, 0);
    EXPECT_FALSE(result.output.empty());
    if (result.output.empty()) {
      return "nothing";
    }
    const Json document = Json::parse(result.output);
    if (result.exit_code == 0) {
      EXPECT_FALSE(document.contains("problem"));
      EXPECT_EQ(result.errors, "");
      // An older answer can keep what is newest from it.
      return is_whole ? "" : "held back";
    }
    EXPECT_EQ(result.exit_code, 1);
    // Each part that failed is told in a line.
    std::ptrdiff_t failed = 0;
    for (const char* const part : {"launcher", "bootstrap"}) {
      failed += document.at(part).is_object() && document.at(part).contains("problem") ? 1 : 0;
    }
    EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), failed) << result.errors;
    EXPECT_GT(failed, 0);
    const auto code = document.at("problem").at("code").get<std::string>();
    static const std::set<std::string> of_the_client = {"busy",
                                                        "file_read",
                                                        "file_sync",
                                                        "file_write",
                                                        "insufficient_space",
                                                        "launcher_failed",
                                                        "lock_failed",
                                                        "permissions",
                                                        "tree_read",
                                                        "unsafe_path",
                                                        "launcher_storage_full",
                                                        "launcher_pending",
                                                        "launcher_download_uncertain",
                                                        "download_resume_state",
                                                        "download_resume_changed",
                                                        "download_resume_capacity",
                                                        "content_mismatch",
                                                        "invalid_trusted_metadata"};
    EXPECT_FALSE(of_the_client.contains(code)) << "No network can be the reason of " << code;
    return code;
  }

  void start() {
    HistoryState expected = place_.state();
    testing::start(expected, place_.world);
    const ProgramResult result = run_program(place_.start_of({"self", "status"}));
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    EXPECT_EQ(place_.state(), expected) << result.output << result.errors;
    if (place_.is_nearly_full() || place_.room() != testing::StoreRoom::enough || one_in(4)) {
      const ProgramResult cleaned = run_program(place_.active_launcher(expected.store.active, {"self", "cleanup"}));
      EXPECT_EQ(cleaned.exit_code, 0) << cleaned.errors;
    }
  }

  std::mt19937_64 random_;
  HistoryPlace place_;
  int bootstrap_ = 0;
  std::map<std::string, std::uint64_t> counts_;
};

TEST(PoisonedPrograms, UpdateRightOrFailInWordsAndSucceedLater) {
  if (!testing::NginxServer::is_installed()) {
    GTEST_SKIP() << "nginx is not installed";
  }
  const std::uint64_t seed = number_from_environment("RAVOK_NETWORK_SEED", 1);
  const std::uint64_t updates = number_from_environment("RAVOK_NETWORK_PROGRAM_UPDATES", 4);
  try {
    PoisonedClient client(seed);
    for (std::uint64_t update = 0; update < updates; ++update) {
      client.update();
      if (HasFailure()) {
        FAIL() << "Update " << update + 1 << " of seed " << seed << "; run this again: scripts/check-network --seed "
               << seed;
      }
    }
    std::cout << "Seed " << seed << ", " << updates << " updates by the programs\n";
    for (const auto& [name, count] : client.counts()) {
      std::cout << "  " << count << " " << name << "\n";
    }
    for (const auto& [poison, count] : client.injected()) {
      std::cout << "    " << count << " " << poison_name(poison) << "\n";
    }
  } catch (const std::exception& problem) {
    FAIL() << problem.what();
  }
}

}  // namespace
}  // namespace ravok::poisoned_history_test
