// The commands of ravok-publish. Each adds itself to the program's command line, and runs once that has been read. The
// program reports what a command returns or throws.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "domain/json.hpp"

namespace ravok {

// Answers whether the user asked to stop.
using Cancelled = std::function<bool()>;

// What is the same for every command.
struct CommandRun {
  Cancelled cancelled;
  bool json = false;  // the result is printed as a document: nothing else is shown, no progress either
};

// What a command has done: as lines for people, or as a document for programs, to which the program adds the version of
// its schema. Only the one that is printed needs to be there.
struct CommandResult {
  std::vector<std::string> lines;
  Json document = Json::object();
  // What standard error is told, beside a document too.
  std::vector<std::string> complaints = {};
  // Whether the exit code is 1, although the command has done its work: it was asked to judge, and judged so.
  bool failed = false;
};

struct PublishCommand {
  CLI::App* options;
  std::function<CommandResult(const CommandRun&)> run;
};

PublishCommand add_snapshot_command(CLI::App& program);
PublishCommand add_key_command(CLI::App& program);
PublishCommand add_root_command(CLI::App& program);
PublishCommand add_package_command(CLI::App& program);
PublishCommand add_installer_command(CLI::App& program);

// The commands of a file that is handed on are subcommands of one that does nothing itself.
PublishCommand add_file_sign_command(CLI::App& file);
PublishCommand add_file_verify_command(CLI::App& file);

// The commands of a signed repository are subcommands of one that does nothing itself.
PublishCommand add_repository_init_command(CLI::App& repository);
PublishCommand add_repository_release_command(CLI::App& repository);
PublishCommand add_repository_refresh_command(CLI::App& repository);
PublishCommand add_repository_withdraw_command(CLI::App& repository);
PublishCommand add_repository_rotate_command(CLI::App& repository);
PublishCommand add_repository_sign_command(CLI::App& repository);
PublishCommand add_repository_status_command(CLI::App& repository);
PublishCommand add_repository_discard_command(CLI::App& repository);
PublishCommand add_repository_check_command(CLI::App& repository);

}  // namespace ravok
