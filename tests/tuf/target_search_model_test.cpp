// Searches in many small repositories, beside a second search that knows no network, no files and no signatures, and
// calls itself for each delegation.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "support/pattern_model.hpp"
#include "support/tuf_place.hpp"
#include "support/tuf_repository.hpp"
#include "tuf/tuf.hpp"

namespace ravok::target_search_model_test {
namespace {

using testing::RepositoryTransport;
using testing::TestDelegation;
using testing::TestKey;
using testing::TestRole;
using testing::TufPlace;
using testing::TufRepository;

using Names = std::vector<std::string>;

const Names role_names = {"a", "b", "c", "d", "e", "f"};
const Names paths = {"x", "y", "xy", "yx", "x/y"};

// What a search ends with, and which roles it asks a repository for.
struct Outcome {
  std::string end;
  Names asked;
};

bool model_covers(const TestDelegation& delegation, const std::string& path) {
  const std::string text = digest(path, "sha256");
  return std::any_of(delegation.paths.begin(), delegation.paths.end(),
                     [&](const std::string& pattern) { return testing::model_pattern_matches(pattern, path); }) ||
         std::any_of(delegation.path_hash_prefixes.begin(), delegation.path_hash_prefixes.end(),
                     [&](const std::string& prefix) { return text.substr(0, prefix.size()) == prefix; });
}

struct ModelSearch {
  TufRepository& repository;
  std::uint64_t limit;
  const std::set<std::string>& missing;      // roles that the snapshot does not have
  const std::set<std::string>& unavailable;  // roles whose documents cannot be had
  std::set<std::string>& stored;
  std::set<std::string> visited = {};
  bool terminated = false;
  Names asked = {};

  void load(const std::string& role) {
    if (!stored.contains(role)) {
      asked.push_back("1." + role + ".json");
      require(!unavailable.contains(role), "http_status", "");
      stored.insert(role);
    }
  }

  std::optional<Json> visit(const std::string& path, const std::string& role) {
    if (visited.contains(role)) {
      return std::nullopt;
    }
    require(visited.size() < limit, "delegation_limit", "");
    visited.insert(role);
    const TestRole& document = repository.role(role);
    if (document.targets.contains(path)) {
      return document.targets.at(path);
    }
    for (const TestDelegation& delegation : document.delegations) {
      if (!model_covers(delegation, path)) {
        continue;
      }
      require(visited.contains(delegation.name) || visited.size() < limit, "delegation_limit", "");
      require(!missing.contains(delegation.name), "missing_role", "");
      load(delegation.name);
      if (const std::optional<Json> found = visit(path, delegation.name)) {
        return found;
      }
      if (terminated) {
        return std::nullopt;
      }
      if (delegation.terminating) {
        terminated = true;
        return std::nullopt;
      }
    }
    return std::nullopt;
  }

  Outcome run(const std::string& path) {
    try {
      const std::optional<Json> found = visit(path, "targets");
      return {found ? found->dump() : "target_not_found", asked};
    } catch (const Error& error) {
      return {error.code, asked};
    }
  }
};

Outcome search(TufClient& client, RepositoryTransport& transport, const std::string& path) {
  transport.forget();
  try {
    const std::string found = client.target(path).dump();
    return {found, transport.names()};
  } catch (const Error& error) {
    return {error.code, transport.names()};
  }
}

class SearchModel : public ::testing::Test {
 protected:
  bool one_in(unsigned count) { return random_() % count == 0; }
  const std::string& one_of(const Names& names) { return names[random_() % names.size()]; }

  // Delegates from one role to some of the others, itself perhaps among them.
  void delegate_from(TufRepository& repository, const std::string& delegator) {
    Names names = role_names;
    std::shuffle(names.begin(), names.end(), random_);
    names.resize(random_() % 4);
    for (const std::string& name : names) {
      TestDelegation delegation{.name = name, .terminating = one_in(5)};
      if (one_in(3)) {
        const std::size_t first = random_() % 16;
        for (std::size_t i = first; i < first + 8; ++i) {
          delegation.path_hash_prefixes.emplace_back(1, "0123456789abcdef"[i % 16]);
        }
      } else {
        delegation.paths = {one_of({"*", "x*", "?", "[!y]*", "x/y"}), one_of({"y", "*/*", "*y", "[x-z]"})};
      }
      repository.delegate(delegator, delegation).keys = keys_;
    }
  }

  // Makes a repository of roles that delegate to each other without an order.
  void shape(TufRepository& repository) {
    delegate_from(repository, "targets");
    delegate_from(repository, "targets");
    std::set<std::string> names;
    auto& first = repository.targets().delegations;
    std::erase_if(first, [&](const TestDelegation& each) { return !names.insert(each.name).second; });
    for (const std::string& name : role_names) {
      // Makes a role of it, whether or not another delegates to it.
      repository.delegate("targets", {.name = name}).keys = keys_;
      first.pop_back();
      delegate_from(repository, name);
      for (const std::string& path : paths) {
        if (one_in(6)) {
          repository.role(name).add(path, name + " " + path);
        }
      }
    }
  }

  std::mt19937 random_{20261122};
  const std::vector<TestKey> keys_ = {TestKey::ed25519()};
  std::map<std::string, int> ends_;
};

TEST_F(SearchModel, AgreesWithEverySearchInItsEndAndItsRequests) {
  for (int round = 0; round < 120; ++round) {
    TufPlace place;
    shape(place.repository);
    std::set<std::string> missing;
    std::set<std::string> unavailable;
    if (one_in(4)) {
      missing.insert(one_of(role_names));
    }
    if (one_in(4)) {
      unavailable.insert(one_of(role_names));
    }
    place.repository.snapshot().edit = [&](Json& body) {
      for (const std::string& role : missing) {
        body["meta"].erase(role + ".json");
      }
    };
    place.begin();
    for (const std::string& role : unavailable) {
      place.repository.remove("1." + role + ".json");
    }
    std::set<std::string> stored;
    for (int each = 0; each < 4; ++each) {
      place.limits.delegations = 1 + random_() % 7;
      const auto client = place.client();
      client->refresh();
      for (const std::string& path : paths) {
        ModelSearch model{place.repository, place.limits.delegations, missing, unavailable, stored};
        const Outcome expected = model.run(path);
        const Outcome actual = search(*client, place.transport, path);
        ASSERT_EQ(actual.end, expected.end) << "round " << round << " " << path;
        ASSERT_EQ(actual.asked, expected.asked) << "round " << round << " " << path;
        ++ends_[expected.end.starts_with("{") ? "found" : expected.end];
      }
    }
  }
  // Each way to end is common enough to mean something.
  for (const char* end : {"found", "target_not_found", "delegation_limit", "missing_role", "http_status"}) {
    EXPECT_GT(ends_[end], 50) << end;
  }
}

}  // namespace
}  // namespace ravok::target_search_model_test
