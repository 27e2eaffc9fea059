#include "launcher.hpp"

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "app/command/program_commit.hpp"
#include "app/install/installation_record.hpp"
#include "app/launcher/launcher_store.hpp"
#include "app/maintenance/maintenance_entry.hpp"
#include "app/update/update_console.hpp"
#include "domain/display_text.hpp"
#include "domain/exit_code.hpp"
#include "platform/file/managed_paths.hpp"

namespace launcher {
namespace {

using ravok::Json;

// A version in words: its build, and enough of its manifest's digest to tell two of the same build apart.
std::string words_of(const Json& reference) {
  if (reference.is_null()) {
    return "none";
  }
  return ravok::shown_text(ravok::text_at(reference, "build_id")) + " (" +
         ravok::text_at(reference, "manifest_sha256").substr(0, 12) + ")";
}

// Whether it is a command of the client's own that needs no launcher: the bootstrap runs these by itself, and a
// launcher that was started without it does so too.
bool is_maintenance(const std::vector<std::string>& arguments) {
  return arguments.size() >= 2 && arguments[0] == "self" && (arguments[1] == "uninstall" || arguments[1] == "shortcut");
}

int run_maintenance(const ravok::CliEntry& entry, const ravok::LauncherRuntime* runtime,
                    const std::function<bool()>& cancelled) {
  // Only its own installation, unless the user names another, which is then refused.
  const bool own = runtime != nullptr && !entry.data_dir_given;
  std::vector<std::string> arguments = entry.arguments;
  if (entry.json) {
    arguments.insert(arguments.begin(), "--json");
  }
  return ravok::run_cli_maintenance(own ? runtime->data_root() : entry.data_dir, arguments, cancelled);
}

void tell_of(std::string_view code, std::string_view problem, bool json) {
  const std::string message = ravok::shown_text(problem);
  if (json) {
    const Json document = {{"schema_version", 1}, {"problem", {{"code", code}, {"message", message}}}};
    std::puts(document.dump().c_str());
  }
  std::fprintf(stderr, "%s\n", message.c_str());
}

}  // namespace

std::string_view build_id() { return RAVOK_LAUNCHER_BUILD_ID; }

ravok::ProgramVersion version_of(std::string_view program) { return {program, ravok::program_commit(), build_id()}; }

ravok::CliEntry command_line(const std::vector<std::string>& arguments, bool* json) {
  constexpr const char* none_yet = ".";
  ravok::CliEntry entry = ravok::parse_cli_entry(arguments, none_yet, json);
  if (!entry.data_dir_given && !entry.help) {
    entry.data_dir = ravok::user_data_root();
  }
  return entry;
}

void report_ready(const ravok::LauncherRuntime* runtime) {
  if (runtime != nullptr && !runtime->attempt().is_null()) {
    ravok::report_launcher_health(runtime);
  }
}

Json status_document(const ravok::LauncherRuntime* runtime) {
  Json status = {{"schema_version", 1}, {"version", build_id()},       {"installed", runtime != nullptr},
                 {"active", nullptr},   {"candidate", nullptr},        {"on_trial", nullptr},
                 {"rollback", nullptr}, {"failed_candidate", nullptr}, {"bootstrap_update_pending", false}};
  if (runtime == nullptr) {
    return status;
  }
  const Json state = ravok::LauncherStore::for_launch(runtime->data_root())->load();
  for (const char* const key : {"active", "candidate", "rollback", "failed_candidate"}) {
    status[key] = state.at(key);
  }
  if (!state.at("attempt").is_null()) {
    status["on_trial"] = state.at("attempt").at("reference");
  }
  status["bootstrap_update_pending"] = ravok::bootstrap_update_pending(runtime->data_root());
  return status;
}

std::string status_text(const Json& status) {
  std::string text = "Ravok " + ravok::text_at(status, "version") + "\n";
  if (!status.at("installed").get<bool>()) {
    return text + "This build belongs to no installation.\n";
  }
  text += "Active: " + words_of(status.at("active")) + "\n";
  text += "Candidate: " + words_of(status.at("candidate")) + "\n";
  text += "On trial: " + words_of(status.at("on_trial")) + "\n";
  text += "Rollback: " + words_of(status.at("rollback")) + "\n";
  const Json& failed = status.at("failed_candidate");
  if (!failed.is_null()) {
    // The store proves nothing of a problem that it has read.
    const std::string problem = ravok::has_text(failed, "problem") ? ravok::text_at(failed, "problem") : "unknown";
    text += "Failed: " + words_of(failed.at("reference")) + ": " + ravok::shown_text(problem) + "\n";
  }
  if (status.at("bootstrap_update_pending").get<bool>()) {
    text += "Bootstrap: an update waits for the next start\n";
  }
  return text;
}

int run_command(const ravok::CliEntry& entry, const ravok::LauncherRuntime* runtime, const Json& status,
                const std::function<bool()>& cancelled) {
  if (is_maintenance(entry.arguments)) {
    return run_maintenance(entry, runtime, cancelled);
  }
  if (ravok::is_update_command(entry.arguments)) {
    return ravok::run_update_command(entry, runtime, cancelled);
  }
  ravok::require(entry.arguments == std::vector<std::string>{"self", "status"}, "unavailable",
                 "This sample launcher has no such command; it knows self status, self update, self cleanup, self "
                 "uninstall, self shortcut and updates check --background");
  print(entry.json ? status.dump() + "\n" : status_text(status));
  return 0;
}

void print(std::string_view text) {
  const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
  ravok::require(written, "output_failed", "Cannot write to standard output");
}

int tell(const ravok::Error& error, bool json) {
  tell_of(error.code, error.what(), json);
  return ravok::exit_code(error);
}

int tell(const std::exception& problem, bool json) {
  tell_of("launcher_failed", problem.what(), json);
  return 1;
}

}  // namespace launcher
