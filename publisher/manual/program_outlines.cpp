#include "publisher/manual/program_outlines.hpp"

#include <string>
#include <utility>

#include "app/command/cli_rows.hpp"
#include "app/command/program_version.hpp"
#include "app/screen/window_command.hpp"
#include "app/setup/setup_command.hpp"
#include "publisher/commands/publish_program.hpp"

namespace ravok {
namespace {

// What every program answers before its own grammar is asked.
const OptionOutline version_outline = {version_option, "", version_option_text, false, true};

// `more` is what else a program takes for a wrong command line.
std::vector<ExitCodeOutline> client_exit_codes(const std::string& more = {}) {
  return {{0, "Done"},
          {1, "Failed; the reason stands on standard error"},
          {2, "The command line is wrong" + more},
          {4, "Cancelled"}};
}

ProgramOutline outline_installer() {
  ProgramOutline outline = setup_outline("ravok-install", true);
  outline.text = "installs, repairs and removes a game client";
  outline.paragraphs = {
      "Makes a client out of the sealed package that it was made for. The package lies within the program's own file, "
      "or else in the folder initial-package beside it. The program reads this one package and no other, and proves "
      "every byte of it before it writes anything.",
      "The client goes into ~/.local/share/Ravok, or into a folder of the product's own name where it has one. Without "
      "a command, the client is installed.",
      "The licences of the libraries that the program is made with stand in third-party-notices.txt, beside a program "
      "that came in a folder, and in native/bootstrap of the installation."};
  outline.options.push_back(version_outline);
  outline.exit_codes = client_exit_codes(", or there is no package to install or repair from");
  outline.see_also = {"ravok-maintenance", "ravok-bootstrap", "ravok-publish"};
  return outline;
}

ProgramOutline outline_maintenance() {
  ProgramOutline outline = setup_outline("ravok-maintenance", false);
  outline.text = "reports on a game client and removes it";
  outline.paragraphs = {
      "Comes with a client, and knows the commands of its installer that need no package. It works on "
      "~/.local/share/Ravok unless it is told another folder."};
  outline.options.push_back(version_outline);
  outline.exit_codes = client_exit_codes(", or the command belongs to the installer alone");
  outline.see_also = {"ravok-install", "ravok-bootstrap"};
  return outline;
}

ProgramOutline outline_window_installer() {
  ProgramOutline outline = install_window_outline();
  outline.text = "installs, repairs and removes a game client in a window";
  outline.paragraphs = {
      "Does in a window what ravok-install does on the console, with the same package, which lies within the program's "
      "own file, or else in the folder initial-package beside it. It shows where the client goes, how far it is, and "
      "what came of it; a client that is installed already can be started, repaired or removed.",
      "The window needs a display of X11 or XWayland."};
  outline.options.push_back(version_outline);
  outline.exit_codes = client_exit_codes();
  outline.see_also = {"ravok-install", "ravok-maintenance-gui", "ravok-publish"};
  return outline;
}

ProgramOutline outline_window_maintenance() {
  ProgramOutline outline = maintenance_window_outline();
  outline.text = "removes a game client in a window";
  outline.paragraphs = {
      "Comes with a client, which opens it to be removed. It shows what goes and what stays, and asks whether saves "
      "and "
      "settings go too.",
      "The window needs a display of X11 or XWayland."};
  outline.options.push_back(version_outline);
  outline.exit_codes = client_exit_codes();
  outline.see_also = {"ravok-maintenance", "ravok-install-gui"};
  return outline;
}

ProgramOutline outline_bootstrap() {
  ProgramOutline outline = cli_outline("ravok-bootstrap");
  outline.text = "starts a game client";
  outline.paragraphs = {
      "Applies an update of itself that waits, chooses a version of the client's launcher, tries out a new one, goes "
      "back to another when one is damaged, and becomes the chosen one.",
      "Without an argument, or with --launch and a game alone, it opens the client's window. Everything else is a "
      "command. self shortcut and self uninstall are done by the program itself; all others are the launcher's, and "
      "which of them it has is up to its product."};
  outline.options.push_back(version_outline);
  outline.exit_codes = client_exit_codes();
  outline.other_exit_codes =
      "Where the launcher was started, or a game in its place, the exit code is that of the launcher or of the game";
  outline.see_also = {"ravok-install", "ravok-maintenance"};
  return outline;
}

// The library keeps what an option's value is called apart from what it adds about its form.
std::string value_name(const CLI::Option& option) {
  const std::string name = option.get_type_name();
  return option.get_items_expected_max() == 0 ? "" : name.substr(0, name.find(':'));
}

std::string option_name(const CLI::Option& option) { return "--" + option.get_lnames().front(); }

std::vector<OptionOutline> options_of(const CLI::App& command) {
  std::vector<OptionOutline> options;
  for (const CLI::Option* const option : command.get_options()) {
    if (!option->get_positional()) {
      const std::string name = option_name(*option);
      options.push_back(
          {name, value_name(*option), option->get_description(), option->get_required(), name == version_outline.name});
    }
  }
  return options;
}

void add_commands_of(const CLI::App& program, const std::string& before, std::vector<CommandOutline>& commands) {
  for (const CLI::App* const command : program.get_subcommands([](const CLI::App*) { return true; })) {
    const std::string words = before + command->get_name();
    add_commands_of(*command, words + " ", commands);
    // One that is there for its own commands does nothing itself.
    if (command->get_require_subcommand_min() > 0) {
      continue;
    }
    CommandOutline outline = {words, command->get_description(), {}, options_of(*command)};
    for (const CLI::Option* const option : command->get_options()) {
      if (option->get_positional()) {
        outline.operands.push_back({option->get_name(), option->get_description(), {}});
      }
    }
    commands.push_back(std::move(outline));
  }
}

ProgramOutline outline_publisher() {
  CLI::App program;
  make_publish_program(program);
  ProgramOutline outline;
  outline.program = program.get_name();
  outline.text = "makes what a game client reads";
  outline.paragraphs = {
      "Packs directories into snapshots, makes signing keys, root documents, initial packages and installers, and "
      "keeps "
      "the signed repository that installed clients update from. What it writes is read back by the client's own "
      "reader "
      "before it says that it is done, and nothing is left behind when it fails."};
  outline.options = options_of(program);
  add_commands_of(program, "", outline.commands);
  outline.exit_codes = publish_exit_codes();
  outline.see_also = {"ravok-install", "ravok-bootstrap"};
  return outline;
}

}  // namespace

std::vector<ProgramOutline> program_outlines() {
  return {outline_bootstrap(),        outline_installer(),          outline_maintenance(),
          outline_window_installer(), outline_window_maintenance(), outline_publisher()};
}

}  // namespace ravok
