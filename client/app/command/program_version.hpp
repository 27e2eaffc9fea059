// What a program says of itself when it is asked for its version.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.hpp"

namespace ravok {

// Of the client's core and of every program that is made of it.
inline constexpr std::string_view client_version = "0.1.0";

// The day of that version, as in CHANGELOG.md.
inline constexpr std::string_view client_version_date = "2026-11-22";

// What asks for the version, what a manual says of it, and what is said where anything but --json stands beside it.
inline constexpr const char* version_option = "--version";
inline constexpr const char* version_option_text =
    "Alone or with --json: prints the program's version, the commit that it was built from, and its platform";
inline constexpr const char* version_stands_alone = "--version stands alone, or beside --json";

struct ProgramVersion {
  std::string_view program;        // its name
  std::string_view commit;         // that it was built from; empty where nobody knows
  std::string_view build_id = {};  // of a launcher; empty for every other program
};

// Returns the version in lines, each with its end: the name with the version, then the launcher's build, the commit and
// the platform. What is empty has no line.
std::string version_text(const ProgramVersion& version);

// Returns the version as a document: "schema_version" 1, "program", "version", "commit" or null, "platform", and for a
// launcher "build_id".
Json version_document(const ProgramVersion& version);

// Prints the version where the whole command line asks for it, and returns the exit code. The arguments are then
// --version alone, or --version and --json in either order, which prints the document. For every other command line
// nothing is printed or returned: what it means is the program's own grammar to say, which has no such option.
std::optional<int> answer_version(const std::vector<std::string>& arguments, const ProgramVersion& version);

}  // namespace ravok
