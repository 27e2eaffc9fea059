#include "app/setup/setup_execution.hpp"

#include <chrono>
#include <exception>

#include "app/brand/brand.hpp"
#include "app/install/json_paths.hpp"
#include "app/install/native_install.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/foreign_folders.hpp"
#include "platform/shortcut/shortcuts.hpp"

namespace ravok {
namespace {

constexpr std::chrono::seconds close_timeout(15);

// Keeps root, before anything is written, from making files among another user's, who could not use them.
void require_own_folder(const SetupCommand& command) {
  constexpr const char* remedy = ", who could not use what root writes there; run this as that user, or name ";
  require(command.data_root_chosen || !foreign_home(), "user_path",
          std::string("HOME is the home of another user") + remedy + "a folder with --data-dir");
  if (const auto folder = foreign_folder(command.data_root)) {
    fail("user_path", path_utf8(*folder) + " belongs to another user" + remedy + "another folder with --data-dir");
  }
}

// Returns why no shortcut can be made, which is when the menu is another user's. Empty if it is not, or if that cannot
// be told.
std::string menu_problem() {
  try {
    const auto folder = foreign_folder(native_menu_directory());
    return folder ? "The application menu lies in " + path_utf8(*folder) + ", which belongs to another user" : "";
  } catch (const Error&) {
    // The attempt to make the shortcut will say what is wrong.
    return "";
  }
}

std::filesystem::path create_shortcut(const SetupCommand& command) {
  require_own_folder(command);
  const std::string problem = menu_problem();
  require(problem.empty(), "user_path", problem);
  return NativeInstaller::create_shortcut(command.data_root, command.game, command.game_name, {});
}

[[noreturn]] void unknown_command() { fail("usage", "Unknown setup command"); }

// Makes the shortcut of the game that a front end has named, unless a repair finds any shortcut. The installation is
// whole without it.
void add_game_shortcut(Json& document, const SetupCommand& command, const NativeInstallResult& result,
                       const NativeSetupCallbacks& callbacks) {
  if (command.game.empty() || !result.shortcut_problem.empty()) {
    return;
  }
  try {
    if (result.repaired && !owned_native_shortcuts(result.data_root).empty()) {
      return;
    }
    if (callbacks.progress) {
      callbacks.progress("menu", 0, 0);
    }
    const std::filesystem::path path =
        NativeInstaller::create_shortcut(result.data_root, command.game, command.game_name, {});
    document["shortcuts"].push_back(path_utf8(path));
  } catch (const std::exception& problem) {
    document["game_shortcut_problem"] = problem.what();
  }
}

Json install(const SetupCommand& command, std::string_view package_seal, const NativeSetupCallbacks& callbacks) {
  require(!command.package.empty(), "usage", "Choose the initial package with --package DIR");
  require_own_folder(command);
  const std::string problem = menu_problem();
  NativeInstallRequest request;
  request.package = command.package;
  request.appended = command.appended;
  request.data_root = command.data_root;
  request.repair = command.command == SetupCommandKind::repair;
  request.create_shortcut = problem.empty();
  request.restore_shortcuts = problem.empty();
  NativeInstallResult result = NativeInstaller::install(request, package_seal, callbacks);
  if (result.shortcut_problem.empty()) {
    result.shortcut_problem = problem;
  }
  Json document = result.to_json();
  add_game_shortcut(document, command, result, callbacks);
  return document;
}

Json uninstall(const SetupCommand& command, const NativeSetupCallbacks& callbacks) {
  require_own_folder(command);
  return NativeInstaller::uninstall({command.data_root, command.remove_data, close_timeout}, callbacks).to_json();
}

Json remove_shortcuts(const SetupCommand& command) {
  require_own_folder(command);
  const ShortcutRemoval removal = NativeInstaller::remove_shortcuts(command.data_root);
  return {{"schema_version", 1}, {"removed", paths_json(removal.removed)}, {"changed", paths_json(removal.changed)}};
}

std::string install_summary(const SetupCommand& command, const Json& document) {
  const bool repair = command.command == SetupCommandKind::repair;
  std::string text =
      branded(repair ? "Repaired Ravok in " : "Installed Ravok in ") + text_at(document, "data_root") + ".";
  if (repair && document.at("replaced").empty()) {
    text += " Everything was already intact.";
  }
  if (!document.at("shortcut_problem").is_null()) {
    text += " The shortcut could not be created: " + text_at(document, "shortcut_problem") + ".";
  } else if (document.contains("shortcut_missing")) {
    text += " There is no shortcut; shortcut create makes one.";
  }
  return text;
}

std::string uninstall_summary(const Json& document) {
  std::string text = branded("Removed Ravok from ") + text_at(document, "data_root") + ".";
  if (!document.at("kept").empty()) {
    text += " Saves and settings were kept.";
  }
  if (!document.at("changed_shortcuts").empty()) {
    text += " Changed shortcuts were left in place.";
  }
  return text;
}

std::string status_summary(const Json& document) {
  const std::string& root = text_at(document, "data_root");
  if (document.at("incomplete").get<bool>()) {
    return branded("Ravok setup did not finish in ") + root + "; run repair.";
  }
  if (!document.at("installed").get<bool>()) {
    return branded("Ravok is not installed in ") + root + ".";
  }
  const std::string& launcher = text_at(document, "launcher_build");
  std::string text = branded("Ravok is installed in ") + root + " (bootstrap " + text_at(document, "bootstrap_build") +
                     (launcher.empty() ? ", launcher not started yet)." : ", launcher " + launcher + ").");
  if (document.at("bootstrap_update_pending").get<bool>()) {
    text += branded(" A Ravok update is applied on the next start.");
  }
  return text;
}

std::string count_summary(const char* done, const Json& paths) {
  return done + std::to_string(paths.size()) + " shortcut(s).";
}

}  // namespace

Json run_setup_command(const SetupCommand& command, std::string_view package_seal,
                       const NativeSetupCallbacks& callbacks) {
  switch (command.command) {
    case SetupCommandKind::install:
    case SetupCommandKind::repair:
      return install(command, package_seal, callbacks);
    case SetupCommandKind::status:
      return NativeInstaller::status(command.data_root).to_json();
    case SetupCommandKind::uninstall:
      return uninstall(command, callbacks);
    case SetupCommandKind::shortcut_create:
      return {{"schema_version", 1}, {"created", paths_json({create_shortcut(command)})}};
    case SetupCommandKind::shortcut_remove:
      return remove_shortcuts(command);
  }
  unknown_command();
}

std::string_view setup_phase_line(std::string_view phase) {
  if (phase == "verifying") {
    return "Verifying…";
  }
  if (phase == "menu") {
    return "Making the menu entry…";
  }
  return phase == "installing" ? "Installing…" : "Removing…";
}

std::string setup_summary(const SetupCommand& command, const Json& document) {
  switch (command.command) {
    case SetupCommandKind::install:
    case SetupCommandKind::repair:
      return install_summary(command, document);
    case SetupCommandKind::status:
      return status_summary(document);
    case SetupCommandKind::uninstall:
      return uninstall_summary(document);
    case SetupCommandKind::shortcut_create:
      return count_summary("Created ", document.at("created"));
    case SetupCommandKind::shortcut_remove:
      return count_summary("Removed ", document.at("removed"));
  }
  unknown_command();
}

}  // namespace ravok
