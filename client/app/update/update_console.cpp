#include "app/update/update_console.hpp"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>

#include "app/brand/brand.hpp"
#include "app/command/console_output.hpp"
#include "app/command/transfer_line.hpp"
#include "app/launcher/bootstrap_image.hpp"
#include "app/launcher/launcher_cleanup.hpp"
#include "app/launcher/launcher_image.hpp"
#include "app/launcher/launcher_store.hpp"
#include "app/update/client_update.hpp"
#include "domain/display_text.hpp"
#include "domain/exit_code.hpp"
#include "domain/paths.hpp"
#include "platform/file/native_lock.hpp"

namespace ravok {
namespace {

using Arguments = std::vector<std::string>;

bool is_background_check(const Arguments& arguments) {
  return arguments == Arguments{"updates", "check", "--background"};
}

std::filesystem::path own_data_root(const CliEntry& entry, const LauncherRuntime* runtime) {
  require(runtime != nullptr, "not_installed",
          branded("This build of Ravok belongs to no installation, so it has no updates"));
  require(!entry.data_dir_given || is_same_folder(entry.data_dir, runtime->data_root()), "launcher_identity",
          branded("This Ravok belongs to another data folder: ") + path_utf8(runtime->data_root()));
  return runtime->data_root();
}

ClientUpdate update_with_progress(const std::filesystem::path& data_root, bool shown,
                                  const std::function<bool()>& cancelled) {
  TransferLine line(shown);
  UpdateObserver observer;
  observer.begin = [&](std::string_view work) { line.begin(work); };
  observer.progress = [&](std::uint64_t done, std::uint64_t total) {
    line.show(done, total);
    return !cancelled || !cancelled();
  };
  return update_client(data_root, observer, false, cancelled);
}

ClientUpdate update_quietly(const LauncherRuntime& runtime, const std::function<bool()>& cancelled) {
  if (!runtime.attempt().is_null()) {
    return {.launcher = {{{"staged", false}, {"skipped", "startup_pending"}}, std::nullopt}, .bootstrap = {}};
  }
  UpdateObserver observer;
  observer.progress = [&](std::uint64_t, std::uint64_t) { return !cancelled || !cancelled(); };
  return update_client(runtime.data_root(), observer, true, cancelled);
}

std::string update_text(const ClientUpdate& update) {
  std::string text;
  for (const std::string& line : update_lines(update)) {
    text += shown_text(line) + "\n";
  }
  return text;
}

void tell_problem(const Error& error) {
  const bool by_cleanup = std::find(error.details.begin(), error.details.end(), "self cleanup") != error.details.end();
  print_notice(error.what() + std::string(by_cleanup ? "; the command self cleanup does that" : ""));
}

bool is_cleanup(const Arguments& arguments) {
  return arguments.size() >= 2 && arguments[0] == "self" && arguments[1] == "cleanup";
}

std::string cleanup_text(const Json& document) {
  std::string things;
  for (const auto& [key, thing] : {std::pair("versions", "version"), std::pair("downloads", "download"),
                                   std::pair("manifests", "unused description"),
                                   std::pair("stagings", "unfinished update"), std::pair("attempts", "ended start")}) {
    const auto count = document.at("removed").at(key).get<std::uint64_t>();
    if (count != 0) {
      things += (things.empty() ? "" : ", ") + shown_count(count, thing);
    }
  }
  const std::string size = shown_size(document.at("bytes").get<std::uint64_t>());
  std::string text = things.empty() ? "There was nothing to remove.\n" : "Removed " + things + ": " + size + ".\n";
  for (const Json& kept : document.at("kept")) {
    std::string reason = text_at(kept, "reason");
    std::replace(reason.begin(), reason.end(), '_', ' ');
    text += "Kept " + shown_text(text_at(kept, "path")) + ": " + reason + ".\n";
  }
  return text;
}

int run_cleanup(const CliEntry& entry, const std::filesystem::path& data_root) {
  require(entry.arguments.size() == 2, "unavailable",
          "This self cleanup removes old versions alone and has no options");
  // Keeps a setup from beginning, and waits for one that runs.
  const std::unique_ptr<NativeFileLock> lifetime = bootstrap_lifetime_in(data_root);
  Json document = clean_launcher_store(LauncherStore(data_root));
  document["schema_version"] = 1;
  print_result(entry.json ? document.dump() + "\n" : cleanup_text(document));
  return 0;
}

}  // namespace

bool is_update_command(const Arguments& arguments) {
  return arguments == Arguments{"self", "update"} || is_background_check(arguments) || is_cleanup(arguments);
}

int run_update_command(const CliEntry& entry, const LauncherRuntime* runtime, const std::function<bool()>& cancelled) {
  require(is_update_command(entry.arguments), "usage",
          "Expected self update, self cleanup or updates check --background");
  const std::filesystem::path data_root = own_data_root(entry, runtime);
  const bool background = is_background_check(entry.arguments);
  require(background || runtime->attempt().is_null(), "busy",
          branded("Ravok tries this version out right now; run the command again once it has started"));
  if (is_cleanup(entry.arguments)) {
    return run_cleanup(entry, data_root);
  }
  const ClientUpdate update =
      background ? update_quietly(*runtime, cancelled) : update_with_progress(data_root, !entry.json, cancelled);
  if (entry.json) {
    print_result(update.to_json().dump() + "\n");
  } else if (!background) {
    print_result(update_text(update));
  }
  for (const PartUpdate& part : {update.launcher, update.bootstrap}) {
    if (part.problem) {
      tell_problem(*part.problem);
    }
  }
  const Error* const problem = update.problem();
  return problem == nullptr ? 0 : exit_code(*problem);
}

}  // namespace ravok
