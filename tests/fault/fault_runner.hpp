// Runs a real program again and again, and spoils another of its calls to the file system each time.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/process.hpp"

namespace ravok::testing {

// What happens at the chosen call; fault_library.cpp says exactly when each is possible.
enum class FaultMode {
  exit,    // the process ends by SIGKILL before the call
  power,   // the same, and what was written to a file and not flushed since is lost
  names,   // the same as power; names are lost too whose directory was not flushed since
  torn,    // half of the bytes are written, then the process ends by SIGKILL
  eio,     // the call fails with EIO
  enospc,  // the call fails with ENOSPC
};

inline constexpr FaultMode all_fault_modes[] = {FaultMode::exit, FaultMode::power, FaultMode::names,
                                                FaultMode::torn, FaultMode::eio,   FaultMode::enospc};

// The mode as the library and the tables name it.
const char* fault_mode_name(FaultMode mode);

// Whether the process is ended rather than one of its calls failed.
bool ends_process(FaultMode mode);

// A call that the library counted.
struct FaultCall {
  std::uint64_t number = 0;            // from 1, in the order of the calls
  std::string name;                    // the function of the C library
  std::vector<FaultMode> modes;        // what could happen to this very call
  std::vector<FaultMode> applied;      // what happened to it: nothing or one mode
  std::uint64_t flushed_files = 0;     // how many files had been flushed before
  std::vector<std::uint64_t> pending;  // the calls whose changes of names a power cut could lose here
  std::vector<std::uint64_t> halves;   // those of them that are moves which could be half lost
  std::uint64_t callers = 0;           // in a counted run, the same for the same last functions on the way to it
  std::filesystem::path path;          // the path that it concerned, the first of two
};

struct FaultRun {
  ProgramResult result;
  std::vector<FaultCall> calls;
  // The end of a program that ended by itself, with the number after that of the last call and the name "end".
  std::optional<FaultCall> end;
};

// Which names a power cut loses of those that it may.
struct NameLoss {
  enum class Kind { all, only, but, some, half };
  Kind kind = Kind::all;
  // The call whose change is lost alone, kept alone, or half lost alone; for some, what decides about each change by
  // itself.
  std::uint64_t change = 0;
};

// A call that is to be spoilt.
struct Fault {
  std::uint64_t number = 0;  // 0 for none
  FaultMode mode = FaultMode::exit;
  NameLoss loss = {};
  bool or_later = false;  // whether it is the first call from that number on to which the mode can happen
};

// Runs the program with the library preloaded, counting from the first call that concerns `root` or a directory above
// it, and with `mode` at call `number`; 0 only counts. `root` must be absolute, without links.
FaultRun run_with_fault(const ProgramRun& run, const std::filesystem::path& root, std::uint64_t number = 0,
                        FaultMode mode = FaultMode::exit, const NameLoss& loss = {});

// Does so with a store of the caller's. What the program leaves unflushed is not flushed for the next one either that
// is run with the same store.
FaultRun run_with_fault(const ProgramRun& run, const std::filesystem::path& root, const Fault& fault,
                        const std::filesystem::path& store);

// Whether ending the process at a call leaves something else than ending it at the call before.
bool is_new_end(const FaultCall& before, FaultMode mode);

// How a program ended, in a few words: its signal, or its code and the code of its message.
std::string ending_of(const ProgramResult& result);

// Writes how often what happened, as a line: "code 0 (2), signal 9 (1)".
void write_counts(std::ostream& stream, const std::map<std::string, std::uint64_t>& counts);

// "all", "only N", "but N", "some N" or "half N", as the library takes it.
std::string text_of(const NameLoss& loss);

// A power cut at a call or at the end, and the names that it loses.
struct NameCut {
  std::uint64_t number = 0;
  NameLoss loss;
};

// Returns the power cuts that differ in what they leave of a counted run. At every call from which on other names may
// be lost, there is a cut that loses all of them, and for each of them a cut that loses it alone and one that loses all
// but it; of more than eight changes, eight are chosen, spread over them. Others lose half of a move.
// More than `most` cuts are thinned out evenly, except those after a flush, a link or a move, and those at the end.
std::vector<NameCut> name_cuts(const FaultRun& run, std::uint64_t most);

struct FaultOutcome {
  FaultCall call;  // as it was in the run that only counted
  FaultMode mode;
  ProgramResult result;

  // Whether the program had ended by itself, so that only what it had not flushed was lost.
  bool at_end() const { return call.name == "end"; }
};

struct FaultPlan {
  ProgramRun run;
  std::filesystem::path root;
  // Makes the state that every run starts from; called before each of them.
  std::function<void()> reset;
  // Judges what a spoilt run left behind. Its failed expectations name the call and the mode.
  std::function<void(const FaultOutcome&)> judge;
  std::vector<FaultMode> modes = {std::begin(all_fault_modes), std::end(all_fault_modes)};
  // Whether RAVOK_FAULT_PROGRAM names a program that the run starts, whose end is then not the end of the run.
  bool acts_in_child = false;
  // Whether no call is spared.
  bool every_call = std::getenv("RAVOK_EVERY_CALL") != nullptr;
  // Guards against a program that never stops calling.
  std::uint64_t most_calls = 2000;
  // How many runs that lose names are wanted, besides those that are always made.
  std::uint64_t most_name_cuts = 60;
};

// What was tried, and what came of it.
struct FaultTable {
  std::vector<FaultCall> calls;
  std::uint64_t runs = 0;       // spoilt runs
  std::uint64_t name_cuts = 0;  // those of them that lost names
  std::optional<FaultCall> end;
  // How often a run ended in which way, by the function's name and the mode.
  std::map<std::pair<std::string, std::string>, std::map<std::string, std::uint64_t>> endings;
};

std::ostream& operator<<(std::ostream& stream, const FaultTable& table);

// Runs the program once unspoilt, which must end with code 0. Then runs it for every call and every mode that is
// possible for the call, each time on a fresh state; for the mode that loses names, name_cuts chooses the runs. Spares,
// unless every call is wanted: the end of the process where the call before only looks, since it leaves what an end
// before that one leaves; and failures of calls that only look and come from the same last functions, except for the
// first, one in the middle and the last of them. Throws std::runtime_error when the unspoilt run fails or makes too
// many calls, and when a spoilt run does not reach its call, since the program's calls then differ from run to run.
FaultTable run_faults(const FaultPlan& plan);

}  // namespace ravok::testing
