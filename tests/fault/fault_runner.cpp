#include "fault/fault_runner.hpp"

#include <algorithm>
#include <iomanip>
#include <iterator>
#include <ostream>
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

std::vector<FaultCall> parse_report(const std::string& report) {
  std::vector<FaultCall> calls;
  std::istringstream lines(report);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string number, name, modes, applied, path;
    std::getline(fields, number, '\t');
    std::getline(fields, name, '\t');
    std::getline(fields, modes, '\t');
    std::getline(fields, applied, '\t');
    std::getline(fields, path);
    calls.push_back({std::stoull(number), name, modes_called(modes), modes_called(applied), path});
  }
  // Calls of several threads may have been reported out of order.
  std::sort(calls.begin(), calls.end(), [](const FaultCall& a, const FaultCall& b) { return a.number < b.number; });
  return calls;
}

std::string description(const FaultCall& call, FaultMode mode) {
  return std::string(fault_mode_name(mode)) + " at call " + std::to_string(call.number) + ": " + call.name + " " +
         call.path.string();
}

// The ending in a few words: the code of a message stands before its first colon.
std::string ending(const ProgramResult& result) {
  if (result.signal != 0) {
    return "signal " + std::to_string(result.signal);
  }
  std::string words = "code " + std::to_string(result.exit_code);
  if (!result.errors.empty()) {
    words += " " + result.errors.substr(0, result.errors.find_first_of(":\n"));
  }
  return words;
}

}  // namespace

const char* fault_mode_name(FaultMode mode) {
  switch (mode) {
    case FaultMode::exit:
      return "exit";
    case FaultMode::power:
      return "power";
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
  return mode == FaultMode::exit || mode == FaultMode::power || mode == FaultMode::torn;
}

FaultRun run_with_fault(const ProgramRun& run, const std::filesystem::path& root, std::uint64_t number,
                        FaultMode mode) {
  const TemporaryRoot notes;
  ProgramRun faulted = run;
  faulted.environment["LD_PRELOAD"] = RAVOK_FAULT_LIBRARY;
  faulted.environment["RAVOK_FAULT_ROOT"] = root;
  faulted.environment["RAVOK_FAULT_CALL"] = std::to_string(number);
  faulted.environment["RAVOK_FAULT_MODE"] = fault_mode_name(mode);
  faulted.environment["RAVOK_FAULT_REPORT"] = notes.write("report", "");
  FaultRun done;
  done.result = run_program(faulted);
  done.calls = parse_report(notes.read("report"));
  return done;
}

std::ostream& operator<<(std::ostream& stream, const FaultTable& table) {
  stream << table.calls.size() << " calls, " << table.runs << " spoilt runs\n";
  for (const auto& [what, endings] : table.endings) {
    stream << "  " << std::left << std::setw(18) << what.first << std::setw(8) << what.second;
    const char* between = "";
    for (const auto& [words, count] : endings) {
      stream << between << words << " (" << count << ")";
      between = ", ";
    }
    stream << '\n';
  }
  return stream;
}

FaultTable run_faults(const FaultPlan& plan) {
  plan.reset();
  const FaultRun unspoilt = run_with_fault(plan.run, plan.root);
  if (unspoilt.result.exit_code != 0) {
    throw std::runtime_error("The unspoilt run ended with " + ending(unspoilt.result) + ": " + unspoilt.result.errors);
  }
  if (unspoilt.calls.size() > plan.most_calls) {
    throw std::runtime_error("The program makes " + std::to_string(unspoilt.calls.size()) + " calls");
  }

  FaultTable table;
  table.calls = unspoilt.calls;
  for (const FaultCall& call : unspoilt.calls) {
    for (const FaultMode mode : call.modes) {
      if (std::find(plan.modes.begin(), plan.modes.end(), mode) == plan.modes.end()) {
        continue;
      }
      plan.reset();
      const FaultRun spoilt = run_with_fault(plan.run, plan.root, call.number, mode);
      if (spoilt.calls.size() < call.number || spoilt.calls[call.number - 1].name != call.name ||
          spoilt.calls[call.number - 1].applied != std::vector<FaultMode>{mode}) {
        throw std::runtime_error("Not reached: " + description(call, mode));
      }
      ++table.runs;
      ++table.endings[{call.name, fault_mode_name(mode)}][ending(spoilt.result)];
      const ::testing::ScopedTrace trace(__FILE__, __LINE__, description(call, mode) + "\n" + spoilt.result.errors);
      plan.judge({call, mode, spoilt.result});
    }
  }
  return table;
}

}  // namespace ravok::testing
