// The client's command line: which commands there are, and what each of them may be given. Only the shape of a command
// is checked; nothing is looked up.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ravok {

struct CliEntry {
  bool json = false;                   // --json was given
  bool help = false;                   // --help was given
  bool data_dir_given = false;         // --data-dir was given
  std::filesystem::path data_dir;      // the given or the default data folder
  std::vector<std::string> arguments;  // the command with its operands and options, in the given order
};

// Returns the command line of an argument list, which does not hold the program's name: at most 128 arguments of at
// most 16,384 bytes without a NUL. --json, --help and --data-dir with its value stand before the command, in any order
// and each once. With --help the command is not checked and may be missing.
// `json_requested` may be null. Otherwise it becomes true, before anything can fail, where --json stands as a global
// option or anywhere from the command on, so that the failure can be reported as JSON.
// Fails with "usage"; with "confirmation_required", "crash_consent" or "agreement_version" where an uninstall is not
// confirmed, a crash report not consented to, or an agreement not named by its version.
CliEntry parse_cli_entry(const std::vector<std::string>& arguments, const std::filesystem::path& default_data_dir,
                         bool* json_requested = nullptr);

// The command line of the bootstrap, which hands most of it on.
struct BootstrapEntry {
  std::optional<std::filesystem::path> data_dir;  // of --data-dir, where it was given
  std::string interface;                          // "gui" for the windowed launcher, otherwise "cli"
  std::vector<std::string> arguments;             // the other arguments, in the given order
  bool help = false;                              // --help is among these
};

// Returns the bootstrap's command line: takes --data-dir with its value out of the global options, which stand before
// the command. What remains means the windowed launcher when it is nothing, or --launch with one more argument; it is
// not checked. `json_requested` is that of parse_cli_entry. Fails with "usage" for the global options as that does.
BootstrapEntry parse_bootstrap_entry(const std::vector<std::string>& arguments, bool* json_requested = nullptr);

// Removes the first argument that equals `name`, and the one behind it, and returns the latter; nothing where there is
// none. Fails with `failure_code`, and leaves the arguments alone, for a name that stands twice or last, and for a
// value that is empty, longer than 16,384 bytes, or holds a NUL.
std::optional<std::string> cli_option(std::vector<std::string>& arguments, std::string_view name,
                                      std::string_view failure_code = "usage");

// Removes the argument that equals `name`, and returns whether it was there. Fails with "usage", and leaves the
// arguments alone, where it stands twice.
bool cli_flag(std::vector<std::string>& arguments, std::string_view name);

// Returns the text that --help shows.
std::string cli_help();

}  // namespace ravok
