// The staging of a launcher of 300 MB in 3,000 files from a real server, beside the sum of what it must do: the
// transport's download of the archive, its digests, and the decoding, writing, flushing and digesting of the files.

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "app/launcher/launcher_store.hpp"
#include "bare_digest.hpp"
#include "bare_extraction.hpp"
#include "platform/file/file_digest.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/process/native_platform.hpp"
#include "publisher/publish_snapshot.hpp"
#include "scratch.hpp"
#include "served.hpp"
#include "support/certificate.hpp"
#include "support/nginx_server.hpp"
#include "support/tuf_repository.hpp"
#include "transport/https.hpp"
#include "tuf/tuf.hpp"

namespace {

using ravok::benchmarks::BareDigest;
using ravok::benchmarks::check;
using ravok::benchmarks::extract_bare;
using ravok::benchmarks::file_paths;
using ravok::benchmarks::Scratch;
using ravok::benchmarks::write_content;
using ravok::testing::NginxServer;

constexpr int folders = 30;
constexpr int files_in_folder = 100;
constexpr std::uint64_t file_bytes = 100'000;

std::string text_of(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// A published launcher, made once, with its files where the server has them.
class Release {
 public:
  Release() {
    for (int d = 0; d < folders; ++d) {
      for (int f = 0; f < files_in_folder; ++f) {
        const std::string name = "data-" + std::to_string(d) + "/file-" + std::to_string(f);
        write_content(tree() / name, file_bytes, static_cast<std::uint32_t>(d * files_in_folder + f));
      }
    }
    for (const char* program : {"bin/ravok", "bin/ravok-gui"}) {
      write_content(tree() / program, file_bytes, 1);
      check(chmod((tree() / program).c_str(), 0755) == 0);
    }
    ravok::SnapshotPublication publication;
    publication.kind = ravok::SnapshotKind::launcher;
    publication.tree = tree();
    publication.output = served();
    std::filesystem::create_directory(served());
    publication.build_id = "sample";
    publication.platform = ravok::native_platform();
    publication.executable = "bin/ravok";
    publication.gui_executable = "bin/ravok-gui";
    publication.level = 1;
    const ravok::PublishedSnapshot published = ravok::publish_snapshot(publication, {});
    archive_ = published.archive;
    text_ = text_of(published.manifest);
    manifest_ = ravok::LauncherManifest::parse(ravok::Json::parse(text_));
    std::filesystem::create_directories((served() / manifest_.target).parent_path());
    if (served() / manifest_.target != archive_) {
      std::filesystem::rename(archive_, served() / manifest_.target);
    }
    archive_ = served() / manifest_.target;
    std::ofstream(served() / ravok::launcher_manifest_target()) << text_;
  }

  std::filesystem::path tree() const { return scratch_.path() / "tree"; }
  std::filesystem::path served() const { return scratch_.path() / "served"; }
  const std::filesystem::path& archive() const { return archive_; }
  const std::string& text() const { return text_; }
  const ravok::LauncherManifest& manifest() const { return manifest_; }

 private:
  const Scratch scratch_;
  std::filesystem::path archive_;
  std::string text_;
  ravok::LauncherManifest manifest_;
};

const Release& release() {
  static const Release made;
  return made;
}

// A repository in memory with the release, whose files come from a real server.
class Service {
 public:
  Service() {
    std::ofstream(authority_file_) << authority_.root();
    repository_.consistent = false;
    const auto describe = [&](const std::string& target, const std::filesystem::path& file) {
      repository_.targets().describe(target, {{"length", std::filesystem::file_size(file)},
                                              {"hashes", {{"sha256", ravok::digest_file(file, "sha256")}}}});
    };
    describe(ravok::launcher_manifest_target(), release().served() / ravok::launcher_manifest_target());
    describe(release().manifest().target, release().archive());
    repository_.publish();
    ravok::private_directory(trusted_);
    ravok::TufClient::initialize(trusted_, repository_.root_text());
    client().refresh();
  }

  ravok::TufClient client() {
    return {trusted_, metadata_, targets_, {524'288, 16'384, 1'048'576, 1, 1}, [] {
              return ravok::parse_tuf_time("2030-01-01T00:00:00Z");
            }};
  }
  ravok::HttpsTransport& transport() { return targets_; }
  std::filesystem::path root() const { return scratch_.path() / "data"; }

  // Nothing is there, and the disk is at rest.
  void prepare() const {
    std::filesystem::remove_all(root());
    ravok::private_directory(root());
    sync();
  }

 private:
  const Scratch scratch_;
  const std::filesystem::path authority_file_ = scratch_.path() / "authority.pem";
  const std::filesystem::path trusted_ = scratch_.path() / "trusted";
  const ravok::testing::CertificateAuthority authority_;
  const NginxServer server_{authority_.issue(), "location / { root " + release().served().native() + "; }"};
  ravok::testing::TufRepository repository_;
  ravok::testing::RepositoryTransport metadata_{repository_};
  ravok::HttpsTransport targets_{server_.url(), authority_file_};
};

void stage_launcher(benchmark::State& state) {
  if (!ravok::benchmarks::has_server(state)) {
    return;
  }
  Service service;
  for (auto _ : state) {
    state.PauseTiming();
    service.prepare();
    const ravok::LauncherStore store(service.root());
    state.ResumeTiming();
    ravok::TufClient client = service.client();
    check(store.stage(client, {}, {}, false).at("staged") == true);
  }
}
BENCHMARK(stage_launcher)->Unit(benchmark::kMillisecond)->UseRealTime();

void flush(const std::filesystem::path& path) {
  const int handle = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  check(handle >= 0 && fsync(handle) == 0 && close(handle) == 0);
}

void stage_launcher_yardstick(benchmark::State& state) {
  if (!ravok::benchmarks::has_server(state)) {
    return;
  }
  Service service;
  BareDigest digest;
  for (auto _ : state) {
    state.PauseTiming();
    service.prepare();
    state.ResumeTiming();
    const std::filesystem::path archive = service.root() / "archive";
    service.transport().download(ravok::launcher_manifest_target(), service.root() / "manifest",
                                 release().text().size(), {});
    service.transport().download(release().manifest().target, archive, release().manifest().archive_length, {});
    digest.file(archive.c_str());
    flush(archive);
    const std::filesystem::path version = service.root() / "version";
    extract_bare(archive, version, file_paths(release().manifest(), version), digest);
    flush(service.root());
  }
}
BENCHMARK(stage_launcher_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
