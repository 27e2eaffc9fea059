#include "fault/fault_chain.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <limits>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <tuple>

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/temporary_root.hpp"

namespace ravok::testing {
namespace {

std::optional<std::uint64_t> number_in(const char* variable) {
  const char* const text = std::getenv(variable);
  if (text == nullptr || *text == '\0') {
    return std::nullopt;
  }
  char* end = nullptr;
  errno = 0;
  const std::uint64_t number = std::strtoull(text, &end, 10);
  if (*text < '0' || *text > '9' || *end != '\0' || errno != 0) {
    throw std::runtime_error(std::string(variable) + " must be a decimal number");
  }
  return number;
}

// Returns the processes of this one.
std::vector<pid_t> own_processes() {
  std::vector<pid_t> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    std::ifstream file(entry.path() / "stat");
    std::string text;
    if (name.find_first_not_of("0123456789") == std::string::npos && std::getline(file, text)) {
      // The program's name stands in brackets and may hold anything; the state and the parent follow.
      std::istringstream fields(text.substr(text.rfind(')') + 1));
      std::string state;
      pid_t parent = 0;
      if (fields >> state >> parent && parent == getpid()) {
        found.push_back(static_cast<pid_t>(std::stol(name)));
      }
    }
  }
  return found;
}

// While it is there, what is left of an ended program's own programs belongs to this process, which can end it: a
// launcher lives on for a moment when its bootstrap is killed, and must not write into what is judged or copied.
class Heir {
 public:
  Heir() { prctl(PR_SET_CHILD_SUBREAPER, 1); }
  ~Heir() { prctl(PR_SET_CHILD_SUBREAPER, 0); }
  Heir(const Heir&) = delete;
  Heir& operator=(const Heir&) = delete;

  static void end_all() {
    for (;;) {
      const pid_t ended = waitpid(-1, nullptr, WNOHANG);
      if (ended < 0 && errno == ECHILD) {
        return;
      }
      if (ended == 0) {
        for (const pid_t process : own_processes()) {
          kill(process, SIGKILL);
        }
        waitpid(-1, nullptr, 0);
      }
    }
  }
};

// Puts copies in the place of directories, and the directories back at its end: they and all below them stay what they
// are, by their numbers too, so that what is not flushed in them stays known.
class CopiesInPlace {
 public:
  explicit CopiesInPlace(const FaultChainPlan& plan) : folders_(plan.folders) {
    for (const std::filesystem::path& folder : folders_) {
      std::filesystem::rename(folder, aside(folder));
      const ProgramResult result =
          run_program({"/bin/cp", {"-a", "--sparse=never", aside(folder), folder}, {{"PATH", "/usr/bin:/bin"}}, ""});
      if (result.exit_code != 0) {
        throw std::runtime_error("Cannot copy: " + result.errors);
      }
    }
    plan.copied();
  }
  ~CopiesInPlace() {
    for (const std::filesystem::path& folder : folders_) {
      std::filesystem::remove_all(folder);
      std::filesystem::rename(aside(folder), folder);
    }
  }
  CopiesInPlace(const CopiesInPlace&) = delete;
  CopiesInPlace& operator=(const CopiesInPlace&) = delete;

 private:
  static std::filesystem::path aside(const std::filesystem::path& folder) { return folder.native() + ".aside"; }

  const std::vector<std::filesystem::path> folders_;
};

// Returns how many names and files are not flushed, as the library has left it in its store.
std::pair<std::uint64_t, std::uint64_t> carried_in(const std::filesystem::path& store) {
  std::ifstream file(store / "pending", std::ios::binary);
  std::uint64_t names = 0;
  std::uint64_t files = 0;
  std::string word;
  file >> names >> word >> files;
  return {names, files};
}

bool can_meet(const FaultCall& call, FaultMode mode) {
  return std::find(call.modes.begin(), call.modes.end(), mode) != call.modes.end();
}

FaultMode choose_mode(ChainRandom& random) {
  const std::pair<FaultMode, std::size_t> percents[] = {{FaultMode::names, 35},  {FaultMode::exit, 20},
                                                        {FaultMode::power, 15},  {FaultMode::eio, 15},
                                                        {FaultMode::enospc, 10}, {FaultMode::torn, 5}};
  std::size_t left = random.below(100);
  for (const auto& [mode, percent] : percents) {
    if (left < percent) {
      return mode;
    }
    left -= percent;
  }
  return FaultMode::exit;
}

// Returns one of the calls that may fail: first the functions that it comes from, then one of their calls, since most
// calls come from a few.
std::uint64_t choose_failing(const std::vector<FaultCall>& calls, FaultMode mode, ChainRandom& random) {
  std::map<std::pair<std::string, std::uint64_t>, std::size_t> place_of;
  std::vector<std::vector<std::uint64_t>> groups;
  for (const FaultCall& call : calls) {
    if (can_meet(call, mode)) {
      const auto [place, is_new] = place_of.insert({{call.name, call.callers}, groups.size()});
      if (is_new) {
        groups.emplace_back();
      }
      groups[place->second].push_back(call.number);
    }
  }
  if (groups.empty()) {
    return 0;
  }
  const std::vector<std::uint64_t>& group = groups[random.below(groups.size())];
  return group[random.below(group.size())];
}

// Returns one of the calls at which ending the program may leave something else than at the call before, or the end.
std::uint64_t choose_ending(const FaultRun& counted, FaultMode mode, bool anywhere, ChainRandom& random) {
  std::vector<std::uint64_t> numbers;
  for (const FaultCall& call : counted.calls) {
    const bool is_new = call.number == 1 || is_new_end(counted.calls[call.number - 2], mode);
    if (is_new && (anywhere || can_meet(call, mode))) {
      numbers.push_back(call.number);
    }
  }
  const bool can_be_end = counted.end && mode != FaultMode::exit && (anywhere || can_meet(*counted.end, mode));
  if (can_be_end && (numbers.empty() || random.chance(25))) {
    return counted.end->number;
  }
  return numbers.empty() ? 0 : numbers[random.below(numbers.size())];
}

Fault choose_fault(const FaultRun& counted, bool is_carrying, ChainRandom& random) {
  Fault fault;
  fault.or_later = true;
  fault.mode = choose_mode(random);
  fault.loss = {random.chance(30) ? NameLoss::Kind::all : NameLoss::Kind::some, random.next()};
  switch (fault.mode) {
    case FaultMode::exit:
      break;
    case FaultMode::power:
    case FaultMode::names:
      // The counted run was one on a copy, where nothing was left unflushed.
      fault.number = choose_ending(counted, fault.mode, is_carrying, random);
      break;
    case FaultMode::torn:
    case FaultMode::eio:
    case FaultMode::enospc:
      fault.number = choose_failing(counted.calls, fault.mode, random);
      break;
  }
  if (fault.number == 0) {
    fault.mode = FaultMode::exit;
    fault.number = choose_ending(counted, fault.mode, true, random);
  }
  if (fault.mode == FaultMode::names && fault.number <= counted.calls.size()) {
    const std::vector<std::uint64_t>& halves = counted.calls.at(fault.number - 1).halves;
    if (!halves.empty() && random.chance(50)) {
      fault.loss = {NameLoss::Kind::half, halves[random.below(halves.size())]};
    }
  }
  return fault;
}

// The chains that begin at a certain call have its number and this one.
constexpr std::uint64_t first_begun_chain = 1'000'000;

// Returns the calls from which on a program that ends there leaves other names unflushed, spread evenly where they are
// more than `most`.
std::vector<std::uint64_t> leaving_calls(const FaultRun& counted, std::uint64_t most) {
  std::vector<std::uint64_t> all;
  for (std::size_t i = 1; i < counted.calls.size(); ++i) {
    const FaultCall& call = counted.calls[i];
    if (!call.pending.empty() && call.pending != counted.calls[i - 1].pending) {
      all.push_back(call.number);
    }
  }
  std::vector<std::uint64_t> chosen;
  const std::uint64_t count = std::min<std::uint64_t>(most, all.size());
  for (std::uint64_t i = 0; i < count; ++i) {
    chosen.push_back(all[i * all.size() / count]);
  }
  return chosen;
}

// Returns the call that was spoilt.
std::optional<FaultCall> spoilt_call(const FaultRun& run) {
  for (const FaultCall& call : run.calls) {
    if (!call.applied.empty()) {
      return call;
    }
  }
  return run.end && !run.end->applied.empty() ? run.end : std::nullopt;
}

std::string words_of(const ProgramRun& run) {
  std::string words = std::filesystem::path(run.program).filename();
  for (const std::string& argument : run.arguments) {
    words += " " + argument;
  }
  return words;
}

std::string description_of(const ChainLink& link, const NameLoss& loss) {
  std::ostringstream text;
  text << words_of(link.run) << "\n    ";
  if (link.carried_names + link.carried_files > 0) {
    text << "began with " << link.carried_names << " names and " << link.carried_files << " files unflushed; ";
  }
  if (link.call) {
    text << fault_mode_name(link.mode) << " at call " << link.call->number << ": " << link.call->name << ' '
         << link.call->path.native();
    if (link.mode == FaultMode::names) {
      text << ", names lost: " << text_of(loss);
    }
  } else {
    text << "not spoilt";
  }
  text << "; " << ending_of(link.result) << '\n';
  return text.str();
}

// One chain, and what is told of it.
class Chain {
 public:
  Chain(const FaultChainPlan& plan, std::uint64_t seed, std::uint64_t number, FaultChainTable& table)
      : plan_(plan),
        seed_(seed),
        number_(number),
        random_(mixed_seed(seed, number)),
        table_(table),
        store_(plan.root.parent_path()) {
    story_ = "chain " + std::to_string(number) + " of seed " + std::to_string(seed) +
             "; alone: RAVOK_FAULT_SEED=" + std::to_string(seed) + " RAVOK_FAULT_CHAIN=" + std::to_string(number) +
             "\n";
  }

  void run() {
    plan_.reset();
    const bool is_begun = number_ > first_begun_chain;
    const std::uint64_t length = is_begun ? 1 : 2 + (random_.chance(30) ? 1 + random_.below(2) : 0);
    for (std::uint64_t i = 0; i <= length; ++i) {
      const Choice choice = i == length ? Choice::end : is_begun ? Choice::begun : Choice::any;
      if (!run_link(choice)) {
        break;
      }
    }
    ++table_.lengths[std::min(faults_, table_.lengths.size() - 1)];
  }

 private:
  // How a link's fault is chosen.
  enum class Choice { any, begun, end };

  static std::uint64_t mixed_seed(std::uint64_t seed, std::uint64_t number) {
    ChainRandom first(seed);
    ChainRandom second(first.next() ^ number);
    return second.next();
  }

  // Returns whether the chain goes on.
  bool run_link(Choice choice) {
    // The chains that begin at a call of a program begin with that one.
    ChainRandom same(seed_);
    const std::optional<ProgramRun> run = plan_.next(choice == Choice::begun ? same : random_);
    if (!run) {
      return false;
    }
    ChainLink link;
    link.run = *run;
    std::tie(link.carried_names, link.carried_files) = carried_in(store_.path());
    const FaultRun counted = count(*run);
    link.unspoilt = counted.result;
    if (counted.result.exit_code != 0) {
      ADD_FAILURE() << story_ << "  " << words_of(*run) << "\n    unspoilt: " << ending_of(counted.result) << '\n'
                    << counted.result.errors;
      return false;
    }
    const Fault fault = fault_of(choice, counted, link.carried_names + link.carried_files > 0);
    const FaultRun spoilt = run_with_fault(*run, plan_.root, fault, store_.path());
    Heir::end_all();
    link.call = spoilt_call(spoilt);
    link.mode = fault.mode;
    link.result = spoilt.result;
    note(link);
    story_ += "  " + description_of(link, fault.loss);
    const ::testing::ScopedTrace trace(__FILE__, __LINE__, story_ + link.result.errors);
    if (!std::filesystem::exists(store_ / "pending")) {
      ADD_FAILURE() << "nothing is known of what was not flushed";
      return false;
    }
    if (link.is_cut() != (link.result.signal == SIGKILL) || (!link.call && link.result.exit_code != 0)) {
      ADD_FAILURE() << "ended otherwise than it should have: " << ending_of(link.result);
      return false;
    }
    const CopiesInPlace copies(plan_);
    ++table_.states[plan_.judge(link)];
    Heir::end_all();
    return true;
  }

  Fault fault_of(Choice choice, const FaultRun& counted, bool is_carrying) {
    switch (choice) {
      case Choice::any:
        break;
      case Choice::begun:
        return {number_ - first_begun_chain, FaultMode::exit, {}, false};
      case Choice::end:
        return {counted.calls.size() + 1, FaultMode::names, {NameLoss::Kind::all, 0}, true};
    }
    return choose_fault(counted, is_carrying, random_);
  }

  FaultRun count(const ProgramRun& run) const {
    const CopiesInPlace copies(plan_);
    FaultRun counted = run_with_fault(run, plan_.root);
    Heir::end_all();
    if (counted.calls.size() > plan_.most_calls) {
      throw std::runtime_error("The program makes " + std::to_string(counted.calls.size()) + " calls");
    }
    return counted;
  }

  void note(const ChainLink& link) {
    ++table_.runs;
    table_.carrying += link.carried_names + link.carried_files > 0 ? 1 : 0;
    if (!link.call) {
      ++table_.unspoilt;
      former_.clear();
      return;
    }
    ++faults_;
    const std::string mode = std::string(fault_mode_name(link.mode)) + (link.at_end() ? " at end" : "");
    if (!former_.empty()) {
      ++table_.pairs[{former_, mode}][ending_of(link.result)];
    }
    former_ = mode;
  }

  const FaultChainPlan& plan_;
  const std::uint64_t seed_;
  const std::uint64_t number_;
  ChainRandom random_;
  FaultChainTable& table_;
  const TemporaryRoot store_;
  std::string story_;
  std::string former_;  // the mode of the last fault
  std::size_t faults_ = 0;
};

}  // namespace

std::uint64_t ChainRandom::next() {
  // SplitMix64.
  state_ += 0x9e3779b97f4a7c15;
  std::uint64_t mixed = state_;
  mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9;
  mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111eb;
  return mixed ^ (mixed >> 31);
}

std::ostream& operator<<(std::ostream& stream, const FaultChainTable& table) {
  stream << "seed " << table.seed << ": " << table.chains << " chains of faults in " << table.runs << " runs, "
         << table.unspoilt << " of which met none, " << table.carrying << " began with what was not flushed\n ";
  for (std::size_t i = 0; i < table.lengths.size(); ++i) {
    if (table.lengths[i] > 0) {
      stream << ' ' << table.lengths[i] << " of " << i << " faults;";
    }
  }
  stream << '\n';
  for (const auto& [modes, endings] : table.pairs) {
    stream << "  " << std::left << std::setw(14) << modes.first << std::setw(14) << modes.second;
    write_counts(stream, endings);
  }
  for (const auto& [state, count] : table.states) {
    stream << "  " << state << " (" << count << ")\n";
  }
  return stream;
}

FaultChainTable run_fault_chains(const FaultChainPlan& plan) {
  const Heir heir;
  FaultChainTable table;
  table.seed = number_in("RAVOK_FAULT_SEED").value_or(1);
  const auto try_chain = [&](std::uint64_t number) {
    Chain(plan, table.seed, number, table).run();
    ++table.chains;
  };
  if (const std::optional<std::uint64_t> alone = number_in("RAVOK_FAULT_CHAIN")) {
    try_chain(*alone);
    return table;
  }
  const std::optional<std::uint64_t> wanted = number_in("RAVOK_FAULT_CHAINS");
  plan.reset();
  ChainRandom same(table.seed);
  const FaultRun counted = run_with_fault(plan.next(same).value(), plan.root);
  Heir::end_all();
  const std::uint64_t every = std::numeric_limits<std::uint64_t>::max();
  for (const std::uint64_t call : leaving_calls(counted, wanted ? every : plan.most_begun)) {
    try_chain(first_begun_chain + call);
  }
  for (std::uint64_t number = 1; number <= wanted.value_or(plan.chains); ++number) {
    try_chain(number);
  }
  return table;
}

}  // namespace ravok::testing
