#include "window/run_dialog.hpp"

#include <atomic>

#include <FL/Fl.H>

#include "window/dialog_window.hpp"
#include "window/display.hpp"

namespace ravok {
namespace {

// In seconds: how often the window looks for what nothing wakes it for, and how often it is drawn while it is busy.
constexpr double idle_wait = 0.25;
constexpr double busy_wait = 0.04;

}  // namespace

void run_dialog(const ScreenDialog& dialog, const WindowRun& run) {
  open_display(run.otherwise);
  // Other threads may wake this one from here on.
  Fl::lock();
  set_display_lost(run.display_lost);
  DialogWindow window(dialog, run.program, run.icon_file);
  // Of many changes in a short time, only the first has to wake the window.
  std::atomic<bool> woken = false;
  dialog.set_wakeup([&woken] {
    if (!woken.exchange(true)) {
      Fl::awake();
    }
  });
  window.refresh();
  window.show();
  bool told = false;
  while (!dialog.closed()) {
    Fl::wait(dialog.screen().busy ? busy_wait : idle_wait);
    woken = false;
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

}  // namespace ravok
