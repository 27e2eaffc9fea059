// What the other tests take for granted of the repository that they use.

#include "support/tuf_repository.hpp"

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/signature_scheme.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"
#include "tuf/keys.hpp"
#include "tuf/metadata_shape.hpp"

namespace ravok::tuf_repository_test {
namespace {

using testing::RepositoryRequest;
using testing::RepositoryTransport;
using testing::TemporaryRoot;
using testing::TestKey;
using testing::TufRepository;

using Names = std::vector<std::string>;

constexpr const char* too_few = "Metadata does not meet its authorized signature threshold";

Json parsed(const TufRepository& repository, const std::string& role) {
  return parse_json(repository.text_of(role), 10'000'000);
}

void verify_by_root(const TufRepository& repository, const std::string& role) {
  const Json root = parsed(repository, "root").at("signed");
  const Json document = parsed(repository, role);
  shape(document, role);
  verify_threshold(document, root.at("keys"), root.at("roles").at(role));
}

Names file_names(const TufRepository::Files& files) {
  Names names;
  for (const auto& [name, ignored] : files) {
    names.push_back(name);
  }
  return names;
}

TEST(TufRepositories, SignEveryDocumentWithAnyScheme) {
  for (const SignatureScheme& scheme : signature_schemes) {
    TufRepository repository;
    const TestKey key = TestKey::of_scheme(scheme.name);
    for (const char* role : {"root", "timestamp", "snapshot", "targets"}) {
      repository.rotate(role, {key});
    }
    repository.delegate("targets", {.name = "games", .paths = {"games/*"}, .keys = {key}});
    repository.rotate("games", {key});
    repository.publish();
    for (const char* role : {"root", "timestamp", "snapshot", "targets"}) {
      EXPECT_NO_THROW(verify_by_root(repository, role)) << scheme.name << " " << role;
    }
    const Json delegations = parsed(repository, "targets").at("signed").at("delegations");
    EXPECT_NO_THROW(
        verify_threshold(parsed(repository, "games"), delegations.at("keys"), delegations.at("roles").at(0)))
        << scheme.name;
  }
}

TEST(TufRepositories, GiveTheNextVersionToWhatHasChanged) {
  TufRepository repository;
  repository.delegate("targets", {.name = "games", .paths = {"games/*"}});
  repository.publish();
  EXPECT_EQ(file_names(repository.metadata()),
            (Names{"1.games.json", "1.root.json", "1.snapshot.json", "1.targets.json", "timestamp.json"}));
  repository.publish();
  EXPECT_EQ(parsed(repository, "timestamp").at("signed").at("version"), 2);
  EXPECT_EQ(repository.file_of("snapshot"), "1.snapshot.json");
  repository.role("games").add("games/a", "content");
  repository.publish();
  EXPECT_EQ(repository.file_of("root"), "1.root.json");
  EXPECT_EQ(repository.file_of("games"), "2.games.json");
  EXPECT_EQ(repository.file_of("targets"), "1.targets.json");
  EXPECT_EQ(repository.file_of("snapshot"), "2.snapshot.json");
  EXPECT_EQ(parsed(repository, "timestamp").at("signed").at("version"), 3);
  EXPECT_EQ(parsed(repository, "timestamp").at("signed").at("meta").at("snapshot.json"),
            (Json{{"version", 2},
                  {"length", repository.text_of("snapshot").size()},
                  {"hashes", {{"sha256", digest(repository.text_of("snapshot"), "sha256")}}}}));
}

TEST(TufRepositories, SignARootWithTheKeysOfTheOneBefore) {
  TufRepository repository;
  repository.publish();
  const Json first = parsed(repository, "root").at("signed");
  repository.rotate("root");
  repository.publish();
  ASSERT_EQ(repository.file_of("root"), "2.root.json");
  for (int again = 0; again < 2; ++again) {
    EXPECT_NO_THROW(verify_by_root(repository, "root"));
    EXPECT_NO_THROW(verify_threshold(parsed(repository, "root"), first.at("keys"), first.at("roles").at("root")));
    repository.republish();
    ASSERT_EQ(repository.file_of("root"), "2.root.json");
  }
  EXPECT_EQ(parse_json(repository.root_text(1), 100'000).at("signed"), first);
  repository.rotate("root");
  repository.publish();
  EXPECT_FAILURE(verify_threshold(parsed(repository, "root"), first.at("keys"), first.at("roles").at("root")),
                 "signature_threshold", too_few);
}

TEST(TufRepositories, MakeADocumentWrongAtEachStage) {
  TufRepository repository;
  repository.publish();
  repository.targets().signers = {TestKey::ed25519()};
  repository.publish();
  EXPECT_EQ(repository.file_of("targets"), "2.targets.json");
  EXPECT_FAILURE(verify_by_root(repository, "targets"), "signature_threshold", too_few);
  repository.targets().signers.reset();
  repository.targets().edit = [](Json& body) { body.erase("targets"); };
  repository.publish();
  EXPECT_EQ(testing::failure_of([&] { verify_by_root(repository, "targets"); }).value().code, "invalid_metadata");
  repository.targets().edit = {};
  repository.targets().deface = [](std::string& text) { text += "}"; };
  repository.publish();
  EXPECT_EQ(testing::failure_of([&] { parsed(repository, "targets"); }).value().code, "invalid_json");
  const Json told = parsed(repository, "snapshot").at("signed").at("meta").at("targets.json");
  EXPECT_EQ(told.at("hashes").at("sha256"), digest(repository.metadata().at("4.targets.json"), "sha256"));
  repository.replace("4.targets.json", "other");
  EXPECT_EQ(repository.metadata().at("4.targets.json"), "other");
  EXPECT_EQ(parsed(repository, "snapshot").at("signed").at("meta").at("targets.json"), told);
}

TEST(TufRepositories, TakeTheVersionThatATestSets) {
  TufRepository repository;
  repository.publish();
  repository.timestamp().version = 9;
  repository.publish();
  EXPECT_EQ(parsed(repository, "timestamp").at("signed").at("version"), 9);
  repository.timestamp().version = 2;
  repository.publish();
  EXPECT_EQ(parsed(repository, "timestamp").at("signed").at("version"), 2);
}

TEST(TufRepositories, LayEveryDigestIntoOneBin) {
  for (const std::size_t count : {1u, 2u, 16u, 32u, 256u, 1024u}) {
    TufRepository repository;
    repository.delegate_bins("targets", "bin-", count);
    ASSERT_EQ(repository.targets().delegations.size(), count);
    std::set<std::string> prefixes;
    for (const testing::TestDelegation& delegation : repository.targets().delegations) {
      prefixes.insert(delegation.path_hash_prefixes.begin(), delegation.path_hash_prefixes.end());
    }
    EXPECT_EQ(prefixes.size(), count <= 16 ? 16u : count <= 256 ? 256u : 4096u);
    for (const std::string path : {"a", "b", "games/c"}) {
      const std::string name = TufRepository::bin("bin-", count, path);
      const std::string text = digest(path, "sha256");
      for (const testing::TestDelegation& delegation : repository.targets().delegations) {
        const bool falls = std::any_of(delegation.path_hash_prefixes.begin(), delegation.path_hash_prefixes.end(),
                                       [&](const std::string& prefix) { return text.starts_with(prefix); });
        EXPECT_EQ(falls, delegation.name == name) << count << " " << path << " " << delegation.name;
      }
    }
  }
}

TEST(TufRepositories, LieInADirectoryAsTheyAreServed) {
  const TemporaryRoot root;
  TufRepository repository;
  repository.targets().add("games/a", "content", {"sha256", "sha512"});
  repository.publish();
  repository.write(root.path());
  const std::string first = digest("content", "sha256");
  const std::string second = digest("content", "sha512");
  Names expected = {"metadata/",
                    "metadata/1.root.json",
                    "metadata/1.snapshot.json",
                    "metadata/1.targets.json",
                    "metadata/timestamp.json",
                    "targets/",
                    "targets/games/",
                    "targets/games/" + first + ".a",
                    "targets/games/" + second + ".a"};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(root.names(), expected);
  EXPECT_EQ(root.read("metadata/1.targets.json"), repository.text_of("targets"));
  EXPECT_EQ(root.read("targets/games/" + first + ".a"), "content");
}

TEST(TufRepositories, NeedNoVersionsInNames) {
  TufRepository repository;
  repository.consistent = false;
  repository.targets().add("games/a", "content");
  repository.publish();
  EXPECT_EQ(file_names(repository.metadata()),
            (Names{"1.root.json", "snapshot.json", "targets.json", "timestamp.json"}));
  EXPECT_EQ(repository.target_files().at("games/a"), "content");
  EXPECT_EQ(parsed(repository, "root").at("signed").at("consistent_snapshot"), false);
}

class RepositoryTransports : public ::testing::Test {
 protected:
  void SetUp() override {
    repository_.consistent = false;
    repository_.targets().add("a", std::string(100'000, 'a'));
    repository_.publish();
  }

  // Downloads the target into the file, which it resumes, and returns the failure, if any.
  std::string resume(AllocatedFile& file) {
    const auto failure = testing::failure_of([&] {
      transport_.download_into(
          "a", file, file.written(), {}, [&](std::string_view bytes) { received_ += bytes; },
          [&] { received_.clear(); });
    });
    return failure ? failure->code + ": " + failure->what() : "";
  }

  const TemporaryRoot root_;
  TufRepository repository_;
  RepositoryTransport transport_{repository_};
  std::string received_;
};

TEST_F(RepositoryTransports, AnswerUnderTheirBoundsAndRecordWhatWasAsked) {
  const std::string text = repository_.text_of("targets");
  EXPECT_EQ(transport_.get("timestamp.json", 10'000).body, repository_.text_of("timestamp"));
  EXPECT_EQ(transport_.get_component("targets.json", text.size()).body, text);
  EXPECT_FAILURE(transport_.get_component("targets.json", text.size() - 1), "size_limit",
                 "Server sent more than the authenticated size limit");
  EXPECT_EQ(transport_.get("2.root.json", 0).status, 404);
  ASSERT_EQ(transport_.names(), (Names{"timestamp.json", "targets.json", "targets.json", "2.root.json"}));
  EXPECT_EQ(transport_.requests()[0].kind, RepositoryRequest::Kind::get);
  EXPECT_EQ(transport_.requests()[1].kind, RepositoryRequest::Kind::component);
  EXPECT_EQ(transport_.requests()[2].limit, text.size() - 1);
}

TEST_F(RepositoryTransports, ChangeAnswersByNameAndByNumber) {
  transport_.on("timestamp.json", testing::answers_with_status(503));
  transport_.at(3, testing::answers_with("other"));
  EXPECT_EQ(transport_.get("timestamp.json", 10'000).status, 503);
  transport_.on("timestamp.json", {});
  EXPECT_EQ(transport_.get("timestamp.json", 10'000).body, repository_.text_of("timestamp"));
  EXPECT_EQ(transport_.get("timestamp.json", 10'000).body, "other");
  transport_.connected = false;
  EXPECT_FAILURE(transport_.get("timestamp.json", 10'000), "network", "Could not connect to server");
  EXPECT_EQ(transport_.requests().size(), 4u);
}

TEST_F(RepositoryTransports, DownloadWhatIsThereAndLeaveNothingAfterAFailure) {
  transport_.download("a", root_ / "folder/a", 100'000, {});
  EXPECT_EQ(root_.read("folder/a"), std::string(100'000, 'a'));
  EXPECT_FAILURE(transport_.download("b", root_ / "b", 1, {}), "http_status", "Download failed with status 404");
  EXPECT_FAILURE(transport_.download("a", root_ / "b", 99'999, {}), "size_limit",
                 "Download exceeds its authenticated length");
  transport_.on("a", testing::breaks_after(70'000));
  EXPECT_FAILURE(transport_.download("a", root_ / "b", 100'000, {}), "network", "Transferred a partial file");
  EXPECT_EQ(root_.names(), (Names{"folder/", "folder/a"}));
}

TEST_F(RepositoryTransports, ResumeADownloadThatBroke) {
  AllocatedFile file(root_ / "a", 100'000, {});
  transport_.at(1, testing::breaks_after(70'000));
  EXPECT_EQ(resume(file), "network: Transferred a partial file");
  EXPECT_EQ(file.written(), 70'000u);
  EXPECT_EQ(resume(file), "");
  EXPECT_EQ(received_, std::string(100'000, 'a'));
  EXPECT_EQ(transport_.requests().back().offset, 70'000u);
  file.finish(true);
  EXPECT_EQ(root_.read("a"), received_);
}

TEST_F(RepositoryTransports, StartAgainWhereTheServiceKnowsNoRanges) {
  AllocatedFile file(root_ / "a", 100'000, {});
  transport_.at(1, testing::breaks_after(70'000));
  EXPECT_EQ(resume(file), "network: Transferred a partial file");
  transport_.on("a", testing::answers_from_the_start());
  EXPECT_EQ(resume(file), "");
  EXPECT_EQ(received_, std::string(100'000, 'a'));
  transport_.on("a", testing::answers_cut_to(10));
  AllocatedFile other(root_ / "b", 100'000, {});
  EXPECT_EQ(resume(other), "length_mismatch: Download body is shorter than its authenticated response length");
}

}  // namespace
}  // namespace ravok::tuf_repository_test
