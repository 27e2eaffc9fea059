// The refresh of a client that finds nothing new, beside another implementation's against the same server.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <benchmark/benchmark.h>

#include "bare_digest.hpp"
#include "processes.hpp"
#include "scratch.hpp"
#include "support/certificate.hpp"
#include "support/nginx_server.hpp"
#include "tuf/tuf.hpp"

namespace {

using ravok::benchmarks::check;
using ravok::benchmarks::run;
using ravok::benchmarks::Scratch;
using ravok::testing::NginxServer;

const std::string search_path = std::string("PATH=") + std::getenv("PATH");

// A served repository, and for each of the implementations a trusted directory with all that is to be had.
class Repository {
 public:
  Repository() {
    run("/usr/bin/env", {search_path, "NODE_PATH=" RAVOK_REPOSITORY_MAKER, "node", RAVOK_MAKE_REPOSITORY,
                         scratch_.path(), "consistent"});
    std::ofstream(authority_file_) << authority_.root();
    std::filesystem::create_directories(other_trusted_);
    std::filesystem::copy_file(root_file_, other_trusted_ / "root.json");
    std::ifstream root(root_file_);
    ravok::TufClient::initialize(trusted_, std::string(std::istreambuf_iterator<char>(root), {}));
    refresh();
    refresh_other();
  }

  void refresh() const { run(RAVOK_REFRESH_PROGRAM, {trusted_, url(), authority_file_}); }
  void refresh_other() const {
    run("/usr/bin/env",
        {search_path, "NODE_PATH=" RAVOK_REPOSITORY_MAKER, "NODE_EXTRA_CA_CERTS=" + authority_file_.native(), "node",
         RAVOK_OTHER_REFRESH, other_trusted_, url()});
  }

 private:
  std::string url() const { return server_.url() + "metadata"; }

  const Scratch scratch_;
  const std::filesystem::path authority_file_ = scratch_.path() / "authority.pem";
  const std::filesystem::path root_file_ = scratch_.path() / "consistent/root.json";
  const std::filesystem::path trusted_ = scratch_.path() / "trusted";
  const std::filesystem::path other_trusted_ = scratch_.path() / "other";
  const ravok::testing::CertificateAuthority authority_;
  const NginxServer server_{authority_.issue(), "location /metadata/ { root " +
                                                    (scratch_.path() / "consistent/after").native() +
                                                    "; try_files $request_uri =404; }"};
};

bool can_run(benchmark::State& state) {
  if (!NginxServer::is_installed() || !std::filesystem::is_directory(RAVOK_REPOSITORY_MAKER)) {
    state.SkipWithError("nginx or the other implementation is not installed");
    return false;
  }
  return true;
}

void idle_refresh(benchmark::State& state) {
  if (!can_run(state)) {
    return;
  }
  const Repository repository;
  for (auto _ : state) {
    repository.refresh();
  }
}
BENCHMARK(idle_refresh)->Unit(benchmark::kMillisecond)->UseRealTime();

void idle_refresh_yardstick(benchmark::State& state) {
  if (!can_run(state)) {
    return;
  }
  const Repository repository;
  for (auto _ : state) {
    repository.refresh_other();
  }
}
BENCHMARK(idle_refresh_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
