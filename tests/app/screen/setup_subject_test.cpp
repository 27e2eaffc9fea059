#include "app/screen/setup_subject.hpp"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/brand/brand.hpp"
#include "app/setup/setup_package.hpp"
#include "domain/crypto.hpp"
#include "support/failure.hpp"
#include "support/install_place.hpp"
#include "support/process.hpp"
#include "support/single_file.hpp"
#include "support/tree_state.hpp"

namespace ravok::setup_subject_test {
namespace {

using Words = std::vector<std::string>;

const std::string no_place(appended_place_characters, '-');

std::string bytes_in(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// A program that looks for its package, in a folder of its own.
class SetupSubjectTest : public ::testing::Test {
 protected:
  SetupSubjectTest() {
    place.root().directory("programs");
    std::filesystem::copy_file(RAVOK_SUBJECT_COMPANION, program());
    brand_theme();
  }

  std::filesystem::path program() const { return place.root() / "programs/ravok-install"; }
  std::filesystem::path package_beside() const { return place.root() / "programs/initial-package"; }
  std::filesystem::path default_folder(const std::string& name) const { return place.home() / ".local/share" / name; }

  // A theme that is not the default one.
  void brand_theme() {
    (*place.package.theme)["colors"]["accent"] = "#000081";
    place.republish();
  }

  Json run(const Words& words) const {
    const testing::TreeState before = testing::tree_state(place.root().path());
    const testing::ProgramResult result =
        testing::run_program({program().native(), words, {{"HOME", place.home().native()}}, {}});
    EXPECT_EQ(result.errors, "");
    EXPECT_TRUE(testing::same_tree(testing::tree_state(place.root().path()), before));
    return Json::parse(result.output, nullptr, false);
  }
  Json find(const Words& arguments = {}) const { return find_with(place.seal(), no_place, arguments); }
  Json find_with(const std::string& seal, const std::string& slot, const Words& arguments = {}) const {
    Words words = {"install", seal, slot};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return run(words);
  }
  Json maintain(const Words& arguments) const {
    Words words = {"maintain"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return run(words);
  }

  // What is found of the package, which lies there.
  Json whole(const std::filesystem::path& package) const {
    return {{"data_root", default_folder("Acme Games").native()},
            {"data_root_chosen", false},
            {"seal", place.seal()},
            {"package", package.native()},
            {"appended", false},
            {"build", "build-1"},
            {"game", "first-game The First Game"},
            {"publisher", "Acme"},
            {"problem", ""},
            {"problem_code", ""},
            {"icon", digest(testing::brand_icon_file(), "sha256")},
            {"name", "Acme Games"},
            {"accent", {0, 0, 0x81}}};
  }
  // What is known without a package.
  Json nothing(const std::string& problem, const std::string& code) const {
    return {{"data_root", default_folder("Ravok").native()},
            {"data_root_chosen", false},
            {"seal", place.seal()},
            {"package", ""},
            {"appended", false},
            {"build", nullptr},
            {"game", nullptr},
            {"publisher", ""},
            {"problem", problem},
            {"problem_code", code},
            {"icon", digest("", "sha256")},
            {"name", "Ravok"},
            {"accent", {0x25, 0x63, 0xc9}}};
  }

  testing::InstallPlace place;
};

TEST_F(SetupSubjectTest, TakesThePackageBesideTheProgram) {
  std::filesystem::rename(place.package_directory(), package_beside());
  EXPECT_EQ(find(), whole(package_beside()));
}

TEST_F(SetupSubjectTest, TakesTheChosenPackageBeforeTheOneBesideTheProgram) {
  place.root().write("programs/initial-package/initial-package.json", "{}");
  EXPECT_EQ(find({"--package", place.package_directory().native()}), whole(place.package_directory()));
}

TEST_F(SetupSubjectTest, TakesThePackageInTheProgramsFile) {
  const std::string image = bytes_in(program());
  const AppendedPlace in_file = [&] {
    OutputFile output(place.root() / "programs/together");
    const AppendedPlace written =
        write_single_file_installer(image + testing::empty_appended_slot(), place.package_directory(), output, {});
    output.commit();
    output.keep();
    return written;
  }();
  std::filesystem::rename(place.root() / "programs/together", program());
  std::filesystem::permissions(program(), std::filesystem::perms::owner_all);
  Json expected = whole(program());
  expected["appended"] = true;
  EXPECT_EQ(find_with(place.seal(), appended_place_text(in_file)), expected);

  // The end of a download that was cut short.
  std::filesystem::resize_file(program(), std::filesystem::file_size(program()) - 1);
  const std::string size = std::to_string(in_file.file_bytes);
  EXPECT_EQ(find_with(place.seal(), appended_place_text(in_file)),
            nothing("This installer was cut short: it has " + std::to_string(in_file.file_bytes - 1) + " of its " +
                        size + " bytes; get it again",
                    "content_mismatch"));
}

TEST_F(SetupSubjectTest, SaysThatThereIsNoPackage) {
  EXPECT_EQ(find(), nothing("Choose the initial package with --package DIR", "usage"));
}

TEST_F(SetupSubjectTest, SaysThatItsOwnFileIsDamaged) {
  EXPECT_EQ(find_with(place.seal(), "damage"), nothing("This installer was damaged; get it again", "content_mismatch"));
}

TEST_F(SetupSubjectTest, KeepsTheChosenFolder) {
  const std::string folder = (place.root() / "elsewhere").native();
  Json expected = whole(place.package_directory());
  expected["data_root"] = folder;
  expected["data_root_chosen"] = true;
  EXPECT_EQ(find({"--package", place.package_directory().native(), "--data-dir", folder}), expected);
}

TEST_F(SetupSubjectTest, TakesAPackageWithoutABrand) {
  place.package.brand.reset();
  place.package.featured_game.reset();
  place.republish();
  Json expected = nothing("", "");
  expected["package"] = place.package_directory().native();
  expected["build"] = "build-1";
  EXPECT_EQ(find({"--package", place.package_directory().native()}), expected);
}

TEST_F(SetupSubjectTest, TakesABrandWithoutThemeAndIcon) {
  place.package.theme.reset();
  place.package.icon.reset();
  place.republish();
  Json expected = whole(place.package_directory());
  expected["icon"] = digest("", "sha256");
  expected["accent"] = {0x25, 0x63, 0xc9};
  EXPECT_EQ(find({"--package", place.package_directory().native()}), expected);
}

TEST_F(SetupSubjectTest, SaysWhatIsWrongWithAPackage) {
  const Words arguments = {"--package", place.package_directory().native()};
  const std::string other(64, '0');
  Json expected = nothing("This package is not the one this installer was built for", "native_install_trust");
  expected["package"] = place.package_directory().native();
  expected["seal"] = other;
  EXPECT_EQ(find_with(other, no_place, arguments), expected);
  expected["problem"] = "This installer has no package seal; build it with RAVOK_INITIAL_PACKAGE_SHA256";
  expected["seal"] = "";
  EXPECT_EQ(find_with("", no_place, arguments), expected);
}

TEST_F(SetupSubjectTest, KeepsWhatItKnowsOfADamagedPackage) {
  const Words arguments = {"--package", place.package_directory().native()};
  std::ofstream(place.package_directory() / "launcher.json", std::ios::app) << ' ';
  Json found = find(arguments);
  EXPECT_EQ(found.at("problem"), "Initial package resource changed: launcher.json");
  EXPECT_EQ(found.at("problem_code"), "content_mismatch");
  EXPECT_EQ(found.at("name"), "Acme Games");
  EXPECT_EQ(found.at("accent"), (Json{0, 0, 0x81}));
  EXPECT_EQ(found.at("build"), nullptr);

  std::ofstream(place.package_directory() / "theme.json", std::ios::app) << ' ';
  found = find(arguments);
  EXPECT_NE(found.at("problem"), "");
  EXPECT_EQ(found.at("name"), "Acme Games");
  EXPECT_EQ(found.at("accent"), (Json{0x25, 0x63, 0xc9}));
}

TEST_F(SetupSubjectTest, RunsFromNoUnfinishedFolder) {
  place.root().write("programs/.ravok-setup-incomplete", "");
  for (const Json& found : {find(), maintain({"--data-dir", place.data().native()})}) {
    EXPECT_TRUE(found.at("failed").get<std::string>().starts_with("native_install_incomplete: ")) << found.dump();
  }
}

TEST_F(SetupSubjectTest, FindsTheBrandThatIsInstalled) {
  place.install();
  Json expected = nothing("", "");
  expected["data_root"] = place.data().native();
  expected["data_root_chosen"] = true;
  expected["seal"] = "";
  expected["icon"] = digest(testing::brand_icon_file(), "sha256");
  expected["name"] = "Acme Games";
  expected["accent"] = {0, 0, 0x81};
  const Words arguments = {"--data-dir", place.data().native()};
  EXPECT_EQ(maintain(arguments), expected);

  // What can be read is shown all the same.
  place.write("native/theme/theme.json", "{");
  expected["accent"] = {0x25, 0x63, 0xc9};
  EXPECT_EQ(maintain(arguments), expected);
  std::filesystem::remove(place.paths().brand_icon);
  expected["icon"] = digest("", "sha256");
  EXPECT_EQ(maintain(arguments), expected);
  place.write("native/installation.json", "{");
  expected["name"] = "Ravok";
  EXPECT_EQ(maintain(arguments), expected);
}

TEST_F(SetupSubjectTest, FindsNothingToRemove) {
  Json expected = nothing("", "");
  expected["seal"] = "";
  EXPECT_EQ(maintain({}), expected);
}

// --- What a command line's package brings with it ---

class SetupPackage : public ::testing::Test {
 protected:
  SetupPackage() { command.data_root = "/chosen"; }
  ~SetupPackage() override { set_product_name("Ravok"); }

  testing::InstallPlace place;
  SetupCommand command;
};

TEST_F(SetupPackage, GivesTheProcessItsNameAndTheCommandItsFolder) {
  command.package = place.package_directory();
  use_package_brand(command, place.seal());
  EXPECT_EQ(product_name(), "Acme Games");
  EXPECT_EQ(command.data_root, place.home() / ".local/share/Acme Games");
}

TEST_F(SetupPackage, LeavesTheChosenFolder) {
  command.package = place.package_directory();
  command.data_root_chosen = true;
  use_package_brand(command, place.seal());
  EXPECT_EQ(product_name(), "Acme Games");
  EXPECT_EQ(command.data_root, "/chosen");
}

TEST_F(SetupPackage, IsAskedForItsPlaceWithoutASealInVain) {
  EXPECT_FAILURE(find_setup_package(command, "", [] { return std::optional(AppendedPlace()); }), "content_mismatch",
                 installer_damaged);
  EXPECT_FAILURE(find_setup_package(command, place.seal(),
                                    []() -> std::optional<AppendedPlace> { fail("content_mismatch", "Damage"); }),
                 "content_mismatch", "Damage");
  EXPECT_EQ(command.package, "");
  EXPECT_EQ(command.appended, nullptr);
}

TEST_F(SetupPackage, IsNoneWhereNoneIs) {
  find_setup_package(command, place.seal(), {});
  EXPECT_EQ(command.package, "");
  find_setup_package(command, place.seal(), [] { return std::optional<AppendedPlace>(); });
  EXPECT_EQ(command.package, "");
  EXPECT_EQ(command.appended, nullptr);
}

}  // namespace
}  // namespace ravok::setup_subject_test
