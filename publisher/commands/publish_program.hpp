// The command line of the publisher's program as it stands, without its reading: what is read, shown as help and told
// in the manual comes from here.
#pragma once

#include <vector>

#include <CLI/CLI.hpp>

#include "app/command/command_outline.hpp"
#include "app/command/program_version.hpp"
#include "publisher/commands/commands.hpp"

namespace ravok {

inline constexpr const char* publish_json_option = "--json";

// Gives the program its name, its options and its commands, and returns the commands.
std::vector<PublishCommand> make_publish_program(CLI::App& program);

ProgramVersion publish_version();
std::vector<ExitCodeOutline> publish_exit_codes();

}  // namespace ravok
