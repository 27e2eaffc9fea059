// What a player is told about a setup command that failed, besides why.
#pragma once

#include <string>
#include <string_view>

#include "app/setup/setup_command.hpp"

namespace ravok {

// Returns what to do about a failure, in one or more sentences; empty where nobody knows, and where the message of the
// failure says it.
std::string_view setup_advice(std::string_view code, std::string_view message, SetupCommandKind kind);

// Returns what a command that failed with this code has left of the installation and of the player's data, in
// sentences; empty where nothing can be said for sure.
std::string setup_remains(const SetupCommand& command, std::string_view code);

}  // namespace ravok
