#include "publisher/publish_package.hpp"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "app/install/native_package.hpp"
#include "platform/process/native_platform.hpp"
#include "publisher/publish_root.hpp"
#include "publisher/publish_snapshot.hpp"
#include "publisher/signing/publish_key.hpp"
#include "support/certificate.hpp"
#include "support/failure.hpp"
#include "support/icon_builder.hpp"
#include "support/package_builder.hpp"
#include "support/temporary_root.hpp"
#include "support/theme_builder.hpp"

namespace ravok {
namespace {

using testing::TemporaryRoot;
using Names = std::vector<std::string>;

class PublishPackage : public ::testing::Test {
 protected:
  PublishPackage() {
    publish_key(root / "key", "ed25519");
    const RolePublication role = {{root / "key"}, 1};
    publish_root({root / "root.json", "2050-01-01T00:00:00Z", role, role, role, role});
    publication.output = root / "package";
    publication.bootstrap_manifest = snapshot(SnapshotKind::bootstrap, {"bin/ravok-bootstrap"});
    publication.launcher_manifest = snapshot(SnapshotKind::launcher, {"bin/launcher", "bin/launcher-gui"});
    publication.root = root / "root.json";
    publication.origin = "https://updates.example.com";
  }

  std::filesystem::path snapshot(SnapshotKind kind, const Names& programs) const {
    const std::string name = kind == SnapshotKind::bootstrap ? "bootstrap" : "launcher";
    for (const std::string& program : programs) {
      const std::filesystem::path file = root.write(name + "/" + program, "#!" + program);
      EXPECT_EQ(chmod(file.c_str(), 0755), 0);
    }
    SnapshotPublication snapshot;
    snapshot.kind = kind;
    snapshot.tree = root / name;
    snapshot.output = root.directory("snapshots");
    snapshot.build_id = "build-1";
    snapshot.platform = native_platform();
    snapshot.executable = programs.front();
    snapshot.gui_executable = programs.size() > 1 ? programs.back() : "";
    return publish_snapshot(snapshot, {}).manifest;
  }

  void add_everything() {
    publication.ca_bundle = root.write("authorities.pem", testing::certificate());
    BrandPublication brand = {"My Product", "my-product", "My Studio", {}, {}};
    brand.icon = root.write("product.ico", testing::brand_icon_file());
    brand.theme = root.directory("theme");
    Json definition = testing::theme_definition();
    definition["fonts"]["regular"] = "text.ttf";
    definition["images"]["icon"]["file"] = "icon.bmp";
    root.write("theme/theme.json", definition.dump());
    root.write("theme/text.ttf", testing::font_file());
    root.write("theme/icon.bmp", testing::bitmap(4, 4));
    publication.brand = brand;
    publication.featured_game = {"first-game", "The First Game"};
  }

  // Neither the output is there, nor anything that was made on the way to it.
  void expect_no_package() const {
    for (const auto& entry : std::filesystem::directory_iterator(root.path())) {
      EXPECT_FALSE(entry.path().filename().native().starts_with("package")) << entry.path();
    }
  }

  void expect_refused(const std::string& code, const std::string& message) const {
    EXPECT_FAILURE(publish_package(publication, {}), code, message);
    expect_no_package();
  }

  const TemporaryRoot root;
  PackagePublication publication;
};

TEST_F(PublishPackage, IsReadWholeByTheClient) {
  add_everything();
  const PublishedPackage published = publish_package(publication, {});
  EXPECT_EQ(published.directory, root / "package");
  const NativePackage package = read_native_package(published.directory, published.seal, {});
  EXPECT_EQ(package.origin, "https://updates.example.com");
  EXPECT_EQ(package.root_json, root.read("root.json"));
  EXPECT_EQ(package.ca_bundle, root.read("authorities.pem"));
  EXPECT_EQ(package.bootstrap_manifest_json,
            root.read("snapshots/bootstrap-" + std::string(native_platform()) + ".manifest.json"));
  EXPECT_EQ(package.launcher.executable, "bin/launcher");
  EXPECT_EQ(package.brand, (Brand{"My Product", "my-product", "My Studio", true}));
  EXPECT_EQ(package.brand_icon, root.read("product.ico"));
  ASSERT_TRUE(package.theme);
  EXPECT_EQ(package.theme->definition, root.read("theme/theme.json"));
  EXPECT_EQ(package.theme->files.size(), 2u);
  ASSERT_TRUE(package.featured_game);
  EXPECT_EQ(package.featured_game->id, "first-game");
  EXPECT_EQ(package.featured_game->name, "The First Game");
}

TEST_F(PublishPackage, HoldsNothingThatWasNotAskedFor) {
  const PublishedPackage published = publish_package(publication, {});
  const NativePackage package = read_native_package(published.directory, published.seal, {});
  EXPECT_EQ(package.ca_bundle, "");
  EXPECT_FALSE(package.brand);
  EXPECT_FALSE(package.theme);
  EXPECT_FALSE(package.featured_game);
  const std::string platform(native_platform());
  Names names;
  std::uint64_t length = 0;
  for (const auto& entry : std::filesystem::directory_iterator(published.directory)) {
    names.push_back(entry.path().filename());
    struct stat status;
    ASSERT_EQ(lstat(entry.path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u) << entry.path();
    length += static_cast<std::uint64_t>(status.st_size);
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names,
            (Names{"bootstrap-" + platform + "-build-1.tar.zst", "bootstrap.manifest.json", "initial-package.json",
                   "launcher-" + platform + "-build-1.tar.zst", "launcher.manifest.json", "root.json"}));
  EXPECT_EQ(published.length, length);
}

TEST_F(PublishPackage, IsTheSameForTheSameInputs) {
  add_everything();
  const PublishedPackage first = publish_package(publication, {});
  publication.output = root / "package-again";
  EXPECT_EQ(publish_package(publication, {}).seal, first.seal);
}

TEST_F(PublishPackage, TellsOfTwoPassesOverTheArchives) {
  std::uint64_t last = 0;
  std::uint64_t whole = 0;
  publish_package(publication, [&](std::uint64_t done, std::uint64_t total) {
    EXPECT_LE(last, done);
    EXPECT_LE(done, total);
    last = done;
    whole = total;
    return true;
  });
  EXPECT_EQ(last, whole);
  EXPECT_GT(whole, 0u);
}

TEST_F(PublishPackage, LeavesNothingWhenItIsCancelledAtAnyPoint) {
  add_everything();
  int reports = 0;
  publish_package(publication, [&](std::uint64_t, std::uint64_t) { return ++reports > 0; });
  std::filesystem::remove_all(root / "package");
  for (int allowed = 0; allowed < reports; ++allowed) {
    int left = allowed;
    const auto failure = testing::failure_of(
        [&] { publish_package(publication, [&](std::uint64_t, std::uint64_t) { return left-- > 0; }); });
    ASSERT_TRUE(failure) << allowed;
    EXPECT_EQ(failure->code, "cancelled");
    expect_no_package();
  }
}

TEST_F(PublishPackage, OverwritesNothing) {
  root.write("package/mine", "mine");
  EXPECT_FAILURE(publish_package(publication, {}), "output_exists",
                 "The output already exists: " + (root / "package").native());
  EXPECT_EQ(root.read("package/mine"), "mine");
}

TEST_F(PublishPackage, NamesThePlaceThatItCannotWriteTo) {
  root.write("none", "x");
  publication.output = root / "none/package";
  EXPECT_FAILURE(publish_package(publication, {}), "file_write",
                 "Cannot make the directory " + (root / "none/package").native());
  EXPECT_EQ(root.read("none"), "x");
}

TEST_F(PublishPackage, MakesTheMissingFoldersAboveItAndRemovesThemAfterAFailure) {
  publication.output = root / "new/deep/package";
  const auto failure =
      testing::failure_of([&] { publish_package(publication, [](std::uint64_t, std::uint64_t) { return false; }); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "cancelled");
  EXPECT_TRUE(std::string(failure->what()).ends_with(".tar.zst: Operation cancelled at a safe boundary"))
      << failure->what();
  EXPECT_FALSE(std::filesystem::exists(root / "new"));
  const PublishedPackage published = publish_package(publication, {});
  EXPECT_EQ(read_native_package(root / "new/deep/package", published.seal, {}).descriptor_sha256, published.seal);
}

TEST_F(PublishPackage, RefusesAnOriginThatIsMoreThanOne) {
  for (const char* origin : {"https://updates.example.com/", "https://updates.example.com/path"}) {
    publication.origin = origin;
    expect_refused("invalid_origin", "The package origin must be a plain HTTPS origin");
  }
  publication.origin = "http://updates.example.com";
  const auto failure = testing::failure_of([&] { publish_package(publication, {}); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "https_required");
  expect_no_package();
}

TEST_F(PublishPackage, RefusesAnOriginThatNoClientCouldReach) {
  publication.origin = "https://updates.example.com:";
  expect_refused("invalid_origin", "The origin has a colon without a port behind it");
  publication.origin = "https://updates.example.com:0";
  expect_refused("invalid_origin", "The port of the origin must be a number from 1 to 65535");
}

TEST_F(PublishPackage, NamesTheBundleThatIsNotOneOfCertificates) {
  const std::string file = root.write("authorities.pem", "certificates");
  publication.ca_bundle = file;
  expect_refused("invalid_ca_bundle", file + ": The CA bundle holds no certificate in PEM form");
  root.write("authorities.pem", testing::certificate() + std::string(1'048'576, '\n'));
  expect_refused("size_limit", file + ": File exceeds read limit");
  std::filesystem::remove(file);
  expect_refused("file_read", "Cannot open file: " + file);
}

TEST_F(PublishPackage, TakesABundleAsLargeAsThePackageMayHold) {
  const std::string certificate = testing::certificate();
  publication.ca_bundle =
      root.write("authorities.pem", certificate + std::string(1'048'576 - certificate.size(), '\n'));
  const PublishedPackage published = publish_package(publication, {});
  EXPECT_EQ(read_native_package(published.directory, published.seal, {}).ca_bundle, root.read("authorities.pem"));
}

TEST_F(PublishPackage, NamesTheRootThatIsNone) {
  const std::string file = root.write("bad.json", "{}");
  publication.root = file;
  expect_refused("invalid_metadata", file + ": Metadata must contain a signed object and signature array");
}

TEST_F(PublishPackage, NamesTheManifestThatIsOfAnotherKind) {
  std::swap(publication.bootstrap_manifest, publication.launcher_manifest);
  const auto failure = testing::failure_of([&] { publish_package(publication, {}); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "launcher_incompatible");
  EXPECT_TRUE(std::string(failure->what()).starts_with(publication.bootstrap_manifest.native() + ": "))
      << failure->what();
  expect_no_package();
}

TEST_F(PublishPackage, NamesTheArchiveThatIsNotTheManifests) {
  const std::string name = "snapshots/launcher-" + std::string(native_platform()) + "-build-1.tar.zst";
  const std::string file = root / name;
  const std::string message = file + ": The archive is not the one of its manifest";
  const std::string content = root.read(name);
  for (std::size_t at = 0; at < content.size(); at += 7) {
    std::string changed = content;
    changed[at] = static_cast<char>(changed[at] ^ 1);
    root.write(name, changed);
    expect_refused("content_mismatch", message);
  }
  root.write(name, content + "x");
  expect_refused("content_mismatch", message);
  root.write(name, content.substr(1));
  expect_refused("content_mismatch", message);
  std::filesystem::remove(file);
  expect_refused("file_read", file + ": Cannot open the archive that the manifest names");
}

TEST_F(PublishPackage, RefusesABrandThatTheClientWouldRefuse) {
  add_everything();
  publication.brand->name = "NUL";
  expect_refused("invalid_native_package", "A brand name cannot be a Windows device name");
  publication.brand->name = "My Product";
  publication.brand->publisher = "";
  expect_refused("invalid_native_package", "Brand publisher must be 1 to 128 bytes of plain text");
}

TEST_F(PublishPackage, NamesTheIconThatIsNone) {
  add_everything();
  publication.brand->icon = root.write("icon.png", "\x89PNG and so on, longer than a header");
  expect_refused("invalid_native_package", (root / "icon.png").native() + ": The brand icon is not an .ico file");
}

TEST_F(PublishPackage, NamesTheIconThatNoMenuCouldShow) {
  add_everything();
  const std::string message =
      (root / "product.ico").native() +
      ": The icon holds no PNG image that a desktop's menu could show: save its largest image, of at most 1024×1024 "
      "pixels, as PNG in the .ico file";
  std::string damaged = testing::icon_of({testing::png_image(32, 32)});
  damaged[100] = 'x';
  for (const std::string& icon : {testing::icon_of({testing::icon_bitmap()}), testing::icon_file(64), damaged,
                                  testing::icon_of({testing::png_image(1025, 1)})}) {
    root.write("product.ico", icon);
    expect_refused("invalid_native_package", message);
  }
}

TEST_F(PublishPackage, NamesTheThemeThatIsIncomplete) {
  add_everything();
  std::filesystem::remove(root / "theme/text.ttf");
  expect_refused("invalid_theme", (root / "theme").native() + ": Theme file is missing or not a plain file: text.ttf");
  root.write("theme/theme.json", "{");
  const auto failure = testing::failure_of([&] { publish_package(publication, {}); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "invalid_json");
  EXPECT_TRUE(std::string(failure->what()).starts_with((root / "theme/theme.json").native() + ": "));
  expect_no_package();
}

TEST_F(PublishPackage, NamesEveryPairOfColoursThatIsHardToReadAndHowMuchIsMissing) {
  add_everything();
  Json definition = parse_json(root.read("theme/theme.json"), 65'536);
  definition["colors"]["background"] = "#777777";
  definition["colors"]["success"] = "#ffffff";
  definition["colors"]["text"] = "#777778";
  definition["colors"]["focus"] = "#999999";
  root.write("theme/theme.json", definition.dump());
  const std::string low =
      "Theme contrast is too low: text on background has 1.00:1 and needs 4.50:1; muted on background has 3.39:1 and "
      "needs 4.50:1; success on background has 4.47:1 and needs 4.50:1; focus on background has 1.57:1 and needs "
      "3.00:1";
  expect_refused("invalid_theme", (root / "theme").native() + ": " + low);
}

TEST_F(PublishPackage, RefusesAFeaturedGameThatTheClientWouldRefuse) {
  publication.featured_game = {"game", std::string(81, 'x')};
  expect_refused("invalid_native_package", "Featured game name must be 1 to 80 bytes");
}

TEST_F(PublishPackage, RefusesAPackageOfAnotherPlatform) {
  publication.launcher_manifest = [&] {
    SnapshotPublication snapshot;
    snapshot.kind = SnapshotKind::launcher;
    snapshot.tree = root / "launcher";
    snapshot.output = root.directory("elsewhere");
    snapshot.build_id = "build-1";
    snapshot.platform = native_platform() == "linux-x86_64" ? "windows-x86_64" : "linux-x86_64";
    snapshot.executable = "bin/launcher";
    snapshot.gui_executable = "bin/launcher-gui";
    return publish_snapshot(snapshot, {}).manifest;
  }();
  expect_refused("launcher_incompatible", "Package images are for another platform");
}

}  // namespace
}  // namespace ravok
