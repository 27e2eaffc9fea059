// A launcher for the tests of its start: copied into a store, it runs from there as a version's entry. The words behind
// the data folder say what it does. It prints each step on a line of its own, and a refusal as "CODE: MESSAGE", with
// which it ends with code 3.
//
//   launcher_companion --data-dir ROOT INTERFACE TASK...
//
//     run CODE     attaches, reports health, ends with CODE
//     serve        attaches, reports health, says so, waits until its parent asks it to stop, and ends with code 7
//     stay         attaches, reports health, and waits for the end of its input with its runtime gone
//     killed       attaches, reports health, and is ended by a signal
//     refuse       ends at once
//     hang         attaches and waits until it is ended
//     stubborn     the same, and does not let itself be terminated
//     forge        writes both documents for another process, and waits until it is ended
//     drop         writes both documents as it should, without any lease, and waits until it is ended
//     twice        attaches and reports health twice
//     late         attaches, says so, waits for the end of its input, and reports health
//     outside      attaches and says what it is
//     helper ROLE  attaches as a helper
//     mute         attaches, with an environment that cannot be changed

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

#include "app/launcher/launcher_runtime.hpp"
#include "app/launcher/launcher_startup.hpp"
#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "platform/file/files.hpp"
#include "platform/posix/native.hpp"
#include "platform/process/interrupt.hpp"
#include "platform/process/process.hpp"

namespace {

bool environment_is_fixed = false;

}  // namespace

extern "C" {

int __real_unsetenv(const char* name);
int __wrap_unsetenv(const char* name);

int __wrap_unsetenv(const char* name) { return environment_is_fixed ? -1 : __real_unsetenv(name); }
}

namespace ravok {
namespace {

// Must be the build of the version that the test has made.
constexpr const char* build_id = "build-1";

void say(const std::string& line) { std::cout << line << std::endl; }

void wait_for_end_of_input() {
  char ignored = 0;
  while (posix::retry_interrupted([&] { return read(0, &ignored, 1); }) > 0) {
  }
}

[[noreturn]] void wait_for_ever() {
  for (;;) {
    pause();
  }
}

void wait_for_request(const ConsoleInterrupt& interrupt) {
  while (!interrupt.requested()) {
    usleep(1000);
  }
}

void write_acknowledgement(const LauncherStore& store, const Json& attempt, const std::string& interface,
                           std::uint64_t pid) {
  const LauncherManifest manifest = store.manifest(attempt.at("reference"));
  atomic_private_create(store.startup_ack_path(attempt), lease_document(manifest, attempt, pid, interface).dump());
}

void write_health(const LauncherStore& store, const Json& attempt, const std::string& interface, std::uint64_t pid) {
  const LauncherManifest manifest = store.manifest(attempt.at("reference"));
  atomic_private_create(store.health_path(attempt),
                        manifest.startup_health(attempt, pid, interface, interface == "cli").dump());
}

std::string presence() {
  std::string text = launcher_startup_pending() ? "pending" : "not pending";
  for (const std::string_view variable : startup_variables) {
    text += process_environment(variable, 8192) ? "+" : "-";
  }
  return text;
}

int run(const std::vector<std::string>& words) {
  const std::string& root = words.at(1);
  const std::string& interface = words.at(2);
  const std::string& task = words.at(3);
  const auto code = [&] { return std::stoi(words.at(4)); };
  const std::uint64_t own = static_cast<std::uint64_t>(getpid());
  if (task == "refuse") {
    return 9;
  }
  if (task == "drop") {
    const LauncherStore store(root);
    const Json attempt = store.load().at("attempt");
    write_acknowledgement(store, attempt, interface, own);
    write_health(store, attempt, interface, own);
    wait_for_ever();
  }
  if (task == "helper") {
    const auto runtime = LauncherHelperRuntime::attach(words.at(4), build_id);
    say("attached");
    wait_for_end_of_input();
    return 0;
  }
  if (task == "mute") {
    environment_is_fixed = true;
  }
  const ConsoleInterrupt interrupt(true);
  std::unique_ptr<LauncherRuntime> runtime = LauncherRuntime::attach(build_id, interface, root);
  if (task == "outside") {
    say(runtime ? runtime->data_root().string() + " " + runtime->reference().dump() + " " + runtime->attempt().dump()
                : "not attached");
    say(presence());
    report_launcher_health(runtime.get());
    return 0;
  }
  if (task == "hang" || task == "stubborn") {
    if (task == "stubborn") {
      std::signal(SIGTERM, SIG_IGN);
    }
    wait_for_ever();
  }
  if (task == "forge") {
    write_health(LauncherStore(root), runtime->attempt(), interface, own + 1);
    wait_for_ever();
  }
  if (task == "late") {
    say("attached");
    wait_for_end_of_input();
  }
  report_launcher_health(runtime.get());
  if (task == "twice") {
    say("reported");
    report_launcher_health(runtime.get());
  }
  if (task == "killed") {
    raise(SIGKILL);
  }
  if (task == "serve") {
    say("serving");
    wait_for_request(interrupt);
    return 7;
  }
  if (task == "stay") {
    runtime.reset();
    say(presence());
    wait_for_end_of_input();
    return 0;
  }
  return code();
}

}  // namespace
}  // namespace ravok

int main(int count, char** words) {
  try {
    ravok::initialize_client_runtime();
    return ravok::run({words + 1, words + count});
  } catch (const ravok::Error& error) {
    std::cout << error.code << ": " << error.what() << std::endl;
    for (const std::string& detail : error.details) {
      std::cout << "hint: " << detail << std::endl;
    }
    return 3;
  } catch (const std::exception& error) {
    std::cout << error.what() << std::endl;
    return 2;
  }
}
