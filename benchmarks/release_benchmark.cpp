// The release of a launcher of 300 MB in 3,000 files, beside the digests and copies that it must make.

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include "bare_digest.hpp"
#include "domain/crypto.hpp"
#include "platform/file/file_digest.hpp"
#include "publisher/publish_root.hpp"
#include "publisher/repository/init_repository.hpp"
#include "publisher/repository/publish_release.hpp"
#include "publisher/repository/repository_time.hpp"
#include "publisher/signing/publish_key.hpp"
#include "scratch.hpp"
#include "support/launcher_builder.hpp"
#include "support/manifest_builder.hpp"

namespace {

using ravok::benchmarks::check;

constexpr std::uint64_t archive_bytes = 300'000'000;
constexpr int file_count = 3'000;

// A launcher's manifest with its archive beside it, and an empty repository that it goes into again and again.
class Publisher {
 public:
  Publisher() {
    std::filesystem::create_directory(builds_);
    write_archive();
    write_manifest();
    const std::filesystem::path key = scratch_.path() / "key";
    ravok::publish_key(key, "ed25519");
    const std::filesystem::path root = scratch_.path() / "root.json";
    ravok::publish_root({root, "2050-01-01T00:00:00Z", {{key}, 1}, {{key}, 1}, {{key}, 1}, {{key}, 1}});
    ravok::SignerOptions options;
    options.keys = {key};
    signers_ = ravok::open_signers(options);
    ravok::init_repository({empty_, root, {}, {}}, signers_, now_);
  }

  // The repository holds nothing, the inputs are warm, and the disk is at rest.
  void prepare() {
    std::filesystem::remove_all(folder_);
    std::filesystem::copy(empty_, folder_, std::filesystem::copy_options::recursive);
    std::filesystem::remove_all(copies_);
    std::filesystem::create_directory(copies_);
    digest_.file(archive_.c_str());
    sync();
  }

  void release() const { ravok::publish_release({folder_, {{manifest_, ""}}, {}}, signers_, now_, {}); }

  // Digests the archive and the manifest, and copies both so that they last.
  void digest_and_copy() {
    for (const std::filesystem::path& file : {archive_, manifest_}) {
      digest_.file(file.c_str());
      copy(file, copies_ / file.filename());
    }
    const int folder = open(copies_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    check(folder >= 0 && fsync(folder) == 0);
    close(folder);
  }

 private:
  void write_archive() const {
    std::ofstream file(archive_, std::ios::binary);
    std::string piece(1'000'000, '\0');
    std::uint64_t state = 1;
    for (std::uint64_t done = 0; done < archive_bytes; done += piece.size()) {
      for (char& byte : piece) {
        state = state * 6364136223846793005u + 1442695040888963407u;
        byte = static_cast<char>(state >> 56);
      }
      file.write(piece.data(), static_cast<std::streamsize>(piece.size()));
    }
    check(file.good());
  }

  void write_manifest() const {
    std::vector<ravok::testing::ManifestFile> files = {{"bin/window", 10, 0755}};
    for (int number = 0; number < file_count; ++number) {
      files.push_back({"data/file-" + std::to_string(number), 100'000});
    }
    ravok::Json document = ravok::testing::as_launcher(ravok::testing::manifest_document(files));
    document["archive"]["target"] = archive_.filename();
    document["archive"]["length"] = archive_bytes;
    document["archive"]["sha256"] = ravok::digest_file(archive_, "sha256");
    std::ofstream(manifest_) << document.dump();
  }

  void copy(const std::filesystem::path& from, const std::filesystem::path& to) {
    const int input = open(from.c_str(), O_RDONLY | O_CLOEXEC);
    const int output = open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    check(input >= 0 && output >= 0);
    ssize_t count = 0;
    while ((count = read(input, buffer_.data(), buffer_.size())) > 0) {
      check(write(output, buffer_.data(), static_cast<std::size_t>(count)) == count);
    }
    check(count == 0 && fsync(output) == 0);
    close(input);
    close(output);
  }

  const ravok::benchmarks::Scratch scratch_;
  const std::filesystem::path builds_ = scratch_.path() / "builds";
  const std::filesystem::path archive_ = builds_ / "launcher.tar.zst";
  const std::filesystem::path manifest_ = builds_ / "launcher-linux-x86_64.manifest.json";
  const std::filesystem::path empty_ = scratch_.path() / "empty";
  const std::filesystem::path folder_ = scratch_.path() / "repository";
  const std::filesystem::path copies_ = scratch_.path() / "copies";
  const ravok::TufTime now_ = ravok::present_tuf_time();
  std::vector<ravok::Signer> signers_;
  ravok::benchmarks::BareDigest digest_;
  std::vector<char> buffer_ = std::vector<char>(1 << 20);
};

void repository_release(benchmark::State& state) {
  Publisher publisher;
  for (auto _ : state) {
    state.PauseTiming();
    publisher.prepare();
    state.ResumeTiming();
    publisher.release();
  }
}
BENCHMARK(repository_release)->Unit(benchmark::kMillisecond)->UseRealTime();

void repository_release_yardstick(benchmark::State& state) {
  Publisher publisher;
  for (auto _ : state) {
    state.PauseTiming();
    publisher.prepare();
    state.ResumeTiming();
    publisher.digest_and_copy();
  }
}
BENCHMARK(repository_release_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
