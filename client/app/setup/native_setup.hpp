// One setup command on a thread of its own, for a front end with a window: it starts the command, looks at a
// snapshot whenever it likes, is woken when something changes, and may ask the command to stop.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "app/setup/setup_command.hpp"
#include "domain/json.hpp"

namespace ravok {

class NativeSetup {
 public:
  struct View {
    bool running = false;
    std::string phase;  // "verifying", "installing", "menu" or "removing"; empty at first
    std::uint64_t done = 0;
    std::uint64_t total = 0;
    Json result;             // of a command that succeeded, otherwise null
    std::string error_code;  // of one that failed, otherwise empty
    std::string error_message;
  };

  explicit NativeSetup(std::string package_seal) : package_seal_(std::move(package_seal)) {}
  // Asks a running command to stop, and waits until it has.
  ~NativeSetup();
  NativeSetup(const NativeSetup&) = delete;
  NativeSetup& operator=(const NativeSetup&) = delete;

  // Begins a command; the snapshot tells how it ends. Waits for the last wake-up of the command before. Fails with
  // "busy" while another command is running, and when it is called by that wake-up.
  void start(SetupCommand command);

  // Returns the snapshot, which holds the outcome once the command is no longer running.
  View view() const;

  // Asks the running command to stop at its next safe point. Never blocks.
  void cancel() { cancel_requested_ = true; }

  // Sets what is called after each change of the snapshot, with no lock held. The call comes on the command's own
  // thread, or on that of start() where the system cannot give the command a thread.
  void set_wakeup(std::function<void()> wakeup);

 private:
  void run(const SetupCommand& command);
  void finish(View outcome);
  template <typename Change>
  void publish(Change change);

  const std::string package_seal_;
  mutable std::mutex mutex_;
  View view_;  // guarded by the mutex
  // Guarded by the mutex. Shared, so that the last publication needs no memory.
  std::shared_ptr<const std::function<void()>> wakeup_;
  std::thread::id worker_;  // guarded by the mutex: the last command's thread, until start() has waited for it
  std::atomic<bool> cancel_requested_ = false;
  std::thread thread_;
};

}  // namespace ravok
