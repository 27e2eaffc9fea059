// Repositories that another implementation has made and signed, read from a real server.

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "domain/json.hpp"
#include "platform/file/files.hpp"
#include "support/failure.hpp"
#include "support/nginx_server.hpp"
#include "support/process.hpp"
#include "transport/network_place.hpp"
#include "tuf/tuf.hpp"

namespace ravok::other_implementation_test {
namespace {

using testing::NginxServer;

constexpr TufLimits limits{.root_bytes = 100'000,
                           .timestamp_bytes = 10'000,
                           .metadata_bytes = 100'000,
                           .root_rotations = 10,
                           .delegations = 20};

class OtherImplementation : public testing::NetworkPlace, public ::testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    if (!NginxServer::is_installed()) {
      GTEST_SKIP() << "nginx is not installed";
    }
    if (!std::filesystem::is_directory(RAVOK_REPOSITORY_MAKER)) {
      GTEST_SKIP() << "the other implementation is not installed";
    }
    const testing::ProgramResult made =
        testing::run_program({.program = "/usr/bin/env",
                              .arguments = {"node", RAVOK_MAKE_REPOSITORY, repository().parent_path(), GetParam()},
                              .environment = {{"NODE_PATH", RAVOK_REPOSITORY_MAKER}, {"PATH", std::getenv("PATH")}},
                              .output_path = {}});
    ASSERT_EQ(made.exit_code, 0) << made.errors;
    contents_ = parse_json(read_file(repository() / "targets.json", 1'000'000), 1'000'000);
    show("before");
    TufClient::initialize(trusted(), read_file(repository() / "root.json", limits.root_bytes));
  }

  std::filesystem::path repository() const { return root_ / "repositories" / GetParam(); }
  std::filesystem::path trusted() const { return root_ / "trusted"; }

  // From now on the server shows this state.
  void show(const std::string& state) {
    state_ = state;
    std::filesystem::remove(repository() / "shown");
    std::filesystem::create_directory_symlink(state, repository() / "shown");
  }

  // What the server has to say of its files. A role's name is one part of a path, whatever is in it.
  std::string locations() const {
    const std::string root = "root " + (repository() / "shown").native() + "; ";
    return "location /metadata/ { " + root + "try_files $request_uri =404; } location /targets/ { " + root + "}";
  }

  // The content of each target in the state that is shown.
  std::map<std::string, std::string> contents() const {
    return contents_[state_].get<std::map<std::string, std::string>>();
  }

 private:
  Json contents_;
  std::string state_;
};

class Visit {
 public:
  Visit(const HttpsTransport& metadata, const HttpsTransport& targets, const std::filesystem::path& trusted)
      : metadata_(metadata), targets_(targets), client(trusted, metadata_, targets_, limits, [] {
          return std::chrono::floor<std::chrono::microseconds>(std::chrono::system_clock::now());
        }) {}

 private:
  HttpsTransport metadata_;
  HttpsTransport targets_;

 public:
  TufClient client;
};

std::uint64_t version(const Json& document) { return document["signed"]["version"].get<std::uint64_t>(); }

TEST_P(OtherImplementation, IsFollowedThroughChangesOfAllItsKeys) {
  const NginxServer server(authority_.issue(), locations());
  const HttpsTransport metadata = client(server.url() + "metadata");
  const HttpsTransport targets = client(server.url() + "targets");
  for (const std::uint64_t state : {std::uint64_t{1}, std::uint64_t{2}}) {
    show(state == 1 ? "before" : "after");
    for (int again = 0; again < 2; ++again) {
      Visit visit(metadata, targets, trusted());
      visit.client.refresh();
      EXPECT_EQ(version(visit.client.trusted().root()), state == 1 ? 1u : 3u) << server.complaints();
      EXPECT_EQ(version(visit.client.trusted().timestamp()), state);
      EXPECT_EQ(version(visit.client.trusted().snapshot()), state);
      EXPECT_EQ(version(visit.client.trusted().targets()), state);
    }
  }
  show("before");
  EXPECT_FAILURE(Visit(metadata, targets, trusted()).client.refresh(), "signature_threshold",
                 "Metadata does not meet its authorized signature threshold");
}

TEST_P(OtherImplementation, GivesEachOfItsTargetsThroughItsDelegations) {
  const NginxServer server(authority_.issue(), locations());
  const HttpsTransport metadata = client(server.url() + "metadata");
  const HttpsTransport targets = client(server.url() + "targets");
  for (const char* const state : {"before", "after"}) {
    show(state);
    Visit visit(metadata, targets, trusted());
    for (const auto& [path, content] : contents()) {
      EXPECT_EQ(visit.client.target(path)["length"], content.size()) << path << ": " << server.complaints();
      const TufDownloadOptions options{.scope = "test", .admission = {}};
      EXPECT_EQ(read_file(visit.client.download(path, root_ / "files", {}, {}, options), 1'000'000), content) << path;
    }
  }
  Visit visit(metadata, targets, trusted());
  for (const std::string path : {"launcher/gone", "games/three.zip", "games/guest/deep/two.zip", "nothing"}) {
    EXPECT_FAILURE(visit.client.target(path), "target_not_found",
                   "Target is not authorized by the repository: " + path);
  }
}

INSTANTIATE_TEST_SUITE_P(Repositories, OtherImplementation, ::testing::Values("consistent", "plain"),
                         [](const auto& name) { return std::string(name.param); });

}  // namespace
}  // namespace ravok::other_implementation_test
