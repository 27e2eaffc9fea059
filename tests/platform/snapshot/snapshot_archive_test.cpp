#include "platform/snapshot/snapshot_archive.hpp"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <iterator>
#include <limits>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "domain/crypto.hpp"
#include "platform/os.hpp"
#include "platform/snapshot/reserved_tree.hpp"
#include "support/failure.hpp"
#include "support/snapshot_builder.hpp"
#include "support/tar_builder.hpp"
#include "support/temporary_root.hpp"

namespace ravok::snapshot_archive_test {
namespace {

using testing::manifest_of;
using testing::members_of;
using testing::noise;
using testing::raw_zstd_frame;
using testing::Sample;
using testing::SampleFile;
using testing::skippable_frame;
using testing::tar_archive;
using testing::tar_end;
using testing::tar_member;
using testing::tar_reseal;
using testing::TarMember;
using testing::TemporaryRoot;
using testing::zstd_frame;

using Files = std::vector<SampleFile>;
using Members = std::vector<TarMember>;
using Names = std::vector<std::string>;

constexpr std::size_t piece_bytes = 65536;
constexpr std::size_t block_bytes = 512;

constexpr const char* not_authentic = "Snapshot differs from its verified application manifest";
constexpr const char* not_fresh = "A fresh staging directory is required";
constexpr const char* wrong_path = "Archive path is not valid UTF-8";
constexpr const char* wrong_type = "Only ordinary files are accepted in snapshots";
constexpr const char* unexpected = "Archive contains an unexpected or duplicate file";
constexpr const char* wrong_form = "Archive file length or mode differs from manifest";
constexpr const char* not_decompressed = "Snapshot decompression failed";
constexpr const char* cannot_open = "Cannot open snapshot archive";
constexpr const char* malformed = "Snapshot is incomplete or malformed";
constexpr const char* wrong_content = "Extracted file hash differs from manifest";
constexpr const char* not_one_frame = "Snapshot must contain exactly one ordinary Zstandard frame";
constexpr const char* truncated = "Snapshot frame is truncated";
constexpr const char* undecodable = "Snapshot decoding failed or exceeds the 64 MiB window limit";
constexpr const char* too_large = "Decoded tar stream exceeds authenticated expansion bounds";
constexpr const char* trailing = "Trailing or concatenated Zstandard frames are forbidden";
constexpr const char* cancelled = "Operation cancelled at a safe boundary";
constexpr const char* through_link = "Managed path contains a symbolic link";
constexpr const char* unsafe_relative = "Path must be a safe relative path";
constexpr const char* unsafe_component = "Path contains an unsafe component";

mode_t mode_of(const std::filesystem::path& path) {
  struct stat status;
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status.st_mode;
}

// So many files that the bound on decoded bytes is far larger than the archive.
Files many_files() {
  Files files = {{"program", "x", 0755}};
  for (int i = 0; i < 20; ++i) {
    files.push_back({"file-" + std::to_string(i), "x"});
  }
  return files;
}

class ExtractSnapshotTest : public ::testing::Test {
 protected:
  const TemporaryRoot root;
  const std::filesystem::path staging = root / "staging";
  const Files files = {{"bin/program", "#!program", 0755},
                       {"data/deep/large", noise(3 * piece_bytes + 5)},
                       {"data/empty"},
                       {"readme", "text"}};

  Sample sample() const { return testing::write_tar_sample(root, files, tar_archive(members_of(files))); }

  void extract(const Sample& sample, const ProgressCallback& progress = {},
               const ReservedTree* reserved = nullptr) const {
    extract_snapshot(sample.manifest, sample.archive, staging, progress, reserved);
  }

  // The names in the root besides the archive.
  Names names() const {
    Names names = root.names();
    std::erase(names, "archive");
    return names;
  }

  static ReservedTree reserve(const Sample& sample, const std::filesystem::path& path) {
    return ReservedTree(sample.manifest, path, {}, {});
  }

  void expect_unpacked(const Files& expected) const {
    for (const SampleFile& file : expected) {
      EXPECT_TRUE(root.read("staging/" + file.path) == file.content) << file.path;
      EXPECT_EQ(mode_of(staging / file.path), S_IFREG | (file.mode == 0755 ? 0700u : 0600u)) << file.path;
    }
  }

  // The extraction of these members fails, and leaves these names in the staging directory.
  void expect_refused(const std::string& tar, const char* code, const char* message,
                      const Names& left = {"staging/"}) const {
    const Sample spoiled = testing::write_tar_sample(root, files, tar);
    EXPECT_FAILURE(extract(spoiled), code, message);
    EXPECT_EQ(names(), left);
    std::filesystem::remove_all(staging);
  }

  // The same for a wrong member in front of the right ones.
  void expect_member_refused(const TarMember& member, const char* code, const char* message) const {
    SCOPED_TRACE("member " + member.path + " of type " + member.type);
    expect_refused(tar_member(member) + tar_archive(members_of(files)), code, message);
  }

  // The same for the right members with the first of them changed.
  template <typename Change>
  void expect_change_refused(Change change, const char* code, const char* message,
                             const Names& left = {"staging/"}) const {
    Members members = members_of(files);
    change(members.at(0));
    expect_refused(tar_archive(members), code, message, left);
  }
};

// --- What is unpacked ----------------------------------------------------------------------

TEST_F(ExtractSnapshotTest, UnpacksTheManifestsFilesAsPrivateOnes) {
  extract(sample());
  EXPECT_EQ(names(), (Names{"staging/", "staging/bin/", "staging/bin/program", "staging/data/", "staging/data/deep/",
                            "staging/data/deep/large", "staging/data/empty", "staging/readme"}));
  expect_unpacked(files);
  for (const char* directory : {"staging", "staging/bin", "staging/data", "staging/data/deep"}) {
    EXPECT_EQ(mode_of(root / directory), S_IFDIR | 0700u) << directory;
  }
}

TEST_F(ExtractSnapshotTest, UnpacksInAnyOrder) {
  Members members = members_of(files);
  std::reverse(members.begin(), members.end());
  extract(testing::write_tar_sample(root, files, tar_archive(members)));
  expect_unpacked(files);
}

TEST_F(ExtractSnapshotTest, UnpacksFilesOfEverySizeAroundItsPieces) {
  Files sized = {{"program", "", 0755}};
  for (const std::size_t middle : {block_bytes, 4096ul, piece_bytes, 2 * piece_bytes}) {
    for (const std::size_t size : {middle - 1, middle, middle + 1}) {
      sized.push_back({"file-" + std::to_string(size), noise(size)});
    }
  }
  extract(testing::write_tar_sample(root, sized, tar_archive(members_of(sized))));
  expect_unpacked(sized);
}

TEST_F(ExtractSnapshotTest, UnpacksNamesThatDoNotFitTheirHeader) {
  const std::string directory(60, 'd');
  const std::string name(120, 'n');
  const Files named = {{directory + "/" + name, "GNU", 0755}, {directory + "/" + name + "2", "extended"}};
  Members members = members_of(named);
  members[0].gnu_long_path = true;
  members[1].extended = {{"path", members[1].path}};
  members[1].path = "shortened";
  extract(testing::write_tar_sample(root, named, tar_archive(members)));
  expect_unpacked(named);
  EXPECT_FALSE(std::filesystem::exists(staging / "shortened"));
}

TEST_F(ExtractSnapshotTest, UnpacksNamesThatStandForMetadataElsewhere) {
  const Files named = {{"data/._readme", "another", 0755}, {"data/readme", "text"}, {"._top"}, {"top", "x"}};
  extract(testing::write_tar_sample(root, named, tar_archive(members_of(named))));
  expect_unpacked(named);
}

TEST_F(ExtractSnapshotTest, UnpacksWhatAnExtendedHeaderSaysNothingForeignOf) {
  Members members = members_of(files);
  members[0].extended = {{"mtime", "1234.5"}, {"uname", "somebody"}, {"comment", "none"}};
  members[1].extended = {{"size", std::to_string(members[1].content.size())}};
  // The member stays an ordinary file in spite of this record.
  members[2].extended = {{"linkpath", "/etc/passwd"}};
  const TarMember global = {.path = "pax_global_header", .content = "20 comment=whatever\n", .type = 'g'};
  extract(testing::write_tar_sample(root, files, tar_member(global) + tar_archive(members)));
  expect_unpacked(files);
  // The archive's times are not those of the files.
  const auto yesterday = std::filesystem::file_time_type::clock::now() - std::chrono::hours(24);
  EXPECT_GT(std::filesystem::last_write_time(staging / "bin/program"), yesterday);
}

TEST_F(ExtractSnapshotTest, TakesEveryFormOfAnOrdinaryFilesType) {
  Members members = members_of(files);
  members[0].type = '\0';
  members[3].type = '7';
  extract(testing::write_tar_sample(root, files, tar_archive(members)));
  expect_unpacked(files);
}

TEST_F(ExtractSnapshotTest, UnpacksFramesWithAWindowUpToTheBound) {
  const std::string tar = tar_archive(members_of(files));
  extract(testing::write_sample(root, files, raw_zstd_frame(tar, 0x80)));
  expect_unpacked(files);
  for (const char window : {'\x81', '\x88'}) {
    std::filesystem::remove_all(staging);
    EXPECT_FAILURE(extract(testing::write_sample(root, files, raw_zstd_frame(tar, static_cast<std::uint8_t>(window)))),
                   "archive", undecodable);
    EXPECT_EQ(names(), Names{"staging/"});
  }
}

TEST_F(ExtractSnapshotTest, MakesTheDirectoriesAboveItsStagingDirectory) {
  const Sample snapshot = sample();
  extract_snapshot(snapshot.manifest, snapshot.archive, root / "a/b/staging", {}, nullptr);
  EXPECT_EQ(root.read("a/b/staging/readme"), "text");
  EXPECT_EQ(mode_of(root / "a/b"), S_IFDIR | 0700u);
}

TEST_F(ExtractSnapshotTest, UnpacksAsManyLevelsAsPrivateDirectoriesMayHave) {
  constexpr std::ptrdiff_t maximum_levels = 128;
  const auto above = std::distance(staging.begin(), staging.end()) - 1;
  std::string path;
  for (std::ptrdiff_t level = above; level < maximum_levels; ++level) {
    path += "d/";
  }
  Files deep = {{path + "program", "x", 0755}};
  Members members = members_of(deep);
  members[0].gnu_long_path = true;
  extract(testing::write_tar_sample(root, deep, tar_archive(members)));
  expect_unpacked(deep);
  std::filesystem::remove_all(staging);

  deep[0].path = members[0].path = "d/" + deep[0].path;
  EXPECT_FAILURE(extract(testing::write_tar_sample(root, deep, tar_archive(members))), "size_limit",
                 std::string(os::system_name()) + " directory ancestry exceeds its bound");
  EXPECT_FALSE(std::filesystem::exists(staging / deep[0].path));
}

// --- The archive itself --------------------------------------------------------------------

TEST_F(ExtractSnapshotTest, NeedsExactlyTheArchiveOfItsManifest) {
  const Files small = {{"program", "x", 0755}};
  const std::string archive = zstd_frame(tar_archive(members_of(small)));
  const Sample whole = testing::write_sample(root, small, archive);
  std::vector<std::string> others = {"", archive + '\0', archive.substr(0, archive.size() - 1), archive.substr(1)};
  for (std::size_t i = 0; i < archive.size(); ++i) {
    others.push_back(archive);
    others.back()[i] = static_cast<char>(others.back()[i] ^ 1 << i % 8);
  }
  for (const std::string& other : others) {
    root.write("archive", other);
    EXPECT_FAILURE(extract(whole), "content_mismatch", not_authentic);
  }
  EXPECT_EQ(names(), Names{});
  root.write("archive", archive);
  extract(whole);
}

TEST_F(ExtractSnapshotTest, NeedsExactlyTheArchiveOfItsManifestInAPartOfAFile) {
  const Files small = {{"program", "x", 0755}};
  const std::string archive = zstd_frame(tar_archive(members_of(small)));
  const Sample snapshot = testing::write_sample(root, small, archive);
  const FileRange package = FileRange::whole_file(root.write("package", "head" + archive + "tail"));
  const auto extract_part = [&](std::uint64_t offset, std::uint64_t length) {
    extract_snapshot(snapshot.manifest, package.part(offset, length), staging, {}, nullptr);
  };
  for (const std::uint64_t offset : {3U, 5U}) {
    EXPECT_FAILURE(extract_part(offset, archive.size()), "content_mismatch", not_authentic);
  }
  for (const std::uint64_t length : {archive.size() - 1, archive.size() + 1}) {
    EXPECT_FAILURE(extract_part(4, length), "content_mismatch", not_authentic);
  }
  EXPECT_EQ(names(), Names{"package"});
  extract_part(4, archive.size());
  EXPECT_EQ(root.read("staging/program"), "x");
}

TEST_F(ExtractSnapshotTest, NeedsAnOrdinaryArchive) {
  Sample snapshot = sample();
  std::filesystem::rename(snapshot.archive, root / "real");
  std::filesystem::create_symlink("real", root / "link");
  root.directory("directory");
  ASSERT_EQ(mkfifo((root / "queue").c_str(), 0600), 0);
  const Names before = names();
  for (const char* name : {"missing", "link", "directory", "queue"}) {
    snapshot.archive = root / name;
    EXPECT_FAILURE(extract(snapshot), "content_mismatch", not_authentic) << name;
  }
  EXPECT_EQ(names(), before);
}

TEST_F(ExtractSnapshotTest, TakesNoLinkToItsArchiveThatIsAsLongAsThat) {
  const Files small = {{"program", "x", 0755}};
  Sample snapshot = testing::write_tar_sample(root, small, tar_archive(members_of(small)));
  const std::string name = "archive";
  const std::string target = "." + std::string(snapshot.manifest.archive_length - 1 - name.size(), '/') + name;
  snapshot.archive = root / "link";
  std::filesystem::create_symlink(target, snapshot.archive);
  ASSERT_EQ(std::filesystem::file_size(snapshot.archive), snapshot.manifest.archive_length);
  EXPECT_FAILURE(extract(snapshot), "content_mismatch", not_authentic);
  EXPECT_EQ(names(), Names{"link@"});
}

TEST_F(ExtractSnapshotTest, LooksAtTheArchiveAheadOfTheStagingDirectory) {
  Sample snapshot = sample();
  root.write("staging/mine", "mine");
  snapshot.manifest.archive_sha256 = digest("", "sha256");
  EXPECT_FAILURE(extract(snapshot), "content_mismatch", not_authentic);
  EXPECT_EQ(names(), (Names{"staging/", "staging/mine"}));
  EXPECT_EQ(root.read("staging/mine"), "mine");
}

TEST_F(ExtractSnapshotTest, TouchesNothingThatIsThereAlready) {
  const Sample snapshot = sample();
  root.write("staging/mine", "mine");
  ASSERT_EQ(chmod(staging.c_str(), 0750), 0);
  EXPECT_FAILURE(extract(snapshot), "staging_exists", not_fresh);
  EXPECT_EQ(names(), (Names{"staging/", "staging/mine"}));
  EXPECT_EQ(mode_of(staging), S_IFDIR | 0750u);
  std::filesystem::remove_all(staging);

  root.directory("staging");
  EXPECT_FAILURE(extract(snapshot), "staging_exists", not_fresh);
  std::filesystem::remove_all(staging);

  root.write("staging", "mine");
  EXPECT_FAILURE(extract(snapshot), "staging_exists", not_fresh);
  EXPECT_EQ(root.read("staging"), "mine");
  std::filesystem::remove_all(staging);

  std::filesystem::create_symlink("missing", staging);
  EXPECT_FAILURE(extract(snapshot), "staging_exists", not_fresh);
  EXPECT_EQ(names(), Names{"staging@"});
}

// --- Places --------------------------------------------------------------------------------

TEST_F(ExtractSnapshotTest, TakesASeparatorAtTheEndOfTheStagingDirectoryForNothing) {
  const Sample snapshot = sample();
  extract_snapshot(snapshot.manifest, snapshot.archive, staging.native() + "/", {}, nullptr);
  expect_unpacked(files);
  std::filesystem::remove_all(staging);

  for (const auto& [made, used] : {std::pair{"", "/"}, {"/", ""}, {"/", "//"}}) {
    const ReservedTree reserved = reserve(snapshot, staging.native() + made);
    extract_snapshot(snapshot.manifest, snapshot.archive, staging.native() + used, {}, &reserved);
    expect_unpacked(files);
    std::filesystem::remove_all(staging);
  }
}

TEST_F(ExtractSnapshotTest, RefusesWhatIsThereWithOrWithoutASeparator) {
  const Sample snapshot = sample();
  root.write("file", "mine");
  root.directory("real");
  std::filesystem::create_symlink("real", root / "link");
  std::filesystem::create_symlink("nowhere", root / "dangling");
  const Names before = names();
  for (const char* name : {"file", "real", "link", "dangling"}) {
    for (const char* end : {"", "/"}) {
      const std::string place = (root / name).native() + end;
      EXPECT_FAILURE(extract_snapshot(snapshot.manifest, snapshot.archive, place, {}, nullptr), "staging_exists",
                     not_fresh)
          << place;
    }
  }
  EXPECT_EQ(names(), before);
}

TEST_F(ExtractSnapshotTest, KnowsNoArchiveBehindASeparatorAtItsEnd) {
  const Sample snapshot = sample();
  EXPECT_FAILURE(extract_snapshot(snapshot.manifest, snapshot.archive.native() + "/", staging, {}, nullptr),
                 "content_mismatch", not_authentic);
  EXPECT_EQ(names(), Names());
}

// --- The frame -----------------------------------------------------------------------------

TEST_F(ExtractSnapshotTest, RefusesAnythingButOneFrame) {
  const std::string frame = zstd_frame(tar_archive(members_of(files)));
  const struct {
    std::string archive;
    const char* message;
  } cases[] = {{skippable_frame("skipped") + frame, not_one_frame},
               {tar_archive(members_of(files)), not_one_frame},
               {"\x28\xb5\x2f", not_one_frame},
               {frame + frame, trailing},
               {frame + zstd_frame(""), trailing},
               {frame + skippable_frame(""), trailing},
               {frame + "x", trailing}};
  for (const auto& spoiled : cases) {
    EXPECT_FAILURE(extract(testing::write_sample(root, files, spoiled.archive)), "archive", spoiled.message);
    const Names left = names();
    EXPECT_TRUE(std::all_of(left.begin(), left.end(), [](const auto& name) { return name.starts_with("staging/"); }));
    std::filesystem::remove_all(staging);
  }
}

TEST_F(ExtractSnapshotTest, RefusesAContinuationThoughTheTarIsUnpackedByThen) {
  // The archive's end lies far ahead of the frame's.
  const Files many = many_files();
  const std::string tar = tar_archive(members_of(many)) + std::string(2 * piece_bytes, '\0');
  EXPECT_FAILURE(extract(testing::write_sample(root, many, zstd_frame(tar) + "x")), "archive", trailing);
  std::filesystem::remove_all(staging);
  EXPECT_FAILURE(extract(testing::write_sample(root, many, raw_zstd_frame(tar).substr(0, tar.size()))), "archive",
                 truncated);
  std::filesystem::remove_all(staging);
  extract(testing::write_tar_sample(root, many, tar));
  expect_unpacked(many);
}

TEST_F(ExtractSnapshotTest, TellsATruncatedFrameAtWhateverPageItEnds) {
  const std::string whole = raw_zstd_frame(tar_archive(members_of(files)));
  const std::set<std::string> allowed = {"staging/",           "staging/bin/",       "staging/bin/program",
                                         "staging/data/",      "staging/data/deep/", "staging/data/deep/large",
                                         "staging/data/empty", "staging/readme"};
  ASSERT_GT(whole.size(), 40u * 4096);
  for (std::size_t size = 4096; size < whole.size(); size += 4096) {
    EXPECT_FAILURE(extract(testing::write_sample(root, files, whole.substr(0, size))), "archive", truncated) << size;
    for (const std::string& name : names()) {
      EXPECT_TRUE(allowed.contains(name)) << name;
    }
    // A file that could not be completed is removed.
    const bool complete = size > files[1].content.size() + 5 * block_bytes;
    EXPECT_EQ(std::filesystem::exists(staging / "data/deep/large"), complete) << size;
    std::filesystem::remove_all(staging);
  }
}

TEST_F(ExtractSnapshotTest, UnpacksNothingOfABomb) {
  expect_member_refused({.path = "bomb", .content = std::string(16 << 20, '\0')}, "archive_inventory", unexpected);
  expect_member_refused({.path = "readme", .content = std::string(16 << 20, '\0')}, "archive_inventory", wrong_form);
}

TEST_F(ExtractSnapshotTest, StopsHeadersThatGoBeyondTheirAllowance) {
  Members members = members_of(files);
  for (TarMember& member : members) {
    member.extended = {{"comment", std::string(40'000, 'c')}};
  }
  std::rotate(members.begin(), members.begin() + 1, members.end());
  expect_refused(tar_archive(members), "archive", too_large, {"staging/", "staging/data/", "staging/data/deep/"});
}

TEST_F(ExtractSnapshotTest, AllowsEachMember8KibibytesAndTheEnd10More) {
  const Files many = many_files();
  const std::size_t limit = many.size() * (1 + 8192) + 10'240;
  std::string tar = tar_archive(members_of(many));
  ASSERT_LT(tar.size(), piece_bytes);
  ASSERT_GT(limit, 2 * piece_bytes);
  tar.resize(limit, '\0');
  extract(testing::write_tar_sample(root, many, tar));
  expect_unpacked(many);
  std::filesystem::remove_all(staging);

  EXPECT_FAILURE(extract(testing::write_tar_sample(root, many, tar + '\0')), "size_limit", too_large);
  expect_unpacked(many);
}

TEST_F(ExtractSnapshotTest, AllowsOneFileItsOverheadAndNoMore) {
  const Files one = {{"program", "x", 0755}};
  std::string tar = tar_archive(members_of(one));
  tar.resize(1 + 8192 + 10'240, '\0');
  extract(testing::write_tar_sample(root, one, tar));
  std::filesystem::remove_all(staging);
  EXPECT_FAILURE(extract(testing::write_tar_sample(root, one, tar + '\0')), "archive", too_large);
  EXPECT_EQ(names(), Names{"staging/"});
}

// --- Entries -------------------------------------------------------------------------------

TEST_F(ExtractSnapshotTest, RefusesEveryTypeButOrdinaryFiles) {
  for (const TarMember& member :
       {TarMember{.path = "readme", .type = '1', .link_target = "bin/program"},
        TarMember{.path = "readme", .content = "text", .type = '1', .link_target = "bin/program"},
        TarMember{.path = "readme", .type = '2', .link_target = "bin/program"},
        TarMember{.path = "readme", .type = '2', .link_target = "/etc/passwd"},
        TarMember{.path = "readme", .type = '3'}, TarMember{.path = "readme", .type = '4'},
        TarMember{.path = "readme", .type = '6'}, TarMember{.path = "data", .mode = 0755, .type = '5'},
        TarMember{.path = "data/", .mode = 0755, .type = '5'}, TarMember{.path = "data/", .mode = 0755, .type = '0'},
        TarMember{.path = "readme/", .content = "text", .mode = 0644, .type = '0'},
        TarMember{.path = "data", .mode = 0755, .type = 'D'}}) {
    expect_member_refused(member, "archive_type", wrong_type);
  }
}

TEST_F(ExtractSnapshotTest, RefusesALinkThatAnExtendedHeaderOrALongNameMakes) {
  const std::string target(150, 't');
  expect_member_refused({.path = "readme", .type = '2', .link_target = target, .gnu_long_link = true}, "archive_type",
                        wrong_type);
  expect_member_refused({.path = "readme", .type = '1', .link_target = target, .gnu_long_link = true}, "archive_type",
                        wrong_type);
  expect_member_refused({.path = "readme", .type = '2', .link_target = "x", .extended = {{"linkpath", target}}},
                        "archive_type", wrong_type);
}

TEST_F(ExtractSnapshotTest, RefusesExtendedAttributes) {
  for (const auto& [key, value] : {std::pair<std::string, std::string>{"SCHILY.xattr.user.note", "value"},
                                   {"LIBARCHIVE.xattr.user.note", "dmFsdWU="},
                                   {"SCHILY.xattr.security.capability", "x"}}) {
    expect_member_refused({.path = "readme", .content = "text", .extended = {{key, value}}}, "archive_type",
                          wrong_type);
  }
}

TEST_F(ExtractSnapshotTest, RefusesSparseFiles) {
  // "te", then a hole, then "xt" in a file of 600 bytes; in the four ways to say so.
  std::string old = tar_member({.path = "readme", .content = "text", .type = 'S', .size = 4});
  const auto put = [&](std::size_t offset, std::string_view text) { old.replace(offset, text.size(), text); };
  put(386, std::string_view("00000000000\0"
                            "00000000002\0"
                            "00000001126\0"
                            "00000000002\0",
                            48));
  put(483, std::string_view("00000001130\0", 12));
  tar_reseal(old, 0);
  expect_refused(old + tar_archive(members_of(files)), "archive_type", wrong_type);

  const std::vector<std::pair<std::string, std::string>> first = {
      {"GNU.sparse.size", "600"},   {"GNU.sparse.numblocks", "2"}, {"GNU.sparse.offset", "0"},
      {"GNU.sparse.numbytes", "2"}, {"GNU.sparse.offset", "598"},  {"GNU.sparse.numbytes", "2"}};
  expect_member_refused({.path = "readme", .content = "text", .extended = first}, "archive_type", wrong_type);

  const std::vector<std::pair<std::string, std::string>> second = {{"GNU.sparse.size", "600"},
                                                                   {"GNU.sparse.numblocks", "2"},
                                                                   {"GNU.sparse.map", "0,2,598,2"},
                                                                   {"GNU.sparse.name", "readme"}};
  expect_member_refused({.path = "readme", .content = "text", .extended = second}, "archive_type", wrong_type);

  std::string map = "2\n0\n2\n598\n2\n";
  map.resize(block_bytes, '\0');
  const std::vector<std::pair<std::string, std::string>> third = {{"GNU.sparse.major", "1"},
                                                                  {"GNU.sparse.minor", "0"},
                                                                  {"GNU.sparse.name", "readme"},
                                                                  {"GNU.sparse.realsize", "600"}};
  expect_member_refused({.path = "readme", .content = map + "text", .extended = third}, "archive_type", wrong_type);
}

TEST_F(ExtractSnapshotTest, RefusesATypeThatNobodyKnows) {
  expect_member_refused({.path = "unknown", .content = "text", .type = 'Q'}, "archive_inventory", unexpected);
}

TEST_F(ExtractSnapshotTest, RefusesNamesThatLeadAnywhereElse) {
  const struct {
    const char* path;
    const char* message;
  } cases[] = {{"../outside", unsafe_component},
               {"..", unsafe_component},
               {"/absolute", unsafe_relative},
               {"data/../../outside", unsafe_component},
               {"data/../readme", unsafe_component},
               {"./readme", unsafe_component},
               {"data//empty", unsafe_component},
               {"data\\empty", unsafe_relative},
               {"C:readme", unsafe_component},
               {"readme.", "Path is not portable across supported platforms"},
               {"con.txt", "Path uses a reserved platform name"}};
  for (const auto& name : cases) {
    expect_member_refused({.path = name.path, .content = "text"}, "unsafe_path", name.message);
    expect_member_refused({.path = "readme", .content = "text", .extended = {{"path", name.path}}}, "unsafe_path",
                          name.message);
    expect_member_refused({.path = name.path, .content = "text", .gnu_long_path = true}, "unsafe_path", name.message);
  }
  expect_member_refused({.path = std::string(300, 'n'), .content = "text", .gnu_long_path = true}, "unsafe_path",
                        unsafe_component);
}

TEST_F(ExtractSnapshotTest, RefusesDirectoriesThatLeadAnywhereElse) {
  expect_member_refused({.path = "../outside/", .mode = 0755, .type = '5'}, "unsafe_path", unsafe_component);
  expect_member_refused({.path = "/", .mode = 0755, .type = '5'}, "unsafe_path", unsafe_relative);
  expect_member_refused({.path = "./", .mode = 0755, .type = '5'}, "unsafe_path", unsafe_component);
  expect_member_refused({.path = "data//", .mode = 0755, .type = '5'}, "unsafe_path",
                        "Trailing path separator is not allowed");
}

TEST_F(ExtractSnapshotTest, RefusesNamesThatAreNoText) {
  expect_member_refused({.path = "\xff\xfe", .content = "text"}, "archive_path", wrong_path);
  expect_member_refused({.path = "data/\x80", .content = "text"}, "archive_path", wrong_path);
}

TEST_F(ExtractSnapshotTest, RefusesAMemberWithoutAName) {
  expect_member_refused({.path = "", .content = "text"}, "unsafe_path", unsafe_relative);
}

TEST_F(ExtractSnapshotTest, TakesEveryFileOfTheManifestOnceAndNoOther) {
  expect_member_refused({.path = "other", .content = "text"}, "archive_inventory", unexpected);
  expect_member_refused({.path = "README", .content = "text"}, "archive_inventory", unexpected);
  expect_member_refused({.path = "data", .content = "text"}, "archive_inventory", unexpected);
  expect_member_refused({.path = "readme/below", .content = "text"}, "archive_inventory", unexpected);
  Members members = members_of(files);
  members.push_back(members[0]);
  expect_refused(tar_archive(members), "archive_inventory", unexpected,
                 {"staging/", "staging/bin/", "staging/bin/program", "staging/data/", "staging/data/deep/",
                  "staging/data/deep/large", "staging/data/empty", "staging/readme"});
}

TEST_F(ExtractSnapshotTest, KeepsTheFirstOfTwoMembersOfOneName) {
  Members members = {members_of(files)[0], members_of(files)[0]};
  members[1].content = "#!another";
  const Sample spoiled = testing::write_tar_sample(root, files, tar_archive(members));
  EXPECT_FAILURE(extract(spoiled), "archive_inventory", unexpected);
  EXPECT_EQ(root.read("staging/bin/program"), "#!program");
}

TEST_F(ExtractSnapshotTest, MissesEveryFileThatDoesNotCome) {
  for (std::size_t missing = 0; missing < files.size(); ++missing) {
    Members members = members_of(files);
    members.erase(members.begin() + static_cast<std::ptrdiff_t>(missing));
    EXPECT_FAILURE(extract(testing::write_tar_sample(root, files, tar_archive(members))), "archive", malformed);
    EXPECT_FALSE(std::filesystem::exists(staging / files[missing].path));
    std::filesystem::remove_all(staging);
  }
  expect_refused(tar_end(), "archive", malformed);
}

TEST_F(ExtractSnapshotTest, TakesExactlyTheTwoModesOfTheManifest) {
  for (const unsigned mode : {0644u, 0700u, 0754u, 0757u, 0600u, 0u, 04755u, 02755u, 01755u}) {
    expect_change_refused([mode](TarMember& member) { member.mode = mode; }, "archive_inventory", wrong_form);
  }
  for (const unsigned mode : {0755u, 0600u, 0664u, 0645u, 04644u, 02644u, 01644u}) {
    expect_member_refused({.path = "readme", .content = "text", .mode = mode}, "archive_inventory", wrong_form);
  }
}

TEST_F(ExtractSnapshotTest, TakesExactlyTheLengthsOfTheManifest) {
  for (const std::string& content : {std::string(), std::string("#!progra"), std::string("#!program!")}) {
    expect_change_refused([&](TarMember& member) { member.content = content; }, "archive_inventory", wrong_form);
  }
  for (const std::int64_t size : {std::int64_t{8}, std::int64_t{10}, std::int64_t{1} << 33, std::int64_t{1} << 50}) {
    expect_change_refused([size](TarMember& member) { member.size = size; }, "archive_inventory", wrong_form);
  }
  expect_change_refused([](TarMember& member) { member.extended = {{"size", "10"}}; }, "archive_inventory", wrong_form);
}

TEST_F(ExtractSnapshotTest, RefusesNegativeSizes) {
  expect_change_refused([](TarMember& member) { member.size = -1; }, "archive", malformed);
  expect_change_refused([](TarMember& member) { member.size = std::numeric_limits<std::int64_t>::min(); }, "archive",
                        malformed);
}

TEST_F(ExtractSnapshotTest, RefusesContentThatTheManifestDoesNotTell) {
  expect_change_refused([](TarMember& member) { member.content = "#!prograM"; }, "content_mismatch", wrong_content,
                        {"staging/", "staging/bin/", "staging/bin/program"});
}

// Each of these members breaks its rule and all later ones, so that the first rule in order must refuse it.
TEST_F(ExtractSnapshotTest, ChecksAMemberInItsOrder) {
  const Members members = {{.path = "../\xff", .mode = 0600, .type = '2', .link_target = "x"},
                           {.path = "../outside", .mode = 0600, .type = '2', .link_target = "x"},
                           {.path = "other", .mode = 0600, .type = '2', .link_target = "x"},
                           {.path = "other", .content = "x", .mode = 0600},
                           {.path = "readme", .content = "xx", .mode = 0600}};
  EXPECT_FAILURE(extract(testing::write_tar_sample(root, files, tar_archive(members)),
                         [](std::uint64_t, std::uint64_t) { return false; }),
                 "cancelled", cancelled);
  EXPECT_EQ(names(), Names{"staging/"});
  std::filesystem::remove_all(staging);
  expect_member_refused(members[0], "archive_path", wrong_path);
  expect_member_refused(members[1], "unsafe_path", unsafe_component);
  expect_member_refused(members[2], "archive_type", wrong_type);
  expect_member_refused(members[3], "archive_inventory", unexpected);
  expect_member_refused(members[4], "archive_inventory", wrong_form);
}

TEST_F(ExtractSnapshotTest, FindsASecondMemberAheadOfItsForm) {
  Members members = {members_of(files)[0], members_of(files)[0]};
  members[1].content = "another";
  members[1].mode = 0600;
  EXPECT_FAILURE(extract(testing::write_tar_sample(root, files, tar_archive(members))), "archive_inventory",
                 unexpected);
  EXPECT_EQ(root.read("staging/bin/program"), "#!program");
}

// --- Malformed archives --------------------------------------------------------------------

TEST_F(ExtractSnapshotTest, RefusesWhatIsNoTarArchive) {
  for (const std::string& content : {std::string(), std::string("x"), std::string(5000, 'x'), noise(5000)}) {
    expect_refused(content, "archive", cannot_open);
  }
}

TEST_F(ExtractSnapshotTest, RefusesAHeaderThatItsChecksumDoesNotTell) {
  std::string tar = tar_archive(members_of(files));
  const std::size_t second = 2 * block_bytes;
  tar[second] = 'D';
  expect_refused(tar, "archive", malformed, {"staging/", "staging/bin/", "staging/bin/program"});
  tar[0] = 'B';
  expect_refused(tar, "archive", cannot_open);
}

TEST_F(ExtractSnapshotTest, RefusesATarArchiveThatIsCutWhereverItIsNotComplete) {
  const Files small = {{"program", noise(1000), 0755}, {"readme", noise(block_bytes)}};
  const std::string tar = tar_archive(members_of(small));
  const std::size_t second = 3 * block_bytes;  // the header of the second member
  for (std::size_t size = 0; size < second + 2 * block_bytes; size += 64) {
    const Sample cut = testing::write_tar_sample(root, small, tar.substr(0, size));
    const bool in_content = (size >= block_bytes && size < block_bytes + 1000) || size >= second + block_bytes;
    const char* const message = size < block_bytes ? cannot_open : in_content ? not_decompressed : malformed;
    EXPECT_FAILURE(extract(cut), "archive", message) << size;
    EXPECT_FALSE(std::filesystem::exists(staging / "readme")) << size;
    std::filesystem::remove_all(staging);
  }
  for (std::size_t size = second + 2 * block_bytes; size <= tar.size(); size += block_bytes) {
    extract(testing::write_tar_sample(root, small, tar.substr(0, size)));
    std::filesystem::remove_all(staging);
  }
}

TEST_F(ExtractSnapshotTest, RefusesAFileThatSwallowsTheNextOne) {
  // The manifest agrees with the header that the first file is as long as both members.
  Files small = {{"program", "x", 0755}, {"readme", "text"}};
  Members members = members_of(small);
  members[0].size = 512 + 600;
  members[1].content = std::string(600, 't');
  small[0].content = std::string(512 + 600, 'x');
  EXPECT_FAILURE(extract(testing::write_tar_sample(root, small, tar_archive(members))), "content_mismatch",
                 wrong_content);
  EXPECT_EQ(names(), (Names{"staging/", "staging/program"}));
}

TEST_F(ExtractSnapshotTest, RefusesAFileThatTheArchiveIsTooShortFor) {
  Files small = {{"program", "x", 0755}};
  Members members = members_of(small);
  members[0].size = 5000;
  small[0].content = std::string(5000, 'x');
  EXPECT_FAILURE(extract(testing::write_tar_sample(root, small, tar_archive(members))), "archive", not_decompressed);
  EXPECT_EQ(names(), Names{"staging/"});
}

TEST_F(ExtractSnapshotTest, LooksAtNothingBehindTheEndOfTheArchive) {
  const std::string tar = tar_archive(members_of(files));
  extract(testing::write_tar_sample(root, files, tar + tar_member({.path = "../outside", .content = "text"})));
  expect_unpacked(files);
  EXPECT_FALSE(std::filesystem::exists(root / "outside"));
}

// --- Links that come meanwhile -------------------------------------------------------------

TEST_F(ExtractSnapshotTest, WritesNothingThroughALinkThatIsPlantedMeanwhile) {
  root.directory("outside");
  const Sample snapshot = sample();
  int calls = 0;
  const auto plant = [&](std::uint64_t, std::uint64_t) {
    if (++calls == 1) {
      std::filesystem::create_directory_symlink(root / "outside", staging / "bin");
    }
    return true;
  };
  EXPECT_FAILURE(extract(snapshot, plant), "unsafe_path", through_link);
  EXPECT_EQ(names(), (Names{"outside/", "staging/", "staging/bin@"}));
}

TEST_F(ExtractSnapshotTest, FindsWhatIsAddedMeanwhile) {
  const Sample snapshot = sample();
  const auto add = [&](std::uint64_t, std::uint64_t) {
    root.write("staging/foreign", "x");
    return true;
  };
  EXPECT_FAILURE(extract(snapshot, add), "unexpected_file", "Game tree contains an unmanaged file");
  EXPECT_EQ(root.read("staging/foreign"), "x");
}

// --- Progress and cancellation -------------------------------------------------------------

struct Report {
  std::uint64_t done;
  std::uint64_t total;
};

TEST_F(ExtractSnapshotTest, TellsHowFarItIsAtLeastOnceAPiece) {
  const Sample snapshot = sample();
  std::vector<Report> reports;
  extract(snapshot, [&](std::uint64_t done, std::uint64_t total) {
    reports.push_back({done, total});
    return true;
  });
  ASSERT_GT(reports.size(), 2u);
  int starts = 0;
  std::uint64_t last = snapshot.manifest.expanded_length;
  for (const Report& report : reports) {
    EXPECT_EQ(report.total, snapshot.manifest.expanded_length);
    if (report.done < last) {
      // Once for the unpacking, and once for the proof.
      ++starts;
      EXPECT_EQ(last, report.total);
      EXPECT_EQ(report.done, 0u);
    } else {
      EXPECT_LE(report.done - last, piece_bytes);
    }
    last = report.done;
  }
  EXPECT_EQ(starts, 2);
  EXPECT_EQ(last, snapshot.manifest.expanded_length);
}

class CancelledExtractionTest : public ExtractSnapshotTest {
 protected:
  const Files files = {{"bin/program", "#!program", 0755}, {"data/large", noise(2 * piece_bytes + 5)}, {"data/empty"}};
  const Sample snapshot = testing::write_tar_sample(root, files, tar_archive(members_of(files)));

  int report_points() const {
    int points = 0;
    extract(snapshot, [&](std::uint64_t, std::uint64_t) {
      ++points;
      return true;
    });
    std::filesystem::remove_all(staging);
    return points;
  }

  void expect_cancelled(int point, const ReservedTree* reserved) const {
    int calls = 0;
    EXPECT_FAILURE(extract(
                       snapshot, [&](std::uint64_t, std::uint64_t) { return ++calls < point; }, reserved),
                   "cancelled", cancelled)
        << point;
    EXPECT_EQ(calls, point);
  }
};

TEST_F(CancelledExtractionTest, LeavesOnlyWholeFilesWhereverItIsCancelled) {
  const int points = report_points();
  ASSERT_GT(points, 8);
  for (int point = 1; point <= points; ++point) {
    expect_cancelled(point, nullptr);
    for (const SampleFile& file : files) {
      if (std::filesystem::exists(staging / file.path)) {
        EXPECT_TRUE(root.read("staging/" + file.path) == file.content) << file.path << " at " << point;
      }
    }
    std::filesystem::remove_all(staging);
  }
}

TEST_F(CancelledExtractionTest, LeavesItsStagingDirectoryWhenItIsCancelledAtOnce) {
  expect_cancelled(1, nullptr);
  EXPECT_EQ(names(), Names{"staging/"});
}

TEST_F(CancelledExtractionTest, LeavesAReservedTreeThatCanBeUnpackedIntoAgain) {
  const int points = report_points();
  for (int point = 1; point <= points; ++point) {
    const ReservedTree reserved = reserve(snapshot, staging);
    const Names before = names();
    expect_cancelled(point, &reserved);
    EXPECT_EQ(names(), before) << point;
    extract(snapshot, {}, &reserved);
    expect_unpacked(files);
    std::filesystem::remove_all(staging);
  }
}

TEST_F(CancelledExtractionTest, PassesOnWhatTheCallbackThrows) {
  int calls = 0;
  const auto fail_later = [&](std::uint64_t, std::uint64_t) {
    if (++calls == 5) {
      throw std::runtime_error("no progress");
    }
    return true;
  };
  EXPECT_THROW(extract(snapshot, fail_later), std::runtime_error);
}

// --- Into a reserved tree ------------------------------------------------------------------

class ReservedExtractionTest : public ExtractSnapshotTest {
 protected:
  const Sample snapshot = sample();
  const ReservedTree reserved = reserve(snapshot, staging);
};

TEST_F(ReservedExtractionTest, WritesIntoTheBlocksThatAreHeld) {
  struct stat before;
  ASSERT_EQ(stat((staging / "data/deep/large").c_str(), &before), 0);
  extract(snapshot, {}, &reserved);
  expect_unpacked(files);
  struct stat after;
  ASSERT_EQ(stat((staging / "data/deep/large").c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_EQ(before.st_blocks, after.st_blocks);
}

TEST_F(ReservedExtractionTest, NeedsTheTreeOfItsManifest) {
  constexpr const char* differs = "Prepared tree differs from the requested snapshot";
  const Names before = names();
  const Files other = {{"bin/program", "#!program", 0755}};
  const Sample fewer = testing::write_tar_sample(root, other, tar_archive(members_of(other)));
  EXPECT_FAILURE(extract(fewer, {}, &reserved), "allocation_changed", differs);
  const Sample same = sample();
  EXPECT_FAILURE(extract_snapshot(same.manifest, same.archive, root / "elsewhere", {}, &reserved), "allocation_changed",
                 differs);
  EXPECT_EQ(names(), before);
  EXPECT_EQ(root.read("staging/readme"), std::string(4, '\0'));
}

TEST_F(ReservedExtractionTest, NeedsTheTreesOwnRoot) {
  std::filesystem::rename(staging, root / "moved");
  root.directory("staging");
  ASSERT_EQ(chmod(staging.c_str(), 0700), 0);
  EXPECT_FAILURE(extract(snapshot, {}, &reserved), "allocation_changed",
                 "Prepared tree differs from the requested snapshot");
  EXPECT_TRUE(std::filesystem::is_empty(staging));
}

TEST_F(ReservedExtractionTest, WritesNothingThroughALinkInTheTree) {
  root.write("outside/empty", "mine");
  root.write("outside/deep/large", "mine");
  std::filesystem::rename(staging / "data", root / "moved");
  std::filesystem::create_directory_symlink(root / "outside", staging / "data");
  EXPECT_FAILURE(extract(snapshot, {}, &reserved), "unsafe_path", through_link);
  EXPECT_EQ(root.read("outside/empty"), "mine");
  EXPECT_EQ(root.read("outside/deep/large"), "mine");
}

TEST_F(ReservedExtractionTest, WritesToNoFileThatItDidNotReserve) {
  const std::string foreign(4, 'f');
  std::filesystem::rename(staging / "readme", root / "moved");
  root.write("staging/readme", foreign);
  ASSERT_EQ(chmod((staging / "readme").c_str(), 0600), 0);
  EXPECT_FAILURE(extract(snapshot, {}, &reserved), "allocation_changed",
                 "Prepared file was replaced or changed; reserved content was preserved");
  EXPECT_EQ(root.read("staging/readme"), foreign);
  EXPECT_EQ(root.read("moved"), std::string(4, '\0'));
}

TEST_F(ReservedExtractionTest, WritesToNoFileWithASecondName) {
  std::filesystem::create_hard_link(staging / "readme", root / "second");
  EXPECT_FAILURE(extract(snapshot, {}, &reserved), "unsafe_path", "Allocation requires an ordinary single-link file");
  EXPECT_EQ(root.read("second"), std::string(4, '\0'));
}

TEST_F(ReservedExtractionTest, FindsWhatIsNotOfTheSnapshot) {
  root.write("staging/foreign", "x");
  EXPECT_FAILURE(extract(snapshot, {}, &reserved), "unexpected_file", "Game tree contains an unmanaged file");
  std::filesystem::remove(staging / "foreign");
  extract(snapshot, {}, &reserved);
  expect_unpacked(files);
}

TEST_F(ReservedExtractionTest, StaysUsableAfterEveryMemberThatWasRefused) {
  const Names before = names();
  const Members whole = members_of(files);
  struct Case {
    const char* what;
    std::function<void(Members&)> spoil;
    const char* code;
    const char* message;
  };
  const std::vector<Case> cases = {
      {"content",
       [](Members& members) {
         members[1].content.at(piece_bytes) = members[1].content.at(piece_bytes) == 'x' ? 'y' : 'x';
       },
       "content_mismatch", wrong_content},
      {"length", [](Members& members) { members[1].content += 'x'; }, "archive_inventory", wrong_form},
      {"mode", [](Members& members) { members[2].mode = 0600; }, "archive_inventory", wrong_form},
      {"type", [](Members& members) { members[2].type = '5'; }, "archive_type", wrong_type},
      {"name", [](Members& members) { members[2].path = "../empty"; }, "unsafe_path", unsafe_component},
      {"text", [](Members& members) { members[2].path = "\xff"; }, "archive_path", wrong_path},
      {"unknown", [](Members& members) { members[3].path = "other"; }, "archive_inventory", unexpected},
      {"second", [](Members& members) { members.push_back(members[0]); }, "archive_inventory", unexpected},
      {"missing", [](Members& members) { members.pop_back(); }, "archive", malformed}};
  for (const Case& spoilt : cases) {
    SCOPED_TRACE(spoilt.what);
    Members members = whole;
    spoilt.spoil(members);
    EXPECT_FAILURE(extract(testing::write_tar_sample(root, files, tar_archive(members)), {}, &reserved), spoilt.code,
                   spoilt.message);
    EXPECT_EQ(names(), before);
    reserved.validate(snapshot.manifest, staging);
  }
  extract(sample(), {}, &reserved);
  expect_unpacked(files);
}

TEST_F(ReservedExtractionTest, TouchesNothingForAnArchiveThatIsNotItsManifests) {
  root.write("archive", "another");
  EXPECT_FAILURE(extract(snapshot, {}, &reserved), "content_mismatch", not_authentic);
  for (const SampleFile& file : files) {
    EXPECT_TRUE(root.read("staging/" + file.path) == std::string(file.content.size(), '\0')) << file.path;
    EXPECT_EQ(mode_of(staging / file.path), S_IFREG | 0600u) << file.path;
  }
}

TEST_F(ReservedExtractionTest, StaysUsableAfterAnArchiveThatWasRefused) {
  const Names before = names();
  const std::string whole = raw_zstd_frame(tar_archive(members_of(files)));
  for (const std::size_t size : {whole.size() / 2, whole.size() - 1}) {
    EXPECT_FAILURE(extract(testing::write_sample(root, files, whole.substr(0, size)), {}, &reserved), "archive",
                   truncated);
    EXPECT_EQ(names(), before);
  }
  extract(sample(), {}, &reserved);
  expect_unpacked(files);
}

}  // namespace
}  // namespace ravok::snapshot_archive_test
