#include "app/launcher/launcher_attempt.hpp"

#include <algorithm>
#include <string_view>
#include <thread>
#include <utility>

#include "app/launcher/launcher_startup.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/status.hpp"
#include "platform/process/child_process.hpp"
#include "platform/snapshot/snapshot_tree.hpp"

namespace ravok {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds longest_limit(30'000);
constexpr milliseconds first_start_limit(30'000);
constexpr milliseconds pause_before_health(10);
constexpr milliseconds pause_without_lease(5);
constexpr milliseconds patience_without_lease(100);
constexpr milliseconds pause_while_running(20);
constexpr std::uint64_t exit_codes = 256;

// A child that cannot be asked is one that may still run.
bool is_known_to_end(const LauncherChild& child) {
  try {
    return child.terminate(failed_start_grace);
  } catch (const Error&) {
    return false;
  }
}

bool is_held(const std::filesystem::path& lease) {
  try {
    const FileLock probe(lease, false, LockMode::exclusive);
    return false;
  } catch (const Error& error) {
    if (error.code != "busy") {
      throw;
    }
    return true;
  }
}

// Asks again and again until the time, and returns whether the child has ended.
bool ends_before(const LauncherChild& child, Clock::time_point time) {
  while (Clock::now() < time) {
    std::this_thread::sleep_for(pause_without_lease);
    if (child.poll()) {
      return true;
    }
  }
  return false;
}

// Returns the attempt of the waiting candidate, once one that was interrupted is recovered, or null where there is
// none.
Json begin_attempt(const LauncherStore& store, const LauncherStart& start) {
  try {
    store.recover_attempt();
    require(!start.cancelled || !start.cancelled(), "cancelled", start_cancelled);
    return store.begin_candidate();
  } catch (const Error& error) {
    // A full disk keeps nothing from a version that works. The document says what it said before, for a later start.
    if (!is_lack_of_room(store, error) || store.load().at("active").is_null()) {
      throw;
    }
    return nullptr;
  }
}

void prove(LauncherAttempt& attempt, const StartLauncher& start_child) {
  attempt.take_leases();
  attempt.verify_files();
  attempt.start_child(start_child);
  while (!attempt.has_settled()) {
    std::this_thread::sleep_for(pause_before_health);
  }
  attempt.read_health();
  attempt.release_attempt_lease();
  attempt.require_lease_of_child();
  attempt.confirm();
}

}  // namespace

LauncherChild start_launcher(const LauncherProgram& program) {
  // Nothing may fail once the child runs, since nobody could end it then.
  const auto child = std::make_shared<std::optional<ChildProcess>>();
  LauncherChild result = {0, [child] { return (*child)->poll(); }, [child] { return (*child)->request_interrupt(); },
                          [child](std::uint64_t grace) { return (*child)->terminate(grace); }};
  child->emplace(program.entry, program.arguments, program.directory, program.environment,
                 program.console ? ChildStreams::inherited : ChildStreams::joined, ChildEnvironment::kept, nullptr,
                 program.console ? ChildGroup::own : ChildGroup::shared,
                 program.console ? ChildControl::interrupt : ChildControl::none);
  result.pid = (*child)->pid();
  return result;
}

std::vector<std::string> launcher_arguments(const std::filesystem::path& data_root,
                                            const std::vector<std::string>& arguments) {
  std::vector<std::string> all = {"--data-dir", path_utf8(std::filesystem::absolute(data_root).lexically_normal())};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return all;
}

void require_startup_limit(milliseconds limit) {
  require(limit >= milliseconds(1) && limit <= longest_limit, "launcher_health",
          "Launcher startup limit must be bounded to 30 seconds");
}

LauncherAttempt::LauncherAttempt(const LauncherStore& store, LauncherStart start, Json attempt)
    : store_(store), start_(std::move(start)), attempt_(std::move(attempt)), reference_(attempt_.at("reference")) {}

void LauncherAttempt::take_leases() {
  manifest_ = store_.manifest(reference_);
  payload_ = store_.payload(reference_);
  version_lease_ = store_.version_guard(reference_, LockMode::shared);
  attempt_lease_ = std::make_unique<FileLock>(store_.startup_lease_path(attempt_), false, LockMode::shared);
}

void LauncherAttempt::verify_files() const {
  ProgressCallback progress;
  if (start_.cancelled) {
    progress = [this](std::uint64_t, std::uint64_t) { return !start_.cancelled(); };
  }
  verify_snapshot_tree(*manifest_, payload_, progress);
}

void LauncherAttempt::start_child(const StartLauncher& start) {
  const bool console = start_.interface == "cli";
  const std::string& entry = console ? manifest_->executable : manifest_->gui_executable;
  const bool another_works = !store_.load().at("active").is_null();
  child_ = start({safe_join(payload_, entry, true), payload_, launcher_arguments(store_.root(), start_.arguments),
                  store_.health_environment(attempt_, start_.interface), console});
  deadline_ = Clock::now() + (another_works ? start_.limit : first_start_limit);
}

bool LauncherAttempt::user_wants_to_stop() const { return start_.interrupted && start_.interrupted(); }

bool LauncherAttempt::has_settled() {
  if (user_wants_to_stop()) {
    child_->request_interrupt();
    return true;
  }
  if (!is_missing(store_.health_path(attempt_))) {
    return true;
  }
  require(!child_->poll(), "launcher_startup_failed", "Launcher candidate exited before initialization");
  require(Clock::now() < deadline_, "launcher_startup_timeout", "Launcher candidate did not confirm initialization");
  return false;
}

void LauncherAttempt::read_health() {
  health_ = parse_json(read_file(store_.health_path(attempt_), maximum_startup_document_bytes),
                       maximum_startup_document_bytes);
}

void LauncherAttempt::require_lease_of_child() const {
  if (child_->poll() || is_held(store_.startup_lease_path(attempt_))) {
    return;
  }
  require(ends_before(*child_, std::min(Clock::now() + patience_without_lease, deadline_)), "launcher_lease",
          "The running launcher did not retain native startup ownership");
}

void LauncherAttempt::confirm() const { store_.confirm_candidate(attempt_, health_, child_->pid, start_.interface); }

void LauncherAttempt::release_leases() {
  attempt_lease_.reset();
  version_lease_.reset();
}

int LauncherAttempt::wait_for_child() const {
  for (;;) {
    if (const std::optional<std::uint64_t> code = child_->poll()) {
      return *code < exit_codes ? static_cast<int>(*code) : 1;
    }
    if (user_wants_to_stop()) {
      child_->request_interrupt();
    }
    std::this_thread::sleep_for(pause_while_running);
  }
}

void LauncherAttempt::reject() const {
  const bool ended = !child_ || is_known_to_end(*child_);
  try {
    store_.reject_candidate(attempt_, ended ? "startup_failed" : "startup_unconfirmed");
  } catch (const Error& error) {
    // A full disk keeps nothing from a version that works. A later start recovers the attempt.
    if (error.code != "insufficient_space" || store_.load().at("active").is_null()) {
      throw;
    }
  }
  require(ended, "launcher_startup_timeout",
          "Launcher candidate exit is unconfirmed; the working launcher remains selected");
}

std::optional<int> run_launcher_attempt(const LauncherStore& store, const LauncherStart& start,
                                        const StartLauncher& start_child) {
  interface_shape(start.interface);
  require_startup_limit(start.limit);
  const std::unique_ptr<FileLock> owner = store.owner();
  const Json record = begin_attempt(store, start);
  if (record.is_null()) {
    return std::nullopt;
  }
  LauncherAttempt attempt(store, start, record);
  try {
    prove(attempt, start_child);
  } catch (const Error&) {
    attempt.reject();
    if (store.status().at("active").is_null()) {
      throw;
    }
    return std::nullopt;
  } catch (...) {
    // Nothing may run on that has not proved itself.
    attempt.reject();
    throw;
  }
  attempt.release_leases();
  return attempt.wait_for_child();
}

}  // namespace ravok
