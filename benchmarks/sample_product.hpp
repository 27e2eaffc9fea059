// A product of many files of 100 KiB, published and packed for an installer.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "bare_extraction.hpp"
#include "platform/process/native_platform.hpp"
#include "publisher/publish_package.hpp"
#include "publisher/publish_root.hpp"
#include "publisher/publish_snapshot.hpp"
#include "publisher/signing/publish_key.hpp"

namespace ravok::benchmarks {

struct SampleProduct {
  int bootstrap_files = 0;
  int launcher_files = 0;
};

inline std::filesystem::path publish_sample_snapshot(const std::filesystem::path& folder, SnapshotKind kind,
                                                     const std::string& name, const std::vector<std::string>& programs,
                                                     int files) {
  constexpr std::uint64_t file_bytes = 102'400;
  const std::filesystem::path tree = folder / name;
  for (const std::string& program : programs) {
    write_content(tree / program, file_bytes, 1);
    check(chmod((tree / program).c_str(), 0755) == 0);
  }
  for (int i = 0; i < files - static_cast<int>(programs.size()); ++i) {
    write_content(tree / ("data/" + std::to_string(i / 100)) / ("file-" + std::to_string(i)), file_bytes,
                  static_cast<std::uint32_t>(i));
  }
  SnapshotPublication publication;
  publication.kind = kind;
  publication.tree = tree;
  publication.output = folder;
  publication.build_id = "sample";
  publication.platform = native_platform();
  publication.executable = programs.front();
  publication.gui_executable = programs.size() > 1 ? programs.back() : "";
  publication.level = 1;
  return publish_snapshot(publication, {}).manifest;
}

// Publishes the product below the folder, with the package as its folder "package". Returns the package's seal.
inline std::string publish_sample(const std::filesystem::path& folder, const SampleProduct& product) {
  PackagePublication publication;
  publication.bootstrap_manifest = publish_sample_snapshot(folder, SnapshotKind::bootstrap, "bootstrap",
                                                           {"bin/ravok-bootstrap"}, product.bootstrap_files);
  publication.launcher_manifest = publish_sample_snapshot(folder, SnapshotKind::launcher, "launcher",
                                                          {"bin/launcher", "bin/launcher-gui"}, product.launcher_files);
  publish_key(folder / "key", "ed25519");
  const RolePublication role = {{folder / "key"}, 1};
  publish_root({folder / "root.json", "2090-01-01T00:00:00Z", role, role, role, role});
  publication.output = folder / "package";
  publication.root = folder / "root.json";
  publication.origin = "https://updates.example.com";
  return publish_package(publication, {}).seal;
}

}  // namespace ravok::benchmarks
