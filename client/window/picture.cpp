#include "window/picture.hpp"

#include <optional>
#include <string_view>

#include <FL/Fl_PNG_Image.H>

#include "domain/icon_file.hpp"
#include "window/bitmap.hpp"

namespace ravok {

Picture::Picture(const ThemeImage& image) : pixel_art_(image.pixel_art) {
  Pixels pixels = decode_bitmap(image.bytes);
  rgb_ = std::move(pixels.rgb);
  width_ = static_cast<int>(pixels.width);
  height_ = static_cast<int>(pixels.height);
  image_ = std::make_unique<Fl_RGB_Image>(reinterpret_cast<const uchar*>(rgb_.data()), width_, height_, 3);
}

Picture::Picture(const std::string& icon_file) {
  const std::optional<std::string_view> png = largest_png_image(icon_file);
  if (!png) {
    return;
  }
  auto image = std::make_unique<Fl_PNG_Image>(nullptr, reinterpret_cast<const uchar*>(png->data()),
                                              static_cast<int>(png->size()));
  if (image->fail() == 0) {
    width_ = image->data_w();
    height_ = image->data_h();
    image_ = std::move(image);
  }
}

void Picture::draw(int left, int top, int across, int down) {
  if (image_) {
    Fl_Image::scaling_algorithm(pixel_art_ ? FL_RGB_SCALING_NEAREST : FL_RGB_SCALING_BILINEAR);
    image_->scale(across, down, 1, 1);
    image_->draw(left + (across - image_->w()) / 2, top + (down - image_->h()) / 2);
  }
}

}  // namespace ravok
