// The download of a signed target of a GiB that a later run could continue, beside what the transport needs for the
// file alone.

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include <benchmark/benchmark.h>
#include <unistd.h>

#include "bare_digest.hpp"
#include "platform/file/file_digest.hpp"
#include "scratch.hpp"
#include "served.hpp"
#include "support/certificate.hpp"
#include "support/nginx_server.hpp"
#include "support/tuf_repository.hpp"
#include "transport/https.hpp"
#include "tuf/tuf.hpp"

namespace {

using ravok::benchmarks::check;
using ravok::benchmarks::Scratch;
using ravok::testing::NginxServer;

constexpr std::uint64_t large_bytes = std::uint64_t{1} << 30;

// A repository in memory, whose one target comes from a real server.
class Service {
 public:
  Service() {
    std::ofstream(authority_file_) << authority_.root();
    std::ofstream(large_file_).close();
    std::filesystem::resize_file(large_file_, large_bytes);
    repository_.consistent = false;
    repository_.targets().describe(
        "large", {{"length", large_bytes}, {"hashes", {{"sha256", ravok::digest_file(large_file_, "sha256")}}}});
    repository_.publish();
    ravok::TufClient::initialize(trusted_, repository_.root_text());
    client().refresh();
  }

  ravok::TufClient client() {
    return {trusted_, metadata_, targets_, {524'288, 16'384, 1'048'576, 1, 1}, [] {
              return ravok::parse_tuf_time("2030-01-01T00:00:00Z");
            }};
  }
  ravok::HttpsTransport& transport() { return targets_; }
  std::filesystem::path folder() const { return scratch_.path() / "files"; }

  // No file is there, and the disk is at rest.
  void prepare() const {
    std::filesystem::remove_all(folder());
    sync();
  }

 private:
  const Scratch scratch_;
  const std::filesystem::path authority_file_ = scratch_.path() / "authority.pem";
  const std::filesystem::path large_file_ = scratch_.path() / "large";
  const std::filesystem::path trusted_ = scratch_.path() / "trusted";
  const ravok::testing::CertificateAuthority authority_;
  const NginxServer server_{authority_.issue(), "location = /large { alias " + large_file_.native() + "; }"};
  ravok::testing::TufRepository repository_;
  ravok::testing::RepositoryTransport metadata_{repository_};
  ravok::HttpsTransport targets_{server_.url(), authority_file_};
};

void target_download(benchmark::State& state) {
  if (!ravok::benchmarks::has_server(state)) {
    return;
  }
  Service service;
  for (auto _ : state) {
    state.PauseTiming();
    service.prepare();
    state.ResumeTiming();
    service.client().download("large", service.folder(), {}, {}, {.scope = "benchmark", .admission = {}});
  }
}
BENCHMARK(target_download)->Unit(benchmark::kMillisecond)->UseRealTime();

void target_download_yardstick(benchmark::State& state) {
  if (!ravok::benchmarks::has_server(state)) {
    return;
  }
  Service service;
  for (auto _ : state) {
    state.PauseTiming();
    service.prepare();
    state.ResumeTiming();
    service.transport().download("large", service.folder() / "large", large_bytes, {});
  }
}
BENCHMARK(target_download_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
