#include <filesystem>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "domain/crypto.hpp"
#include "tuf/refreshes.hpp"
#include "tuf/tuf.hpp"

namespace ravok::refresh_tests {
namespace {

// A role's document by itself.

class LoadedRoles : public Refreshes {
 protected:
  // Begins with a delegation to a role of this name, and a client that has refreshed.
  void begin_with(const std::string& name) {
    repository.delegate("targets", {.name = name, .paths = {"*"}});
    begin();
    client_ = client();
    client_->refresh();
    transport.forget();
  }

  Json load(const std::string& name) const {
    const Json& delegations = client_->trusted().targets().at("signed").at("delegations");
    return client_->load_role(name, client_->trusted().snapshot().at("signed").at("meta").at(name + ".json"),
                              delegations.at("keys"), delegations.at("roles").at(0), "targets");
  }

  std::unique_ptr<TufClient> client_;
};

TEST_F(LoadedRoles, ComeFromTheRepositoryOnceAndThenFromTheDisk) {
  begin_with("games");
  const Json document = load("games");
  EXPECT_EQ(document, Json::parse(repository.text_of("games")));
  EXPECT_EQ(stored().at(delegated_file("games")), repository.text_of("games"));
  EXPECT_EQ(load("games"), document);
  EXPECT_EQ(transport.names(), Names{"1.games.json"});
  EXPECT_EQ(transport.requests().at(0).kind, RepositoryRequest::Kind::component);
  EXPECT_EQ(transport.requests().at(0).limit, repository.text_of("games").size());
}

TEST_F(LoadedRoles, ComeAgainWhereTheDiskHoldsAnythingElse) {
  begin_with("games");
  load("games");
  for (const std::string& text : {std::string("{"), std::string(), repository.text_of("targets"),
                                  repository.text_of("games") + "\n", std::string(2'000'000, ' ')}) {
    put(delegated_file("games"), text);
    transport.forget();
    EXPECT_EQ(load("games"), Json::parse(repository.text_of("games")));
    EXPECT_EQ(transport.names(), Names{"1.games.json"});
    EXPECT_EQ(stored().at(delegated_file("games")), repository.text_of("games"));
  }
}

TEST_F(LoadedRoles, AreRefusedWithoutATrace) {
  begin_with("games");
  const StoredFiles before = stored();
  transport.on("1.games.json", answers_with_status(404));
  EXPECT_FAILURE(load("games"), "http_status", "Could not download metadata for role games");
  transport.on("1.games.json", answers_with(std::string(repository.text_of("games").size(), ' ')));
  EXPECT_FAILURE(load("games"), "hash_mismatch", other_hash);
  EXPECT_EQ(stored(), before);
}

TEST_F(LoadedRoles, AreNeitherReadNorStoredThroughALink) {
  begin_with("games");
  std::filesystem::create_symlink(root / "elsewhere.json", directory / delegated_file("games"));
  EXPECT_FAILURE(load("games"), "unsafe_path", link_in_path);
  EXPECT_TRUE(transport.requests().empty());
  root.write("elsewhere.json", repository.text_of("games"));
  EXPECT_FAILURE(load("games"), "unsafe_path", link_in_path);
  EXPECT_EQ(root.read("elsewhere.json"), repository.text_of("games"));
}

TEST_F(LoadedRoles, HaveTheExpiryOfTheirOwn) {
  repository.delegate("targets", {.name = "games", .paths = {"*"}}).expires = "2031-01-01T00:00:00Z";
  begin();
  client_ = client();
  client_->refresh();
  EXPECT_NO_THROW(load("games"));
  now = parse_tuf_time("2031-01-01T00:00:00Z");
  client_->refresh();
  transport.forget();
  EXPECT_FAILURE(load("games"), "expired_metadata", has_expired);
  EXPECT_EQ(transport.names(), Names{"1.games.json"});
}

// The name of a role decides what is asked for, and never where it is stored.
class RoleNames : public LoadedRoles, public ::testing::WithParamInterface<std::string> {};

TEST_P(RoleNames, TakeNoPartInAPath) {
  const std::string name = GetParam();
  begin_with(name);
  StoredFiles expected = stored();
  EXPECT_EQ(load(name), Json::parse(repository.text_of(name)));
  EXPECT_EQ(transport.names(), Names{"1." + name + ".json"});
  const std::string file = "delegated-" + digest(name, "sha256") + ".json";
  EXPECT_EQ(delegated_file(name), file);
  expected[file] = repository.text_of(name);
  EXPECT_EQ(stored(), expected);
  transport.connected = false;
  EXPECT_EQ(load(name), Json::parse(repository.text_of(name)));
}

INSTANTIATE_TEST_SUITE_P(Strange, RoleNames,
                         ::testing::Values("a/b", "..", ".", "../../x", "/", "/etc/passwd", std::string("a\0b", 3),
                                           std::string("\0", 1), std::string("targets\0", 8), "Targets", "root.json",
                                           "a b\n", "\xF0\x9F\x8E\xAE", "%2F", std::string(4096, 'x'), "delegated-",
                                           "C:\\x"),
                         [](const auto& instance) { return "Number" + std::to_string(instance.index); });

TEST_F(LoadedRoles, HaveBoundedNames) {
  begin();
  const auto client = this->client();
  client->refresh();
  transport.forget();
  const StoredFiles before = stored();
  for (const std::string& name : {std::string(), std::string(4097, 'x')}) {
    EXPECT_FAILURE(client->load_role(name, {{"version", 1}}, Json::object(), Json::object(), "targets"), "size_limit",
                   unbounded_name);
  }
  EXPECT_TRUE(transport.requests().empty());
  EXPECT_EQ(stored(), before);
}

TEST_F(LoadedRoles, FailByTheirCodeWhateverTheirNames) {
  const std::string name("a\0b", 3);
  begin_with(name);
  transport.on("1." + name + ".json", answers_with_status(404));
  EXPECT_EQ(testing::failure_of([&] { load(name); }).value().code, "http_status");
}

TEST(RoleCache, HasANameOfItsOwnForEachTopLevelRole) {
  for (const std::string role : {"root", "timestamp", "snapshot", "targets"}) {
    EXPECT_EQ(TufClient::role_cache("/nowhere", role), "/nowhere/" + role + ".json");
  }
  for (const std::string role : {"mirrors", "Root", "root ", "games", "", "root-invalidation"}) {
    EXPECT_EQ(TufClient::role_cache("/nowhere", role), "/nowhere/delegated-" + digest(role, "sha256") + ".json");
  }
}

TEST_F(LoadedRoles, AreFoundByTheClientsOwnReader) {
  begin();
  const auto client = this->client();
  EXPECT_FALSE(client->local("timestamp").has_value());
  client->persist("games", R"({"a":1})");
  EXPECT_EQ(client->local("games"), Json({{"a", 1}}));
  client->persist("games", "[1,]");
  EXPECT_FAILURE(client->local("games"), "invalid_trusted_metadata", damaged("games"));
  EXPECT_EQ(stored().at(delegated_file("games")), "[1,]");
  client->persist("games", std::string(1'048'576, ' '));
  EXPECT_FAILURE(client->local("games"), "invalid_trusted_metadata", damaged("games"));
  client->persist("games", std::string(1'048'577, ' '));
  EXPECT_FAILURE(client->local("games"), "size_limit", "File exceeds read limit");
}

}  // namespace
}  // namespace ravok::refresh_tests
