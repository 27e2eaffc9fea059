#include "tuf/target_search.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "domain/crypto.hpp"
#include "support/failure.hpp"
#include "support/tuf_place.hpp"
#include "support/tuf_repository.hpp"
#include "tuf/tuf.hpp"
#include "tuf/tuf_time.hpp"

namespace ravok::target_search_test {
namespace {

using testing::RepositoryRequest;
using testing::RepositoryTransport;
using testing::TestDelegation;
using testing::TestKey;
using testing::TestRole;
using testing::TufRepository;

using Names = std::vector<std::string>;
using Visited = std::set<std::string>;

constexpr const char* limit_reached = "Repository delegation limit reached";
constexpr const char* bad_prefix = "Invalid delegation hash prefix";
constexpr const char* absent = "Delegated role is absent from the authenticated snapshot";
constexpr const char* too_few = "Metadata does not meet its authorized signature threshold";
constexpr const char* expired = "Repository metadata has expired; previously installed games remain playable";
constexpr const char* no_hashes = "Target has no authenticated hashes";
constexpr const char* too_long = "Delegation pattern exceeds path limit";

std::string not_found(const std::string& path) { return "Target is not authorized by the repository: " + path; }

std::string cache_name(const std::string& role) { return "delegated-" + digest(role, "sha256") + ".json"; }

class TargetSearches : public ::testing::Test {
 protected:
  // A role below the top-level targets, or below another role, that everything is delegated to.
  TestRole& add(const std::string& name, const std::string& delegator = "targets", bool terminating = false) {
    return repository_.delegate(delegator, {.name = name, .paths = {"*", "*/*", "*/*/*"}, .terminating = terminating});
  }

  // A client of the repository as it is now, which has asked for nothing.
  TufClient& open() {
    if (stored_names().empty()) {
      place_.begin();
    }
    client_.reset();
    client_ = place_.client();
    return *client_;
  }

  // The same client after its refresh, of which the transport knows nothing any more.
  TufClient& refreshed() {
    open().refresh();
    transport_.forget();
    return *client_;
  }

  // The repository tells something new, and the client learns it.
  TufClient& publish() {
    repository_.publish();
    client_->refresh();
    transport_.forget();
    return *client_;
  }

  void expect_found(const std::string& path, const Json& description, const Names& asked) {
    transport_.forget();
    EXPECT_EQ(client_->target(path), description) << path;
    EXPECT_EQ(transport_.names(), asked) << path;
  }

  void expect_failure(const std::string& path, const char* code, const std::string& message, const Names& asked) {
    transport_.forget();
    EXPECT_FAILURE(client_->target(path), code, message);
    EXPECT_EQ(transport_.names(), asked) << path;
  }

  Names stored_names() const {
    Names names;
    for (const auto& [name, ignored] : place_.stored()) {
      names.push_back(name);
    }
    return names;
  }

  // The files of delegated roles.
  Names cached_roles() const {
    Names names = stored_names();
    std::erase_if(names, [](const std::string& name) { return !name.starts_with("delegated-"); });
    return names;
  }

  std::string cached(const std::string& role) const { return place_.stored().at(cache_name(role)); }

  testing::TufPlace place_;
  TufRepository& repository_ = place_.repository;
  RepositoryTransport& transport_ = place_.transport;
  TufLimits& limits_ = place_.limits;
  std::unique_ptr<TufClient> client_;
};

TEST_F(TargetSearches, FindWhatTheTopLevelSaysAndAskForNoRole) {
  add("games");
  Json& description = repository_.targets().add("games/a", "content", {"sha256", "sha512"});
  description["custom"] = {{"build", 7}};
  repository_.role("games").add("games/a", "other");
  refreshed();
  expect_found("games/a", description, {});
  EXPECT_EQ(cached_roles(), Names());
}

TEST_F(TargetSearches, FindWhatTheFirstRoleThatKnowsThePathSays) {
  add("a");
  const Json description = add("b").add("x", "of b");
  add("c").add("x", "of c");
  refreshed();
  expect_found("x", description, {"1.a.json", "1.b.json"});
  expect_found("x", description, {});
}

TEST_F(TargetSearches, PreferARolesOwnWordToThatOfTheRolesBelow) {
  const Json description = add("a").add("x", "of a");
  add("b", "a").add("x", "of b");
  refreshed();
  expect_found("x", description, {"1.a.json"});
}

TEST_F(TargetSearches, GoThroughAllBelowARoleBeforeItsSibling) {
  add("a");
  add("a1", "a");
  add("a11", "a1");
  add("a2", "a");
  add("b");
  const Json description = add("b1", "b").add("x", "of b1");
  add("b2", "b").add("x", "of b2");
  refreshed();
  expect_found("x", description, {"1.a.json", "1.a1.json", "1.a11.json", "1.a2.json", "1.b.json", "1.b1.json"});
  expect_failure("y", "target_not_found", not_found("y"), {"1.b2.json"});
}

TEST_F(TargetSearches, FollowOnlyTheDelegationsThatCoverThePath) {
  repository_.delegate("targets", {.name = "none", .paths = {}}).add("games/a", "no");
  repository_.delegate("targets", {.name = "other", .paths = {"games", "games/?/a", "Games/*"}}).add("games/a", "no");
  const Json description =
      repository_.delegate("targets", {.name = "games", .paths = {"launcher/*", "games/*", "*"}}).add("games/a", "a");
  refreshed();
  expect_found("games/a", description, {"1.games.json"});
  expect_failure("tools/b", "target_not_found", not_found("tools/b"), {});
  expect_failure("games/b/c", "target_not_found", not_found("games/b/c"), {});
  expect_failure("launcher/b", "target_not_found", not_found("launcher/b"), {});
}

TEST_F(TargetSearches, FollowADelegationByTheDigestOfThePath) {
  const std::string text = digest("games/a", "sha256");
  const std::string other = text[0] == '0' ? "1" : "0";
  repository_.delegate("targets", {.name = "other", .path_hash_prefixes = {other, text + "0", other + text.substr(1)}});
  repository_.targets().delegations.back().path_hash_prefixes[1].resize(63, '0');
  repository_.targets().delegations.back().path_hash_prefixes[1][0] = other[0];
  const Json description =
      repository_.delegate("targets", {.name = "one", .path_hash_prefixes = {other, text}}).add("games/a", "a");
  refreshed();
  expect_found("games/a", description, {"1.one.json"});
  for (const std::size_t digits : {1u, 2u, 63u}) {
    repository_.targets().delegations.back().path_hash_prefixes = {text.substr(0, digits)};
    publish();
    expect_found("games/a", description, {});
  }
}

TEST_F(TargetSearches, ReadOneOfManyHashedBins) {
  constexpr std::size_t count = 512;
  repository_.delegate_bins("targets", "bin-", count);
  std::vector<Json> descriptions;
  const Names paths = {"games/a", "games/b", "launcher/linux-x86_64/manifest.json"};
  for (const std::string& path : paths) {
    descriptions.push_back(repository_.role(TufRepository::bin("bin-", count, path)).add(path, "content of " + path));
  }
  refreshed();
  for (std::size_t i = 0; i < paths.size(); ++i) {
    expect_found(paths[i], descriptions[i], {"1." + TufRepository::bin("bin-", count, paths[i]) + ".json"});
  }
  expect_failure("games/d", "target_not_found", not_found("games/d"),
                 {"1." + TufRepository::bin("bin-", count, "games/d") + ".json"});
}

TEST_F(TargetSearches, EndWithATerminatingDelegationThatLeadsToNothing) {
  add("a", "targets", true);
  add("b").add("x", "of b");
  refreshed();
  expect_failure("x", "target_not_found", not_found("x"), {"1.a.json"});
}

TEST_F(TargetSearches, EndAtEveryDepthWithATerminatingDelegation) {
  add("a");
  add("a1", "a");
  add("a11", "a1", true);
  add("a12", "a1").add("x", "of a12");
  add("a2", "a").add("x", "of a2");
  add("b").add("x", "of b");
  refreshed();
  expect_failure("x", "target_not_found", not_found("x"), {"1.a.json", "1.a1.json", "1.a11.json"});
}

TEST_F(TargetSearches, LookBelowATerminatingDelegationBeforeTheyEnd) {
  add("a", "targets", true);
  add("a1", "a");
  const Json description = add("a2", "a").add("x", "of a2");
  add("b").add("y", "of b");
  refreshed();
  expect_found("x", description, {"1.a.json", "1.a1.json", "1.a2.json"});
  expect_failure("y", "target_not_found", not_found("y"), {});
}

TEST_F(TargetSearches, DoNotEndWithATerminatingDelegationOfOtherPaths) {
  repository_.delegate("targets", {.name = "a", .paths = {"games/*"}, .terminating = true});
  repository_.delegate("targets", {.name = "h", .path_hash_prefixes = {std::string(64, '0')}, .terminating = true});
  const Json description = add("b").add("x", "of b");
  refreshed();
  expect_found("x", description, {"1.b.json"});
}

TEST_F(TargetSearches, LeaveACycleAndGoOn) {
  add("a");
  add("b", "a");
  repository_.delegate("b", {.name = "a", .paths = {"*"}});
  repository_.delegate("b", {.name = "b", .paths = {"*"}});
  const Json description = add("c").add("x", "of c");
  refreshed();
  expect_found("x", description, {"1.a.json", "1.b.json", "1.c.json"});
  expect_failure("y", "target_not_found", not_found("y"), {});
}

TEST_F(TargetSearches, EndWithATerminatingDelegationInACycle) {
  add("a");
  repository_.delegate("a", {.name = "a", .paths = {"*"}, .terminating = true});
  add("b").add("x", "of b");
  refreshed();
  expect_failure("x", "target_not_found", not_found("x"), {"1.a.json"});
}

TEST_F(TargetSearches, LookAtARoleOnceThoughTwoDelegateToIt) {
  add("a");
  add("b");
  add("shared", "a");
  repository_.delegate("b", {.name = "shared", .paths = {"*"}});
  refreshed();
  expect_failure("x", "target_not_found", not_found("x"), {"1.a.json", "1.shared.json", "1.b.json"});
  Visited visited;
  bool terminated = false;
  EXPECT_EQ(client_->visit("x", "targets", client_->trusted().targets(), visited, terminated), std::nullopt);
  EXPECT_EQ(visited, (Visited{"targets", "a", "b", "shared"}));
  EXPECT_FALSE(terminated);
}

TEST_F(TargetSearches, FindInARoleWhatOnlyItsSecondDelegationCovers) {
  repository_.delegate("targets", {.name = "a", .paths = {"other/*"}});
  repository_.delegate("targets", {.name = "b", .paths = {"*"}});
  const Json description = repository_.delegate("b", {.name = "a", .paths = {"x"}}).add("x", "of a");
  refreshed();
  expect_found("x", description, {"1.b.json", "1.a.json"});
}

TEST_F(TargetSearches, VerifyARoleUnderEveryDelegationToIt) {
  add("a");
  add("b");
  const TestKey other = TestKey::ed25519();
  add("shared", "a");
  repository_.delegate("b", {.name = "shared", .paths = {"*"}, .keys = {other}});
  refreshed();
  expect_failure("x", "signature_threshold", too_few, {"1.a.json", "1.shared.json", "1.b.json", "1.shared.json"});
}

TEST_F(TargetSearches, TakeNoMoreRolesThanTheLimit) {
  limits_.delegations = 1;
  add("a");
  const Json description = repository_.targets().add("x", "of the top");
  refreshed();
  expect_found("x", description, {});
  expect_failure("y", "delegation_limit", limit_reached, {});
  expect_failure("too/many/names/in/it", "target_not_found", not_found("too/many/names/in/it"), {});
}

TEST_F(TargetSearches, TakeNoRoleAtAllWithoutALimit) {
  limits_.delegations = 0;
  repository_.targets().add("x", "of the top");
  refreshed();
  expect_failure("x", "delegation_limit", limit_reached, {});
}

TEST_F(TargetSearches, CountEachRoleOnceAgainstTheLimit) {
  limits_.delegations = 4;
  add("a");
  add("b", "a");
  const Json description = add("c").add("x", "of c");
  add("d").add("y", "of d");
  repository_.delegate("b", {.name = "a", .paths = {"*"}});
  repository_.delegate("c", {.name = "a", .paths = {"*"}});
  refreshed();
  expect_found("x", description, {"1.a.json", "1.b.json", "1.c.json"});
  expect_failure("y", "delegation_limit", limit_reached, {});
}

TEST_F(TargetSearches, NeedNoRoomForARoleThatTheyHaveVisited) {
  limits_.delegations = 3;
  add("a");
  add("b", "a");
  repository_.delegate("b", {.name = "a", .paths = {"*"}});
  refreshed();
  expect_failure("x", "target_not_found", not_found("x"), {"1.a.json", "1.b.json"});
}

TEST_F(TargetSearches, RefuseADelegationBeyondTheLimitBeforeTheyLookForItsRole) {
  limits_.delegations = 1;
  add("a");
  repository_.drop("a");
  refreshed();
  expect_failure("x", "delegation_limit", limit_reached, {});
}

TEST_F(TargetSearches, VisitAThousandDelegations) {
  constexpr int count = 1000;
  limits_.delegations = count + 1;
  const std::vector<TestKey> keys = {TestKey::ed25519()};
  for (int i = 0; i < count; ++i) {
    add("role-" + std::to_string(i)).keys = keys;
  }
  const Json description = repository_.role("role-999").add("x", "of the last");
  refreshed();
  EXPECT_EQ(client_->target("x"), description);
  EXPECT_EQ(transport_.requests().size(), 1000u);
  EXPECT_EQ(transport_.names().back(), "1.role-999.json");
  expect_found("x", description, {});
  expect_failure("y", "target_not_found", not_found("y"), {});
}

TEST_F(TargetSearches, TakeTheSameRoomOnTheStackAtEveryDepth) {
  constexpr int depth = 300;
  limits_.delegations = depth + 1;
  std::string delegator = "targets";
  const std::vector<TestKey> keys = {TestKey::ed25519()};
  for (int i = 0; i < depth; ++i) {
    const std::string name = "level-" + std::to_string(i);
    add(name, delegator).keys = keys;
    delegator = name;
  }
  const Json description = repository_.role(delegator).add("x", "of the deepest");
  refreshed();
  std::set<const void*> places;
  transport_.before = [&](const RepositoryRequest&) { places.insert(__builtin_frame_address(0)); };
  EXPECT_EQ(client_->target("x"), description);
  EXPECT_EQ(transport_.requests().size(), 300u);
  EXPECT_EQ(places.size(), 1u);
}

TEST_F(TargetSearches, FailForARoleOfWhichTheSnapshotKnowsNothing) {
  add("a");
  add("b").add("x", "of b");
  repository_.drop("a");
  refreshed();
  expect_failure("x", "missing_role", absent, {});
}

// What is wrong with the first of two roles, of which the second knows the path.
struct Failing {
  const char* what;
  void (*damage)(TufRepository& repository, RepositoryTransport& transport);
  const char* code;
  const char* message;
};

const std::vector<Failing> failing = {
    {"not there", [](TufRepository& repository, RepositoryTransport&) { repository.remove(repository.file_of("a")); },
     "http_status", "Could not download metadata for role a"},
    {"forbidden",
     [](TufRepository& repository, RepositoryTransport& transport) {
       transport.on(repository.file_of("a"), testing::answers_with_status(403));
     },
     "http_status", "Could not download metadata for role a"},
    {"no network",
     [](TufRepository& repository, RepositoryTransport& transport) {
       transport.on(repository.file_of("a"), testing::fails_with_error("network", "Could not resolve host"));
     },
     "network", "Could not resolve host"},
    {"other bytes",
     [](TufRepository& repository, RepositoryTransport&) {
       std::string text = repository.text_of("a");
       text.back() = ' ';
       repository.replace(repository.file_of("a"), text);
     },
     "hash_mismatch", "Metadata hash does not match its parent"},
    {"fewer bytes",
     [](TufRepository& repository, RepositoryTransport&) { repository.replace(repository.file_of("a"), "{}"); },
     "length_mismatch", "Metadata length does not match its parent"},
    {"more bytes",
     [](TufRepository& repository, RepositoryTransport&) {
       repository.replace(repository.file_of("a"), repository.text_of("a") + " ");
     },
     "size_limit", "Server sent more than the authenticated size limit"},
    {"signed by another",
     [](TufRepository& repository, RepositoryTransport&) { repository.role("a").signers = {TestKey::ed25519()}; },
     "signature_threshold", too_few},
    {"signed by nobody",
     [](TufRepository& repository, RepositoryTransport&) { repository.role("a").signers.emplace(); },
     "signature_threshold", too_few},
    {"expired",
     [](TufRepository& repository, RepositoryTransport&) { repository.role("a").expires = "2030-01-01T00:00:00Z"; },
     "expired_metadata", expired},
    {"another version",
     [](TufRepository& repository, RepositoryTransport&) {
       repository.role("a").edit = [](Json& body) { body["version"] = 77; };
     },
     "version_mismatch", "Metadata version does not match its parent"},
    {"another kind",
     [](TufRepository& repository, RepositoryTransport&) {
       repository.role("a").edit = [](Json& body) { body["_type"] = "snapshot"; };
     },
     "metadata_type", "Unexpected metadata type"},
    {"unsafe path",
     [](TufRepository& repository, RepositoryTransport&) { repository.role("a").add("../x", "content"); },
     "unsafe_path", "Path contains an unsafe component"},
    {"a key twice",
     [](TufRepository& repository, RepositoryTransport&) {
       repository.role("a").deface = [](std::string& text) { text.insert(1, R"("signed":{},)"); };
     },
     "duplicate_key", "JSON contains a duplicate object key"},
};

TEST_F(TargetSearches, AreNotTakenToASiblingByARoleThatFails) {
  add("a");
  const Json description = add("b").add("x", "of b");
  refreshed();
  expect_found("x", description, {"1.a.json", "1.b.json"});
  std::uint64_t version = 1;
  for (const Failing& failure : failing) {
    SCOPED_TRACE(failure.what);
    // A new version, which no client has stored.
    repository_.role("a").add("version", std::to_string(version));
    repository_.publish();
    failure.damage(repository_, transport_);
    repository_.publish();
    client_->refresh();
    expect_failure("x", failure.code, failure.message, {repository_.file_of("a")});
    // The role as it should be is had again.
    transport_.on(repository_.file_of("a"), {});
    TestRole& role = repository_.role("a");
    role.signers.reset();
    role.edit = {};
    role.deface = {};
    role.expires = "2035-01-01T00:00:00Z";
    role.targets.erase("../x");
    role.contents.erase("../x");
    role.add("version", "good " + std::to_string(++version));
    publish();
    expect_found("x", description, {repository_.file_of("a")});
  }
}

TEST_F(TargetSearches, LetNoRoleWidenItsOwnAuthority) {
  add("a");
  add("b", "a").add("x", "of b");
  refreshed();
  // Both roles have other keys, and the top level still trusts the first ones.
  repository_.targets().delegations[0].keys = repository_.role("a").keys;
  repository_.rotate("a");
  publish();
  expect_failure("x", "signature_threshold", too_few, {"2.a.json"});
}

TEST_F(TargetSearches, WantAsManySignaturesAsTheDelegatorAsksFor) {
  const TestKey first = TestKey::ed25519();
  const TestKey second = TestKey::of_scheme("ecdsa-sha2-nistp256");
  repository_.delegate("targets", {.name = "a", .paths = {"*"}, .keys = {first, second}, .threshold = 2});
  const Json description = repository_.role("a").add("x", "of a");
  repository_.role("a").keys = {first, second};
  repository_.role("a").signers = {first};
  refreshed();
  expect_failure("x", "signature_threshold", too_few, {"1.a.json"});
  repository_.role("a").signers.reset();
  publish();
  expect_found("x", description, {"2.a.json"});
}

TEST_F(TargetSearches, TrustDelegatedRolesByEveryScheme) {
  for (const char* scheme : {"rsassa-pss-sha512", "ecdsa-sha2-nistp521", "ml-dsa-65/1"}) {
    const std::string name = std::string("role of ") + scheme;
    add(name).add(scheme, "content");
    repository_.rotate(name, {TestKey::of_scheme(scheme)});
  }
  refreshed();
  for (const char* scheme : {"rsassa-pss-sha512", "ecdsa-sha2-nistp521", "ml-dsa-65/1"}) {
    EXPECT_EQ(client_->target(scheme), repository_.role(std::string("role of ") + scheme).targets.at(scheme));
  }
}

TEST_F(TargetSearches, AskForAStoredRoleOnlyWhenItIsStale) {
  const Json description = add("a").add("x", "of a");
  refreshed();
  expect_found("x", description, {"1.a.json"});
  EXPECT_EQ(cached_roles(), Names{cache_name("a")});
  EXPECT_EQ(cached("a"), repository_.text_of("a"));

  refreshed();
  expect_found("x", description, {});

  place_.root.write("data/trust/" + cache_name("a"), "damaged");
  expect_found("x", description, {"1.a.json"});
  EXPECT_EQ(cached("a"), repository_.text_of("a"));

  repository_.role("a").expires = "2034-01-01T00:00:00Z";
  publish();
  expect_found("x", description, {"2.a.json"});
  place_.now = parse_tuf_time("2034-01-01T00:00:00Z");
  client_->refresh();
  expect_failure("x", "expired_metadata", expired, {"2.a.json"});
}

TEST_F(TargetSearches, KeepWhatIsStoredOfARoleThatCannotBeVerified) {
  add("a").add("x", "of a");
  refreshed();
  client_->target("x");
  const std::string stored = cached("a");
  repository_.role("a").signers = {TestKey::ed25519()};
  publish();
  expect_failure("x", "signature_threshold", too_few, {"2.a.json"});
  EXPECT_EQ(cached("a"), stored);
}

TEST_F(TargetSearches, AskForRolesByTheirNamesAndStoreThemByTheirDigests) {
  const std::vector<std::string> names = {"a/b",
                                          "..",
                                          ".",
                                          "../../root",
                                          "%2e%2e%2f",
                                          "with blanks ",
                                          "Zoë",
                                          "名前",
                                          "a\\b",
                                          "a:b",
                                          "\"quoted\"",
                                          "tab\tline\n",
                                          "?x=1#y",
                                          "json",
                                          "root.json",
                                          "1.targets",
                                          "delegated-",
                                          "~",
                                          std::string("nul\0nul", 7),
                                          std::string(4096, 'n')};
  for (const std::string& name : names) {
    repository_.delegate("targets", {.name = name, .paths = {digest(name, "sha256")}})
        .add(digest(name, "sha256"), "of " + name);
  }
  refreshed();
  Names expected;
  for (const std::string& name : names) {
    const std::string path = digest(name, "sha256");
    expect_found(path, repository_.role(name).targets.at(path), {"1." + name + ".json"});
    EXPECT_EQ(transport_.requests().back().kind, RepositoryRequest::Kind::component) << name;
    EXPECT_EQ(transport_.requests().back().limit, repository_.text_of(name).size()) << name;
    EXPECT_EQ(cached(name), repository_.text_of(name)) << name;
    expected.push_back(cache_name(name));
  }
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(cached_roles(), expected);
  EXPECT_EQ(stored_names().size(), expected.size() + 4) << "beside the four top-level roles";
}

TEST_F(TargetSearches, RefuseANameThatIsTooLong) {
  repository_.delegate("targets", {.name = std::string(4097, 'n'), .paths = {"*"}});
  EXPECT_FAILURE(open().target("x"), "size_limit", "Delegated role name exceeds its bound");
  EXPECT_EQ(cached_roles(), Names());
}

TEST_F(TargetSearches, TellRolesApartWhoseNamesDifferOnlyInCase) {
  const Json lower = repository_.delegate("targets", {.name = "games", .paths = {"x"}}).add("x", "lower");
  const Json upper = repository_.delegate("targets", {.name = "Games", .paths = {"y"}}).add("y", "upper");
  refreshed();
  expect_found("x", lower, {"1.games.json"});
  expect_found("y", upper, {"1.Games.json"});
  EXPECT_EQ(cached_roles().size(), 2u);
  expect_found("x", lower, {});
  expect_found("y", upper, {});
}

TEST_F(TargetSearches, NameRolesWithoutTheirVersionsWhereTheRootSaysSo) {
  repository_.consistent = false;
  const Json description = add("a/b").add("x", "of a");
  refreshed();
  expect_found("x", description, {"a/b.json"});
}

TEST_F(TargetSearches, AskForARoleThatIsNamedLikeAVersionOfAnother) {
  const Json description = add("2.root").add("x", "of a role");
  const Json other = add("1.targets").add("y", "of another");
  refreshed();
  expect_found("x", description, {"1.2.root.json"});
  expect_found("y", other, {"1.1.targets.json"});
  EXPECT_EQ(place_.stored().at("root.json"), repository_.root_text());
}

TEST_F(TargetSearches, TakeNoRootForADelegatedRoleOfItsName) {
  repository_.consistent = false;
  repository_.lengths = false;
  repository_.hashes.clear();
  refreshed();
  const std::string root = repository_.root_text();
  add("1.root").add("x", "of a role");
  publish();
  repository_.replace("1.root.json", root);
  expect_failure("x", "metadata_type", "Unexpected metadata type", {"1.root.json"});
  EXPECT_EQ(cached_roles(), Names());
}

TEST_F(TargetSearches, FindAPathOfAnyBytes) {
  std::string bytes;
  for (int byte = 1; byte < 128; ++byte) {
    bytes += static_cast<char>(byte);
  }
  std::erase_if(bytes, [](char c) { return c == '/' || c == '\\' || c == ':'; });
  ASSERT_EQ(bytes.size(), 124u);
  const Names paths = {bytes, "Zoë/名前/\xf0\x9f\x8e\xae",
                       " ",   "...",
                       "a*",  "[a]",
                       "~",   std::string(255, 'a') + "/" + std::string(255, 'b')};
  for (const std::string& path : paths) {
    const std::string role = "role of " + digest(path, "sha256");
    repository_.delegate("targets", {.name = role, .path_hash_prefixes = {digest(path, "sha256")}}).add(path, path);
  }
  refreshed();
  for (const std::string& path : paths) {
    const std::string role = "role of " + digest(path, "sha256");
    expect_found(path, repository_.role(role).targets.at(path), {"1." + role + ".json"});
  }
  // No document can hold a path that is no UTF-8.
  expect_failure("\xff\xfe", "target_not_found", not_found("\xff\xfe"), {});
}

TEST_F(TargetSearches, RefuseAnUnsafePathBeforeAnythingElse) {
  open();
  for (const std::string& path :
       {std::string(), std::string("/a"), std::string("a\\b"), std::string("a\0b", 3), std::string(4097, 'a')}) {
    expect_failure(path, "unsafe_path", "Path must be a safe relative path", {});
  }
  for (const char* path : {"../x", "a/..", "a/./b", "a//b", "c:x"}) {
    expect_failure(path, "unsafe_path", "Path contains an unsafe component", {});
  }
  EXPECT_EQ(stored_names(), Names{"root.json"});
}

TEST_F(TargetSearches, RefreshOnceBeforeTheFirst) {
  const Json description = repository_.targets().add("x", "content");
  open();
  expect_found("x", description, {"2.root.json", "timestamp.json", "1.snapshot.json", "1.targets.json"});
  expect_found("x", description, {});
  expect_failure("y", "target_not_found", not_found("y"), {});
  repository_.targets().add("y", "more");
  repository_.publish();
  expect_failure("y", "target_not_found", not_found("y"), {});
  open();
  expect_found("x", description, {"2.root.json", "timestamp.json", "2.snapshot.json", "2.targets.json"});
}

TEST_F(TargetSearches, RefreshThoughWhatIsStoredWasLoaded) {
  const Json description = repository_.targets().add("x", "content");
  refreshed();
  open().load_selected_metadata();
  expect_found("x", description, {"2.root.json", "timestamp.json"});
  client_->load_selected_metadata();
  expect_found("x", description, {});
}

TEST_F(TargetSearches, LookAtNothingThatIsStoredOnceItIsTrusted) {
  const Json description = repository_.targets().add("x", "content");
  refreshed();
  std::filesystem::remove(place_.directory / "snapshot.json");
  std::filesystem::remove(place_.directory / "targets.json");
  expect_found("x", description, {});
}

TEST_F(TargetSearches, LoadWhatIsStoredAgainWhereThatHasFailed) {
  const Json description = repository_.targets().add("x", "content");
  refreshed();
  const std::filesystem::path snapshot = place_.directory / "snapshot.json";
  place_.root.write("set-aside", place_.stored().at("snapshot.json"));
  std::ofstream(snapshot) << "{";
  constexpr const char* damaged = "Stored snapshot metadata is malformed; preserve and restore trusted state";
  EXPECT_FAILURE(client_->load_selected_metadata(), "invalid_trusted_metadata", damaged);
  expect_failure("x", "invalid_trusted_metadata", damaged, {});
  std::ofstream(snapshot) << place_.root.read("set-aside");
  expect_found("x", description, {});
}

TEST_F(TargetSearches, KeepAPathOutOfADocumentThatTheirRefreshReplaces) {
  const Json description = repository_.targets().add("games/" + std::string(100, 'n'), "content");
  refreshed();
  open().load_selected_metadata();
  const auto& targets = client_->trusted().targets().at("signed").at("targets").get_ref<const Json::object_t&>();
  const std::string& path = targets.begin()->first;
  for (const char letter : {'a', 'b', 'y', 'z'}) {
    repository_.targets().add("games/" + std::string(100, letter), "other");
  }
  repository_.publish();
  EXPECT_EQ(client_->target(path), description);
}

TEST_F(TargetSearches, RefreshAgainAfterARefreshThatFailed) {
  const Json description = repository_.targets().add("x", "content");
  open();
  transport_.on("timestamp.json", testing::answers_with_status(503));
  for (int again = 0; again < 2; ++again) {
    expect_failure("x", "http_status", "Could not download timestamp metadata", {"2.root.json", "timestamp.json"});
  }
  transport_.on("timestamp.json", {});
  expect_found("x", description, {"2.root.json", "timestamp.json", "1.snapshot.json", "1.targets.json"});
}

TEST_F(TargetSearches, SeeNothingOfAVisitedRole) {
  const Json description = repository_.targets().add("x", "content");
  refreshed();
  const Json document = client_->trusted().targets();
  Visited visited = {"targets"};
  bool terminated = false;
  EXPECT_EQ(client_->visit("x", "targets", document, visited, terminated), std::nullopt);
  EXPECT_EQ(visited, Visited{"targets"});
  EXPECT_FALSE(terminated);
  EXPECT_EQ(client_->visit("x", "another", document, visited, terminated), description);
  EXPECT_EQ(visited, (Visited{"targets", "another"}));
}

TEST_F(TargetSearches, TellThatTheyWereTerminated) {
  add("a", "targets", true);
  add("b").add("x", "of b");
  refreshed();
  Visited visited;
  bool terminated = false;
  EXPECT_EQ(client_->visit("x", "targets", client_->trusted().targets(), visited, terminated), std::nullopt);
  EXPECT_TRUE(terminated);
  EXPECT_EQ(visited, (Visited{"targets", "a"}));
}

TEST_F(TargetSearches, GoNoFurtherThanOneRoleOnceTerminated) {
  add("a");
  add("b").add("x", "of b");
  refreshed();
  Visited visited;
  bool terminated = true;
  EXPECT_EQ(client_->visit("x", "targets", client_->trusted().targets(), visited, terminated), std::nullopt);
  EXPECT_EQ(visited, (Visited{"targets", "a"}));
  EXPECT_EQ(transport_.names(), Names{"1.a.json"});
}

TEST_F(TargetSearches, DoNotTerminateOnWhatTheyFind) {
  const Json description = add("a", "targets", true).add("x", "of a");
  refreshed();
  Visited visited;
  bool terminated = false;
  EXPECT_EQ(client_->visit("x", "targets", client_->trusted().targets(), visited, terminated), description);
  EXPECT_FALSE(terminated);
}

TEST_F(TargetSearches, CheckThePrefixesOfADocumentAgain) {
  add("a");
  refreshed();
  Json document = client_->trusted().targets();
  Json& delegation = document["signed"]["delegations"]["roles"][0];
  delegation.erase("paths");
  delegation["path_hash_prefixes"] = {"A"};
  Visited visited;
  bool terminated = false;
  EXPECT_FAILURE(client_->visit("x", "targets", document, visited, terminated), "invalid_metadata", bad_prefix);
  EXPECT_EQ(transport_.names(), Names());
}

bool covers(const Json& delegation, const std::string& text) {
  TargetPath path(text);
  return delegation_covers(delegation, path);
}

TEST(DelegationCovers, APathThatAnyPatternHasTheFormOf) {
  EXPECT_TRUE(covers({{"paths", {"b", "a*"}}}, "abc"));
  EXPECT_TRUE(covers({{"paths", {"a*", "b"}}}, "abc"));
  EXPECT_FALSE(covers({{"paths", {"b", "a"}}}, "abc"));
  EXPECT_FALSE(covers({{"paths", Json::array()}}, "abc"));
}

TEST(DelegationCovers, LooksAtNoPatternBehindOneThatFits) {
  const std::string longer(4097, 'a');
  EXPECT_TRUE(covers({{"paths", {"*", longer}}}, "abc"));
  EXPECT_FAILURE(covers({{"paths", {"b", longer}}}, "abc"), "size_limit", too_long);
  EXPECT_FAILURE(covers({{"paths", {longer, "*"}}}, "abc"), "size_limit", too_long);
}

TEST(DelegationCovers, APathWhoseDigestBeginsWithAnyPrefix) {
  // The digest of "abc" begins with ba7816bf.
  EXPECT_TRUE(covers({{"path_hash_prefixes", {"ba7816bf"}}}, "abc"));
  EXPECT_TRUE(covers({{"path_hash_prefixes", {"0", "b"}}}, "abc"));
  EXPECT_TRUE(covers({{"path_hash_prefixes", {digest("abc", "sha256")}}}, "abc"));
  EXPECT_FALSE(covers({{"path_hash_prefixes", {"ba7816be", "a7", "0"}}}, "abc"));
  EXPECT_FALSE(covers({{"path_hash_prefixes", Json::array()}}, "abc"));
}

TEST(DelegationCovers, RefusesABadPrefixUnlessAnotherBeforeItFits) {
  const std::string longer(65, 'b');
  for (const std::string& prefix : {std::string(), longer, std::string("B"), std::string("bA"), std::string("g"),
                                    std::string("b "), std::string("b\0", 2)}) {
    EXPECT_FAILURE(covers({{"path_hash_prefixes", {prefix}}}, "abc"), "invalid_metadata", bad_prefix) << prefix;
    EXPECT_FAILURE(covers({{"path_hash_prefixes", {"0", prefix, "b"}}}, "abc"), "invalid_metadata", bad_prefix)
        << prefix;
    EXPECT_TRUE(covers({{"path_hash_prefixes", {"0", "b", prefix}}}, "abc")) << prefix;
  }
}

TEST(RequireCheckable, WantsALengthAndAHash) {
  const Json hashes = {{"sha256", std::string(64, 'a')}};
  EXPECT_NO_THROW(require_checkable({{"length", 0}, {"hashes", hashes}}));
  EXPECT_FAILURE(require_checkable({{"hashes", hashes}}), "invalid_metadata", "File description must contain a length");
  EXPECT_FAILURE(require_checkable({{"length", -1}, {"hashes", hashes}}), "invalid_length",
                 "Length must be a nonnegative integer");
  EXPECT_FAILURE(require_checkable({{"length", 1}}), "invalid_hashes", no_hashes);
  EXPECT_FAILURE(require_checkable({{"length", 1}, {"hashes", Json::object()}}), "invalid_hashes", no_hashes);
  EXPECT_FAILURE(require_checkable({{"length", 1}, {"hashes", "text"}}), "invalid_hashes", no_hashes);
  EXPECT_FAILURE(require_checkable({{"length", 1}, {"hashes", {"sha256"}}}), "invalid_hashes", no_hashes);
}

}  // namespace
}  // namespace ravok::target_search_test
