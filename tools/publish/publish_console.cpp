#include "publish/publish_console.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <string>

#include <CLI/CLI.hpp>

#include "domain/error.hpp"
#include "publish/commands.hpp"

namespace ravok {
namespace {

int exit_code(const std::string& code) {
  if (code == "usage") {
    return 2;
  }
  return code == "cancelled" ? 4 : 1;
}

}  // namespace

int run_publish_console(int count, const char* const* words, const std::function<bool()>& cancelled) {
  CLI::App program("Makes what the client reads.", "ravok-publish");
  program.require_subcommand(1);
  const std::array<PublishCommand, 5> commands = {add_snapshot_command(program), add_key_command(program),
                                                  add_root_command(program), add_package_command(program),
                                                  add_installer_command(program)};
  try {
    program.parse(count, words);
  } catch (const CLI::ParseError& problem) {
    return program.exit(problem) == 0 ? 0 : 2;
  }
  try {
    // Exactly one was named.
    std::find_if(commands.begin(), commands.end(), [](const auto& command) {
      return command.options->parsed();
    })->run(cancelled);
    return 0;
  } catch (const Error& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return exit_code(error.code);
  } catch (const std::exception& problem) {
    std::fprintf(stderr, "%s\n", problem.what());
    return 1;
  }
}

}  // namespace ravok
