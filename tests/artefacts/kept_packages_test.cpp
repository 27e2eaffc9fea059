// The initial packages of every version: verified, installed and shipped anew by this one.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/install/appended_package.hpp"
#include "app/install/native_package.hpp"
#include "artefacts/kept_installation.hpp"
#include "domain/crypto.hpp"
#include "publisher/single_file_installer.hpp"
#include "support/bytes_of.hpp"
#include "support/fast_volume.hpp"
#include "support/temporary_root.hpp"

namespace ravok::kept_packages_test {
namespace {

using testing::KeptFolder;
using testing::KeptVersion;
using testing::ProgramResult;

// Installs the package of a request into a new home, starts the client and removes it.
void expect_installs(NativeInstallRequest request, const std::string& seal, bool has_menu_entry) {
  const testing::TemporaryRoot place(testing::fast_volume());
  place.directory("home/.local/share");
  const testing::WithEnvironment home("HOME", (place / "home").native());
  request.data_root = place / "data";
  request.create_shortcut = true;
  const NativeInstallResult installed = NativeInstaller::install(request, seal, {});
  EXPECT_EQ(installed.shortcut_problem, "");
  EXPECT_EQ(installed.shortcuts.size(), has_menu_entry ? 1u : 0u);
  const NativeInstallStatus status = NativeInstaller::status(place / "data");
  EXPECT_TRUE(status.installed);
  EXPECT_EQ(status.launcher_build, "1.0.0");
  EXPECT_EQ(status.bootstrap_build, "bootstrap-1");
  EXPECT_EQ(testing::try_candidate(place / "data"), 0);
  EXPECT_EQ(testing::build_of(place / "data", "active"), "1.0.0");
  EXPECT_TRUE(NativeInstaller::uninstall({place / "data", false, std::chrono::milliseconds(0)}, {}).data_removed);
}

NativeInstallRequest request_of(const KeptFolder& kept) {
  NativeInstallRequest request;
  request.package = kept / "package";
  return request;
}

TEST(KeptPackages, ThePlainOneIsVerifiedAndInstalled) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptFolder kept(version, "package-plain");
    const std::string seal = kept.read("seal");
    const NativePackage package = read_native_package(kept / "package", seal, {});
    EXPECT_EQ(package.origin, "https://updates.example.com");
    EXPECT_EQ(package.launcher.build_id, "1.0.0");
    EXPECT_EQ(package.bootstrap.build_id, "bootstrap-1");
    EXPECT_FALSE(package.brand || package.theme || package.featured_game);
    EXPECT_EQ(package.ca_bundle, "");
    expect_installs(request_of(kept), seal, true);
    EXPECT_EQ(testing::failure_of([&] { read_native_package(kept / "package", std::string(64, '0'), {}); })->code,
              "native_install_trust");
  }
}

TEST(KeptPackages, TheBrandedOneHasItsNameItsThemeAndItsIcon) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptFolder kept(version, "package-branded");
    const std::string seal = kept.read("seal");
    const NativePackage package = read_native_package(kept / "package", seal, {});
    ASSERT_TRUE(package.brand && package.theme);
    EXPECT_EQ(*package.brand, (Brand{"Brightwood", "brightwood", "Brightwood Games", true}));
    EXPECT_EQ(package.theme->files.size(), 2u);
    EXPECT_TRUE(package_theme(kept / "package", seal));
    EXPECT_EQ(package_brand_icon(kept / "package", seal), package.brand_icon);
    EXPECT_TRUE(package.ca_bundle.starts_with("-----BEGIN CERTIFICATE-----"));
    expect_installs(request_of(kept), seal, true);
  }
}

TEST(KeptPackages, TheFeaturedGameIsNamed) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptFolder kept(version, "package-featured");
    const std::string seal = kept.read("seal");
    const std::optional<FeaturedGame> game = package_featured_game(kept / "package", seal);
    ASSERT_TRUE(game);
    EXPECT_EQ(game->id, "first-game");
    EXPECT_EQ(game->name, "The First Game");
    // Who shows the game makes its menu entry, and the client has none.
    expect_installs(request_of(kept), seal, false);
  }
}

TEST(KeptPackages, TheOneBehindAProgramIsFoundAndInstalled) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptFolder kept(version, "package-single-file");
    const std::optional<AppendedPlace> place = find_appended_place(kept.read("installer"));
    ASSERT_TRUE(place);
    NativeInstallRequest request;
    request.appended = AppendedPackage::in_file(kept / "installer", *place);
    EXPECT_EQ(read_native_package(request.appended, kept.read("seal"), {}).launcher.build_id, "1.0.0");
    expect_installs(request, kept.read("seal"), true);
  }
}

TEST(KeptPackages, IsShippedWithThePresentInstaller) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptFolder kept(version, "package-branded");
    std::filesystem::create_directories(kept / "home/.local/share");
    const auto run = [&](const std::string& program, const std::vector<std::string>& arguments) {
      const ProgramResult result = testing::run_program({program, arguments, {{"HOME", kept / "home"}}, ""});
      EXPECT_EQ(result.exit_code, 0) << result.output << result.errors;
      return result.output;
    };
    run(RAVOK_PUBLISH,
        {"installer", kept / "package", kept / "installer", "--program", RAVOK_INSTALL, "--single-file"});
    const std::string data = kept / "data";
    run(kept / "installer", {"install", "--data-dir", data, "--json"});
    const Json status = Json::parse(run(RAVOK_MAINTENANCE, {"status", "--data-dir", data, "--json"}));
    EXPECT_EQ(status.at("installed"), true);
    EXPECT_EQ(status.at("launcher_build"), "1.0.0");
    EXPECT_EQ(status.at("last_operation").at("outcome"), "succeeded");
    run(kept / "installer", {"repair", "--data-dir", data, "--json"});
    run(RAVOK_MAINTENANCE, {"uninstall", "--data-dir", data, "--json"});
    EXPECT_FALSE(std::filesystem::exists(data));
  }
}

}  // namespace
}  // namespace ravok::kept_packages_test
