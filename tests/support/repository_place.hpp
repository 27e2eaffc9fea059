// A publisher's place: keys, builds, the folder of a signed repository, and a client that reads what it serves.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "domain/crypto.hpp"
#include "domain/json.hpp"
#include "platform/file/files.hpp"
#include "platform/file/posix_files.hpp"
#include "publisher/publish_root.hpp"
#include "publisher/publish_snapshot.hpp"
#include "publisher/repository/folder_transport.hpp"
#include "publisher/repository/init_repository.hpp"
#include "publisher/repository/publish_release.hpp"
#include "publisher/repository/publish_withdrawal.hpp"
#include "publisher/repository/refresh_repository.hpp"
#include "publisher/repository/repository_time.hpp"
#include "publisher/signing/publish_key.hpp"
#include "publisher/signing/signer.hpp"
#include "support/fast_volume.hpp"
#include "support/temporary_root.hpp"
#include "tuf/tuf.hpp"

namespace ravok::testing {

// What a role's keys are called, and how many of them must sign.
struct PlaceRole {
  std::vector<std::string> keys = {"online"};
  std::uint64_t threshold = 1;
};

struct PlaceRoles {
  PlaceRole root = {{"root"}};
  PlaceRole targets = {};
  PlaceRole snapshot = {};
  PlaceRole timestamp = {};
  std::string root_expires = "2050-01-01T00:00:00Z";
};

struct RepositoryPlace {
  // Makes the keys and the root document. The repository is made by init().
  explicit RepositoryPlace(const PlaceRoles& roles = {}) {
    RootPublication publication;
    publication.output = root / "root.json";
    publication.expires = roles.root_expires;
    publication.root = role(roles.root);
    publication.targets = role(roles.targets);
    publication.snapshot = role(roles.snapshot);
    publication.timestamp = role(roles.timestamp);
    publish_root(publication);
  }

  // The file of a key, which is made where it is missing.
  std::filesystem::path key(const std::string& name) const {
    const std::filesystem::path file = root / ("keys/" + name);
    if (!std::filesystem::exists(file)) {
      publish_key(file, "ed25519");
    }
    return file;
  }

  std::vector<Signer> signers(const std::vector<std::string>& names = {"online"}) const {
    SignerOptions options;
    for (const std::string& name : names) {
      options.keys.push_back(key(name));
    }
    return open_signers(options);
  }

  RepositoryOutcome init(const std::vector<std::string>& names = {"online"}) const {
    return init_repository({folder, root / "root.json", {}, {}}, signers(names), now);
  }

  // Publishes a build in a folder of its own and returns its manifest. `note` tells the content of builds apart.
  std::filesystem::path build(SnapshotKind kind, const std::string& build_id, const std::string& note = "note",
                              const std::string& platform = "linux-x86_64") const {
    const std::string place = "builds/" + std::to_string(++builds_) + "/";
    const auto program = [&](const std::string& name) {
      std::filesystem::permissions(root.write(place + "tree/bin/" + name, "#!" + name), std::filesystem::perms(0755));
      return "bin/" + name;
    };
    SnapshotPublication publication;
    publication.kind = kind;
    publication.tree = root / (place + "tree");
    publication.output = root / (place + "out");
    publication.build_id = build_id;
    publication.platform = platform;
    publication.level = 1;
    publication.executable = program(kind == SnapshotKind::bootstrap ? "ravok-bootstrap" : "ravok");
    if (kind == SnapshotKind::launcher) {
      publication.gui_executable = program("ravok-gui");
    }
    if (kind == SnapshotKind::game) {
      publication.game_id = "game";
      publication.display_name = "Game";
    }
    root.write(place + "tree/data/note", note);
    return publish_snapshot(publication, {}).manifest;
  }

  std::filesystem::path launcher(const std::string& build_id, const std::string& note = "note") const {
    return build(SnapshotKind::launcher, build_id, note);
  }

  ReleaseOutcome release(const std::vector<std::filesystem::path>& manifests,
                         const std::vector<std::string>& names = {"online"}) const {
    RepositoryRelease wanted{folder, {}, {}};
    for (const std::filesystem::path& manifest : manifests) {
      wanted.manifests.push_back({manifest, ""});
    }
    return publish_release(wanted, signers(names), now, {});
  }

  WithdrawalOutcome withdraw(const std::string& build_id, const std::vector<std::string>& names = {"online"}) const {
    return withdraw_build({folder, build_id, {}}, signers(names), now);
  }

  RefreshOutcome refresh(const std::vector<std::string>& names = {"online"}) const {
    return refresh_repository({folder, {}, false}, signers(names), now);
  }

  // A client that has refreshed, and whose trusted directory lives on from call to call.
  struct Client {
    Client(const RepositoryPlace& place, const std::string& name)
        : metadata(place.folder / "public/tuf/metadata"), targets(place.folder / "public/tuf/targets") {
      const std::filesystem::path directory = place.root / ("clients/" + name);
      if (!std::filesystem::exists(directory / "root.json")) {
        private_directory(directory);
        TufClient::initialize(directory, place.root.read("root.json"));
      }
      const TufLimits limits{tuf_root_limit, repository_timestamp_limit, repository_metadata_limit, 256, 64};
      tuf = std::make_unique<TufClient>(directory, metadata, targets, limits, [&place] { return place.now; });
      tuf->refresh();
    }

    FolderTransport metadata;
    FolderTransport targets;
    std::unique_ptr<TufClient> tuf;
  };

  // Returns the build that a client sees under a target after a refresh; empty when the target is not there.
  std::string seen_build(const std::string& target = "launcher-linux-x86_64.manifest.json",
                         const std::string& client = "client") const {
    const Client seen(*this, client);
    Json described;
    try {
      described = seen.tuf->target(target);
    } catch (const Error& error) {
      EXPECT_EQ(error.code, "target_not_found");
      return "";
    }
    const std::filesystem::path folder_of_client = root / ("clients/" + client + "-files");
    const std::filesystem::path file = seen.tuf->download(target, folder_of_client, {});
    const Json manifest = Json::parse(bytes(file));
    const Json& archive = manifest.at("archive");
    const auto path = archive.at("target").get<std::string>();
    EXPECT_EQ(digest(bytes(seen.tuf->download(path, folder_of_client, {})), "sha256"),
              archive.at("sha256").get<std::string>());
    return manifest.at("build_id").get<std::string>();
  }

  static std::string bytes(const std::filesystem::path& file) { return read_file(file, std::uint64_t{1} << 30); }

  // Versions of the published documents in the order root, targets, snapshot, timestamp; 0 for none.
  std::vector<std::uint64_t> versions() const {
    const RepositoryState state = RepositoryFolder(folder, RepositoryFolder::Use::read).state();
    std::vector<std::uint64_t> versions;
    for (const char* const name : repository_roles) {
      versions.push_back(state.role(name).version);
    }
    return versions;
  }

  std::string upload_list() const { return root.read("repository/upload.txt"); }

  const TemporaryRoot root{fast_volume()};
  const std::filesystem::path folder = root / "repository";
  TufTime now = parse_tuf_time("2030-01-01T00:00:00Z");

 private:
  RolePublication role(const PlaceRole& role) const {
    RolePublication publication;
    for (const std::string& name : role.keys) {
      publication.keys.push_back(key(name));
    }
    publication.threshold = role.threshold;
    return publication;
  }

  mutable int builds_ = 0;
};

}  // namespace ravok::testing
