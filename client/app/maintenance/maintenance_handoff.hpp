// Maintenance on a thread of its own, for a client with a window: it opens the helper's window for the removal of the
// client, or changes shortcuts, while the front end looks at a snapshot and is woken when that changes.
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "domain/json.hpp"

namespace ravok {

class ChildProcess;

// To be used by one thread, its owner; only view(), cancel(), set_wakeup() and publish() may be called by any.
//
// The snapshot is null before the first task, and then an object of "phase" ("starting", "succeeded" or "failed"),
// "cancellable" (false), "completed_bytes" and "total_bytes" (0), "owned_path" (empty), "problem" (null, or an object
// of "code" and "message" after a failure) and "result" (null, or the task's document after a success).
class MaintenanceHandoff {
 public:
  MaintenanceHandoff();
  // Wakes nobody any more, asks a running task to stop, and waits until it has ended. A helper that was started goes
  // on. Not to be called by the wake-up.
  ~MaintenanceHandoff();
  MaintenanceHandoff(const MaintenanceHandoff&) = delete;
  MaintenanceHandoff& operator=(const MaintenanceHandoff&) = delete;

  // Opens the helper's window, as prepare_gui_maintenance and MaintenanceRuntime::launch_gui do, within 5 seconds. The
  // document is {"phase": "ready"}. The client may then close.
  void start(const std::filesystem::path& data_root, const std::filesystem::path& directory);

  // Make a shortcut and remove all, as NativeInstaller does. An empty path or name stands for the default one. The
  // document has "created", an array of the one path; or the arrays "removed" and "changed".
  void create_shortcut(const std::filesystem::path& data_root, const std::string& game,
                       const std::filesystem::path& path, const std::string& name);
  void remove_shortcuts(const std::filesystem::path& data_root);

  // Begins a task, which returns its document, after the end of the one before, for which it waits. What the task
  // throws is told in the snapshot: with the code "maintenance_failed" where it has none of its own.
  //
  // This and the three above fail with "busy" when a task or its wake-up calls them, and pass on the failure of a
  // system that has no room for another thread; the snapshot tells of that as well.
  void begin(std::function<Json()> work);

  // Returns the snapshot.
  Json view() const;

  // Asks the running task to stop, where it can. Never blocks.
  void cancel() { cancel_requested_ = true; }

  // Waits for the end of the task, its last wake-up included. Fails with "busy" when a task or its wake-up calls it.
  void join();

  // Sets what is called after each change of the snapshot, with no lock held. It must not throw. The call for
  // "starting" comes on the thread that begins the task, those of the task on its own thread.
  void set_wakeup(std::function<void()> wakeup);

  // Makes this the snapshot, and wakes the front end.
  void publish(Json view);

 private:
  class Turn;

  void run(const std::function<Json()>& work, Json& last_resort);
  void wait_for_worker();

  mutable std::mutex mutex_;
  std::thread thread_;
  std::atomic<bool> cancel_requested_ = false;
  Json view_;  // guarded by the mutex
  // Guarded by the mutex. Shared, so that a publication needs no memory.
  std::shared_ptr<const std::function<void()>> wakeup_;
  std::unique_ptr<ChildProcess> child_;  // guarded by the mutex: the helper with the window
  bool beginning_ = false;               // guarded by the mutex: whether begin() is at work
  std::thread::id worker_;               // guarded by the mutex: the last task's thread, until it was waited for
};

}  // namespace ravok
