// The search for a target among stored documents: one of a million targets in 16,384 hashed bins, by a client that has
// just started; and a target that only the last of a thousand delegated roles knows. Beside both stands what cannot be
// saved, by the libraries alone: reading, parsing and digesting each document once, and verifying its signature.

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "domain/crypto.hpp"
#include "domain/signature.hpp"
#include "scratch.hpp"
#include "support/tuf_repository.hpp"
#include "tuf/tuf.hpp"
#include "tuf/tuf_time.hpp"

namespace {

using ravok::Json;
using ravok::TufClient;
using ravok::testing::RepositoryTransport;
using ravok::testing::TestKey;
using ravok::testing::TufRepository;

constexpr std::size_t bins = 16'384;
constexpr int targets_of_a_bin = 61;
constexpr int roles = 1000;
constexpr const char* wanted = "games/a-long-name/linux-x86_64/content.tar.zst";

void check(bool passed) {
  if (!passed) {
    std::abort();
  }
}

std::string read_file(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  check(file.good());
  return {std::istreambuf_iterator<char>(file), {}};
}

// A repository, and the trusted directory of a client that has searched it before.
class Place {
 public:
  // Each of the roles in turn is asked for the target.
  explicit Place(TufRepository repository, std::vector<std::string> delegated)
      : repository_(std::move(repository)), delegated_(std::move(delegated)) {
    repository_.publish();
    TufClient::initialize(scratch_.path(), repository_.root_text());
    check(client().target(wanted).contains("hashes"));
    check(transport_.requests().size() == delegated_.size() + 4);
  }

  TufClient client() {
    return {scratch_.path(), transport_, transport_, {524'288, 16'384, 16'777'216, 16, roles + 1}, [] {
              return ravok::parse_tuf_time("2030-01-01T00:00:00Z");
            }};
  }

  void verify_delegated() {
    for (const std::string& role : delegated_) {
      verify(role, "delegated-" + ravok::digest(role, "sha256"));
    }
  }

  void verify_top_level() {
    for (const char* role : {"root", "timestamp", "snapshot", "targets"}) {
      verify(role, role);
    }
  }

 private:
  void verify(const std::string& role, const std::string& file) {
    const std::string text = read_file(scratch_.path() / (file + ".json"));
    benchmark::DoNotOptimize(ravok::digest(text, "sha256"));
    const Json document = Json::parse(text);
    check(ravok::verify_signature(repository_.role(role).keys.front().key(), document.at("signed").dump(),
                                  document.at("signatures").at(0).at("sig").get<std::string>()));
  }

  const ravok::benchmarks::Scratch scratch_;
  TufRepository repository_;
  RepositoryTransport transport_{repository_};
  const std::vector<std::string> delegated_;
};

Json description(const std::string& path) {
  return {{"length", path.size()}, {"hashes", {{"sha256", ravok::digest(path, "sha256")}}}};
}

Place& place_of_bins() {
  static Place place = [] {
    TufRepository repository;
    repository.delegate_bins("targets", "bin-", bins);
    // Nothing but the size of the one bin that is read depends on how many targets there are.
    const std::string bin = TufRepository::bin("bin-", bins, wanted);
    for (int i = 1; i < targets_of_a_bin; ++i) {
      const std::string path = "games/name-" + std::to_string(i) + "/linux-x86_64/content.tar.zst";
      repository.role(bin).describe(path, description(path));
    }
    repository.role(bin).describe(wanted, description(wanted));
    return Place(std::move(repository), {bin});
  }();
  return place;
}

Place& place_of_roles() {
  static Place place = [] {
    TufRepository repository;
    std::vector<std::string> names;
    const TestKey key = TestKey::ed25519();
    for (int i = 0; i < roles; ++i) {
      names.push_back("role-" + std::to_string(i));
      repository.delegate("targets", {.name = names.back(), .paths = {"games/*/*/*"}}).keys = {key};
    }
    repository.role(names.back()).describe(wanted, description(wanted));
    return Place(std::move(repository), names);
  }();
  return place;
}

void target_search(benchmark::State& state) {
  Place& place = place_of_bins();
  for (auto _ : state) {
    TufClient client = place.client();
    benchmark::DoNotOptimize(client.target(wanted));
  }
}
BENCHMARK(target_search)->Unit(benchmark::kMillisecond)->UseRealTime();

void target_search_yardstick(benchmark::State& state) {
  Place& place = place_of_bins();
  for (auto _ : state) {
    place.verify_top_level();
    place.verify_delegated();
  }
}
BENCHMARK(target_search_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();

void target_visits(benchmark::State& state) {
  Place& place = place_of_roles();
  TufClient client = place.client();
  client.refresh();
  for (auto _ : state) {
    benchmark::DoNotOptimize(client.target(wanted));
  }
}
BENCHMARK(target_visits)->Unit(benchmark::kMillisecond)->UseRealTime();

void target_visits_yardstick(benchmark::State& state) {
  Place& place = place_of_roles();
  for (auto _ : state) {
    place.verify_delegated();
  }
}
BENCHMARK(target_visits_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
