#include "gui_window.hpp"

#include <string>
#include <string_view>

#include "app/brand/brand.hpp"
#include "app/maintenance/maintenance_handoff.hpp"
#include "app/screen/screen.hpp"
#include "domain/display_text.hpp"
#include "launcher.hpp"
#include "window/run_dialog.hpp"

namespace launcher {
namespace {

// What the window shows: the launcher's versions in words, the games that it has, and the way to remove it.
class LauncherDialog {
 public:
  explicit LauncherDialog(const ravok::LauncherRuntime* runtime) : runtime_(runtime) {
    if (runtime_ != nullptr) {
      try {
        ravok::use_installed_brand(runtime_->data_root());
      } catch (const ravok::Error&) {
        // A theme that cannot be used leaves the launcher in its own colours.
      }
    }
    read_status();
  }

  ravok::Screen screen() {
    advance();
    if (on_trial_) {
      read_status();
    }
    ravok::Screen screen;
    screen.id = "launcher";
    screen.title = ravok::product_name();
    screen.heading = ravok::product_name();
    screen.items.emplace_back(ravok::ScreenText{"status", status_, ravok::TextTone::normal});
    screen.items.emplace_back(ravok::ScreenText{"games", "There are no games yet.", ravok::TextTone::muted});
    if (!notice_.empty()) {
      screen.items.emplace_back(ravok::ScreenText{"notice", notice_, ravok::TextTone::warning});
    }
    screen.actions = {{"close", "&Close", ravok::ActionTone::accent}};
    if (runtime_ != nullptr && !handing_over_) {
      screen.actions.push_back({"uninstall", "&Uninstall…", ravok::ActionTone::normal});
    }
    return screen;
  }

  void press(std::string_view action) {
    if (action == "close") {
      closed_ = true;
    } else if (action == "uninstall" && !handing_over_) {
      handing_over_ = true;
      notice_ = "Opening the window that removes it…";
      handoff_.start(runtime_->data_root(), {});
    }
  }

  ravok::ScreenDialog for_window() {
    return {[this] { return screen(); },
            [this](std::string_view action) { press(action); },
            [](std::string_view, std::string_view) {},
            [](std::string_view, bool) {},
            [](std::string_view, std::size_t) {},
            [](std::string_view, std::size_t) {},
            [this] { closed_ = true; },
            [this] { return closed_; },
            [this](const std::function<void()>& wakeup) { handoff_.set_wakeup(wakeup); }};
  }

 private:
  // A version that was on trial when the window opened is active a moment later.
  void read_status() {
    try {
      const ravok::Json status = status_document(runtime_);
      on_trial_ = !status.at("on_trial").is_null();
      status_ = status_text(status);
      status_.erase(status_.find_last_not_of('\n') + 1);
    } catch (const ravok::Error& error) {
      status_ = ravok::shown_text(error.what());
      on_trial_ = false;
    }
  }

  // The helper removes the launcher, which therefore closes once the helper's window is up.
  void advance() {
    if (!handing_over_) {
      return;
    }
    const ravok::Json view = handoff_.view();
    const std::string phase = ravok::text_at(view, "phase");
    if (phase == "succeeded") {
      closed_ = true;
    } else if (phase == "failed") {
      handing_over_ = false;
      notice_ = ravok::shown_text(ravok::text_at(view.at("problem"), "message"));
    }
  }

  const ravok::LauncherRuntime* const runtime_;
  std::string status_;
  bool on_trial_ = false;
  std::string notice_;
  bool handing_over_ = false;
  bool closed_ = false;
  ravok::MaintenanceHandoff handoff_;
};

}  // namespace

void show_window(const ravok::LauncherRuntime* runtime, bool smoke, const std::function<void()>& shown,
                 const std::function<bool()>& interrupted) {
  LauncherDialog dialog(runtime);
  ravok::WindowRun run;
  run.program = "ravok-gui";
  run.otherwise = "ravok works without one";
  run.smoke = smoke;
  run.shown = shown;
  run.interrupted = interrupted;
  ravok::run_dialog(dialog.for_window(), run);
}

}  // namespace launcher
