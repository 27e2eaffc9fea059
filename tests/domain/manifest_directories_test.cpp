#include <cstddef>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "domain/manifest.hpp"

namespace ravok::manifest_directories_test {
namespace {

using Directories = std::set<std::string_view>;

SnapshotManifest manifest_of(const std::vector<std::string>& paths) {
  SnapshotManifest manifest;
  for (const std::string& path : paths) {
    manifest.files[path];
  }
  return manifest;
}

TEST(ManifestDirectories, AreNoneForFilesAtTheTop) {
  EXPECT_EQ(manifest_of({}).directories(), Directories{});
  EXPECT_EQ(manifest_of({"a", "b"}).directories(), Directories{});
}

TEST(ManifestDirectories, AreAllProperPrefixesOnceEach) {
  EXPECT_EQ(manifest_of({"a/b/c/one", "a/b/two", "a/three", "four", "x/y/five"}).directories(),
            (Directories{"a", "a/b", "a/b/c", "x", "x/y"}));
}

TEST(ManifestDirectories, AreToldApartWhereOneNameBeginsAnother) {
  EXPECT_EQ(manifest_of({"a-b/c/file", "a/c/file", "ab/c", "a.b/file"}).directories(),
            (Directories{"a", "a-b", "a-b/c", "a.b", "a/c", "ab"}));
}

TEST(ManifestDirectories, StandAheadOfThoseBelowThem) {
  const SnapshotManifest manifest = manifest_of({"a b/c/d/file", "a!/b/file", "a/b/c/file", "a0/file"});
  Directories seen;
  for (const std::string_view directory : manifest.directories()) {
    const std::size_t separator = directory.rfind('/');
    EXPECT_TRUE(separator == std::string_view::npos || seen.contains(directory.substr(0, separator))) << directory;
    seen.insert(directory);
  }
  EXPECT_EQ(seen.size(), 9u);
}

TEST(ManifestDirectories, AreViewsIntoTheFilesOfTheManifest) {
  const SnapshotManifest manifest = manifest_of({"folder/file"});
  EXPECT_EQ(manifest.directories().begin()->data(), manifest.files.begin()->first.data());
}

TEST(ManifestDirectories, AreCountedNoFurtherThanAsked) {
  const SnapshotManifest manifest = manifest_of({"a/b/c/one", "d/two", "e/three"});
  EXPECT_EQ(manifest.directories(5), (Directories{"a", "a/b", "a/b/c", "d", "e"}));
  EXPECT_EQ(manifest.directories(4).size(), 5u);
  EXPECT_EQ(manifest.directories(2).size(), 3u);
  EXPECT_EQ(manifest.directories(0).size(), 1u);
}

}  // namespace
}  // namespace ravok::manifest_directories_test
