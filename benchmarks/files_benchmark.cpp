#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "platform/file/files.hpp"
#include "platform/file/posix_files.hpp"
#include "scratch.hpp"

namespace {

using ravok::benchmarks::Scratch;

void must(bool succeeded) {
  if (!succeeded) {
    std::abort();
  }
}

void atomic_write(benchmark::State& state) {
  const Scratch scratch;
  const std::string content(4096, 'x');
  for (auto _ : state) {
    ravok::atomic_write(scratch.path() / "record.json", content);
  }
}
BENCHMARK(atomic_write)->Unit(benchmark::kMicrosecond)->UseRealTime();

// Makes only the calls that flush as much: the file before its rename, the directory after it.
void atomic_write_yardstick(benchmark::State& state) {
  const Scratch scratch;
  const std::string content(4096, 'x');
  const std::string destination = scratch.path() / "record.json";
  const std::string transaction = destination + ".0123456789abcdef0123456789abcdef.tmp";
  for (auto _ : state) {
    const int file = open(transaction.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    must(write(file, content.data(), content.size()) == static_cast<ssize_t>(content.size()));
    must(fsync(file) == 0 && close(file) == 0);
    must(rename(transaction.c_str(), destination.c_str()) == 0);
    const int directory = open(scratch.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    must(fsync(directory) == 0 && close(directory) == 0);
  }
}
BENCHMARK(atomic_write_yardstick)->Unit(benchmark::kMicrosecond)->UseRealTime();

// A private directory eight levels below the root of the file system.
std::filesystem::path eight_levels(const Scratch& scratch) {
  std::filesystem::path path = scratch.path();
  for (auto levels = std::distance(path.begin(), path.end()) - 1; levels < 8; ++levels) {
    path /= "level";
  }
  ravok::private_directory(path);
  return path;
}

void private_directory(benchmark::State& state) {
  const Scratch scratch;
  const std::filesystem::path path = eight_levels(scratch);
  for (auto _ : state) {
    ravok::private_directory(path);
  }
}
BENCHMARK(private_directory)->Unit(benchmark::kMicrosecond)->UseRealTime();

// Makes only the opens and stats: a look for the system's links at each level, a guarded open compared with its name at
// each level, and the proof of the last.
void private_directory_yardstick(benchmark::State& state) {
  const Scratch scratch;
  const std::filesystem::path path = eight_levels(scratch);
  std::vector<std::string> names;
  std::vector<std::string> prefixes;
  std::filesystem::path prefix = "/";
  for (const auto& name : path.relative_path()) {
    names.push_back(name);
    prefixes.push_back(prefix /= name);
  }
  struct stat status;
  for (auto _ : state) {
    for (const std::string& each : prefixes) {
      must(lstat(each.c_str(), &status) == 0);
    }
    int parent = open("/", O_RDONLY | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC);
    for (const std::string& name : names) {
      const int child = openat(parent, name.c_str(), O_RDONLY | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC);
      must(fstat(child, &status) == 0 && fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0);
      close(parent);
      parent = child;
    }
    char list[1024];
    must(fgetxattr(parent, "system.posix_acl_access", list, sizeof list) <= 0);
    must(fgetxattr(parent, "system.posix_acl_default", list, sizeof list) <= 0);
    must(fstat(parent, &status) == 0 && lstat(path.c_str(), &status) == 0);
    close(parent);
  }
}
BENCHMARK(private_directory_yardstick)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
