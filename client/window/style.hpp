// The theme of this process in the toolkit's terms: colours, fonts and distances.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <FL/Enumerations.H>

#include "app/screen/screen.hpp"
#include "domain/theme.hpp"
#include "platform/file/memory_file.hpp"

namespace ravok {

struct TextStyle {
  Fl_Font font = FL_HELVETICA;
  Fl_Fontsize size = 0;
  Fl_Color color = FL_BLACK;
};

// One at a time in a process. The theme must not change while it lives.
class Style {
 public:
  // Takes the theme of the process. A font that the toolkit cannot use is left for the system's own. Fails with
  // "display" on a system without any font.
  Style();
  Style(const Style&) = delete;
  Style& operator=(const Style&) = delete;

  const Theme& theme() const { return theme_; }

  TextStyle title(TextTone tone) const { return {title_font_, size(theme_.title_size), tone_color(tone)}; }
  TextStyle body(TextTone tone) const { return {regular_font_, size(theme_.body_size), tone_color(tone)}; }
  TextStyle small(TextTone tone) const { return {regular_font_, size(theme_.small_size), tone_color(tone)}; }
  TextStyle label() const { return {bold_font_, size(theme_.small_size), color(theme_.muted)}; }
  TextStyle field() const { return {regular_font_, size(theme_.body_size), color(theme_.ink)}; }
  TextStyle button(Fl_Color text) const { return {bold_font_, size(theme_.body_size), text}; }

  // The distances between things that belong together, and around those that do not.
  int gap() const { return size(theme_.body_size) / 2; }
  int margin() const { return size(theme_.body_size) * 5 / 4; }

  static Fl_Color color(const Rgb& rgb) { return fl_rgb_color(rgb.red, rgb.green, rgb.blue); }

 private:
  static Fl_Fontsize size(std::uint32_t pixels) { return static_cast<Fl_Fontsize>(pixels); }
  Fl_Color tone_color(TextTone tone) const;
  bool use_font(Fl_Font slot, const char* name, const std::string& bytes);

  const Theme& theme_;
  std::vector<MemoryFile> files_;  // of the theme's fonts
  Fl_Font regular_font_ = FL_HELVETICA;
  Fl_Font bold_font_ = FL_HELVETICA_BOLD;
  Fl_Font title_font_ = FL_HELVETICA_BOLD;
};

}  // namespace ravok
