#include "app/native_setup.hpp"

#include <exception>
#include <utility>

#include "app/setup_execution.hpp"
#include "domain/error.hpp"

namespace ravok {
namespace {

// Of what failed in no way of this system's own.
constexpr const char* failed_code = "setup_failed";

}  // namespace

NativeSetup::~NativeSetup() {
  cancel_requested_ = true;
  if (thread_.joinable()) {
    thread_.join();
  }
}

void NativeSetup::start(SetupCommand command) {
  {
    const std::lock_guard lock(mutex_);
    // The last wake-up is still a part of the command.
    require(!view_.running && worker_ != std::this_thread::get_id(), "busy", "Setup is already running");
    view_ = View();
    view_.running = true;
  }
  try {
    if (thread_.joinable()) {
      thread_.join();
      const std::lock_guard lock(mutex_);
      worker_ = {};
    }
    cancel_requested_ = false;
    thread_ = std::thread([this, command = std::move(command)] { run(command); });
  } catch (const std::exception& problem) {
    View outcome;
    outcome.error_code = failed_code;
    outcome.error_message = problem.what();
    finish(std::move(outcome));
  }
}

NativeSetup::View NativeSetup::view() const {
  const std::lock_guard lock(mutex_);
  return view_;
}

void NativeSetup::set_wakeup(std::function<void()> wakeup) {
  const std::lock_guard lock(mutex_);
  wakeup_ = std::move(wakeup);
}

void NativeSetup::run(const SetupCommand& command) {
  {
    const std::lock_guard lock(mutex_);
    worker_ = std::this_thread::get_id();
  }
  NativeSetupCallbacks callbacks;
  callbacks.cancelled = [this] { return cancel_requested_.load(); };
  callbacks.progress = [this](std::string_view phase, std::uint64_t done, std::uint64_t total) {
    publish([&](View& view) {
      view.phase = phase;
      view.done = done;
      view.total = total;
    });
  };
  View outcome;
  try {
    outcome.result = run_setup_command(command, package_seal_, callbacks);
  } catch (const Error& error) {
    outcome.error_code = error.code;
    outcome.error_message = error.what();
  } catch (const std::exception& problem) {
    outcome.error_code = failed_code;
    outcome.error_message = problem.what();
  }
  finish(std::move(outcome));
}

void NativeSetup::finish(View outcome) {
  publish([&](View& view) {
    view.running = false;
    view.result = std::move(outcome.result);
    view.error_code = std::move(outcome.error_code);
    view.error_message = std::move(outcome.error_message);
  });
}

void NativeSetup::publish(const std::function<void(View&)>& change) {
  std::function<void()> wakeup;
  {
    const std::lock_guard lock(mutex_);
    change(view_);
    wakeup = wakeup_;
  }
  if (wakeup) {
    wakeup();
  }
}

}  // namespace ravok
