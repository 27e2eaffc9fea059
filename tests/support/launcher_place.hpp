// A launcher store of a test's own, with versions whose files lie unpacked in it.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "app/launcher/launcher_store.hpp"
#include "domain/crypto.hpp"
#include "domain/json.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/process/native_platform.hpp"
#include "support/bytes_of.hpp"
#include "support/failure.hpp"
#include "support/launcher_builder.hpp"
#include "support/snapshot_builder.hpp"
#include "support/temporary_root.hpp"

namespace ravok::testing {

// The contents of the executables of a version.
struct LauncherPrograms {
  std::string console = "#!program";
  std::string window = "#!window";
  std::string helper = "#!helper";
  std::string window_helper = {};  // none in a version where this is empty
};

class LauncherPlace {
 public:
  explicit LauncherPlace(const std::filesystem::path& base = std::filesystem::temp_directory_path())
      : root(base), store(root.path()) {}

  // Puts a version into the store and returns its reference. Its helper has the role "maintenance", and the window's
  // helper the role "maintenance-gui".
  Json add_version(const std::string& build_id, const LauncherPrograms& programs = {}) const {
    std::vector<SampleFile> files = {{"bin/program", programs.console, 0755},
                                     {"bin/window", programs.window, 0755},
                                     {"bin/helper", programs.helper, 0755},
                                     {"data/file", "content of " + build_id}};
    if (!programs.window_helper.empty()) {
      files.push_back({"bin/window-helper", programs.window_helper, 0755});
    }
    Json document = as_launcher(manifest_of(files, "archive").raw, {"bin/helper"});
    if (!programs.window_helper.empty()) {
      document["runtime_helpers"].push_back(
          {{"path", "bin/window-helper"}, {"role", "maintenance-gui"}, {"lease_abi", 1}});
    }
    document["build_id"] = build_id;
    document["platform"] = native_platform();
    const std::string text = document.dump();
    const std::string sha256 = digest(text, "sha256");
    root.write("launcher/manifests/" + sha256 + ".json", text);
    for (const SampleFile& file : files) {
      const auto path = root.write("launcher/versions/" + sha256 + "/" + file.path, file.content);
      chmod(path.c_str(), file.mode);
    }
    return {{"manifest_sha256", sha256}, {"build_id", build_id}};
  }

  // Changes one value of the store's document.
  void set(const std::string& key, const Json& value) const {
    Json document = store.load();
    document[key] = value;
    store.save(document);
  }
  Json value(const std::string& key) const { return store.load().at(key); }

  // The document's bytes, or an empty text before there are any.
  std::string document_text() const { return bytes_of(root / "launcher/installation.json"); }

  std::filesystem::path manifest_path(const Json& reference) const {
    return root / ("launcher/manifests/" + text_at(reference, "manifest_sha256") + ".json");
  }
  std::filesystem::path version_lease_path(const Json& reference) const {
    return root / ("launcher/leases/versions/" + text_at(reference, "manifest_sha256") + ".lock");
  }

  TemporaryRoot root;
  LauncherStore store;
};

// Makes a file with this content, or gives it this content.
inline void write_bytes(const std::filesystem::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// Whether somebody holds the lock so that it cannot be taken in this mode.
inline bool is_lock_busy(const std::filesystem::path& path, LockMode mode = LockMode::exclusive) {
  const auto failure = failure_of([&] { const FileLock lock(path, false, mode); });
  return failure && failure->code == "busy";
}

}  // namespace ravok::testing
