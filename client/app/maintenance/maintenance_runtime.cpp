#include "app/maintenance/maintenance_runtime.hpp"

#include <chrono>
#include <exception>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "app/launcher/launcher_startup.hpp"
#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_digest.hpp"
#include "platform/file/files.hpp"
#include "platform/file/held_directory.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/native_files.hpp"
#include "platform/file/status.hpp"
#include "platform/process/child_process.hpp"
#include "platform/snapshot/complete_install.hpp"

namespace ravok {
namespace {

constexpr std::string_view copy_variable = "RAVOK_MAINTENANCE_COPY";
constexpr std::string_view ready_variable = "RAVOK_MAINTENANCE_READY";

// How the name of a temporary folder with a copy of the helper begins.
constexpr std::string_view copy_prefix = "ravok-maintenance-";

constexpr std::chrono::milliseconds ready_pause(10);

// Fails unless the file is the one that the manifest lists.
void require_whole(const std::filesystem::path& image, const SnapshotFile& listed) {
  const auto status = link_status_of(image);
  require(status && is_file(*status) && status->size == listed.length && digest_file(image, "sha256") == listed.sha256,
          "content_mismatch", "The maintenance helper is damaged; run the Ravok installer to repair it");
}

std::filesystem::path path_variable(std::string_view key) {
  return path_from_utf8(process_environment(key, maximum_environment_bytes).value_or(""));
}

// The helper runs in another directory and follows no link to the file by which it says that it is ready, so the
// folder's path is made absolute and free of links.
HeldDirectory open_real(const std::filesystem::path& folder) {
  std::error_code problem;
  const std::filesystem::path real = std::filesystem::canonical(folder, problem);
  return HeldDirectory::open(problem ? folder : real);
}

// The file by which a helper says that it is ready. It goes with the object, whatever comes of the wait for it.
class ReadyFile {
 public:
  explicit ReadyFile(const std::filesystem::path& folder)
      : folder_(open_real(folder)), name_("ravok-maintenance-ready-" + random_id()) {}
  ~ReadyFile() { folder_.remove_quietly(name_); }
  ReadyFile(const ReadyFile&) = delete;
  ReadyFile& operator=(const ReadyFile&) = delete;

  std::filesystem::path path() const { return folder_.path() / name_; }

  // Waits for it as long as the child lives, at most `timeout` milliseconds. Returns whether it is there.
  bool wait(ChildProcess& child, std::uint64_t timeout) const {
    const auto start = std::chrono::steady_clock::now();
    const auto waited = [&] {
      return static_cast<std::uint64_t>(
          std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
    };
    while (waited() < timeout) {
      if (folder_.type_of(name_)) {
        return true;
      }
      if (child.poll()) {
        return false;
      }
      std::this_thread::sleep_for(ready_pause);
    }
    return false;
  }

 private:
  const HeldDirectory folder_;
  const std::string name_;
};

}  // namespace

std::unique_ptr<MaintenanceRuntime> MaintenanceRuntime::prepare(const LauncherStore& store, const Json& build,
                                                                std::string_view role, const std::filesystem::path&,
                                                                const MaintenanceObserver&) {
  const LauncherManifest manifest = store.manifest(build);
  const std::vector<std::string> helpers = manifest.helpers(role);
  if (helpers.empty()) {
    fail("maintenance_unavailable",
         "This Ravok version has no " + std::string(role) + " helper; use the Ravok installer to uninstall");
  }
  const std::filesystem::path image = safe_join(store.payload(build), helpers.front(), true);
  require_whole(image, manifest.files.at(helpers.front()));
  return std::make_unique<MaintenanceRuntime>(image);
}

std::unique_ptr<MaintenanceRuntime> MaintenanceRuntime::attach(std::string_view, std::string_view) {
  const std::filesystem::path copy = path_variable(copy_variable);
  const std::filesystem::path ready = path_variable(ready_variable);
  if (copy.empty() && ready.empty()) {
    return nullptr;
  }
  const std::filesystem::path image = current_executable_path();
  // The end of the object removes the copy, so nothing else may pass for it.
  require(copy.empty() || (name_of(copy).starts_with(copy_prefix) && image.parent_path() == copy), "maintenance_copy",
          "Maintenance helper copy path is invalid");
  return std::unique_ptr<MaintenanceRuntime>(new MaintenanceRuntime(Side::helper, image, copy, ready));
}

MaintenanceRuntime::MaintenanceRuntime(std::filesystem::path image, std::filesystem::path copy)
    : MaintenanceRuntime(Side::client, std::move(image), std::move(copy), {}) {}

MaintenanceRuntime::MaintenanceRuntime(Side side, std::filesystem::path image, std::filesystem::path copy,
                                       std::filesystem::path ready)
    : copy_(std::move(copy)), image_(std::move(image)), ready_(std::move(ready)), attached_(side == Side::helper) {}

MaintenanceRuntime::~MaintenanceRuntime() {
  if (copy_.empty() || (!attached_ && handed_over_)) {
    return;
  }
  try {
    native_files::remove_after_exit(copy_);
  } catch (const std::exception&) {
    // What stays of a temporary copy harms nobody.
  }
}

ProcessEnvironment MaintenanceRuntime::environment() const {
  ProcessEnvironment environment = cleared_startup_environment();
  environment.emplace(copy_variable, path_utf8(copy_));
  environment.emplace(ready_variable, path_utf8(ready_));
  return environment;
}

void MaintenanceRuntime::replace(const std::vector<std::string>& arguments) {
  handed_over_ = true;
  replace_process(image_, arguments, image_.parent_path(), environment());
}

std::unique_ptr<ChildProcess> MaintenanceRuntime::launch_console(const std::vector<std::string>& arguments) {
  handed_over_ = true;
  return std::make_unique<ChildProcess>(image_, arguments, image_.parent_path(), environment(),
                                        ChildStreams::inherited);
}

std::unique_ptr<ChildProcess> MaintenanceRuntime::launch_gui(const std::vector<std::string>& arguments,
                                                             std::uint64_t timeout) {
  const ReadyFile ready(copy_.empty() ? native_files::temporary_directory(image_) : copy_);
  ready_ = ready.path();
  std::unique_ptr<ChildProcess> child = launch_console(arguments);
  if (!ready.wait(*child, timeout)) {
    // The file is removed after this, since the helper may still write it until it has ended.
    child->terminate(failed_start_grace);
    fail("maintenance_startup", "The uninstall window did not open");
  }
  return child;
}

void MaintenanceRuntime::report_ready() const {
  if (!ready_.empty()) {
    // The folder may be the system's and everybody's, so it is not made private for the file.
    atomic_create_or_remove(ready_, "ready");
  }
}

void require_maintenance_runtime_image(const std::filesystem::path& executable) {
  visit_image_folders(executable, [](const std::filesystem::path& folder) {
    require(!name_of(folder).starts_with(copy_prefix), "maintenance_copy",
            "A temporary maintenance helper cannot start Ravok");
  });
}

}  // namespace ravok
