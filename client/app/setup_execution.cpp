#include "app/setup_execution.hpp"

#include <chrono>

#include "app/brand.hpp"
#include "app/json_paths.hpp"
#include "app/native_install.hpp"
#include "domain/error.hpp"

namespace ravok {
namespace {

constexpr std::chrono::seconds close_timeout(15);

[[noreturn]] void unknown_command() { fail("usage", "Unknown setup command"); }

Json install(const SetupCommand& command, std::string_view package_seal, const NativeSetupCallbacks& callbacks) {
  require(!command.package.empty(), "usage", "Choose the initial package with --package DIR");
  NativeInstallRequest request;
  request.package = command.package;
  request.data_root = command.data_root;
  request.repair = command.command == SetupCommandKind::repair;
  request.create_shortcut = true;
  return NativeInstaller::install(request, package_seal, callbacks).to_json();
}

Json remove_shortcuts(const SetupCommand& command) {
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
      return NativeInstaller::uninstall({command.data_root, command.remove_data, close_timeout}, callbacks).to_json();
    case SetupCommandKind::shortcut_create:
      return {{"schema_version", 1},
              {"created", paths_json({NativeInstaller::create_shortcut(command.data_root, command.game, "", {})})}};
    case SetupCommandKind::shortcut_remove:
      return remove_shortcuts(command);
  }
  unknown_command();
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
