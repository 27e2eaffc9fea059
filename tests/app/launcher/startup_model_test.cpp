// Walks through the ways in which bootstraps and the launchers that they start can get in each other's way: every order
// of their steps, with crashes between any two, on a real store in one process. The kernel keeps locks by open file, so
// those of one process exclude each other as those of several do.

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "app/launcher/launcher_attempt.hpp"
#include "app/launcher/launcher_startup.hpp"
#include "support/clock_calls.hpp"
#include "support/failure.hpp"
#include "support/fast_volume.hpp"
#include "support/launcher_place.hpp"

namespace ravok::startup_model_test {
namespace {

using std::chrono::milliseconds;
using testing::fast_volume;
using testing::LauncherPlace;
using testing::StillClock;
using testing::write_bytes;

constexpr milliseconds limit(10);

enum class Conduct { honest, foreign_image, drops_lease, forges_process, acknowledges_nothing };

const char* name_of(Conduct conduct) {
  switch (conduct) {
    case Conduct::honest:
      return "Honest";
    case Conduct::foreign_image:
      return "ForeignImage";
    case Conduct::drops_lease:
      return "DropsLease";
    case Conduct::forges_process:
      return "ForgesProcess";
    case Conduct::acknowledges_nothing:
      return "AcknowledgesNothing";
  }
  return "";
}

// A launcher by its duties, one step at a time.
struct Launcher {
  bool alive = false;
  int next = 0;
  Json attempt;
  std::uint64_t pid = 0;
  std::unique_ptr<FileLock> attempt_lease;
  std::unique_ptr<FileLock> version_lease;
  // What it has proved.
  bool own_image = false;
  bool had_leases = false;
  bool acknowledged = false;
  bool healthy = false;
  bool had_lease_at_check = false;  // or it had ended by then

  void end() {
    alive = false;
    attempt_lease.reset();
    version_lease.reset();
  }
  bool has_proved_itself() const { return own_image && had_leases && acknowledged && healthy && had_lease_at_check; }
};

struct Bootstrap {
  bool alive = false;
  bool used = false;
  int next = 0;
  std::unique_ptr<FileLock> owner;
  std::unique_ptr<LauncherAttempt> attempt;

  void end() {
    alive = false;
    attempt.reset();
    owner.reset();
  }
};

enum class Event {
  bootstrap_0,
  bootstrap_1,
  launcher_0,
  launcher_1,
  bootstrap_crashes,
  launcher_crashes,
  time_passes,
};

// What the walk has met, which shows that it went everywhere.
struct Sights {
  int confirmed = 0;
  int rejected = 0;
  int interrupted = 0;
  int running = 0;
  int busy = 0;
};

class World {
 public:
  explicit World(Conduct conduct) : conduct_(conduct) {}

  void reset() {
    clock_.reset();
    bootstraps_ = {};
    for (Launcher& launcher : launchers_) {
      launcher = Launcher();
    }
    bootstrap_crashed_ = launcher_crashed_ = time_has_passed_ = false;
    begun_ = 0;
    for (const char* folder : {"launcher/leases/attempts", "launcher/health"}) {
      for (const auto& entry : std::filesystem::directory_iterator(place_.root / folder)) {
        std::filesystem::remove(entry);
      }
    }
    Json document = place_.store.load();
    document.update({{"active", working_},
                     {"rollback", nullptr},
                     {"candidate", candidate_},
                     {"attempt", nullptr},
                     {"failed_candidate", nullptr}});
    place_.store.save(document);
    clock_.emplace();
    document_ = place_.store.load();
  }

  std::vector<Event> possible() const {
    std::vector<Event> events;
    for (std::size_t i = 0; i < 2; ++i) {
      if (can_step(bootstraps_[i], launchers_[i])) {
        events.push_back(i == 0 ? Event::bootstrap_0 : Event::bootstrap_1);
      }
      if (launchers_[i].alive) {
        events.push_back(i == 0 ? Event::launcher_0 : Event::launcher_1);
      }
    }
    if (!bootstrap_crashed_ && bootstraps_[0].alive) {
      events.push_back(Event::bootstrap_crashes);
    }
    if (!launcher_crashed_ && launchers_[0].alive) {
      events.push_back(Event::launcher_crashes);
    }
    if (!time_has_passed_ && bootstraps_[0].alive && bootstraps_[0].next == 5) {
      events.push_back(Event::time_passes);
    }
    return events;
  }

  void perform(Event event) {
    const bool lease_was_held = holds_lease(0) || holds_lease(1);
    const bool may_promote = (event == Event::bootstrap_0 && bootstraps_[0].next == 9) ||
                             (event == Event::bootstrap_1 && bootstraps_[1].next == 9);
    const std::size_t actor = event == Event::bootstrap_1 || event == Event::launcher_1 ? 1 : 0;
    switch (event) {
      case Event::bootstrap_0:
      case Event::bootstrap_1:
        step(bootstraps_[actor], launchers_[actor], actor);
        break;
      case Event::launcher_0:
      case Event::launcher_1:
        step(launchers_[actor]);
        break;
      case Event::bootstrap_crashes:
        bootstrap_crashed_ = true;
        bootstraps_[0].end();
        break;
      case Event::launcher_crashes:
        launcher_crashed_ = true;
        launchers_[0].end();
        break;
      case Event::time_passes:
        time_has_passed_ = true;
        std::this_thread::sleep_for(limit);
        break;
    }
    check(may_promote, lease_was_held, launchers_[actor]);
  }

  // Everything that what happens next depends on.
  std::string signature() const {
    Json document = place_.store.load();
    document.erase("generation");
    std::ostringstream text;
    for (std::size_t i = 0; i < 2; ++i) {
      const Bootstrap& bootstrap = bootstraps_[i];
      const Launcher& launcher = launchers_[i];
      text << bootstrap.alive << bootstrap.used << bootstrap.next << ',' << launcher.alive << launcher.next
           << (launcher.attempt_lease != nullptr) << (launcher.version_lease != nullptr) << launcher.own_image
           << launcher.had_leases << launcher.acknowledged << launcher.healthy
           << (!launcher.attempt.is_null() && launcher.attempt == document.at("attempt")) << ';';
    }
    text << bootstrap_crashed_ << launcher_crashed_ << time_has_passed_ << begun_;
    if (!document.at("attempt").is_null()) {
      const Json& attempt = document.at("attempt");
      text << std::filesystem::exists(place_.store.startup_ack_path(attempt))
           << std::filesystem::exists(place_.store.health_path(attempt));
      document["attempt"].erase("nonce");
    }
    return text.str() + document.dump();
  }

  // Once all processes are gone, the next bootstrap comes to rest and tries nothing again.
  void settle() {
    for (std::size_t i = 0; i < 2; ++i) {
      bootstraps_[i].end();
      launchers_[i].end();
    }
    const auto owner = place_.store.owner();
    place_.store.recover_attempt();
    if (begun_ > 0) {
      expect(place_.store.begin_candidate().is_null(), "nothing is tried again by itself");
    }
    expect(place_.value("attempt").is_null(), "no attempt remains");
  }

  const Sights& sights() const { return sights_; }

 private:
  static void expect(bool holds, const char* rule) {
    if (!holds) {
      throw std::logic_error(rule);
    }
  }

  bool can_step(const Bootstrap& bootstrap, const Launcher& launcher) const {
    if (!bootstrap.alive) {
      return !bootstrap.used;
    }
    if (bootstrap.next == 5) {  // a look that finds nothing changes nothing
      return !launcher.alive || time_has_passed_ || launcher.healthy;
    }
    return bootstrap.next != 11 || !launcher.alive;
  }

  bool holds_lease(std::size_t i) const {
    return launchers_[i].attempt_lease && launchers_[i].attempt == document_.at("attempt");
  }

  void step(Bootstrap& bootstrap, Launcher& launcher, std::size_t number) {
    bootstrap.alive = bootstrap.used = true;
    const int now = bootstrap.next++;
    if (now < 3) {
      try {
        begin(bootstrap, now, number);
      } catch (const Error& error) {
        sights_.busy += error.code == "busy";
        sights_.running += error.code == "launcher_running";
        expect(error.code == "busy" || error.code == "launcher_running", "a bootstrap that cannot start says why");
        bootstrap.end();
      }
      return;
    }
    try {
      prove(bootstrap, launcher, number, now);
    } catch (const Error&) {
      bootstrap.attempt->reject();
      ++sights_.rejected;
      bootstrap.end();
    }
  }

  void begin(Bootstrap& bootstrap, int now, std::size_t number) {
    const LauncherStore& store = place_.store;
    if (now == 0) {
      bootstrap.owner = std::make_unique<FileLock>(place_.root / "launcher/bootstrap.lock", false, LockMode::exclusive);
    } else if (now == 1) {
      store.recover_attempt();
    } else {
      const Json record = store.begin_candidate();
      if (record.is_null()) {
        bootstrap.end();
        return;
      }
      ++begun_;
      launchers_[number].attempt = record;
      bootstrap.attempt = std::make_unique<LauncherAttempt>(store, LauncherStart{"cli", {}, limit, {}}, record);
    }
  }

  void prove(Bootstrap& bootstrap, Launcher& launcher, std::size_t number, int now) {
    LauncherAttempt& attempt = *bootstrap.attempt;
    switch (now) {
      case 3:
        attempt.take_leases();
        attempt.verify_files();
        break;
      case 4:
        attempt.start_child([&](const LauncherProgram&) {
          launcher.alive = true;
          launcher.pid = 100 + number;
          return child_of(launcher);
        });
        break;
      case 5:
        bootstrap.next = attempt.has_settled() ? 6 : 5;
        break;
      case 6:
        attempt.read_health();
        break;
      case 7:
        attempt.release_attempt_lease();
        break;
      case 8:
        attempt.require_lease_of_child();
        launcher.had_lease_at_check = launcher.attempt_lease || !launcher.alive;
        break;
      case 9:
        attempt.confirm();
        ++sights_.confirmed;
        break;
      case 10:
        attempt.release_leases();
        break;
      default:
        attempt.wait_for_child();
        bootstrap.end();
    }
  }

  static LauncherChild child_of(Launcher& launcher) {
    return {launcher.pid, [&launcher] { return launcher.alive ? std::nullopt : std::optional<std::uint64_t>(0); },
            [] { return true; },
            [&launcher](std::uint64_t) {
              launcher.end();
              return true;
            }};
  }

  void step(Launcher& launcher) {
    const int now = launcher.next++;
    try {
      act(launcher, now);
    } catch (const Error&) {
      launcher.end();  // it says so and ends
    }
  }

  void act(Launcher& launcher, int now) const {
    const LauncherStore& store = place_.store;
    const Json& attempt = launcher.attempt;
    const LauncherManifest manifest = store.manifest(attempt.at("reference"));
    switch (now) {
      case 0:
        launcher.attempt_lease = std::make_unique<FileLock>(store.startup_lease_path(attempt), false, LockMode::shared);
        break;
      case 1:
        launcher.version_lease = store.version_guard(attempt.at("reference"), LockMode::shared);
        launcher.had_leases = true;
        break;
      case 2:
        require(conduct_ != Conduct::foreign_image, "launcher_identity", "another image");
        launcher.own_image = true;
        break;
      case 3:
        require(store.status().at("attempt") == attempt, "launcher_health", "no longer pending");
        break;
      case 4:
        if (conduct_ != Conduct::acknowledges_nothing) {
          write_bytes(store.startup_ack_path(attempt), lease_document(manifest, attempt, launcher.pid, "cli").dump());
          launcher.acknowledged = true;
        }
        break;
      case 5: {
        require(store.status().at("attempt") == attempt, "launcher_health", "no longer pending");
        const std::uint64_t pid = launcher.pid + (conduct_ == Conduct::forges_process ? 7 : 0);
        write_bytes(store.health_path(attempt), manifest.startup_health(attempt, pid, "cli", true).dump());
        launcher.healthy = true;
        break;
      }
      case 6:
        if (conduct_ == Conduct::drops_lease) {
          launcher.attempt_lease.reset();
        }
        break;
      default:
        launcher.end();
    }
  }

  void check(bool may_promote, bool lease_was_held, const Launcher& launcher) {
    const Json before = std::exchange(document_, place_.store.load());
    const Json& active = document_.at("active");
    const Json& failed = document_.at("failed_candidate");
    expect(begun_ <= 1, "a version that was staged once is tried once");
    expect(active == working_ || active == candidate_, "a version works at every moment");
    expect(document_.at("attempt").is_null() || (document_.at("candidate").is_null() && active == working_),
           "a version is a candidate, attempted or active, and only one of these");
    expect(document_.at("attempt").is_null() || failed.is_null(), "a failed version is not tried");
    expect(!(bootstraps_[0].owner && bootstraps_[1].owner), "one bootstrap owns the store");
    if (active != before.at("active")) {
      expect(may_promote, "only the bootstrap's own step makes a version active");
      expect(document_.at("rollback") == working_, "the version before it can be gone back to");
      expect(conduct_ == Conduct::honest || conduct_ == Conduct::drops_lease, "a version that cheats is not active");
      expect(launcher.has_proved_itself(), "a version is active on its whole proof");
    }
    if (failed != before.at("failed_candidate")) {
      expect(active == working_, "a failed version is not active");
      const bool interrupted = failed.at("problem") == "startup_interrupted";
      expect(!interrupted || !lease_was_held, "an attempt whose launcher runs is not given up");
      sights_.interrupted += interrupted;
    }
  }

  const Conduct conduct_;
  const LauncherPlace place_{fast_volume()};
  const Json working_ = place_.add_version("build-0");
  const Json candidate_ = place_.add_version("build-1");
  std::optional<StillClock> clock_;
  std::array<Bootstrap, 2> bootstraps_;
  std::array<Launcher, 2> launchers_;
  bool bootstrap_crashed_ = false;
  bool launcher_crashed_ = false;
  bool time_has_passed_ = false;
  int begun_ = 0;
  Json document_;
  Sights sights_;
};

// Goes every way from the start to an end, or to a state from which all ways have been gone. Returns how many states
// there are.
std::size_t walk(World& world) {
  std::set<std::string> seen;
  std::vector<std::pair<std::size_t, std::size_t>> way;  // the choice at each moment, and how many there were
  for (;;) {
    world.reset();
    std::size_t depth = 0;
    for (;;) {
      const std::vector<Event> events = world.possible();
      if (events.empty()) {
        world.settle();
        break;
      }
      if (depth == way.size()) {
        way.emplace_back(0, events.size());
      }
      world.perform(events.at(way[depth].first));
      ++depth;
      if (depth == way.size() && !seen.insert(world.signature()).second) {
        break;
      }
    }
    while (!way.empty() && way.back().first + 1 == way.back().second) {
      way.pop_back();
    }
    if (way.empty()) {
      return seen.size();
    }
    ++way.back().first;
  }
}

std::string way_of(World& world, std::size_t& states) {
  try {
    states = walk(world);
  } catch (const std::logic_error& broken) {
    return broken.what();
  }
  return "";
}

class StartupModel : public ::testing::TestWithParam<Conduct> {};

TEST_P(StartupModel, KeepsItsRulesInEveryOrder) {
  World world(GetParam());
  std::size_t states = 0;
  EXPECT_EQ(way_of(world, states), "");
  EXPECT_GT(states, 100u);
  const Sights& sights = world.sights();
  EXPECT_GT(sights.rejected, 0);
  EXPECT_GT(sights.interrupted, 0);
  EXPECT_GT(sights.running, 0);
  EXPECT_GT(sights.busy, 0);
  const bool can_succeed = GetParam() == Conduct::honest || GetParam() == Conduct::drops_lease;
  EXPECT_EQ(sights.confirmed > 0, can_succeed);
}

INSTANTIATE_TEST_SUITE_P(Launchers, StartupModel,
                         ::testing::Values(Conduct::honest, Conduct::foreign_image, Conduct::drops_lease,
                                           Conduct::forges_process, Conduct::acknowledges_nothing),
                         [](const auto& each) { return name_of(each.param); });

}  // namespace
}  // namespace ravok::startup_model_test
