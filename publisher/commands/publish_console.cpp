#include "publisher/commands/publish_console.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <sstream>
#include <string>

#include <CLI/CLI.hpp>

#include "domain/display_text.hpp"
#include "domain/error.hpp"
#include "domain/exit_code.hpp"
#include "publisher/commands/commands.hpp"
#include "publisher/commands/terminal.hpp"

namespace ravok {
namespace {

// Returns what the library says of a wrong command line, with the user's own words escaped for a terminal.
std::string shown_failure(const CLI::App* command, const CLI::Error& problem) {
  return CLI::FailureMessage::simple(
      command, CLI::Error(problem.get_name(), shown_text(problem.what()), problem.get_exit_code()));
}

// Prints the help that was asked for, or what is wrong with the command line.
int answer(CLI::App& program, const CLI::ParseError& problem) {
  std::ostringstream help;
  std::ostringstream failure;
  const bool asked = program.exit(problem, help, failure) == 0;
  std::fputs(failure.str().c_str(), stderr);
  print(help.str());
  return asked ? 0 : 2;
}

// Returns the command that was named. The library has made sure that there is exactly one.
const PublishCommand& chosen(const std::array<PublishCommand, 5>& commands) {
  return *std::find_if(commands.begin(), commands.end(), [](const auto& one) { return one.options->parsed(); });
}

}  // namespace

int run_publish_console(int count, const char* const* words, const std::function<bool()>& cancelled) {
  CLI::App program("Makes what the client reads.", "ravok-publish");
  program.require_subcommand(1);
  program.failure_message(shown_failure);
  const std::array<PublishCommand, 5> commands = {add_snapshot_command(program), add_key_command(program),
                                                  add_root_command(program), add_package_command(program),
                                                  add_installer_command(program)};
  try {
    try {
      program.parse(count, words);
    } catch (const CLI::ParseError& problem) {
      return answer(program, problem);
    }
    chosen(commands).run(cancelled);
    return 0;
  } catch (const Error& error) {
    complain(error.what());
    return exit_code(error);
  } catch (const std::exception& problem) {
    complain(problem.what());
    return 1;
  }
}

}  // namespace ravok
