#include "app/maintenance/maintenance_handoff.hpp"

#include <cstdint>
#include <exception>
#include <new>
#include <string_view>
#include <utility>

#include "app/install/json_paths.hpp"
#include "app/install/native_install.hpp"
#include "app/maintenance/maintenance_entry.hpp"
#include "domain/display_text.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/process/child_process.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t window_timeout = 5000;

// The code of a failure that has none of its own.
constexpr std::string_view maintenance_failed = "maintenance_failed";

Json maintenance_view(std::string_view phase) {
  return {{"phase", phase},   {"cancellable", false}, {"completed_bytes", 0U}, {"total_bytes", 0U},
          {"owned_path", ""}, {"problem", nullptr},   {"result", nullptr}};
}

Json succeeded_view(Json result) {
  Json view = maintenance_view("succeeded");
  view["result"] = std::move(result);
  return view;
}

Json failed_view(std::string_view code, const std::string& message) {
  Json view = maintenance_view("failed");
  // A document cannot hold a message that is not UTF-8.
  view["problem"] = {{"code", code}, {"message", is_utf8(message) ? message : shown_text(message)}};
  return view;
}

// Returns what `make` returns, or the last resort where there is no memory for that.
template <typename Make>
Json view_or(Json& last_resort, Make make) {
  try {
    return make();
  } catch (const std::bad_alloc&) {
    return std::move(last_resort);
  }
}

// Does the work and returns the view of how it has ended.
Json view_of(const std::function<Json()>& work) {
  try {
    return succeeded_view(work());
  } catch (const Error& error) {
    return failed_view(error.code, error.what());
  } catch (const std::exception& problem) {
    return failed_view(maintenance_failed, problem.what());
  } catch (...) {
    return failed_view(maintenance_failed, "Unknown failure");
  }
}

}  // namespace

// The beginning of one task: no other can begin meanwhile, whatever a wake-up does.
class MaintenanceHandoff::Turn {
 public:
  explicit Turn(MaintenanceHandoff& handoff) : handoff_(handoff) {
    const std::lock_guard lock(handoff_.mutex_);
    require(!handoff_.beginning_ && handoff_.worker_ != std::this_thread::get_id(), "busy",
            "Maintenance is already running");
    handoff_.beginning_ = true;
  }
  ~Turn() {
    const std::lock_guard lock(handoff_.mutex_);
    handoff_.beginning_ = false;
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  MaintenanceHandoff& handoff_;
};

MaintenanceHandoff::MaintenanceHandoff() = default;

MaintenanceHandoff::~MaintenanceHandoff() {
  {
    std::shared_ptr<const std::function<void()>> former;
    const std::lock_guard lock(mutex_);
    former.swap(wakeup_);
  }
  cancel_requested_ = true;
  wait_for_worker();
}

void MaintenanceHandoff::start(const std::filesystem::path& data_root, const std::filesystem::path& directory) {
  begin([this, data_root, directory]() -> Json {
    const std::unique_ptr<MaintenanceRuntime> runtime =
        prepare_gui_maintenance(data_root, directory, [this] { return cancel_requested_.load(); });
    // The helper runs in another directory.
    std::unique_ptr<ChildProcess> child =
        runtime->launch_gui({"--data-dir", path_utf8(std::filesystem::absolute(data_root))}, window_timeout);
    const std::lock_guard lock(mutex_);
    child_.swap(child);
    return {{"phase", "ready"}};
  });
}

void MaintenanceHandoff::create_shortcut(const std::filesystem::path& data_root, const std::string& game,
                                         const std::filesystem::path& path, const std::string& name) {
  begin([data_root, game, path, name]() -> Json {
    return {{"created", paths_json({NativeInstaller::create_shortcut(data_root, game, name, path)})}};
  });
}

void MaintenanceHandoff::remove_shortcuts(const std::filesystem::path& data_root) {
  begin([data_root]() -> Json {
    const ShortcutRemoval removal = NativeInstaller::remove_shortcuts(data_root);
    return {{"removed", paths_json(removal.removed)}, {"changed", paths_json(removal.changed)}};
  });
}

void MaintenanceHandoff::begin(std::function<Json()> work) {
  const Turn turn(*this);
  wait_for_worker();
  cancel_requested_ = false;
  // Made before the task, which may leave no memory for it.
  const auto last_resort = std::make_shared<Json>(failed_view(maintenance_failed, "Out of memory"));
  publish(maintenance_view("starting"));
  try {
    thread_ = std::thread([this, work = std::move(work), last_resort] { run(work, *last_resort); });
  } catch (const std::exception& problem) {
    publish(view_or(*last_resort, [&] { return failed_view(maintenance_failed, problem.what()); }));
    throw;
  }
}

Json MaintenanceHandoff::view() const {
  const std::lock_guard lock(mutex_);
  return view_;
}

void MaintenanceHandoff::join() {
  {
    const std::lock_guard lock(mutex_);
    require(!beginning_ && worker_ != std::this_thread::get_id(), "busy", "Maintenance is already running");
  }
  wait_for_worker();
}

void MaintenanceHandoff::set_wakeup(std::function<void()> wakeup) {
  auto shared = std::make_shared<const std::function<void()>>(std::move(wakeup));
  const std::lock_guard lock(mutex_);
  wakeup_.swap(shared);
}

void MaintenanceHandoff::publish(Json view) {
  std::shared_ptr<const std::function<void()>> wakeup;
  {
    const std::lock_guard lock(mutex_);
    view_.swap(view);
    wakeup = wakeup_;
  }
  if (wakeup && *wakeup) {
    (*wakeup)();
  }
}

void MaintenanceHandoff::run(const std::function<Json()>& work, Json& last_resort) {
  {
    const std::lock_guard lock(mutex_);
    worker_ = std::this_thread::get_id();
  }
  publish(view_or(last_resort, [&] { return view_of(work); }));
}

void MaintenanceHandoff::wait_for_worker() {
  if (thread_.joinable()) {
    thread_.join();
    const std::lock_guard lock(mutex_);
    worker_ = {};
  }
}

}  // namespace ravok
