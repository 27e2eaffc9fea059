#include "publisher/publish_root.hpp"

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "domain/json.hpp"
#include "platform/file/files.hpp"
#include "publisher/signing/publish_key.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"
#include "support/working_directory.hpp"
#include "tuf/tuf.hpp"

namespace ravok {
namespace {

using testing::TemporaryRoot;

mode_t mode_of(const std::filesystem::path& path) {
  struct stat status;
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

TEST(PublishKey, WritesAPrivateAndAPublicFileOfTheSameKey) {
  const TemporaryRoot root;
  const PublishedKey published = publish_key(root / "key", "ed25519");
  EXPECT_EQ(root.names(), (std::vector<std::string>{"key", "key.pub"}));
  EXPECT_EQ(mode_of(root / "key"), 0600u);
  EXPECT_EQ(mode_of(root / "key.pub"), 0644u);
  EXPECT_EQ(read_signing_key(root / "key").id(), published.id);
  EXPECT_EQ(read_public_key(root / "key"), read_public_key(root / "key.pub"));
  EXPECT_TRUE(holds_private_key(root / "key"));
  EXPECT_FALSE(holds_private_key(root / "key.pub"));
  EXPECT_EQ(root.read("key.pub").find("PRIVATE"), std::string::npos);
}

TEST(PublishKey, WritesBesideWhereItRunsWhenTheNameIsBare) {
  const TemporaryRoot root;
  const testing::WorkingDirectory working(root.path());
  const PublishedKey published = publish_key("key", "ed25519");
  EXPECT_EQ(published.private_file, "./key");
  EXPECT_EQ(root.names(), (std::vector<std::string>{"key", "key.pub"}));
}

TEST(PublishKey, TakesASeparatorAtTheEndOfAName) {
  const TemporaryRoot root;
  EXPECT_EQ(publish_key(root / "key/", "ed25519").private_file, root / "key");
  EXPECT_EQ(root.names(), (std::vector<std::string>{"key", "key.pub"}));
}

TEST(PublishKey, OverwritesNothing) {
  const TemporaryRoot root;
  root.write("key", "mine");
  EXPECT_FAILURE(publish_key(root / "key", "ed25519"), "output_exists",
                 "The output already exists: " + (root / "key").native());
  root.write("other.pub", "mine too");
  EXPECT_FAILURE(publish_key(root / "other", "ed25519"), "output_exists",
                 "The output already exists: " + (root / "other.pub").native());
  EXPECT_EQ(root.names(), (std::vector<std::string>{"key", "other.pub"}));
  EXPECT_EQ(root.read("key"), "mine");
}

TEST(PublishKey, LeavesNothingForASchemeThatIsNone) {
  const TemporaryRoot root;
  const auto failure = testing::failure_of([&] { publish_key(root / "key", "rot13"); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "unknown_scheme");
  EXPECT_TRUE(root.names().empty());
}

TEST(ReadKey, RefusesAPrivateKeyThatOthersMayRead) {
  const TemporaryRoot root;
  publish_key(root / "key", "ed25519");
  const std::string message = (root / "key").native() + ": Others may read this private key; give it mode 0600";
  for (const mode_t mode : {0640u, 0604u, 0620u, 0601u}) {
    ASSERT_EQ(chmod((root / "key").c_str(), mode), 0);
    EXPECT_FAILURE(read_signing_key(root / "key"), "permissions", message);
    EXPECT_FAILURE(read_public_key(root / "key"), "permissions", message);
  }
}

TEST(ReadKey, QuotesNothingOfAFileThatIsCutOff) {
  const TemporaryRoot root;
  publish_key(root / "key", "ed25519");
  const std::string whole = root.read("key");
  const std::string message = (root / "key").native() + ": The file holds no key";
  for (const std::size_t kept : {std::size_t{0}, whole.find("PRIVATE KEY") + 30, whole.rfind('"') + 1}) {
    std::filesystem::resize_file(root / "key", kept);
    EXPECT_FAILURE(read_signing_key(root / "key"), "invalid_json", message);
    EXPECT_FAILURE(read_public_key(root / "key"), "invalid_json", message);
    EXPECT_FAILURE(holds_private_key(root / "key"), "invalid_json", message);
    root.write("key", whole);
  }
}

TEST(ReadKey, NamesTheFileThatIsNoKey) {
  const TemporaryRoot root;
  const std::string file = (root / "key").native();
  const auto put = [&](const std::string& content) {
    root.write("key", content);
    ASSERT_EQ(chmod(file.c_str(), 0600), 0);
  };
  put("[]");
  EXPECT_FAILURE(read_public_key(file), "invalid_key", file + ": The file holds no key");
  EXPECT_FAILURE(read_signing_key(file), "invalid_key", file + ": The file holds no signing key");
  put("{}");
  EXPECT_FAILURE(read_public_key(file), "invalid_metadata", file + ": Invalid signing key shape");
  put(R"({"private":1})");
  EXPECT_FAILURE(read_public_key(file), "invalid_key", file + ": The file holds no signing key");
  put(std::string(65'537, ' '));
  EXPECT_FAILURE(read_public_key(file), "size_limit", file + ": File exceeds read limit");
  const std::string missing = (root / "none").native();
  const auto failure = testing::failure_of([&] { read_public_key(missing); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "file_read");
  EXPECT_NE(std::string(failure->what()).find(missing), std::string::npos);
}

class PublishRoot : public ::testing::Test {
 protected:
  PublishRoot() {
    for (const char* name : {"first", "second", "online"}) {
      publish_key(root / name, "ed25519");
    }
    publication.output = root / "root.json";
    publication.expires = "2050-01-01T00:00:00Z";
    publication.root = {{root / "first", root / "second.pub"}, 1};
    publication.timestamp = {{root / "online.pub"}, 1};
    publication.snapshot = {{root / "online.pub"}, 1};
    publication.targets = {{root / "first.pub"}, 1};
  }

  Json document() const { return parse_json(root.read("root.json"), tuf_root_limit); }

  void expect_refused(const std::string& code, const std::string& message) const {
    EXPECT_FAILURE(publish_root(publication), code, message);
    EXPECT_FALSE(std::filesystem::exists(publication.output));
  }

  const TemporaryRoot root;
  RootPublication publication;
};

TEST_F(PublishRoot, IsTheFirstRootThatAClientTakes) {
  const PublishedRoot published = publish_root(publication);
  EXPECT_EQ(published.file, root / "root.json");
  EXPECT_EQ(published.signatures, 1u);
  EXPECT_EQ(mode_of(root / "root.json"), 0644u);
  const std::string text = root.read("root.json");
  TufClient::initialize(root / "trust", text);
  EXPECT_EQ(root.read("trust/root.json"), text);
}

TEST_F(PublishRoot, NamesKeysAndThresholdsOfEachRole) {
  publication.root = {{root / "first", root / "second"}, 2};
  EXPECT_EQ(publish_root(publication).signatures, 2u);
  const Json body = document().at("signed");
  const std::string first = key_id(read_public_key(root / "first.pub"));
  const std::string second = key_id(read_public_key(root / "second.pub"));
  const std::string online = key_id(read_public_key(root / "online.pub"));
  EXPECT_EQ(body.at("roles").at("root"), (Json{{"keyids", {first, second}}, {"threshold", 2}}));
  EXPECT_EQ(body.at("roles").at("timestamp"), (Json{{"keyids", {online}}, {"threshold", 1}}));
  EXPECT_EQ(body.at("roles").at("snapshot"), (Json{{"keyids", {online}}, {"threshold", 1}}));
  EXPECT_EQ(body.at("roles").at("targets"), (Json{{"keyids", {first}}, {"threshold", 1}}));
  EXPECT_EQ(body.at("keys").size(), 3u);
  EXPECT_EQ(body.at("version"), 1);
  EXPECT_EQ(body.at("consistent_snapshot"), true);
  EXPECT_EQ(body.at("expires"), "2050-01-01T00:00:00Z");
  EXPECT_EQ(document().dump().find("PRIVATE"), std::string::npos);
}

TEST_F(PublishRoot, RefusesARoleWithoutKeys) {
  publication.snapshot.keys.clear();
  expect_refused("invalid_key", "The role snapshot has no key");
}

TEST_F(PublishRoot, RefusesAKeyThatARoleNamesTwice) {
  publication.root.keys = {root / "first", root / "first.pub"};
  expect_refused("invalid_key", "The role root has the key of this file twice: " + (root / "first.pub").native());
}

TEST_F(PublishRoot, RefusesAThresholdThatCannotBeMet) {
  publication.targets.threshold = 2;
  expect_refused("invalid_threshold", "The role targets has 1 key, which cannot meet a threshold of 2");
  publication.targets.threshold = 1;
  publication.root.threshold = 0;
  expect_refused("invalid_threshold", "The role root has 2 keys, which cannot meet a threshold of 0");
}

TEST_F(PublishRoot, RefusesToSignWithFewerPrivateKeysThanTheThreshold) {
  publication.root.threshold = 2;
  expect_refused("signature_threshold", "The threshold of the role root is 2, and the private keys to sign with are 1");
}

TEST_F(PublishRoot, RefusesATimeThatIsNoneOrHasPassed) {
  publication.expires = "tomorrow";
  expect_refused("invalid_expiry", "Expiry must use a UTC ISO-8601 timestamp");
  publication.expires = "2020-01-01T00:00:00Z";
  expect_refused("expired_metadata", "The root document would have expired already");
}

TEST_F(PublishRoot, OverwritesNothing) {
  root.write("root.json", "mine");
  EXPECT_FAILURE(publish_root(publication), "output_exists",
                 "The output already exists: " + (root / "root.json").native());
  EXPECT_EQ(root.read("root.json"), "mine");
}

TEST_F(PublishRoot, IsJudgedByItsSignaturesToo) {
  publish_root(publication);
  Json changed = document();
  changed["signed"]["version"] = 2;
  EXPECT_FAILURE(require_first_root(changed.dump()), "signature_threshold",
                 "Metadata does not meet its authorized signature threshold");
}

}  // namespace
}  // namespace ravok
