#include "domain/manifest.hpp"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/failure.hpp"
#include "support/manifest_builder.hpp"

namespace ravok::manifest_test {
namespace {

using testing::manifest_document;

constexpr std::uint64_t four_tebibytes = std::uint64_t{1} << 42;
constexpr const char* malformed = "Snapshot manifest has missing or malformed fields";
constexpr const char* duplicate = "Package contains duplicate or case-colliding paths";
constexpr const char* case_only = "Package directories differ only in case";
constexpr const char* file_above = "Package file is another file's parent directory";

Json with(const std::string& pointer, const Json& value) {
  Json document = manifest_document();
  document[Json::json_pointer(pointer)] = value;
  return document;
}

Json without(const std::string& object, const std::string& key) {
  Json document = manifest_document({{"data"}});
  document[Json::json_pointer(object)].erase(key);
  return document;
}

Json with_paths(const std::vector<std::string>& paths) {
  std::vector<testing::ManifestFile> files;
  for (const std::string& path : paths) {
    files.push_back({path});
  }
  return manifest_document(files);
}

void refuses(const Json& document, const char* code, const char* message) {
  EXPECT_FAILURE(SnapshotManifest::parse(document), code, message) << document.dump().substr(0, 500);
}

void refuses_paths(const std::vector<std::string>& paths, const char* message) {
  refuses(with_paths(paths), "path_collision", message);
}

TEST(SnapshotManifest, KeepsEveryField) {
  const Json document = manifest_document({{"data/b", 5}, {"data/a", 0}, {"Z", 7, 0755, std::string(64, 'c')}});
  const SnapshotManifest manifest = SnapshotManifest::parse(document);
  EXPECT_EQ(manifest.raw, document);
  EXPECT_EQ(manifest.build_id, "build-1");
  EXPECT_EQ(manifest.platform, "linux-x86_64");
  EXPECT_EQ(manifest.executable, "bin/program");
  EXPECT_EQ(manifest.target, "builds/build-1.tar.zst");
  EXPECT_EQ(manifest.archive_length, 100u);
  EXPECT_EQ(manifest.expanded_length, 22u);
  EXPECT_EQ(manifest.archive_sha256, std::string(64, 'b'));
  EXPECT_EQ(manifest.owner, "");
  std::vector<std::string> paths;
  for (const auto& [path, file] : manifest.files) {
    paths.push_back(path);
  }
  EXPECT_EQ(paths, (std::vector<std::string>{"Z", "bin/program", "data/a", "data/b"}));
  EXPECT_EQ(manifest.files.at("Z").length, 7u);
  EXPECT_EQ(manifest.files.at("Z").sha256, std::string(64, 'c'));
  EXPECT_TRUE(manifest.files.at("Z").executable);
  EXPECT_FALSE(manifest.files.at("data/a").executable);
}

TEST(SnapshotManifest, IgnoresUnknownKeysAndKeepsThem) {
  Json document = with("/extra", {{"x", 1.5}});
  document["files"][0]["more"] = true;
  EXPECT_EQ(SnapshotManifest::parse(document).raw, document);
  EXPECT_EQ(SnapshotManifest::parse(Json(document)).raw, document);
}

TEST(SnapshotManifest, KnowsOneSchema) {
  constexpr const char* message = "Unsupported snapshot schema; nothing was rewritten";
  for (const Json& version : {Json(2), Json(0), Json("1"), Json(1.0), Json(nullptr), Json(true)}) {
    refuses(with("/schema_version", version), "unsupported_schema", message);
  }
  for (const Json& document : {Json::array(), Json(1), Json(nullptr), Json("x")}) {
    refuses(document, "unsupported_schema", message);
  }
}

TEST(SnapshotManifest, NeedsEveryKey) {
  for (const char* key : {"schema_version", "build_id", "platform", "executable", "archive", "files"}) {
    refuses(without("", key), "invalid_manifest", malformed);
  }
  for (const char* key : {"format", "target", "length", "sha256", "expanded_length"}) {
    refuses(without("/archive", key), "invalid_manifest", malformed);
  }
  for (const char* key : {"path", "length", "mode", "sha256"}) {
    refuses(without("/files/1", key), "invalid_manifest", malformed);
  }
}

TEST(SnapshotManifest, RefusesValuesOfAnotherType) {
  for (const char* key : {"/build_id", "/platform", "/executable", "/archive", "/archive/format", "/archive/target",
                          "/archive/sha256", "/files/0", "/files/0/path", "/files/0/sha256"}) {
    refuses(with(key, 7), "invalid_manifest", malformed);
  }
  refuses(with("/files/0/mode", "0755"), "invalid_manifest", malformed);
}

TEST(SnapshotManifest, NeedsAnIdentifierForItsBuild) {
  refuses(with("/build_id", "Build"), "invalid_identity",
          "Game and build IDs use lower-case letters, digits, dots and hyphens");
  refuses(with("/build_id", "con"), "unsafe_path", "Path uses a reserved platform name");
}

TEST(SnapshotManifest, KnowsThreePlatforms) {
  for (const char* platform : {"linux-x86_64", "windows-x86_64", "macos-aarch64"}) {
    EXPECT_EQ(SnapshotManifest::parse(with("/platform", platform)).platform, platform);
  }
  for (const char* platform : {"", "linux", "Linux-x86_64", "linux-aarch64"}) {
    refuses(with("/platform", platform), "invalid_manifest", "Unknown snapshot platform");
  }
}

TEST(SnapshotManifest, JudgesThePathsOfItsExecutableAndArchive) {
  for (const char* key : {"/executable", "/archive/target"}) {
    refuses(with(key, "../x"), "unsafe_path", "Path contains an unsafe component");
    refuses(with(key, "a?"), "unsafe_path", "Path is not portable across supported platforms");
  }
}

TEST(SnapshotManifest, KnowsOneArchiveFormat) {
  for (const char* format : {"tar.zst", "tar.zst-v2", "zip-v1", ""}) {
    refuses(with("/archive/format", format), "invalid_manifest", "Unsupported snapshot format");
  }
}

TEST(SnapshotManifest, BoundsTheArchive) {
  constexpr const char* message = "Snapshot exceeds archive size bounds";
  EXPECT_EQ(SnapshotManifest::parse(with("/archive/length", 1)).archive_length, 1u);
  EXPECT_EQ(SnapshotManifest::parse(with("/archive/length", four_tebibytes)).archive_length, four_tebibytes);
  refuses(with("/archive/length", 0), "size_limit", message);
  refuses(with("/archive/length", four_tebibytes + 1), "size_limit", message);
  refuses(with("/archive/length", -1), "invalid_manifest", "Manifest length must be a non-negative integer");
  refuses(with("/archive/sha256", "x"), "invalid_manifest", "Manifest needs a lower-case SHA-256 digest");
}

TEST(SnapshotManifest, BoundsTheNumberOfFiles) {
  constexpr const char* message = "Package file count exceeds bounds";
  refuses(with("/files", Json::array()), "size_limit", message);
  refuses(with("/files", Json::object()), "size_limit", message);
  refuses(with("/files", 1), "size_limit", message);
  std::vector<std::string> paths;
  for (int i = 1; i < 100000; ++i) {
    paths.push_back("d" + std::to_string(i % 100) + "/f" + std::to_string(i));
  }
  EXPECT_EQ(SnapshotManifest::parse(with_paths(paths)).files.size(), 100000u);
  paths.push_back("one-more");
  refuses(with_paths(paths), "size_limit", message);
}

TEST(SnapshotManifest, JudgesEveryPath) {
  refuses(with_paths({"a//b"}), "unsafe_path", "Path contains an unsafe component");
  refuses(with_paths({"/a"}), "unsafe_path", "Path must be a safe relative path");
  refuses(with_paths({"nul.txt"}), "unsafe_path", "Path uses a reserved platform name");
  refuses(with_paths({"a*"}), "unsafe_path", "Path is not portable across supported platforms");
}

TEST(SnapshotManifest, HoldsOnlyAsciiPaths) {
  for (const char* path : {"caf\xc3\xa9", "a\x7f", "d\x80/x"}) {
    refuses(with_paths({path}), "invalid_manifest", "The v1 package profile requires ASCII file paths");
  }
  EXPECT_NO_THROW(SnapshotManifest::parse(with_paths({"a b~!"})));
}

TEST(SnapshotManifest, RefusesPathsThatAreEqualOrEqualButForCase) {
  refuses_paths({"a/b", "a/b"}, duplicate);
  refuses_paths({"a/b", "A/B"}, duplicate);
  refuses_paths({"a/b", "A/b"}, duplicate);
  refuses_paths({"readme", "README"}, duplicate);
  refuses_paths({"BIN/PROGRAM"}, duplicate);
}

TEST(SnapshotManifest, RefusesDirectoriesThatDifferOnlyInCase) {
  refuses_paths({"dir/f", "DIR/g"}, case_only);
  refuses_paths({"a/dir/f", "a/Dir/g"}, case_only);
  refuses_paths({"A/x", "a/y"}, case_only);
  refuses_paths({"a/b/c", "a/d", "A/e/f"}, case_only);
}

TEST(SnapshotManifest, RefusesAFileWhereAnotherNeedsADirectory) {
  refuses_paths({"x", "x/y"}, file_above);
  refuses_paths({"x/y", "x"}, file_above);
  refuses_paths({"X", "x/y"}, file_above);
  refuses_paths({"x/y", "X"}, file_above);
  refuses_paths({"a/b/c/d", "a/b"}, file_above);
}

TEST(SnapshotManifest, TellsCharactersApartThatAreNotLetters) {
  EXPECT_NO_THROW(SnapshotManifest::parse(with_paths({"a[", "a{", "a@", "a`", "x-y", "x_y", "xy/z", "x/yz", "x/y"})));
}

TEST(SnapshotManifest, BoundsTheExpandedBytes) {
  constexpr const char* message = "Expanded package exceeds size bounds";
  EXPECT_EQ(SnapshotManifest::parse(manifest_document({{"a", four_tebibytes - 10}})).expanded_length, four_tebibytes);
  refuses(manifest_document({{"a", four_tebibytes - 9}}), "size_limit", message);
  refuses(manifest_document({{"a", ~std::uint64_t{0}}}), "size_limit", message);
  refuses(with("/files/0/length", -1), "invalid_manifest", "Manifest length must be a non-negative integer");
}

TEST(SnapshotManifest, KnowsTwoModes) {
  for (const Json& mode : {Json(0777), Json(511), Json(0), Json(0600), Json(420.0), Json(-420), Json(~0ull)}) {
    refuses(with("/files/0/mode", mode), "invalid_manifest", "Package modes must be 0644 or 0755");
  }
}

TEST(SnapshotManifest, NeedsADigestForEveryFile) {
  refuses(with("/files/0/sha256", std::string(64, 'A')), "invalid_manifest",
          "Manifest needs a lower-case SHA-256 digest");
}

TEST(SnapshotManifest, NeedsAnExecutableThatItHolds) {
  constexpr const char* message = "Declared executable is missing or not executable";
  refuses(with("/executable", "bin/other"), "invalid_manifest", message);
  refuses(with("/executable", "bin/Program"), "invalid_manifest", message);
  refuses(with("/executable", "bin"), "invalid_manifest", message);
  refuses(with("/files/0/mode", 0644), "invalid_manifest", message);
}

TEST(SnapshotManifest, NeedsTheExactSumOfItsFiles) {
  constexpr const char* message = "Expanded length differs from file inventory";
  refuses(with("/archive/expanded_length", 9), "invalid_manifest", message);
  refuses(with("/archive/expanded_length", 11), "invalid_manifest", message);
}

TEST(SnapshotManifest, ChecksInItsOrder) {
  Json document = with("/platform", "other");
  document["build_id"] = "Bad";
  refuses(document, "invalid_identity", "Game and build IDs use lower-case letters, digits, dots and hyphens");
  document = with_paths({"a", "A"});
  document["files"][2]["length"] = -1;
  refuses(document, "path_collision", duplicate);
  document = with("/executable", "none");
  document["archive"]["expanded_length"] = 0;
  refuses(document, "invalid_manifest", "Declared executable is missing or not executable");
}

TEST(SnapshotManifest, SurvivesPathsOfManyLevels) {
  std::string deep;
  for (int i = 0; i < 2047; ++i) {
    deep += "a/";
  }
  std::vector<std::string> paths;
  for (const char last : {'b', 'c', 'd'}) {
    paths.push_back(deep + last);
  }
  EXPECT_EQ(SnapshotManifest::parse(with_paths(paths)).longest_native_path(), 4095u);
}

TEST(LongestNativePath, CountsBytesOrNothing) {
  EXPECT_EQ(SnapshotManifest().longest_native_path(), 0u);
  EXPECT_EQ(SnapshotManifest::parse(with_paths({"data/a-long-name", "x"})).longest_native_path(), 16u);
}

}  // namespace
}  // namespace ravok::manifest_test
