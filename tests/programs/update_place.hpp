// An installation whose repository a real server serves over TLS, releases for it, and starts of the client.
#pragma once

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/types.h>

#include "app/launcher/launcher_reference.hpp"
#include "app/launcher/launcher_store.hpp"
#include "domain/crypto.hpp"
#include "domain/repository_layout.hpp"
#include "platform/process/native_platform.hpp"
#include "programs/client_place.hpp"
#include "programs/started_program.hpp"
#include "support/certificate.hpp"
#include "support/install_place.hpp"
#include "support/launcher_release.hpp"
#include "support/nginx_server.hpp"
#include "support/process.hpp"
#include "support/tuf_repository.hpp"

namespace ravok::testing {

// What a server does that sends the beginning of a large file and then next to nothing.
inline constexpr const char* stalling = "access_log requests; limit_rate_after 600k; limit_rate 1k;";
inline constexpr const char* logging = "access_log requests;";

class UpdatePlace {
 public:
  using Arguments = std::vector<std::string>;

  // Installs version 1.0.0 and starts it once, so that it is the active one.
  UpdatePlace() {
    publish_package();
    place.install();
    const ProgramResult first = run({"self", "status"});
    EXPECT_EQ(first.exit_code, 0) << first.errors;
    EXPECT_EQ(active(), RAVOK_LAUNCHER_BUILD_ID) << first.errors;
  }
  ~UpdatePlace() {
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
      std::error_code gone;
      const std::string image = std::filesystem::read_symlink(entry.path() / "exe", gone);
      if (!gone && image.starts_with(place.data().native() + "/")) {
        kill(static_cast<pid_t>(std::stol(entry.path().filename())), SIGKILL);
      }
    }
  }
  UpdatePlace(const UpdatePlace&) = delete;
  UpdatePlace& operator=(const UpdatePlace&) = delete;

  // Publishes a launcher whose console entry is this program. `note` tells releases apart.
  Json release_launcher(const std::string& build, const std::string& program, const std::string& note) {
    const LauncherRelease release =
        publish_launcher(place.root(), build, {bytes_of(program), "#!ravok-gui", bytes_of(RAVOK_MAINTENANCE)}, note);
    put(launcher_manifest_target(), release.manifest, bytes_of(release.archive));
    return make_reference(digest(release.manifest, "sha256"), build);
  }

  // Publishes the bootstrap with one more file, which holds the note. Returns the manifest's text.
  std::string release_bootstrap(const std::string& note, const std::string& program = RAVOK_BOOTSTRAP) {
    const std::string folder = "bootstraps/" + note + "/";
    std::filesystem::permissions(place.root().write(folder + "tree/bin/ravok-bootstrap", bytes_of(program)),
                                 std::filesystem::perms(0755));
    place.root().write(folder + "tree/data/note", note);
    SnapshotPublication publication;
    publication.kind = SnapshotKind::bootstrap;
    publication.tree = place.root() / (folder + "tree");
    publication.output = place.root().directory(folder + "output");
    publication.build_id = "bootstrap-" + note;
    publication.platform = native_platform();
    publication.executable = "bin/ravok-bootstrap";
    publication.level = 1;
    const PublishedSnapshot published = publish_snapshot(publication, {});
    const std::string manifest = bytes_of(published.manifest);
    put(bootstrap_target(), manifest, bytes_of(published.archive));
    return manifest;
  }

  // Publishes what the repository holds now.
  void publish() {
    repository.publish();
    for (const auto& [name, text] : repository.metadata()) {
      server.serve(repository_metadata_folder + ("/" + name), text);
    }
    for (const auto& [name, bytes] : repository.target_files()) {
      server.serve(repository_targets_folder + ("/" + name), bytes);
    }
  }

  ProgramStart start_of(const Arguments& arguments) const {
    ProgramStart start;
    start.program = place.data() / "native/bootstrap/bin/ravok-bootstrap";
    start.arguments = arguments;
    start.environment = {{"HOME", place.home()}, {"PATH", "/usr/bin:/bin"}};
    return start;
  }
  // Starts the installed client and waits for its end.
  ProgramResult run(const Arguments& arguments) const {
    const ProgramStart how = start_of(arguments);
    return run_program({how.program, how.arguments, how.environment, ""});
  }
  std::unique_ptr<StartedProgram> start(const Arguments& arguments) const {
    return std::make_unique<StartedProgram>(start_of(arguments));
  }

  // Starts an update that comes to its end only if it is stopped: the server sends no more of the launcher than its
  // beginning.
  std::unique_ptr<StartedProgram> start_endless_update() {
    server.start(certificate, stalling);
    auto update = start({"self", "update"});
    wait_until([&] { return fetched_bytes() >= 500'000; });
    return update;
  }
  // Lets the server send everything again.
  void serve_all() { server.start(certificate, logging); }

  // How much of a launcher that is being fetched lies in the store.
  std::uint64_t fetched_bytes() const {
    std::uint64_t bytes = 0;
    std::error_code gone;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(launcher.downloads, gone)) {
      struct stat status;
      if (lstat(entry.path().c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
        bytes = std::max(bytes, written_bytes(entry.path()));
      }
    }
    return bytes;
  }

  Json state() const { return LauncherStore::existing(place.data())->load(); }
  std::string active() const { return build_of("active"); }
  std::string build_of(const char* role) const {
    const Json reference = state().at(role);
    return reference.is_null() ? "" : text_at(reference, "build_id");
  }

  static std::string bootstrap_target() { return "bootstrap-" + std::string(native_platform()) + ".manifest.json"; }

  InstallPlace place;
  const CertificateAuthority authority;
  const ServerCertificate certificate = authority.issue();
  NginxServer server{certificate, logging};
  TufRepository repository;
  const LauncherPaths launcher{DataPaths(place.data()).launcher};

 private:
  // The blocks of a file are claimed before its content arrives, and content that has arrived is not zero throughout.
  static std::uint64_t written_bytes(const std::filesystem::path& path) {
    const std::string bytes = bytes_of(path);
    const std::size_t last = bytes.find_last_not_of('\0');
    return last == std::string::npos ? 0 : last + 1;
  }

  void put(const std::string& target, const std::string& manifest, const std::string& archive) {
    repository.targets().add(target, manifest);
    repository.targets().add(archive_name(Json::parse(manifest)), archive);
  }

  void publish_package() {
    InitialPackage& package = place.package;
    package.brand.reset();
    package.featured_game.reset();
    use_bootstrap(package, place.root(), RAVOK_BOOTSTRAP);
    use_launcher(package,
                 publish_launcher(place.root(), RAVOK_LAUNCHER_BUILD_ID,
                                  {bytes_of(RAVOK_LAUNCHER), "#!ravok-gui", bytes_of(RAVOK_MAINTENANCE)}, "first"));
    put(bootstrap_target(), package.bootstrap.dump(), package.bootstrap_archive);
    put(launcher_manifest_target(), package.launcher.dump(), package.launcher_archive);
    publish();
    package.root = repository.root_text();
    package.origin = server.url().substr(0, server.url().size() - 1);
    package.ca_bundle = authority.root();
    place.republish();
  }
};

}  // namespace ravok::testing
