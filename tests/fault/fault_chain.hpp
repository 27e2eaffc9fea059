// Faults during recovery: a program is spoilt, then the one that is to recover from it, and so on, on the same files.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fault/fault_runner.hpp"
#include "support/process.hpp"

namespace ravok::testing {

// What came of one program of a chain.
struct ChainLink {
  ProgramRun run;
  // The call that was spoilt and how; nothing where no call could be, and the program ended by itself.
  std::optional<FaultCall> call;
  FaultMode mode = FaultMode::exit;
  ProgramResult result;
  // What the same program did on a copy of the same files when nothing was spoilt.
  ProgramResult unspoilt;
  // How many changes of names and how many contents of files an earlier program had left unflushed.
  std::uint64_t carried_names = 0;
  std::uint64_t carried_files = 0;

  // Whether the program was ended by the fault.
  bool is_cut() const { return call && ends_process(mode); }
  // Whether the power went only after the program had reported its end.
  bool at_end() const { return call && call->name == "end"; }
  // Whether all that is there lasts: a restart of the machine has lost what was not flushed.
  bool restarted() const { return call && (mode == FaultMode::power || mode == FaultMode::names); }
  // Whether the program has ended by itself with success, so that what it was to do is promised from then on.
  bool has_succeeded() const { return at_end() || (!is_cut() && result.exit_code == 0); }
  // What it has said. What one says whose power goes at its end is what it says unspoilt.
  const std::string& said() const { return at_end() ? unspoilt.output : result.output; }
};

// Chooses without a limit, and the same for the same seed everywhere.
class ChainRandom {
 public:
  explicit ChainRandom(std::uint64_t seed) : state_(seed) {}
  std::uint64_t next();
  // Returns a number below `count`, which is not 0.
  std::size_t below(std::size_t count) { return static_cast<std::size_t>(next() % count); }
  // Whether something happens that happens `percent` times in a hundred.
  bool chance(std::size_t percent) { return below(100) < percent; }

 private:
  std::uint64_t state_;
};

struct FaultChainPlan {
  std::filesystem::path root;
  // The directories that the programs change. They must not lie in one another.
  std::vector<std::filesystem::path> folders;
  // Makes the state that every chain starts from.
  std::function<void()> reset;
  // Mends in the copies what names a file by its number.
  std::function<void()> copied = [] {};
  // Returns what a user would run now, which must succeed when nothing is spoilt; nothing where the chain is to end. It
  // may look at the folders, and change what is in a file, but no name.
  std::function<std::optional<ProgramRun>(ChainRandom&)> next;
  // Judges what a program has left and what the next unspoilt one makes of it, on a copy of the folders in their place.
  // Returns the state in a few words.
  std::function<std::string(const ChainLink&)> judge;
  // How many chains are tried by chance, and how many of those that begin at a certain call, where RAVOK_FAULT_CHAINS
  // says nothing.
  std::uint64_t chains = 20;
  std::uint64_t most_begun = 12;
  std::uint64_t most_calls = 10'000;
};

struct FaultChainTable {
  std::uint64_t seed = 0;
  std::uint64_t chains = 0;
  std::uint64_t runs = 0;      // programs that were spoilt or to be spoilt
  std::uint64_t unspoilt = 0;  // those to which their fault could not happen
  std::uint64_t carrying = 0;  // those that began with something that an earlier one had not flushed
  // How many chains had how many faults; a longer one counts as one of the last length.
  std::array<std::uint64_t, 8> lengths = {};
  // How often which modes followed each other, and how the second program ended.
  std::map<std::pair<std::string, std::string>, std::map<std::string, std::uint64_t>> pairs;
  // How often which state was met.
  std::map<std::string, std::uint64_t> states;
};

std::ostream& operator<<(std::ostream& stream, const FaultChainTable& table);

// Makes chains of two to four faults, each in another program that a user would run on what the last one has left, and
// after them one more program whose power goes when it has reported its end. Before each fault the program is run
// unspoilt on a copy, which must succeed, and its calls are counted there. Names and contents that a program has not
// flushed may be lost as long as no program after it flushes them. The seed and the number of the chain decide about
// every choice; the seed is RAVOK_FAULT_SEED or 1, and RAVOK_FAULT_CHAIN asks for a single chain by its number, which a
// failure tells.
//
// Other chains leave less to chance: the first program ends at a call from which on it would leave other names
// unflushed, and the power goes when the next one has reported its end, with all that it has adopted and not flushed.
// RAVOK_FAULT_CHAINS asks for that at each such call. The number of the call and 1000000 are the number of the chain.
//
// Throws std::runtime_error for a variable that is no number, and where a program makes too many calls.
FaultChainTable run_fault_chains(const FaultChainPlan& plan);

}  // namespace ravok::testing
