#include "window/run_dialog.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>

#include <FL/Fl.H>

#include "app/command/console_output.hpp"
#include "app/screen/message_dialog.hpp"
#include "domain/exit_code.hpp"
#include "window/dialog_window.hpp"
#include "window/display.hpp"

namespace ravok {
namespace {

using Clock = std::chrono::steady_clock;

// How often the window looks for what nothing wakes it for, and how often it is drawn while it is busy.
constexpr std::chrono::milliseconds idle_wait(250);
constexpr std::chrono::milliseconds busy_wait(40);

// After how long a window counts as one that makes no step any more.
constexpr std::chrono::seconds longest_step(15);

// Handles events until the next look is due or, in a window that is not busy, until something wakes it.
void wait_for_change(bool busy) {
  const Clock::time_point due = Clock::now() + (busy ? busy_wait : idle_wait);
  do {
    const std::chrono::duration<double> rest = due - Clock::now();
    Fl::wait(std::max(rest.count(), 0.0));
  } while (busy && Clock::now() < due);
}

// A display that no longer answers holds up the thread that draws, without end. When the user has asked the program to
// end and that thread makes no step any more, this ends the work and the process.
class DisplayWatch {
 public:
  explicit DisplayWatch(const WindowRun& run) : run_(run) {
    if (run_.interrupted) {
      thread_ = std::thread([this] { watch(); });
    }
  }
  ~DisplayWatch() {
    {
      const std::lock_guard lock(mutex_);
      ending_ = true;
    }
    changed_.notify_one();
    if (thread_.joinable()) {
      thread_.join();
    }
  }
  DisplayWatch(const DisplayWatch&) = delete;
  DisplayWatch& operator=(const DisplayWatch&) = delete;

  // Tells that the window has made a step. Returns whether the user has asked the program to end.
  bool step() {
    const std::lock_guard lock(mutex_);
    last_step_ = Clock::now();
    return run_.interrupted && run_.interrupted();
  }

  // Ends the work of a window whose display is gone.
  void stop_work() {
    const std::lock_guard lock(mutex_);
    stop_once();
  }

 private:
  void watch() {
    std::unique_lock lock(mutex_);
    while (!ending_) {
      changed_.wait_for(lock, idle_wait);
      if (!ending_ && Clock::now() - last_step_ > longest_step && is_interrupted()) {
        // The lock is kept, so that the window makes no other step.
        stop_once();
        std::_Exit(exit_code(Error("cancelled", "")));
      }
    }
  }

  bool is_interrupted() const {
    try {
      return run_.interrupted();
    } catch (const Error&) {
      // Whoever asks by other means than signals is gone.
      return true;
    }
  }

  void stop_once() {
    if (!stopped_ && run_.display_lost) {
      stopped_ = true;
      run_.display_lost();
    }
  }

  const WindowRun& run_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool ending_ = false;  // guarded by the mutex, as the two below
  bool stopped_ = false;
  Clock::time_point last_step_ = Clock::now();
  std::thread thread_;
};

// Has the loss of the display handled for as long as it lives.
class LossHandling {
 public:
  explicit LossHandling(DisplayWatch& watch) {
    set_display_lost([&watch] { watch.stop_work(); });
  }
  ~LossHandling() { set_display_lost({}); }
  LossHandling(const LossHandling&) = delete;
  LossHandling& operator=(const LossHandling&) = delete;
};

}  // namespace

void run_dialog(const ScreenDialog& dialog, const WindowRun& run) {
  DisplayWatch watch(run);
  open_display(run.otherwise);
  // Other threads may wake this one from here on.
  Fl::lock();
  const LossHandling handling(watch);
  DialogWindow window(dialog, run.program, run.icon_file);
  // Of many changes in a short time, only the first has to wake the window. Shared, since the last call may still be
  // under way on its thread when this function ends.
  const auto woken = std::make_shared<std::atomic<bool>>(false);
  dialog.set_wakeup([woken] {
    if (!woken->exchange(true)) {
      Fl::awake();
    }
  });
  window.refresh();
  window.show();
  bool told = false;
  while (!dialog.closed()) {
    wait_for_change(window.busy());
    *woken = false;
    if (watch.step()) {
      dialog.close();
    }
    window.refresh();
    if (!told && window.frames() != 0) {
      told = true;
      if (run.shown) {
        run.shown();
      }
      if (run.smoke) {
        dialog.close();
      }
    }
  }
  dialog.set_wakeup({});
}

int tell_in_window(const Error& error, std::string_view heading, const WindowRun& run) {
  const int code = tell_failure(error, false);
  if (error.code == "usage" || error.code == "display") {
    return code;
  }
  try {
    WindowRun quiet = run;
    quiet.shown = {};
    run_dialog(message_dialog(heading, error.what()), quiet);
  } catch (const std::exception&) {
    // The line has told it.
  }
  return code;
}

}  // namespace ravok
