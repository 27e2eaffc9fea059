// What every version's publisher has written: read, used and carried on by this one.

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/download/installed_repository.hpp"
#include "artefacts/artefact_builds.hpp"
#include "artefacts/kept_client.hpp"
#include "artefacts/kept_folder.hpp"
#include "domain/bootstrap_contract.hpp"
#include "domain/crypto.hpp"
#include "domain/game_manifest.hpp"
#include "domain/launcher_contract.hpp"
#include "domain/signature.hpp"
#include "domain/signature_scheme.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/process/native_platform.hpp"
#include "platform/snapshot/snapshot_archive.hpp"
#include "platform/snapshot/snapshot_tree.hpp"
#include "publisher/repository/repository_time.hpp"
#include "publisher/signing/file_signature.hpp"
#include "publisher/signing/publish_key.hpp"
#include "support/bytes_of.hpp"
#include "support/failure.hpp"
#include "support/process.hpp"
#include "support/tree_state.hpp"

namespace ravok::kept_publications_test {
namespace {

using testing::KeptFolder;
using testing::KeptRepository;
using testing::KeptVersion;
using testing::ProgramResult;
using Arguments = std::vector<std::string>;

Json publish(Arguments arguments) {
  arguments.push_back("--json");
  const ProgramResult result = testing::run_program({RAVOK_PUBLISH, arguments, {}, ""});
  EXPECT_EQ(result.exit_code, 0) << result.output << result.errors;
  return Json::parse(result.output);
}

// What a client that has followed the repository says of a target.
Json target_of(const KeptFolder& kept, const std::string& trust, const std::string& target) {
  KeptRepository repository(kept / "repository");
  TufClient client(kept / trust, repository, repository, installed_tuf_limits(), present_tuf_time);
  client.refresh();
  return client.target(target);
}

// A client that begins with a repository's first root.
void begin_client(const KeptFolder& kept, const std::string& trust) {
  private_directory(kept / trust);
  TufClient::initialize(kept / trust, kept.read("repository/public/tuf/metadata/1.root.json"));
}

std::string build_in(const Json& target) { return text_at(target.at("custom"), "build_id"); }

template <typename Manifest>
void expect_unpacks(const KeptFolder& kept, const std::string& kind, const Manifest& manifest) {
  const std::filesystem::path archive = kept / (kind + "/out") / manifest.target;
  const std::filesystem::path tree = kept / ("unpacked-" + kind);
  extract_snapshot(manifest, archive, tree, {}, nullptr);
  verify_snapshot_tree(manifest, tree, {});
  // An unpacked tree is private, so only what may be executed is left of the modes.
  for (const auto& entry : std::filesystem::recursive_directory_iterator(kept / (kind + "/tree"))) {
    const std::filesystem::path unpacked = tree / entry.path().lexically_relative(kept / (kind + "/tree"));
    ASSERT_TRUE(std::filesystem::exists(unpacked)) << unpacked;
    if (entry.is_regular_file()) {
      EXPECT_EQ(testing::bytes_of(unpacked), testing::bytes_of(entry.path()));
      constexpr auto executable = std::filesystem::perms::owner_exec;
      EXPECT_EQ(std::filesystem::status(unpacked).permissions() & executable,
                entry.status().permissions() & executable);
    }
  }
}

Json manifest_in(const KeptFolder& kept, const std::string& folder) {
  for (const auto& entry : std::filesystem::directory_iterator(kept / folder)) {
    if (entry.path().native().ends_with(".manifest.json")) {
      return Json::parse(testing::bytes_of(entry.path()));
    }
  }
  return nullptr;
}

TEST(KeptPublications, SnapshotsUnpackToTheTreesTheyWereMadeOf) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptFolder kept(version, "snapshots");
    const LauncherManifest launcher = LauncherManifest::parse(manifest_in(kept, "launcher/out"));
    EXPECT_EQ(launcher.build_id, "1.0.0");
    EXPECT_EQ(launcher.runtime_helpers, (decltype(launcher.runtime_helpers){"bin/ravok-maintenance"}));
    expect_unpacks(kept, "launcher", launcher);

    const SnapshotManifest bootstrap = SnapshotManifest::parse(manifest_in(kept, "bootstrap/out"));
    validate_bootstrap_contract(bootstrap);
    EXPECT_EQ(bootstrap.build_id, "bootstrap-1");
    expect_unpacks(kept, "bootstrap", bootstrap);

    const GameManifest game = GameManifest::parse(manifest_in(kept, "game/out"));
    EXPECT_EQ(game.game_id, "first-game");
    EXPECT_EQ(game.display_name, "The First Game");
    EXPECT_EQ(game.presentation.tagline, "Play it");
    EXPECT_TRUE(game.presentation.artwork);
    EXPECT_EQ(game.release_notes, "What is new in game-1\n");
    EXPECT_TRUE(game.sdk_required);
    expect_unpacks(kept, "game", game);
  }
}

TEST(KeptPublications, KeysSignAndAreKnownByTheirIdentifiers) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptFolder kept(version, "keys");
    SignerOptions options;
    options.passphrase_file = kept / "passphrase";
    std::vector<Json> keys;
    std::set<std::string> schemes;
    for (const auto& entry : std::filesystem::directory_iterator(kept.path())) {
      if (entry.path().extension() != ".pub") {
        continue;
      }
      const std::filesystem::path file = std::filesystem::path(entry.path()).replace_extension();
      options.keys.push_back(file);
      keys.push_back(read_public_key(entry.path()));
      schemes.insert(text_at(keys.back(), "scheme"));
      EXPECT_TRUE(holds_private_key(file));
    }
    for (const SignatureScheme& scheme : signature_schemes) {
      if (version.version == RAVOK_VERSION) {
        EXPECT_TRUE(schemes.contains(std::string(scheme.name))) << scheme.name;
      }
    }
    // What was signed then is still proved by all of them, and another file is not.
    const std::filesystem::path product = kept / "product.tar.gz";
    const std::string signature = kept.read("product.tar.gz.sig");
    EXPECT_EQ(text_at(verify_file(product, signature, keys, {}), "sha256"),
              digest(kept.read("product.tar.gz"), "sha256"));
    const std::vector<Signer> signers = open_signers(options);
    ASSERT_EQ(signers.size(), keys.size());
    EXPECT_GE(signers.size(), 11u);
    for (std::size_t i = 0; i < signers.size(); ++i) {
      EXPECT_EQ(signers[i].key, keys[i]);
      EXPECT_NE(signature.find(signers[i].id), std::string::npos);
    }
    // They sign what this version writes.
    const std::string again = sign_file(product, signers, {});
    EXPECT_EQ(verify_file(product, again, keys, {}), verify_file(product, signature, keys, {}));
    std::filesystem::resize_file(product, 299);
    EXPECT_EQ(testing::failure_of([&] { verify_file(product, signature, keys, {}); })->code, "content_mismatch");
  }
}

TEST(KeptPublications, RepositoriesAreFollowedAndGoOn) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptFolder kept(version, "repository");
    const std::string launcher = launcher_manifest_target(native_platform());
    begin_client(kept, "client");
    // Through the change of the timestamp's key, to the newest release.
    EXPECT_EQ(build_in(target_of(kept, "client", launcher)), "1.4.0");
    EXPECT_EQ(Json::parse(kept.read("client/root.json")).at("signed").at("version"), 2);
    EXPECT_EQ(publish({"repository", "check", kept / "repository"}).at("repository").at("problems"), Json::array());
    const Json status = publish({"repository", "status", kept / "repository"});
    for (const auto& [role, facts] : status.at("roles").items()) {
      EXPECT_TRUE(facts.at("document").at("problem").is_null()) << role;
    }

    const auto signed_by = [&](Arguments arguments) {
      for (const char* const role : {"targets", "snapshot", "timestamp-2"}) {
        arguments.insert(arguments.end(), {"--key", kept / "keys" / role});
      }
      return arguments;
    };
    // One release is taken back, and another one made.
    publish(signed_by({"repository", "withdraw", kept / "repository", "--build", "1.4.0"}));
    EXPECT_NE(build_in(target_of(kept, "client", launcher)), "1.4.0");
    const KeptFolder snapshots(version, "snapshots");
    publish({"snapshot", snapshots / "launcher/tree", "--kind", "launcher", "--build-id", "9.0.0", "--executable",
             "bin/ravok", "--gui-executable", "bin/ravok-gui", "--helper", "maintenance=bin/ravok-maintenance",
             "--output", kept / "out"});
    publish(signed_by({"repository", "release", kept / "repository", "--manifest", kept / "out" / launcher}));
    EXPECT_EQ(build_in(target_of(kept, "client", launcher)), "9.0.0");
    // The encrypted key of the root still changes keys.
    publish(signed_by({"repository", "rotate", kept / "repository", "--role", "snapshot", "--add",
                       kept / "keys/timestamp.pub", "--key", kept / "keys/root", "--passphrase-file",
                       kept / "passphrase"}));
    EXPECT_EQ(build_in(target_of(kept, "client", launcher)), "9.0.0");
    EXPECT_EQ(Json::parse(kept.read("client/root.json")).at("signed").at("version"), 3);
    publish(signed_by({"repository", "refresh", kept / "repository", "--force"}));
    begin_client(kept, "new-client");
    EXPECT_EQ(build_in(target_of(kept, "new-client", launcher)), "9.0.0");
  }
}

TEST(KeptPublications, DraftsAreSignedToTheirEnd) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptFolder kept(version, "repository-draft");
    begin_client(kept, "client");
    target_of(kept, "client", launcher_manifest_target(native_platform()));
    publish({"repository", "sign", kept / "repository", "--key", kept / "keys/root", "--passphrase-file",
             kept / "passphrase", "--key", kept / "keys/snapshot", "--key", kept / "keys/timestamp", "--key",
             kept / "keys/timestamp-2"});
    EXPECT_FALSE(std::filesystem::exists(kept / "repository/draft"));
    target_of(kept, "client", launcher_manifest_target(native_platform()));
    const Json root = Json::parse(kept.read("client/root.json")).at("signed");
    EXPECT_EQ(root.at("version"), 3);
    EXPECT_EQ(root.at("roles").at("snapshot").at("threshold"), 2);
  }
}

TEST(KeptPublications, EverySchemeIsVerified) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptFolder kept(version, "repository-schemes");
    const Json targets = Json::parse(kept.read("repository/public/tuf/metadata/1.targets.json"));
    EXPECT_GE(targets.at("signatures").size(), 10u);
    begin_client(kept, "client");
    KeptRepository repository(kept / "repository");
    TufClient client(kept / "client", repository, repository, installed_tuf_limits(), present_tuf_time);
    client.refresh();
    const std::string target = "bootstrap-" + std::string(native_platform()) + ".manifest.json";
    const std::filesystem::path file = client.download(target, kept / "downloads", {});
    EXPECT_EQ(SnapshotManifest::parse(Json::parse(testing::bytes_of(file))).build_id, "bootstrap-2");
  }
}

TEST(KeptPublications, DelegationsLeadToTheirTargets) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptFolder kept(version, "repository-delegated");
    begin_client(kept, "client");
    KeptRepository repository(kept / "repository");
    TufClient client(kept / "client", repository, repository, installed_tuf_limits(), present_tuf_time);
    client.refresh();
    EXPECT_EQ(testing::bytes_of(client.download("games/a", kept / "downloads", {})), "the game a");
    EXPECT_EQ(testing::bytes_of(client.download("games/binned", kept / "downloads", {})), "the game in a bin");
    EXPECT_EQ(testing::failure_of([&] { client.target("games/other"); })->code, "target_not_found");
  }
}

}  // namespace
}  // namespace ravok::kept_publications_test
