// A product of 300 MB in 3,000 files: installed, looked at, repaired where nothing is damaged, and removed.

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "app/install/native_install.hpp"
#include "bare_digest.hpp"
#include "bare_extraction.hpp"
#include "processes.hpp"
#include "sample_product.hpp"
#include "scratch.hpp"

namespace {

using ravok::benchmarks::BareDigest;
using ravok::benchmarks::check;
using ravok::benchmarks::extract_bare;
using ravok::benchmarks::file_paths;
using ravok::benchmarks::publish_sample;
using ravok::benchmarks::run;
using ravok::benchmarks::Scratch;

// A published product, and one data folder in which it is installed.
class Product {
 public:
  Product() {
    setenv("HOME", scratch_.path().c_str(), 1);
    unsetenv("XDG_DATA_HOME");
    seal = publish_sample(scratch_.path(), {.bootstrap_files = 100, .launcher_files = 2900});
    package = ravok::read_native_package(directory(), seal, {});
    install(installed());
  }

  std::filesystem::path directory() const { return scratch_.path() / "package"; }
  std::filesystem::path installed() const { return scratch_.path() / "installed"; }
  std::filesystem::path fresh() const { return scratch_.path() / "fresh"; }

  void clear_fresh() const {
    std::filesystem::remove_all(fresh());
    sync();
  }

  void install(const std::filesystem::path& data_root) const {
    ravok::NativeInstaller::install({directory(), data_root, false, false}, seal, {});
  }

  // Makes an installation whose files are hard links to those of the installed one.
  void link_fresh() const {
    clear_fresh();
    std::filesystem::copy(installed(), fresh(),
                          std::filesystem::copy_options::recursive | std::filesystem::copy_options::create_hard_links);
    // The file of a lock must have no second name.
    for (const char* lock : {".ravok-setup.lock", ".native-bootstrap.lock", "native/shortcuts.lock"}) {
      std::filesystem::remove(fresh() / lock);
    }
    sync();
  }

  void digest_package(BareDigest& digest) const {
    for (const auto& entry : std::filesystem::directory_iterator(directory())) {
      digest.file(entry.path().c_str());
    }
  }

  std::string seal;
  ravok::NativePackage package;

 private:
  Scratch scratch_;
};

const Product& product() {
  static const Product made;
  return made;
}

void install(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    product().clear_fresh();
    state.ResumeTiming();
    product().install(product().fresh());
  }
}

// Digests the package; digests each archive again and unpacks it, and digests its files once as they are written and
// twice as a whole.
void install_yardstick(benchmark::State& state) {
  const ravok::NativePackage& package = product().package;
  BareDigest digest;
  for (auto _ : state) {
    state.PauseTiming();
    product().clear_fresh();
    state.ResumeTiming();
    product().digest_package(digest);
    check(mkdir(product().fresh().c_str(), 0700) == 0);
    const auto unpack = [&](const ravok::SnapshotManifest& manifest, const std::filesystem::path& archive,
                            const char* name) {
      const std::filesystem::path staging = product().fresh() / name;
      const std::vector<std::string> files = file_paths(manifest, staging);
      extract_bare(archive, staging, files, digest);
      for (const std::string& file : files) {
        digest.file(file.c_str());
      }
    };
    unpack(package.bootstrap, package.bootstrap_archive(), "bootstrap");
    unpack(package.launcher, package.launcher_archive(), "launcher");
  }
}

void repair_intact(benchmark::State& state) {
  for (auto _ : state) {
    ravok::NativeInstaller::install({product().directory(), product().installed(), true, false}, product().seal, {});
  }
}

// Digests the package and the installed files.
void repair_intact_yardstick(benchmark::State& state) {
  const ravok::NativePackage& package = product().package;
  std::vector<std::string> files = file_paths(package.bootstrap, product().installed() / "native/bootstrap");
  for (const auto& version : std::filesystem::directory_iterator(product().installed() / "launcher/versions")) {
    for (const std::string& file : file_paths(package.launcher, version.path())) {
      files.push_back(file);
    }
  }
  BareDigest digest;
  for (auto _ : state) {
    product().digest_package(digest);
    for (const std::string& file : files) {
      digest.file(file.c_str());
    }
  }
}

void uninstall(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    product().link_fresh();
    state.ResumeTiming();
    ravok::NativeInstaller::uninstall({product().fresh(), true, std::chrono::milliseconds(0)}, {});
  }
}

void write_durably(const std::filesystem::path& path) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  check(file >= 0 && write(file, "{}", 2) == 2 && fsync(file) == 0 && close(file) == 0);
}

void flush_names(const std::filesystem::path& directory) {
  const int names = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  check(names >= 0 && fsync(names) == 0 && close(names) == 0);
}

// Writes the marker and the ledger and removes the record, each durably; then removes the tree, durably too.
void uninstall_yardstick(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    product().link_fresh();
    state.ResumeTiming();
    const std::filesystem::path root = product().fresh();
    write_durably(root / ".ravok-setup-incomplete");
    flush_names(root);
    check(unlink((root / "native/installation.json").c_str()) == 0);
    flush_names(root / "native");
    write_durably(root / "native/ledger.json");
    flush_names(root / "native");
    for (const auto& entry : std::filesystem::directory_iterator(root)) {
      if (entry.path().filename() != ".ravok-setup-incomplete") {
        std::filesystem::remove_all(entry.path());
      }
    }
    flush_names(root);
    check(unlink((root / ".ravok-setup-incomplete").c_str()) == 0);
    flush_names(root);
    check(rmdir(root.c_str()) == 0);
  }
}

void maintenance_status(benchmark::State& state) {
  for (auto _ : state) {
    run(RAVOK_MAINTENANCE, {"status", "--data-dir", product().installed()});
  }
}

void maintenance_status_yardstick(benchmark::State& state) {
  for (auto _ : state) {
    run(RAVOK_EMPTY_PROGRAM, {});
  }
}

BENCHMARK(install)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(install_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(repair_intact)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(repair_intact_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(uninstall)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(uninstall_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(maintenance_status)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(maintenance_status_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
