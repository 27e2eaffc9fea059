// A newer client, found and prepared while this one runs: the launcher in the store, where the bootstrap will try it,
// and the bootstrap, which takes its place at a next start.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "domain/error.hpp"
#include "domain/json.hpp"
#include "platform/snapshot/progress.hpp"
#include "tuf/tuf.hpp"

namespace ravok {

// What came of one part of an update.
struct PartUpdate {
  Json result;                   // null where the part failed or was not begun
  std::optional<Error> problem;  // why it failed
  Json to_json() const;          // the result; {"problem": {"code", "message"}}; or null
};

// What came of an update.
struct ClientUpdate {
  PartUpdate launcher;   // as LauncherStore::stage tells it
  PartUpdate bootstrap;  // {"status": "staged"} and so on, as stage_bootstrap_update tells it

  // The failure that the update as a whole ends with: the launcher's, or else the bootstrap's.
  const Error* problem() const;

  // {"schema_version": 1, "launcher": ..., "bootstrap": ...} and, after a failure, "problem" with its code and message.
  Json to_json() const;
};

// Told how an update goes on; both may be empty.
struct UpdateObserver {
  // `work` is said to the user: "Downloading the launcher".
  std::function<void(std::string_view work)> begin;
  // Told bytes of what has begun. Answers false to cancel.
  ProgressCallback progress;
};

// Prepares the newest launcher and the newest bootstrap that the repository of a data folder has. Nothing that runs is
// touched, and nothing is tried out: that is for the bootstrap to do, at its next start. A part that fails leaves the
// other to be prepared, unless the repository itself cannot be reached or trusted, or the user has cancelled.
//
// With `background` it is a check that nobody waits for: what LauncherStore::stage skips then is skipped, and where no
// answer of the repository can be had, or another process is at it, the launcher is skipped with that code as the
// reason: "network", "http_status", "redirect_rejected", "discovery_timeout", "discovery_budget" or "busy". The search
// itself may take 30 seconds and 8 MiB for each part. Without `background`, a repository that has no launcher for this
// platform is "not_published" too.
//
// The store's lock, which a start that tries a version needs, is taken only once the repository has told what it has.
// Keeps a setup from beginning meanwhile, and waits at most 15 seconds for one that runs. Fails itself only before a
// part is begun, as bootstrap_lifetime_in and InstalledRepository do. A part that the user has cancelled has the
// failure "cancelled".
ClientUpdate update_client(const std::filesystem::path& data_root, const UpdateObserver& observer, bool background,
                           const std::function<bool()>& cancelled);

// Returns what came of an update in one line for each part that has not failed.
std::vector<std::string> update_lines(const ClientUpdate& update);

}  // namespace ravok
