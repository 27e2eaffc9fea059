// A picture in a window.
#pragma once

#include <memory>
#include <string>

#include <FL/Fl_RGB_Image.H>

#include "domain/theme.hpp"

namespace ravok {

class Picture {
 public:
  // The picture of a theme.
  explicit Picture(const ThemeImage& image);

  // The largest picture in the bytes of an icon file. It is empty where there is none that can be shown.
  explicit Picture(const std::string& icon_file);

  bool empty() const { return image_ == nullptr; }
  int width() const { return width_; }
  int height() const { return height_; }
  const Fl_RGB_Image* image() const { return image_.get(); }

  // Draws it in the middle of a rectangle of the window, as large as it can be there.
  void draw(int left, int top, int across, int down);

 private:
  std::string rgb_;  // of the image, which refers to it
  std::unique_ptr<Fl_RGB_Image> image_;
  bool pixel_art_ = false;
  int width_ = 0;
  int height_ = 0;
};

}  // namespace ravok
