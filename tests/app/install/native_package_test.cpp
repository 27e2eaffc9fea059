#include "app/install/native_package.hpp"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/process/native_platform.hpp"
#include "support/failure.hpp"
#include "support/ordinary_user.hpp"
#include "support/package_builder.hpp"
#include "support/snapshot_builder.hpp"
#include "support/temporary_root.hpp"
#include "support/theme_builder.hpp"

namespace ravok {
namespace {

using testing::archive_name;
using testing::bitmap;
using testing::brand_icon_file;
using testing::icon_file;
using testing::InitialPackage;
using testing::noise;
using testing::resource_of;
using testing::TemporaryRoot;
using testing::write_descriptor;

using Pointer = Json::json_pointer;

constexpr const char* invalid = "invalid_native_package";
constexpr const char* untrusted = "native_install_trust";
constexpr const char* changed = "content_mismatch";
constexpr const char* incompatible = "launcher_incompatible";

constexpr const char* no_seal = "This installer has no package seal; build it with RAVOK_INITIAL_PACKAGE_SHA256";
constexpr const char* short_no_seal = "This installer has no package seal";
constexpr const char* other_package = "This package is not the one this installer was built for";
constexpr const char* no_directory = "Choose an initial package directory";
constexpr const char* malformed = "Initial package metadata is malformed";
constexpr const char* other_fields = "Initial package record has unknown or missing fields";
constexpr const char* missing_field = "Initial package record is missing a field";
constexpr const char* no_length = "Resource length must be an unsigned integer";
constexpr const char* no_hash = "Resource hash must be a lowercase SHA-256 digest";
constexpr const char* too_long = "Initial package resource exceeds its size limit";
constexpr const char* not_flat = "Initial package resources need distinct flat names";
constexpr const char* missing_resource = "Initial package is missing a resource";
constexpr const char* wrong_length = "Initial package resource has the wrong length";
constexpr const char* no_icon = "The brand icon is not an .ico file";
constexpr const char* brand_fields = "Brand has unknown or missing fields";
constexpr const char* other_origin = "The package origin must be a plain HTTPS origin";
constexpr const char* too_few_signatures = "Metadata does not meet its authorized signature threshold";

const std::string changed_resource = "Initial package resource changed: ";
const std::string unexpected_entry = "Initial package contains an unexpected entry: ";

// The pieces of a good package, with one key for all tests.
const InitialPackage& good_package() {
  static const InitialPackage package;
  return package;
}

std::string bootstrap_name() { return archive_name(good_package().bootstrap); }
std::string launcher_name() { return archive_name(good_package().launcher); }

std::string content_of(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void write_content(const std::filesystem::path& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

void append_byte(const std::filesystem::path& path) { std::ofstream(path, std::ios::app) << 'x'; }

void cut_byte(const std::filesystem::path& path) {
  std::filesystem::resize_file(path, std::filesystem::file_size(path) - 1);
}

void flip_byte(const std::filesystem::path& path, std::streamoff offset) {
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  file.seekg(offset);
  const int byte = file.get();
  file.seekp(offset);
  file.put(static_cast<char>(byte ^ 1));
}

std::string time_from_now(std::chrono::seconds distance) {
  const std::time_t time = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now() + distance);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&time));
  return text;
}

class NativePackageTest : public ::testing::Test {
 protected:
  const TemporaryRoot root;
  const std::filesystem::path directory = root / "package";
  InitialPackage package = good_package();
  Json descriptor = package.descriptor();

  NativePackage read(const std::string& seal) const { return read_native_package(directory, seal, {}); }

  // Writes the pieces afresh, with their own descriptor or with this one.
  std::string rewrite() const {
    std::filesystem::remove_all(directory);
    return package.write(directory);
  }
  std::string rewrite(const Json& other) const {
    std::filesystem::remove_all(directory);
    return package.write(directory, other);
  }

  // The package of these pieces is refused.
  void expect_refused(const std::string& code, const std::string& message) const {
    const std::string seal = rewrite();
    EXPECT_FAILURE(read(seal), code, message);
  }

  // Good pieces under this descriptor are refused.
  void expect_refused(const Json& other, const std::string& code, const std::string& message) const {
    const std::string seal = rewrite(other);
    EXPECT_FAILURE(read(seal), code, message) << other.dump(1);
  }

  // The name of the resource that the descriptor has there.
  std::string name_at(const std::string& pointer) const {
    return descriptor.at(Pointer(pointer)).at("path").get<std::string>();
  }

  Json with(const std::string& pointer, const Json& value) const {
    Json changed_descriptor = descriptor;
    changed_descriptor[Pointer(pointer)] = value;
    return changed_descriptor;
  }

  Json without(const std::string& pointer) const {
    Json changed_descriptor = descriptor;
    const Pointer place(pointer);
    changed_descriptor[place.parent_pointer()].erase(place.back());
    return changed_descriptor;
  }
};

TEST_F(NativePackageTest, IsReadWhole) {
  const std::string seal = rewrite();
  const NativePackage read_package = read(seal);
  EXPECT_EQ(read_package.directory, directory);
  EXPECT_EQ(read_package.descriptor_sha256, seal);
  EXPECT_EQ(read_package.origin, "https://games.example");
  EXPECT_EQ(read_package.root_json, package.root);
  EXPECT_EQ(read_package.ca_bundle, "-----BEGIN CERTIFICATE-----\n");
  EXPECT_EQ(read_package.bootstrap_manifest_json, package.bootstrap.dump());
  EXPECT_EQ(read_package.launcher_manifest_json, package.launcher.dump());
  EXPECT_EQ(read_package.bootstrap.raw, package.bootstrap);
  EXPECT_EQ(read_package.bootstrap.executable, "bin/ravok-bootstrap");
  EXPECT_EQ(read_package.bootstrap.files.size(), 2u);
  EXPECT_EQ(read_package.launcher.raw, package.launcher);
  EXPECT_EQ(read_package.launcher.executable, "bin/launcher");
  EXPECT_EQ(read_package.launcher.gui_executable, "bin/window");
  EXPECT_EQ(read_package.bootstrap_archive(), directory / bootstrap_name());
  EXPECT_EQ(read_package.launcher_archive(), directory / launcher_name());
  ASSERT_TRUE(read_package.featured_game);
  EXPECT_EQ(read_package.featured_game->id, "first-game");
  EXPECT_EQ(read_package.featured_game->name, "The First Game");
  ASSERT_TRUE(read_package.brand);
  EXPECT_EQ(*read_package.brand, (Brand{"Acme Games", "acme", "Acme", true}));
  EXPECT_EQ(read_package.brand_icon, brand_icon_file());
  ASSERT_TRUE(read_package.theme);
  EXPECT_EQ(read_package.theme->definition, package.theme->dump());
  const std::vector<std::pair<std::string, std::string>> files(package.theme_files.begin(), package.theme_files.end());
  EXPECT_EQ(read_package.theme->files, files);
}

TEST_F(NativePackageTest, IsReadWithoutWhatIsOptional) {
  package.ca_bundle.reset();
  package.brand.reset();
  package.featured_game.reset();
  const std::string seal = rewrite();
  const NativePackage read_package = read(seal);
  EXPECT_EQ(read_package.ca_bundle, "");
  EXPECT_EQ(read_package.featured_game, std::nullopt);
  EXPECT_EQ(read_package.brand, std::nullopt);
  EXPECT_EQ(read_package.brand_icon, "");
  EXPECT_FALSE(read_package.theme);
  EXPECT_EQ(read_package.root_json, package.root);

  EXPECT_EQ(package_brand(directory, seal), std::nullopt);
  EXPECT_FALSE(package_theme(directory, seal));
  EXPECT_EQ(package_brand_icon(directory, seal), std::nullopt);
  EXPECT_FALSE(package_featured_game(directory, seal));
}

TEST_F(NativePackageTest, MayHaveABrandWithoutAnIconOrATheme) {
  package.icon.reset();
  std::string seal = rewrite();
  NativePackage read_package = read(seal);
  EXPECT_EQ(*read_package.brand, (Brand{"Acme Games", "acme", "Acme", false}));
  EXPECT_EQ(read_package.brand_icon, "");
  EXPECT_TRUE(read_package.theme);
  EXPECT_EQ(package_brand_icon(directory, seal), std::nullopt);
  EXPECT_TRUE(package_theme(directory, seal));

  package = good_package();
  package.theme.reset();
  seal = rewrite();
  read_package = read(seal);
  EXPECT_TRUE(read_package.brand->icon);
  EXPECT_EQ(read_package.brand_icon, brand_icon_file());
  EXPECT_FALSE(read_package.theme);
  EXPECT_EQ(package_brand_icon(directory, seal), brand_icon_file());
  EXPECT_FALSE(package_theme(directory, seal));
}

TEST_F(NativePackageTest, IsNotChangedByReading) {
  const std::string seal = rewrite();
  const std::vector<std::string> names = root.names();
  read(seal);
  EXPECT_EQ(root.names(), names);
  for (const auto& [name, content] : package.files()) {
    EXPECT_EQ(content_of(directory / name), content) << name;
  }
}

// Where the package lies.

TEST_F(NativePackageTest, IsNamedByAnAbsoluteNormalPath) {
  const std::string seal = rewrite();
  const std::filesystem::path relative = std::filesystem::relative(directory);
  ASSERT_TRUE(relative.is_relative());
  EXPECT_EQ(read_native_package(relative, seal, {}).directory, directory);
  EXPECT_EQ(read_native_package(root / "package/../package", seal, {}).directory, directory);
  const NativePackage read_package = read_native_package(directory / "", seal, {});
  EXPECT_EQ(read_package.directory, directory / "");
  EXPECT_EQ(read_package.bootstrap_archive(), directory / bootstrap_name());
}

TEST_F(NativePackageTest, IsNoLinkAndNothingButADirectory) {
  const std::string seal = rewrite();
  std::filesystem::create_directory_symlink("package", root / "link");
  root.write("file", "x");
  for (const std::filesystem::path& path :
       {root / "link", root / "link/", root / "link/.", root / "file", root / "none", std::filesystem::path()}) {
    EXPECT_FAILURE(read_native_package(path, seal, {}), invalid, no_directory) << path;
  }
  EXPECT_EQ(std::filesystem::read_symlink(root / "link"), "package");
}

TEST_F(NativePackageTest, MayLieBehindALink) {
  const std::string seal = rewrite();
  std::filesystem::create_directory_symlink(".", root / "link");
  const NativePackage read_package = read_native_package(root / "link/package", seal, {});
  EXPECT_EQ(read_package.directory, root / "link/package");
  EXPECT_EQ(read_package.root_json, package.root);
}

// The seal.

void expect_no_seal(const std::filesystem::path& directory, const std::string& seal) {
  EXPECT_FAILURE(read_native_package(directory, seal, {}), untrusted, no_seal) << seal;
  EXPECT_FAILURE(package_brand(directory, seal), untrusted, no_seal) << seal;
  EXPECT_FAILURE(package_theme(directory, seal), untrusted, short_no_seal) << seal;
  EXPECT_FAILURE(package_brand_icon(directory, seal), untrusted, no_seal) << seal;
  EXPECT_FAILURE(package_featured_game(directory, seal), untrusted, no_seal) << seal;
  EXPECT_FAILURE(package_manifests(directory, seal), untrusted, no_seal) << seal;
}

TEST_F(NativePackageTest, NeedsASealOfItsForm) {
  const std::string seal = rewrite();
  std::string capital = seal;
  std::transform(capital.begin(), capital.end(), capital.begin(),
                 [](char c) { return c >= 'a' && c <= 'f' ? static_cast<char>(c - 'a' + 'A') : c; });
  ASSERT_NE(capital, seal);
  for (const std::string& other : {std::string(), seal.substr(1), seal + "0", capital, "g" + seal.substr(1),
                                   "/" + seal.substr(1), ":" + seal.substr(1), "`" + seal.substr(1)}) {
    expect_no_seal(directory, other);
  }
  expect_no_seal(root / "none", "");
}

void expect_other_package(const std::filesystem::path& directory, const std::string& seal) {
  EXPECT_FAILURE(read_native_package(directory, seal, {}), untrusted, other_package);
  EXPECT_FAILURE(package_brand(directory, seal), untrusted, other_package);
  EXPECT_FAILURE(package_theme(directory, seal), untrusted, other_package);
  EXPECT_FAILURE(package_brand_icon(directory, seal), untrusted, other_package);
  EXPECT_FAILURE(package_featured_game(directory, seal), untrusted, other_package);
  EXPECT_FAILURE(package_manifests(directory, seal), untrusted, other_package);
}

TEST_F(NativePackageTest, NeedsItsOwnSeal) {
  std::string seal = rewrite();
  seal.back() = seal.back() == '0' ? '1' : '0';
  expect_other_package(directory, seal);
}

TEST_F(NativePackageTest, IsAnotherWithAnyByteOfTheDescriptorChanged) {
  const std::string seal = rewrite();
  const std::filesystem::path path = directory / "initial-package.json";
  const auto size = static_cast<std::streamoff>(std::filesystem::file_size(path));
  ASSERT_GT(size, 1000);
  for (std::streamoff offset = 0; offset < size; ++offset) {
    flip_byte(path, offset);
    ASSERT_TRUE(testing::fails_with([&] { read(seal); }, untrusted, other_package)) << offset;
    flip_byte(path, offset);
  }
  EXPECT_EQ(read(seal).descriptor_sha256, seal);
  append_byte(path);
  expect_other_package(directory, seal);
  rewrite();
  cut_byte(path);
  expect_other_package(directory, seal);
}

// The descriptor.

void expect_all_fail(const std::filesystem::path& directory, const std::string& seal, const std::string& code,
                     const std::string& message) {
  EXPECT_FAILURE(read_native_package(directory, seal, {}), code, message);
  EXPECT_FAILURE(package_brand(directory, seal), code, message);
  EXPECT_FAILURE(package_theme(directory, seal), code, message);
  EXPECT_FAILURE(package_brand_icon(directory, seal), code, message);
  EXPECT_FAILURE(package_featured_game(directory, seal), code, message);
  EXPECT_FAILURE(package_manifests(directory, seal), code, message);
}

TEST_F(NativePackageTest, NeedsADescriptorThatIsAPlainFile) {
  const std::string seal = rewrite();
  const std::filesystem::path path = directory / "initial-package.json";
  std::filesystem::rename(path, root / "elsewhere");
  expect_all_fail(directory, seal, "file_read", "Cannot open file: " + path.native());
  std::filesystem::create_symlink(root / "elsewhere", path);
  expect_all_fail(directory, seal, "unsafe_path", "Cannot open file: " + path.native());
  std::filesystem::remove(path);
  std::filesystem::create_directory(path);
  expect_all_fail(directory, seal, "unsafe_path", "Expected an ordinary file: " + path.native());
  std::filesystem::remove(path);
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  expect_all_fail(directory, seal, "unsafe_path", "Expected an ordinary file: " + path.native());
}

TEST_F(NativePackageTest, HasADescriptorOfAtMost524288Bytes) {
  rewrite();
  std::string text = descriptor.dump();
  text.resize(524'288, ' ');
  const std::string seal = write_descriptor(directory, text);
  EXPECT_EQ(read(seal).descriptor_sha256, seal);
  expect_all_fail(directory, write_descriptor(directory, text + " "), "size_limit", "File exceeds read limit");
}

TEST_F(NativePackageTest, HasADescriptorOfStrictJson) {
  rewrite();
  const std::string text = descriptor.dump();
  expect_all_fail(directory, write_descriptor(directory, "{\"kind\":1," + text.substr(1)), "duplicate_key",
                  "JSON contains a duplicate object key");
  expect_all_fail(directory, write_descriptor(directory, std::string(66, '[') + std::string(66, ']')), "depth_limit",
                  "JSON nesting exceeds 64 levels");
  const std::string seal = write_descriptor(directory, text + "x");
  const auto failure = testing::failure_of([&] { read(seal); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "invalid_json");
}

TEST_F(NativePackageTest, HasADescriptorThatIsAnObject) {
  for (const Json& other : {Json(), Json(1), Json("text"), Json::array(), Json::array({"brand", "featured_game"})}) {
    expect_refused(other, invalid, other_fields);
    const std::string seal = rewrite(other);
    EXPECT_EQ(package_brand(directory, seal), std::nullopt);
    EXPECT_FALSE(package_theme(directory, seal));
    EXPECT_EQ(package_brand_icon(directory, seal), std::nullopt);
    EXPECT_FALSE(package_featured_game(directory, seal));
    EXPECT_FAILURE(package_manifests(directory, seal), invalid, other_fields);
  }
}

TEST_F(NativePackageTest, HasExactlyItsFields) {
  for (const char* key : {"/schema_version", "/kind", "/platform", "/origin", "/root", "/ca_bundle",
                          "/bootstrap_manifest", "/launcher_manifest"}) {
    const Json missing = without(key);
    expect_refused(missing, invalid, other_fields);
    Json replaced = missing;
    replaced["other"] = 1;
    expect_refused(replaced, invalid, missing_field);
  }
  expect_refused(with("/other", 1), invalid, other_fields);
}

TEST_F(NativePackageTest, IsOfTheOneSchema) {
  for (const Json& version : {Json(2), Json(0), Json(-1), Json("1"), Json()}) {
    expect_refused(with("/schema_version", version), "unsupported_schema", "Unsupported initial package schema");
  }
  for (const Json& kind : {Json("ravok-initial-packag"), Json("ravok-launcher-release"), Json(1)}) {
    expect_refused(with("/kind", kind), "unsupported_schema", "Unsupported initial package schema");
  }
}

TEST_F(NativePackageTest, IsForThisPlatform) {
  for (const Json& platform : {Json("macos-aarch64"), Json(""), Json(1), Json()}) {
    expect_refused(with("/platform", platform), incompatible, "This package is for another platform");
  }
}

TEST_F(NativePackageTest, HasAPlainHttpsOrigin) {
  for (const char* origin : {"https://games.example/", "https://games.example/path", "https://games.example:8443/"}) {
    expect_refused(with("/origin", origin), "invalid_origin", other_origin);
  }
  for (const char* origin : {"http://games.example", "HTTPS://games.example", "games.example", ""}) {
    expect_refused(with("/origin", origin), "https_required", "Ravok service URLs must use HTTPS");
  }
  for (const char* origin :
       {"https://user@games.example", "https://games.example?query", "https://games.example#end"}) {
    expect_refused(with("/origin", origin), "invalid_url",
                   "Service URL must not contain credentials, query, or fragment");
  }
  expect_refused(with("/origin", "https://games example"), "invalid_url", "Invalid service URL");
  expect_refused(with("/origin", 1), invalid, malformed);
  expect_refused(with("/origin", Json()), invalid, malformed);
  package.origin = "https://games.example:8443";
  EXPECT_EQ(read(rewrite()).origin, "https://games.example:8443");
}

// Resources.

struct NamedResource {
  std::string pointer;
  std::uint64_t limit;
};

const std::vector<NamedResource>& resources() {
  static const std::vector<NamedResource> list = {{"/root", 524'288},
                                                  {"/bootstrap_manifest", 524'288},
                                                  {"/launcher_manifest", 524'288},
                                                  {"/ca_bundle", 1'048'576},
                                                  {"/brand/icon", 1'048'576},
                                                  {"/brand/theme/definition", 65'536},
                                                  {"/brand/theme/files/plain.ttf", 4'194'304}};
  return list;
}

TEST_F(NativePackageTest, HasResourcesOfExactlyTheirFields) {
  for (const NamedResource& resource : resources()) {
    for (const char* key : {"/path", "/length", "/sha256"}) {
      Json missing = without(resource.pointer + key);
      expect_refused(missing, invalid, other_fields);
      missing[Pointer(resource.pointer)]["other"] = 1;
      expect_refused(missing, invalid, missing_field);
    }
    expect_refused(with(resource.pointer + "/other", 1), invalid, other_fields);
    expect_refused(with(resource.pointer, "text"), invalid, other_fields);
    expect_refused(with(resource.pointer, Json::array()), invalid, other_fields);
    expect_refused(with(resource.pointer + "/path", 1), invalid, malformed);
  }
  for (const char* pointer : {"/root", "/bootstrap_manifest", "/launcher_manifest", "/brand/theme/definition"}) {
    expect_refused(with(pointer, Json()), invalid, other_fields);
  }
}

TEST_F(NativePackageTest, HasResourcesOfBoundedLength) {
  for (const NamedResource& resource : resources()) {
    const std::string length = resource.pointer + "/length";
    for (const Json& other : {Json(-1), Json("1"), Json(true), Json()}) {
      expect_refused(with(length, other), invalid, no_length);
    }
    // No document of the system has a floating-point number at all.
    expect_refused(with(length, 1.5), "invalid_number", "Floating point numbers are not allowed in protocol data");
    expect_refused(with(length, 0), "size_limit", too_long);
    expect_refused(with(length, resource.limit + 1), "size_limit", too_long);
    expect_refused(with(length, UINT64_MAX), "size_limit", too_long);
    // The limit itself is taken, and the content is found to be another.
    const std::string name = name_at(resource.pointer);
    expect_refused(with(length, resource.limit), changed, changed_resource + name);
  }
}

TEST_F(NativePackageTest, HasResourcesWithLowerCaseDigests) {
  for (const NamedResource& resource : resources()) {
    const std::string digest_at = resource.pointer + "/sha256";
    const std::string sha256(64, 'a');
    for (const Json& other : {Json(sha256 + "a"), Json(sha256.substr(1)), Json(std::string(64, 'A')), Json(""),
                              Json("g" + sha256.substr(1)), Json(1), Json()}) {
      expect_refused(with(digest_at, other), invalid, no_hash);
    }
    const std::string name = name_at(resource.pointer);
    expect_refused(with(digest_at, sha256), changed, changed_resource + name);
  }
}

TEST_F(NativePackageTest, HasResourcesUpToTheirLimits) {
  package.ca_bundle = std::string(1'048'576, 'c');
  package.icon = icon_file(1'048'576);
  (*package.theme)["padding"] = "";
  (*package.theme)["padding"] = std::string(65'536 - package.theme->dump().size(), 'p');
  package.theme_files["plain.ttf"].resize(4'194'304, 'f');
  package.root.resize(524'288, ' ');
  const NativePackage read_package = read(rewrite());
  EXPECT_EQ(read_package.ca_bundle.size(), 1'048'576u);
  EXPECT_EQ(read_package.brand_icon.size(), 1'048'576u);
  EXPECT_EQ(read_package.theme->definition.size(), 65'536u);
  EXPECT_EQ(read_package.theme->files.at(1).second.size(), 4'194'304u);
  EXPECT_EQ(read_package.root_json.size(), 524'288u);
}

TEST_F(NativePackageTest, HasResourcesWithFlatNames) {
  for (const char* pointer : {"/root", "/bootstrap_manifest", "/launcher_manifest", "/ca_bundle", "/brand/icon"}) {
    const std::string name = name_at(pointer);
    for (const char* other : {".x", "sub/x", "...x"}) {
      const std::string seal = rewrite(with(std::string(pointer) + "/path", other));
      std::filesystem::create_directory(directory / "sub");
      std::filesystem::rename(directory / name, directory / other);
      EXPECT_FAILURE(read(seal), invalid, not_flat) << pointer << other;
    }
    for (const char* other : {"CON", "aux.json"}) {
      const std::string seal = rewrite(with(std::string(pointer) + "/path", other));
      std::filesystem::rename(directory / name, directory / other);
      EXPECT_FAILURE(read(seal), "unsafe_path", "Path uses a reserved platform name") << pointer << other;
    }
    const std::string seal = rewrite(with(std::string(pointer) + "/path", "sub/../" + name));
    std::filesystem::create_directory(directory / "sub");
    EXPECT_FAILURE(read(seal), "unsafe_path", "Path contains an unsafe component") << pointer;
    expect_refused(with(std::string(pointer) + "/path", std::string("a\0b", 3)), "unsafe_path",
                   "Native path contains a NUL byte");
    // The descriptor itself is read, and no descriptor can contain its own digest.
    expect_refused(with(std::string(pointer) + "/path", "initial-package.json"), changed,
                   changed_resource + "initial-package.json");
  }
}

TEST_F(NativePackageTest, HasArchivesWithFlatNames) {
  for (Json* manifest : {&package.bootstrap, &package.launcher}) {
    const std::string name = archive_name(*manifest);
    for (const char* other : {".x", "sub/x", "initial-package.json"}) {
      std::filesystem::remove_all(directory);
      std::filesystem::create_directories(directory / "sub");
      (*manifest)["archive"]["target"] = other;
      const std::string seal = package.write(directory);
      EXPECT_FAILURE(read(seal), invalid, not_flat) << other;
    }
    (*manifest)["archive"]["target"] = name;
  }
}

TEST_F(NativePackageTest, HasNoResourceTwice) {
  constexpr const char* overlap = "Initial package resources overlap";
  Json twice = descriptor;
  twice["ca_bundle"] = twice["root"];
  expect_refused(twice, invalid, overlap);
  package.launcher["archive"]["target"] = bootstrap_name();
  expect_refused(invalid, overlap);
  package.launcher["archive"]["target"] = "theme-plain.ttf";
  expect_refused(invalid, overlap);
  package.launcher["archive"]["target"] = launcher_name();
  package.bootstrap["archive"]["target"] = "brand.ico";
  expect_refused(invalid, overlap);
}

// What lies in the directory.

bool is_archive(const std::string& name) { return name == bootstrap_name() || name == launcher_name(); }

TEST_F(NativePackageTest, IsRefusedWithAByteOfAnyFileChanged) {
  const std::string seal = rewrite();
  for (const auto& [name, content] : package.files()) {
    constexpr std::size_t samples = 250;
    const std::size_t count = std::min(content.size(), samples);
    for (std::size_t i = 0; i < count; ++i) {
      // Evenly spread, with the first and the last.
      const std::size_t offset = count < 2 ? 0 : i * (content.size() - 1) / (count - 1);
      flip_byte(directory / name, static_cast<std::streamoff>(offset));
      ASSERT_TRUE(testing::fails_with([&] { read(seal); }, changed, changed_resource + name)) << name << offset;
      flip_byte(directory / name, static_cast<std::streamoff>(offset));
    }
  }
  EXPECT_EQ(read(seal).root_json, package.root);
}

TEST_F(NativePackageTest, IsRefusedWithAnyFileLongerOrShorter) {
  for (const auto& [name, content] : package.files()) {
    const std::string message = is_archive(name) ? wrong_length : changed_resource + name;
    const std::string seal = rewrite();
    append_byte(directory / name);
    EXPECT_FAILURE(read(seal), changed, message) << name;
    rewrite();
    cut_byte(directory / name);
    EXPECT_FAILURE(read(seal), changed, message) << name;
    rewrite();
    std::filesystem::resize_file(directory / name, 0);
    EXPECT_FAILURE(read(seal), changed, message) << name;
  }
}

TEST_F(NativePackageTest, IsRefusedWithAFileBeyondItsLimit) {
  const std::string seal = rewrite();
  for (const NamedResource& resource : resources()) {
    const std::filesystem::path path = directory / name_at(resource.pointer);
    const auto size = std::filesystem::file_size(path);
    std::filesystem::resize_file(path, resource.limit + 1);
    EXPECT_FAILURE(read(seal), "size_limit", "File exceeds read limit") << resource.pointer;
    std::filesystem::resize_file(path, size);
  }
  EXPECT_EQ(read(seal).root_json, package.root);
}

TEST_F(NativePackageTest, IsRefusedWithAnyFileMissing) {
  for (const auto& [name, content] : package.files()) {
    const std::string seal = rewrite();
    std::filesystem::remove(directory / name);
    if (is_archive(name)) {
      EXPECT_FAILURE(read(seal), invalid, missing_resource) << name;
    } else {
      EXPECT_FAILURE(read(seal), "file_read", "Cannot open file: " + (directory / name).native());
    }
  }
}

TEST_F(NativePackageTest, IsRefusedWithALinkInPlaceOfAnyFile) {
  for (const auto& [name, content] : package.files()) {
    const std::string seal = rewrite();
    std::filesystem::rename(directory / name, root / "elsewhere");
    std::filesystem::create_symlink(root / "elsewhere", directory / name);
    if (is_archive(name)) {
      EXPECT_FAILURE(read(seal), invalid, unexpected_entry + name);
    } else {
      EXPECT_FAILURE(read(seal), "unsafe_path", "Cannot open file: " + (directory / name).native());
    }
    EXPECT_EQ(root.read("elsewhere"), content);
  }
}

TEST_F(NativePackageTest, IsRefusedWithWhatIsNoFileInPlaceOfAnyFile) {
  for (const bool pipe : {false, true}) {
    for (const auto& [name, content] : package.files()) {
      const std::string seal = rewrite();
      const std::filesystem::path path = directory / name;
      std::filesystem::remove(path);
      ASSERT_EQ(pipe ? mkfifo(path.c_str(), 0600) : mkdir(path.c_str(), 0700), 0);
      if (is_archive(name)) {
        EXPECT_FAILURE(read(seal), invalid, unexpected_entry + name);
      } else {
        EXPECT_FAILURE(read(seal), "unsafe_path", "Expected an ordinary file: " + path.native());
      }
    }
  }
}

TEST_F(NativePackageTest, HoldsNothingElse) {
  for (const char* name : {"extra", ".hidden", "root.json ", "ROOT.JSON", "\xff"}) {
    const std::string seal = rewrite();
    write_content(directory / name, "x");
    EXPECT_FAILURE(read(seal), invalid, unexpected_entry + name);
    EXPECT_EQ(content_of(directory / name), "x");
    std::filesystem::remove(directory / name);
    std::filesystem::create_directory(directory / name);
    EXPECT_FAILURE(read(seal), invalid, unexpected_entry + name);
    std::filesystem::remove(directory / name);
    std::filesystem::create_symlink("root.json", directory / name);
    EXPECT_FAILURE(read(seal), invalid, unexpected_entry + name);
    std::filesystem::remove(directory / name);
    EXPECT_EQ(read(seal).descriptor_sha256, seal);
  }
}

TEST_F(NativePackageTest, HoldsNothingThatItsDescriptorLeavesOut) {
  const std::map<std::string, std::string> all = package.files();
  package.ca_bundle.reset();
  const std::string seal = rewrite();
  write_content(directory / "ca.pem", all.at("ca.pem"));
  EXPECT_FAILURE(read(seal), invalid, unexpected_entry + "ca.pem");
}

TEST_F(NativePackageTest, IsMalformedWhereTheSystemRefuses) {
  const std::string seal = rewrite();
  const testing::WithMode unlisted(directory, 0300);
  const testing::OrdinaryUser user(root);
  EXPECT_FAILURE(read(seal), invalid, malformed);
}

TEST_F(NativePackageTest, IsMalformedWhereTheCallerFails) {
  const std::string seal = rewrite();
  const auto throwing = [](std::uint64_t, std::uint64_t) -> bool { throw std::runtime_error("no terminal"); };
  EXPECT_FAILURE(read_native_package(directory, seal, throwing), invalid, malformed);
}

// Reads the package; `change` happens at the first report of progress.
std::optional<Error> failure_with(const std::filesystem::path& directory, const std::string& seal,
                                  const std::function<void()>& change) {
  bool first = true;
  return testing::failure_of([&] {
    read_native_package(directory, seal, [&](std::uint64_t, std::uint64_t) {
      if (std::exchange(first, false)) {
        change();
      }
      return true;
    });
  });
}

TEST_F(NativePackageTest, IsRefusedWithAFileThatChangesMeanwhile) {
  struct Change {
    std::function<void(const std::filesystem::path&)> happen;
    std::string code;
    std::string message;
  };
  for (const auto& [name, content] : package.files()) {
    if (name == "root.json") {
      continue;  // the one that is being digested
    }
    constexpr const char* not_plain = "Initial package resource is missing or not a plain file";
    const std::vector<Change> changes = {
        {[](const auto& path) { flip_byte(path, 0); }, changed, changed_resource + name},
        {append_byte, changed, wrong_length},
        {cut_byte, changed, wrong_length},
        {[](const auto& path) { std::filesystem::remove(path); }, invalid, not_plain},
        {[&](const auto& path) {
           std::filesystem::rename(path, root / "elsewhere");
           std::filesystem::create_symlink(root / "elsewhere", path);
         },
         invalid, not_plain},
        {[](const auto& path) {
           std::filesystem::remove(path);
           std::filesystem::create_directory(path);
         },
         invalid, not_plain}};
    for (const Change& change : changes) {
      const std::string seal = rewrite();
      const std::filesystem::path path = directory / name;
      const std::optional<Error> failure = failure_with(directory, seal, [&] { change.happen(path); });
      ASSERT_TRUE(failure) << name;
      EXPECT_EQ(failure->code, change.code) << name;
      EXPECT_EQ(failure->what(), change.message) << name;
    }
  }
  const std::string seal = rewrite();
  const std::optional<Error> failure = failure_with(directory, seal, [&] { append_byte(directory / "root.json"); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, changed);
  EXPECT_STREQ(failure->what(), "File grew beyond its verification bound");
}

// Progress.

using Told = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

TEST_F(NativePackageTest, TellsOfTheBytesDigested) {
  package.ca_bundle = std::string(65'536, 'c');
  package.set_bootstrap_archive(noise(200'000));
  const std::string seal = rewrite();
  const std::map<std::string, std::string> files = package.files();
  std::uint64_t total = 0;
  for (const auto& [name, content] : files) {
    total += content.size();
  }
  Told expected;
  std::uint64_t before = 0;
  for (const std::string& name :
       {std::string("root.json"), std::string("bootstrap.json"), std::string("launcher.json"), std::string("ca.pem"),
        std::string("brand.ico"), std::string("theme.json"), std::string("theme-badge.bmp"),
        std::string("theme-plain.ttf"), bootstrap_name(), launcher_name()}) {
    const std::uint64_t size = files.at(name).size();
    expected.emplace_back(before, total);
    // Progress is reported after each piece. The last is short and may be empty.
    for (std::uint64_t done = 65'536; done <= size; done += 65'536) {
      expected.emplace_back(before + done, total);
    }
    before += size;
    expected.emplace_back(before, total);
  }
  Told told;
  read_native_package(directory, seal, [&](std::uint64_t done, std::uint64_t all) {
    told.emplace_back(done, all);
    return true;
  });
  EXPECT_EQ(told, expected);
}

TEST_F(NativePackageTest, StopsWhereverItIsCancelled) {
  package.set_bootstrap_archive(noise(200'000));
  const std::string seal = rewrite();
  const std::vector<std::string> names = root.names();
  int all = 0;
  read_native_package(directory, seal, [&](std::uint64_t, std::uint64_t) { return ++all > 0; });
  ASSERT_GT(all, 20);
  for (int stop = 1; stop <= all; ++stop) {
    int calls = 0;
    EXPECT_FAILURE(read_native_package(directory, seal, [&](std::uint64_t, std::uint64_t) { return ++calls < stop; }),
                   "cancelled", "File verification cancelled");
    EXPECT_EQ(calls, stop);
  }
  EXPECT_EQ(root.names(), names);
}

TEST_F(NativePackageTest, TellsNothingBeforeTheWholeChainIsChecked) {
  const std::string seal = rewrite();
  append_byte(directory / "extra");
  int calls = 0;
  EXPECT_FAILURE(read_native_package(directory, seal, [&](std::uint64_t, std::uint64_t) { return ++calls < 0; }),
                 invalid, unexpected_entry + "extra");
  EXPECT_EQ(calls, 0);
}

// The root.

TEST_F(NativePackageTest, HasARootSignedByItself) {
  const testing::TestKey other = testing::TestKey::ed25519();
  package.root = testing::signed_document(package.root_body, {});
  expect_refused("signature_threshold", too_few_signatures);
  package.root = testing::signed_document(package.root_body, {&other});
  expect_refused("signature_threshold", too_few_signatures);
  Json document = testing::with_signatures(package.root_body, {&package.key});
  document["signed"]["version"] = 2;
  package.root = document.dump();
  expect_refused("signature_threshold", too_few_signatures);
  package.root_body["roles"]["root"]["threshold"] = 2;
  package.sign_root();
  expect_refused("invalid_threshold", "Signing threshold exceeds unique authorized keys");
  package.root_body["roles"]["root"]["threshold"] = 0;
  package.sign_root();
  expect_refused("invalid_version", "Metadata version must be positive");
  package.root_body = testing::root_document({&package.key, &other});
  package.root = testing::signed_document(package.root_body, {&package.key});
  expect_refused("signature_threshold", too_few_signatures);
  package.root = testing::signed_document(package.root_body, {&other, &package.key});
  EXPECT_EQ(read(rewrite()).root_json, package.root);
}

TEST_F(NativePackageTest, HasARootThatIsADocument) {
  package.root = "{\"a\":1,\"a\":1}";
  expect_refused("duplicate_key", "JSON contains a duplicate object key");
  for (const char* text : {"[]", "1", "{}", "{\"signed\":{}}", "{\"signed\":{\"keys\":{},\"roles\":[]}}"}) {
    package.root = text;
    expect_refused(invalid, malformed);
  }
  package.root_body.erase("expires");
  package.sign_root();
  expect_refused(invalid, malformed);
  package.root_body["expires"] = 1;
  package.sign_root();
  expect_refused(invalid, malformed);
  package.root_body["expires"] = "soon";
  package.sign_root();
  expect_refused("invalid_expiry", "Expiry must use a UTC ISO-8601 timestamp");
}

TEST_F(NativePackageTest, HasARootThatIsNotExpired) {
  for (const std::string& time : {std::string("2001-01-01T00:00:00Z"), time_from_now(std::chrono::seconds(-1)),
                                  time_from_now(std::chrono::seconds(0))}) {
    package.root_body["expires"] = time;
    package.sign_root();
    expect_refused("expired_metadata", "The initial package's TUF root has expired");
  }
  for (const std::string& time :
       {time_from_now(std::chrono::minutes(10)), std::string("9999-12-31T23:59:59.999999Z")}) {
    package.root_body["expires"] = time;
    package.sign_root();
    EXPECT_EQ(read(rewrite()).root_json, package.root);
  }
}

// The manifests.

TEST_F(NativePackageTest, HasABootstrapOfItsContract) {
  package.bootstrap["bootstrap_abi"] = 2;
  expect_refused(incompatible, "Initial bootstrap schema or ABI is unsupported");
  package.bootstrap = good_package().bootstrap;
  package.bootstrap["gui_executable"] = "bin/ravok-bootstrap";
  expect_refused(invalid, "Initial bootstrap GUI entry must be its declared Windows windowed executable");
  package.bootstrap = good_package().bootstrap;
  package.bootstrap["schema_version"] = 2;
  expect_refused("unsupported_schema", "Unsupported snapshot schema; nothing was rewritten");
  package.bootstrap = good_package().bootstrap;
  package.bootstrap["padding"] = 1.5;
  expect_refused("invalid_number", "Floating point numbers are not allowed in protocol data");
}

TEST_F(NativePackageTest, HasALauncherOfItsContract) {
  package.launcher["kind"] = "ravok-bootstrap-release";
  expect_refused("unsupported_schema", "Unsupported launcher manifest; existing installation was preserved");
  for (const char* key : {"runtime_lease_abi", "staging_abi"}) {
    package.launcher = good_package().launcher;
    package.launcher[key] = 3;
    expect_refused(incompatible, "Unsupported launcher runtime contract");
  }
  package.launcher = good_package().launcher;
  package.launcher["padding"] = 1.5;
  expect_refused("invalid_number", "Floating point numbers are not allowed in protocol data");
}

TEST_F(NativePackageTest, HasImagesForThisPlatform) {
  const std::string other = native_platform() == "macos-aarch64" ? "linux-x86_64" : "macos-aarch64";
  package.bootstrap["platform"] = other;
  expect_refused(incompatible, "Package images are for another platform");
  package.bootstrap = good_package().bootstrap;
  package.launcher["platform"] = other;
  expect_refused(incompatible, "Package images are for another platform");
}

TEST_F(NativePackageTest, HasArchivesOfAtMostAGibibyteTogether) {
  constexpr std::uint64_t gibibyte = 1'073'741'824;
  constexpr const char* too_large = "Initial package payload is too large";
  const auto declare = [&](std::uint64_t bootstrap, std::uint64_t launcher) {
    package.bootstrap["archive"]["length"] = bootstrap;
    package.launcher["archive"]["length"] = launcher;
  };
  for (const auto& lengths : {std::pair<std::uint64_t, std::uint64_t>(gibibyte, 1),
                              {1, gibibyte},
                              {gibibyte - 1, 2},
                              {gibibyte + 1, 1},
                              {std::uint64_t{1} << 42, gibibyte}}) {
    declare(lengths.first, lengths.second);
    expect_refused("size_limit", too_large);
  }
  // The largest sum is accepted, and then the archives are found to be shorter.
  declare(gibibyte - 1, 1);
  expect_refused(changed, wrong_length);
  declare(1, gibibyte - 1);
  expect_refused(changed, wrong_length);
}

// The manifests by themselves.

TEST_F(NativePackageTest, ShowsItsManifestsWithoutItsOtherResources) {
  const std::string seal = rewrite();
  for (const auto& [name, content] : package.files()) {
    if (name != "bootstrap.json" && name != "launcher.json") {
      std::filesystem::remove(directory / name);
    }
  }
  write_content(directory / "unexpected", "");
  const PackageManifests manifests = package_manifests(directory, seal);
  EXPECT_EQ(manifests.bootstrap.raw, package.bootstrap);
  EXPECT_EQ(manifests.launcher.raw, package.launcher);
  EXPECT_EQ(manifests.launcher.build_id, "build-1");
}

TEST_F(NativePackageTest, ProvesItsManifestsByThemselves) {
  for (const char* name : {"bootstrap.json", "launcher.json"}) {
    const std::string seal = rewrite();
    flip_byte(directory / name, 0);
    EXPECT_FAILURE(package_manifests(directory, seal), changed, changed_resource + name);
    std::filesystem::remove(directory / name);
    EXPECT_FAILURE(package_manifests(directory, seal), "file_read", "Cannot open file: " + (directory / name).native());
    std::filesystem::create_symlink("root.json", directory / name);
    EXPECT_FAILURE(package_manifests(directory, seal), "unsafe_path",
                   "Cannot open file: " + (directory / name).native());
  }
}

TEST_F(NativePackageTest, RefusesManifestsAsTheWholePackageDoes) {
  const auto expect = [&](const Json& other, const std::string& code, const std::string& message) {
    expect_refused(other, code, message);
    const std::string seal = rewrite(other);
    EXPECT_FAILURE(package_manifests(directory, seal), code, message);
  };
  for (const std::string pointer : {"/bootstrap_manifest", "/launcher_manifest"}) {
    expect(with(pointer, Json()), invalid, other_fields);
    expect(with(pointer + "/other", 1), invalid, other_fields);
    expect(with(pointer + "/path", 1), invalid, malformed);
    expect(with(pointer + "/length", 0), "size_limit", too_long);
    expect(with(pointer + "/length", package_limits::document + 1), "size_limit", too_long);
    expect(with(pointer + "/sha256", std::string(64, '0')), changed, changed_resource + name_at(pointer));
    EXPECT_FAILURE(package_manifests(directory, rewrite(without(pointer))), invalid, other_fields);
    EXPECT_FAILURE(package_manifests(directory, rewrite(with(pointer + "/path", "a/b"))), invalid, not_flat);
  }
  package.bootstrap.erase("files");
  EXPECT_FAILURE(package_manifests(directory, rewrite()), "invalid_manifest",
                 "Snapshot manifest has missing or malformed fields");
  package.bootstrap = good_package().bootstrap;
  package.launcher.erase("files");
  EXPECT_FAILURE(package_manifests(directory, rewrite()), "invalid_manifest",
                 "Snapshot manifest has missing or malformed fields");
}

// The featured game.

TEST_F(NativePackageTest, FeaturesAGameByItsIdAndName) {
  const std::string seal = rewrite();
  const std::optional<FeaturedGame> game = package_featured_game(directory, seal);
  ASSERT_TRUE(game);
  EXPECT_EQ(game->id, "first-game");
  EXPECT_EQ(game->name, "The First Game");
}

TEST_F(NativePackageTest, RefusesAFeaturedGameThatIsNot) {
  constexpr const char* no_text = "Featured game must name an id and a display name";
  constexpr const char* name_length = "Featured game name must be 1 to 80 bytes";
  const auto expect = [&](const Json& game, const std::string& code, const std::string& message) {
    const Json other = with("/featured_game", game);
    expect_refused(other, code, message);
    const std::string seal = rewrite(other);
    EXPECT_FAILURE(package_featured_game(directory, seal), code, message);
    EXPECT_EQ(*package_brand(directory, seal), (Brand{"Acme Games", "acme", "Acme", true}));
  };
  expect(Json(), invalid, other_fields);
  expect({{"id", "game"}}, invalid, other_fields);
  expect({{"id", "game"}, {"name", "Game"}, {"other", 1}}, invalid, other_fields);
  expect({{"id", "game"}, {"other", "Game"}}, invalid, missing_field);
  expect({{"other", "game"}, {"name", "Game"}}, invalid, missing_field);
  expect({{"id", 1}, {"name", "Game"}}, invalid, no_text);
  expect({{"id", "game"}, {"name", Json()}}, invalid, no_text);
  expect({{"id", "game"}, {"name", ""}}, invalid, name_length);
  expect({{"id", "game"}, {"name", std::string(81, 'n')}}, invalid, name_length);
  const auto bad_id = testing::failure_of([&] { read(rewrite(with("/featured_game/id", "Game"))); });
  ASSERT_TRUE(bad_id);
  EXPECT_EQ(bad_id->code, "invalid_identity");
  for (const std::size_t size : {1u, 80u}) {
    EXPECT_EQ(read(rewrite(with("/featured_game/name", std::string(size, 'n')))).featured_game->name.size(), size);
  }
}

// The brand.

TEST_F(NativePackageTest, ShowsItsBrandWithoutItsResources) {
  const std::string seal = rewrite();
  for (const auto& [name, content] : package.files()) {
    std::filesystem::remove(directory / name);
  }
  EXPECT_EQ(*package_brand(directory, seal), (Brand{"Acme Games", "acme", "Acme", true}));
  EXPECT_EQ(package_featured_game(directory, seal)->id, "first-game");
}

TEST_F(NativePackageTest, RefusesABrandThatIsNot) {
  const auto expect = [&](const Json& other, const std::string& code, const std::string& message) {
    expect_refused(other, code, message);
    const std::string seal = rewrite(other);
    EXPECT_FAILURE(package_brand(directory, seal), code, message);
    EXPECT_FAILURE(package_theme(directory, seal), code, message);
    EXPECT_FAILURE(package_brand_icon(directory, seal), code, message);
    EXPECT_EQ(package_featured_game(directory, seal)->id, "first-game");
  };
  for (const Json& brand : {Json(), Json(1), Json("text"), Json::array(), Json::object()}) {
    expect(with("/brand", brand), invalid, brand_fields);
  }
  expect(without("/brand/icon"), invalid, brand_fields);
  expect(with("/brand/other", 1), invalid, brand_fields);
  expect(without("/brand/name"), invalid, brand_fields);
  expect(with("/brand/name", 1), invalid, "Brand needs a name");
  expect(with("/brand/name", ""), invalid, "Brand name must be 1 to 64 bytes of plain text");
  expect(with("/brand/name", "CON"), invalid, "A brand name cannot be a Windows device name");
  expect(with("/brand/publisher", "a\nb"), invalid, "Brand publisher must be 1 to 128 bytes of plain text");
  expect(with("/brand/theme", Json()), invalid, other_fields);
  expect(with("/brand/theme/other", 1), invalid, other_fields);
  expect(without("/brand/theme/files"), invalid, other_fields);
  expect(without("/brand/theme/definition"), invalid, other_fields);
  expect(with("/brand/theme/files", Json::array()), invalid, "Brand theme files must be an object");
  expect(with("/brand/theme/definition/path", "other.json"), invalid, "Brand theme definition must be theme.json");
  expect(with("/brand/theme/definition/length", 65'537), "size_limit", too_long);
  for (const char* path : {"plain.ttf", "theme-other.ttf", "theme-badge.bmp"}) {
    expect(with("/brand/theme/files/plain.ttf/path", path), invalid, "Brand theme files are stored as theme-NAME");
  }
  expect(with("/brand/theme/files/plain.ttf/length", 4'194'305), "size_limit", too_long);
}

// Only what asks for the icon looks at what the descriptor says of it.
TEST_F(NativePackageTest, RefusesAnIconThatIsNot) {
  struct Case {
    std::string key;
    Json value;
    std::string code;
    std::string message;
  };
  const std::vector<Case> cases = {
      {"", true, invalid, other_fields},      {"/other", 1, invalid, other_fields},
      {"/length", 0, "size_limit", too_long}, {"/length", 1'048'577, "size_limit", too_long},
      {"/length", -1, invalid, no_length},    {"/sha256", std::string(64, 'A'), invalid, no_hash}};
  for (const Case& one : cases) {
    const Json other = with("/brand/icon" + one.key, one.value);
    expect_refused(other, one.code, one.message);
    const std::string seal = rewrite(other);
    EXPECT_FAILURE(package_brand_icon(directory, seal), one.code, one.message);
    EXPECT_EQ(*package_brand(directory, seal), (Brand{"Acme Games", "acme", "Acme", true}));
    EXPECT_TRUE(package_theme(directory, seal));
  }
}

TEST_F(NativePackageTest, HasAnIconOfAtLeast22Bytes) {
  package.icon = icon_file(21);
  expect_refused(invalid, no_icon);
  package.icon = icon_file(22);
  EXPECT_EQ(read(rewrite()).brand_icon, icon_file(22));
  for (const std::string& start :
       {std::string("\0\0\2\0", 4), std::string("\0\0\1\1", 4), std::string("\1\0\1\0", 4)}) {
    package.icon = start + std::string(60, 'i');
    expect_refused(invalid, no_icon);
  }
}

TEST_F(NativePackageTest, ShowsItsIcon) {
  const std::string seal = rewrite();
  std::filesystem::remove(directory / "root.json");
  append_byte(directory / "extra");
  EXPECT_EQ(package_brand_icon(directory, seal), brand_icon_file());
  const std::filesystem::path icon = directory / "brand.ico";
  constexpr const char* differs = "Initial package icon differs from its descriptor";
  for (std::streamoff offset = 0; offset < 64; ++offset) {
    flip_byte(icon, offset);
    EXPECT_FAILURE(package_brand_icon(directory, seal), changed, differs);
    flip_byte(icon, offset);
  }
  append_byte(icon);
  EXPECT_FAILURE(package_brand_icon(directory, seal), changed, differs);
  std::filesystem::resize_file(icon, 1'048'577);
  EXPECT_FAILURE(package_brand_icon(directory, seal), "size_limit", "File exceeds read limit");
  std::filesystem::remove(icon);
  EXPECT_FAILURE(package_brand_icon(directory, seal), "file_read", "Cannot open file: " + icon.native());
  std::filesystem::create_symlink("launcher.json", icon);
  EXPECT_FAILURE(package_brand_icon(directory, seal), "unsafe_path", "Cannot open file: " + icon.native());
}

TEST_F(NativePackageTest, ShowsAnIconOnlyByAFlatName) {
  for (const char* name : {"initial-package.json", ".x", "sub/x"}) {
    const std::string seal = rewrite(with("/brand/icon/path", name));
    EXPECT_FAILURE(package_brand_icon(directory, seal), invalid, not_flat);
  }
  EXPECT_FAILURE(package_brand_icon(directory, rewrite(with("/brand/icon/path", "../x"))), "unsafe_path",
                 "Path contains an unsafe component");
  EXPECT_FAILURE(package_brand_icon(directory, rewrite(with("/brand/icon/path", "/etc/hostname"))), "unsafe_path",
                 "Path must be a safe relative path");
}

// The theme.

TEST_F(NativePackageTest, ShowsItsTheme) {
  const std::string seal = rewrite();
  std::filesystem::remove(directory / "root.json");
  append_byte(directory / "brand.ico");
  append_byte(directory / "extra");
  const std::optional<Theme> theme = package_theme(directory, seal);
  ASSERT_TRUE(theme);
  EXPECT_EQ(theme->panel, (Rgb{0x02, 0x02, 0x02}));
  EXPECT_EQ(theme->regular_font, package.theme_files.at("plain.ttf"));
  EXPECT_EQ(theme->bold_font, std::nullopt);
  ASSERT_TRUE(theme->icon);
  EXPECT_EQ(theme->icon->bytes, bitmap(3, 2));
  EXPECT_TRUE(theme->icon->pixel_art);
}

class PackageThemeTest : public NativePackageTest {
 protected:
  // Both readers of the theme refuse these pieces.
  void expect_theme_refused(const std::string& code, const std::string& message) const {
    expect_theme_refused(package.descriptor(), code, message);
  }

  void expect_theme_refused(const Json& other, const std::string& code, const std::string& message) const {
    const std::string seal = rewrite(other);
    EXPECT_FAILURE(read(seal), code, message);
    EXPECT_FAILURE(package_theme(directory, seal), code, message);
    EXPECT_EQ(package_brand(directory, seal)->id, "acme");
  }
};

TEST_F(PackageThemeTest, IsRefusedWithAnyOfItsFilesChanged) {
  const std::string seal = rewrite();
  for (const char* name : {"theme.json", "theme-plain.ttf", "theme-badge.bmp"}) {
    flip_byte(directory / name, 5);
    EXPECT_FAILURE(package_theme(directory, seal), changed, changed_resource + name);
    flip_byte(directory / name, 5);
    append_byte(directory / name);
    EXPECT_FAILURE(package_theme(directory, seal), changed, changed_resource + name);
    cut_byte(directory / name);
  }
  EXPECT_TRUE(package_theme(directory, seal));
}

TEST_F(PackageThemeTest, HasExactlyTheFilesOfItsDefinition) {
  constexpr const char* differ = "Brand theme files differ from its definition";
  package.theme_files["more.txt"] = "notice";
  expect_theme_refused(invalid, differ);
  package.theme_files.erase("more.txt");
  package.theme_files.erase("badge.bmp");
  expect_theme_refused(invalid, differ);
  package.theme_files["Badge.bmp"] = bitmap(3, 2);
  expect_theme_refused(invalid, differ);
}

TEST_F(PackageThemeTest, HasFilesWithFlatNames) {
  package.theme_files.clear();
  Json other = package.descriptor();
  other["brand"]["theme"]["files"]["sub/x"] = resource_of("theme-sub/x", "x");
  expect_theme_refused(other, invalid, not_flat);
  other["brand"]["theme"]["files"] = {{"a:b", resource_of("theme-a:b", "x")}};
  expect_theme_refused(other, "unsafe_path", "Path contains an unsafe component");
}

TEST_F(PackageThemeTest, IsRefusedByItsOwnRules) {
  package.theme_files["plain.ttf"] = "no font";
  expect_theme_refused("invalid_theme", "Theme fonts must be TrueType or OpenType files");
  package.theme_files = good_package().theme_files;
  package.theme_files["badge.bmp"] = bitmap(257, 1);
  expect_theme_refused("invalid_theme", "Theme image is larger than 256×256 pixels");
  package.theme_files["badge.bmp"] = bitmap(256, 257);
  expect_theme_refused("size_limit", "File exceeds read limit");
  package.theme_files = good_package().theme_files;
  (*package.theme)["schema_version"] = 2;
  expect_theme_refused("invalid_theme", "Unsupported theme schema");
  package.theme = good_package().theme;
  (*package.theme)["colors"]["text"] = "#202020";
  expect_theme_refused("invalid_theme", "Theme contrast is below 4.5:1 for text on background");
  package.theme = good_package().theme;
  (*package.theme)["fonts"]["regular"] = ".plain.ttf";
  expect_theme_refused("invalid_theme", "Theme file names are 1 to 100 letters, digits, '.', '_' or '-': .plain.ttf");
  package.theme = Json::array();
  expect_theme_refused("invalid_theme", "definition must be an object");
  package.theme = Json{{"a", 1.5}};
  expect_theme_refused("invalid_number", "Floating point numbers are not allowed in protocol data");
}

// Files of exactly 16 MiB together.
void fill_theme(InitialPackage& package) {
  Json& theme = *package.theme;
  theme["fonts"] = {{"regular", "a.ttf"}, {"bold", "b.ttf"}, {"title", "c.ttf"}};
  theme["images"] = {{"banner", {{"file", "banner.bmp"}}}};
  theme["notices"] = Json::array();
  package.theme_files.clear();
  for (const char* name : {"a.ttf", "b.ttf", "c.ttf"}) {
    package.theme_files[name] = "true" + std::string(4'194'300, 'f');
  }
  package.theme_files["banner.bmp"] = bitmap(1000, 1000);
  std::size_t left = 4'194'304 - package.theme_files["banner.bmp"].size();
  for (int i = 0; left > 0; ++i) {
    const std::string name = "notice-" + std::to_string(i) + ".txt";
    const std::size_t size = std::min<std::size_t>(left, 262'144);
    theme["notices"].push_back(name);
    package.theme_files[name] = std::string(size, 'n');
    left -= size;
  }
}

TEST_F(PackageThemeTest, HasFilesOfAtMost16MebibytesTogether) {
  fill_theme(package);
  const std::string seal = rewrite();
  EXPECT_EQ(package_theme(directory, seal)->notices.size(), 5u);
  EXPECT_EQ(read(seal).theme->files.size(), 9u);
  Json other = package.descriptor();
  Json& length = other["brand"]["theme"]["files"]["notice-4.txt"]["length"];
  length = length.get<std::uint64_t>() + 1;
  expect_theme_refused(other, "size_limit", "Brand theme files exceed 16 MiB together");
  // This bound is checked before any other rule for the files.
  other["brand"]["theme"]["files"]["other"] = resource_of("theme-other", "x");
  expect_theme_refused(other, "size_limit", "Brand theme files exceed 16 MiB together");
}

// The order of the checks.

struct Scene {
  InitialPackage package = good_package();
  Json descriptor;
  std::string text;
  std::filesystem::path directory;
  std::string seal;
};

// The stages in which a scene is made; a fault happens in one of them.
enum class Stage { pieces, descriptor, text, files };

struct Fault {
  Stage stage;
  std::function<void(Scene&)> happen;
  std::string code;
  std::string message;
};

Fault of_pieces(std::function<void(InitialPackage&)> happen, const std::string& code, const std::string& message) {
  return {Stage::pieces, [happen](Scene& scene) { happen(scene.package); }, code, message};
}

Fault of_descriptor(const std::string& pointer, const Json& value, const std::string& code,
                    const std::string& message) {
  return {Stage::descriptor, [=](Scene& scene) { scene.descriptor[Pointer("/" + pointer)] = value; }, code, message};
}

Fault of_file(const std::string& name, void (*happen)(const std::filesystem::path&), const std::string& code,
              const std::string& message) {
  return {Stage::files, [=](Scene& scene) { happen(scene.directory / name); }, code, message};
}

void make_directory_link(Scene& scene) {
  const std::filesystem::path moved = scene.directory.native() + "-moved";
  std::filesystem::rename(scene.directory, moved);
  std::filesystem::create_directory_symlink(moved, scene.directory);
}

void sign_with_another_key(InitialPackage& package) {
  package.key = testing::TestKey::ed25519();
  package.sign_root();
}

void expire_root(InitialPackage& package) {
  package.root_body["expires"] = "2001-01-01T00:00:00Z";
  package.sign_root();
}

std::string other_platform() { return native_platform() == "macos-aarch64" ? "linux-x86_64" : "macos-aarch64"; }

// One fault for each check, in the order of the checks; for one kind of file, in the order in which the files are read.
std::vector<Fault> faults() {
  return {
      {Stage::files, [](Scene& scene) { scene.seal.clear(); }, untrusted, no_seal},
      {Stage::files, make_directory_link, invalid, no_directory},
      {Stage::files, [](Scene& scene) { scene.seal = scene.seal.empty() ? "" : std::string(64, '0'); }, untrusted,
       other_package},
      {Stage::text, [](Scene& scene) { scene.text.insert(1, "\"kind\":1,"); }, "duplicate_key",
       "JSON contains a duplicate object key"},
      of_descriptor("featured_game/name", "", invalid, "Featured game name must be 1 to 80 bytes"),
      of_descriptor("brand/theme/definition/path", "x", invalid, "Brand theme definition must be theme.json"),
      of_descriptor("brand/theme/files/plain.ttf/path", "x", invalid, "Brand theme files are stored as theme-NAME"),
      of_descriptor("brand/publisher", "", invalid, "Brand publisher must be 1 to 128 bytes of plain text"),
      of_descriptor("brand/icon/length", 0, "size_limit", too_long),
      of_descriptor("other", 1, invalid, other_fields),
      of_descriptor("schema_version", 2, "unsupported_schema", "Unsupported initial package schema"),
      of_descriptor("platform", other_platform(), incompatible, "This package is for another platform"),
      of_descriptor("origin", "https://games.example/", "invalid_origin", other_origin),
      of_descriptor("root/length", -1, invalid, no_length),
      of_descriptor("bootstrap_manifest/length", 0, "size_limit", too_long),
      of_descriptor("launcher_manifest/sha256", "", invalid, no_hash),
      of_descriptor("ca_bundle/other", 1, invalid, other_fields),
      of_file("root.json", append_byte, changed, changed_resource + "root.json"),
      of_file("bootstrap.json", append_byte, changed, changed_resource + "bootstrap.json"),
      of_file("launcher.json", append_byte, changed, changed_resource + "launcher.json"),
      of_file("ca.pem", append_byte, changed, changed_resource + "ca.pem"),
      of_file("brand.ico", append_byte, changed, changed_resource + "brand.ico"),
      of_pieces([](InitialPackage& package) { package.icon = icon_file(21); }, invalid, no_icon),
      of_file("theme.json", append_byte, changed, changed_resource + "theme.json"),
      of_pieces([](InitialPackage& package) { (*package.theme)["notices"] = 1; }, "invalid_theme",
                "Theme notices are a list of files"),
      of_pieces([](InitialPackage& package) { package.theme_files["more.txt"] = "x"; }, invalid,
                "Brand theme files differ from its definition"),
      of_file("theme-badge.bmp", append_byte, changed, changed_resource + "theme-badge.bmp"),
      of_pieces([](InitialPackage& package) { (*package.theme)["kind"] = 1; }, "invalid_theme",
                "Unsupported theme schema"),
      of_pieces(sign_with_another_key, "signature_threshold", too_few_signatures),
      of_pieces(expire_root, "expired_metadata", "The initial package's TUF root has expired"),
      of_pieces([](InitialPackage& package) { package.bootstrap["schema_version"] = 2; }, "unsupported_schema",
                "Unsupported snapshot schema; nothing was rewritten"),
      of_pieces([](InitialPackage& package) { package.bootstrap["bootstrap_abi"] = 2; }, incompatible,
                "Initial bootstrap schema or ABI is unsupported"),
      of_pieces([](InitialPackage& package) { package.launcher["staging_abi"] = 2; }, incompatible,
                "Unsupported launcher runtime contract"),
      of_pieces([](InitialPackage& package) { package.launcher["platform"] = other_platform(); }, incompatible,
                "Package images are for another platform"),
      of_pieces([](InitialPackage& package) { package.bootstrap["archive"]["length"] = 1'073'741'824; }, "size_limit",
                "Initial package payload is too large"),
      of_pieces([](InitialPackage& package) { package.bootstrap["archive"]["target"] = ".x"; }, invalid, not_flat),
      of_pieces([](InitialPackage& package) { package.launcher["archive"]["target"] = "ca.pem"; }, invalid,
                "Initial package resources overlap"),
      of_file("extra", append_byte, invalid, unexpected_entry + "extra"),
      of_file(
          launcher_name(), [](const std::filesystem::path& path) { std::filesystem::remove(path); }, invalid,
          missing_resource),
      of_file(bootstrap_name(), append_byte, changed, wrong_length),
      of_file(
          launcher_name(), [](const std::filesystem::path& path) { flip_byte(path, 0); }, changed,
          changed_resource + launcher_name()),
  };
}

// What a package with these faults is refused with.
std::optional<Error> failure_with(const TemporaryRoot& root, const std::vector<const Fault*>& happening) {
  std::filesystem::remove_all(root / "package");
  std::filesystem::remove_all(root / "package-moved");
  Scene scene;
  scene.directory = root / "package";
  const auto happen = [&](Stage stage) {
    for (const Fault* fault : happening) {
      if (fault->stage == stage) {
        fault->happen(scene);
      }
    }
  };
  happen(Stage::pieces);
  scene.descriptor = scene.package.descriptor();
  happen(Stage::descriptor);
  scene.package.write(scene.directory, scene.descriptor);
  scene.text = scene.descriptor.dump();
  happen(Stage::text);
  scene.seal = write_descriptor(scene.directory, scene.text);
  happen(Stage::files);
  return testing::failure_of([&] { read_native_package(scene.directory, scene.seal, {}); });
}

TEST(NativePackageOrder, IsThatOfTheListForEveryTwoFaults) {
  const TemporaryRoot root;
  const std::vector<Fault> all = faults();
  ASSERT_FALSE(failure_with(root, {}));
  for (std::size_t first = 0; first < all.size(); ++first) {
    for (std::size_t second = first; second < all.size(); ++second) {
      const Fault& expected = all[first];
      std::vector<const Fault*> happening = {&expected};
      if (second != first) {
        happening.push_back(&all[second]);
      }
      const std::optional<Error> failure = failure_with(root, happening);
      const std::string both = expected.message + " / " + all[second].message;
      ASSERT_TRUE(failure) << both;
      EXPECT_EQ(failure->code, expected.code) << both;
      EXPECT_EQ(failure->what(), expected.message) << both;
    }
  }
}

}  // namespace
}  // namespace ravok
