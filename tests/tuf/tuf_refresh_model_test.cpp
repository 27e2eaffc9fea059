// Long random lives of a client: the repository publishes and changes keys, old files are served again, the network is
// lost at any request and the client is started anew. What is trusted never goes back, and an honest repository that
// can be reached is always caught up with.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "domain/error.hpp"
#include "support/tuf_place.hpp"
#include "tuf/keys.hpp"
#include "tuf/tuf.hpp"

namespace ravok::tuf_refresh_model_test {
namespace {

using testing::StoredFiles;
using testing::TufPlace;
using testing::TufRepository;

constexpr int steps = 40;

class RefreshLives : public ::testing::TestWithParam<unsigned>, protected TufPlace {
 protected:
  RefreshLives() : random_(GetParam()) {
    limits.root_rotations = 2;
    begin();
    remember();
  }

  std::size_t choose(std::size_t count) { return std::uniform_int_distribution<std::size_t>(0, count - 1)(random_); }

  void remember() {
    versions_.push_back(repository);
    for (const auto& [name, text] : repository.metadata()) {
      published_.insert(text);
    }
  }

  void change_repository() {
    constexpr const char* roles[] = {"root", "timestamp", "snapshot", "targets"};
    switch (choose(4)) {
      case 0:
        repository.rotate(roles[choose(4)]);
        break;
      case 1:
        repository.targets().add("game" + std::to_string(choose(5)), std::to_string(choose(1000)));
        break;
      case 2:
        repository.delegate("targets", {.name = "role" + std::to_string(versions_.size()), .paths = {"*"}});
        break;
      default:
        break;
    }
    repository.publish();
    remember();
  }

  static std::uint64_t version_in(const StoredFiles& files, const char* name) {
    const auto found = files.find(name);
    return found == files.end() ? 0 : Json::parse(found->second).at("signed").at("version").get<std::uint64_t>();
  }

  // One refresh, by the client that there is or by a new one. Returns whether it succeeded.
  bool try_refresh() {
    if (!client_ || choose(3) == 0) {
      client_.reset();
      client_ = client();
    }
    try {
      client_->refresh();
      return true;
    } catch (const Error& error) {
      EXPECT_TRUE(error.code == "network" || error.code == "rollback" || error.code == "signature_threshold" ||
                  error.code == "http_status" || error.code == "invalid_version")
          << error.code << ": " << error.what();
      return false;
    }
  }

  void expect_nothing_lost(const StoredFiles& before, const StoredFiles& after) const {
    for (const auto& [name, text] : after) {
      EXPECT_TRUE(published_.contains(text)) << name;
    }
    EXPECT_GE(version_in(after, "root.json"), version_in(before, "root.json"));
    EXPECT_FALSE(after.contains("root-invalidation.json"));
    if (keys_stayed(before, after)) {
      EXPECT_GE(version_in(after, "timestamp.json"), version_in(before, "timestamp.json"));
      EXPECT_GE(version_in(after, "snapshot.json"), version_in(before, "snapshot.json"));
      EXPECT_GE(version_in(after, "targets.json"), version_in(before, "targets.json"));
    }
  }

  // Whether no root that was walked had other online keys than the one before.
  bool keys_stayed(const StoredFiles& before, const StoredFiles& after) const {
    const std::uint64_t last = version_in(after, "root.json");
    for (std::uint64_t version = version_in(before, "root.json"); version < last; ++version) {
      if (online_keys(Json::parse(repository.root_text(version))) !=
          online_keys(Json::parse(repository.root_text(version + 1)))) {
        return false;
      }
    }
    return true;
  }

  void expect_caught_up() const {
    const StoredFiles files = stored();
    for (const char* role : {"root", "timestamp", "snapshot", "targets"}) {
      EXPECT_EQ(files.at(std::string(role) + ".json"), repository.text_of(role)) << role;
    }
  }

  std::mt19937 random_;
  std::vector<TufRepository> versions_;
  std::set<std::string> published_;
  std::unique_ptr<TufClient> client_;
};

TEST_P(RefreshLives, NeverGoBackAndAlwaysCatchUp) {
  int caught_up = 0;
  for (int step = 0; step < steps; ++step) {
    change_repository();
    const StoredFiles before = stored();
    transport.forget();
    const std::size_t trouble = choose(3);
    const std::size_t request = 1 + choose(6);
    const TufRepository honest = repository;
    if (trouble == 0) {
      transport.at(request, testing::fails_with_error("network", "Could not connect to server"));
    } else if (trouble == 1) {
      repository = versions_[choose(versions_.size())];
    }
    try_refresh();
    repository = honest;
    transport.at(request, {});
    expect_nothing_lost(before, stored());
    // A refresh walks two roots at most, so several may be needed.
    if (choose(2) == 0) {
      bool done = false;
      for (int more = 0; more < steps && !done; ++more) {
        const StoredFiles between = stored();
        done = try_refresh() && version_in(stored(), "root.json") == repository.root().version;
        expect_nothing_lost(between, stored());
      }
      EXPECT_TRUE(done);
      expect_caught_up();
      ++caught_up;
    }
  }
  EXPECT_GT(caught_up, 0);
}

INSTANTIATE_TEST_SUITE_P(Random, RefreshLives, ::testing::Range(1U, 13U));

}  // namespace
}  // namespace ravok::tuf_refresh_model_test
