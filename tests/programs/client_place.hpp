// A data folder with versions of the launcher, and starts of the client in it as real processes.
#pragma once

#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <poll.h>
#include <sys/inotify.h>
#include <sys/types.h>
#include <unistd.h>

#include "app/launcher/launcher_reference.hpp"
#include "app/launcher/launcher_store.hpp"
#include "domain/crypto.hpp"
#include "domain/data_layout.hpp"
#include "domain/json.hpp"
#include "platform/file/files.hpp"
#include "platform/file/handle.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/snapshot/snapshot_archive.hpp"
#include "programs/started_program.hpp"
#include "support/failure.hpp"
#include "support/fast_volume.hpp"
#include "support/launcher_release.hpp"
#include "support/process.hpp"
#include "support/temporary_root.hpp"

namespace ravok::testing {

// Waits for something that must come true, as long as a slow machine may take.
inline void wait_until(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error("What was waited for has not happened");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

// Whether somebody holds the lock.
inline bool is_held(const std::filesystem::path& lock) {
  const auto failure = failure_of([&] { const FileLock probe(lock, false, LockMode::exclusive); });
  return failure && failure->code == "busy";
}

// Tells how often a file is opened, from now on.
class OpenedFile {
 public:
  explicit OpenedFile(const std::filesystem::path& path) : events_(inotify_init1(IN_CLOEXEC)) {
    if (!events_ || inotify_add_watch(static_cast<int>(events_.get()), path.c_str(), IN_OPEN | IN_CLOSE) < 0) {
      throw std::runtime_error("Cannot watch a file of a test");
    }
  }

  // Waits until it was opened so often since the last call. Who tries to take a lock opens its file each time.
  void wait(int times) const {
    for (int opened = 0; opened < times;) {
      pollfd events = {static_cast<int>(events_.get()), POLLIN, 0};
      inotify_event event;
      if (::poll(&events, 1, 60'000) != 1 || read(events.fd, &event, sizeof event) != sizeof event) {
        throw std::runtime_error("Nobody has opened the file");
      }
      opened += (event.mask & IN_OPEN) != 0 ? 1 : 0;
    }
  }

 private:
  const Handle events_;
};

// A program that says this and its arguments.
inline std::string saying(const std::string& words) { return "#!/bin/sh\necho \"" + words + ":$*\"\n"; }

// The programs of a version that do nothing but to say who they are.
inline LauncherPrograms programs_saying(const std::string& version) {
  return {saying(version + " console"), saying(version + " window"), saying(version + " maintenance")};
}

// The programs of a version whose console program fails as told, or runs until it is asked to stop.
inline LauncherPrograms troubled_programs() { return {bytes_of(RAVOK_LAUNCHER_TROUBLED), "#!ravok-gui"}; }

class ClientPlace {
 public:
  using Arguments = std::vector<std::string>;
  using Environment = std::map<std::string, std::string>;

  ClientPlace() : data(root.directory("data")), store(data) {}
  // A place in a folder where something is installed.
  explicit ClientPlace(const std::filesystem::path& folder) : data(folder), store(data) {}

  // Ends the launchers of this place that a test has left behind, as one that failed may.
  ~ClientPlace() { end_launchers(); }
  ClientPlace(const ClientPlace&) = delete;
  ClientPlace& operator=(const ClientPlace&) = delete;

  // Kills every process that runs a program of this place.
  void end_launchers() const {
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
      std::error_code gone;
      const std::string image = std::filesystem::read_symlink(entry.path() / "exe", gone);
      if (!gone && image.starts_with(data.native() + "/")) {
        kill(static_cast<pid_t>(std::stol(entry.path().filename())), SIGKILL);
      }
    }
  }

  // Unpacks a version and returns its reference.
  Json add(const std::string& note, const LauncherPrograms& programs) const {
    const LauncherRelease release = publish_launcher(root, RAVOK_LAUNCHER_BUILD_ID, programs, note);
    const Json reference = make_reference(digest(release.manifest, "sha256"), RAVOK_LAUNCHER_BUILD_ID);
    atomic_private_create(paths.manifest(text_at(reference, "manifest_sha256")), release.manifest);
    extract_snapshot(LauncherManifest::parse(Json::parse(release.manifest)), release.archive, store.payload(reference),
                     {}, nullptr);
    return reference;
  }
  void name(const std::string& role, const Json& reference) const {
    Json document = store.load();
    document[role] = reference;
    store.save(document);
  }
  bool is_active(const Json& reference) const { return store.load().at("active") == reference; }

  // What the launcher of the attempt that is under way has said of itself first, once it has.
  Json acknowledgement() const {
    std::filesystem::path path;
    wait_until([&] {
      const Json attempt = store.load().at("attempt");
      path = attempt.is_null() ? std::filesystem::path() : store.startup_ack_path(attempt);
      return !path.empty() && std::filesystem::exists(path);
    });
    return Json::parse(bytes_of(path));
  }

  std::filesystem::path version_lease(const Json& reference) const {
    return paths.version_leases / (text_at(reference, "manifest_sha256") + ".lock");
  }

  // How the client is started, with nothing in the environment but this.
  ProgramStart start_of(const Arguments& arguments, Environment environment = {}) const {
    ProgramStart start;
    start.program = RAVOK_BOOTSTRAP;
    start.arguments = {"--data-dir", data};
    start.arguments.insert(start.arguments.end(), arguments.begin(), arguments.end());
    environment.emplace("HOME", root / "home");
    environment.emplace("PATH", "/usr/bin:/bin");
    start.environment = std::move(environment);
    return start;
  }
  std::unique_ptr<StartedProgram> start(const Arguments& arguments, const Environment& environment = {}) const {
    return std::make_unique<StartedProgram>(start_of(arguments, environment));
  }
  // Starts it with a troubled launcher.
  std::unique_ptr<StartedProgram> start_troubled(const std::string& trouble) const {
    return start({"self", "status"}, {{"RAVOK_SAMPLE_TROUBLE", trouble}});
  }
  // Starts it and waits for its end.
  ProgramResult run(const Arguments& arguments, const Environment& environment = {}) const {
    const ProgramStart how = start_of(arguments, environment);
    return run_program({how.program, how.arguments, how.environment, ""});
  }

  // What a version of programs_saying says when it is started with these arguments.
  std::string says(const std::string& who, const std::string& arguments = "") const {
    return who + ":--data-dir " + data.native() + (arguments.empty() ? "" : " ") + arguments + "\n";
  }

  const TemporaryRoot root{fast_volume()};
  const std::filesystem::path data;
  const LauncherStore store;
  const LauncherPaths paths{DataPaths(data).launcher};
};

// The document with which a refusal is told where --json was given.
inline std::string problem_document(const std::string& code, const std::string& message) {
  return Json({{"schema_version", 1}, {"problem", {{"code", code}, {"message", message}}}}).dump() + "\n";
}

}  // namespace ravok::testing
