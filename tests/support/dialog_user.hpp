// The user of a setup dialog without a window: presses its buttons, and waits for what it shows.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "app/screen/setup_dialog.hpp"

namespace ravok::testing {

class DialogUser {
 public:
  explicit DialogUser(SetupSubject subject, StartProgram start = {}) : dialog(std::move(subject), std::move(start)) {
    dialog.set_wakeup([this] { wake(); });
  }
  ~DialogUser() { release(); }
  DialogUser(const DialogUser&) = delete;
  DialogUser& operator=(const DialogUser&) = delete;

  // Waits until the dialog shows such a screen, and returns it.
  Screen until(const std::function<bool(const Screen&)>& is_due) {
    for (;;) {
      const std::size_t before = wakes();
      Screen screen = dialog.screen();
      if (is_due(screen)) {
        return screen;
      }
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [&] { return wakes_ != before; });
    }
  }
  Screen until(std::string_view id) {
    return until([&](const Screen& screen) { return screen.id == id; });
  }
  // Waits until no command is under way.
  Screen until_idle() {
    return until([](const Screen& screen) { return !screen.busy; });
  }
  Screen press(std::string_view action) {
    dialog.press(action);
    return until_idle();
  }

  // From now on, whatever wakes the dialog waits, until the hold is released. To be used while no folder is asked
  // about, so that it is a command that waits.
  void hold() {
    const std::lock_guard lock(mutex_);
    holds_ = true;
  }
  void wait_until_held() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return held_; });
  }
  void release() {
    const std::lock_guard lock(mutex_);
    holds_ = false;
    held_ = false;
    changed_.notify_all();
  }
  // Lets what waits go on, and returns once something waits again.
  void step() {
    {
      const std::lock_guard lock(mutex_);
      held_ = false;
      leave_ = true;
      changed_.notify_all();
    }
    wait_until_held();
  }
  // Presses a button, and returns once the command behind it has reported for the first time.
  void press_and_hold(std::string_view action) {
    hold();
    dialog.press(action);
    wait_until_held();
  }

 private:
  std::size_t wakes() {
    const std::lock_guard lock(mutex_);
    return wakes_;
  }
  void wake() {
    std::unique_lock lock(mutex_);
    ++wakes_;
    held_ = holds_;
    changed_.notify_all();
    changed_.wait(lock, [&] { return !holds_ || leave_; });
    leave_ = false;
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t wakes_ = 0;
  bool holds_ = false;
  bool held_ = false;
  bool leave_ = false;

 public:
  // The last member, so that it ends before what its threads use.
  SetupDialog dialog;
};

}  // namespace ravok::testing
