// A client that hands over to its helper, and that helper, in one program: copied into a store, it runs from there as a
// version's entry or as its helper. It prints a refusal as "CODE: MESSAGE", with which it ends with code 3.
//
// As a client:
//
//   [still] [cancelled] cli ROOT ARGUMENT...   holds its lease, and runs the command as the console's entry does
//   [still] [cancelled] bare ROOT ARGUMENT...  the same without a lease of its own
//   [still] [cancelled] gui ROOT               prepares the hand-over of the windowed entry, and says which locks it
//                                              leaves free
//   [still] [cancelled] start ROOT [again]     opens the helper's window, twice with the last word, and prints each
//   view
//
// "still" lets no time pass but in waiting, and "patient" in its place lets ten times as much pass then as it counts.
// "cancelled" is the user's wish; with "late" in its place, the user wishes it only when asked for the second time.
//
// As a helper:
//
//   uninstall ...      prints how it was started and which locks are free, and ends with code 7
//   --data-dir ROOT    prints its process number and its arguments, and does what the variable HANDOFF_WINDOW says:
//                      "open" says that the window is open and never ends by itself, "end" ends, "hang" never does

#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <unistd.h>

#include "app/launcher/launcher_image.hpp"
#include "app/launcher/launcher_runtime.hpp"
#include "app/launcher/launcher_startup.hpp"
#include "app/maintenance/maintenance_entry.hpp"
#include "app/maintenance/maintenance_handoff.hpp"
#include "app/maintenance/maintenance_runtime.hpp"
#include "domain/crypto.hpp"
#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "platform/process/process.hpp"
#include "support/clock_calls.hpp"

namespace ravok {
namespace {

using Words = std::vector<std::string>;

void say(const std::string& line) { std::cout << line << std::endl; }

[[noreturn]] void hang() {
  for (;;) {
    pause();
  }
}

std::string value_of(std::string_view name) { return process_environment(name, 8192).value_or(""); }

bool is_free(const std::filesystem::path& lock) {
  try {
    const FileLock taken(lock, false, LockMode::exclusive);
    return true;
  } catch (const Error& error) {
    require(error.code == "busy", error.code, error.what());
    return false;
  }
}

// Which locks of the store and of the version that this program belongs to nobody holds.
Json free_locks() {
  const ManagedVersion version = managed_version(current_executable_path()).value();
  const LauncherPaths paths(DataPaths(version.root).launcher);
  return {{"owner", is_free(paths.owner_lock)}, {"version", is_free(paths.version_lease(version.manifest_sha256))}};
}

int tell(const Words& words) {
  Json environment = Json::object();
  for (const std::string_view name : {"RAVOK_MAINTENANCE_COPY", "RAVOK_MAINTENANCE_READY"}) {
    environment[std::string(name)] = value_of(name);
  }
  for (const std::string_view name : startup_variables) {
    environment[std::string(name)] = value_of(name);
  }
  say(Json{{"image", current_executable_path().native()},
           {"directory", std::filesystem::current_path().native()},
           {"arguments", words},
           {"environment", environment},
           {"free", free_locks()}}
          .dump());
  return 7;
}

int show_window(const Words& words) {
  say("window " + std::to_string(getpid()) + " " + words.at(0) + " " + words.at(1));
  const std::string behaviour = value_of("HANDOFF_WINDOW");
  if (behaviour == "end") {
    return 0;
  }
  if (behaviour == "open") {
    MaintenanceRuntime::attach("maintenance-gui", "0.1.0")->report_ready();
  }
  hang();
}

int start(const Words& words, bool cancelled) {
  MaintenanceHandoff handoff;
  if (cancelled) {
    // The task's thread does not run yet when this is called for its beginning.
    handoff.set_wakeup([&] { handoff.cancel(); });
  } else {
    // This is forgotten when the task begins.
    handoff.cancel();
  }
  for (std::size_t time = 1; time < words.size(); ++time) {
    handoff.start(words.at(1), {});
    handoff.join();
    say(handoff.view().dump());
  }
  return 0;
}

int run_client(const Words& words, int cancelled_at) {
  const std::string& task = words.at(0);
  std::function<bool()> wish;
  if (cancelled_at != 0) {
    wish = [cancelled_at, asked = 0]() mutable { return ++asked >= cancelled_at; };
  }
  if (task == "cli") {
    // The lease that every client holds until its end.
    const auto runtime = LauncherRuntime::attach("build-1", "cli", words.at(1));
    return run_cli_maintenance(words.at(1), Words(words.begin() + 2, words.end()), wish);
  }
  if (task == "bare") {
    return run_cli_maintenance(words.at(1), Words(words.begin() + 2, words.end()), wish);
  }
  if (task == "gui") {
    const auto runtime = prepare_gui_maintenance(words.at(1), {}, wish);
    say(free_locks().dump());
    return 0;
  }
  return start(words, cancelled_at == 1);
}

int run(Words words) {
  if (words.at(0) == "uninstall") {
    return tell(words);
  }
  if (words.at(0) == "--data-dir") {
    return show_window(words);
  }
  std::optional<testing::StillClock> clock;
  if (words.at(0) == "still") {
    words.erase(words.begin());
    clock.emplace();
  } else if (words.at(0) == "patient") {
    words.erase(words.begin());
    clock.emplace([] { usleep(100'000); });
  }
  const int cancelled_at = words.at(0) == "cancelled" ? 1 : words.at(0) == "late" ? 2 : 0;
  if (cancelled_at != 0) {
    words.erase(words.begin());
  }
  return run_client(words, cancelled_at);
}

}  // namespace
}  // namespace ravok

int main(int count, char** words) {
  try {
    ravok::initialize_client_runtime();
    return ravok::run({words + 1, words + count});
  } catch (const ravok::Error& error) {
    (error.code == "output_failed" ? std::cerr : std::cout) << error.code << ": " << error.what() << std::endl;
    for (const std::string& detail : error.details) {
      std::cout << "hint: " << detail << std::endl;
    }
    return 3;
  } catch (const std::exception& problem) {
    std::cout << problem.what() << std::endl;
    return 2;
  }
}
