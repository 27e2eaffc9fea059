#include "publisher/publish_snapshot.hpp"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "domain/game_manifest.hpp"
#include "domain/path_tree.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/process/native_platform.hpp"
#include "platform/snapshot/snapshot_archive.hpp"
#include "platform/snapshot/snapshot_tree.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"

namespace ravok {
namespace {

using testing::TemporaryRoot;

SnapshotPublication game_of(const TemporaryRoot& root, const std::string& executable) {
  SnapshotPublication publication;
  publication.tree = root / "tree";
  publication.output = root.directory("output");
  publication.build_id = "build-1";
  publication.platform = native_platform();
  publication.executable = executable;
  publication.level = 3;
  publication.game_id = "game";
  publication.display_name = "Game";
  return publication;
}

GameManifest read_manifest(const PublishedSnapshot& published) {
  constexpr std::uint64_t limit = 1 << 28;
  return GameManifest::parse(parse_json(read_file(published.manifest, limit), limit));
}

bool may_be_published(const std::string& path) {
  return !testing::failure_of([&] { validate_relative_path(path, true); }) &&
         std::all_of(path.begin(), path.end(), [](char c) { return c >= 32 && c <= 126; });
}

// Copies files of this machine that a snapshot may hold, at most `most` of them.
std::vector<std::string> copy_real_files(const std::filesystem::path& from, const std::filesystem::path& to,
                                         std::size_t most) {
  std::vector<std::string> copied;
  PathTree paths;
  std::set<std::string> kept;
  std::error_code problem;
  constexpr auto options = std::filesystem::directory_options::skip_permission_denied;
  for (std::filesystem::recursive_directory_iterator entry(from, options, problem), end;
       !problem && entry != end && copied.size() < most; entry.increment(problem)) {
    const std::string path = entry->path().lexically_relative(from);
    if (!entry->is_regular_file() || entry->is_symlink() || !may_be_published(path) ||
        access(entry->path().c_str(), R_OK) != 0 ||
        testing::failure_of([&] { paths.add_file(*kept.insert(path).first); })) {
      continue;
    }
    std::filesystem::create_directories((to / path).parent_path());
    std::filesystem::copy_file(entry->path(), to / path);
    EXPECT_EQ(chmod((to / path).c_str(), copied.size() % 7 == 0 ? 0755 : 0644), 0);
    copied.push_back(path);
  }
  return copied;
}

std::string content_of(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(PublishSnapshot, CarriesARealTreeOfThousandsOfFiles) {
  const TemporaryRoot root;
  std::vector<std::string> files = copy_real_files("/usr/include", root / "tree", 4000);
  ASSERT_GT(files.size(), 1000u);
  const SnapshotPublication publication = game_of(root, files.front());
  const PublishedSnapshot published = publish_snapshot(publication, {});
  EXPECT_EQ(published.files, files.size());

  const GameManifest manifest = read_manifest(published);
  EXPECT_EQ(manifest.files.size(), files.size());
  verify_snapshot_tree(manifest, publication.tree, {});
  extract_snapshot(manifest, published.archive, root / "staging", {}, nullptr);
  EXPECT_EQ(damaged_snapshot_files(manifest, root / "staging", {}, 10).count, 0u);
  for (std::size_t i = 0; i < files.size(); ++i) {
    ASSERT_EQ(content_of(root / "staging" / files[i]), content_of(publication.tree / files[i])) << files[i];
    const bool executable = access((root / "staging" / files[i]).c_str(), X_OK) == 0;
    ASSERT_EQ(executable, i % 7 == 0) << files[i];
  }
}

// Content that neither compresses away nor stays as it is.
void write_large_file(const std::filesystem::path& path, std::uint64_t length) {
  std::ofstream file(path, std::ios::binary);
  std::string piece(1 << 20, '\0');
  std::uint32_t state = 1;
  for (std::uint64_t written = 0; written < length; written += piece.size()) {
    for (std::size_t i = 0; i < piece.size(); i += 16) {
      state = state * 1664525u + 1013904223u;
      piece[i] = static_cast<char>(state >> 24);
    }
    file.write(piece.data(), static_cast<std::streamsize>(piece.size()));
  }
  file.close();
  ASSERT_TRUE(file.good());
  ASSERT_EQ(chmod(path.c_str(), 0755), 0);
}

TEST(PublishSnapshot, CarriesAGibibyteInAFewFiles) {
  constexpr std::uint64_t gibibyte = 1 << 30;
  const TemporaryRoot root;
  if (std::filesystem::space(root.path()).available < 4 * gibibyte) {
    GTEST_SKIP() << "needs 4 GiB of free space";
  }
  root.directory("tree");
  for (const char* name : {"a", "b", "c", "d"}) {
    write_large_file(root / (std::string("tree/") + name), gibibyte / 4);
  }
  SnapshotPublication publication = game_of(root, "a");
  publication.level = 1;
  const PublishedSnapshot published = publish_snapshot(publication, {});
  EXPECT_EQ(published.expanded_length, gibibyte);
  const GameManifest manifest = read_manifest(published);
  std::filesystem::remove_all(publication.tree);
  extract_snapshot(manifest, published.archive, root / "staging", {}, nullptr);
  verify_snapshot_tree(manifest, root / "staging", {});
}

std::string nested(int levels) {
  std::string path;
  for (int i = 0; i < levels; ++i) {
    path += "d/";
  }
  return path + "file";
}

TEST(PublishSnapshot, LeavesLevelsForThePlaceOfTheInstallation) {
  for (const int levels : {96, 97}) {
    const TemporaryRoot root;
    const std::string path = nested(levels);
    root.write("tree/" + path, "x");
    ASSERT_EQ(chmod((root / "tree" / path).c_str(), 0755), 0);
    if (levels == 96) {
      EXPECT_EQ(publish_snapshot(game_of(root, path), {}).files, 1u);
    } else {
      EXPECT_FAILURE(publish_snapshot(game_of(root, path), {}), "size_limit",
                     "Package directories are nested too deeply: " + path);
      EXPECT_TRUE(std::filesystem::is_empty(root / "output"));
    }
  }
}

TEST(PublishSnapshot, LeavesNothingBehindWhenItIsCancelled) {
  const TemporaryRoot root;
  root.write("tree/program", std::string(1 << 20, 'x'));
  ASSERT_EQ(chmod((root / "tree/program").c_str(), 0755), 0);
  int calls = 0;
  EXPECT_FAILURE(publish_snapshot(game_of(root, "program"), [&](std::uint64_t, std::uint64_t) { return ++calls < 5; }),
                 "cancelled", "Operation cancelled at a safe boundary");
  EXPECT_EQ(calls, 5);
  EXPECT_TRUE(std::filesystem::is_empty(root / "output"));
}

TEST(PublishSnapshot, RefusesATreeThatChangesMeanwhile) {
  const TemporaryRoot root;
  root.write("tree/a", "a");
  root.write("tree/program", std::string(1 << 20, 'x'));
  ASSERT_EQ(chmod((root / "tree/program").c_str(), 0755), 0);
  const auto change = [&](std::uint64_t done, std::uint64_t) {
    if (done == 1) {
      std::ofstream(root / "tree/program", std::ios::app) << "more";
    }
    return true;
  };
  EXPECT_FAILURE(publish_snapshot(game_of(root, "program"), change), "content_mismatch",
                 "The tree changed while it was packed: program");
  EXPECT_TRUE(std::filesystem::is_empty(root / "output"));
}

}  // namespace
}  // namespace ravok
