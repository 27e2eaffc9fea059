#include "domain/theme.hpp"

#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/failure.hpp"
#include "support/theme_builder.hpp"

namespace ravok::theme_test {
namespace {

using testing::bitmap;
using testing::font_file;
using testing::put_number;
using testing::theme_definition;

using Names = std::vector<std::string>;

constexpr const char* bad_color = "Theme colours are written #rrggbb";
constexpr const char* bad_size = "Theme text sizes are 10 to 48 pixels";
constexpr const char* not_text = "Theme files are named by text";
constexpr const char* bad_name = "Theme file names are 1 to 100 letters, digits, '.', '_' or '-': ";
constexpr const char* bad_extension = "Theme file has the wrong kind of extension: ";
constexpr const char* too_many = "A theme names at most 12 distinct files";
constexpr const char* not_font = "Theme fonts must be TrueType or OpenType files";
constexpr const char* not_bitmap = "Theme images are BMP files";
constexpr const char* icon_too_large = "Theme image is larger than 256×256 pixels";
constexpr const char* banner_too_large = "Theme image is larger than 2048×1024 pixels";
constexpr const char* not_plain = "Theme images must be uncompressed 24-bit BMP files";
constexpr const char* bad_focus = "Theme focus colour is below 3:1 against the background or panel";
constexpr const char* malformed = "Theme definition is malformed";

const std::vector<std::string> required_colors = {
    "background", "panel",        "raised",      "well",          "border",       "text",        "muted",
    "accent",     "accent_hover", "accent_text", "danger",        "danger_hover", "danger_text", "warning",
    "success",    "focus",        "disabled",    "disabled_text", "paper",        "ink",         "ink_muted"};

// The files of a theme, which keeps account of those that were asked for.
class Files {
 public:
  Files() = default;
  explicit Files(std::map<std::string, std::string> contents) : contents_(std::move(contents)) {}

  ThemeReader reader() {
    return [this](const std::string& name, std::uint64_t limit) {
      asked.emplace_back(name, limit);
      return contents_.at(name);
    };
  }

  std::vector<std::pair<std::string, std::uint64_t>> asked;

 private:
  std::map<std::string, std::string> contents_;
};

Theme parsed(const Json& definition, std::map<std::string, std::string> contents = {}) {
  Files files(std::move(contents));
  return parse_theme(definition, files.reader());
}

Json with(const std::string& pointer, const Json& value) {
  Json definition = theme_definition();
  definition[Json::json_pointer(pointer)] = value;
  return definition;
}

Json with_color(const std::string& name, const Json& value) { return with("/colors/" + name, value); }

// The definition is refused before any file is read.
void refuses(const Json& definition, const std::string& message) {
  Files files;
  EXPECT_FAILURE(parse_theme(definition, files.reader()), "invalid_theme", message) << definition.dump();
  EXPECT_TRUE(files.asked.empty());
}

void refuses_at(const std::string& pointer, const Json& value, const std::string& message) {
  refuses(with(pointer, value), message);
}

void refuses_icon(const std::string& bytes, const std::string& message) {
  EXPECT_FAILURE(parsed(with("/images/icon/file", "icon.bmp"), {{"icon.bmp", bytes}}), "invalid_theme", message);
}

void refuses_banner(const std::string& bytes, const std::string& message) {
  EXPECT_FAILURE(parsed(with("/images/banner/file", "b.bmp"), {{"b.bmp", bytes}}), "invalid_theme", message);
}

Rgb gray(std::uint8_t level) { return {level, level, level}; }

std::string color_text(const Rgb& color) {
  char text[8];
  std::snprintf(text, sizeof(text), "#%02x%02x%02x", color.red, color.green, color.blue);
  return text;
}

Json definition_of(const Theme& theme) {
  Json definition = theme_definition();
  Json& colors = definition["colors"];
  const std::vector<std::pair<const char*, Rgb>> values = {{"background", theme.background},
                                                           {"panel", theme.panel},
                                                           {"raised", theme.raised},
                                                           {"well", theme.well},
                                                           {"border", theme.border},
                                                           {"hover", theme.hover},
                                                           {"text", theme.text},
                                                           {"muted", theme.muted},
                                                           {"accent", theme.accent},
                                                           {"accent_hover", theme.accent_hover},
                                                           {"accent_text", theme.accent_text},
                                                           {"danger", theme.danger},
                                                           {"danger_hover", theme.danger_hover},
                                                           {"danger_text", theme.danger_text},
                                                           {"warning", theme.warning},
                                                           {"success", theme.success},
                                                           {"focus", theme.focus},
                                                           {"disabled", theme.disabled},
                                                           {"disabled_text", theme.disabled_text},
                                                           {"paper", theme.paper},
                                                           {"ink", theme.ink},
                                                           {"ink_muted", theme.ink_muted}};
  for (const auto& [name, color] : values) {
    colors[name] = color_text(color);
  }
  return definition;
}

TEST(Contrast, IsTheRatioOfTheGuidelines) {
  EXPECT_DOUBLE_EQ(contrast(gray(0), gray(255)), 21.0);
  EXPECT_DOUBLE_EQ(contrast(gray(255), gray(0)), 21.0);
  EXPECT_DOUBLE_EQ(contrast(gray(90), gray(90)), 1.0);
  EXPECT_NEAR(contrast(gray(0x76), gray(255)), 4.542, 0.001);
  EXPECT_NEAR(contrast(gray(0x77), gray(255)), 4.478, 0.001);
  EXPECT_NEAR(contrast({255, 0, 0}, gray(255)), 1.05 / (0.2126 + 0.05), 1e-9);
  EXPECT_NEAR(contrast({0, 255, 0}, gray(255)), 1.05 / (0.7152 + 0.05), 1e-9);
  EXPECT_NEAR(contrast({0, 0, 255}, gray(255)), 1.05 / (0.0722 + 0.05), 1e-9);
}

TEST(Contrast, IsLinearForTheDarkest) {
  EXPECT_NEAR(contrast(gray(10), gray(0)), (10 / 255.0 / 12.92 + 0.05) / 0.05, 1e-12);
  EXPECT_NEAR(contrast(gray(11), gray(0)), 1.066931, 1e-6);
}

TEST(DefaultTheme, HasItsColoursAndSizes) {
  const Theme defaults;
  EXPECT_EQ(definition_of(defaults).at("colors"),
            Json({{"background", "#14181f"},    {"panel", "#1d232e"},       {"raised", "#28303e"},
                  {"well", "#14181f"},          {"border", "#546073"},      {"hover", "#28303e"},
                  {"text", "#f0f3f7"},          {"muted", "#aab5c4"},       {"accent", "#2563c9"},
                  {"accent_hover", "#3474de"},  {"accent_text", "#ffffff"}, {"danger", "#c4314b"},
                  {"danger_hover", "#d6425c"},  {"danger_text", "#ffffff"}, {"warning", "#f0b429"},
                  {"success", "#3fb37f"},       {"focus", "#ffd24a"},       {"disabled", "#303744"},
                  {"disabled_text", "#7d8796"}, {"paper", "#0d1117"},       {"ink", "#f0f3f7"},
                  {"ink_muted", "#aab5c4"}}));
  EXPECT_FALSE(defaults.button || defaults.frame || defaults.icon || defaults.banner);
  EXPECT_FALSE(defaults.regular_font || defaults.bold_font || defaults.title_font);
  EXPECT_FALSE(defaults.rounded || defaults.bevel);
  EXPECT_EQ(
      (std::vector<std::uint32_t>{defaults.title_size, defaults.heading_size, defaults.body_size, defaults.small_size}),
      (std::vector<std::uint32_t>{28, 20, 16, 14}));
  EXPECT_TRUE(defaults.notices.empty());
}

TEST(DefaultTheme, IsReadableButForTheTextOnAHover) {
  Theme defaults;
  EXPECT_NEAR(contrast(defaults.accent_text, defaults.accent_hover), 4.469, 0.001);
  EXPECT_NEAR(contrast(defaults.danger_text, defaults.danger_hover), 4.381, 0.001);
  defaults.accent_hover = defaults.accent;
  defaults.danger_hover = defaults.danger;
  EXPECT_NO_THROW(parsed(definition_of(defaults)));
}

TEST(CurrentTheme, IsTheDefaultUntilItIsSet) {
  EXPECT_EQ(theme().background, Theme().background);
  Theme other;
  other.background = gray(7);
  other.notices = {"notice"};
  set_theme(other);
  EXPECT_EQ(theme().background, gray(7));
  EXPECT_EQ(theme().notices, Names{"notice"});
  set_theme(Theme());
  EXPECT_EQ(theme().background, Theme().background);
}

TEST(ParseTheme, ReadsTheLeastThereIs) {
  const Theme theme = parsed(theme_definition());
  Json expected = theme_definition().at("colors");
  expected["hover"] = expected.at("raised");
  EXPECT_EQ(definition_of(theme).at("colors"), expected);
  EXPECT_FALSE(theme.button || theme.frame || theme.rounded || theme.bevel || theme.icon || theme.banner);
  EXPECT_EQ(theme.title_size, 28u);
  EXPECT_EQ(theme.small_size, 14u);
}

TEST(ParseTheme, ReadsAllThatThereCanBe) {
  Json definition = theme_definition();
  definition["colors"]["hover"] = "#0a0B0c";
  definition["colors"]["button"] = "#0D0e0f";
  definition["corners"] = "rounded";
  definition["bevel"] = true;
  definition["frame"] = {{"outline", "#111111"}, {"trim", "#222222"}, {"gap", "#333333"}, {"rivet", "#444444"}};
  definition["text_sizes"] = {{"title", 48}, {"heading", 30}, {"body", 11}, {"small", 10}};
  definition["fonts"] = {{"regular", "r.ttf"}, {"bold", "b.otf"}, {"title", "t.TTF"}};
  definition["images"] = {{"icon", {{"file", "i.bmp"}, {"pixel_art", true}}}, {"banner", {{"file", "b.BMP"}}}};
  definition["notices"] = {"two.txt", "one.TXT"};
  Files files({{"r.ttf", font_file()},
               {"b.otf", "OTTO-bold"},
               {"t.TTF", "true"},
               {"i.bmp", bitmap(3, 2)},
               {"b.BMP", bitmap(2048, 1024)},
               {"two.txt", "second"},
               {"one.TXT", ""}});
  const Theme theme = parse_theme(definition, files.reader());
  EXPECT_EQ(theme.hover, (Rgb{0x0a, 0x0b, 0x0c}));
  EXPECT_EQ(theme.button, (Rgb{0x0d, 0x0e, 0x0f}));
  EXPECT_TRUE(theme.rounded);
  EXPECT_TRUE(theme.bevel);
  ASSERT_TRUE(theme.frame);
  EXPECT_EQ(theme.frame->outline, gray(0x11));
  EXPECT_EQ(theme.frame->trim, gray(0x22));
  EXPECT_EQ(theme.frame->gap, gray(0x33));
  EXPECT_EQ(theme.frame->rivet, gray(0x44));
  EXPECT_EQ(theme.title_size, 48u);
  EXPECT_EQ(theme.heading_size, 30u);
  EXPECT_EQ(theme.body_size, 11u);
  EXPECT_EQ(theme.small_size, 10u);
  EXPECT_EQ(theme.regular_font, font_file());
  EXPECT_EQ(theme.bold_font, "OTTO-bold");
  EXPECT_EQ(theme.title_font, "true");
  ASSERT_TRUE(theme.icon && theme.banner);
  EXPECT_EQ(theme.icon->bytes, bitmap(3, 2));
  EXPECT_TRUE(theme.icon->pixel_art);
  EXPECT_EQ(theme.banner->bytes, bitmap(2048, 1024));
  EXPECT_FALSE(theme.banner->pixel_art);
  EXPECT_EQ(theme.notices, (Names{"second", ""}));
  EXPECT_EQ(files.asked, (std::vector<std::pair<std::string, std::uint64_t>>{{"r.ttf", 4'194'304},
                                                                             {"b.otf", 4'194'304},
                                                                             {"t.TTF", 4'194'304},
                                                                             {"i.bmp", 196'662},
                                                                             {"b.BMP", 6'291'510},
                                                                             {"two.txt", 262'144},
                                                                             {"one.TXT", 262'144}}));
}

TEST(ParseTheme, KnowsOneSchemaOfOneKind) {
  for (const Json& version : {Json(0), Json(2), Json("1"), Json(1.0), Json(true), Json(nullptr)}) {
    refuses_at("/schema_version", version, "Unsupported theme schema");
  }
  for (const Json& kind : {Json("ravok-launcher-release"), Json(""), Json(1), Json(nullptr)}) {
    refuses_at("/kind", kind, "Unsupported theme schema");
  }
}

TEST(ParseTheme, RefusesADefinitionThatIsNoObjectOrLacksItsKeys) {
  for (const Json& definition : {Json::array(), Json("theme"), Json(1), Json(nullptr)}) {
    refuses(definition, "definition must be an object");
    EXPECT_FAILURE(theme_files(definition), "invalid_theme", "definition must be an object");
  }
  for (const char* key : {"schema_version", "kind", "colors"}) {
    Json definition = theme_definition();
    definition.erase(key);
    refuses(definition, malformed);
  }
}

TEST(ParseTheme, NamesThePartThatMustBeAnObject) {
  for (const char* part : {"colors", "frame", "text_sizes", "fonts", "images"}) {
    for (const Json& value : {Json::array(), Json("x"), Json(1), Json(nullptr)}) {
      refuses_at("/" + std::string(part), value, std::string(part) + " must be an object");
    }
  }
}

TEST(ParseTheme, NeedsEveryColour) {
  for (const std::string& name : required_colors) {
    Json definition = theme_definition();
    definition["colors"].erase(name);
    refuses(definition, "Theme needs the colour " + name);
  }
}

TEST(ParseTheme, ReadsColoursOfEitherCase) {
  EXPECT_EQ(parsed(with_color("text", "#FFFFFF")).text, gray(255));
  EXPECT_EQ(parsed(with_color("border", "#aBcDeF")).border, (Rgb{0xab, 0xcd, 0xef}));
}

TEST(ParseTheme, RefusesColoursOfAnotherForm) {
  for (const Json& color : {Json("#fff"), Json("ffffff"), Json("#fffffff"), Json("#fffff"), Json(" #ffffff"),
                            Json("$ffffff"), Json("#fffffg"), Json("#gfffff"), Json("#ff-fff"), Json("#ff fff"),
                            Json(""), Json(0xffffff), Json(nullptr), Json::array()}) {
    for (const char* name : {"background", "ink_muted", "hover", "button"}) {
      refuses(with_color(name, color), bad_color);
    }
  }
}

TEST(ParseTheme, KnowsTwoKindsOfCorners) {
  EXPECT_FALSE(parsed(with("/corners", "square")).rounded);
  for (const Json& corners : {Json("round"), Json("Rounded"), Json(""), Json(true), Json(nullptr), Json(1)}) {
    refuses_at("/corners", corners, "Theme corners are square or rounded");
  }
}

TEST(ParseTheme, TakesABevelThatIsTrueOrFalse) {
  EXPECT_FALSE(parsed(with("/bevel", false)).bevel);
  for (const Json& bevel : {Json(1), Json("true"), Json(nullptr)}) {
    refuses_at("/bevel", bevel, "Theme bevel is true or false");
  }
}

TEST(ParseTheme, NeedsEveryColourOfAFrame) {
  for (const std::string name : {"outline", "trim", "gap", "rivet"}) {
    Json frame = {{"outline", "#111111"}, {"trim", "#222222"}, {"gap", "#333333"}, {"rivet", "#444444"}};
    frame[name] = "#44444";
    refuses_at("/frame", frame, bad_color);
    frame.erase(name);
    refuses_at("/frame", frame, "Theme frame needs the colour " + name);
  }
}

TEST(ParseTheme, BoundsTextSizes) {
  for (const std::string name : {"title", "heading", "body", "small"}) {
    for (const int size : {10, 48}) {
      EXPECT_NO_THROW(parsed(with("/text_sizes/" + name, size)));
    }
    for (const Json& size : {Json(9), Json(49), Json(-16), Json(0), Json(16.0), Json("16"), Json(nullptr),
                             Json(18446744073709551615u), Json(9223372036854775824u), Json(4294967312u)}) {
      refuses_at("/text_sizes/" + name, size, bad_size);
    }
  }
}

TEST(ThemeFiles, AreListedByKind) {
  EXPECT_EQ(theme_files(Json::object()), Names());
  Json definition = theme_definition();
  definition["notices"] = {"z.txt", "a.txt"};
  definition["images"] = {{"icon", {{"file", "i.bmp"}}}, {"banner", {{"file", "b.bmp"}}}};
  definition["fonts"] = {{"regular", "r.ttf"}, {"bold", "b.ttf"}};
  EXPECT_EQ(theme_files(definition), (Names{"b.ttf", "r.ttf", "b.bmp", "i.bmp", "z.txt", "a.txt"}));
}

TEST(ThemeFiles, MayBe12) {
  Json definition = theme_definition();
  Names names;
  for (int i = 0; i < 12; ++i) {
    names.push_back("notice-" + std::to_string(i) + ".txt");
    definition["notices"].push_back(names.back());
  }
  EXPECT_EQ(theme_files(definition), names);
  definition["fonts"]["bold"] = "b.ttf";
  EXPECT_FAILURE(theme_files(definition), "invalid_theme", too_many);
  refuses(definition, too_many);
}

TEST(ThemeFiles, AreNamedOnce) {
  Json fonts = theme_definition();
  fonts["fonts"] = {{"regular", "a.ttf"}, {"bold", "a.ttf"}};
  refuses(fonts, too_many);
  refuses_at("/notices", {"a.txt", "b.txt", "a.txt"}, too_many);
  Json images = theme_definition();
  images["images"] = {{"icon", {{"file", "a.bmp"}}}, {"banner", {{"file", "a.bmp"}}}};
  EXPECT_FAILURE(theme_files(images), "invalid_theme", too_many);
}

TEST(ThemeFiles, AreNamedByPlainNames) {
  for (const std::string& name : {std::string("a.txt"), std::string("A_b-9.tXt"), std::string(96, 'n') + ".txt"}) {
    EXPECT_EQ(theme_files(with("/notices", {name})), Names{name});
  }
  for (const std::string& name :
       {std::string(), std::string(97, 'n') + ".txt", std::string(".hidden.txt"), std::string(".txt"),
        std::string("a/b.txt"), std::string("../a.txt"), std::string("a b.txt"), std::string("a\\b.txt"),
        std::string("\xc3\xa4.txt"), std::string("a:b.txt"), std::string("theme.json")}) {
    refuses_at("/notices", {name}, bad_name + name);
  }
  // A message ends where its text has a NUL.
  refuses_at("/notices", {std::string("a\0.txt", 6)}, std::string(bad_name) + "a");
  refuses_at("/fonts/title", ".hidden.ttf", std::string(bad_name) + ".hidden.ttf");
  refuses_at("/fonts/title", "theme.json", std::string(bad_name) + "theme.json");
}

TEST(ThemeFiles, AreNamedByText) {
  for (const Json& name : {Json(1), Json(nullptr), Json::array(), Json::object()}) {
    refuses_at("/notices", Json::array({name}), not_text);
    refuses_at("/fonts/regular", name, not_text);
    refuses_at("/images/icon/file", name, not_text);
  }
}

TEST(ThemeFiles, HaveTheExtensionOfTheirKind) {
  for (const char* name : {"a.ttf", "a.otf", "a.TTF", "a.OtF"}) {
    EXPECT_EQ(theme_files(with("/fonts/bold", name)), Names{name});
  }
  EXPECT_EQ(theme_files(with("/images/icon/file", "a.BmP")), Names{"a.BmP"});
  for (const std::string name : {"a.bmp", "a.txt", "ttf", "a.ttf2", "a"}) {
    refuses_at("/fonts/bold", name, bad_extension + name);
  }
  for (const std::string name : {"a.ttf", "a.png", "bmp"}) {
    refuses_at("/images/banner/file", name, bad_extension + name);
  }
  for (const std::string name : {"a.ttf", "a.md", "a.txt.bmp"}) {
    refuses_at("/notices", {name}, bad_extension + name);
  }
}

TEST(ThemeFiles, AreCheckedAheadOfTheColours) {
  Json definition = with("/notices", {"a.md"});
  definition["colors"] = Json::object();
  refuses(definition, std::string(bad_extension) + "a.md");
}

TEST(ThemeFiles, RefuseNoticesThatAreNoList) {
  for (const Json& notices : {Json("a.txt"), Json::object(), Json(nullptr), Json({{"a", "a.txt"}})}) {
    refuses_at("/notices", notices, "Theme notices are a list of files");
    EXPECT_FAILURE(theme_files(with("/notices", notices)), "invalid_theme", "Theme notices are a list of files");
  }
}

TEST(ThemeFiles, RefuseAnImageWithoutAFile) {
  for (const Json& image : {Json("a.bmp"), Json::object(), Json(nullptr), Json({{"pixel_art", true}})}) {
    refuses_at("/images/icon", image, "Theme image needs a file");
  }
}

TEST(ParseTheme, TakesThreeKindsOfFonts) {
  for (const std::string& bytes : {font_file(""), std::string("OTTO"), std::string("true")}) {
    EXPECT_EQ(parsed(with("/fonts/title", "a.ttf"), {{"a.ttf", bytes}}).title_font, bytes);
  }
  for (const std::string& bytes : {std::string(), std::string("\0\1\0", 3), std::string("ttcf-font"),
                                   std::string("otto"), std::string("\0\1\0\1", 4), std::string("xOTTO")}) {
    for (const std::string name : {"regular", "bold", "title"}) {
      EXPECT_FAILURE(parsed(with("/fonts/" + name, "a.ttf"), {{"a.ttf", bytes}}), "invalid_theme", not_font);
    }
  }
}

TEST(ParseTheme, TakesPixelArtThatIsTrueOrFalse) {
  for (const Json& value : {Json(1), Json("true"), Json(nullptr)}) {
    refuses_at("/images/icon", {{"file", "a.bmp"}, {"pixel_art", value}}, "Theme pixel_art is true or false");
  }
}

TEST(ParseTheme, TakesImagesOfAnySizeUpToTheirBound) {
  for (const auto& [width, height] : {std::pair(1u, 1u), {2u, 5u}, {255u, 3u}, {256u, 256u}}) {
    EXPECT_EQ(parsed(with("/images/icon/file", "a.bmp"), {{"a.bmp", bitmap(width, height)}}).icon->bytes,
              bitmap(width, height));
  }
  EXPECT_EQ(bitmap(256, 256).size(), 196'662u);
}

TEST(ParseTheme, RefusesAnImageThatIsNoBitmap) {
  refuses_icon("", not_bitmap);
  refuses_icon("BM", not_bitmap);
  refuses_icon(bitmap(1, 1).substr(0, 53), not_bitmap);
  std::string other = bitmap(1, 1);
  other[1] = 'A';
  refuses_icon(other, not_bitmap);
}

TEST(ParseTheme, RefusesAnImageBeyondItsBound) {
  for (const auto& [width, height] : {std::pair(257u, 1u), {1u, 257u}, {0u, 1u}, {1u, 0u}}) {
    refuses_icon(bitmap(width, height), icon_too_large);
  }
  for (const auto& [width, height] : {std::pair(2049u, 1u), {1u, 1025u}}) {
    refuses_banner(bitmap(width, height), banner_too_large);
  }
}

TEST(ParseTheme, RefusesAnImageOfNegativeHeight) {
  std::string bytes = bitmap(2, 2);
  put_number(bytes, 22, static_cast<std::uint32_t>(-2));
  refuses_icon(bytes, icon_too_large);
}

TEST(ParseTheme, RefusesAnImageOfAnotherForm) {
  refuses_icon(bitmap(3, 3) + "x", not_plain);
  refuses_icon(bitmap(3, 3).substr(0, bitmap(3, 3).size() - 1), not_plain);
  struct Field {
    std::size_t offset;
    std::uint32_t value;
    std::size_t size;
  };
  for (const Field& field : {Field{2, 91, 4}, {10, 53, 4}, {14, 124, 4}, {26, 2, 2}, {28, 32, 2}, {30, 1, 4}}) {
    std::string bytes = bitmap(3, 3);
    put_number(bytes, field.offset, field.value, field.size);
    refuses_icon(bytes, not_plain);
  }
}

TEST(ParseTheme, RefusesImagesThatAreLongerThanTheirHeaderSays) {
  std::string bytes = bitmap(256, 256) + "x";
  put_number(bytes, 2, static_cast<std::uint32_t>(bytes.size()));
  refuses_icon(bytes, not_plain);
}

TEST(ParseTheme, PassesOnWhatTheReaderThrows) {
  const ThemeReader reader = [](const std::string&, std::uint64_t) -> std::string { fail("file_read", "gone"); };
  EXPECT_FAILURE(parse_theme(with("/notices", {"a.txt"}), reader), "file_read", "gone");
}

// Light texts on dark grounds, easy to read.
Json black_and_white() {
  Json definition = theme_definition();
  for (const std::string& name : required_colors) {
    definition["colors"][name] = "#000000";
  }
  for (const char* name :
       {"text", "muted", "warning", "success", "accent_text", "danger_text", "ink", "ink_muted", "focus"}) {
    definition["colors"][name] = "#ffffff";
  }
  definition["colors"]["hover"] = "#000000";
  return definition;
}

TEST(ParseTheme, MeasuresEveryPair) {
  const std::vector<std::pair<std::string, std::string>> pairs = {
      {"text", "background"},    {"text", "panel"},
      {"text", "raised"},        {"text", "hover"},
      {"muted", "background"},   {"muted", "panel"},
      {"warning", "panel"},      {"success", "background"},
      {"accent_text", "accent"}, {"accent_text", "accent_hover"},
      {"danger_text", "danger"}, {"danger_text", "danger_hover"},
      {"ink", "paper"},          {"ink_muted", "paper"}};
  for (const auto& [front, back] : pairs) {
    // Each is easy to read beside all others, but not these two together.
    Json definition = black_and_white();
    definition["colors"][front] = "#c8c8c8";
    EXPECT_NO_THROW(parsed(definition));
    definition["colors"][back] = "#707070";
    refuses(definition, "Theme contrast is below 4.5:1 for " + front + " on " + back);
    definition["colors"][front] = "#ffffff";
    EXPECT_NO_THROW(parsed(definition));
  }
}

TEST(ParseTheme, TellsTheFirstPairThatIsHardToRead) {
  Json definition = black_and_white();
  definition["colors"]["text"] = definition["colors"]["muted"] = "#000000";
  refuses(definition, "Theme contrast is below 4.5:1 for text on background");
}

TEST(ParseTheme, TakesAPairOfJustEnoughContrast) {
  Json definition = black_and_white();
  definition["colors"]["accent"] = "#767676";
  EXPECT_NO_THROW(parsed(definition));
  definition["colors"]["accent"] = "#777777";
  refuses(definition, "Theme contrast is below 4.5:1 for accent_text on accent");
}

TEST(ParseTheme, MeasuresTheRaisedColourWhereThereIsNoHover) {
  Json definition = black_and_white();
  definition["colors"]["raised"] = "#707070";
  definition["colors"].erase("hover");
  EXPECT_EQ(parsed(definition).hover, gray(0x70));
}

TEST(ParseTheme, MeasuresTheTextOnAButton) {
  Json definition = black_and_white();
  definition["colors"]["button"] = "#767676";
  EXPECT_NO_THROW(parsed(definition));
  definition["colors"]["button"] = "#777777";
  refuses(definition, "Theme contrast is below 4.5:1 for text on button");
}

TEST(ParseTheme, MeasuresTheFocus) {
  Json definition = black_and_white();
  for (const char* ground : {"background", "panel", "raised", "hover"}) {
    definition["colors"][ground] = "#ffffff";
  }
  for (const char* front : {"text", "muted", "warning", "success"}) {
    definition["colors"][front] = "#000000";
  }
  definition["colors"]["focus"] = "#949494";
  EXPECT_NO_THROW(parsed(definition));
  definition["colors"]["focus"] = "#959595";
  refuses(definition, bad_focus);

  definition["colors"]["focus"] = "#808080";
  EXPECT_NO_THROW(parsed(definition));
  for (const char* ground : {"background", "panel"}) {
    Json darker = definition;
    darker["colors"][ground] = "#cccccc";
    refuses(darker, bad_focus);
  }
}

TEST(LowContrasts, AreAllThatAreHardToReadInTheOrderOfTheRules) {
  Theme theme = parsed(black_and_white());
  EXPECT_TRUE(low_contrasts(theme).empty());
  theme.button = gray(0x77);
  theme.panel = gray(0x77);
  theme.focus = gray(0x90);
  Names pairs;
  for (const LowContrast& low : low_contrasts(theme)) {
    pairs.push_back(low.pair);
    EXPECT_LT(low.ratio, low.needed) << low.pair;
    EXPECT_EQ(low.needed, low.pair.starts_with("focus") ? 3.0 : 4.5) << low.pair;
    const Rgb front = low.pair.starts_with("focus") ? theme.focus : gray(0xff);
    EXPECT_EQ(low.ratio, contrast(front, gray(0x77))) << low.pair;
  }
  EXPECT_EQ(pairs, (Names{"text on panel", "muted on panel", "warning on panel", "text on button", "focus on panel"}));
  theme.button.reset();
  EXPECT_EQ(low_contrasts(theme).size(), 4u);
}

TEST(ReadTheme, TakesWhatIsHardToReadAndRefusesAllElse) {
  Json definition = black_and_white();
  definition["colors"]["text"] = "#000000";
  Files files;
  EXPECT_EQ(low_contrasts(read_theme(definition, files.reader())).size(), 4u);
  definition["schema_version"] = 2;
  EXPECT_FAILURE(read_theme(definition, files.reader()), "invalid_theme", "Unsupported theme schema");
  EXPECT_FAILURE(read_theme(Json::array(), files.reader()), "invalid_theme", "definition must be an object");
}

TEST(ParseTheme, ReadsTheFilesAheadOfTheMeasures) {
  Json definition = black_and_white();
  definition["colors"]["text"] = "#000000";
  definition["notices"] = {"a.txt"};
  const std::map<std::string, std::string> contents = {{"a.txt", ""}};
  Files files(contents);
  EXPECT_FAILURE(parse_theme(definition, files.reader()), "invalid_theme",
                 "Theme contrast is below 4.5:1 for text on background");
  EXPECT_EQ(files.asked.size(), 1u);
}

}  // namespace
}  // namespace ravok::theme_test
