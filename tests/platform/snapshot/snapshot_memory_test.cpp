#include <algorithm>
#include <cstdint>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/file/files.hpp"
#include "platform/snapshot/snapshot_archive.hpp"
#include "publisher/snapshot_pack.hpp"
#include "support/process_memory.hpp"
#include "support/temporary_root.hpp"

namespace ravok::snapshot_memory_test {
namespace {

using testing::peak_of;
using testing::TemporaryRoot;

constexpr std::uint64_t mebibyte = 1 << 20;
constexpr std::uint64_t allowance = 16 * mebibyte;
// The level that the tests pack with, and its window.
constexpr int level = 3;
constexpr std::uint64_t window = 2 * mebibyte;

void write_file(const std::filesystem::path& path, std::uint64_t length, std::uint32_t state) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary);
  std::string piece(4096, '\0');
  for (std::uint64_t written = 0; written < length; written += piece.size()) {
    for (std::size_t i = 0; i < piece.size(); i += 4) {
      state = state * 1664525u + 1013904223u;
      piece[i] = static_cast<char>(state >> 24);
    }
    file.write(piece.data(), static_cast<std::streamsize>(std::min<std::uint64_t>(piece.size(), length - written)));
  }
  file.close();
  ASSERT_EQ(chmod(path.c_str(), 0755), 0);
}

struct Packed {
  SnapshotManifest manifest;
  std::filesystem::path archive;
};

Packed pack(const TemporaryRoot& root) {
  SnapshotInventory inventory = scan_snapshot_tree(root / "tree");
  ExportFile file(root / "archive");
  const PackedArchive archive =
      pack_snapshot(root / "tree", inventory, level, [&](std::string_view bytes) { file.write(bytes); }, {});
  file.commit();
  Packed packed{.manifest = {}, .archive = root / "archive"};
  packed.manifest.archive_length = archive.length;
  packed.manifest.archive_sha256 = archive.sha256;
  for (const auto& [path, entry] : inventory) {
    packed.manifest.expanded_length += entry.length;
  }
  packed.manifest.files = std::move(inventory);
  return packed;
}

void expect_bounded_extraction(const TemporaryRoot& root) {
  const Packed packed = pack(root);
  const std::uint64_t peak =
      peak_of([&] { extract_snapshot(packed.manifest, packed.archive, root / "staging", {}, nullptr); });
  EXPECT_GT(peak, 0u);
  EXPECT_LE(peak, window + allowance);
  EXPECT_TRUE(std::filesystem::exists(root / "staging"));
}

TEST(SnapshotMemory, IsBoundedForOneLargeFile) {
  const TemporaryRoot root;
  write_file(root / "tree/large", 192 * mebibyte, 1);
  expect_bounded_extraction(root);
}

TEST(SnapshotMemory, IsBoundedForManyFiles) {
  const TemporaryRoot root;
  for (int i = 0; i < 3000; ++i) {
    write_file(root / ("tree/directory-" + std::to_string(i % 60) + "/file-" + std::to_string(i)), 100,
               static_cast<std::uint32_t>(i));
  }
  expect_bounded_extraction(root);
}

}  // namespace
}  // namespace ravok::snapshot_memory_test
