// A launcher that fails its trial on purpose, in the way that the variable RAVOK_SAMPLE_TROUBLE names. Nothing here is
// to be copied.

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "app/launcher/launcher_reference.hpp"
#include "app/launcher/launcher_startup.hpp"
#include "app/launcher/launcher_store.hpp"
#include "domain/crypto.hpp"
#include "launcher.hpp"
#include "platform/file/files.hpp"
#include "platform/process/interrupt.hpp"
#include "platform/process/process.hpp"
#include "platform/process/process_operations.hpp"
#include "platform/process/program_start.hpp"

namespace {

using ravok::Json;
using ravok::LauncherRuntime;
using ravok::LauncherStore;

constexpr std::chrono::milliseconds pause(5);

std::unique_ptr<LauncherRuntime> attach(const ravok::CliEntry& entry) {
  return LauncherRuntime::attach(launcher::build_id(), "cli", entry.data_dir);
}

[[noreturn]] void hang() {
  for (;;) {
    std::this_thread::sleep_for(pause);
  }
}

// Waits until the bootstrap has made this version the active one.
void wait_for_trust(const LauncherRuntime& runtime) {
  const auto store = LauncherStore::for_launch(runtime.data_root());
  while (!store->load().at("attempt").is_null()) {
    std::this_thread::sleep_for(pause);
  }
}

int end_before_ready(const ravok::CliEntry& entry) {
  attach(entry);
  return 3;
}

int hang_before_ready(const ravok::CliEntry& entry) {
  attach(entry);
  hang();
}

// Cannot be asked to end either.
int hang_for_good(const ravok::CliEntry& entry) {
  std::signal(SIGTERM, SIG_IGN);
  return hang_before_ready(entry);
}

// Says that another process is ready.
int report_for_another(const ravok::CliEntry& entry) {
  const auto runtime = attach(entry);
  const auto store = LauncherStore::for_launch(runtime->data_root());
  const Json health = store->manifest(runtime->reference())
                          .startup_health(runtime->attempt(), ravok::os::process_id() + 1, "cli", true);
  ravok::atomic_private_create(store->health_path(runtime->attempt()), health.dump());
  hang();
}

// Says that it is ready, and does not listen to the pipe for interrupts.
int report_without_interrupts(const ravok::CliEntry& entry) {
  const auto runtime = attach(entry);
  const auto store = LauncherStore::for_launch(runtime->data_root());
  const Json health =
      store->manifest(runtime->reference()).startup_health(runtime->attempt(), ravok::os::process_id(), "cli", false);
  ravok::atomic_private_create(store->health_path(runtime->attempt()), health.dump());
  hang();
}

// Says all that a good launcher says, and holds no lease.
int run_without_leases(const ravok::CliEntry& entry) {
  const auto value = [](std::string_view variable) { return ravok::process_environment(variable, 8192).value_or(""); };
  const Json attempt = {{"nonce", value(ravok::startup_variable::health_nonce)},
                        {"reference", ravok::make_reference(value(ravok::startup_variable::manifest),
                                                            value(ravok::startup_variable::build))}};
  const auto store = LauncherStore::for_launch(entry.data_dir);
  const ravok::LauncherManifest manifest = store->manifest(attempt.at("reference"));
  const std::uint64_t pid = ravok::os::process_id();
  ravok::atomic_private_create(store->startup_ack_path(attempt),
                               ravok::lease_document(manifest, attempt, pid, "cli").dump());
  ravok::atomic_private_create(store->health_path(attempt), manifest.startup_health(attempt, pid, "cli", true).dump());
  hang();
}

int take_the_acknowledgement_back(const ravok::CliEntry& entry) {
  const auto runtime = attach(entry);
  const auto store = LauncherStore::for_launch(runtime->data_root());
  std::filesystem::remove(store->startup_ack_path(runtime->attempt()));
  launcher::report_ready(runtime.get());
  hang();
}

int crash_once_trusted(const ravok::CliEntry& entry) {
  const auto runtime = attach(entry);
  launcher::report_ready(runtime.get());
  wait_for_trust(*runtime);
  std::abort();
}

// No trouble at all: runs until it is asked to stop.
int stay(const ravok::CliEntry& entry, const ravok::ConsoleInterrupt& interrupt) {
  const auto runtime = attach(entry);
  launcher::report_ready(runtime.get());
  while (!interrupt.requested()) {
    std::this_thread::sleep_for(pause);
  }
  ravok::fail("cancelled", "Cancelled");
}

int run(const std::string& trouble, const ravok::CliEntry& entry) {
  const std::map<std::string, int (*)(const ravok::CliEntry&)> troubles = {
      {"crash-later", crash_once_trusted}, {"deaf", report_without_interrupts},
      {"exit", end_before_ready},          {"hang", hang_before_ready},
      {"hang-for-good", hang_for_good},    {"no-acknowledgement", take_the_acknowledgement_back},
      {"no-lease", run_without_leases},    {"wrong-health", report_for_another}};
  const auto found = troubles.find(trouble);
  ravok::require(found != troubles.end(), "usage", "Unknown trouble: " + trouble);
  return found->second(entry);
}

}  // namespace

int main(int argc, char** argv) {
  if (!ravok::start_program()) {
    return 1;
  }
  try {
    ravok::initialize_client_runtime();
    const ravok::ConsoleInterrupt interrupt(true);
    const ravok::CliEntry entry = launcher::command_line(ravok::process_arguments(argc, argv), nullptr);
    const std::string trouble = ravok::process_environment("RAVOK_SAMPLE_TROUBLE", 64).value_or("exit");
    return trouble == "stay" ? stay(entry, interrupt) : run(trouble, entry);
  } catch (const ravok::Error& error) {
    return launcher::tell(error, false);
  } catch (const std::exception& problem) {
    return launcher::tell(problem, false);
  }
}
