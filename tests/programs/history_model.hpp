// What an installation must be like after each step of a history of versions: plain values and rules, without a file or
// a process.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace ravok::testing {

// A release of the launcher or of the bootstrap by its number, each counted from 0.
inline constexpr int no_release = -1;

// One publication of the repository. Later ones have the higher timestamp version.
struct PublishedState {
  std::size_t root = 0;                     // the version of its newest root
  std::map<std::string, std::string> keys;  // who has signed its timestamp, snapshot and targets
  std::string expired;                      // the one of these three that has expired, if any
  int launcher = no_release;
  int bootstrap = no_release;
};

struct PublishedRoot {
  std::map<std::string, std::string> keys;  // whom it trusts for each of the three
  bool expired = false;
};

// What the world offers to a client.
struct HistoryWorld {
  std::vector<PublishedRoot> roots;  // the first has version 1
  std::vector<PublishedState> states;
  std::size_t served = 0;
  bool is_down = false;
  std::vector<bool> good_launchers;
  std::vector<bool> good_bootstraps;

  const PublishedState& served_state() const { return states.at(served); }
  const PublishedRoot& root(std::size_t version) const { return roots.at(version - 1); }
  bool is_good_launcher(int release) const { return good_launchers.at(static_cast<std::size_t>(release)); }
  bool is_good_bootstrap(int release) const { return good_bootstraps.at(static_cast<std::size_t>(release)); }
};

// What a client trusts of the repository.
struct TrustState {
  std::size_t root = 1;
  std::optional<std::size_t> state = {};  // the publication whose timestamp it has

  bool operator==(const TrustState&) const = default;
};

struct StoreState {
  int active = no_release;
  int rollback = no_release;
  int candidate = no_release;
  int attempt = no_release;
  int failed = no_release;
  std::string problem = {};
  bool is_cleaning = false;  // whether a clean-up has begun and not ended

  bool operator==(const StoreState&) const = default;
};

struct BootstrapState {
  int installed = no_release;
  int pending = no_release;
  int rejected = no_release;

  bool operator==(const BootstrapState&) const = default;
};

struct HistoryState {
  StoreState store;
  BootstrapState bootstrap;
  TrustState trust;

  bool operator==(const HistoryState&) const = default;
};

inline std::ostream& operator<<(std::ostream& stream, const HistoryState& state) {
  const auto& [store, bootstrap, trust] = state;
  stream << "launcher: active " << store.active << ", rollback " << store.rollback << ", candidate " << store.candidate
         << ", attempt " << store.attempt << ", failed " << store.failed << " " << store.problem
         << (store.is_cleaning ? ", cleaning" : "") << "; bootstrap: installed " << bootstrap.installed << ", pending "
         << bootstrap.pending << ", rejected " << bootstrap.rejected << "; trust: root " << trust.root
         << ", publication ";
  return trust.state ? stream << *trust.state : stream << "none";
}

// Follows the repository as a client does that asks it. Returns the code of the failure, if it is one.
inline std::optional<std::string> refresh(TrustState& trust, const HistoryWorld& world) {
  if (world.is_down) {
    return "network";
  }
  const PublishedState& served = world.served_state();
  for (; trust.root < served.root; ++trust.root) {
    const PublishedRoot& old = world.root(trust.root);
    const PublishedRoot& next = world.root(trust.root + 1);
    if (old.keys.at("timestamp") != next.keys.at("timestamp") || old.keys.at("snapshot") != next.keys.at("snapshot")) {
      trust.state.reset();
    }
  }
  const PublishedRoot& root = world.root(trust.root);
  const auto is_signed = [&](const char* role) { return served.keys.at(role) == root.keys.at(role); };
  if (root.expired) {
    return "expired_metadata";
  }
  if (!is_signed("timestamp")) {
    return "signature_threshold";
  }
  if (trust.state && world.served < *trust.state) {
    return "rollback";
  }
  if (served.expired == "timestamp") {
    return "expired_metadata";
  }
  trust.state = world.served;
  for (const char* const role : {"snapshot", "targets"}) {
    if (!is_signed(role)) {
      return "signature_threshold";
    }
    if (served.expired == role) {
      return "expired_metadata";
    }
  }
  return std::nullopt;
}

// How much room a store has for one more version.
enum class StoreRoom { enough, no_version, no_record };

// What the client says of an update: of each part "staged", "current" and so on, "skipped: REASON", "problem: CODE", or
// "none" where the part was not begun.
struct UpdateAnswer {
  std::string launcher = "none";
  std::string bootstrap = "none";
  int exit_code = 0;

  bool operator==(const UpdateAnswer&) const = default;
};

inline std::ostream& operator<<(std::ostream& stream, const UpdateAnswer& answer) {
  return stream << "launcher " << answer.launcher << ", bootstrap " << answer.bootstrap << ", exit code "
                << answer.exit_code;
}

inline std::string stage_launcher(StoreState& store, int published, bool background, StoreRoom room, bool is_unpacked) {
  if (!background && store.is_cleaning) {
    return "problem: launcher_cleanup_pending";
  }
  if (background) {
    if (published == store.active) {
      return "current";
    }
    if (published == store.candidate) {
      return "skipped: candidate_pending";
    }
    if (published == store.failed) {
      return "skipped: failed_before";
    }
  }
  if (store.attempt != no_release) {
    return background ? "skipped: startup_pending" : "problem: busy";
  }
  if (room == StoreRoom::no_record) {
    return "problem: launcher_storage_full";
  }
  if (published == store.active) {
    return "current";
  }
  if (store.candidate != no_release && store.candidate != published) {
    return "problem: launcher_pending";
  }
  if (room == StoreRoom::no_version && !is_unpacked) {
    return "problem: launcher_storage_full";
  }
  store.candidate = published;
  store.failed = no_release;
  store.problem.clear();
  return "staged";
}

inline std::string stage_bootstrap(BootstrapState& bootstrap, int published) {
  if (bootstrap.pending != no_release) {
    return "pending";
  }
  if (published == bootstrap.installed) {
    return "current";
  }
  if (published == bootstrap.rejected) {
    return "rejected";
  }
  bootstrap = {bootstrap.installed, published, no_release};
  return "staged";
}

// An update by a launcher that is active.
inline UpdateAnswer update(HistoryState& state, const HistoryWorld& world, bool background, StoreRoom room,
                           bool is_unpacked) {
  UpdateAnswer answer;
  const auto fails = [&](std::string& part) {
    const std::optional<std::string> failure = refresh(state.trust, world);
    if (failure) {
      const bool is_skipped = background && *failure == "network";
      part = (is_skipped ? "skipped: " : "problem: ") + *failure;
      answer.exit_code = is_skipped ? 0 : 1;
    }
    return failure.has_value();
  };
  if (background && state.store.is_cleaning) {
    // The repository is asked for the bootstrap alone, unless an update of it waits already.
    answer.launcher = "skipped: cleanup_pending";
    if (state.bootstrap.pending != no_release) {
      answer.bootstrap = "pending";
      return answer;
    }
    if (fails(answer.bootstrap)) {
      return answer;
    }
  } else {
    if (fails(answer.launcher)) {
      return answer;
    }
    answer.launcher = stage_launcher(state.store, world.served_state().launcher, background, room, is_unpacked);
  }
  answer.bootstrap = stage_bootstrap(state.bootstrap, world.served_state().bootstrap);
  answer.exit_code = answer.launcher.starts_with("problem") ? 1 : 0;
  return answer;
}

// The version that a start ends with, and whether it was on trial when it began.
struct StartedVersion {
  int version = no_release;
  bool was_on_trial = false;
};

inline void interrupt_attempt(StoreState& store) {
  store.failed = store.attempt;
  store.problem = "startup_interrupted";
  store.attempt = no_release;
}

inline void begin_attempt(StoreState& store) { store.attempt = std::exchange(store.candidate, no_release); }

inline void confirm_attempt(StoreState& store) {
  store.rollback = std::exchange(store.active, std::exchange(store.attempt, no_release));
  store.failed = no_release;
  store.problem.clear();
}

inline void reject_attempt(StoreState& store) {
  store.failed = store.attempt;
  store.problem = "startup_failed";
  store.attempt = no_release;
}

inline void apply_bootstrap(BootstrapState& bootstrap, const HistoryWorld& world) {
  if (bootstrap.pending != no_release) {
    const bool is_good = world.is_good_bootstrap(bootstrap.pending);
    (is_good ? bootstrap.installed : bootstrap.rejected) = bootstrap.pending;
    bootstrap.pending = no_release;
  }
}

// A start of the client in which nothing goes wrong but what is wrong with the releases.
inline StartedVersion start(HistoryState& state, const HistoryWorld& world) {
  apply_bootstrap(state.bootstrap, world);
  StoreState& store = state.store;
  if (store.attempt != no_release) {
    interrupt_attempt(store);
  }
  if (store.candidate != no_release) {
    begin_attempt(store);
    if (world.is_good_launcher(store.attempt)) {
      confirm_attempt(store);
      return {store.active, true};
    }
    reject_attempt(store);
  }
  return {store.active, false};
}

// Whether a start that was stopped at any place, or one of whose calls to the system failed, may leave this of the
// store.
inline bool start_may_leave(const StoreState& before, const StoreState& found, const HistoryWorld& world, bool fails) {
  std::vector<StoreState> allowed = {before};
  StoreState next = before;
  if (next.attempt != no_release) {
    interrupt_attempt(next);
    allowed.push_back(next);
  }
  if (next.candidate != no_release) {
    begin_attempt(next);
    allowed.push_back(next);
    const bool is_good = world.is_good_launcher(next.attempt);
    StoreState confirmed = next;
    confirm_attempt(confirmed);
    StoreState rejected = next;
    reject_attempt(rejected);
    if (is_good) {
      allowed.push_back(confirmed);
    }
    if (!is_good || fails) {
      allowed.push_back(rejected);
    }
  }
  return std::find(allowed.begin(), allowed.end(), found) != allowed.end();
}

// The same of the bootstrap. `interrupted` tells that an earlier start has been stopped while it applied the update.
inline bool start_may_leave(const BootstrapState& before, const BootstrapState& found, const HistoryWorld& world,
                            bool fails, bool interrupted) {
  std::vector<BootstrapState> allowed = {before};
  const int pending = before.pending;
  if (pending != no_release) {
    const bool is_good = world.is_good_bootstrap(pending);
    if (is_good) {
      allowed.push_back({pending, pending, before.rejected});
      allowed.push_back({pending, no_release, before.rejected});
    }
    if (!is_good || fails || interrupted) {
      allowed.push_back({before.installed, pending, pending});
      allowed.push_back({before.installed, no_release, pending});
    }
    if (fails) {
      allowed.push_back({before.installed, no_release, before.rejected});
    }
  }
  return std::find(allowed.begin(), allowed.end(), found) != allowed.end();
}

// Whether a clean-up that was stopped at any place, or one of whose calls to the system failed, may leave this.
inline bool cleanup_may_leave(const HistoryState& before, HistoryState found) {
  found.store.is_cleaning = before.store.is_cleaning;
  HistoryState recovered = before;
  if (recovered.store.attempt != no_release) {
    interrupt_attempt(recovered.store);
  }
  return found == before || found == recovered;
}

// Whether an update that was stopped at any place, or one of whose calls to the system failed, may leave this. `whole`
// is what it would have left otherwise.
inline bool update_may_leave(const HistoryState& before, const HistoryState& whole, const HistoryState& found,
                             const HistoryWorld& world) {
  const bool store = found.store == before.store || found.store == whole.store;
  const BootstrapState committed = {before.bootstrap.installed, whole.bootstrap.pending, before.bootstrap.rejected};
  const bool bootstrap =
      found.bootstrap == before.bootstrap || found.bootstrap == committed || found.bootstrap == whole.bootstrap;
  // It goes no further than the repository leads it, and never back. A root with other keys makes it forget the rest.
  const bool root = found.trust.root >= before.trust.root && found.trust.root <= whole.trust.root;
  // It notes that before it trusts that root.
  bool forgets = !before.trust.state;
  for (std::size_t version = before.trust.root; version <= found.trust.root && version < whole.trust.root; ++version) {
    for (const char* const role : {"timestamp", "snapshot"}) {
      forgets = forgets || world.root(version).keys.at(role) != world.root(version + 1).keys.at(role);
    }
  }
  const bool trusted = found.trust.state == before.trust.state || found.trust.state == whole.trust.state ||
                       (forgets && !found.trust.state);
  return store && bootstrap && root && trusted;
}

}  // namespace ravok::testing
