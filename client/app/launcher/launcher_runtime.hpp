// What a started launcher, and each helper that its release declares, does first: it finds out which installed version
// it is and takes that version's lease until the process ends, so that nobody removes its files. A launcher that the
// bootstrap tries out also proves itself.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "app/launcher/launcher_store.hpp"
#include "domain/json.hpp"
#include "platform/file/native_lock.hpp"

namespace ravok {

// Belongs to one thread, that of the launcher's start.
class LauncherRuntime {
 public:
  // Attaches this process, whose build is `build_id` and whose interface is "cli" or "gui", to the store that it was
  // started from; `data_root` is the data folder that it was told. As an attempt it also acknowledges its leases, and
  // takes the attempt's variables out of its environment. Returns nothing for a program that no store manages and that
  // is no attempt. To be called before other threads start, since it changes the environment.
  //
  // Fails with "launcher_interface" or "invalid_identity", or as ordinary_root does, for the arguments; as
  // reject_staged_image and managed_version do; with "environment_limit" for a variable beyond 8192 bytes; with
  // "launcher_state" for variables that are malformed; with "launcher_health" for an attempt of another build,
  // interface or data folder, for one that the store does not name any more, and for variables that cannot be removed;
  // with "launcher_identity" when the running image is not the version's entry; with "busy" when the leases are not
  // free; and as FileLock, LauncherStore::manifest and atomic_private_create do. No lease is held then.
  static std::unique_ptr<LauncherRuntime> attach(std::string_view build_id, std::string_view interface,
                                                 const std::filesystem::path& data_root);

  // Leaves the leases held until the process ends.
  ~LauncherRuntime();
  LauncherRuntime(const LauncherRuntime&) = delete;
  LauncherRuntime& operator=(const LauncherRuntime&) = delete;

  // Tells the bootstrap that the launcher is ready; once, within the bootstrap's limit. Fails with "launcher_health"
  // outside an attempt and when the store does not name the attempt any more, and as LauncherStore, manifest and
  // atomic_private_create do: with "file_write" the second time.
  void report_health() const;

  // The data folder in its one form, the reference of the version, and the record of the attempt or null.
  const std::filesystem::path& data_root() const { return data_root_; }
  const Json& reference() const { return reference_; }
  const Json& attempt() const { return attempt_; }

 private:
  LauncherRuntime(const std::filesystem::path& data_root, Json reference, Json attempt, std::string_view interface);

  void acknowledge(const LauncherStore& store) const;

  const std::filesystem::path data_root_;
  const Json reference_;
  const Json attempt_;
  const std::string interface_;
  std::optional<LauncherManifest> manifest_;
  std::unique_ptr<FileLock> attempt_lease_;
  std::unique_ptr<FileLock> version_lease_;
};

// Calls report_health, where there is a runtime. Fails as report_health does.
void report_launcher_health(const LauncherRuntime* runtime);

// Whether this process has the variables of an attempt, which it must not hand on. Fails with "environment_limit".
bool launcher_startup_pending();

// Returns the lease, shared, of the version that declares `image` as its helper of this role, once the file is proved
// to be the release's own. `image` is absolute and holds no link of the system's. Fails with "launcher_helper" for
// another role than "crash-handler", "maintenance" and "maintenance-gui", for an image in no version or of another
// build, and for one that the version does not declare for the role; with "invalid_identity"; with "launcher_identity"
// for a linked path; with "content_mismatch" for other bytes; and as reject_staged_image, managed_version,
// LauncherStore, read_file, parse_json, version_guard, manifest and digest_file do.
std::unique_ptr<FileLock> launcher_helper_guard(const std::filesystem::path& image, std::string_view role,
                                                std::string_view build_id);

// A helper's hold on its version.
class LauncherHelperRuntime {
 public:
  // Attaches this process as launcher_helper_guard does for its own image. Fails as that does, and as
  // current_executable_path does.
  static std::unique_ptr<LauncherHelperRuntime> attach(std::string_view role, std::string_view build_id);

  // Leaves the lease held until the process ends.
  ~LauncherHelperRuntime();
  LauncherHelperRuntime(const LauncherHelperRuntime&) = delete;
  LauncherHelperRuntime& operator=(const LauncherHelperRuntime&) = delete;

 private:
  explicit LauncherHelperRuntime(std::unique_ptr<FileLock> lease);

  const std::unique_ptr<FileLock> lease_;
};

}  // namespace ravok
