// A client, the releases that were made for it, and the repository that serves them: what a history of versions happens
// to.
#pragma once

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "app/launcher/bootstrap_release.hpp"
#include "app/launcher/launcher_staging.hpp"
#include "domain/crypto.hpp"
#include "domain/data_layout.hpp"
#include "domain/json.hpp"
#include "domain/launcher_contract.hpp"
#include "domain/manifest.hpp"
#include "fault/fault_runner.hpp"
#include "platform/process/native_platform.hpp"
#include "programs/history_model.hpp"
#include "publisher/publish_snapshot.hpp"
#include "support/certificate.hpp"
#include "support/fast_volume.hpp"
#include "support/launcher_release.hpp"
#include "support/nginx_server.hpp"
#include "support/package_builder.hpp"
#include "support/poisoned_network.hpp"
#include "support/process.hpp"
#include "support/temporary_root.hpp"
#include "support/tuf_repository.hpp"

namespace ravok::testing {

// What is wrong with a release: nothing, or how its program fails to start.
enum class ReleaseKind { good, exits, lacks_library, no_program, crashes };

struct HistoryRelease {
  std::string build;
  std::string manifest;
  std::string sha256;  // of the manifest
  SnapshotManifest contents;
  std::filesystem::path archive;
};

// The program with other text of the same length in its bytes.
inline std::string with_text(std::string program, std::string_view text, std::string_view other) {
  std::size_t at = program.find(text);
  if (at == std::string::npos || text.size() != other.size()) {
    throw std::runtime_error("A program of a test has no text to change");
  }
  for (; at != std::string::npos; at = program.find(text, at + text.size())) {
    program.replace(at, text.size(), other);
  }
  return program;
}

// A program that no system can start, since it wants a library that nobody has.
inline std::string without_library(std::string program) {
  return with_text(std::move(program), "libc.so.6", "libq.so.6");
}

class HistoryPlace {
 public:
  // With a seed, the client reaches the repository through a network that can poison what it carries.
  explicit HistoryPlace(std::optional<std::uint64_t> poison_seed = {}) : server_(authority_.issue(), directives()) {
    root_.directory("home/.local/share");
    if (poison_seed) {
      network_.emplace(authority_, root_.directory("served"), *poison_seed);
    }
    repository_.publish();
    keep_root();
    release_launcher(ReleaseKind::good);
    release_bootstrap(ReleaseKind::good);
    make_installer();
    publish(0, 0);
    install();
  }

  ~HistoryPlace() { end_programs(); }
  HistoryPlace(const HistoryPlace&) = delete;
  HistoryPlace& operator=(const HistoryPlace&) = delete;

  // --- The publisher ---------------------------------------------------------------------------

  // Makes a release and returns its number. It is not published yet.
  int release_launcher(ReleaseKind kind) {
    std::string number = std::to_string(launchers.size());
    const std::string build = "history-" + std::string(8 - number.size(), '0') + number;
    const LauncherRelease made = publish_launcher(root_, build, {launcher_program(kind, build), "#!window"}, build);
    keep_release(launchers, build, made.manifest, made.archive);
    world.good_launchers.push_back(kind == ReleaseKind::good);
    std::filesystem::remove_all(root_ / ("releases/" + build + "/tree"));
    return static_cast<int>(launchers.size()) - 1;
  }

  int release_bootstrap(ReleaseKind kind) {
    const std::string build = "bootstrap-" + std::to_string(bootstraps.size());
    const std::string folder = "releases/" + build + "/";
    std::filesystem::permissions(root_.write(folder + "tree/bin/ravok-bootstrap", bootstrap_program(kind)),
                                 std::filesystem::perms(0755));
    root_.write(folder + "tree/data/note", build);
    // Releases differ in what files they have.
    root_.write(folder + "tree/data/" + build.substr(0, 9 + build.size() % 2) + "/more", build);
    SnapshotPublication publication;
    publication.kind = SnapshotKind::bootstrap;
    publication.tree = root_ / (folder + "tree");
    publication.output = root_.directory(folder + "output");
    publication.build_id = build;
    publication.platform = native_platform();
    publication.executable = "bin/ravok-bootstrap";
    publication.level = 1;
    const PublishedSnapshot made = publish_snapshot(publication, {});
    keep_release(bootstraps, build, bytes_of(made.manifest), made.archive);
    world.good_bootstraps.push_back(kind == ReleaseKind::good);
    std::filesystem::remove_all(publication.tree);
    return static_cast<int>(bootstraps.size()) - 1;
  }

  // Publishes these two as the newest, and serves that. The role named, if any, has expired already.
  void publish(int launcher, int bootstrap, const std::string& expired = "") {
    for (const char* const role : {"root", "timestamp", "snapshot", "targets"}) {
      repository_.role(role).expires = expired == role ? "2020-01-01T00:00:00Z" : "2035-01-01T00:00:00Z";
    }
    repository_.targets().targets.clear();
    describe(launcher_manifest_target(), launchers.at(static_cast<std::size_t>(launcher)));
    describe(bootstrap_manifest_target(), bootstraps.at(static_cast<std::size_t>(bootstrap)));
    repository_.publish();
    keep_root();
    PublishedState state;
    state.root = world.roots.size();
    state.expired = expired == "root" ? "" : expired;
    state.launcher = launcher;
    state.bootstrap = bootstrap;
    state.keys = keys();
    std::map<std::string, std::string> files;
    for (const char* const role : {"timestamp", "snapshot", "targets"}) {
      files[repository_.file_of(role)] = repository_.text_of(role);
      signed_texts_[std::string(role) + ".json"].insert(repository_.text_of(role));
    }
    state_of_timestamp_[repository_.text_of("timestamp")] = world.states.size();
    world.states.push_back(std::move(state));
    files_.push_back(std::move(files));
    serve(world.states.size() - 1);
    forget_old_archives();
  }

  void rotate(const std::string& role) { repository_.rotate(role); }

  // Serves a publication as it stood then.
  void serve(std::size_t state) {
    world.served = state;
    const std::filesystem::path folder = root_ / "served/tuf/metadata";
    std::filesystem::remove_all(folder);
    for (std::size_t version = 1; version <= world.states.at(state).root; ++version) {
      const std::string name = std::to_string(version) + ".root.json";
      root_.write("served/tuf/metadata/" + name, repository_.root_text(version));
    }
    for (const auto& [name, text] : files_.at(state)) {
      root_.write("served/tuf/metadata/" + name, text);
    }
  }

  // The publications that can still be served with all their files.
  std::size_t oldest_state() const { return files_.size() > kept_states ? files_.size() - kept_states : 0; }

  // A server that is down takes connections and ends them.
  void take_down() {
    root_.write("served/down", "");
    world.is_down = true;
  }
  void bring_up() {
    std::filesystem::remove(root_ / "served/down");
    world.is_down = false;
  }

  // --- The client ------------------------------------------------------------------------------

  // Begins a new installation in a folder of its own, and starts it for the first time.
  void install() {
    std::filesystem::remove_all(data_);
    data_ = root_ / ("data-" + std::to_string(++installations_));
    const ProgramResult installed = run_setup("install");
    if (installed.exit_code != 0) {
      throw std::runtime_error("Cannot install: " + installed.errors);
    }
    for (const auto& [name, content] : players_files) {
      root_.write(data_.filename().native() + "/" + name, content);
    }
    const ProgramResult started = run_program(start_of({"self", "status"}));
    if (started.exit_code != 0) {
      throw std::runtime_error("Cannot start: " + started.errors);
    }
  }

  ProgramResult run_setup(const std::string& command) const {
    return run_program(
        {root_ / "installer/ravok-install", {command, "--data-dir", data_, "--json"}, environment(), ""});
  }

  // How users start the client, and how the launcher starts that is active.
  ProgramRun start_of(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "--json");
    return {data_ / "native/bootstrap/bin/ravok-bootstrap", std::move(arguments), environment(), ""};
  }
  ProgramRun active_launcher(int active, std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {"--data-dir", data_, "--json"});
    const std::string& sha256 = launchers.at(static_cast<std::size_t>(active)).sha256;
    return {launcher_paths().version(sha256) / "bin/ravok", std::move(arguments), environment(), ""};
  }

  // Kills what runs from the installation, and waits until it is gone.
  void end_programs() const {
    for (bool found = true; found;) {
      found = false;
      for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::error_code gone;
        const std::string image = std::filesystem::read_symlink(entry.path() / "exe", gone);
        if (!gone && image.starts_with(root_.path().native() + "/data-")) {
          kill(static_cast<pid_t>(std::stol(entry.path().filename())), SIGKILL);
          found = true;
        }
      }
      if (found) {
        std::this_thread::yield();
      }
    }
  }

  // What the installation's files say of its state.
  HistoryState state() const {
    HistoryState state;
    const Json document = Json::parse(bytes_of(launcher_paths().document));
    state.store.active = number_of(document.at("active"));
    state.store.rollback = number_of(document.at("rollback"));
    state.store.candidate = number_of(document.at("candidate"));
    state.store.attempt =
        document.at("attempt").is_null() ? no_release : number_of(document.at("attempt").at("reference"));
    if (const Json& failed = document.at("failed_candidate"); !failed.is_null()) {
      state.store.failed = number_of(failed.at("reference"));
      state.store.problem = failed.at("problem").get<std::string>();
    }
    state.store.is_cleaning = std::filesystem::exists(launcher_paths().cleanup);
    const BootstrapPaths paths(data_);
    state.bootstrap.installed = bootstrap_with(digest(bytes_of(paths.manifest), "sha256"));
    if (std::filesystem::exists(paths.update_manifest)) {
      state.bootstrap.pending = bootstrap_with(digest(bytes_of(paths.update_manifest), "sha256"));
    }
    if (std::filesystem::exists(paths.rejected)) {
      state.bootstrap.rejected = bootstrap_with(bytes_of(paths.rejected));
    }
    const std::filesystem::path trust = DataPaths(data_).trust;
    state.trust.root = root_versions_.at(bytes_of(trust / trusted_root_file));
    // With the mark, the rest is forgotten before it is read again.
    if (std::filesystem::exists(trust / "timestamp.json") && !std::filesystem::exists(trust / trust_rotation_mark)) {
      state.trust.state = state_of_timestamp_.at(bytes_of(trust / "timestamp.json"));
    }
    return state;
  }

  StoreRoom room() const {
    for (const LauncherFolderLimit& limit : launcher_folder_limits) {
      if (entries_in(launcher_paths().*limit.folder) >= limit.entries) {
        return StoreRoom::no_record;
      }
    }
    return entries_in(launcher_paths().versions) < launcher_store_limits::versions ? StoreRoom::enough
                                                                                   : StoreRoom::no_version;
  }
  // Whether one of the store's folders has nearly as many entries as it may have.
  bool is_nearly_full() const {
    return std::any_of(launcher_folder_limits.begin(), launcher_folder_limits.end(),
                       [&](const LauncherFolderLimit& limit) {
                         return entries_in(launcher_paths().*limit.folder) + 5 >= limit.entries;
                       });
  }
  // Whether the store holds these versions and no other, and nothing of downloads, stagings and starts; its records
  // take at most 1 MiB besides.
  bool is_clean(const std::set<int>& named) const {
    std::set<std::string> versions;
    std::uint64_t most = 1'048'576;
    for (const int launcher : named) {
      const HistoryRelease& release = launchers.at(static_cast<std::size_t>(launcher));
      versions.insert(release.sha256);
      most += release.contents.expanded_length;
    }
    const LauncherPaths paths = launcher_paths();
    std::set<std::string> unpacked;
    for (const auto& entry : std::filesystem::directory_iterator(paths.versions)) {
      unpacked.insert(entry.path().filename());
    }
    return unpacked == versions && store_bytes() <= most && entries_in(paths.manifests) == versions.size() &&
           entries_in(paths.downloads) == 0 && entries_in(paths.download_intents) == 0 &&
           entries_in(paths.intents) == 0 && entries_in(paths.staging) == 0 && entries_in(paths.health) == 0 &&
           entries_in(paths.attempt_leases) == 0;
  }
  bool is_unpacked(int launcher) const {
    return std::filesystem::exists(launcher_paths().version(launchers.at(static_cast<std::size_t>(launcher)).sha256));
  }

  // What must hold at any time. Returns what does not. While an update of the bootstrap is half applied, its tree is
  // not judged.
  std::vector<std::string> violations(bool judges_bootstrap) {
    std::vector<std::string> found;
    const LauncherPaths paths = launcher_paths();
    const bool is_cleaning = std::filesystem::exists(paths.cleanup);
    const std::set<std::string> named = named_versions();
    for (const auto& entry : std::filesystem::directory_iterator(paths.versions)) {
      const HistoryRelease* const release = launcher_with(entry.path().filename());
      if (release == nullptr) {
        found.push_back("A version that was never released: " + entry.path().native());
      } else {
        // A clean-up that has not ended may have removed some files of a version that nobody starts any more.
        judge_tree(entry.path(), release->contents, false, is_cleaning && !named.contains(release->sha256), found);
      }
    }
    for (const auto& entry : std::filesystem::directory_iterator(paths.manifests)) {
      const std::string name = entry.path().filename();
      const std::string sha256 = digest(bytes_of(entry.path()), "sha256");
      const bool is_named_so = name == sha256 + ".json" || (is_cleaning && name == sha256 + ".json.removed");
      if (!name.ends_with(".tmp") && (launcher_with(sha256) == nullptr || !is_named_so)) {
        found.push_back("A manifest that was never released: " + entry.path().native());
      }
    }
    if (judges_bootstrap) {
      const BootstrapPaths bootstrap(data_);
      const int installed = bootstrap_with(digest(bytes_of(bootstrap.manifest), "sha256"));
      const bool old_files = std::filesystem::exists(bootstrap.old_files_mark);
      judge_tree(bootstrap.tree, bootstraps.at(static_cast<std::size_t>(installed)).contents, old_files, false, found);
    }
    for (const auto& entry : std::filesystem::directory_iterator(DataPaths(data_).trust)) {
      judge_trusted(entry.path(), found);
    }
    for (const LauncherFolderLimit& limit : launcher_folder_limits) {
      if (entries_in(paths.*limit.folder) > limit.entries) {
        found.push_back("More entries than may be in " + (paths.*limit.folder).native());
      }
    }
    if (store_bytes() > launcher_store_limits::bytes) {
      found.push_back("More bytes than may be in the store");
    }
    if (entries_in(paths.versions) > launcher_store_limits::versions) {
      found.push_back("More versions than may be there");
    }
    for (const auto& [name, content] : players_files) {
      if (!std::filesystem::exists(data_ / name) || bytes_of(data_ / name) != content) {
        found.push_back("The player's file has changed: " + name);
      }
    }
    return found;
  }

  const std::filesystem::path& data() const { return data_; }
  PoisonedNetwork& network() { return network_.value(); }
  std::string complaints() const { return server_.complaints(); }

  HistoryWorld world;
  std::vector<HistoryRelease> launchers;
  std::vector<HistoryRelease> bootstraps;

 private:
  static constexpr std::size_t kept_states = 8;
  static inline const std::map<std::string, std::string> players_files = {{"userdata/saves/first", "a long way"},
                                                                          {"settings.json", "{\"volume\": 11}"}};

  std::string directives() const {
    const std::string folder = root_ / "served";
    return "location / { root " + folder + "; if (-f " + folder + "/down) { return 444; } log_not_found off; }";
  }

  static const std::string& program_at(const char* path) {
    static std::map<std::string, std::string> programs;
    const auto found = programs.find(path);
    return found != programs.end() ? found->second : programs.emplace(path, bytes_of(path)).first->second;
  }

  // A program that does not come to run, of either kind.
  static std::string bad_program(ReleaseKind kind) {
    switch (kind) {
      case ReleaseKind::lacks_library:
        return without_library(program_at(RAVOK_HISTORY_TROUBLED));
      case ReleaseKind::no_program:
        return "This is no program\n";
      default:
        return "#!/bin/sh\nkill -SEGV $$\n";
    }
  }

  static std::string launcher_program(ReleaseKind kind, const std::string& build) {
    switch (kind) {
      case ReleaseKind::good:
        return with_text(program_at(RAVOK_HISTORY_LAUNCHER), RAVOK_HISTORY_BUILD_ID, build);
      case ReleaseKind::exits:
        return with_text(program_at(RAVOK_HISTORY_TROUBLED), RAVOK_HISTORY_BUILD_ID, build);
      default:
        return bad_program(kind);
    }
  }

  static std::string bootstrap_program(ReleaseKind kind) {
    switch (kind) {
      case ReleaseKind::good:
        return program_at(RAVOK_BOOTSTRAP);
      case ReleaseKind::exits:
        return "#!/bin/sh\nexit 1\n";
      default:
        return bad_program(kind);
    }
  }

  static void keep_release(std::vector<HistoryRelease>& releases, const std::string& build, const std::string& manifest,
                           const std::filesystem::path& archive) {
    releases.push_back(
        {build, manifest, digest(manifest, "sha256"), SnapshotManifest::parse(Json::parse(manifest)), archive});
  }

  // The installer carries the first releases, whose manifests are then those that it has.
  void make_installer() {
    InitialPackage package;
    package.featured_game.reset();
    package.brand.reset();
    const std::string url = server_.url();
    package.origin = network_ ? network_->origin() : url.substr(0, url.size() - 1);
    package.ca_bundle = authority_.root();
    package.root = repository_.root_text();
    package.launcher = Json::parse(launchers[0].manifest);
    package.launcher_archive = bytes_of(launchers[0].archive);
    package.bootstrap = Json::parse(bootstraps[0].manifest);
    package.bootstrap_archive = bytes_of(bootstraps[0].archive);
    package.write(root_ / "package");
    for (auto [releases, name] : {std::pair(&launchers, "launcher.json"), std::pair(&bootstraps, "bootstrap.json")}) {
      releases->at(0).manifest = root_.read("package/" + std::string(name));
      releases->at(0).sha256 = digest(releases->at(0).manifest, "sha256");
    }
    const ProgramResult made = run_program(
        {RAVOK_PUBLISH, {"installer", root_ / "package", root_ / "installer", "--program", RAVOK_INSTALL}, {}, ""});
    if (made.exit_code != 0) {
      throw std::runtime_error("Cannot make an installer: " + made.errors);
    }
  }

  std::map<std::string, std::string> environment() const {
    return {{"HOME", root_ / "home"}, {"PATH", "/usr/bin:/bin"}};
  }

  std::map<std::string, std::string> keys() {
    std::map<std::string, std::string> keys;
    for (const char* const role : {"timestamp", "snapshot", "targets"}) {
      keys[role] = repository_.role(role).keys.front().id();
    }
    return keys;
  }

  // Notes the root that was published last, if it is another.
  void keep_root() {
    const std::string& text = repository_.text_of("root");
    if (signed_texts_[trusted_root_file].insert(text).second) {
      world.roots.push_back({keys(), repository_.root().expires < "2030"});
      root_versions_[text] = world.roots.size();
    }
  }

  void describe(const std::string& manifest_target, const HistoryRelease& release) {
    describe_target(manifest_target, release.sha256, release.manifest.size());
    root_.write("served/tuf/targets/" + release.sha256 + "." + manifest_target, release.manifest);
    const SnapshotManifest& contents = release.contents;
    describe_target(contents.target, contents.archive_sha256, contents.archive_length);
    const std::filesystem::path file = served_archive(release);
    std::filesystem::create_directories(file.parent_path());
    if (!std::filesystem::exists(file)) {
      std::filesystem::create_hard_link(release.archive, file);
    }
  }
  void describe_target(const std::string& target, const std::string& sha256, std::uint64_t length) {
    repository_.targets().describe(target, {{"length", length}, {"hashes", {{"sha256", sha256}}}});
  }

  std::filesystem::path served_archive(const HistoryRelease& release) const {
    const std::filesystem::path target = release.contents.target;
    return root_ / "served/tuf/targets" / target.parent_path() /
           (release.contents.archive_sha256 + "." + target.filename().native());
  }

  // Keeps the archives of those releases that can still be asked for.
  void forget_old_archives() {
    std::set<const HistoryRelease*> kept = {&launchers.back(), &bootstraps.back()};
    for (std::size_t state = oldest_state(); state < world.states.size(); ++state) {
      kept.insert(&launchers.at(static_cast<std::size_t>(world.states[state].launcher)));
      kept.insert(&bootstraps.at(static_cast<std::size_t>(world.states[state].bootstrap)));
    }
    for (const auto* const releases : {&launchers, &bootstraps}) {
      for (const HistoryRelease& release : *releases) {
        if (!kept.contains(&release) && std::filesystem::remove(release.archive)) {
          std::filesystem::remove(served_archive(release));
        }
      }
    }
  }

  LauncherPaths launcher_paths() const { return LauncherPaths(DataPaths(data_).launcher); }

  static std::size_t entries_in(const std::filesystem::path& folder) {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
  }

  std::uint64_t store_bytes() const {
    std::uint64_t bytes = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(launcher_paths().store)) {
      bytes += entry.is_regular_file() ? entry.file_size() : 0;
    }
    return bytes;
  }

  const HistoryRelease* launcher_with(const std::string& sha256) const {
    const auto found = std::find_if(launchers.begin(), launchers.end(),
                                    [&](const HistoryRelease& release) { return release.sha256 == sha256; });
    return found == launchers.end() ? nullptr : &*found;
  }
  int number_of(const Json& reference) const {
    if (reference.is_null()) {
      return no_release;
    }
    const HistoryRelease* const release = launcher_with(text_at(reference, "manifest_sha256"));
    if (release == nullptr || release->build != text_at(reference, "build_id")) {
      throw std::runtime_error("The store names a version that was never released");
    }
    return static_cast<int>(release - launchers.data());
  }
  std::set<std::string> named_versions() const {
    std::set<std::string> named;
    const StoreState store = state().store;
    for (const int launcher : {store.active, store.rollback, store.candidate, store.attempt, store.failed}) {
      if (launcher != no_release) {
        named.insert(launchers.at(static_cast<std::size_t>(launcher)).sha256);
      }
    }
    return named;
  }
  int bootstrap_with(const std::string& sha256) const {
    for (std::size_t i = 0; i < bootstraps.size(); ++i) {
      if (bootstraps[i].sha256 == sha256) {
        return static_cast<int>(i);
      }
    }
    throw std::runtime_error("A bootstrap that was never released: " + sha256);
  }

  // The digest of a file, computed once for what the system calls the same file and the same time.
  std::string digest_of(const std::filesystem::path& path) {
    struct stat status;
    if (lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
      return "no file";
    }
    const auto key = std::tuple(status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec,
                                status.st_ctim.tv_sec, status.st_ctim.tv_nsec);
    std::string& known = digests_[key];
    if (known.empty()) {
      known = digest(bytes_of(path), "sha256");
    }
    return known + ((status.st_mode & S_IXUSR) != 0 ? " executable" : "");
  }

  void judge_tree(const std::filesystem::path& tree, const SnapshotManifest& manifest, bool may_have_old_files,
                  bool may_lack_files, std::vector<std::string>& found) {
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(tree)) {
      const std::string name = entry.path().lexically_relative(tree);
      if (entry.is_directory() || (may_have_old_files && name.ends_with(".old"))) {
        continue;
      }
      const auto expected = manifest.files.find(name);
      if (expected == manifest.files.end()) {
        found.push_back("A file that belongs to no such version: " + entry.path().native());
        continue;
      }
      ++files;
      if (digest_of(entry.path()) != expected->second.sha256 + (expected->second.executable ? " executable" : "")) {
        found.push_back("A file of another version: " + entry.path().native());
      }
    }
    if (files != manifest.files.size() && !may_lack_files) {
      found.push_back("Files are missing in " + tree.native());
    }
  }

  void judge_trusted(const std::filesystem::path& file, std::vector<std::string>& found) {
    const std::string name = file.filename();
    // Nobody reads what a write that was stopped has left.
    if (name == trust_lock_file || name == trust_rotation_mark || name.ends_with(".tmp")) {
      return;
    }
    if (!signed_texts_.contains(name) || !signed_texts_.at(name).contains(bytes_of(file))) {
      found.push_back("Nobody has signed what is trusted: " + file.native());
    }
  }

  const TemporaryRoot root_{fast_volume()};
  const CertificateAuthority authority_;
  const NginxServer server_;
  std::optional<PoisonedNetwork> network_;
  TufRepository repository_;
  std::vector<std::map<std::string, std::string>> files_;  // of the metadata of each publication
  std::map<std::string, std::set<std::string>> signed_texts_;
  std::map<std::string, std::size_t> root_versions_;
  std::map<std::string, std::size_t> state_of_timestamp_;
  std::map<std::tuple<ino_t, off_t, time_t, long, time_t, long>, std::string> digests_;
  std::filesystem::path data_;
  int installations_ = 0;
};

}  // namespace ravok::testing
