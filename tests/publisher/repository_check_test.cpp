#include "publisher/repository/repository_check.hpp"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "publisher/checked_site.hpp"
#include "publisher/repository/repository_time.hpp"
#include "support/failure.hpp"
#include "support/with_environment.hpp"

namespace ravok {
namespace {

using testing::CheckedSite;
using testing::texts_of;
using Texts = std::vector<std::string>;

constexpr const char* missing = "The file is missing";

std::vector<std::string> roles_of(const RepositoryCheck& check) {
  std::vector<std::string> roles;
  for (const WalkedRole& role : check.walk.roles) {
    roles.push_back(role.name + " " + std::to_string(role.version) + " " + tuf_time_text(role.expires));
  }
  return roles;
}

std::vector<std::string> paths_of(const std::vector<ServedFile>& files) {
  std::vector<std::string> paths;
  for (const ServedFile& file : files) {
    paths.push_back(file.path + " " + std::to_string(file.length));
  }
  return paths;
}

TEST(RepositoryCheck, TellsWhatClientsFind) {
  CheckedSite site;
  site.publish();
  site.repository.rotate("root");
  site.publish();
  const RepositoryCheck check = site.check();
  EXPECT_EQ(texts_of(check.walk.problems), Texts());
  EXPECT_EQ(texts_of(check.walk.notices), Texts());
  EXPECT_TRUE(check.works());
  EXPECT_TRUE(check.walk.complete);
  EXPECT_EQ(check.walk.first_root, 1u);
  EXPECT_EQ(check.walk.newest_root, 2u);
  EXPECT_EQ(roles_of(check),
            (Texts{"root 2 2035-01-01T00:00:00Z", "timestamp 2 2030-02-01T00:00:00Z", "snapshot 1 2030-03-01T00:00:00Z",
                   "targets 1 2031-01-01T00:00:00Z", "games 1 2032-01-01T00:00:00Z"}));
  EXPECT_EQ(check.first_to_expire()->name, "timestamp");
  EXPECT_EQ(check.walk.roles.at(1).length, site.repository.text_of("timestamp").size());
  EXPECT_EQ(check.target_files, 4u);
  ASSERT_EQ(check.releases.size(), 2u);
  EXPECT_EQ(check.releases.at(0).kind + check.releases.at(1).kind, "launchergame");
  EXPECT_TRUE(check.is_listed);
  EXPECT_EQ(paths_of(check.superseded), Texts());
  EXPECT_EQ(paths_of(check.surplus), Texts());
}

TEST(RepositoryCheck, FailsFromTheSecondOnInWhichTheFirstRoleExpires) {
  for (const std::string role : {"root", "timestamp", "snapshot", "targets", "games"}) {
    CheckedSite site;
    site.repository.role(role).expires = "2030-01-15T12:00:00Z";
    site.publish();
    const RepositoryCheck before = site.check(site.options("2030-01-15T11:59:59Z"));
    EXPECT_TRUE(before.works()) << role;
    EXPECT_EQ(before.first_to_expire()->name, role);
    const RepositoryCheck after = site.check(site.options("2030-01-15T12:00:00Z"));
    EXPECT_FALSE(after.works()) << role;
    EXPECT_EQ(texts_of(after.walk.problems), Texts()) << "an expiry is no problem of its own";
    EXPECT_EQ(after.walk.roles.size(), 5u) << "what lies below an expired role is looked at all the same";
  }
}

TEST(RepositoryCheck, GoesOnFromAnOlderRootThatHasExpired) {
  CheckedSite site;
  site.repository.root().expires = "2029-01-01T00:00:00Z";
  site.publish();
  site.repository.root().expires = "2040-01-01T00:00:00Z";
  site.publish();
  EXPECT_TRUE(site.check().works());
}

TEST(RepositoryCheck, TellsOfEachRoleThatIsMissing) {
  for (const std::string role : {"timestamp", "snapshot", "targets", "games"}) {
    CheckedSite site;
    site.publish();
    const std::string file = site.metadata(role);
    site.remove(file);
    const RepositoryCheck check = site.check();
    EXPECT_FALSE(check.works());
    EXPECT_FALSE(check.walk.complete);
    EXPECT_FALSE(check.is_listed);
    EXPECT_EQ(texts_of(check.walk.problems), (Texts{role + " | " + file + " | http_status | " + missing}));
  }
}

TEST(RepositoryCheck, TellsOfEachRoleThatIsWronglySigned) {
  for (const std::string role : {"timestamp", "snapshot", "targets", "games"}) {
    CheckedSite site;
    site.repository.role(role).signers = std::vector{testing::TestKey::ed25519()};
    site.publish();
    const RepositoryCheck check = site.check();
    EXPECT_FALSE(check.works());
    ASSERT_EQ(check.walk.problems.size(), 1u) << role;
    EXPECT_EQ(check.walk.problems.front().code, "signature_threshold");
    EXPECT_EQ(check.walk.problems.front().role, role);
    EXPECT_EQ(check.walk.problems.front().file, site.metadata(role));
  }
}

TEST(RepositoryCheck, TellsOfARootThatIsWronglySignedAndOfOneOfAnotherVersion) {
  CheckedSite site;
  site.publish();
  site.repository.root().signers = std::vector{testing::TestKey::ed25519()};
  site.repository.root().expires = "2036-01-01T00:00:00Z";
  site.publish();
  RepositoryCheck check = site.check();
  ASSERT_EQ(check.walk.problems.size(), 1u);
  EXPECT_EQ(check.walk.problems.front().code, "signature_threshold");
  EXPECT_EQ(check.walk.problems.front().file, "tuf/metadata/2.root.json");

  site.replace("tuf/metadata/2.root.json", site.repository.root_text(1));
  check = site.check();
  ASSERT_EQ(check.walk.problems.size(), 1u);
  EXPECT_EQ(check.walk.problems.front().code, "invalid_version");
  EXPECT_EQ(check.walk.problems.front().role, "root");
}

TEST(RepositoryCheck, TellsOfEachRoleOfAnotherVersionThanItsParentSays) {
  for (const std::string role : {"snapshot", "targets", "games"}) {
    CheckedSite site;
    site.repository.lengths = false;
    site.repository.hashes = {};
    site.publish();
    const std::string old_file = site.metadata(role);
    site.repository.role(role).expires = "2031-06-01T00:00:00Z";
    site.publish();
    std::filesystem::copy_file(site.served / old_file, site.served / site.metadata(role),
                               std::filesystem::copy_options::overwrite_existing);
    const RepositoryCheck check = site.check();
    EXPECT_FALSE(check.works());
    ASSERT_EQ(check.walk.problems.size(), 1u) << role;
    EXPECT_EQ(check.walk.problems.front().code, "version_mismatch");
    EXPECT_EQ(check.walk.problems.front().role, role);
  }
}

TEST(RepositoryCheck, TellsOfEachRoleThatWasCutOrChanged) {
  for (const std::string role : {"snapshot", "targets", "games"}) {
    CheckedSite site;
    site.publish();
    const std::string text = site.repository.text_of(role);
    site.replace(site.metadata(role), text.substr(0, text.size() - 1));
    EXPECT_EQ(site.check().walk.problems.at(0).code, "length_mismatch") << role;
    site.replace(site.metadata(role), text.substr(0, text.size() - 1) + "?");
    EXPECT_EQ(site.check().walk.problems.at(0).code, "hash_mismatch") << role;
    site.replace(site.metadata(role), text + "?");
    EXPECT_EQ(site.check().walk.problems.at(0).code, "size_limit") << role;
    EXPECT_FALSE(site.check().works());
  }
}

TEST(RepositoryCheck, RefusesWhatIsTooLargeForAClient) {
  CheckedSite site;
  site.publish();
  CheckOptions options = site.options();
  const std::size_t size = site.repository.text_of("timestamp").size();
  options.limits.timestamp_bytes = size;
  EXPECT_TRUE(site.check(options).works());
  options.limits.timestamp_bytes = size - 1;
  EXPECT_EQ(texts_of(site.check(options).walk.problems),
            (Texts{"timestamp | tuf/metadata/timestamp.json | size_limit | Server sent more than the authenticated "
                   "size limit"}));
  options = site.options();
  options.limits.root_bytes = 10;
  EXPECT_EQ(texts_of(site.check(options).walk.problems), (Texts{"root |  | size_limit | File exceeds read limit"}));
}

TEST(RepositoryCheck, LetsAClientJudgeRootsThatItDoesNotReach) {
  CheckedSite site;
  site.publish();
  for (int i = 0; i < 3; ++i) {
    site.repository.rotate("timestamp");
    site.publish();
  }
  CheckOptions options = site.options();
  options.limits.root_rotations = 3;
  EXPECT_TRUE(site.check(options).works());
  options.limits.root_rotations = 2;
  const RepositoryCheck check = site.check(options);
  EXPECT_FALSE(check.works());
  EXPECT_EQ(check.walk.problems.at(0).code, "signature_threshold");
  EXPECT_EQ(check.walk.problems.at(0).role, "timestamp");
}

TEST(RepositoryCheck, TellsOfARootBehindAGap) {
  CheckedSite site;
  site.publish();
  for (int i = 0; i < 2; ++i) {
    site.repository.root().expires = "204" + std::to_string(i) + "-01-01T00:00:00Z";
    site.publish();
  }
  site.remove("tuf/metadata/2.root.json");
  const RepositoryCheck check = site.check();
  EXPECT_FALSE(check.works());
  EXPECT_EQ(texts_of(check.walk.problems),
            (Texts{"root | tuf/metadata/3.root.json | unreached_root | No client gets to this root: from version 1 on "
                   "it asks for version 2, which is not there"}));
}

TEST(RepositoryCheck, TellsOfTargetsThatAreMissingCutOrChanged) {
  CheckedSite site;
  site.publish();
  const std::string file = site.target("games/one.tar.zst");
  const auto problems = [&](CheckDepth depth) {
    return texts_of(site.check(site.options("2030-01-01T00:00:00Z", depth)).walk.problems);
  };
  const std::string about = "games | " + file + " | ";
  site.remove(file);
  EXPECT_EQ(problems(CheckDepth::whole), (Texts{about + "http_status | The file is missing"}));
  EXPECT_EQ(problems(CheckDepth::quick), problems(CheckDepth::whole));
  EXPECT_EQ(problems(CheckDepth::metadata), Texts());

  site.replace(file, site.game_archive.substr(1));
  const Texts cut = {about + "length_mismatch | Target length does not match signed metadata"};
  EXPECT_EQ(problems(CheckDepth::whole), cut);
  EXPECT_EQ(problems(CheckDepth::quick), cut);
  EXPECT_EQ(problems(CheckDepth::metadata), Texts());

  site.replace(file, site.game_archive.substr(1) + "?");
  EXPECT_EQ(problems(CheckDepth::whole), (Texts{about + "hash_mismatch | Target hash does not match signed metadata"}));
  EXPECT_EQ(problems(CheckDepth::quick), Texts());

  site.replace(file, site.game_archive);
  site.replace(site.target(site.launcher_path), "{}");
  EXPECT_EQ(problems(CheckDepth::quick), (Texts{"targets | " + site.target(site.launcher_path) +
                                                " | length_mismatch | Target length does not match signed metadata"}));
}

TEST(RepositoryCheck, ComparesEveryDigestThatWasSigned) {
  CheckedSite site;
  Json& description = site.repository.targets().add("file", "content", {"sha256", "sha512"});
  description["hashes"]["sha512"] = std::string(128, 'a');
  site.publish();
  EXPECT_EQ(site.check().walk.problems.at(0).code, "hash_mismatch");
}

TEST(RepositoryCheck, TellsOfManifestsThatClientsRefuse) {
  const auto problems = [](const std::string& path, const Json& manifest) {
    CheckedSite site;
    site.repository.targets().add(path, manifest.dump());
    site.publish();
    const RepositoryCheck check = site.check();
    EXPECT_FALSE(check.works());
    std::vector<std::string> texts = texts_of(check.walk.problems);
    EXPECT_EQ(texts.size(), 1u);
    return texts.empty() ? "" : texts.front().substr(texts.front().find(".json | ") + 8);
  };
  const CheckedSite sample;
  Json launcher = CheckedSite::launcher(sample.launcher_archive);
  const std::string other = launcher_manifest_target("macos-aarch64");
  EXPECT_EQ(problems(other, launcher),
            "launcher_incompatible | The manifest is for another platform than its path says");
  launcher["health_abi"] = 2;
  EXPECT_EQ(problems(sample.launcher_path, launcher).substr(0, 21), "launcher_incompatible");
  EXPECT_EQ(problems("bootstrap-linux-x86_64.manifest.json", CheckedSite::game(sample.launcher_archive)),
            "launcher_incompatible | Initial bootstrap schema or ABI is unsupported");
  Json bootstrap = CheckedSite::game(sample.launcher_archive);
  bootstrap["files"].at(0)["path"] = "bin/ravok-bootstrap";
  bootstrap["executable"] = "bin/ravok-bootstrap";
  bootstrap["kind"] = "ravok-bootstrap-release";
  bootstrap["bootstrap_abi"] = 1;
  bootstrap["application_schema"] = {{"minimum", 1}, {"maximum", 1}};
  bootstrap["runtime_lease_abi"] = 2;
  EXPECT_EQ(problems("bootstrap-linux-x86_64.manifest.json", bootstrap),
            "launcher_incompatible | Bootstrap updates require the current native lifetime contract");
  EXPECT_EQ(problems("other.manifest.json", Json::object()).substr(0, 16), "invalid_manifest");

  Json game = CheckedSite::game(sample.game_archive);
  game["archive"]["length"] = 1;
  EXPECT_EQ(problems("two.manifest.json", game),
            "content_mismatch | two.manifest.json names a file that is signed with another length or digest: "
            "games/one.tar.zst");
  game = CheckedSite::game(sample.launcher_archive);
  game["archive"]["length"] = sample.game_archive.size();
  EXPECT_EQ(problems("two.manifest.json", game).substr(0, 16), "content_mismatch");
  game["archive"]["target"] = "games/other.tar.zst";
  EXPECT_EQ(problems("two.manifest.json", game),
            "target_not_found | two.manifest.json names a file that is not a target: games/other.tar.zst");
}

TEST(RepositoryCheck, RefusesAManifestThatIsTooLongForAClient) {
  CheckedSite site;
  site.repository.targets().add("bootstrap-linux-x86_64.manifest.json", std::string(524'289, ' '));
  site.publish();
  EXPECT_EQ(site.check().walk.problems.at(0).code, "size_limit");
}

TEST(RepositoryCheck, ListsWhatNoClientAsksFor) {
  CheckedSite site;
  site.publish();
  const std::string old_snapshot = site.metadata("snapshot");
  const std::string old_targets = site.metadata("targets");
  const std::string old_archive = site.target("launcher-1.tar.zst");
  site.repository.targets().add("launcher-1.tar.zst", "new");
  site.repository.targets().add(site.launcher_path, CheckedSite::launcher("new").dump());
  const std::string old_manifest = site.target(site.launcher_path);
  site.publish();
  site.replace("tuf/metadata/9.targets.json", "12");
  site.replace("index.html", "1");
  std::filesystem::create_symlink("index.html", site.served / "tuf/targets/link");
  const auto size = [&](const std::string& file) {
    return file + " " + std::to_string(std::filesystem::file_size(site.served / file));
  };
  const RepositoryCheck check = site.check();
  EXPECT_TRUE(check.works());
  EXPECT_EQ(paths_of(check.superseded), (Texts{size(old_snapshot), size(old_targets)}));
  Texts surplus = {"index.html 1", "tuf/metadata/9.targets.json 2", size(old_archive), size(old_manifest),
                   "tuf/targets/link 0"};
  std::sort(surplus.begin(), surplus.end());
  EXPECT_EQ(paths_of(check.surplus), surplus);
}

TEST(RepositoryCheck, LooksOnlyBelowTheRepositoryInAFolderThatServesOtherThings) {
  CheckedSite site;
  site.publish();
  std::filesystem::rename(site.served, site.root / "site");
  site.root.write("site/index.html", "home");
  site.root.write("site/tuf/other", "12");
  const RepositoryCheck check = check_folder(site.root / "site", site.options(), {});
  EXPECT_EQ(paths_of(check.surplus), (Texts{"tuf/other 2"}));
}

TEST(RepositoryCheck, FindsTheFolderThatIsServedAndItsOldestRoot) {
  CheckedSite site;
  site.publish();
  EXPECT_EQ(served_folder(site.root.path()), site.served);
  EXPECT_EQ(served_folder(site.served), site.served);
  EXPECT_FAILURE(served_folder(site.root / "public/tuf"), "unsafe_path",
                 "There is no repository in " + (site.root / "public/tuf").native() +
                     ": it holds neither public/tuf/metadata nor tuf/metadata");
  EXPECT_EQ(first_root_in(site.served), site.repository.root_text(1));
  site.remove("tuf/metadata/1.root.json");
  EXPECT_FAILURE(first_root_in(site.served), "missing_root",
                 "There is no root document in " + (site.served / "tuf/metadata").native());
}

TEST(RepositoryCheck, TellsOfRolesAndTargetsThatNoClientFinds) {
  CheckedSite site;
  site.repository.role("games").add("elsewhere", "content");
  site.repository.role("games").add("launcher-1.tar.zst", site.launcher_archive);
  site.publish();
  const RepositoryCheck check = site.check();
  EXPECT_TRUE(check.works());
  EXPECT_EQ(
      texts_of(check.walk.notices),
      (Texts{"games |  | unreachable_target | Clients never find elsewhere in the role games: no delegation leads "
             "there",
             "games |  | unreachable_target | Clients never find launcher-1.tar.zst in the role games: the role "
             "targets describes it before"}));
}

TEST(RepositoryCheck, TellsOfADelegationThatNothingIsKnownOf) {
  CheckedSite site;
  site.repository.drop("games");
  site.publish();
  const RepositoryCheck check = site.check();
  EXPECT_FALSE(check.works());
  EXPECT_EQ(texts_of(check.walk.problems),
            (Texts{"games |  | missing_role | Delegated role is absent from the authenticated snapshot"}));
}

TEST(RepositoryCheck, TellsOfASearchThatIsTooLongForAClient) {
  CheckedSite site;
  site.publish();
  CheckOptions options = site.options();
  options.limits.delegations = 2;
  EXPECT_TRUE(site.check(options).works());
  options.limits.delegations = 1;
  const RepositoryCheck check = site.check(options);
  EXPECT_FALSE(check.works());
  EXPECT_EQ(texts_of(check.walk.problems).at(0),
            "games |  | delegation_limit | games/one.manifest.json: Repository delegation limit reached");
}

TEST(RepositoryCheck, ReadsARepositoryWithoutConsistentSnapshots) {
  CheckedSite site;
  site.repository.consistent = false;
  site.publish();
  const RepositoryCheck check = site.check();
  EXPECT_EQ(texts_of(check.walk.problems), Texts());
  EXPECT_EQ(paths_of(check.surplus), Texts());
  EXPECT_TRUE(check.works());
}

TEST(RepositoryCheck, EndsWhenItIsCalledOffAndChangesNothing) {
  CheckedSite site;
  site.publish();
  const std::vector<std::string> before = site.root.names();
  const testing::TemporaryRoot temporary;
  const testing::WithEnvironment where("TMPDIR", temporary.path());
  EXPECT_FAILURE(check_folder(site.served, site.options(), [](std::uint64_t, std::uint64_t) { return false; }),
                 "cancelled", "Operation cancelled at a safe boundary");
  int calls = 0;
  EXPECT_FAILURE(check_folder(site.served, site.options(), [&](std::uint64_t, std::uint64_t) { return ++calls < 10; }),
                 "cancelled", "Operation cancelled at a safe boundary");
  EXPECT_TRUE(site.check().works());
  EXPECT_EQ(site.root.names(), before);
  EXPECT_EQ(temporary.names(), Texts());
}

TEST(RepositoryCheck, ReadsNothingThroughALink) {
  CheckedSite site;
  site.publish();
  const std::filesystem::path file = site.served / site.metadata("targets");
  std::filesystem::rename(file, site.root / "elsewhere");
  std::filesystem::create_symlink(site.root / "elsewhere", file);
  const RepositoryCheck check = site.check();
  EXPECT_EQ(texts_of(check.walk.problems),
            (Texts{"targets | " + site.metadata("targets") + " | unsafe_path | A link is not read: " + file.native()}));
}

}  // namespace
}  // namespace ravok
