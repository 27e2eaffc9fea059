#include "fault/fault_runner.hpp"

#include <algorithm>
#include <initializer_list>
#include <iomanip>
#include <iterator>
#include <limits>
#include <map>
#include <ostream>
#include <set>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include "support/temporary_root.hpp"

namespace ravok::testing {
namespace {

FaultMode mode_called(const std::string& name) {
  const auto* const mode = std::find_if(std::begin(all_fault_modes), std::end(all_fault_modes),
                                        [&](FaultMode candidate) { return name == fault_mode_name(candidate); });
  if (mode == std::end(all_fault_modes)) {
    throw std::runtime_error("The fault library reported an unknown mode: " + name);
  }
  return *mode;
}

std::vector<FaultMode> modes_called(const std::string& names) {
  std::vector<FaultMode> modes;
  std::istringstream stream(names);
  for (std::string name; std::getline(stream, name, ',');) {
    if (name != "-") {
      modes.push_back(mode_called(name));
    }
  }
  return modes;
}

// The numbers of a list, or only those that are marked.
std::vector<std::uint64_t> numbers(const std::string& text, bool marked = false) {
  std::vector<std::uint64_t> found;
  std::istringstream stream(text);
  for (std::string number; text != "-" && std::getline(stream, number, ',');) {
    if (!marked || number.ends_with('~')) {
      found.push_back(std::stoull(number));
    }
  }
  return found;
}

std::vector<FaultCall> parse_report(const std::string& report) {
  std::vector<FaultCall> calls;
  std::istringstream lines(report);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string number, name, modes, applied, flushed, pending, callers, path;
    std::getline(fields, number, '\t');
    std::getline(fields, name, '\t');
    std::getline(fields, modes, '\t');
    std::getline(fields, applied, '\t');
    std::getline(fields, flushed, '\t');
    std::getline(fields, pending, '\t');
    std::getline(fields, callers, '\t');
    std::getline(fields, path);
    calls.push_back({std::stoull(number), name, modes_called(modes), modes_called(applied), std::stoull(flushed),
                     pending == "=" ? calls.back().pending : numbers(pending),
                     pending == "=" ? calls.back().halves : numbers(pending, true), std::stoull(callers), path});
  }
  return calls;
}

std::string text_of(const FaultCall& call) {
  return "call " + std::to_string(call.number) + ": " + call.name + " " + call.path.string();
}

std::string description(const FaultRun& counted, const FaultCall& call, FaultMode mode, const NameLoss& loss) {
  std::string text = std::string(fault_mode_name(mode)) + " at " + text_of(call);
  if (mode == FaultMode::names) {
    text += "\nnames lost: ";
    if (loss.kind == NameLoss::Kind::all) {
      text += "all";
    } else {
      text += loss.kind == NameLoss::Kind::only   ? "only that of "
              : loss.kind == NameLoss::Kind::half ? "half that of "
                                                  : "all but that of ";
      text += text_of(counted.calls.at(loss.change - 1));
    }
  }
  return text;
}

const FaultCall& call_of(const FaultRun& run, std::uint64_t number) {
  return number <= run.calls.size() ? run.calls.at(number - 1) : run.end.value();
}

// Returns the changes of names, of those made before a cut, that the cut leaves.
std::set<std::uint64_t> kept_changes(std::set<std::uint64_t> all, const FaultCall& call, const NameLoss& loss) {
  for (const std::uint64_t change : call.pending) {
    const bool is_lost_alone = loss.kind == NameLoss::Kind::only || loss.kind == NameLoss::Kind::half;
    if (loss.kind == NameLoss::Kind::all || is_lost_alone == (change == loss.change)) {
      all.erase(change);
    }
  }
  if (loss.kind == NameLoss::Kind::half) {
    constexpr std::uint64_t half_done = std::uint64_t{1} << 63;
    all.insert(half_done + loss.change);
  }
  return all;
}

// Returns at most eight numbers below `count`, spread evenly. Another `turn` gives other numbers.
std::vector<std::size_t> spread(std::size_t count, std::size_t turn) {
  constexpr std::size_t most = 8;
  std::vector<std::size_t> chosen;
  for (std::size_t i = 0; i < std::min(count, most); ++i) {
    chosen.push_back(count <= most ? i : (i * count / most + turn) % count);
  }
  return chosen;
}

bool is_turning_point(const std::string& name) {
  const std::initializer_list<const char*> names = {"rename", "renameat", "renameat2", "link", "linkat", "fsync"};
  return std::find(names.begin(), names.end(), name) != names.end();
}

// Whether a call only looks: a process that ends behind it leaves what it would have left before it. A function that is
// not known here may change something, and a call that takes space does, like an opening that makes its file.
bool only_looks(const FaultCall& call) {
  static const std::set<std::string> looking = {
      "access",          "close",      "faccessat",   "fcntl",         "fdopendir",  "fgetxattr",
      "flistxattr",      "flock",      "fopen",       "fopen64",       "fstat",      "fstat64",
      "fstatat",         "fstatat64",  "fstatfs",     "fstatfs64",     "fstatvfs",   "fstatvfs64",
      "getxattr",        "lgetxattr",  "listxattr",   "llistxattr",    "lseek",      "lseek64",
      "lstat",           "lstat64",    "open",        "open64",        "openat",     "openat64",
      "opendir",         "pread",      "pread64",     "read",          "readdir",    "readdir64",
      "readlink",        "readlinkat", "readv",       "stat",          "stat64",     "statfs",
      "statfs64",        "statvfs",    "statvfs64",   "statx",         "__open64_2", "__open_2",
      "__openat64_2",    "__openat_2", "__pread_chk", "__pread64_chk", "__read_chk", "__readlink_chk",
      "__readlinkat_chk"};
  const bool takes_space = std::find(call.modes.begin(), call.modes.end(), FaultMode::enospc) != call.modes.end();
  return looking.contains(call.name) && !takes_space;
}

// Returns the numbers of the calls that only look and need not fail, since others do that come from the same functions.
std::set<std::uint64_t> spared_looks(const FaultRun& counted) {
  std::set<std::uint64_t> spared;
  std::map<std::pair<std::string, std::uint64_t>, std::vector<std::uint64_t>> looks;
  for (const FaultCall& call : counted.calls) {
    if (only_looks(call)) {
      looks[{call.name, call.callers}].push_back(call.number);
    }
  }
  for (const auto& [from, numbers] : looks) {
    for (const std::uint64_t number : numbers) {
      if (number != numbers.front() && number != numbers[numbers.size() / 2] && number != numbers.back()) {
        spared.insert(number);
      }
    }
  }
  return spared;
}

}  // namespace

std::string text_of(const NameLoss& loss) {
  switch (loss.kind) {
    case NameLoss::Kind::all:
      return "all";
    case NameLoss::Kind::only:
      return "only " + std::to_string(loss.change);
    case NameLoss::Kind::but:
      return "but " + std::to_string(loss.change);
    case NameLoss::Kind::some:
      return "some " + std::to_string(loss.change);
    case NameLoss::Kind::half:
      return "half " + std::to_string(loss.change);
  }
  return "";
}

bool is_new_end(const FaultCall& before, FaultMode mode) {
  const bool only_flushes = before.name == "fsync" || before.name == "fdatasync";
  switch (mode) {
    case FaultMode::exit:
      return !only_looks(before) && !only_flushes;
    case FaultMode::power:
      return !only_looks(before);
    default:
      return true;
  }
}

std::string ending_of(const ProgramResult& result) {
  if (result.signal != 0) {
    return "signal " + std::to_string(result.signal);
  }
  // A message's code stands before its first colon.
  std::string words = "code " + std::to_string(result.exit_code);
  if (!result.errors.empty()) {
    words += " " + result.errors.substr(0, result.errors.find_first_of(":\n"));
  }
  return words;
}

const char* fault_mode_name(FaultMode mode) {
  switch (mode) {
    case FaultMode::exit:
      return "exit";
    case FaultMode::power:
      return "power";
    case FaultMode::names:
      return "names";
    case FaultMode::torn:
      return "torn";
    case FaultMode::eio:
      return "eio";
    case FaultMode::enospc:
      return "enospc";
  }
  return "";
}

bool ends_process(FaultMode mode) {
  return mode == FaultMode::exit || mode == FaultMode::power || mode == FaultMode::names || mode == FaultMode::torn;
}

FaultRun run_with_fault(const ProgramRun& run, const std::filesystem::path& root, std::uint64_t number, FaultMode mode,
                        const NameLoss& loss) {
  const TemporaryRoot store(root.parent_path());
  return run_with_fault(run, root, {number, mode, loss}, store.path());
}

FaultRun run_with_fault(const ProgramRun& run, const std::filesystem::path& root, const Fault& fault,
                        const std::filesystem::path& store) {
  const TemporaryRoot notes;
  ProgramRun faulted = run;
  faulted.environment["LD_PRELOAD"] = RAVOK_FAULT_LIBRARY;
  faulted.environment["RAVOK_FAULT_ROOT"] = root;
  faulted.environment["RAVOK_FAULT_CALL"] = std::to_string(fault.number) + (fault.or_later ? "+" : "");
  faulted.environment["RAVOK_FAULT_MODE"] = fault_mode_name(fault.mode);
  faulted.environment["RAVOK_FAULT_LOST"] = text_of(fault.loss);
  faulted.environment["RAVOK_FAULT_STORE"] = store;
  faulted.environment["RAVOK_FAULT_REPORT"] = notes.write("report", "");
  FaultRun done;
  done.result = run_program(faulted);
  done.calls = parse_report(notes.read("report"));
  if (!done.calls.empty() && done.calls.back().name == "end") {
    done.end = done.calls.back();
    done.calls.pop_back();
  }
  return done;
}

std::vector<NameCut> name_cuts(const FaultRun& run, std::uint64_t most) {
  std::vector<FaultCall> points = run.calls;
  if (run.end) {
    points.push_back(*run.end);
  }
  std::vector<NameCut> always;
  std::vector<NameCut> others;
  std::set<std::uint64_t> made;
  std::set<std::pair<std::uint64_t, std::set<std::uint64_t>>> met;
  std::size_t turn = 0;
  for (std::size_t i = 1; i < points.size(); ++i) {
    const FaultCall& point = points[i];
    const FaultCall& before = points[i - 1];
    made.insert(point.pending.begin(), point.pending.end());
    const bool is_end = point.name == "end";
    const bool is_same = point.pending == before.pending && point.flushed_files == before.flushed_files;
    if (point.pending.empty() || (is_same && !is_end)) {
      continue;
    }
    const bool is_wanted = is_end || is_turning_point(before.name);
    // More is expected of a program that has reported its end, so its end is always a stage of its own.
    const std::uint64_t stage = is_end ? std::numeric_limits<std::uint64_t>::max() : point.flushed_files;
    // Losing no name is the same as the mode that loses files alone, which has its own runs.
    met.insert({stage, made});
    const auto add = [&](const NameLoss& loss) {
      if (met.insert({stage, kept_changes(made, point, loss)}).second) {
        (is_wanted ? always : others).push_back({point.number, loss});
      }
    };
    add({NameLoss::Kind::all, 0});
    for (const std::size_t chosen : spread(point.pending.size(), ++turn)) {
      add({NameLoss::Kind::only, point.pending[chosen]});
      add({NameLoss::Kind::but, point.pending[chosen]});
    }
    for (const std::size_t chosen : spread(point.halves.size(), turn)) {
      add({NameLoss::Kind::half, point.halves[chosen]});
    }
  }
  const std::uint64_t wanted =
      std::min<std::uint64_t>(others.size(), most - std::min<std::uint64_t>(most, always.size()));
  for (std::uint64_t i = 0; i < wanted; ++i) {
    always.push_back(others[i * others.size() / wanted]);
  }
  return always;
}

void write_counts(std::ostream& stream, const std::map<std::string, std::uint64_t>& counts) {
  const char* between = "";
  for (const auto& [words, count] : counts) {
    stream << between << words << " (" << count << ")";
    between = ", ";
  }
  stream << '\n';
}

std::ostream& operator<<(std::ostream& stream, const FaultTable& table) {
  stream << table.calls.size() << " calls, " << table.runs << " spoilt runs, " << table.name_cuts
         << " of which lost names\n";
  for (const auto& [what, endings] : table.endings) {
    stream << "  " << std::left << std::setw(18) << what.first << std::setw(8) << what.second;
    write_counts(stream, endings);
  }
  return stream;
}

FaultTable run_faults(const FaultPlan& plan) {
  plan.reset();
  const FaultRun unspoilt = run_with_fault(plan.run, plan.root);
  if (unspoilt.result.exit_code != 0) {
    throw std::runtime_error("The unspoilt run ended with " + ending_of(unspoilt.result) + ": " +
                             unspoilt.result.errors);
  }
  if (unspoilt.calls.size() > plan.most_calls) {
    throw std::runtime_error("The program makes " + std::to_string(unspoilt.calls.size()) + " calls");
  }

  FaultTable table;
  table.calls = unspoilt.calls;
  table.end = unspoilt.end;
  const auto is_tried = [&](FaultMode mode) {
    return std::find(plan.modes.begin(), plan.modes.end(), mode) != plan.modes.end();
  };
  const auto spoil = [&](const FaultCall& call, FaultMode mode, const NameLoss& loss) {
    plan.reset();
    const FaultRun spoilt = run_with_fault(plan.run, plan.root, call.number, mode, loss);
    const bool reached = spoilt.calls.size() + (spoilt.end ? 1 : 0) >= call.number;
    const FaultCall& met = reached ? call_of(spoilt, call.number) : call;
    if (met.name != call.name || met.applied != std::vector<FaultMode>{mode} || met.pending != call.pending ||
        (ends_process(mode) && !plan.acts_in_child && spoilt.result.signal == 0)) {
      throw std::runtime_error("Not reached: " + description(unspoilt, call, mode, loss) + "\nbut " +
                               std::to_string(spoilt.calls.size()) + " calls, there " + text_of(met) + "\n" +
                               spoilt.result.errors);
    }
    ++table.runs;
    ++table.endings[{call.name, fault_mode_name(mode)}][ending_of(spoilt.result)];
    const ::testing::ScopedTrace trace(__FILE__, __LINE__,
                                       description(unspoilt, call, mode, loss) + "\n" + spoilt.result.errors);
    plan.judge({call, mode, spoilt.result});
  };
  const std::set<std::uint64_t> spared = spared_looks(unspoilt);
  const auto is_worth_it = [&](const FaultCall& call, FaultMode mode) {
    if (plan.every_call) {
      return true;
    }
    return mode == FaultMode::eio ? !spared.contains(call.number)
                                  : call.number == 1 || is_new_end(call_of(unspoilt, call.number - 1), mode);
  };
  for (std::uint64_t number = 1; number <= unspoilt.calls.size() + (unspoilt.end ? 1 : 0); ++number) {
    const FaultCall& call = call_of(unspoilt, number);
    for (const FaultMode mode : call.modes) {
      if (mode != FaultMode::names && is_tried(mode) && is_worth_it(call, mode)) {
        spoil(call, mode, {});
      }
    }
  }
  if (is_tried(FaultMode::names)) {
    for (const NameCut& cut : name_cuts(unspoilt, plan.most_name_cuts)) {
      spoil(call_of(unspoilt, cut.number), FaultMode::names, cut.loss);
      ++table.name_cuts;
    }
  }
  return table;
}

}  // namespace ravok::testing
