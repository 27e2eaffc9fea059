// A launcher that measures its own start: it lies in a store as a version's entry, and writes the nanoseconds that the
// start took into the file TIMES.
//
//   launcher_runtime_program runtime ROOT TIMES              attaches and reports health, as the environment tells it
//   launcher_runtime_program bare ROOT TIMES SHA256 NONCE    makes only the reads, digests, locks and flushes of that

#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/file.h>
#include <unistd.h>

#include "app/launcher/launcher_runtime.hpp"
#include "domain/crypto.hpp"

namespace {

void must(bool succeeded) {
  if (!succeeded) {
    std::abort();
  }
}

using Clock = std::chrono::steady_clock;

Clock::duration attach_and_report(const std::string& root) {
  const auto start = Clock::now();
  const auto runtime = ravok::LauncherRuntime::attach("build-1", "gui", root);
  ravok::report_launcher_health(runtime.get());
  return Clock::now() - start;
}

// The lock stays until the process ends.
void lock(const std::filesystem::path& path) {
  const int file = open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  must(file >= 0 && flock(file, LOCK_SH | LOCK_NB) == 0);
}

std::string read_whole(const std::filesystem::path& path) {
  const int file = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  std::string bytes(static_cast<std::size_t>(lseek(file, 0, SEEK_END)), '\0');
  must(pread(file, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()) && close(file) == 0);
  return bytes;
}

void digest_file(const std::filesystem::path& path) {
  const std::string bytes = read_whole(path);
  std::array<unsigned char, EVP_MAX_MD_SIZE> value;
  unsigned int length = 0;
  must(EVP_Digest(bytes.data(), bytes.size(), value.data(), &length, EVP_sha256(), nullptr) == 1);
}

void create_durably(const std::filesystem::path& path, const std::string& bytes) {
  const std::string transaction = path.string() + ".tmp";
  const int file = open(transaction.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  must(write(file, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
  must(fsync(file) == 0 && close(file) == 0);
  must(link(transaction.c_str(), path.c_str()) == 0 && unlink(transaction.c_str()) == 0);
  const int directory = open(path.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  must(fsync(directory) == 0 && close(directory) == 0);
}

Clock::duration touch_what_must_be(const std::filesystem::path& root, const std::string& sha256,
                                   const std::string& nonce) {
  const std::filesystem::path store = root / "launcher";
  const std::filesystem::path manifest = store / "manifests" / (sha256 + ".json");
  const std::filesystem::path document = store / "installation.json";
  const std::filesystem::path attempts = store / "leases/attempts";
  const std::string text(300, 'x');
  const auto start = Clock::now();
  lock(attempts / (nonce + ".lock"));
  lock(store / "leases/versions" / (sha256 + ".lock"));
  digest_file(manifest);
  read_whole(document);
  create_durably(attempts / (nonce + ".json"), text);
  // A writing store reads the document when it opens, and again for the attempt.
  read_whole(document);
  read_whole(document);
  digest_file(manifest);
  create_durably(store / "health" / (nonce + ".json"), text);
  return Clock::now() - start;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  ravok::initialize_client_runtime();
  const Clock::duration time = words.at(0) == "runtime" ? attach_and_report(words.at(1))
                                                        : touch_what_must_be(words.at(1), words.at(3), words.at(4));
  std::ofstream(words.at(2)) << std::chrono::nanoseconds(time).count();
  return 0;
}
