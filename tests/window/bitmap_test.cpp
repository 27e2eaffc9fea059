#include "window/bitmap.hpp"

#include <cstddef>
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "support/failure.hpp"
#include "support/theme_builder.hpp"

namespace ravok::bitmap_test {
namespace {

using testing::bitmap;
using testing::put_number;

constexpr std::size_t header = 54;

void expect_refused(const std::string& bytes, const std::string& what) {
  EXPECT_FAILURE(decode_bitmap(bytes), "invalid_bitmap", "Expected an uncompressed 24-bit BMP file") << what;
}

// A picture of these rows, as the file has them: blue first, the bottom row first, and whole groups of four bytes.
std::string bitmap_of(std::uint32_t width, std::uint32_t height, const std::string& rows) {
  return bitmap(width, height).substr(0, header) + rows;
}

TEST(DecodeBitmap, GivesOnePixelRedFirst) {
  const Pixels pixels = decode_bitmap(bitmap_of(1, 1, {"\x01\x02\x03\x00", 4}));
  EXPECT_EQ(pixels.width, 1u);
  EXPECT_EQ(pixels.height, 1u);
  EXPECT_EQ(pixels.rgb, "\x03\x02\x01");
}

TEST(DecodeBitmap, GivesTheRowsFromTheTopWithoutTheirPadding) {
  const Pixels pixels = decode_bitmap(bitmap_of(2, 2, "abcdef--ghijkl--"));
  EXPECT_EQ(pixels.width, 2u);
  EXPECT_EQ(pixels.height, 2u);
  EXPECT_EQ(pixels.rgb, "ihglkjcbafed");
}

TEST(DecodeBitmap, KnowsRowsOfEveryPadding) {
  EXPECT_EQ(decode_bitmap(bitmap_of(3, 1, "abcdefghi---")).rgb, "cbafedihg");
  EXPECT_EQ(decode_bitmap(bitmap_of(4, 1, "abcdefghijkl")).rgb, "cbafedihglkj");
}

TEST(DecodeBitmap, TakesUpTo2048PixelsASide) {
  EXPECT_EQ(decode_bitmap(bitmap(2048, 1)).rgb, std::string(2048 * 3, '\x55'));
  EXPECT_EQ(decode_bitmap(bitmap(1, 2048)).rgb, std::string(2048 * 3, '\x55'));
  expect_refused(bitmap(2049, 1), "too wide");
  expect_refused(bitmap(1, 2049), "too high");
}

TEST(DecodeBitmap, RefusesAPictureWithoutASide) {
  expect_refused(bitmap(0, 1), "no width");
  expect_refused(bitmap(1, 0), "no height");
}

TEST(DecodeBitmap, RefusesASizeThatItDoesNotHave) {
  for (const std::size_t side : {18u, 22u}) {
    for (const std::uint32_t number : {1u, 3u, 0x7fffffffu, 0x80000000u, 0xfffffffeu, 0xffffffffu}) {
      std::string bytes = bitmap(2, 2);
      put_number(bytes, side, number);
      expect_refused(bytes, std::to_string(side) + " " + std::to_string(number));
    }
  }
}

TEST(DecodeBitmap, RefusesEveryLengthButItsOwn) {
  const std::string bytes = bitmap(2, 2);
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    expect_refused(bytes.substr(0, length), std::to_string(length));
  }
  expect_refused(bytes + '\0', "longer");
}

TEST(DecodeBitmap, RefusesAnotherForm) {
  const struct {
    const char* what;
    std::size_t place;
    std::uint32_t number;
    std::size_t size;
  } forms[] = {{"another first letter", 0, 'b', 1},
               {"another second letter", 1, 'A', 1},
               {"pixels elsewhere", 10, 58, 4},
               {"pixels in the header", 10, 50, 4},
               {"another header", 14, 124, 4},
               {"an older header", 14, 12, 4},
               {"no plane", 26, 0, 2},
               {"two planes", 26, 2, 2},
               {"a palette", 28, 8, 2},
               {"a fourth channel", 28, 32, 2},
               {"compression", 30, 1, 4},
               {"masks", 30, 3, 4}};
  for (const auto& form : forms) {
    std::string bytes = bitmap(2, 2);
    put_number(bytes, form.place, form.number, form.size);
    expect_refused(bytes, form.what);
  }
}

}  // namespace
}  // namespace ravok::bitmap_test
