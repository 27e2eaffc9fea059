// A client of a repository that a real server serves.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "platform/file/files.hpp"
#include "support/nginx_server.hpp"
#include "support/tuf_repository.hpp"
#include "transport/network_place.hpp"
#include "tuf/tuf.hpp"

namespace ravok {
namespace {

class TufServer : public testing::NetworkPlace {
 protected:
  void SetUp() override {
    if (!testing::NginxServer::is_installed()) {
      GTEST_SKIP() << "nginx is not installed";
    }
  }

  // Searches for each path with a client that has only the first root.
  void expect_found(testing::TufRepository& repository, const std::vector<std::string>& roles) {
    repository.publish();
    const testing::NginxServer server(authority_.issue());
    for (const auto& [name, text] : repository.metadata()) {
      server.serve("metadata/" + name, text);
    }
    HttpsTransport transport = client(server.url() + "metadata/");
    const std::filesystem::path trust = root_.directory(repository.consistent ? "consistent" : "plain");
    TufClient::initialize(trust, repository.root_text());
    TufClient tuf(trust, transport, transport, {524'288, 16'384, 4'194'304, 16, 100},
                  [] { return parse_tuf_time("2030-01-01T00:00:00Z"); });
    for (const std::string& role : roles) {
      EXPECT_EQ(tuf.target("of/" + role), repository.role(role).targets.at("of/" + role)) << server.complaints();
    }
    EXPECT_FAILURE(tuf.target("other"), "target_not_found", "Target is not authorized by the repository: other");
    EXPECT_EQ(tuf.trusted().root().at("signed").at("version"), 2);
  }
};

TEST_F(TufServer, GivesRolesOfAnyNames) {
  const std::vector<std::string> roles = {"games", "a/b",     "with blanks ", "Zoë", "100%25", "?x=1#y",
                                          "\"q\"", "a+b&c=d", "tab\t",        "~",   "[0-9]*"};
  for (const bool consistent : {true, false}) {
    testing::TufRepository repository;
    repository.consistent = consistent;
    repository.publish();
    repository.rotate("root");
    for (const std::string& role : roles) {
      repository.delegate("targets", {.name = role, .paths = {"of/*", "of/*/*"}}).add("of/" + role, "content");
    }
    expect_found(repository, roles);
  }
}

TEST_F(TufServer, GivesTheRestOfATargetWhoseDownloadWasCalledOff) {
  const std::string content = testing::large_content(20'000'003);
  testing::TufRepository repository;
  repository.targets().add("games/large", content);
  repository.publish();
  const testing::NginxServer server(authority_.issue());
  for (const auto& [name, bytes] : repository.target_files()) {
    server.serve("targets/" + name, bytes);
  }
  HttpsTransport targets = client(server.url() + "targets/");
  testing::RepositoryTransport metadata(repository);
  const std::filesystem::path trust = root_.directory("trust");
  TufClient::initialize(trust, repository.root_text());
  TufClient tuf(trust, metadata, targets, {524'288, 16'384, 4'194'304, 16, 100},
                [] { return parse_tuf_time("2030-01-01T00:00:00Z"); });
  std::vector<std::string> phases;
  const TargetObserver observer = [&](std::string_view phase, const Json&, std::string_view) {
    phases.emplace_back(phase);
  };
  DownloadAdmission admitted;
  const TufDownloadOptions options{.scope = "test",
                                   .admission = [&](const DownloadAdmission& admission) { admitted = admission; }};
  const auto stop = [](std::uint64_t done, std::uint64_t) { return done < 10'000'000; };
  EXPECT_FAILURE(tuf.download("games/large", root_ / "files", stop, observer, options), "cancelled",
                 "Transfer cancelled at a safe boundary");
  EXPECT_FALSE(std::filesystem::exists(root_ / "files/games/large"));

  const std::filesystem::path file = tuf.download("games/large", root_ / "files", {}, observer, options);
  EXPECT_EQ(read_file(file, content.size()), content) << server.complaints();
  EXPECT_TRUE(admitted.resumed);
  EXPECT_GE(admitted.bytes, 10'000'000u);
  EXPECT_EQ(phases, (std::vector<std::string>{"prepared", "resumed", "complete"}));
  EXPECT_EQ(files(), (std::vector<std::string>{"files/games/", "files/games/large"}));
}

}  // namespace
}  // namespace ravok
