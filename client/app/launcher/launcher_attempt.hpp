// The bootstrap's run of an attempt: starts the waiting candidate, has it prove itself, and makes it active or rejects
// it. The steps are functions of their own, in the order of the run.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/launcher/launcher_store.hpp"
#include "domain/json.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/process/process.hpp"

namespace ravok {

// The message of a start that the user no longer wants.
inline constexpr const char* start_cancelled = "Ravok's start was cancelled";

// What the user has asked of the bootstrap.
struct LauncherStart {
  std::string interface;               // "cli" or "gui"
  std::vector<std::string> arguments;  // for the launcher, without the data folder
  std::chrono::milliseconds limit;     // how long a candidate may take to be ready, 1 to 30,000 milliseconds
  std::function<bool()> interrupted;   // whether the user wants to stop; empty where nobody can
  // The same, asked before a version is tried and while its files are proved; empty where a wish to stop is only for
  // the version on trial.
  std::function<bool()> cancelled = {};
};

// A program to be started as the launcher of an attempt.
struct LauncherProgram {
  std::filesystem::path entry;
  std::filesystem::path directory;
  std::vector<std::string> arguments;
  ProcessEnvironment environment;
  bool console = false;  // whether it has the console, and can be asked to stop
};

// The child of an attempt, with the operations of ChildProcess of the same names.
struct LauncherChild {
  std::uint64_t pid = 0;
  std::function<std::optional<std::uint64_t>()> poll;
  std::function<bool()> request_interrupt;
  std::function<bool(std::uint64_t grace)> terminate;
};

using StartLauncher = std::function<LauncherChild(const LauncherProgram&)>;

// Starts the program as a child of this process. The child outlives the result, unless it is terminated. Fails as
// ChildProcess does, and no child runs then.
LauncherChild start_launcher(const LauncherProgram& program);

// Returns a launcher's arguments: the data folder, in absolute and normal form, and these.
std::vector<std::string> launcher_arguments(const std::filesystem::path& data_root,
                                            const std::vector<std::string>& arguments);

// Accepts 1 to 30,000 milliseconds. Fails with "launcher_health".
void require_startup_limit(std::chrono::milliseconds limit);

// One attempt, from the moment at which the document names it. Its steps stand in their order. A step that fails is the
// last, and reject() follows.
class LauncherAttempt {
 public:
  // The caller holds the store's owner() as long as the object lives. The store must outlive the object.
  LauncherAttempt(const LauncherStore& store, LauncherStart start, Json attempt);

  // Takes the leases of the version and of the attempt, shared, so that neither is free before the child holds its own.
  // Fails as manifest, payload, version_guard and FileLock do.
  void take_leases();

  // Proves that the files of the version are whole. Fails as verify_snapshot_tree does.
  void verify_files() const;

  // Starts the child and sets its deadline: after the caller's limit where another version works, and after 30 seconds
  // otherwise. Fails as `start` and load do, and with "unsafe_path".
  void start_child(const StartLauncher& start);

  // Looks at the child once, and returns whether there is nothing to wait for any more: it has said that it is ready,
  // or the user wants to stop, which is passed on to it. Fails with "launcher_startup_failed" for a child that has
  // ended, and with "launcher_startup_timeout" after the deadline.
  bool has_settled();

  // Reads what the child has said of itself. Fails as read_file and parse_json do.
  void read_health();

  // Gives up the lease of the attempt, which would otherwise be found in place of the child's own.
  void release_attempt_lease() { attempt_lease_.reset(); }

  // Proves that a child that still runs holds the lease of the attempt. One that does not has 100 milliseconds, or the
  // time to the deadline, to end as a short command does. Fails with "launcher_lease", and as FileLock does.
  void require_lease_of_child() const;

  // Makes the version active. Fails as confirm_candidate does.
  void confirm() const;

  // Gives up both leases.
  void release_leases();

  // Waits for the child's end, and passes the user's wish to stop on to it. Returns its exit code, or 1 for one above
  // 255.
  int wait_for_child() const;

  // Ends the child, if there is one, and rejects the version. Where there is no room to record that while another
  // version works, the attempt stays for a later start to recover. Fails with "launcher_startup_timeout" when it cannot
  // be told that the child has ended, and as reject_candidate does but for that lack of room.
  void reject() const;

 private:
  bool user_wants_to_stop() const;

  const LauncherStore& store_;
  const LauncherStart start_;
  const Json attempt_;
  const Json reference_;
  std::optional<LauncherManifest> manifest_;
  std::filesystem::path payload_;
  std::unique_ptr<FileLock> version_lease_;
  std::unique_ptr<FileLock> attempt_lease_;
  std::optional<LauncherChild> child_;
  std::chrono::steady_clock::time_point deadline_;
  Json health_;
};

// Runs the waiting candidate and returns its exit code once it has ended; the store's owner lock is held until then.
// Returns nothing when no candidate waits, and when one has failed, or there is no room to record that it is tried or
// was interrupted, while another version works, which then can be started. An attempt that was interrupted is recovered
// first. Fails with "launcher_interface", with "launcher_health" for the limit, with "cancelled" before a version is
// tried, as owner does, as recover_attempt and begin_candidate do but for that lack of room, with
// "launcher_startup_timeout" when a failed child may still run, and as the steps above do when no version works.
std::optional<int> run_launcher_attempt(const LauncherStore& store, const LauncherStart& start,
                                        const StartLauncher& start_child = start_launcher);

}  // namespace ravok
