#include "publisher/repository/key_rotation.hpp"

#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "publisher/repository/repository_status.hpp"
#include "support/failure.hpp"
#include "support/file_calls.hpp"
#include "support/repository_place.hpp"
#include "support/tree_state.hpp"

namespace ravok::key_rotation_test {
namespace {

using testing::PlaceRoles;
using testing::RepositoryPlace;
using testing::same_tree;
using testing::tree_state;
using testing::TreeState;
using Names = std::vector<std::string>;

// A repository with one release, which a client has seen.
struct RotatedPlace : RepositoryPlace {
  explicit RotatedPlace(const PlaceRoles& roles = {}, const Names& signing = {"online"}) : RepositoryPlace(roles) {
    RepositoryFoundation foundation{folder, root / "root.json", {}, {}};
    for (const testing::PlaceRole& role : {roles.root, roles.targets, roles.snapshot, roles.timestamp}) {
      for (const std::string& name : role.keys) {
        foundation.public_keys.push_back(public_key(name));
      }
    }
    init_repository(foundation, signers(signing), now);
    release({launcher("1.0.0")}, signing);
    EXPECT_EQ(seen_build(), "1.0.0");
  }

  std::filesystem::path public_key(const std::string& name) const { return key(name).native() + ".pub"; }

  KeyRotation rotation(const std::set<std::string>& roles, const Names& add, const Names& remove) const {
    KeyRotation wanted;
    wanted.folder = folder;
    wanted.roles = roles;
    for (const std::string& name : add) {
      wanted.add.push_back(public_key(name));
    }
    wanted.remove = remove;
    return wanted;
  }

  RotationOutcome rotate(const KeyRotation& wanted, const Names& names) const {
    return rotate_keys(wanted, signers(names), now);
  }

  RepositoryOutcome sign(const Names& names) const { return sign_draft(folder, signers(names), now); }

  // The names of a role's keys in the root that is in force.
  Names keys_of(const std::string& role) const {
    const RepositoryFolder opened(folder, RepositoryFolder::Use::read);
    Names names;
    const RepositoryState state = opened.state();
    for (const Json& id : state.root().at("roles").at(role).at("keyids")) {
      names.push_back(opened.record().key_name(id.get<std::string>()));
    }
    return names;
  }

  // A client that has followed the repository from its first root and one that begins now see the same.
  void expect_followed(const std::string& build_id) const {
    EXPECT_EQ(seen_build(), build_id);
    EXPECT_EQ(seen_build("launcher-linux-x86_64.manifest.json", "new-" + std::to_string(++clients_)), build_id);
  }

  // The work fails so, and the repository's folder stays byte for byte as it is.
  void expect_refused(const std::function<void()>& work, const std::string& code, const std::string& message) const {
    const TreeState before = tree_state(folder);
    EXPECT_FAILURE(work(), code, message);
    EXPECT_TRUE(same_tree(tree_state(folder), before));
  }

 private:
  mutable int clients_ = 0;
};

class RotationOfARole : public ::testing::TestWithParam<std::string> {};

TEST_P(RotationOfARole, IsFollowedByClients) {
  const RotatedPlace place;
  const std::string& role = GetParam();
  const std::string old = role == "root" ? "root" : "online";
  const RotationOutcome outcome = place.rotate(place.rotation({role}, {"fresh"}, {old}), {"root", "online", "fresh"});
  EXPECT_TRUE(outcome.repository.published);
  EXPECT_EQ(place.keys_of(role), (Names{"fresh"}));
  EXPECT_EQ(place.versions().front(), 2u);
  place.expect_followed("1.0.0");
  // The repository goes on with the new key.
  EXPECT_TRUE(place.release({place.launcher("1.0.1")}, {"online", "fresh"}).repository.published);
  place.expect_followed("1.0.1");
}

INSTANTIATE_TEST_SUITE_P(EachRole, RotationOfARole, ::testing::Values("root", "targets", "snapshot", "timestamp"));

TEST(KeyRotation, OfAllRolesIsFollowedFromTheFirstRoot) {
  const RotatedPlace place;
  EXPECT_TRUE(
      place.rotate(place.rotation({"targets", "snapshot", "timestamp"}, {"fresh"}, {"online"}), {"root", "fresh"})
          .repository.published);
  EXPECT_TRUE(place.rotate(place.rotation({"root"}, {"chief"}, {"root"}), {"root", "chief"}).repository.published);
  for (const char* const role : {"targets", "snapshot", "timestamp"}) {
    EXPECT_EQ(place.keys_of(role), (Names{"fresh"}));
  }
  EXPECT_EQ(place.keys_of("root"), (Names{"chief"}));
  const RepositoryState state = RepositoryFolder(place.folder, RepositoryFolder::Use::read).state();
  EXPECT_EQ(state.root().at("keys").size(), 2u);
  place.expect_followed("1.0.0");
  EXPECT_TRUE(place.release({place.launcher("1.0.1")}, {"fresh"}).repository.published);
  place.expect_followed("1.0.1");
}

TEST(KeyRotation, ManyTimesIsFollowedByAClientThatHasMissedThemAll) {
  const RotatedPlace place;
  std::string old = "online";
  for (int number = 1; number <= 5; ++number) {
    const std::string fresh = "online-" + std::to_string(number);
    ASSERT_TRUE(place.rotate(place.rotation({"targets", "snapshot", "timestamp"}, {fresh}, {old}), {"root", fresh})
                    .repository.published);
    old = fresh;
  }
  EXPECT_EQ(place.versions().front(), 6u);
  place.expect_followed("1.0.0");
}

TEST(KeyRotation, PublishesNothingOfARoleWhoseKeyIsNotThereYet) {
  const RotatedPlace place;
  const RotationOutcome begun = place.rotate(place.rotation({"targets"}, {"fresh"}, {"online"}), {"root", "online"});
  EXPECT_FALSE(begun.repository.published);
  EXPECT_EQ(needs_text(begun.repository.needs), "the role targets needs 1 more signature, by fresh");
  EXPECT_EQ(place.versions(), (std::vector<std::uint64_t>{1, 2, 2, 2}));
  place.expect_followed("1.0.0");
  // Signing targets is all that was missing, but the two roles above them wait for their keys again.
  const RepositoryOutcome next = place.sign({"fresh"});
  EXPECT_FALSE(next.published);
  EXPECT_EQ(needs_text(next.needs), "the role snapshot needs 1 more signature, by online");
  EXPECT_TRUE(place.sign({"online"}).published);
  EXPECT_EQ(place.versions(), (std::vector<std::uint64_t>{2, 3, 3, 3}));
  place.expect_followed("1.0.0");
}

TEST(KeyRotation, LetsRootKeysSignThatNeverMeetOnOneMachine) {
  PlaceRoles roles;
  roles.root = {{"alice", "bob"}, 2};
  const RotatedPlace place(roles);
  // Each of three people has a folder and a key; what they hand on is the folder.
  const auto hand_on = [&](const std::string& from, const std::string& to) {
    std::filesystem::copy(place.root / from, place.root / to, std::filesystem::copy_options::recursive);
    return place.root / to;
  };
  KeyRotation wanted = place.rotation({"root"}, {"carol"}, {"bob"});
  wanted.folder = hand_on("repository", "at-alice");
  const RotationOutcome begun = rotate_keys(wanted, place.signers({"alice"}), place.now);
  EXPECT_FALSE(begun.repository.published);
  EXPECT_EQ(needs_text(begun.repository.needs),
            "the new root needs 1 more signature of the present root's keys, by bob; the new root needs 1 more "
            "signature of its own keys, by carol");
  const std::filesystem::path at_bob = hand_on("at-alice", "at-bob");
  const RepositoryOutcome second = sign_draft(at_bob, place.signers({"bob"}), place.now);
  EXPECT_FALSE(second.published);
  EXPECT_EQ(needs_text(second.needs), "the new root needs 1 more signature of its own keys, by carol");
  const std::filesystem::path at_carol = hand_on("at-bob", "at-carol");
  EXPECT_TRUE(sign_draft(at_carol, place.signers({"carol"}), place.now).published);

  place.expect_followed("1.0.0");
  EXPECT_EQ(place.versions().front(), 1u);
  std::filesystem::remove_all(place.folder);
  hand_on("at-carol", "repository");
  EXPECT_EQ(place.keys_of("root"), (Names{"alice", "carol"}));
  place.expect_followed("1.0.0");
}

TEST(KeyRotation, ReplacesALostRootKeyWhileEnoughAreLeft) {
  PlaceRoles roles;
  roles.root = {{"alice", "bob", "lost"}, 2};
  const RotatedPlace place(roles);
  EXPECT_TRUE(place.rotate(place.rotation({"root"}, {"carol"}, {"lost"}), {"alice", "bob"}).repository.published);
  EXPECT_EQ(place.keys_of("root"), (Names{"alice", "bob", "carol"}));
  place.expect_followed("1.0.0");
}

TEST(KeyRotation, NamesTheLostKeyThatItWaitsForInVain) {
  PlaceRoles roles;
  roles.root = {{"alice", "lost"}, 2};
  const RotatedPlace place(roles);
  const RotationOutcome outcome = place.rotate(place.rotation({"root"}, {"carol"}, {"lost"}), {"alice", "carol"});
  EXPECT_FALSE(outcome.repository.published);
  EXPECT_EQ(needs_text(outcome.repository.needs),
            "the new root needs 1 more signature of the present root's keys, by lost");
  place.expect_followed("1.0.0");
}

TEST(KeyRotation, ReplacesALostKeyOfARoleWithoutIt) {
  const RotatedPlace place;
  EXPECT_TRUE(
      place.rotate(place.rotation({"targets", "snapshot", "timestamp"}, {"fresh"}, {"online"}), {"root", "fresh"})
          .repository.published);
  place.expect_followed("1.0.0");
}

TEST(KeyRotation, ChangesAThresholdAlone) {
  const Names known = {
      "The role root has a single key: its loss strands every client, since no key of the repository can be replaced "
      "any more",
      "All 2 keys of the role timestamp must sign: the loss of one of them stops this role until the root's keys have "
      "replaced it"};
  Names warned = known;
  warned.emplace_back(
      "Clients that meet the new root before the new timestamp wait for it. To avoid that, refresh with --force and as "
      "many keys as are to sign first, and raise the threshold then");
  PlaceRoles roles;
  roles.timestamp = {{"online", "second"}, 1};
  for (const bool is_signed_by_both : {false, true}) {
    const RotatedPlace place(roles);
    if (is_signed_by_both) {
      refresh_repository({place.folder, {}, true}, place.signers({"online", "second"}), place.now);
    }
    KeyRotation wanted = place.rotation({"timestamp"}, {}, {});
    wanted.threshold = 2;
    const RotationOutcome outcome = place.rotate(wanted, {"root", "online", "second"});
    EXPECT_TRUE(outcome.repository.published);
    EXPECT_EQ(outcome.warnings, is_signed_by_both ? known : warned);
    place.expect_followed("1.0.0");
    wanted.threshold = 1;
    EXPECT_EQ(place.rotate(wanted, {"root", "online"}).warnings, (Names{known.front()}));
    place.expect_followed("1.0.0");
  }
}

TEST(KeyRotation, GivesTheRootMoreTimeEvenWhenItHasExpired) {
  PlaceRoles roles;
  roles.root_expires = "2031-01-01T00:00:00Z";
  RotatedPlace place(roles);
  KeyRotation wanted = place.rotation({}, {}, {});
  wanted.expires = "2040-01-01T00:00:00Z";
  EXPECT_TRUE(place.rotate(wanted, {"root"}).repository.published);
  place.expect_followed("1.0.0");
  place.now = parse_tuf_time("2040-01-01T00:00:00Z");
  place.expect_refused([&] { place.rotate(place.rotation({"root"}, {"carol"}, {}), {"root"}); }, "expired_metadata",
                       "The root document has expired on 2040-01-01; say with --expires when the next one does");
  wanted.expires = "2050-01-01T00:00:00Z";
  EXPECT_TRUE(place.rotate(wanted, {"root", "online"}).repository.published);
  place.expect_followed("1.0.0");
}

TEST(KeyRotation, LetsANewKeyHaveTheNameOfTheOldOne) {
  const RotatedPlace place;
  const std::filesystem::path file = place.root / "new/online";
  publish_key(file, "ed25519");
  KeyRotation wanted = place.rotation({"targets", "snapshot", "timestamp"}, {}, {"online"});
  wanted.add = {file.native() + ".pub"};
  SignerOptions options;
  options.keys = {place.key("root"), file};
  EXPECT_TRUE(rotate_keys(wanted, open_signers(options), place.now).repository.published);
  EXPECT_EQ(place.keys_of("targets"), (Names{"online"}));
  place.expect_followed("1.0.0");
}

TEST(KeyRotation, WarnsOfADocumentThatTheNewRootDoesNotAccept) {
  const std::string warning =
      "Clients that meet the new root before the new timestamp wait for it. To avoid that, add the new key first, "
      "refresh with --force and both, and remove the old one then";
  const std::string single =
      "The role root has a single key: its loss strands every client, since no key of the repository can be replaced "
      "any more";
  const std::map<std::string, std::string> others = {
      {"targets", "snapshot, timestamp"}, {"snapshot", "targets, timestamp"}, {"timestamp", "snapshot, targets"}};
  for (const auto& [role, kept] : others) {
    const RotatedPlace at_once;
    EXPECT_EQ(at_once.rotate(at_once.rotation({role}, {"fresh"}, {"online"}), {"root", "online", "fresh"}).warnings,
              (Names{single, "The key online leaves the role " + role + " and still speaks for " + kept, warning}));
  }
  const RotatedPlace in_steps;
  EXPECT_EQ(in_steps.rotate(in_steps.rotation({"timestamp"}, {"fresh"}, {}), {"root", "online"}).warnings,
            (Names{single}));
  refresh_repository({in_steps.folder, {}, true}, in_steps.signers({"online", "fresh"}), in_steps.now);
  EXPECT_EQ(in_steps.rotate(in_steps.rotation({"timestamp"}, {}, {"online"}), {"root", "fresh"}).warnings,
            (Names{single, "The key online leaves the role timestamp and still speaks for snapshot, targets"}));
  in_steps.expect_followed("1.0.0");
}

TEST(KeyRotation, WarnsOfAThresholdThatGrowsWithTheKeysThatJoin) {
  const RotatedPlace place;
  KeyRotation wanted = place.rotation({"timestamp"}, {"fresh"}, {});
  wanted.threshold = 2;
  const Names warnings = place.rotate(wanted, {"root", "online", "fresh"}).warnings;
  EXPECT_EQ(warnings.back(),
            "Clients that meet the new root before the new timestamp wait for it. To avoid that, add the new keys "
            "first, refresh with --force and as many keys as are to sign, and raise the threshold then");
  place.expect_followed("1.0.0");
  // As it says, in steps.
  const RotatedPlace in_steps;
  in_steps.rotate(in_steps.rotation({"timestamp"}, {"fresh"}, {}), {"root", "online"});
  refresh_repository({in_steps.folder, {}, true}, in_steps.signers({"online", "fresh"}), in_steps.now);
  wanted = in_steps.rotation({"timestamp"}, {}, {});
  wanted.threshold = 2;
  for (const std::string& warning : in_steps.rotate(wanted, {"root"}).warnings) {
    EXPECT_FALSE(warning.starts_with("Clients that meet")) << warning;
  }
  in_steps.expect_followed("1.0.0");
}

TEST(KeyRotation, WarnsOfAKeyThatStaysInAnotherRole) {
  const RotatedPlace place;
  const RotationOutcome outcome =
      place.rotate(place.rotation({"targets"}, {"fresh"}, {"online"}), {"root", "online", "fresh"});
  EXPECT_EQ(outcome.warnings.at(1), "The key online leaves the role targets and still speaks for snapshot, timestamp");
  place.expect_followed("1.0.0");
}

TEST(KeyRotation, RefusesWhatACarefulPersonWould) {
  const RotatedPlace place;
  const auto refused = [&](const KeyRotation& wanted, const std::string& code, const std::string& message) {
    place.expect_refused([&] { place.rotate(wanted, {"root", "online"}); }, code, message);
  };
  refused(place.rotation({"targets"}, {"online"}, {}), "known_key",
          "The role targets has the key of this file already: " + place.public_key("online").native());
  refused(place.rotation({"targets"}, {"fresh", "fresh"}, {}), "known_key",
          "The role targets has the key of this file already: " + place.public_key("fresh").native());
  refused(place.rotation({"targets"}, {"fresh"}, {"nobody"}), "unknown_key",
          "The role targets has no key nobody; it has online");
  refused(place.rotation({"root", "targets"}, {"fresh"}, {"online"}), "unknown_key",
          "The role root has no key online; it has root");
  refused(place.rotation({"targets"}, {}, {"online"}), "invalid_key",
          "The role targets would have no key left; give it another with --add");
  KeyRotation many = place.rotation({"targets"}, {"fresh"}, {});
  many.threshold = 3;
  refused(many, "invalid_threshold",
          "The role targets would have 2 keys, which cannot meet its threshold of 3; keep or add keys, or give another "
          "with --threshold");
  KeyRotation same = place.rotation({"targets"}, {}, {});
  same.threshold = 1;
  refused(same, "nothing_to_change", "The root would be the same as it is");
  many.threshold = 0;
  refused(many, "invalid_threshold", "A threshold is at least 1");
  refused(place.rotation({"mirrors"}, {"fresh"}, {}), "usage",
          "There is no role mirrors; there are root, targets, snapshot and timestamp");
  refused(place.rotation({}, {"fresh"}, {}), "usage", "--add, --remove and --threshold need a --role");
  refused(place.rotation({"root"}, {}, {}), "usage", "--role needs --add, --remove or --threshold");
  refused(place.rotation({}, {}, {}), "usage",
          "Say what is to change: a --role with --add, --remove or --threshold, or --expires");
  KeyRotation late = place.rotation({}, {}, {});
  late.expires = "2029-12-31T00:00:00Z";
  refused(late, "expired_metadata", "The root document would have expired already");
  late.expires = "tomorrow";
  refused(late, "invalid_expiry", "Expiry must use a UTC ISO-8601 timestamp");
}

TEST(KeyRotation, RefusesAKeyThatClientsCannotVerifyWith) {
  const RotatedPlace place;
  const auto add = [&](const std::string& scheme, const std::string& text) {
    const Json key = {{"keytype", "ed25519"}, {"scheme", scheme}, {"keyval", {{"public", text}}}};
    KeyRotation wanted = place.rotation({"targets"}, {}, {});
    wanted.add = {place.root.write("odd.pub", key.dump())};
    place.expect_refused(
        [&] {
          place.rotate(wanted, {"root", "online"});
        },
        "invalid_key", wanted.add.front().native() + ": Clients cannot verify with this public key");
  };
  add("rot13", std::string(64, 'a'));
  add("ed25519", std::string(62, 'a'));
  add("ed25519", std::string(64, 'x'));
  add("ecdsa-sha2-nistp256", std::string(64, 'a'));
}

TEST(KeyRotation, RefusesANameThatSeveralKeysHave) {
  const RotatedPlace place;
  const std::filesystem::path file = place.root / "new/online";
  publish_key(file, "ed25519");
  KeyRotation wanted = place.rotation({"targets"}, {}, {});
  wanted.add = {file.native() + ".pub"};
  ASSERT_TRUE(place.rotate(wanted, {"root", "online"}).repository.published);
  const std::string first = key_id(read_public_key(place.public_key("online")));
  const std::string second = key_id(read_public_key(file));
  place.expect_refused(
      [&] { place.rotate(place.rotation({"targets"}, {}, {"online"}), {"root"}); }, "ambiguous_key",
      "Several keys of the role targets have the name online; give the identifier of one: " + first + ", " + second);
  EXPECT_TRUE(place.rotate(place.rotation({"targets"}, {}, {second}), {"root", "online"}).repository.published);
  place.expect_followed("1.0.0");
}

TEST(KeyRotation, WaitsForOneRotationAtATime) {
  const RotatedPlace place;
  const KeyRotation wanted = place.rotation({"targets"}, {"fresh"}, {});
  ASSERT_FALSE(place.rotate(wanted, {"online"}).repository.published);
  const std::string pending =
      "A draft of 'rotate' waits: the new root needs 1 more signature of the present root's keys, by root; the new "
      "root needs 1 more signature of its own keys, by root. Sign it with 'ravok-publish repository sign', or remove "
      "it with 'ravok-publish repository discard'";
  place.expect_refused([&] { place.rotate(place.rotation({"targets"}, {"other"}, {}), {"root"}); }, "draft_pending",
                       pending);
  place.expect_refused([&] { place.release({place.launcher("1.0.1")}); }, "draft_pending", pending);
  // The same again goes on with what waits.
  EXPECT_TRUE(place.rotate(wanted, {"root", "online"}).repository.published);
  place.expect_followed("1.0.0");
}

TEST(KeyRotation, GoesOnWhereASignerHasFailed) {
  for (std::size_t good = 0;; ++good) {
    const RotatedPlace place;
    const KeyRotation wanted = place.rotation({"targets", "snapshot", "timestamp"}, {"fresh"}, {"online"});
    std::vector<Signer> signers = place.signers({"root", "online", "fresh"});
    std::size_t made = 0;
    for (Signer& signer : signers) {
      signer.sign = [&made, good, sign = signer.sign](std::string_view payload) {
        require(made++ < good, "signer_failed", "The token is locked");
        return sign(payload);
      };
    }
    const auto failure = testing::failure_of([&] { rotate_keys(wanted, signers, place.now); });
    if (!failure) {
      EXPECT_EQ(good, 4u);
      break;
    }
    EXPECT_EQ(failure->code, "signer_failed");
    EXPECT_EQ(place.versions().front(), 1u);
    EXPECT_EQ(place.seen_build(), "1.0.0");
    made = 0;
    const RotationOutcome again = place.rotate(wanted, {"root", "online", "fresh"});
    EXPECT_TRUE(again.repository.published);
    place.expect_followed("1.0.0");
  }
}

// New keys sign beside the old ones before these leave, so that no client ever meets a document that it refuses.
TEST(KeyRotation, OfKeysThatHaveSignedTogetherNeverMakesAClientWait) {
  const RotatedPlace place;
  const std::set<std::string> online = {"targets", "snapshot", "timestamp"};
  EXPECT_EQ(place.rotate(place.rotation(online, {"fresh"}, {}), {"root"}).repository.roles, (Names{"root"}));
  EXPECT_TRUE(place.release({place.launcher("1.0.1")}, {"online", "fresh"}).repository.published);
  const RotationOutcome last = place.rotate(place.rotation(online, {}, {"online"}), {"root"});
  EXPECT_TRUE(last.repository.published);
  EXPECT_EQ(last.repository.roles, (Names{"root"}));
  place.expect_followed("1.0.1");
  EXPECT_TRUE(place.release({place.launcher("1.0.2")}, {"fresh"}).repository.published);
  place.expect_followed("1.0.2");
}

TEST(KeyRotation, OfKeysThatARefreshHasLetSignTogetherNeverMakesAClientWait) {
  const RotatedPlace place;
  const std::set<std::string> online = {"targets", "snapshot", "timestamp"};
  ASSERT_TRUE(place.rotate(place.rotation(online, {"fresh"}, {}), {"root"}).repository.published);
  const auto refresh = [&](const Names& names) {
    return refresh_repository({place.folder, {}, true}, place.signers(names), place.now).repository.roles;
  };
  EXPECT_EQ(refresh({"online"}), (Names{"timestamp"}));
  EXPECT_EQ(refresh({"online", "fresh"}), (Names{"targets", "snapshot", "timestamp"}));
  // Once both have signed, there is nothing but the timestamp to make.
  EXPECT_EQ(refresh({"online", "fresh"}), (Names{"timestamp"}));
  const RotationOutcome last = place.rotate(place.rotation(online, {}, {"online"}), {"root"});
  EXPECT_TRUE(last.repository.published);
  EXPECT_EQ(last.repository.roles, (Names{"root"}));
  place.expect_followed("1.0.0");
}

class InterruptedRotation : public ::testing::TestWithParam<std::string> {};

// At every call that makes a name or flushes one, the run is broken off; the same command again ends it.
TEST_P(InterruptedRotation, IsFinishedByTheSameCommand) {
  const RotatedPlace place;
  const KeyRotation wanted = place.rotation({"targets", "snapshot", "timestamp"}, {"fresh"}, {"online"});
  const std::vector<Signer> signers = place.signers({"root", "fresh"});
  std::filesystem::copy(place.folder, place.root / "before", std::filesystem::copy_options::recursive);
  int broken_off = 0;
  int waited = 0;
  for (bool is_whole = false; !is_whole; ++broken_off) {
    std::filesystem::remove_all(place.folder);
    std::filesystem::copy(place.root / "before", place.folder, std::filesystem::copy_options::recursive);
    {
      const testing::Planned planned(testing::failing(GetParam(), EIO, broken_off + 1));
      is_whole = !testing::failure_of([&] { rotate_keys(wanted, signers, place.now); });
    }
    const std::string client = GetParam() + std::to_string(broken_off);
    // A client that meets the new root before the documents that its keys have signed waits for them.
    const auto refused = testing::failure_of(
        [&] { EXPECT_EQ(place.seen_build("launcher-linux-x86_64.manifest.json", client), "1.0.0"); });
    if (refused) {
      EXPECT_EQ(refused->code, "signature_threshold") << refused->what();
      EXPECT_FALSE(is_whole);
      ++waited;
    }
    if (!is_whole) {
      const auto failure = testing::failure_of([&] { rotate_keys(wanted, signers, place.now); });
      if (failure) {
        // Only the removal of the draft was left, and that is done.
        EXPECT_EQ(failure->code, "unknown_key") << failure->what();
      }
    }
    EXPECT_EQ(place.keys_of("targets"), (Names{"fresh"})) << broken_off;
    EXPECT_FALSE(std::filesystem::exists(place.folder / "draft/draft.json"));
    EXPECT_EQ(place.seen_build("launcher-linux-x86_64.manifest.json", client), "1.0.0");
    // The root is remembered at once, or else by the next command.
    refresh_repository({place.folder, {}, false}, place.signers({"fresh"}), place.now);
    EXPECT_TRUE(RepositoryFolder(place.folder, RepositoryFolder::Use::read).record().roots.contains(2)) << broken_off;
  }
  EXPECT_GT(broken_off, 5);
  EXPECT_GT(broken_off, 2 * waited);
}

INSTANTIATE_TEST_SUITE_P(AtEachCall, InterruptedRotation, ::testing::Values("rename", "fsync", "unlink"));

TEST(SignDraft, RefusesAKeyOfNobodyAndAFolderWhereNothingWaits) {
  const RotatedPlace place;
  place.expect_refused([&] { place.sign({"root"}); }, "no_draft", "Nothing waits for signatures in this repository");
  ASSERT_FALSE(place.rotate(place.rotation({"targets"}, {"fresh"}, {}), {"online"}).repository.published);
  place.expect_refused([&] { place.sign({"stranger"}); }, "wrong_key",
                       "The key stranger speaks for no role of this repository; what waits is this: the new root "
                       "needs 1 more signature of the present root's keys, by root; the new root needs 1 more "
                       "signature of its own keys, by root");
}

TEST(SignDraft, AddsNoSignatureTwice) {
  PlaceRoles roles;
  roles.root = {{"alice", "bob"}, 2};
  const RotatedPlace place(roles);
  ASSERT_FALSE(place.rotate(place.rotation({"targets"}, {"fresh"}, {}), {"alice"}).repository.published);
  const RepositoryOutcome again = place.sign({"alice"});
  EXPECT_FALSE(again.published);
  EXPECT_TRUE(again.signatures.empty());
  EXPECT_TRUE(place.sign({"bob", "online"}).published);
  place.expect_followed("1.0.0");
}

TEST(SignDraft, ReplacesASignatureThatWasSpoiled) {
  PlaceRoles roles;
  roles.root = {{"alice", "bob"}, 2};
  const RotatedPlace place(roles);
  ASSERT_FALSE(place.rotate(place.rotation({"targets"}, {"fresh"}, {}), {"alice"}).repository.published);
  Json document = Json::parse(place.root.read("repository/draft/2.root.json"));
  document["signatures"][0]["sig"] = std::string(128, '0');
  place.root.write("repository/draft/2.root.json", document.dump());
  EXPECT_EQ(place.sign({"alice"}).signatures.size(), 1u);
  EXPECT_TRUE(place.sign({"bob", "online"}).published);
  place.expect_followed("1.0.0");
}

TEST(SignDraft, FitsARotationToWhatARefreshHasPublishedMeanwhile) {
  PlaceRoles roles;
  roles.root = {{"alice", "bob"}, 2};
  RotatedPlace place(roles);
  ASSERT_FALSE(
      place.rotate(place.rotation({"timestamp"}, {"fresh"}, {"online"}), {"alice", "online"}).repository.published);
  place.now = days_after(place.now, 10);
  ASSERT_TRUE(place.refresh().repository.published);
  EXPECT_TRUE(place.sign({"bob", "fresh"}).published);
  EXPECT_EQ(place.keys_of("timestamp"), (Names{"fresh"}));
  place.expect_followed("1.0.0");
}

TEST(SignDraft, MakesAnewWhatTheNextRootDoesNotAcceptOfWhatARefreshHasPublished) {
  PlaceRoles roles;
  roles.root = {{"alice", "bob"}, 2};
  RotatedPlace place(roles);
  ASSERT_TRUE(place.rotate(place.rotation({"timestamp"}, {"fresh"}, {}), {"alice", "bob"}).repository.published);
  refresh_repository({place.folder, {}, true}, place.signers({"online", "fresh"}), place.now);
  const RotationOutcome begun = place.rotate(place.rotation({"timestamp"}, {}, {"online"}), {"alice"});
  EXPECT_EQ(begun.repository.roles, (Names{"root"}));
  place.now = days_after(place.now, 10);
  ASSERT_TRUE(place.refresh({"online"}).repository.published);
  const RepositoryOutcome next = place.sign({"bob"});
  EXPECT_FALSE(next.published);
  EXPECT_EQ(needs_text(next.needs), "the role timestamp needs 1 more signature, by fresh");
  place.expect_followed("1.0.0");
  EXPECT_TRUE(place.sign({"fresh"}).published);
  EXPECT_EQ(place.keys_of("timestamp"), (Names{"fresh"}));
  place.expect_followed("1.0.0");
}

TEST(SignDraft, MakesAnewWhatHasExpiredWhileItWaited) {
  PlaceRoles roles;
  roles.root = {{"alice", "bob"}, 2};
  RotatedPlace place(roles);
  ASSERT_FALSE(place.rotate(place.rotation({"root"}, {"carol"}, {}), {"alice", "carol"}).repository.published);
  place.now = days_after(place.now, 40);
  const RepositoryOutcome next = place.sign({"bob"});
  EXPECT_EQ(next.roles, (Names{"root", "snapshot", "timestamp"}));
  EXPECT_EQ(needs_text(next.needs), "the role snapshot needs 1 more signature, by online");
  EXPECT_TRUE(place.sign({"online"}).published);
  place.expect_followed("1.0.0");
}

TEST(RepositoryStatus, TellsWhoSignsWhatAndUntilWhen) {
  const RotatedPlace place;
  const RepositoryStatus status = repository_status(place.folder, place.now);
  ASSERT_EQ(status.roles.size(), 4u);
  EXPECT_EQ(status.roles[0].role, "root");
  EXPECT_EQ(status.roles[0].threshold, 1u);
  EXPECT_EQ(status.roles[3].role, "timestamp");
  EXPECT_EQ(status.roles[3].version, 2u);
  EXPECT_EQ(status.roles[3].days_left, 14);
  EXPECT_EQ(status.roles[3].signed_by, (Names{"online"}));
  ASSERT_EQ(status.roles[3].keys.size(), 1u);
  EXPECT_EQ(status.roles[3].keys[0].name, "online");
  EXPECT_EQ(status.roles[3].keys[0].scheme, "ed25519");
  EXPECT_EQ(status.roles[3].keys[0].id, key_id(read_public_key(place.public_key("online"))));
  EXPECT_FALSE(status.draft);
  EXPECT_FALSE(status.is_interrupted);
  EXPECT_EQ(status.warnings.size(), 1u);
  EXPECT_EQ(repository_status(place.folder, days_after(place.now, 14)).roles[3].days_left, 0);
  EXPECT_EQ(repository_status(place.folder, days_after(place.now, 15)).roles[3].days_left, -1);
}

// It takes no lock, so what it reads may change under it.
TEST(RepositoryStatus, IsReadOnceMoreWhereAReadingFails) {
  const RotatedPlace place;
  const testing::Planned planned(testing::failing("open", ENOENT, 3));
  EXPECT_EQ(repository_status(place.folder, place.now).roles.size(), 4u);
  EXPECT_TRUE(planned.happened());
}

TEST(RepositoryStatus, NamesWhoseSignatureIsMissing) {
  PlaceRoles roles;
  roles.root = {{"alice", "bob"}, 2};
  const RotatedPlace place(roles);
  ASSERT_FALSE(place.rotate(place.rotation({"root"}, {"carol"}, {"bob"}), {"alice"}).repository.published);
  const TreeState before = tree_state(place.folder);
  const RepositoryStatus status = repository_status(place.folder, place.now);
  EXPECT_TRUE(same_tree(tree_state(place.folder), before));
  ASSERT_TRUE(status.draft);
  EXPECT_EQ(status.draft->action, "rotate");
  EXPECT_FALSE(status.draft->is_stale);
  ASSERT_EQ(status.draft->documents.size(), 1u);
  const DraftDocument& root = status.draft->documents[0];
  EXPECT_TRUE(root.is_made);
  EXPECT_EQ(root.version, 2u);
  ASSERT_EQ(root.signatures.size(), 2u);
  EXPECT_TRUE(root.signatures[0].by_former_root);
  EXPECT_EQ(root.signatures[0].signed_by, (Names{"alice"}));
  EXPECT_EQ(root.signatures[0].waiting_for, (Names{"bob"}));
  EXPECT_FALSE(root.signatures[1].by_former_root);
  EXPECT_EQ(root.signatures[1].waiting_for, (Names{"carol"}));
}

}  // namespace
}  // namespace ravok::key_rotation_test
