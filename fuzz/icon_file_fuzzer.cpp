// The image that is taken from an icon file lies within it, and is a PNG file by itself, which a second, naive reader
// walks from its signature to its last chunk.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "domain/icon_file.hpp"
#include "property.hpp"
#include "support/icon_builder.hpp"

namespace {

using ravok::fuzz::must_hold;

std::size_t number(std::string_view bytes, std::size_t offset) {
  std::size_t value = 0;
  for (std::size_t i = offset; i < offset + 4; ++i) {
    value = value * 256 + static_cast<unsigned char>(bytes.at(i));
  }
  return value;
}

void check_image(std::string_view image) {
  must_hold(image.starts_with(ravok::testing::png_signature), "an image has its signature");
  std::string_view last;
  for (std::size_t at = 8; at < image.size();) {
    must_hold(last != "IEND", "nothing stands behind the last chunk");
    must_hold(image.size() - at >= 12 && number(image, at) <= image.size() - at - 12, "a chunk lies within its image");
    const std::size_t length = number(image, at);
    last = image.substr(at + 4, 4);
    must_hold((last == "IHDR") == (at == 8), "an image has one header, at its beginning");
    must_hold(ravok::testing::png_checksum(image.substr(at + 4, length + 4)) == number(image, at + 8 + length),
              "a chunk is as it was written");
    at += 12 + length;
  }
  must_hold(last == "IEND", "an image has its end");
  const std::size_t width = number(image, 16);
  const std::size_t height = number(image, 20);
  must_hold(width >= 1 && width <= 1024 && height >= 1 && height <= 1024, "an image is bounded");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view icon(reinterpret_cast<const char*>(data), size);
  if (const std::optional<std::string_view> image = ravok::largest_png_image(icon)) {
    must_hold(image->data() >= icon.data() + 22 && image->data() + image->size() <= icon.data() + icon.size(),
              "an image lies behind the directory and within the file");
    check_image(*image);
  }
  return 0;
}
