// A launcher store and the repository that its updates come from.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "domain/crypto.hpp"
#include "domain/json.hpp"
#include "platform/process/native_platform.hpp"
#include "support/fast_volume.hpp"
#include "support/launcher_builder.hpp"
#include "support/launcher_place.hpp"
#include "support/snapshot_builder.hpp"
#include "support/tar_builder.hpp"
#include "support/tuf_place.hpp"

namespace ravok::testing {

// A launcher that can be published: its manifest and its archive.
struct LauncherUpdate {
  explicit LauncherUpdate(const std::string& build_id, const std::string& note = "note")
      : files({{"bin/program", "#!program of " + build_id, 0755},
               {"bin/window", "#!window of " + build_id, 0755},
               {"data/note", note}}),
        archive(zstd_frame(tar_archive(members_of(files)))) {
    document = as_launcher(manifest_of(files, archive).raw);
    document["build_id"] = build_id;
    document["platform"] = native_platform();
    document["archive"]["target"] = "builds/" + build_id + ".tar.zst";
  }

  std::string text() const { return document.dump() + padding; }
  std::string sha256() const { return digest(text(), "sha256"); }
  Json reference() const { return {{"manifest_sha256", sha256()}, {"build_id", document.at("build_id")}}; }
  std::string target() const { return text_at(document.at("archive"), "target"); }

  std::vector<SampleFile> files;
  std::string archive;
  Json document;
  std::string padding;  // behind the manifest's document
};

class StagingPlace {
 public:
  StagingPlace() {
    tuf.repository.targets();
    tuf.begin();
  }

  // Makes this the newest launcher of the repository.
  void publish(const LauncherUpdate& update) {
    tuf.repository.targets().add(launcher_manifest_target(), update.text());
    tuf.repository.targets().add(update.target(), update.archive);
    tuf.repository.publish();
  }

  Json stage(bool background = false, const ProgressCallback& progress = {}) {
    phases.clear();
    const auto client = tuf.client();
    return launcher.store.stage(
        *client, progress, [&](std::string_view name, bool flag) { phases.emplace_back(name, flag); }, background);
  }

  // Makes the candidate the active version, as the bootstrap does once it has proved itself.
  void confirm() const {
    Json document = launcher.store.load();
    document["rollback"] = document.at("active");
    document["active"] = document.at("candidate");
    document["candidate"] = nullptr;
    document["failed_candidate"] = nullptr;
    launcher.store.save(document);
  }

  // Publishes and stages an update and makes it active.
  void update(const LauncherUpdate& update) {
    publish(update);
    stage();
    confirm();
  }

  const LauncherPaths& paths() const { return paths_; }
  const TemporaryRoot& root() const { return launcher.root; }

  TufPlace tuf;
  LauncherPlace launcher{fast_volume()};
  std::vector<std::pair<std::string, bool>> phases;  // of the last staging

 private:
  const LauncherPaths paths_{launcher.store.store()};
};

// What one staging returns.
inline Json staged(const LauncherUpdate& update) {
  return {{"staged", true},
          {"activated", false},
          {"build_id", update.document.at("build_id")},
          {"manifest_sha256", update.sha256()}};
}

}  // namespace ravok::testing
