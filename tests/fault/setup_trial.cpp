#include "fault/setup_trial.hpp"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <regex>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "domain/error.hpp"
#include "platform/snapshot/complete_install.hpp"
#include "support/failure.hpp"

namespace ravok::testing {
namespace {

using Files = std::map<std::string, std::string>;

const char* action_of(SetupOperation operation) {
  switch (operation) {
    case SetupOperation::first_install:
    case SetupOperation::later_install:
      return "install";
    case SetupOperation::bootstrap_repair:
    case SetupOperation::launcher_repair:
    case SetupOperation::trust_repair:
      return "repair";
    case SetupOperation::bare_uninstall:
    case SetupOperation::keeping_uninstall:
      return "uninstall";
    case SetupOperation::removing_uninstall:
      return "remove";
    case SetupOperation::cancelled_install:
    case SetupOperation::withdrawn_install:
      return "cancel";
    case SetupOperation::failed_install:
      return "fail";
  }
  return "";
}

// The codes with which a run may refuse when a call of it fails. "unsupported_schema" stands for a record that cannot
// be read, "already_installed" for a new launcher store that cannot be seen to be empty, "already_initialized" for a
// trust store of the same kind, and "busy" for a lock of that store that cannot be taken.
const std::set<std::string> known_codes = {
    "already_installed",
    "unsupported_schema",
    "allocation_changed",
    "already_initialized",
    "archive",
    "busy",
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
    "volume_query",
};

// Makes a directory hold what another holds, and nothing else. It may be one where a volume is mounted.
void make_copy(const std::filesystem::path& from, const std::filesystem::path& to) {
  std::filesystem::create_directories(to);
  for (const auto& entry : std::filesystem::directory_iterator(to)) {
    std::filesystem::remove_all(entry.path());
  }
  std::filesystem::copy(from, to,
                        std::filesystem::copy_options::recursive | std::filesystem::copy_options::copy_symlinks);
}

bool is_stray(const std::string& name) {
  static const std::regex form(".*\\.[0-9a-f]{32}\\.tmp");
  return name.ends_with(".tmp") && std::regex_match(name, form);
}
// Returns the names of the transaction files that an ended process has left.
std::set<std::string> strays(const Files& files) {
  std::set<std::string> found;
  for (const auto& [name, content] : files) {
    if (is_stray(name)) {
      found.insert(name);
    }
  }
  return found;
}

// Returns a text that is the same for two runs that did the same.
std::string state_of(const Files& files) {
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

bool is_player_data(const std::string& name) {
  return name.starts_with("data/userdata") || name == "data/settings.json";
}

Files player_data(const Files& files) {
  Files found;
  for (const auto& [name, content] : files) {
    if (is_player_data(name)) {
      found[name] = content;
    }
  }
  return found;
}

// Returns the files in the home that are not the client's shortcuts.
Files foreign(const Files& files) {
  static const std::regex own("home/\\.local/share/applications/ravok-.*");
  Files found;
  for (const auto& [name, content] : files) {
    if (name.starts_with("home/") && !name.ends_with('/') && !std::regex_match(name, own)) {
      found[name] = content;
    }
  }
  return found;
}

// Returns the files without locks and without what was being prepared.
Files without_beginnings(Files files) {
  std::erase_if(files, [](const auto& file) {
    return is_stray(file.first) || file.first == "data/.ravok-setup.lock" ||
           file.first == "data/.native-bootstrap.lock" || file.first.starts_with("data/native/staging/");
  });
  return files;
}

}  // namespace

const char* name_of(SetupOperation operation) {
  switch (operation) {
    case SetupOperation::first_install:
      return "FirstInstall";
    case SetupOperation::later_install:
      return "LaterInstall";
    case SetupOperation::bootstrap_repair:
      return "BootstrapRepair";
    case SetupOperation::launcher_repair:
      return "LauncherRepair";
    case SetupOperation::trust_repair:
      return "TrustRepair";
    case SetupOperation::bare_uninstall:
      return "BareUninstall";
    case SetupOperation::keeping_uninstall:
      return "KeepingUninstall";
    case SetupOperation::removing_uninstall:
      return "RemovingUninstall";
    case SetupOperation::cancelled_install:
      return "CancelledInstall";
    case SetupOperation::withdrawn_install:
      return "WithdrawnInstall";
    case SetupOperation::failed_install:
      return "FailedInstall";
  }
  return "";
}

SetupTrial::SetupTrial(SetupOperation operation) : operation_(operation), action_(action_of(operation)) {
  if (operation_ == SetupOperation::withdrawn_install) {
    place_.root().directory("place/data");
  } else if (!starts_missing() && operation_ != SetupOperation::bare_uninstall) {
    place_.write_player_data();
  }
  place_.root().write("place/home/letter", "dear reader");
  if (repairs() || uninstalls()) {
    place_.root().write("place/home/.local/share/applications/other.desktop", "another's");
    place_.install();
  }
  switch (operation_) {
    case SetupOperation::bootstrap_repair:
      place_.write("native/bootstrap/data/notes", "damage");
      break;
    case SetupOperation::launcher_repair:
      place_.write(launcher_file(), "damage");
      break;
    case SetupOperation::trust_repair:
      place_.write("trust/root.json", "damage");
      break;
    default:
      break;
  }
  start_ = place_.all();
  keep("start");
  restart();
}

void SetupTrial::restart() {
  take("start");
  earlier_.clear();
  data_may_go_ = false;
  begin(action_of(operation_));
}

// Notes which command finds what.
void SetupTrial::begin(const std::string& action) {
  action_ = action;
  before_ = {state(), place_.all()};
  if (earlier_.empty()) {
    earlier_.push_back(before_);
  }
  data_may_go_ = data_may_go_ || action == "remove";
}

std::optional<ProgramRun> SetupTrial::next(ChainRandom& random) {
  const Stage now = {state(), place_.all()};
  if (now.files == start_) {
    begin(action_of(operation_));
  } else if (now.is_installed() && (repairs() || uninstalls()) && random.chance(60)) {
    begin(action_);
  } else if (now.is_installed()) {
    begin(random.chance(60) ? "repair" : random.chance(60) ? "uninstall" : "remove");
  } else if (place_.top_names() == std::vector<std::string>{".native-bootstrap.lock"}) {
    return std::nullopt;
  } else {
    begin("install");
  }
  return program();
}

ProgramRun SetupTrial::program() const {
  ProgramRun run = {RAVOK_SAMPLE_SETUP, {action_, place_.data()}, {{"HOME", place_.home()}}, ""};
  if (!uninstalls()) {
    run.arguments.insert(run.arguments.end(), {place_.package(), place_.seal()});
  }
  return run;
}

std::string SetupTrial::judge(const SetupEnding& ending) {
  const Files left = place_.all();
  const std::string state = expect_known_state();
  expect_player_data(left);
  EXPECT_EQ(foreign(left), foreign(start_));
  // Until an uninstall has removed the marker, its lock is there and keeps others out. It makes none where it is ended
  // first.
  EXPECT_TRUE(ending.lost_names || !uninstalls() || state != "interrupted" || !is_missing(place_.paths().setup_lock) ||
              (before_.state == "interrupted" && !before().contains("data/.ravok-setup.lock")));
  judge_ending(ending, state, left);
  if (states_.insert(state_of(left)).second) {
    judge_next_runs(ending, state, left);
  }
  return state;
}

std::string SetupTrial::judge(const ChainLink& link) {
  const bool lost_names = link.restarted() && link.mode == FaultMode::names;
  const std::filesystem::path spoilt = link.call && !link.is_cut() ? link.call->path : std::filesystem::path();
  const Stage left = {state(), place_.all()};
  const std::string state = judge({link.result, spoilt, lost_names, link.at_end()});
  if (link.restarted() || link.has_succeeded()) {
    earlier_.clear();
  }
  earlier_.push_back(left);
  return state;
}

// Whether a power cut may bring back what was there before an install.
bool SetupTrial::was_uninstalled() const {
  return std::any_of(earlier_.begin(), earlier_.end(), [](const Stage& stage) { return !stage.is_installed(); });
}

// Whether a power cut may bring back just this.
bool SetupTrial::was_met(const Files& left) const {
  return std::any_of(earlier_.begin(), earlier_.end(),
                     [&](const Stage& stage) { return without_beginnings(stage.files) == without_beginnings(left); });
}

// Whatever is left of the player's data is whole, and all of it is left unless it was to be removed.
void SetupTrial::expect_player_data(const Files& left) const {
  const Files wanted = player_data(start_);
  if (!data_may_go_) {
    EXPECT_EQ(player_data(left), wanted);
    return;
  }
  for (const auto& [name, content] : player_data(left)) {
    EXPECT_TRUE(wanted.contains(name)) << name;
    EXPECT_EQ(content, wanted.contains(name) ? wanted.at(name) : "") << name;
  }
}

bool SetupTrial::starts_missing() const {
  return operation_ == SetupOperation::first_install || operation_ == SetupOperation::cancelled_install ||
         operation_ == SetupOperation::failed_install;
}

std::string SetupTrial::launcher_file() const {
  for (const auto& [name, content] : place_.all()) {
    if (name.starts_with("data/launcher/versions/") && name.ends_with("/bin/launcher")) {
      return name.substr(5);
    }
  }
  throw std::runtime_error("The launcher has no program");
}

// Keep the place under another name, and take it back from there.
void SetupTrial::keep(const std::string& name) const { make_copy(place_.place(), place_.root() / name); }
void SetupTrial::take(const std::string& name) const { make_copy(place_.root() / name, place_.place()); }

std::string SetupTrial::state() const {
  if (!is_missing(place_.paths().incomplete_marker)) {
    return "interrupted";
  }
  const bool recorded = !is_missing(place_.paths().installation_record);
  return recorded ? "complete" : is_missing(place_.data()) ? "missing" : "not installed";
}

// The folder reports the state that its marker and its record give it, and refuses to start where it must. Returns that
// state.
std::string SetupTrial::expect_known_state() const {
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
  } else {
    EXPECT_NO_THROW(require_complete_native_install(place_.data()));
  }
  return state();
}

// The data folder holds only the player's data, or is gone. Locks may stay where they were never held, or where their
// removal was lost, and what an ended command has left.
void SetupTrial::expect_nothing_but_player_data(bool locks_may_stay, const Files& may_stay) const {
  Files found;
  for (const auto& [name, content] : place_.all()) {
    const bool is_lock = name == "data/.ravok-setup.lock" || name == "data/.native-bootstrap.lock";
    const bool may_be = (locks_may_stay && is_lock) || (may_stay.contains(name) && !is_player_data(name));
    if (name.starts_with("data/") && name != "data/" && !may_be) {
      found[name] = content;
    }
  }
  EXPECT_EQ(found, player_data(found));
  EXPECT_TRUE(locks_may_stay || !may_stay.empty() || is_missing(place_.data()) == found.empty());
}

// Everything is as it was before, except the beginnings of an operation.
void SetupTrial::expect_unchanged(const Files& left) const {
  EXPECT_EQ(without_beginnings(left), without_beginnings(before()));
}

// Without the marker, an ended run has done all that it was to do, or nothing of it.
void SetupTrial::judge_cut(const SetupEnding& ending, const std::string& state, const Files& left) const {
  if (state == "interrupted") {
    // A run that has reported its end is not taken back.
    EXPECT_FALSE(ending.at_end);
  } else if (state == "complete") {
    EXPECT_FALSE(uninstalls() && ending.at_end);
    if (uninstalls() && earlier_.size() == 1) {
      expect_unchanged(left);
    } else if (ending.at_end || !was_met(left)) {
      place_.expect_complete();
    }
  } else if (uninstalls()) {
    // An install that was ended before it had left its marker for good may have left anything.
    if (ending.at_end || !was_uninstalled()) {
      expect_nothing_but_player_data(true);
    }
  } else {
    EXPECT_TRUE(!repairs() || was_uninstalled());
    EXPECT_FALSE((installs() || repairs()) && ending.at_end);
  }
}

void SetupTrial::judge_ending(const SetupEnding& ending, const std::string& state, const Files& left) const {
  const ProgramResult& result = ending.result;
  if (result.signal == SIGKILL) {
    judge_cut(ending, state, left);
    return;
  }
  // A run that ends by itself leaves only what an ended run had left before it.
  const std::set<std::string> found = strays(left);
  const std::set<std::string> known = strays(before());
  EXPECT_TRUE(std::includes(known.begin(), known.end(), found.begin(), found.end())) << ::testing::PrintToString(found);
  if (result.exit_code == 0) {
    EXPECT_EQ(result.errors, "");
    judge_success(state);
    return;
  }
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_TRUE(known_codes.contains(result.errors.substr(0, result.errors.find(':')))) << result.errors;
  judge_failure(ending, state, left);
}

void SetupTrial::judge_success(const std::string& state) const {
  if (installs() || repairs()) {
    place_.expect_complete();
  } else if (uninstalls()) {
    EXPECT_TRUE(state == "missing" || state == "not installed") << state;
    // It is no failure when a lock file could not be removed.
    for (const std::string& name : place_.top_names()) {
      EXPECT_TRUE(name == ".ravok-setup.lock" || name == ".native-bootstrap.lock" ||
                  (action_ == "uninstall" && (name == "userdata" || name == "settings.json")))
          << name;
    }
  }
}

void SetupTrial::judge_failure(const SetupEnding& ending, const std::string& state, const Files& left) const {
  const std::string& errors = ending.result.errors;
  if (installs() && before_.state == "missing") {
    // When the making of a folder or a lock failed half-way, the run cannot know that it is its own, and leaves it.
    const bool unowned = ending.spoilt == place_.data() || ending.spoilt == place_.place() ||
                         ending.spoilt == place_.paths().setup_lock ||
                         (errors.starts_with("lock_failed: ") && !left.contains("data/native/"));
    // A folder with its record is kept. The marker says that something is still to be done.
    const bool is_recorded = left.contains("data/native/installation.json");
    if (is_recorded) {
      EXPECT_TRUE(state == "interrupted" || state == "complete") << state;
      return;
    }
    EXPECT_TRUE(state == "missing" || unowned) << state;
    expect_nothing_but_player_data(unowned);
  } else if (installs()) {
    EXPECT_NE(state, "missing");
    if (state == "not installed") {
      expect_nothing_but_player_data(!left.contains("data/native/"), before());
    } else if (state == "complete") {
      // A failure after the commit takes nothing back.
      place_.expect_complete();
    }
  } else if (repairs()) {
    EXPECT_TRUE(state == "interrupted" || state == "complete") << state;
    const auto record = left.find("data/native/setup-status.json");
    const auto former = before().find("data/native/setup-status.json");
    const bool is_new = record != left.end() && (former == before().end() || former->second != record->second);
    const Json status = Json::parse(is_new ? record->second : "{}");
    if (status.value("outcome", "") == "failed") {
      EXPECT_EQ(status.value("action", ""), "repair");
      EXPECT_EQ(status.value("message", "") + "\n", errors.substr(errors.find(": ") + 2));
    } else if (state == "complete") {
      // Not even the failure could be recorded. Then nothing has been replaced.
      expect_unchanged(left);
    }
  } else if (uninstalls() && state != "interrupted") {
    EXPECT_EQ(state, "complete");
    expect_unchanged(left);
  }
}

// Everything that may come next succeeds, each time on the same state.
void SetupTrial::judge_next_runs(const SetupEnding& ending, const std::string& state, const Files& left) const {
  keep("left");
  const bool installed = state == "complete";
  const bool marked = state == "interrupted";
  if (installed || marked) {
    expect_success("repair", left, [&] { place_.repair(); });
    expect_success("uninstall", left, [&] { place_.uninstall(); });
    expect_success("remove", left, [&] { place_.uninstall(true); });
  }
  if (place_.top_names() == std::vector<std::string>{".native-bootstrap.lock"}) {
    // An uninstall could not remove this lock, which alone does not mark a data folder, or a power cut has brought it
    // back without what marks one.
    EXPECT_TRUE(uninstalls() || ending.lost_names);
    EXPECT_FAILURE(place_.install(), "unsafe_path", "Choose an empty folder or an earlier Ravok data folder");
  } else if (!installed) {
    expect_success("install", left, [&] { place_.install(); });
  }
}

void SetupTrial::expect_success(const std::string& name, const Files& left, const std::function<void()>& run) const {
  const ::testing::ScopedTrace trace(__FILE__, __LINE__, "the next " + name);
  take("left");
  try {
    run();
  } catch (const std::exception& error) {
    ADD_FAILURE() << error.what();
    return;
  }
  EXPECT_EQ(foreign(place_.all()), foreign(start_));
  if (name == "install" || name == "repair") {
    place_.expect_complete();
    EXPECT_EQ(player_data(place_.all()), player_data(left));
    // A run that finishes leaves only what an ended run had left before it.
    for (const std::string& stray : strays(place_.all())) {
      EXPECT_TRUE(left.contains(stray)) << stray;
    }
  } else {
    expect_nothing_but_player_data();
    EXPECT_EQ(player_data(place_.all()), name == "remove" ? Files() : player_data(left));
  }
}

}  // namespace ravok::testing
