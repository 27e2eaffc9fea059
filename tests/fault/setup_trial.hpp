// Setups of one small package that are cut short or spoilt: the state that each starts from, and what must be true of
// the state that it leaves.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "fault/fault_chain.hpp"
#include "support/process.hpp"
#include "support/setup_place.hpp"

namespace ravok::testing {

enum class SetupOperation {
  first_install,       // into a missing folder
  later_install,       // into a folder with a player's data
  bootstrap_repair,    // of a damaged bootstrap
  launcher_repair,     // of a damaged launcher
  trust_repair,        // of a damaged trust root
  bare_uninstall,      // without a player's data
  keeping_uninstall,   // of all but a player's data
  removing_uninstall,  // of the player's data too
  cancelled_install,   // into a missing folder
  withdrawn_install,   // into an empty folder, cancelled
  failed_install,      // into a missing folder, failing in its commit
};

inline constexpr SetupOperation all_setup_operations[] = {
    SetupOperation::first_install,     SetupOperation::later_install,      SetupOperation::bootstrap_repair,
    SetupOperation::launcher_repair,   SetupOperation::trust_repair,       SetupOperation::bare_uninstall,
    SetupOperation::keeping_uninstall, SetupOperation::removing_uninstall, SetupOperation::cancelled_install,
    SetupOperation::withdrawn_install, SetupOperation::failed_install,
};

const char* name_of(SetupOperation operation);

// How a setup ended.
struct SetupEnding {
  ProgramResult result;
  // The path that the call that was made to fail concerned, if one was.
  std::filesystem::path spoilt = {};
  // Whether a power cut ended it that lost names.
  bool lost_names = false;
  // Whether the setup had ended by itself before anything was lost.
  bool at_end = false;
};

class SetupTrial {
 public:
  // Makes the state that the operation starts from.
  explicit SetupTrial(SetupOperation operation);

  const SetupPlace& place() const { return place_; }
  // Returns how to run the program that carries out the operation.
  ProgramRun program() const;

  // Makes the place again as it was before the operation.
  void restart();

  // Returns how to run what a user would run now: at first the operation, and later mostly the last command again where
  // it has not ended. Returns nothing where only an install would be left, which refuses the folder.
  std::optional<ProgramRun> next(ChainRandom& random);

  // Judges what the operation has left: the folder is in a known state and says so, the player's data is as it was, and
  // whatever may come next finishes. Returns the state. The place is left in no particular one.
  std::string judge(const SetupEnding& ending);

  // Does so with a link of a chain, after the commands before it. A restart and a command that has succeeded are not
  // taken back by what follows.
  std::string judge(const ChainLink& link);

  // How many states were met that differ in more than the names and times that every run makes anew.
  std::size_t states() const { return states_.size(); }

 private:
  using Files = std::map<std::string, std::string>;

  // What the place was at some time.
  struct Stage {
    std::string state;
    Files files;
    bool is_installed() const { return state == "complete" || state == "interrupted"; }
  };

  bool installs() const { return action_ == "install"; }
  bool repairs() const { return action_ == "repair"; }
  bool uninstalls() const { return action_ == "uninstall" || action_ == "remove"; }
  std::string state() const;
  void begin(const std::string& action);
  const Files& before() const { return before_.files; }
  bool was_uninstalled() const;
  bool was_met(const Files& left) const;
  void expect_player_data(const Files& left) const;
  bool starts_missing() const;
  std::string launcher_file() const;
  void keep(const std::string& name) const;
  void take(const std::string& name) const;
  std::string expect_known_state() const;
  void expect_nothing_but_player_data(bool locks_may_stay = false, const Files& may_stay = {}) const;
  void expect_unchanged(const Files& left) const;
  void judge_cut(const SetupEnding& ending, const std::string& state, const Files& left) const;
  void judge_ending(const SetupEnding& ending, const std::string& state, const Files& left) const;
  void judge_success(const std::string& state) const;
  void judge_failure(const SetupEnding& ending, const std::string& state, const Files& left) const;
  void judge_next_runs(const SetupEnding& ending, const std::string& state, const Files& left) const;
  void expect_success(const std::string& name, const Files& left, const std::function<void()>& run) const;

  const SetupOperation operation_;
  const SetupPlace place_;
  Files start_;
  std::set<std::string> states_;
  std::string action_;          // the command that is judged
  Stage before_;                // what it has found
  std::vector<Stage> earlier_;  // what a power cut may bring back: all from the last thing that lasts to what was found
  bool data_may_go_ = false;    // whether any command was to remove the player's data
};

}  // namespace ravok::testing
