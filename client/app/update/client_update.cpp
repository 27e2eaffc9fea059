#include "app/update/client_update.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <map>
#include <memory>
#include <utility>

#include "app/brand/brand.hpp"
#include "app/download/installed_repository.hpp"
#include "app/launcher/bootstrap_image.hpp"
#include "app/launcher/bootstrap_update.hpp"
#include "app/launcher/launcher_store.hpp"
#include "domain/data_layout.hpp"
#include "domain/display_text.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/process/native_platform.hpp"
#include "transport/https_budget.hpp"

namespace ravok {
namespace {

// The longest time for which a request may be made.
constexpr std::chrono::seconds search_time(30);
constexpr std::uint64_t search_bytes = 8'388'608;

// What says nothing but that there is no answer now. A network that wants a login first redirects or refuses.
constexpr std::array<std::string_view, 6> unanswered = {"busy",        "discovery_budget", "discovery_timeout",
                                                        "http_status", "network",          "redirect_rejected"};

bool is_unanswered(const Error& error) {
  return std::find(unanswered.begin(), unanswered.end(), error.code) != unanswered.end();
}

Json skipped_launcher(std::string_view reason) { return {{"staged", false}, {"skipped", reason}}; }
Json skipped_bootstrap(std::string_view reason) { return {{"status", "skipped"}, {"skipped", reason}}; }

Json problem_json(const Error& error) {
  return {{"code", error.code}, {"message", is_utf8(error.what()) ? error.what() : shown_text(error.what())}};
}

std::string_view launcher_work(std::string_view phase) {
  if (phase == "verifying") {
    return "Checking the launcher";
  }
  return phase == "downloading" ? "Downloading and unpacking the launcher" : "Finishing the launcher";
}

class Update {
 public:
  Update(const std::filesystem::path& data_root, UpdateObserver observer, bool background,
         const std::function<bool()>& cancelled)
      : data_root_(data_root),
        observer_(std::move(observer)),
        background_(background),
        budget_(background ? std::make_shared<HttpsBudget>() : nullptr),
        lifetime_(bootstrap_lifetime_in(data_root)),
        repository_(data_root, cancelled, budget_) {
    if (budget_) {
      budget_->cancel = cancelled;
      budget_->limit = search_bytes;
    }
  }

  ClientUpdate run() {
    ClientUpdate update;
    begin_search();
    update.launcher = part(skipped_launcher, [this] { return stage_launcher(); });
    if (goes_on(update.launcher)) {
      begin_search();
      update.bootstrap = part(skipped_bootstrap, [this] { return stage_bootstrap(); });
    }
    return update;
  }

 private:
  void begin_search() {
    if (budget_) {
      budget_->used = 0;
      budget_->deadline = std::chrono::steady_clock::now() + search_time;
    }
  }

  PartUpdate part(Json (*skip)(std::string_view), const std::function<Json()>& work) const {
    try {
      return {work(), std::nullopt};
    } catch (const Error& error) {
      if (background_ && is_unanswered(error)) {
        return {skip(error.code), std::nullopt};
      }
      return {nullptr, error};
    }
  }

  // Whether there is a repository to go on with, and a user who wants that. An unfinished clean-up of the launcher's
  // store is noticed before the repository is asked, and concerns the launcher alone.
  bool goes_on(const PartUpdate& launcher) {
    if (launcher.problem && launcher.problem->code == "cancelled") {
      return false;
    }
    return !repository_.tuf().trusted().targets().is_null() || launcher.result == skipped_launcher("cleanup_pending");
  }

  Json stage_launcher() {
    begin("Looking for updates");
    // A start needs the store's lock and may have to wait for it, so the repository answers before a staging takes it.
    if ((!background_ || is_store_ready()) && !is_published(launcher_manifest_target())) {
      return skipped_launcher("not_published");
    }
    const auto phase = [this](std::string_view name, bool) { begin(launcher_work(name)); };
    return LauncherStore(data_root_).stage(repository_.tuf(), observer_.progress, phase, background_);
  }

  // Whether a staging in the background would ask the repository at all.
  bool is_store_ready() const {
    const LauncherStore store(data_root_);
    return !store.load().at("active").is_null() && !is_there(LauncherPaths(store.store()).cleanup);
  }

  Json stage_bootstrap() {
    begin("Preparing the bootstrap");
    return {{"status", stage_bootstrap_update(data_root_, repository_.tuf(), observer_.progress)}};
  }

  bool is_published(const std::string& target) {
    try {
      repository_.tuf().target(target);
      return true;
    } catch (const Error& error) {
      if (error.code != "target_not_found") {
        throw;
      }
      return false;
    }
  }

  void begin(std::string_view work) const {
    if (observer_.begin) {
      observer_.begin(work);
    }
  }

  const std::filesystem::path data_root_;
  const UpdateObserver observer_;
  const bool background_;
  const std::shared_ptr<HttpsBudget> budget_;
  // Keeps a setup, which would replace what is being prepared, from beginning, and waits for one that runs.
  const std::unique_ptr<NativeFileLock> lifetime_;
  InstalledRepository repository_;
};

std::string launcher_line(const Json& result) {
  if (result.at("staged").get<bool>()) {
    return branded("Ravok ") + text_at(result, "build_id") + " is ready; the next start tries it.";
  }
  if (result.contains("already_current")) {
    return branded("Ravok is up to date.");
  }
  static const std::map<std::string, std::string, std::less<>> reasons = {
      {"candidate_pending", "A newer Ravok is ready already; the next start tries it."},
      {"cleanup_pending", "A clean-up of Ravok has to end first."},
      {"failed_before", "The newest Ravok failed when it was tried; this one stays."},
      {"not_installed", "No version of Ravok has been started yet."},
      {"not_published", "No Ravok is published for this system."},
      {"startup_pending", "Ravok is being started; updates wait until it has."}};
  const auto reason = reasons.find(text_at(result, "skipped"));
  return branded(reason == reasons.end() ? "No answer about updates of Ravok: " + text_at(result, "skipped") + "."
                                         : reason->second);
}

std::string bootstrap_line(const std::string& status) {
  if (status == "staged") {
    return "An update of the bootstrap is ready; the next start applies it.";
  }
  if (status == "pending") {
    return "An update of the bootstrap is ready already; the next start applies it.";
  }
  if (status == "rejected") {
    return "The newest bootstrap failed when it was tried; this one stays.";
  }
  if (status == "skipped") {
    return "No answer about updates of the bootstrap.";
  }
  return status == "current" ? "The bootstrap is up to date." : "No bootstrap is published for this system.";
}

}  // namespace

Json PartUpdate::to_json() const { return problem ? Json{{"problem", problem_json(*problem)}} : result; }

const Error* ClientUpdate::problem() const {
  if (launcher.problem) {
    return &*launcher.problem;
  }
  return bootstrap.problem ? &*bootstrap.problem : nullptr;
}

Json ClientUpdate::to_json() const {
  Json document = {{"schema_version", 1}, {"launcher", launcher.to_json()}, {"bootstrap", bootstrap.to_json()}};
  if (const Error* const error = problem()) {
    document["problem"] = problem_json(*error);
  }
  return document;
}

ClientUpdate update_client(const std::filesystem::path& data_root, const UpdateObserver& observer, bool background,
                           const std::function<bool()>& cancelled) {
  std::optional<Update> work;
  try {
    work.emplace(data_root, observer, background, cancelled);
  } catch (const Error& error) {
    if (background && is_unanswered(error)) {
      return {.launcher = {skipped_launcher(error.code), std::nullopt}, .bootstrap = {}};
    }
    throw;
  }
  return work->run();
}

std::vector<std::string> update_lines(const ClientUpdate& update) {
  std::vector<std::string> lines;
  if (!update.launcher.result.is_null()) {
    lines.push_back(launcher_line(update.launcher.result));
  }
  if (!update.bootstrap.result.is_null()) {
    lines.push_back(bootstrap_line(text_at(update.bootstrap.result, "status")));
  }
  return lines;
}

}  // namespace ravok
