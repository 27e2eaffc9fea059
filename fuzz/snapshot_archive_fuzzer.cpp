// Whatever an archive holds, only files that its manifest names come out of it, of at most their length and below the
// staging directory. An archive that is not accepted is refused in words.
//
// The first byte of an input tells how the rest is taken: an even one as a tar archive in one frame, an odd one as the
// archive file itself.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include <sys/resource.h>
#include <sys/stat.h>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "memory_volume.hpp"
#include "platform/snapshot/snapshot_archive.hpp"
#include "platform/snapshot/snapshot_tree.hpp"
#include "property.hpp"
#include "support/tar_builder.hpp"
#include "support/temporary_root.hpp"

namespace {

using ravok::fuzz::must_hold;

struct ExpectedFile {
  const char* path;
  std::string_view content;
  bool executable;
};

constexpr ExpectedFile expected_files[] = {{"a", "first", false}, {"d/b", "#!second", true}, {"d/e/c", "", false}};

ravok::SnapshotManifest manifest_of(std::string_view archive) {
  ravok::SnapshotManifest manifest;
  manifest.archive_length = archive.size();
  manifest.archive_sha256 = ravok::digest(archive, "sha256");
  for (const ExpectedFile& file : expected_files) {
    manifest.files[file.path] = {file.content.size(), ravok::digest(file.content, "sha256"), file.executable};
    manifest.expanded_length += file.content.size();
  }
  return manifest;
}

std::string archive_of(std::string_view input) {
  const bool is_archive = !input.empty() && input[0] % 2 != 0;
  const std::string_view rest = input.substr(input.empty() ? 0 : 1);
  return is_archive ? std::string(rest) : ravok::testing::zstd_frame(rest);
}

void must_be_private(const std::filesystem::path& path, mode_t mode) {
  struct stat status;
  must_hold(lstat(path.c_str(), &status) == 0 && status.st_mode == mode, "what appears is private");
}

void check_staging(const std::filesystem::path& staging, const ravok::SnapshotManifest& manifest) {
  const auto directories = manifest.directories();
  for (const auto& entry : std::filesystem::recursive_directory_iterator(staging)) {
    const std::string path = entry.path().lexically_relative(staging);
    if (entry.symlink_status().type() == std::filesystem::file_type::directory) {
      must_hold(directories.contains(path), "only directories of the manifest appear");
      must_be_private(entry.path(), S_IFDIR | 0700);
      continue;
    }
    const auto file = manifest.files.find(path);
    must_hold(file != manifest.files.end(), "only files of the manifest appear");
    must_hold(entry.symlink_status().type() == std::filesystem::file_type::regular, "only ordinary files appear");
    must_hold(entry.file_size() <= file->second.length, "no file is longer than the manifest says");
    must_be_private(entry.path(), S_IFREG | (file->second.executable ? 0700 : 0600));
  }
}

void check_outside(const std::filesystem::path& root) {
  for (const auto& entry : std::filesystem::directory_iterator(root)) {
    const std::string name = entry.path().filename();
    must_hold(name == "archive" || name == "staging", "nothing appears outside the staging directory");
  }
}

// The bound is what the decoder's window and the two buffers may take, with room for the sanitizers.
void check_memory() {
  constexpr long most_kibibytes = 1 << 20;
  struct rusage usage;
  must_hold(getrusage(RUSAGE_SELF, &usage) == 0 && usage.ru_maxrss <= most_kibibytes, "memory is bounded");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const ravok::testing::TemporaryRoot root(ravok::fuzz::memory_volume());
  const std::string archive = archive_of({reinterpret_cast<const char*>(data), size});
  const std::filesystem::path path = root / "archive";
  const std::filesystem::path staging = root / "staging";
  std::ofstream(path, std::ios::binary | std::ios::trunc) << archive;
  const ravok::SnapshotManifest manifest = manifest_of(archive);
  try {
    ravok::extract_snapshot(manifest, path, staging, {}, nullptr);
    ravok::verify_snapshot_tree(manifest, staging, {});
  } catch (const ravok::Error& error) {
    must_hold(!error.code.empty() && error.what()[0] != '\0', "a refusal has a code and words");
  }
  check_staging(staging, manifest);
  check_outside(root.path());
  check_memory();
  std::filesystem::remove_all(staging);
  return 0;
}
