#include "app/brand/brand.hpp"

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "domain/theme.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"
#include "support/theme_builder.hpp"
#include "support/tree_state.hpp"
#include "support/with_environment.hpp"
#include "support/working_directory.hpp"

namespace ravok::brand_test {
namespace {

using testing::TemporaryRoot;
using testing::theme_definition;

constexpr const char* code = "invalid_native_package";
constexpr const char* bad_fields = "Brand has unknown or missing fields";
constexpr const char* bad_name =
    "A brand name is 1 to 64 bytes and also names a folder: no control characters, none of < > : \" / \\ | ? *, and no "
    "leading space or trailing space or dot";
constexpr const char* device_name = "A brand name cannot be a Windows device name";

Json brand_document() { return {{"name", "Foo Games"}, {"id", "foo"}, {"publisher", "Foo Ltd."}, {"icon", true}}; }

Json with(const std::string& key, const Json& value) {
  Json document = brand_document();
  document[key] = value;
  return document;
}

void refuses(const Json& document, const std::string& message) {
  EXPECT_FAILURE(parse_brand(document), code, message) << document.dump();
}

std::string plain(const std::string& key, const std::string& bound) {
  return "Brand " + key + " must be 1 to " + bound + " bytes of plain text";
}

TEST(ParseBrand, KeepsEveryField) {
  EXPECT_EQ(parse_brand(brand_document()), (Brand{"Foo Games", "foo", "Foo Ltd.", true}));
  EXPECT_FALSE(parse_brand(with("icon", false)).icon);
}

TEST(ParseBrand, ReadsWhatBrandJsonWrites) { EXPECT_EQ(brand_json(parse_brand(brand_document())), brand_document()); }

TEST(ParseBrand, TakesExactlyFourFields) {
  refuses(with("more", 1), bad_fields);
  for (const char* key : {"name", "id", "publisher", "icon"}) {
    Json document = brand_document();
    document.erase(key);
    refuses(document, bad_fields);
  }
  for (const Json& document :
       {Json::array(), Json({1, 2, 3, 4}), Json("text"), Json(nullptr), Json(4), Json::object()}) {
    refuses(document, bad_fields);
  }
  for (const Json& icon : {Json(1), Json("true"), Json(nullptr)}) {
    refuses(with("icon", icon), bad_fields);
  }
}

TEST(ParseBrand, NamesTheFieldThatIsMissing) {
  for (const std::string key : {"name", "id", "publisher"}) {
    Json document = with("other", "x");
    document.erase(key);
    refuses(document, "Brand needs a " + key);
    for (const Json& value : {Json(1), Json(nullptr), Json::array(), Json(true)}) {
      refuses(with(key, value), "Brand needs a " + key);
    }
  }
}

TEST(ParseBrand, BoundsEveryText) {
  EXPECT_EQ(parse_brand(with("name", std::string(64, 'n'))).name, std::string(64, 'n'));
  EXPECT_EQ(parse_brand(with("id", std::string(80, 'i'))).id, std::string(80, 'i'));
  EXPECT_EQ(parse_brand(with("publisher", std::string(128, 'p'))).publisher, std::string(128, 'p'));
  refuses(with("name", std::string(65, 'n')), plain("name", "64"));
  refuses(with("id", std::string(81, 'i')), plain("id", "80"));
  refuses(with("publisher", std::string(129, 'p')), plain("publisher", "128"));
  refuses(with("name", ""), plain("name", "64"));
  refuses(with("id", ""), plain("id", "80"));
  refuses(with("publisher", ""), plain("publisher", "128"));
}

TEST(ParseBrand, TakesPlainTextOfAnyLanguage) {
  EXPECT_EQ(parse_brand(with("publisher", "Éditions Ä")).publisher, "Éditions Ä");
  EXPECT_EQ(parse_brand(with("name", "Jeux d'été")).name, "Jeux d'été");
  for (const std::string& text : {std::string("Foo\nBar"), std::string("Foo\x7f"), std::string("\x1f"),
                                  std::string("\0", 1), std::string("\t")}) {
    refuses(with("publisher", text), plain("publisher", "128"));
    refuses(with("name", text), plain("name", "64"));
    refuses(with("id", text), plain("id", "80"));
  }
}

TEST(ParseBrand, RefusesANameThatCannotBeAFolder) {
  refuses(with("name", "a/b"), bad_name);
  refuses(with("name", "Con.txt"), device_name);
}

TEST(ParseBrand, NeedsAnIdentifier) {
  EXPECT_FAILURE(parse_brand(with("id", "Foo")), "invalid_identity",
                 "Game and build IDs use lower-case letters, digits, dots and hyphens");
  EXPECT_FAILURE(parse_brand(with("id", "con")), "unsafe_path", "Path uses a reserved platform name");
}

TEST(ValidateBrandName, TakesNamesOfFolders) {
  for (const std::string& name :
       {std::string(64, 'n'), std::string("n"), std::string("A b"), std::string(".Foo"), std::string("Foo-2.0 (x)"),
        std::string("COM0"), std::string("COM10"), std::string("CONSOLE"), std::string("COM"), std::string("LPTX"),
        std::string("xCON"), std::string("Éa")}) {
    EXPECT_NO_THROW(validate_brand_name(name)) << name;
  }
}

TEST(ValidateBrandName, RefusesNamesThatNoFolderMayHaveSomewhere) {
  for (const std::string& name :
       {std::string(), std::string(65, 'n'), std::string("Name."), std::string(" Name"), std::string("Name "),
        std::string("."), std::string(" "), std::string("a\nb"), std::string("a\x7f"), std::string("a\0b", 3)}) {
    EXPECT_FAILURE(validate_brand_name(name), code, bad_name) << name;
  }
  for (const char c : std::string("<>:\"/\\|?*")) {
    const std::string name = std::string("a") + c + "b";
    EXPECT_FAILURE(validate_brand_name(name), code, bad_name) << name;
  }
}

TEST(ValidateBrandName, RefusesDeviceNames) {
  for (const char* name :
       {"CON", "con", "Prn", "AUX", "nul", "Con.txt", "com1", "lpt9.exe", "COM9", "LPT1", "nul.a.b"}) {
    EXPECT_FAILURE(validate_brand_name(name), code, device_name) << name;
  }
}

class Branding : public ::testing::Test {
 protected:
  ~Branding() override {
    set_product_name("Ravok");
    set_product_icon({});
    set_theme(Theme());
  }

  void record(const std::string& text) const { root_.write("native/installation.json", text); }
  void record_brand(const Json& brand) const { record(Json({{"schema_version", 1}, {"brand", brand}}).dump()); }

  TemporaryRoot root_;
};

using InstalledBrand = Branding;
using Branded = Branding;

TEST_F(InstalledBrand, IsThatOfTheRecord) {
  record_brand(brand_document());
  EXPECT_EQ(installed_brand(root_.path()), (Brand{"Foo Games", "foo", "Foo Ltd.", true}));
}

TEST_F(InstalledBrand, IsNoneWithoutAUsableRecord) {
  EXPECT_EQ(installed_brand(root_.path()), std::nullopt);
  EXPECT_EQ(installed_brand(root_ / "nowhere"), std::nullopt);
  const std::string brand = brand_document().dump();
  for (const std::string& text : {std::string(), std::string("{"), std::string("[]"), std::string("{}"), brand,
                                  "{\"brand\":" + brand + ",\"brand\":" + brand + "}", "{\"brand\":" + brand + "}x",
                                  "{\"brand\":" + brand + "}" + std::string(65'536, ' ')}) {
    record(text);
    EXPECT_EQ(installed_brand(root_.path()), std::nullopt) << text.substr(0, 200);
  }
  for (const Json& other : {Json(nullptr), Json("Foo"), with("more", 1), with("name", "CON"), with("id", "Foo")}) {
    record_brand(other);
    EXPECT_EQ(installed_brand(root_.path()), std::nullopt) << other.dump();
  }
}

TEST_F(InstalledBrand, IsReadOutOfARecordOfTheGreatestSize) {
  const std::string text = "{\"brand\":" + brand_document().dump() + "}";
  record(text + std::string(65'536 - text.size(), ' '));
  EXPECT_TRUE(installed_brand(root_.path()));
  record(text + std::string(65'537 - text.size(), ' '));
  EXPECT_FALSE(installed_brand(root_.path()));
}

TEST_F(InstalledBrand, IsNotReadThroughALink) {
  root_.write("elsewhere", "{\"brand\":" + brand_document().dump() + "}");
  root_.directory("native");
  std::filesystem::create_symlink(root_ / "elsewhere", root_ / "native/installation.json");
  EXPECT_FALSE(installed_brand(root_.path()));
}

TEST_F(InstalledBrand, BecomesThatOfTheProcess) {
  record_brand(brand_document());
  root_.write("native/brand.ico", "icon");
  root_.write("native/theme/theme.json", theme_definition().dump());
  use_installed_brand(root_.path());
  EXPECT_EQ(product_name(), "Foo Games");
  EXPECT_EQ(product_icon(), root_ / "native/brand.ico");
  EXPECT_EQ(theme().background, (Rgb{1, 1, 1}));
}

TEST_F(InstalledBrand, ChangesNothingWhereThereIsNone) {
  root_.write("native/brand.ico", "icon");
  root_.write("native/theme/theme.json", theme_definition().dump());
  use_installed_brand(root_.path());
  use_installed_brand(root_ / "nowhere");
  record("damaged");
  use_installed_brand(root_.path());
  EXPECT_EQ(product_name(), "Ravok");
  EXPECT_EQ(product_icon(), std::filesystem::path());
  EXPECT_EQ(theme().background, Theme().background);
}

TEST_F(InstalledBrand, HasTheIconThatItDeclaresAndThatIsThere) {
  set_product_icon("/former");
  record_brand(brand_document());
  use_installed_brand(root_.path());
  EXPECT_EQ(product_icon(), std::filesystem::path("/former"));
  root_.directory("native/brand.ico");
  use_installed_brand(root_.path());
  EXPECT_EQ(product_icon(), std::filesystem::path("/former"));
  std::filesystem::remove(root_ / "native/brand.ico");
  std::filesystem::create_symlink("brand.ico", root_ / "native/brand.ico");  // a status that fails
  use_installed_brand(root_.path());
  EXPECT_EQ(product_icon(), std::filesystem::path("/former"));
  std::filesystem::remove(root_ / "native/brand.ico");
  root_.write("native/brand.ico", "icon");
  record_brand(with("icon", false));
  use_installed_brand(root_.path());
  EXPECT_EQ(product_icon(), std::filesystem::path("/former"));
}

TEST_F(InstalledBrand, HasTheIconOfItsOwnInstallation) {
  const TemporaryRoot other;
  const std::filesystem::path icon = brand_icon_path(root_.path());
  root_.write(icon.lexically_relative(root_.path()).native(), "icon");
  record_brand(brand_document());
  other.write("native/installation.json", root_.read("native/installation.json"));
  use_installed_brand(other.path());
  EXPECT_EQ(product_icon(), std::filesystem::path());
  use_installed_brand(root_.path());
  EXPECT_EQ(product_icon(), icon);
  EXPECT_TRUE(std::filesystem::is_regular_file(root_ / "native/brand.ico"));
}

TEST_F(InstalledBrand, MayHaveItsIconThroughALink) {
  record_brand(brand_document());
  root_.write("elsewhere", "icon");
  std::filesystem::create_symlink(root_ / "elsewhere", root_ / "native/brand.ico");
  use_installed_brand(root_.path());
  EXPECT_EQ(product_icon(), root_ / "native/brand.ico");
}

TEST_F(InstalledBrand, HasItsNameBeforeItsThemeIsRefused) {
  record_brand(brand_document());
  root_.write("native/brand.ico", "icon");
  root_.write("native/theme/theme.json", "{}");
  EXPECT_FAILURE(use_installed_brand(root_.path()), "invalid_theme", "Theme definition is malformed");
  EXPECT_EQ(product_name(), "Foo Games");
  EXPECT_EQ(product_icon(), std::filesystem::path());
  EXPECT_EQ(theme().background, Theme().background);
}

TEST_F(Branded, TextOfRavokItselfIsAsItWas) {
  EXPECT_EQ(product_name(), "Ravok");
  EXPECT_EQ(branded("Ravok is ready"), "Ravok is ready");
}

TEST_F(Branded, TextHasTheProductsNameForEachWord) {
  set_product_name("Foo");
  EXPECT_EQ(branded("Ravok is ready"), "Foo is ready");
  EXPECT_EQ(branded("Ravok."), "Foo.");
  EXPECT_EQ(branded("Ravok"), "Foo");
  EXPECT_EQ(branded("(Ravok) Ravok-Ravok, close Ravok"), "(Foo) Foo-Foo, close Foo");
  EXPECT_EQ(branded("_Ravok_ éRavoké"), "_Foo_ éFooé");
  EXPECT_EQ(branded("nothing to do"), "nothing to do");
  EXPECT_EQ(branded(""), "");
}

TEST_F(Branded, TextKeepsTheNameInsideOtherWords) {
  set_product_name("Foo");
  for (const char* text : {"RavokX", "XRavok", "RavokInstaller", "Ravok2", "9Ravok", "RavokRavok", "ravok", "RAVOK",
                           "Ravo", "aRavokz zRavoka ARavokZ ZRavokA 0Ravok9"}) {
    EXPECT_EQ(branded(text), text);
  }
  EXPECT_EQ(branded("RavokX Ravok XRavok Ravok"), "RavokX Foo XRavok Foo");
}

TEST_F(Branded, TextIsNotReplacedInItself) {
  set_product_name("Ravok Ravok");
  EXPECT_EQ(branded("Ravok, Ravok!"), "Ravok Ravok, Ravok Ravok!");
}

TEST(UninstallEntries, AreNamedByTheBrand) {
  EXPECT_EQ(uninstall_entry_key(std::nullopt), "Ravok");
  EXPECT_EQ(uninstall_entry_key(Brand{"Acme", "acme", "Acme Ltd.", false}), "Ravok.acme");
}

// In every place where a program may leave something for its user, something has the name of the entry already.
TEST(UninstallEntries, AreNeitherMadeNorTakenOnThisPlatform) {
  const TemporaryRoot root;
  const testing::WithEnvironment home("HOME", root.directory("home").native());
  const testing::WithEnvironment data_home("XDG_DATA_HOME", root.directory("home/data").native());
  const testing::WithEnvironment settings("XDG_CONFIG_HOME", root.directory("home/config").native());
  const testing::WithEnvironment temporary("TMPDIR", root.directory("temporary").native());
  const testing::WorkingDirectory working(root.directory("working"));
  for (const char* place :
       {"data/", "home/", "home/data/", "home/data/applications/", "home/config/", "temporary/", "working/"}) {
    root.write(place + std::string("Ravok.acme"), "mine");
    root.write(place + std::string("Ravok.acme.desktop"), "mine");
  }
  root.write("data/program", "program");
  const testing::TreeState before = testing::tree_state(root.path());
  register_uninstall_entry({"Ravok.acme", "Acme", "Acme Ltd.", "", root / "data", root / "data/program", ""});
  EXPECT_TRUE(testing::same_tree(testing::tree_state(root.path()), before));
  remove_uninstall_entry("Ravok.acme");
  EXPECT_TRUE(testing::same_tree(testing::tree_state(root.path()), before));
}

}  // namespace
}  // namespace ravok::brand_test
