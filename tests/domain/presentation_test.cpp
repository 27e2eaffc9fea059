#include "domain/presentation.hpp"

#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "domain/crypto.hpp"
#include "support/failure.hpp"

namespace ravok::presentation_test {
namespace {

constexpr const char* no_text = "Game presentation must contain text";
constexpr const char* too_long = "Game presentation text exceeds its bound";
constexpr const char* controls = "Game presentation contains unsupported control characters";
constexpr const char* bad_monogram = "Game monogram must contain one to four characters";
constexpr const char* bad_descriptor = "Unknown game artwork descriptor";
constexpr const char* bad_dimensions = "Game artwork dimensions exceed 128 pixels";
constexpr const char* no_alternative = "Game artwork needs alternative text";
constexpr const char* no_pixels = "Game artwork pixels are missing";
constexpr const char* bad_encoding = "Game artwork encoding exceeds its bound";
constexpr const char* beyond_bound = "Game artwork exceeds its 128-pixel bitmap bound";
constexpr const char* not_exact = "Game artwork must be an exact uncompressed RGB24 BMP";

void put(std::string& bytes, std::size_t offset, std::uint32_t value) {
  for (std::size_t i = 0; i < 4; ++i) {
    bytes[offset + i] = static_cast<char>(value >> (8 * i) & 0xff);
  }
}

// A valid bitmap file of these pixels.
std::string bitmap(std::uint32_t width, std::uint32_t height) {
  const std::uint32_t image = (width * 3 + 3) / 4 * 4 * height;
  std::string bytes(54 + image, '\x5a');
  bytes.replace(0, 54, 54, '\0');
  bytes[0] = 'B';
  bytes[1] = 'M';
  put(bytes, 2, 54 + image);
  put(bytes, 10, 54);
  put(bytes, 14, 40);
  put(bytes, 18, width);
  put(bytes, 22, height);
  put(bytes, 26, 24 << 16 | 1);
  put(bytes, 34, image);
  return bytes;
}

std::string hex_of(const std::string& bytes) {
  return hex(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
}

Json artwork(std::uint32_t width, std::uint32_t height) {
  return {{"format", "bmp-rgb24-v1"},
          {"width", width},
          {"height", height},
          {"bmp_hex", hex_of(bitmap(width, height))},
          {"alternative_text", "A picture"}};
}

Json full_document() {
  return {{"tagline", "Play it"}, {"description", "One\nTwo"}, {"monogram", "SG"}, {"artwork", artwork(3, 2)}};
}

Json with(const std::string& pointer, const Json& value) {
  Json document = full_document();
  document[Json::json_pointer(pointer)] = value;
  return document;
}

GamePresentation parsed(const std::string& pointer, const Json& value) {
  return GamePresentation::parse("Some Game", with(pointer, value));
}

void refuses(const Json& document, const char* message) {
  EXPECT_FAILURE(GamePresentation::parse("Some Game", document), "invalid_presentation", message)
      << document.dump().substr(0, 500);
}

void refuses_at(const std::string& pointer, const Json& value, const char* message) {
  EXPECT_FAILURE(parsed(pointer, value), "invalid_presentation", message)
      << pointer << ": " << value.dump().substr(0, 500);
}

void refuses_bitmap(const std::string& bytes, std::uint32_t width, std::uint32_t height, const char* message) {
  EXPECT_FAILURE(validate_presentation_bitmap(bytes, width, height), "invalid_presentation", message)
      << width << " by " << height << " in " << bytes.size() << " bytes";
}

TEST(GamePresentation, KeepsEveryField) {
  const GamePresentation presentation = GamePresentation::parse("Some Game", full_document());
  EXPECT_EQ(presentation.display_name, "Some Game");
  EXPECT_EQ(presentation.tagline, "Play it");
  EXPECT_EQ(presentation.description, "One\nTwo");
  EXPECT_EQ(presentation.monogram, "SG");
  ASSERT_TRUE(presentation.artwork);
  EXPECT_EQ(presentation.artwork->width, 3u);
  EXPECT_EQ(presentation.artwork->height, 2u);
  EXPECT_EQ(presentation.artwork->bitmap, bitmap(3, 2));
  EXPECT_EQ(presentation.artwork->alternative_text, "A picture");
}

TEST(GamePresentation, MayBeEmptyButForItsName) {
  const GamePresentation presentation = GamePresentation::parse("Some Game", Json::object());
  EXPECT_EQ(presentation.display_name, "Some Game");
  EXPECT_EQ(presentation.tagline, "");
  EXPECT_EQ(presentation.description, "");
  EXPECT_EQ(presentation.monogram, "");
  EXPECT_FALSE(presentation.artwork);
}

TEST(GamePresentation, BoundsItsName) {
  for (const std::size_t length : {1u, 200u}) {
    const std::string name(length, 'n');
    EXPECT_EQ(GamePresentation::parse(name, Json::object()).display_name, name);
  }
  EXPECT_FAILURE(GamePresentation::parse("", Json::object()), "invalid_presentation", "Game display name is empty");
  EXPECT_FAILURE(GamePresentation::parse(std::string(201, 'n'), Json::object()), "invalid_presentation", too_long);
  EXPECT_FAILURE(GamePresentation::parse("a\nb", Json::object()), "invalid_presentation", controls);
}

TEST(GamePresentation, HasNoOtherKeys) {
  refuses({{"extra", 1}}, "Unknown game presentation field");
  refuses({{"tagline", ""}, {"description", ""}, {"monogram", "x"}, {"Artwork", 1}}, "Unknown game presentation field");
  refuses_at("/extra", 1, "Unknown game presentation fields");
  refuses(Json::array(), "Unknown game presentation fields");
}

TEST(GamePresentation, ConsistsOfText) {
  for (const char* key : {"/tagline", "/description", "/monogram", "/artwork/alternative_text"}) {
    for (const Json& value : {Json(1), Json(nullptr), Json::array(), Json::object()}) {
      refuses_at(key, value, no_text);
    }
  }
}

TEST(GamePresentation, BoundsItsTexts) {
  EXPECT_EQ(parsed("/tagline", std::string(200, 't')).tagline.size(), 200u);
  EXPECT_EQ(parsed("/description", std::string(4096, 'd')).description.size(), 4096u);
  EXPECT_EQ(parsed("/artwork/alternative_text", std::string(200, 'a')).artwork->alternative_text.size(), 200u);
  refuses_at("/tagline", std::string(201, 't'), too_long);
  refuses_at("/description", std::string(4097, 'd'), too_long);
  refuses_at("/monogram", std::string(17, 'm'), too_long);
  refuses_at("/artwork/alternative_text", std::string(201, 'a'), too_long);
}

TEST(GamePresentation, ChecksTheLengthOfATextBeforeItsCharacters) {
  refuses_at("/tagline", std::string(201, '\a'), too_long);
}

TEST(GamePresentation, HoldsEmptyTexts) {
  EXPECT_EQ(parsed("/tagline", "").tagline, "");
  EXPECT_EQ(parsed("/description", "").description, "");
}

TEST(GamePresentation, RefusesControlCharacters) {
  for (const char* key : {"/tagline", "/description", "/monogram", "/artwork/alternative_text"}) {
    for (const char* text : {"a\x07", "\x1f", "\x7f", "\xc2\x80", "\xc2\x9f"}) {
      refuses_at(key, text, controls);
    }
    EXPECT_NO_THROW(parsed(key, "\xc2\xa0~"));
  }
}

TEST(GamePresentation, BreaksLinesOnlyInTheDescription) {
  EXPECT_EQ(parsed("/description", "a\tb\r\nc\n").description, "a\tb\r\nc\n");
  for (const char* key : {"/tagline", "/monogram", "/artwork/alternative_text"}) {
    for (const char* text : {"a\n", "a\r", "a\t"}) {
      refuses_at(key, text, controls);
    }
  }
}

TEST(GamePresentation, HasAMonogramOfOneToFourCharacters) {
  for (const char* monogram : {"a", "abcd", "\xc3\xa9", "\xe2\x82\xac\xe2\x82\xac\xe2\x82\xac\xe2\x82\xac",
                               "\xf0\x9f\x8e\xae\xf0\x9f\x8e\xae\xf0\x9f\x8e\xae\xf0\x9f\x8e\xae"}) {
    EXPECT_EQ(parsed("/monogram", monogram).monogram, monogram);
  }
  for (const char* monogram : {"", "abcde", "\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9",
                               "\xe2\x82\xac\xe2\x82\xac\xe2\x82\xac\xe2\x82\xac\xe2\x82\xac"}) {
    refuses_at("/monogram", monogram, bad_monogram);
  }
}

TEST(GameArtwork, HasExactlyItsKeysAndOneFormat) {
  for (const char* key : {"format", "width", "height", "bmp_hex", "alternative_text"}) {
    Json document = full_document();
    document["artwork"].erase(key);
    refuses(document, bad_descriptor);
  }
  for (const Json& value : {Json::array(), Json(nullptr), Json("x"), Json::object()}) {
    refuses_at("/artwork", value, bad_descriptor);
  }
  for (const Json& format : {Json("bmp-rgb24-v2"), Json(""), Json(1)}) {
    refuses_at("/artwork/format", format, bad_descriptor);
  }
  refuses_at("/artwork/extra", 1, bad_descriptor);
}

TEST(GameArtwork, HasSidesOf1To128Pixels) {
  for (const char* side : {"/artwork/width", "/artwork/height"}) {
    for (const Json& pixels :
         {Json(0), Json(129), Json(-1), Json((1ull << 32) + 3), Json(~0ull), Json(3.0), Json("3"), Json(nullptr)}) {
      refuses_at(side, pixels, bad_dimensions);
    }
  }
}

TEST(GameArtwork, MayBeAsLargeAsItsBound) {
  for (const auto& [width, height] : {std::pair{128u, 128u}, {128u, 1u}, {1u, 128u}, {1u, 1u}}) {
    const GamePresentation presentation = parsed("/artwork", artwork(width, height));
    EXPECT_EQ(presentation.artwork->bitmap, bitmap(width, height));
  }
}

TEST(GameArtwork, NeedsAlternativeText) { refuses_at("/artwork/alternative_text", "", no_alternative); }

TEST(GameArtwork, NeedsPixels) {
  for (const Json& value : {Json(1), Json(nullptr), Json::array()}) {
    refuses_at("/artwork/bmp_hex", value, no_pixels);
  }
}

TEST(GameArtwork, IsEncodedInBoundedLowerCaseDigits) {
  const std::string digits = hex_of(bitmap(3, 2));
  for (const std::string& text : {std::string(98413, 'a'), std::string(98414, 'a'), "A" + digits.substr(1),
                                  "g" + digits.substr(1), " " + digits.substr(1), digits + "a", "0x" + digits}) {
    refuses_at("/artwork/bmp_hex", text, bad_encoding);
  }
}

TEST(GameArtwork, IsJudgedAsABitmap) {
  refuses_at("/artwork/bmp_hex", "", beyond_bound);
  refuses_at("/artwork/bmp_hex", std::string(106, '0'), beyond_bound);
  refuses_at("/artwork/bmp_hex", std::string(108, '0'), not_exact);
  refuses_at("/artwork/bmp_hex", std::string(98412, '0'), not_exact);
  refuses_at("/artwork/width", 4, not_exact);
}

TEST(GamePresentation, ChecksInItsOrder) {
  struct Break {
    const char* pointer;
    Json value;
    const char* message;
  };
  const std::vector<Break> breaks = {{"/extra", 1, "Unknown game presentation fields"},
                                     {"/tagline", "\a", controls},
                                     {"/description", "\a", controls},
                                     {"/monogram", "", bad_monogram},
                                     {"/artwork/format", "x", bad_descriptor},
                                     {"/artwork/width", 0, bad_dimensions},
                                     {"/artwork/alternative_text", "", no_alternative},
                                     {"/artwork/bmp_hex", std::string(98413, 'a'), bad_encoding}};
  Json document = full_document();
  for (auto broken = breaks.rbegin(); broken != breaks.rend(); ++broken) {
    document[Json::json_pointer(broken->pointer)] = broken->value;
    refuses(document, broken->message);
  }
  EXPECT_FAILURE(GamePresentation::parse("", document), "invalid_presentation", "Game display name is empty");
}

TEST(PresentationSummary, HasEverythingButThePixels) {
  EXPECT_EQ(GamePresentation::parse("Some Game", full_document()).summary(),
            (Json{{"display_name", "Some Game"},
                  {"tagline", "Play it"},
                  {"description", "One\nTwo"},
                  {"monogram", "SG"},
                  {"artwork",
                   {{"format", "bmp-rgb24-v1"}, {"width", 3}, {"height", 2}, {"alternative_text", "A picture"}}}}));
}

TEST(PresentationSummary, HasEveryTextAndNoArtworkWhereThereIsNone) {
  EXPECT_EQ(GamePresentation::parse("Some Game", Json::object()).summary(),
            (Json{{"display_name", "Some Game"}, {"tagline", ""}, {"description", ""}, {"monogram", ""}}));
}

TEST(PresentationBitmap, RoundsItsRowsUpToFourBytes) {
  struct Sample {
    std::uint32_t width;
    std::uint32_t height;
    std::size_t size;
  };
  for (const auto& [width, height, size] : {Sample{1, 1, 58}, Sample{2, 1, 62}, Sample{3, 1, 66}, Sample{4, 1, 66},
                                            Sample{5, 2, 86}, Sample{128, 128, 49206}}) {
    EXPECT_EQ(bitmap(width, height).size(), size);
    EXPECT_NO_THROW(validate_presentation_bitmap(bitmap(width, height), width, height)) << width << " by " << height;
  }
}

TEST(PresentationBitmap, HasSidesOf1To128Pixels) {
  const std::string bytes = bitmap(128, 128);
  for (const std::uint32_t pixels : {0u, 129u, ~0u}) {
    refuses_bitmap(bytes, pixels, 128, beyond_bound);
    refuses_bitmap(bytes, 128, pixels, beyond_bound);
  }
  refuses_bitmap(bitmap(129, 1), 129, 1, beyond_bound);
  refuses_bitmap(bitmap(1, 129), 1, 129, beyond_bound);
}

TEST(PresentationBitmap, BoundsItsBytes) {
  refuses_bitmap("", 1, 1, beyond_bound);
  refuses_bitmap(bitmap(1, 1).substr(0, 53), 1, 1, beyond_bound);
  refuses_bitmap(bitmap(1, 1).substr(0, 54), 1, 1, not_exact);
  refuses_bitmap(bitmap(128, 128).substr(0, 49205), 128, 128, not_exact);
  refuses_bitmap(bitmap(128, 128) + 'x', 128, 128, beyond_bound);
}

TEST(PresentationBitmap, HasNothingBehindItsLastRow) {
  std::string bytes = bitmap(1, 1) + 'x';
  refuses_bitmap(bytes, 1, 1, not_exact);
  put(bytes, 2, 59);
  refuses_bitmap(bytes, 1, 1, not_exact);
}

TEST(PresentationBitmap, HasTheSidesThatAreDeclared) {
  refuses_bitmap(bitmap(3, 4), 4, 3, not_exact);
  refuses_bitmap(bitmap(3, 2), 4, 2, not_exact);
  refuses_bitmap(bitmap(3, 2), 3, 1, not_exact);
}

TEST(PresentationBitmap, StartsWithItsBottomRow) {
  std::string bytes = bitmap(3, 2);
  put(bytes, 22, static_cast<std::uint32_t>(-2));
  refuses_bitmap(bytes, 3, 2, not_exact);
}

TEST(PresentationBitmap, IsDeterminedByEveryBitOfItsDescription) {
  for (std::size_t offset = 0; offset < 54; ++offset) {
    const bool reserved = (offset >= 6 && offset < 10) || offset >= 38;
    for (int bit = 0; bit < 8; ++bit) {
      std::string bytes = bitmap(3, 2);
      bytes[offset] = static_cast<char>(bytes[offset] ^ (1 << bit));
      if (reserved) {
        EXPECT_NO_THROW(validate_presentation_bitmap(bytes, 3, 2)) << "bit " << bit << " of byte " << offset;
      } else {
        refuses_bitmap(bytes, 3, 2, not_exact);
      }
    }
  }
}

}  // namespace
}  // namespace ravok::presentation_test
