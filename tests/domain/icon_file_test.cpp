#include "domain/icon_file.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/icon_builder.hpp"

namespace ravok {
namespace {

using testing::icon_bitmap;
using testing::icon_of;
using testing::png_chunk;
using testing::png_header;
using testing::png_image;
using testing::png_pixels;
using testing::png_signature;
using testing::small_number;

// The image that is taken, or "none".
std::string taken(const std::string& icon) { return std::string(largest_png_image(icon).value_or("none")); }

void put(std::string& bytes, std::size_t offset, std::uint32_t number, std::size_t size = 4) {
  bytes.replace(offset, size, small_number(number, size));
}

TEST(LargestPngImage, IsThatOfTheMostPixels) {
  const std::string small = png_image(16, 16);
  const std::string wide = png_image(64, 4);
  const std::string large = png_image(256, 256);
  EXPECT_EQ(taken(icon_of({small})), small);
  EXPECT_EQ(taken(icon_of({icon_bitmap(), small, large, wide, icon_bitmap()})), large);
  EXPECT_EQ(taken(icon_of({large, small})), large);
  EXPECT_EQ(taken(icon_of({small, wide})), small);
  EXPECT_EQ(taken(icon_of({wide, small})), wide);
  EXPECT_EQ(taken(icon_of({wide, png_image(13, 20)})), png_image(13, 20));
}

TEST(LargestPngImage, IsNoneOfAnotherForm) {
  EXPECT_EQ(taken(icon_of({icon_bitmap(), icon_bitmap()})), "none");
  EXPECT_EQ(taken(icon_of({})), "none");
  EXPECT_EQ(taken(icon_of({""})), "none");
}

TEST(LargestPngImage, MayBeOf1024By1024Pixels) {
  const std::string most = png_image(1024, 1024);
  EXPECT_EQ(taken(icon_of({most})), most);
  const std::string small = png_image(4, 4);
  const std::string pixels = png_chunk("IDAT", png_pixels(4, 4));
  for (const auto& [width, height] : std::vector<std::pair<std::uint32_t, std::uint32_t>>{
           {1025, 1}, {1, 1025}, {0, 4}, {4, 0}, {0x80000000, 4}, {0xffffffff, 0xffffffff}}) {
    const std::string other = png_signature + png_header(width, height) + pixels + png_chunk("IEND", "");
    EXPECT_EQ(taken(icon_of({other})), "none") << width << " " << height;
    EXPECT_EQ(taken(icon_of({other, small})), small) << width << " " << height;
  }
}

TEST(LargestPngImage, EndsWithItsLastChunk) {
  const std::string image = png_image(4, 4);
  EXPECT_EQ(taken(icon_of({image + "more"})), image);
  EXPECT_EQ(taken(icon_of({image + image})), image);
}

TEST(LargestPngImage, MayHaveAnyOtherChunks) {
  const std::string image = png_signature + png_header(4, 4) + png_chunk("tEXt", "") +
                            png_chunk("IDAT", png_pixels(4, 4)) + png_chunk("IDAT", "") + png_chunk("teXt", "a") +
                            png_chunk("IEND", "");
  EXPECT_EQ(taken(icon_of({image})), image);
}

TEST(LargestPngImage, HasAHeaderAndPixelsAndAnEnd) {
  const std::string header = png_header(4, 4);
  const std::string header_data = header.substr(8, 13);
  const std::string pixels = png_chunk("IDAT", png_pixels(4, 4));
  const std::string end = png_chunk("IEND", "");
  EXPECT_NE(taken(icon_of({png_signature + header + pixels + end})), "none");
  const std::vector<std::string> others = {
      png_signature,
      png_signature + header,
      png_signature + header + pixels,
      png_signature + header + end,
      png_signature + pixels + end,
      png_signature + header + png_chunk("IDAT", "") + end,
      png_signature + header + header + pixels + end,
      png_signature + png_chunk("IHDR", header_data + "x") + pixels + end,
      png_signature + png_chunk("IHDR", header_data.substr(1)) + pixels + end,
      png_signature + png_chunk("ihdr", header_data) + pixels + end,
      header + pixels + end,
  };
  for (const std::string& other : others) {
    EXPECT_EQ(taken(icon_of({other})), "none") << ::testing::PrintToString(other);
  }
}

TEST(LargestPngImage, IsWholeToItsLastBit) {
  const std::string image = png_image(4, 4);
  for (std::size_t size = 0; size < image.size(); ++size) {
    EXPECT_EQ(taken(icon_of({image.substr(0, size)})), "none") << size;
  }
  for (std::size_t bit = 0; bit < 8 * image.size(); ++bit) {
    std::string damaged = image;
    damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << bit % 8));
    EXPECT_EQ(taken(icon_of({damaged})), "none") << bit;
  }
}

TEST(LargestPngImage, HasNoChunkThatLeadsOutOfIt) {
  const std::string image = png_image(4, 4);
  const std::size_t pixels_at = png_signature.size() + png_header(4, 4).size();
  for (const std::uint32_t length : {0x7fffffffu, 0x80000000u, 0xfffffff4u, 0xffffffffu}) {
    std::string damaged = image;
    damaged.replace(pixels_at, 4, testing::big_number(length));
    EXPECT_EQ(taken(icon_of({damaged})), "none") << length;
  }
}

TEST(LargestPngImage, IsInAnIconFile) {
  const std::string image = png_image(4, 4);
  const std::string icon = icon_of({image});
  EXPECT_EQ(taken(""), "none");
  EXPECT_EQ(taken(image), "none");
  for (const std::size_t offset : {0u, 1u, 2u, 3u}) {
    std::string other = icon;
    other[offset] = 2;
    EXPECT_EQ(taken(other), "none") << offset;
  }
  for (std::size_t size = 0; size < icon.size(); ++size) {
    EXPECT_EQ(taken(icon.substr(0, size)), "none") << size;
  }
}

TEST(LargestPngImage, NeedsEveryImageWithinTheFileAndBehindTheDirectory) {
  constexpr std::size_t second_size = 6 + 16 + 8;
  constexpr std::size_t second_place = second_size + 4;
  const std::string image = png_image(4, 4);
  const std::string icon = icon_of({image, icon_bitmap()});
  const auto length = static_cast<std::uint32_t>(icon.size());
  const auto taken_with = [&](std::uint32_t place, std::uint32_t size) {
    std::string other = icon;
    put(other, second_place, place);
    put(other, second_size, size);
    return taken(other);
  };
  using Places = std::vector<std::pair<std::uint32_t, std::uint32_t>>;
  for (const auto& [place, size] : Places{{length, 0}, {38, length - 38}, {length - 1, 1}}) {
    EXPECT_EQ(taken_with(place, size), image) << place << " " << size;
  }
  for (const auto& [place, size] : Places{{length, 1},
                                          {length + 1, 0},
                                          {38, length - 37},
                                          {37, 1},
                                          {0, 1},
                                          {0xffffffff, 0},
                                          {0xffffffff, 1},
                                          {0xffffffff, 0xffffffff},
                                          {38, 0xffffffff},
                                          {0x80000000, 0x80000000}}) {
    EXPECT_EQ(taken_with(place, size), "none") << place << " " << size;
  }
}

TEST(LargestPngImage, IsOneOfAtMost64Images) {
  const std::string image = png_image(4, 4);
  std::vector<std::string> images(63, icon_bitmap());
  images.push_back(image);
  EXPECT_EQ(taken(icon_of(images)), image);
  images.push_back(image);
  EXPECT_EQ(taken(icon_of(images)), "none");
  std::string more = icon_of({image});
  put(more, 4, 0xffff, 2);
  EXPECT_EQ(taken(more), "none");
}

}  // namespace
}  // namespace ravok
