// The hand-over from a running client to the maintenance helper of its release, which can remove the client as the
// client itself cannot: both ends of it.
//
// The client prepares a hand-over and then starts the helper in one of three ways. The helper attaches to it, and
// learns so from the environment.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "app/launcher/launcher_store.hpp"
#include "domain/json.hpp"
#include "platform/process/process.hpp"

namespace ravok {

class ChildProcess;

// Hears of the copying of a helper: what is done, how many bytes of how many, and the file. Returns false to cancel.
using MaintenanceObserver =
    std::function<bool(std::string_view phase, std::uint64_t done, std::uint64_t total, const std::filesystem::path&)>;

// One hand-over, seen from the client or from the helper. It belongs to one thread.
class MaintenanceRuntime {
 public:
  // Returns the client's side of a hand-over to the first helper of a release that has this role, such as
  // "maintenance", once its file is proved to be the release's own. `build` is the release's reference in the store.
  // `directory` is where a system that cannot remove a program's file while it runs keeps a copy of the helper, and
  // `observer` hears of the copying; this system makes no copy, and uses neither. Fails with "maintenance_unavailable"
  // for a release without such a helper, with "content_mismatch" for a file of another length or digest, with
  // "unsafe_path" for one that is reached through a link, with "file_read", and as LauncherStore::manifest does.
  static std::unique_ptr<MaintenanceRuntime> prepare(const LauncherStore& store, const Json& build,
                                                     std::string_view role, const std::filesystem::path& directory,
                                                     const MaintenanceObserver& observer = {});

  // Returns the helper's side, or nothing in a process that no hand-over has started. The helper says what it is with
  // `role` and `version`, which are not kept. Fails with "maintenance_copy" when the environment names a copy other
  // than the folder of the running image, so that nothing else can be removed at the end; with "environment_limit"
  // beyond 8192 bytes; and with "launcher_identity" as current_executable_path does.
  static std::unique_ptr<MaintenanceRuntime> attach(std::string_view role, std::string_view version);

  // The client's side of a hand-over to a program that the caller has checked. `copy` is the temporary directory in
  // which the program lies, which goes with it, or empty for a program that stays where it is.
  explicit MaintenanceRuntime(std::filesystem::path image, std::filesystem::path copy = {});

  // In the helper, removes the copy that it runs from. On the client's side, removes a copy that was never started.
  // Tells nothing when that fails.
  ~MaintenanceRuntime();
  MaintenanceRuntime(const MaintenanceRuntime&) = delete;
  MaintenanceRuntime& operator=(const MaintenanceRuntime&) = delete;

  // Returns the variables that the helper is started with: the two of the hand-over, and those of a launcher's start,
  // empty, so that the helper does not pass for a launcher.
  ProcessEnvironment environment() const;

  // The three ways to start the helper, of which the client takes one. The helper runs in the folder of its image.

  // Replaces this process with the helper, and returns only by failing, as replace_process does. A copy then stays.
  [[noreturn]] void replace(const std::vector<std::string>& arguments);

  // Starts the helper on this process's own standard streams. The caller waits for it. Fails as ChildProcess does.
  std::unique_ptr<ChildProcess> launch_console(const std::vector<std::string>& arguments);

  // Starts the helper and waits until it has opened its window, at most `timeout` milliseconds. Fails with
  // "maintenance_startup" when the time is over, and the helper is ended then, or when it has ended before that; with
  // "unsafe_path" when the folder for temporary files cannot be used; and as ChildProcess does.
  std::unique_ptr<ChildProcess> launch_gui(const std::vector<std::string>& arguments, std::uint64_t timeout);

  // Called once in a helper when its window is shown: tells that to the client that waits for it, if one does. Fails
  // as atomic_create_or_remove does ("unsafe_path", "insufficient_space", "file_write", "file_sync").
  void report_ready() const;

 private:
  enum class Side { client, helper };
  MaintenanceRuntime(Side side, std::filesystem::path image, std::filesystem::path copy, std::filesystem::path ready);

  const std::filesystem::path copy_;
  const std::filesystem::path image_;
  std::filesystem::path ready_;
  const bool attached_;
  bool handed_over_ = false;
};

// Fails with "maintenance_copy" for a program that lies in a temporary copy of the helper, at any depth, which must not
// become an installed client; and with "unsafe_path" for one below more than 256 folders.
void require_maintenance_runtime_image(const std::filesystem::path& executable);

}  // namespace ravok
