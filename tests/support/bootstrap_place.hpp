// Releases of the bootstrap, and a data folder in which one is installed and another one is prepared.
#pragma once

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "domain/data_layout.hpp"
#include "platform/file/files.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/process/native_platform.hpp"
#include "support/snapshot_builder.hpp"
#include "support/tree_state.hpp"

namespace ravok::testing {

constexpr const char* bootstrap_program = "bin/ravok-bootstrap";

// A program that ends at once with this exit code.
inline std::string ending_program(int code, const std::string& words = "") {
  return "#!/bin/sh\n# " + words + "\nexit " + std::to_string(code) + "\n";
}

struct BootstrapRelease {
  std::vector<SampleFile> files;
  Json document;
  std::string archive;

  std::string text() const { return document.dump(); }
  std::string sha256() const { return digest(text(), "sha256"); }
  const std::string& archive_target() const {
    return document.at("archive").at("target").get_ref<const std::string&>();
  }
};

// A release of these files and the program, which is the first of them.
inline BootstrapRelease bootstrap_release(const std::string& build, const std::string& program,
                                          const std::vector<SampleFile>& files = {}) {
  BootstrapRelease release;
  release.files = {{bootstrap_program, program, 0755}};
  release.files.insert(release.files.end(), files.begin(), files.end());
  release.archive = zstd_frame(tar_archive(members_of(release.files)));
  release.document = manifest_of(release.files, release.archive).raw;
  release.document["build_id"] = build;
  release.document["platform"] = native_platform();
  release.document["archive"]["target"] = "bootstrap/" + build + ".tar.zst";
  release.document["kind"] = "ravok-bootstrap-release";
  release.document["bootstrap_abi"] = 1;
  release.document["runtime_lease_abi"] = 1;
  release.document["application_schema"] = {{"minimum", 1}, {"maximum", 1}};
  return release;
}

class BootstrapPlace {
 public:
  explicit BootstrapPlace(const std::filesystem::path& data_root) : data(data_root), paths(data_root) {
    private_directory(data.native);
  }

  // Installs a release in place of what is there.
  void install(const BootstrapRelease& release) const {
    clear();
    unpack(release, paths.tree);
    atomic_write(paths.manifest, release.text());
    atomic_write(data.installation_record, "{}");
    const NativeFileLock lock(data.bootstrap_lock, true, NativeLockSharing::others, LockMode::exclusive);
  }

  // Prepares a release as an update.
  void prepare(const BootstrapRelease& release) const {
    unpack(release, paths.update_tree);
    atomic_write(paths.update_manifest, release.text());
    const NativeFileLock lock(paths.update_lock, true, NativeLockSharing::others, LockMode::exclusive);
  }

  // Removes all that belongs to a bootstrap.
  void clear() const {
    for (const std::filesystem::path& path : {paths.tree, paths.manifest, paths.old_files_mark}) {
      std::filesystem::remove_all(path);
    }
    for (const std::filesystem::path& path : data.bootstrap_update_traces) {
      std::filesystem::remove_all(path);
    }
  }

  static void unpack(const BootstrapRelease& release, const std::filesystem::path& tree) {
    std::filesystem::remove_all(tree);
    for (const SampleFile& file : release.files) {
      const std::filesystem::path path = tree / file.path;
      private_directory(path.parent_path());
      atomic_write(path, file.content);
      std::filesystem::permissions(path, std::filesystem::perms(file.mode & 0700));
    }
  }

  // What the tree of a release is once it is unpacked, each file with its mode and its bytes.
  static TreeState files_of(const BootstrapRelease& release) {
    TreeState files;
    for (const SampleFile& file : release.files) {
      files[file.path] = (file.mode == 0755 ? "700 file " : "600 file ") + file.content;
    }
    return files;
  }
  // The files of a tree.
  static TreeState files_in(const std::filesystem::path& tree) {
    TreeState files = tree_state(tree);
    std::erase_if(files, [](const auto& node) { return node.second.ends_with(" directory"); });
    return files;
  }
  TreeState installed() const { return files_in(paths.tree); }

  // Whether a release is installed, wholly and alone.
  ::testing::AssertionResult holds(const BootstrapRelease& release) const {
    if (read(paths.manifest) != release.text()) {
      return ::testing::AssertionFailure() << "the manifest is another: " << read(paths.manifest).substr(0, 300);
    }
    return same_tree(installed(), files_of(release));
  }

  static std::string read(const std::filesystem::path& path) {
    return std::filesystem::exists(path) ? read_file(path, 1 << 24) : "<missing>";
  }

  std::filesystem::path program() const { return paths.tree / bootstrap_program; }

  const DataPaths data;
  const BootstrapPaths paths;
};

}  // namespace ravok::testing
