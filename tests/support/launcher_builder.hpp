// Builds launcher releases for tests.
#pragma once

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "domain/crypto.hpp"
#include "domain/json.hpp"
#include "platform/process/native_platform.hpp"
#include "support/snapshot_builder.hpp"
#include "support/temporary_root.hpp"

namespace ravok::testing {

inline Json launcher_helper(const std::string& path) {
  return {{"path", path}, {"role", "maintenance"}, {"lease_abi", 1}};
}

// Adds to the document of a snapshot, of which "bin/window" must be an executable file, the keys that make it one of a
// launcher with these helpers.
inline Json as_launcher(Json document, const std::vector<std::string>& helpers = {}) {
  document.update({{"kind", "ravok-launcher-release"},
                   {"bootstrap_abi", 1},
                   {"health_abi", 1},
                   {"application_schema", {{"minimum", 1}, {"maximum", 1}}},
                   {"runtime_lease_abi", 2},
                   {"staging_abi", 1},
                   {"console_interrupt_abi", 1},
                   {"gui_executable", "bin/window"},
                   {"runtime_helpers", Json::array()}});
  for (const std::string& path : helpers) {
    document["runtime_helpers"].push_back(launcher_helper(path));
  }
  return document;
}

// A launcher for the platform that the tests run on, and its archive on the disk.
struct SampleLauncher {
  explicit SampleLauncher(const TemporaryRoot& root, const std::string& build_id = "build-1")
      : archive(root.write("archive", zstd_frame(tar_archive(members_of(files))))) {
    document = as_launcher(manifest_of(files, root.read("archive")).raw);
    document["build_id"] = build_id;
    document["platform"] = native_platform();
  }

  std::string text() const { return document.dump(); }
  Json reference() const {
    return {{"manifest_sha256", digest(text(), "sha256")}, {"build_id", document.at("build_id")}};
  }

  const std::vector<SampleFile> files = {
      {"bin/program", "#!program", 0755}, {"bin/window", "#!window", 0755}, {"data/file", "content"}};
  const std::filesystem::path archive;
  Json document;
};

}  // namespace ravok::testing
