#include "window/run_dialog.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <memory>

#include <FL/Fl.H>

#include "app/command/console_output.hpp"
#include "app/screen/message_dialog.hpp"
#include "window/dialog_window.hpp"
#include "window/display.hpp"

namespace ravok {
namespace {

using Clock = std::chrono::steady_clock;

// How often the window looks for what nothing wakes it for, and how often it is drawn while it is busy.
constexpr std::chrono::milliseconds idle_wait(250);
constexpr std::chrono::milliseconds busy_wait(40);

// Handles events until the next look is due or, in a window that is not busy, until something wakes it.
void wait_for_change(bool busy) {
  const Clock::time_point due = Clock::now() + (busy ? busy_wait : idle_wait);
  do {
    const std::chrono::duration<double> rest = due - Clock::now();
    Fl::wait(std::max(rest.count(), 0.0));
  } while (busy && Clock::now() < due);
}

}  // namespace

void run_dialog(const ScreenDialog& dialog, const WindowRun& run) {
  open_display(run.otherwise);
  // Other threads may wake this one from here on.
  Fl::lock();
  set_display_lost(run.display_lost);
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
    if (run.interrupted && run.interrupted()) {
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
  set_display_lost({});
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
