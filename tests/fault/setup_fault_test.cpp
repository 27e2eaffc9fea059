// Whatever call of an install, a repair or an uninstall is spoilt: the folder is in one of its known states and says
// so, the player's data is as it was, and the next run finishes.

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iomanip>
#include <iostream>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "domain/error.hpp"
#include "fault/fault_runner.hpp"
#include "platform/complete_install.hpp"
#include "support/failure.hpp"
#include "support/process.hpp"
#include "support/setup_place.hpp"

namespace ravok::testing {
namespace {

using Codes = std::set<std::string>;
using Files = std::map<std::string, std::string>;

enum class Operation {
  first_install,       // into a missing folder
  later_install,       // into a folder with a player's data
  bootstrap_repair,    // of a damaged bootstrap
  launcher_repair,     // of a damaged launcher
  trust_repair,        // of a damaged trust root
  bare_uninstall,      // without a player's data
  keeping_uninstall,   // of all but a player's data
  removing_uninstall,  // of that too
  cancelled_install,   // into a missing folder
};

constexpr Operation all_operations[] = {
    Operation::first_install,     Operation::later_install,      Operation::bootstrap_repair,
    Operation::launcher_repair,   Operation::trust_repair,       Operation::bare_uninstall,
    Operation::keeping_uninstall, Operation::removing_uninstall, Operation::cancelled_install,
};

const char* name_of(Operation operation) {
  switch (operation) {
    case Operation::first_install:
      return "FirstInstall";
    case Operation::later_install:
      return "LaterInstall";
    case Operation::bootstrap_repair:
      return "BootstrapRepair";
    case Operation::launcher_repair:
      return "LauncherRepair";
    case Operation::trust_repair:
      return "TrustRepair";
    case Operation::bare_uninstall:
      return "BareUninstall";
    case Operation::keeping_uninstall:
      return "KeepingUninstall";
    case Operation::removing_uninstall:
      return "RemovingUninstall";
    case Operation::cancelled_install:
      return "CancelledInstall";
  }
  return "";
}

const char* action_of(Operation operation) {
  switch (operation) {
    case Operation::first_install:
    case Operation::later_install:
      return "install";
    case Operation::bootstrap_repair:
    case Operation::launcher_repair:
    case Operation::trust_repair:
      return "repair";
    case Operation::bare_uninstall:
    case Operation::keeping_uninstall:
      return "uninstall";
    case Operation::removing_uninstall:
      return "remove";
    case Operation::cancelled_install:
      return "cancel";
  }
  return "";
}

// The codes with which a run may refuse when a call of it fails. A record that cannot be read is "unsupported_schema",
// and a new launcher store that cannot be seen to be empty "already_installed".
const Codes known_codes = {
    "already_installed",
    "unsupported_schema",
    "allocation_changed",
    "archive",
    "content_mismatch",
    "destination_exists",
    "file_permissions",
    "file_read",
    "file_remove",
    "file_sync",
    "file_system",
    "file_write",
    "insufficient_space",
    "invalid_native_package",
    "lock_failed",
    "permissions",
    "space_reservation",
    "staging_exists",
    "storage",
    "tree_read",
    "unsafe_path",
};

// Whether the call changes what is on the disk, or makes the change last.
bool changes(const FaultCall& call) {
  static const std::set<std::string> changing = {"fallocate", "fchmod", "fsync",    "ftruncate", "linkat",
                                                 "mkdirat",   "remove", "rename",   "renameat",  "renameat2",
                                                 "rmdir",     "unlink", "unlinkat", "write"};
  const bool takes_space = std::find(call.modes.begin(), call.modes.end(), FaultMode::enospc) != call.modes.end();
  return takes_space || changing.contains(call.name);
}

// Chooses among calls of which most only look. An ended process leaves what the last change has left; and of the calls
// that only look, every so manyth fails.
class Choice {
 public:
  bool operator()(const FaultCall& call, FaultMode mode) {
    const bool changing = changes(call);
    if (ends_process(mode)) {
      return std::exchange(changed_, changing) || every_call_;
    }
    return changing || every_call_ || looks_++ % stride == 0;
  }

 private:
  static constexpr std::uint64_t stride = 11;
  const bool every_call_ = std::getenv("RAVOK_SPOIL_EVERY_CALL") != nullptr;
  bool changed_ = true;
  std::uint64_t looks_ = 0;
};

class SetupFault : public ::testing::TestWithParam<std::tuple<Operation, FaultMode>> {
 protected:
  Operation operation() const { return std::get<0>(GetParam()); }
  std::string action() const { return action_of(operation()); }
  bool installs() const { return action() == "install"; }
  bool repairs() const { return action() == "repair"; }
  bool uninstalls() const { return action() == "uninstall" || action() == "remove"; }
  bool starts_missing() const {
    return operation() == Operation::first_install || operation() == Operation::cancelled_install;
  }

  ProgramRun sample() const {
    ProgramRun run = {RAVOK_SAMPLE_SETUP, {action(), place_.data()}, {{"HOME", place_.home()}}, ""};
    if (!uninstalls()) {
      run.arguments.insert(run.arguments.end(), {place_.package(), place_.seal()});
    }
    return run;
  }

  // Makes what the operation starts from.
  void SetUp() override {
    if (!starts_missing() && operation() != Operation::bare_uninstall) {
      place_.write_player_data();
    }
    if (repairs() || uninstalls()) {
      place_.install();
    }
    switch (operation()) {
      case Operation::bootstrap_repair:
        place_.write("native/bootstrap/data/notes", "damage");
        break;
      case Operation::launcher_repair:
        place_.write(launcher_file(), "damage");
        break;
      case Operation::trust_repair:
        place_.write("trust/root.json", "damage");
        break;
      default:
        break;
    }
    start_ = place_.all();
    keep("start");
  }

  std::string launcher_file() const {
    for (const auto& [name, content] : place_.all()) {
      if (name.starts_with("data/launcher/versions/") && name.ends_with("/bin/launcher")) {
        return name.substr(5);
      }
    }
    throw std::runtime_error("The launcher has no program");
  }

  // Keeps the place under another name, and takes it back from there.
  void keep(const std::string& name) const { copy(place_.place(), place_.root() / name); }
  void take(const std::string& name) const { copy(place_.root() / name, place_.place()); }
  static void copy(const std::filesystem::path& from, const std::filesystem::path& to) {
    std::filesystem::remove_all(to);
    std::filesystem::copy(from, to,
                          std::filesystem::copy_options::recursive | std::filesystem::copy_options::copy_symlinks);
  }

  static bool is_stray(const std::string& name) {
    static const std::regex form(".*\\.[0-9a-f]{32}\\.tmp");
    return name.ends_with(".tmp") && std::regex_match(name, form);
  }
  // The transaction files that an ended process leaves.
  static std::set<std::string> strays(const Files& files) {
    std::set<std::string> found;
    for (const auto& [name, content] : files) {
      if (is_stray(name)) {
        found.insert(name);
      }
    }
    return found;
  }

  // What two runs that did the same leave alike.
  static std::string state_of(const Files& files) {
    static const std::regex random("\\.[0-9a-f]{32}\\.tmp");
    static const std::regex time("_at\":\"[-0-9T:]*Z");
    std::string state;
    for (const auto& [name, content] : files) {
      state += is_stray(name) ? std::regex_replace(name, random, ".RANDOM.tmp") : name;
      state += '\n';
      state += name.ends_with("installation.json") || name.ends_with("status.json") || is_stray(name)
                   ? std::regex_replace(content, time, "_at TIME")
                   : content;
      state += '\n';
    }
    return state;
  }

  // The folder says of itself what its two files mean, and refuses to start where it must. Returns its state.
  std::string expect_known_state() const {
    const bool marked = !is_missing(place_.paths().incomplete_marker);
    const bool recorded = !is_missing(place_.paths().installation_record);
    try {
      const NativeInstallStatus status = place_.status();
      EXPECT_EQ(status.incomplete, marked);
      EXPECT_EQ(status.installed, recorded && !marked);
    } catch (const std::exception& error) {
      ADD_FAILURE() << "status: " << error.what();
    }
    if (marked) {
      EXPECT_FAILURE(
          require_complete_native_install(place_.data()), "native_install_incomplete",
          "Ravok setup did not finish in " + place_.data().native() + ". Run the Ravok installer again to repair it.");
      return "interrupted";
    }
    EXPECT_NO_THROW(require_complete_native_install(place_.data()));
    return recorded ? "complete" : is_missing(place_.data()) ? "missing" : "not installed";
  }

  static Files player_data(const Files& files) {
    Files found;
    for (const auto& [name, content] : files) {
      if (name.starts_with("data/userdata") || name == "data/settings.json") {
        found[name] = content;
      }
    }
    return found;
  }
  void expect_player_data() const { EXPECT_EQ(player_data(place_.all()), player_data(start_)); }

  // Of the data folder, only the player's data is left; or nothing. The setup lock may be left where it was never held.
  void expect_nothing_but_player_data(bool lock_may_stay = false) const {
    Files found;
    for (const auto& [name, content] : place_.all()) {
      if (name.starts_with("data/") && name != "data/" && !(lock_may_stay && name == "data/.ravok-setup.lock")) {
        found[name] = content;
      }
    }
    EXPECT_EQ(found, player_data(found));
    EXPECT_TRUE(lock_may_stay || is_missing(place_.data()) == found.empty());
  }

  void judge_ending(const FaultOutcome& outcome, const std::string& state, const Files& left) const {
    const ProgramResult& result = outcome.result;
    if (ends_process(outcome.mode)) {
      EXPECT_EQ(result.signal, SIGKILL);
      return;
    }
    EXPECT_EQ(strays(left), std::set<std::string>{});
    if (result.exit_code == 0) {
      EXPECT_EQ(result.errors, "");
      judge_success(state);
      return;
    }
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_TRUE(known_codes.contains(result.errors.substr(0, result.errors.find(':')))) << result.errors;
    judge_failure(outcome, state, left);
  }

  void judge_success(const std::string& state) const {
    if (installs() || repairs()) {
      place_.expect_complete();
    } else if (uninstalls()) {
      EXPECT_TRUE(state == "missing" || state == "not installed") << state;
      // A lock file that could not be removed is no failure.
      for (const std::string& name : place_.top_names()) {
        EXPECT_TRUE(name == ".ravok-setup.lock" || name == ".native-bootstrap.lock" ||
                    (action() == "uninstall" && (name == "userdata" || name == "settings.json")))
            << name;
      }
    }
  }

  void judge_failure(const FaultOutcome& outcome, const std::string& state, const Files& left) const {
    const std::string& errors = outcome.result.errors;
    if (operation() == Operation::first_install) {
      // Of a folder or a lock that could not be made whole, nobody knows whose it is.
      const bool unowned = outcome.call.path == place_.data() || outcome.call.path == place_.place() ||
                           outcome.call.path == place_.paths().setup_lock;
      EXPECT_TRUE(state == "missing" || unowned) << state;
      expect_nothing_but_player_data(unowned);
    } else if (operation() == Operation::later_install) {
      EXPECT_NE(state, "missing");
      if (state == "not installed") {
        expect_nothing_but_player_data(!left.contains("data/native/"));
      } else if (state == "complete") {
        // What fails behind the commit takes nothing back.
        place_.expect_complete();
      }
    } else if (repairs()) {
      EXPECT_TRUE(state == "interrupted" || state == "complete") << state;
      const std::string record =
          left.contains("data/native/setup-status.json") ? left.at("data/native/setup-status.json") : std::string("{}");
      const Json status = Json::parse(record);
      if (status.value("outcome", "") == "failed") {
        EXPECT_EQ(status.value("action", ""), "repair");
        EXPECT_EQ(status.value("message", "") + "\n", errors.substr(errors.find(": ") + 2));
      } else {
        // Nothing has been done yet.
        EXPECT_EQ(without_locks(left), without_locks(start_));
      }
    } else if (uninstalls() && state != "interrupted") {
      EXPECT_EQ(state, "complete");
      EXPECT_EQ(without_locks(left), without_locks(start_));
    }
  }

  static Files without_locks(Files files) {
    files.erase("data/.ravok-setup.lock");
    files.erase("data/.native-bootstrap.lock");
    return files;
  }

  // Everything that may come next succeeds, each on the same state.
  void judge_next_runs(const std::string& state, const Files& left) const {
    keep("left");
    const bool installed = state == "complete";
    const bool marked = state == "interrupted";
    if (installed || marked) {
      expect_success("repair", left, [&] { place_.repair(); });
      expect_success("uninstall", left, [&] { place_.uninstall(); });
      expect_success("remove", left, [&] { place_.uninstall(true); });
    }
    if (place_.top_names() == std::vector<std::string>{".native-bootstrap.lock"}) {
      // An uninstall could not remove it; alone, it is nothing that marks a data folder.
      EXPECT_FAILURE(place_.install(), "unsafe_path", "Choose an empty folder or an earlier Ravok data folder");
    } else if (!installed) {
      expect_success("install", left, [&] { place_.install(); });
    }
  }

  void expect_success(const std::string& name, const Files& left, const std::function<void()>& run) const {
    const ::testing::ScopedTrace trace(__FILE__, __LINE__, "the next " + name);
    take("left");
    try {
      run();
    } catch (const std::exception& error) {
      ADD_FAILURE() << error.what();
      return;
    }
    if (name == "install" || name == "repair") {
      place_.expect_complete();
      EXPECT_EQ(player_data(place_.all()), player_data(left));
      // Nothing is left behind that an ended run had not left before.
      for (const std::string& stray : strays(place_.all())) {
        EXPECT_TRUE(left.contains(stray)) << stray;
      }
    } else {
      expect_nothing_but_player_data();
      EXPECT_EQ(player_data(place_.all()), name == "remove" ? Files() : player_data(left));
    }
  }

  const SetupPlace place_;
  Files start_;
};

TEST_P(SetupFault, LeavesAKnownStateThatTheNextRunFinishes) {
  const FaultMode mode = std::get<1>(GetParam());
  std::set<std::string> states;
  std::map<std::string, std::uint64_t> met;
  FaultPlan plan;
  plan.run = sample();
  plan.root = place_.root().path();
  plan.modes = {mode};
  plan.most_calls = 10'000;
  plan.chooses = Choice();
  plan.reset = [&] { take("start"); };
  plan.judge = [&](const FaultOutcome& outcome) {
    const Files left = place_.all();
    const std::string state = expect_known_state();
    ++met[state];
    if (operation() != Operation::removing_uninstall) {
      expect_player_data();
    }
    judge_ending(outcome, state, left);
    if (states.insert(state_of(left)).second) {
      judge_next_runs(state, left);
    }
  };
  const FaultTable table = run_faults(plan);
  EXPECT_GT(table.runs, 10u);  // what was tried had a beginning, a middle and an end
  std::cout << table << std::left << std::setw(18) << name_of(operation()) << std::setw(8) << fault_mode_name(mode)
            << table.runs << " calls, " << states.size() << " states:";
  for (const auto& [state, count] : met) {
    std::cout << ' ' << state << " (" << count << ')';
  }
  std::cout << '\n';
}

INSTANTIATE_TEST_SUITE_P(Setup, SetupFault,
                         ::testing::Combine(::testing::ValuesIn(all_operations),
                                            ::testing::Values(FaultMode::exit, FaultMode::eio, FaultMode::enospc)),
                         [](const auto& each) {
                           return std::string(name_of(std::get<0>(each.param))) + "_" +
                                  fault_mode_name(std::get<1>(each.param));
                         });

}  // namespace
}  // namespace ravok::testing
