#include "publisher/commands/publish_console.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <new>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

#include "app/command/program_version.hpp"
#include "domain/display_text.hpp"
#include "domain/error.hpp"
#include "domain/exit_code.hpp"
#include "publisher/commands/commands.hpp"
#include "publisher/commands/publish_program.hpp"
#include "publisher/commands/results.hpp"
#include "publisher/commands/terminal.hpp"
#include "publisher/snapshot_refusals.hpp"

namespace ravok {
namespace {

// Returns what the library says of a wrong command line, with the user's own words escaped for a terminal.
std::string shown_failure(const CLI::App* command, const CLI::Error& problem) {
  return CLI::FailureMessage::simple(
      command, CLI::Error(problem.get_name(), shown_text(problem.what()), problem.get_exit_code()));
}

Json problem_of(const Error& error) { return {{"code", error.code}, {"message", json_text(error.what())}}; }

Json problem_of(const SnapshotRefused& error) {
  Json problem = problem_of(static_cast<const Error&>(error));
  problem["refused_count"] = error.count;
  problem["refused"] = Json::array();
  for (const SnapshotRefusal& refusal : error.refusals) {
    problem["refused"].push_back({{"code", refusal.code},
                                  {"name", json_text(refusal.name)},
                                  {"rule", refusal.rule},
                                  {"limit", refusal.limit},
                                  {"value", json_text(refusal.value)}});
  }
  return problem;
}

// What standard output refuses is told once, where the result itself cannot be printed.
void print_problem(const Json& problem) {
  const std::string text = Json({{"schema_version", 1}, {"problem", problem}}).dump() + "\n";
  std::fputs(text.c_str(), stdout);
  std::fflush(stdout);
}

// Prints the help or the version that was asked for, or what is wrong with the command line.
int answer(CLI::App& program, const CLI::ParseError& problem, bool json) {
  std::ostringstream asked_for;
  std::ostringstream failure;
  if (program.exit(problem, asked_for, failure) == 0) {
    print(asked_for.str());
    return 0;
  }
  if (json) {
    print_problem({{"code", "usage"}, {"message", shown_text(problem.what())}});
  }
  std::fputs(failure.str().c_str(), stderr);
  return 2;
}

// Returns the command that was named. The library has made sure that there is exactly one.
const PublishCommand& chosen(const std::vector<PublishCommand>& commands) {
  return *std::find_if(commands.begin(), commands.end(), [](const auto& one) { return one.options->parsed(); });
}

// An empty value is what a variable leaves that was never set.
void require_values(const CLI::App& command) {
  for (const CLI::Option* const option : command.get_options()) {
    for (const std::string& value : option->results()) {
      require(!value.empty(), "usage", option->get_name() + " needs a value");
    }
  }
}

// Returns the exit code.
int run_command(const PublishCommand& command, const CommandRun& run) {
  CommandResult result = command.run(run);
  if (run.json) {
    result.document["schema_version"] = 1;
    print(result.document.dump() + "\n");
  } else {
    say(result.lines);
  }
  for (const std::string& complaint : result.complaints) {
    complain(complaint);
  }
  return result.failed ? 1 : 0;
}

int run_program(int count, const char* const* words, CommandRun& run) {
  if (const std::optional<int> code = answer_version({words + std::min(count, 1), words + count}, publish_version())) {
    return *code;
  }
  CLI::App program;
  program.failure_message(shown_failure);
  const std::vector<PublishCommand> commands = make_publish_program(program);
  try {
    program.parse(count, words);
  } catch (const CLI::ParseError& problem) {
    return answer(program, problem, run.json);
  }
  const PublishCommand& command = chosen(commands);
  require_values(*command.options);
  run.json = command.options->count(publish_json_option) > 0;
  return run_command(command, run);
}

}  // namespace

int run_publish_console(int count, const char* const* words, const std::function<bool()>& cancelled) {
  // A command line that cannot be read is answered in a document too, so this does not wait for its reading.
  const bool asked =
      std::any_of(words, words + count, [](std::string_view word) { return word == publish_json_option; });
  CommandRun run = {cancelled, asked};
  const bool& json = run.json;
  try {
    return run_program(count, words, run);
  } catch (const SnapshotRefused& error) {
    if (json) {
      print_problem(problem_of(error));
    }
    for (const std::string& line : error.lines()) {
      complain(line);
    }
    return 1;
  } catch (const Error& error) {
    if (json) {
      print_problem(problem_of(error));
    }
    complain(error.what());
    return exit_code(error);
  } catch (const std::bad_alloc&) {
    constexpr const char* message = "Out of memory";
    if (json) {
      std::fputs(R"({"problem":{"code":"publish_failed","message":"Out of memory"},"schema_version":1})"
                 "\n",
                 stdout);
    }
    complain(message);
    return 1;
  } catch (const std::exception& problem) {
    if (json) {
      print_problem({{"code", "publish_failed"}, {"message", json_text(problem.what())}});
    }
    complain(problem.what());
    return 1;
  }
}

}  // namespace ravok
