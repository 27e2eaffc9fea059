#include "app/brand/theme_folder.hpp"

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/failure.hpp"
#include "support/temporary_root.hpp"
#include "support/theme_builder.hpp"

namespace ravok::theme_folder_test {
namespace {

using testing::bitmap;
using testing::font_file;
using testing::TemporaryRoot;
using testing::theme_definition;

constexpr const char* beyond_limit = "File exceeds read limit";

class ThemeFolder : public ::testing::Test {
 protected:
  ~ThemeFolder() override { set_theme(Theme()); }

  void define(const Json& definition) const { root_.write("native/theme/theme.json", definition.dump()); }
  Theme parsed(const Json& definition) const { return parse_theme(definition, folder_); }
  std::optional<Theme> loaded() const { return load_theme(folder_); }

  Json with(const std::string& pointer, const Json& value) const {
    Json definition = theme_definition();
    definition[Json::json_pointer(pointer)] = value;
    return definition;
  }

  TemporaryRoot root_;
  const std::filesystem::path folder_ = root_.directory("native/theme");
};

TEST_F(ThemeFolder, IsThatOfItsOwnInstallation) {
  const TemporaryRoot other;
  root_.write((theme_directory(root_.path()) / "theme.json").lexically_relative(root_.path()).native(),
              theme_definition().dump());
  set_theme(Theme());
  use_installed_theme(other.path());
  EXPECT_EQ(theme().background, Theme().background);
  use_installed_theme(root_.path());
  EXPECT_EQ(theme().background, (Rgb{1, 1, 1}));
  EXPECT_EQ(theme_directory(root_.path()), folder_);
}

TEST_F(ThemeFolder, GivesADefinitionItsFiles) {
  root_.write("native/theme/a.ttf", font_file());
  root_.write("native/theme/a.bmp", bitmap(4, 4));
  root_.write("native/theme/a.txt", "notice");
  Json definition = with("/fonts/regular", "a.ttf");
  definition["images"]["icon"]["file"] = "a.bmp";
  definition["notices"] = {"a.txt"};
  define(definition);
  const std::optional<Theme> theme = loaded();
  ASSERT_TRUE(theme);
  EXPECT_EQ(theme->background, (Rgb{1, 1, 1}));
  EXPECT_EQ(theme->regular_font, font_file());
  ASSERT_TRUE(theme->icon);
  EXPECT_EQ(theme->icon->bytes, bitmap(4, 4));
  EXPECT_EQ(theme->notices, std::vector<std::string>{"notice"});
}

TEST_F(ThemeFolder, TakesOnlyPlainFiles) {
  const std::string message = "Theme file is missing or not a plain file: a.txt";
  EXPECT_FAILURE(parsed(with("/notices", {"a.txt"})), "invalid_theme", message);
  root_.write("elsewhere", "notice");
  std::filesystem::create_symlink(root_ / "elsewhere", folder_ / "a.txt");
  EXPECT_FAILURE(parsed(with("/notices", {"a.txt"})), "invalid_theme", message);
  std::filesystem::remove(folder_ / "a.txt");
  root_.directory("native/theme/a.txt");
  EXPECT_FAILURE(parsed(with("/notices", {"a.txt"})), "invalid_theme", message);
  std::filesystem::remove(folder_ / "a.txt");
  ASSERT_EQ(mkfifo((folder_ / "a.txt").c_str(), 0600), 0);
  EXPECT_FAILURE(parsed(with("/notices", {"a.txt"})), "invalid_theme", message);
}

TEST_F(ThemeFolder, BoundsItsFonts) {
  root_.write("native/theme/a.otf", font_file(std::string(4'194'300, 'f')));
  EXPECT_EQ(parsed(with("/fonts/bold", "a.otf")).bold_font->size(), 4'194'304u);
  root_.write("native/theme/a.otf", font_file(std::string(4'194'301, 'f')));
  EXPECT_FAILURE(parsed(with("/fonts/bold", "a.otf")), "size_limit", beyond_limit);
}

TEST_F(ThemeFolder, BoundsItsNotices) {
  root_.write("native/theme/a.txt", std::string(262'144, 'n'));
  EXPECT_EQ(parsed(with("/notices", {"a.txt"})).notices.at(0).size(), 262'144u);
  root_.write("native/theme/a.txt", std::string(262'145, 'n'));
  EXPECT_FAILURE(parsed(with("/notices", {"a.txt"})), "size_limit", beyond_limit);
}

TEST_F(ThemeFolder, BoundsItsImages) {
  root_.write("native/theme/a.bmp", bitmap(256, 256));
  EXPECT_EQ(parsed(with("/images/icon/file", "a.bmp")).icon->bytes.size(), 196'662u);
  root_.write("native/theme/a.bmp", bitmap(256, 256) + "x");
  EXPECT_FAILURE(parsed(with("/images/icon/file", "a.bmp")), "size_limit", beyond_limit);
  root_.write("native/theme/a.bmp", bitmap(2048, 1024));
  EXPECT_EQ(parsed(with("/images/banner/file", "a.bmp")).banner->bytes.size(), 6'291'510u);
  root_.write("native/theme/a.bmp", bitmap(2048, 1024) + "x");
  EXPECT_FAILURE(parsed(with("/images/banner/file", "a.bmp")), "size_limit", beyond_limit);
}

TEST_F(ThemeFolder, HoldsNoThemeWithoutAPlainDefinition) {
  EXPECT_FALSE(load_theme(root_ / "nowhere"));
  EXPECT_FALSE(loaded());
  root_.write("elsewhere", theme_definition().dump());
  std::filesystem::create_symlink(root_ / "elsewhere", folder_ / "theme.json");
  EXPECT_FALSE(loaded());
  std::filesystem::remove(folder_ / "theme.json");
  root_.directory("native/theme/theme.json");
  EXPECT_FALSE(loaded());
}

TEST_F(ThemeFolder, BoundsItsDefinition) {
  const std::string text = theme_definition().dump();
  root_.write("native/theme/theme.json", text + std::string(65'536 - text.size(), ' '));
  EXPECT_TRUE(loaded());
  root_.write("native/theme/theme.json", text + std::string(65'537 - text.size(), ' '));
  EXPECT_FAILURE(loaded(), "size_limit", beyond_limit);
}

TEST_F(ThemeFolder, RefusesADefinitionThatSaysSomethingTwice) {
  root_.write("native/theme/theme.json", R"({"kind":"ravok-theme","kind":"ravok-theme"})");
  EXPECT_FAILURE(loaded(), "duplicate_key", "JSON contains a duplicate object key");
}

TEST_F(ThemeFolder, BecomesTheThemeOfTheProcess) {
  define(theme_definition());
  use_installed_theme(root_.path());
  EXPECT_EQ(theme().background, (Rgb{1, 1, 1}));
}

TEST_F(ThemeFolder, WithoutAThemeLeavesTheOneInForce) {
  use_installed_theme(root_.path());
  EXPECT_EQ(theme().background, Theme().background);
  Theme other;
  other.background = {9, 9, 9};
  set_theme(other);
  use_installed_theme(root_ / "nowhere");
  EXPECT_EQ(theme().background, (Rgb{9, 9, 9}));
}

TEST_F(ThemeFolder, ThatIsRefusedLeavesTheThemeInForce) {
  define(with("/schema_version", 2));
  EXPECT_FAILURE(use_installed_theme(root_.path()), "invalid_theme", "Unsupported theme schema");
  EXPECT_EQ(theme().background, Theme().background);
}

}  // namespace
}  // namespace ravok::theme_folder_test
