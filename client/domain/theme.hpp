// How a brand restyles the client's windows: colours, sizes, a few fonts, images and notices. All of it comes from
// outside: files are named and bounded, images are plain bitmaps, and a theme is refused when the contrast of its
// colours makes it hard to read.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.hpp"

namespace ravok {

struct Rgb {
  std::uint8_t red = 0;
  std::uint8_t green = 0;
  std::uint8_t blue = 0;

  bool operator==(const Rgb&) const = default;
};

struct ThemeFrame {
  Rgb outline;
  Rgb trim;
  Rgb gap;
  Rgb rivet;
};

struct ThemeImage {
  std::string bytes;  // of an uncompressed BMP file of 24 bits a pixel
  bool pixel_art = false;
};

struct Theme {
  Rgb background = {0x14, 0x18, 0x1f};
  Rgb panel = {0x1d, 0x23, 0x2e};
  Rgb raised = {0x28, 0x30, 0x3e};
  Rgb well = {0x14, 0x18, 0x1f};
  Rgb border = {0x54, 0x60, 0x73};
  std::optional<Rgb> button;
  Rgb hover = {0x28, 0x30, 0x3e};
  Rgb text = {0xf0, 0xf3, 0xf7};
  Rgb muted = {0xaa, 0xb5, 0xc4};
  Rgb accent = {0x25, 0x63, 0xc9};
  Rgb accent_hover = {0x34, 0x74, 0xde};
  Rgb accent_text = {0xff, 0xff, 0xff};
  Rgb danger = {0xc4, 0x31, 0x4b};
  Rgb danger_hover = {0xd6, 0x42, 0x5c};
  Rgb danger_text = {0xff, 0xff, 0xff};
  Rgb warning = {0xf0, 0xb4, 0x29};
  Rgb success = {0x3f, 0xb3, 0x7f};
  Rgb focus = {0xff, 0xd2, 0x4a};
  Rgb disabled = {0x30, 0x37, 0x44};
  Rgb disabled_text = {0x7d, 0x87, 0x96};
  Rgb paper = {0x0d, 0x11, 0x17};
  Rgb ink = {0xf0, 0xf3, 0xf7};
  Rgb ink_muted = {0xaa, 0xb5, 0xc4};
  bool rounded = false;
  bool bevel = false;
  std::optional<ThemeFrame> frame;
  std::uint32_t title_size = 28;  // pixels, as the three below
  std::uint32_t heading_size = 20;
  std::uint32_t body_size = 16;
  std::uint32_t small_size = 14;
  std::optional<std::string> regular_font;  // the bytes of a TrueType or OpenType file
  std::optional<std::string> bold_font;
  std::optional<std::string> title_font;
  std::optional<ThemeImage> icon;    // at most 256 by 256 pixels
  std::optional<ThemeImage> banner;  // at most 2048 by 1024 pixels
  std::vector<std::string> notices;
};

// The largest definition of a theme, as text, in bytes.
inline constexpr std::uint64_t maximum_theme_definition_bytes = 65'536;

// Gives the bytes of a theme's file, at most `limit` of them, or fails.
using ThemeReader = std::function<std::string(const std::string& name, std::uint64_t limit)>;

// Returns the contrast ratio of two colours as the accessibility guidelines for web content, version 2,
// define it: from 1 to 21.
double contrast(const Rgb& first, const Rgb& second);

// Returns the names of the files that a definition names, at most 12 and each once. Fails with
// "invalid_theme".
std::vector<std::string> theme_files(const Json& definition);

// Two colours of a theme that cannot be told apart well enough.
struct LowContrast {
  std::string pair;   // such as "text on panel"
  double ratio = 0;   // as contrast() measures it
  double needed = 0;  // the least that is accepted
};

// Returns every pair of a theme's colours that a user could hardly read, in the order of the pairs' rules; none for a
// theme that parse_theme would accept.
std::vector<LowContrast> low_contrasts(const Theme& theme);

// Returns the theme of a definition, with its files read by `reader`, whatever the contrast of its colours. Fails with
// "invalid_theme" and with what `reader` throws.
Theme read_theme(const Json& definition, const ThemeReader& reader);

// The same for a theme whose colours all have enough contrast. Fails as read_theme does, and with "invalid_theme" for
// the first pair that has not.
Theme parse_theme(const Json& definition, const ThemeReader& reader);

// The theme of this process, at first the defaults. Not guarded: it is set while one thread starts up.
const Theme& theme();
void set_theme(Theme value);

}  // namespace ravok
