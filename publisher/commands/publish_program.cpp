#include "publisher/commands/publish_program.hpp"

#include <string>

#include "app/command/program_commit.hpp"

namespace ravok {
namespace {

std::string exit_code_lines() {
  std::string lines = "Exit codes:";
  for (const ExitCodeOutline& code : publish_exit_codes()) {
    lines += "\n  " + std::to_string(code.code) + "  " + code.text + ".";
  }
  return lines;
}

std::vector<PublishCommand> add_commands(CLI::App& program) {
  std::vector<PublishCommand> commands = {add_snapshot_command(program), add_key_command(program),
                                          add_root_command(program), add_package_command(program),
                                          add_installer_command(program)};
  CLI::App& file = *program.add_subcommand("file", "Signs a file that is handed on, and verifies it");
  file.require_subcommand(1);
  commands.push_back(add_file_sign_command(file));
  commands.push_back(add_file_verify_command(file));
  CLI::App& repository = *program.add_subcommand("repository", "Makes, publishes and watches a signed repository");
  repository.require_subcommand(1);
  for (const auto add : {
           add_repository_init_command,
           add_repository_release_command,
           add_repository_refresh_command,
           add_repository_withdraw_command,
           add_repository_rotate_command,
           add_repository_sign_command,
           add_repository_status_command,
           add_repository_check_command,
           add_repository_discard_command,
       }) {
    commands.push_back(add(repository));
  }
  return commands;
}

}  // namespace

std::vector<PublishCommand> make_publish_program(CLI::App& program) {
  program.name("ravok-publish");
  program.description("Makes what the client reads.");
  program.require_subcommand(1);
  // The version is printed before the command line is read. What is read has more in it.
  program.add_flag_callback(
      version_option, [] { throw CLI::ValidationError(version_stands_alone); }, version_option_text);
  program.footer(exit_code_lines());
  std::vector<PublishCommand> commands = add_commands(program);
  for (const PublishCommand& command : commands) {
    command.options->add_flag(publish_json_option)
        ->description("Prints the result, or the problem, as one JSON document");
  }
  return commands;
}

ProgramVersion publish_version() { return {"ravok-publish", program_commit()}; }

std::vector<ExitCodeOutline> publish_exit_codes() {
  return {{0, "Done"},
          {1, "Failed, for any reason but the two below"},
          {2, "The command line is wrong: its form, or an option's value that is refused without a look at any file"},
          {4, "Cancelled"}};
}

}  // namespace ravok
