#include "app/setup/native_setup.hpp"

#include <exception>
#include <new>
#include <string_view>
#include <utility>

#include "app/setup/setup_execution.hpp"
#include "domain/error.hpp"

namespace ravok {
namespace {

// The code of a failure that has none of its own. It is so short that a string holds it without memory from the heap.
constexpr const char* failed_code = "setup_failed";

// Returns the outcome of a failure. Without memory for the message, it has at least a code.
NativeSetup::View failed(std::string_view error, const char* message) {
  NativeSetup::View outcome;
  try {
    outcome.error_code = error;
    outcome.error_message = message;
  } catch (const std::bad_alloc&) {
    outcome.error_code = failed_code;
  }
  return outcome;
}

}  // namespace

template <typename Change>
void NativeSetup::publish(Change change) {
  std::shared_ptr<const std::function<void()>> wakeup;
  {
    const std::lock_guard lock(mutex_);
    change(view_);
    wakeup = wakeup_;
  }
  if (wakeup && *wakeup) {
    (*wakeup)();
  }
}

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
    finish(failed(failed_code, problem.what()));
  }
}

NativeSetup::View NativeSetup::view() const {
  const std::lock_guard lock(mutex_);
  return view_;
}

void NativeSetup::set_wakeup(std::function<void()> wakeup) {
  auto shared = std::make_shared<const std::function<void()>>(std::move(wakeup));
  const std::lock_guard lock(mutex_);
  wakeup_ = std::move(shared);
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
    outcome = failed(error.code, error.what());
  } catch (const std::exception& problem) {
    outcome = failed(failed_code, problem.what());
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

}  // namespace ravok
