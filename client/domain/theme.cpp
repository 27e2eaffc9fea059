#include "domain/theme.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <set>
#include <utility>

#include "domain/bytes.hpp"
#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "domain/text_rules.hpp"

namespace ravok {
namespace {

constexpr std::string_view code = "invalid_theme";
constexpr std::size_t maximum_files = 12;
constexpr std::size_t maximum_name_bytes = 100;
constexpr std::uint64_t maximum_font_bytes = 4'194'304;
constexpr std::uint64_t maximum_notice_bytes = 262'144;
constexpr double text_contrast = 4.5;
constexpr double focus_contrast = 3.0;

struct NamedColor {
  const char* name;
  Rgb Theme::*color;
};

constexpr std::array<NamedColor, 21> required_colors = {{{"background", &Theme::background},
                                                         {"panel", &Theme::panel},
                                                         {"raised", &Theme::raised},
                                                         {"well", &Theme::well},
                                                         {"border", &Theme::border},
                                                         {"text", &Theme::text},
                                                         {"muted", &Theme::muted},
                                                         {"accent", &Theme::accent},
                                                         {"accent_hover", &Theme::accent_hover},
                                                         {"accent_text", &Theme::accent_text},
                                                         {"danger", &Theme::danger},
                                                         {"danger_hover", &Theme::danger_hover},
                                                         {"danger_text", &Theme::danger_text},
                                                         {"warning", &Theme::warning},
                                                         {"success", &Theme::success},
                                                         {"focus", &Theme::focus},
                                                         {"disabled", &Theme::disabled},
                                                         {"disabled_text", &Theme::disabled_text},
                                                         {"paper", &Theme::paper},
                                                         {"ink", &Theme::ink},
                                                         {"ink_muted", &Theme::ink_muted}}};

struct ReadablePair {
  const char* name;
  Rgb Theme::*front;
  Rgb Theme::*back;
};

constexpr std::array<ReadablePair, 14> readable_pairs = {
    {{"text on background", &Theme::text, &Theme::background},
     {"text on panel", &Theme::text, &Theme::panel},
     {"text on raised", &Theme::text, &Theme::raised},
     {"text on hover", &Theme::text, &Theme::hover},
     {"muted on background", &Theme::muted, &Theme::background},
     {"muted on panel", &Theme::muted, &Theme::panel},
     {"warning on panel", &Theme::warning, &Theme::panel},
     {"success on background", &Theme::success, &Theme::background},
     {"accent_text on accent", &Theme::accent_text, &Theme::accent},
     {"accent_text on accent_hover", &Theme::accent_text, &Theme::accent_hover},
     {"danger_text on danger", &Theme::danger_text, &Theme::danger},
     {"danger_text on danger_hover", &Theme::danger_text, &Theme::danger_hover},
     {"ink on paper", &Theme::ink, &Theme::paper},
     {"ink_muted on paper", &Theme::ink_muted, &Theme::paper}}};

const Json& object(const Json& value, const char* name) {
  require(value.is_object(), code, std::string(name) + " must be an object");
  return value;
}

Rgb read_color(const Json& value) {
  constexpr const char* form = "Theme colours are written #rrggbb";
  require(value.is_string(), code, form);
  const std::string& text = value.get_ref<const std::string&>();
  require(text.size() == 7 && text[0] == '#', code, form);
  std::array<std::uint8_t, 3> channels{};
  for (std::size_t i = 0; i < channels.size(); ++i) {
    const char high = text[1 + 2 * i];
    const char low = text[2 + 2 * i];
    require(is_hex(high) && is_hex(low), code, form);
    channels[i] = static_cast<std::uint8_t>(hex_value(high) * 16 + hex_value(low));
  }
  return {channels[0], channels[1], channels[2]};
}

Rgb read_needed_color(const Json& colors, const char* name, const std::string& missing) {
  require(colors.contains(name), code, missing + name);
  return read_color(colors.at(name));
}

void read_colors(const Json& definition, Theme& theme) {
  const Json& colors = object(definition.at("colors"), "colors");
  for (const NamedColor& entry : required_colors) {
    theme.*entry.color = read_needed_color(colors, entry.name, "Theme needs the colour ");
  }
  theme.hover = colors.contains("hover") ? read_color(colors.at("hover")) : theme.raised;
  if (colors.contains("button")) {
    theme.button = read_color(colors.at("button"));
  }
}

void read_shapes(const Json& definition, Theme& theme) {
  if (definition.contains("corners")) {
    const Json& corners = definition.at("corners");
    require(corners == "square" || corners == "rounded", code, "Theme corners are square or rounded");
    theme.rounded = corners == "rounded";
  }
  if (definition.contains("bevel")) {
    require(definition.at("bevel").is_boolean(), code, "Theme bevel is true or false");
    theme.bevel = definition.at("bevel").get<bool>();
  }
  if (definition.contains("frame")) {
    const Json& frame = object(definition.at("frame"), "frame");
    const auto color = [&](const char* name) {
      return read_needed_color(frame, name, "Theme frame needs the colour ");
    };
    theme.frame = ThemeFrame{color("outline"), color("trim"), color("gap"), color("rivet")};
  }
}

void read_text_sizes(const Json& definition, Theme& theme) {
  if (!definition.contains("text_sizes")) {
    return;
  }
  const Json& sizes = object(definition.at("text_sizes"), "text_sizes");
  const auto read = [&](const char* name, std::uint32_t& size) {
    if (sizes.contains(name)) {
      const Json& value = sizes.at(name);
      require(value.is_number_integer() && value >= 10 && value <= 48, code, "Theme text sizes are 10 to 48 pixels");
      size = value.get<std::uint32_t>();
    }
  };
  read("title", theme.title_size);
  read("heading", theme.heading_size);
  read("body", theme.body_size);
  read("small", theme.small_size);
}

enum class FileKind { font, image, notice };

bool has_extension(std::string_view name, FileKind kind) {
  const std::string text = lower(name);
  switch (kind) {
    case FileKind::font:
      return text.ends_with(".ttf") || text.ends_with(".otf");
    case FileKind::image:
      return text.ends_with(".bmp");
    case FileKind::notice:
      return text.ends_with(".txt");
  }
  return false;
}

const std::string& read_file_name(const Json& value, FileKind kind) {
  require(value.is_string(), code, "Theme files are named by text");
  const std::string& name = value.get_ref<const std::string&>();
  const bool well_formed = !name.empty() && name.size() <= maximum_name_bytes && name.front() != '.' &&
                           name != theme_definition_file && std::all_of(name.begin(), name.end(), [](char c) {
                             return is_letter_or_digit(c) || c == '.' || c == '_' || c == '-';
                           });
  require(well_formed, code, "Theme file names are 1 to 100 letters, digits, '.', '_' or '-': " + name);
  require(has_extension(name, kind), code, "Theme file has the wrong kind of extension: " + name);
  return name;
}

const std::string& read_image_name(const Json& image) {
  require(image.is_object() && image.contains("file"), code, "Theme image needs a file");
  return read_file_name(image.at("file"), FileKind::image);
}

void require_notice_list(const Json& definition) {
  require(!definition.contains("notices") || definition.at("notices").is_array(), code,
          "Theme notices are a list of files");
}

std::vector<std::string> collect_files(const Json& definition) {
  std::vector<std::string> names;
  if (definition.contains("fonts")) {
    for (const Json& font : object(definition.at("fonts"), "fonts")) {
      names.push_back(read_file_name(font, FileKind::font));
    }
  }
  if (definition.contains("images")) {
    for (const Json& image : object(definition.at("images"), "images")) {
      names.push_back(read_image_name(image));
    }
  }
  require_notice_list(definition);
  if (definition.contains("notices")) {
    for (const Json& notice : definition.at("notices")) {
      names.push_back(read_file_name(notice, FileKind::notice));
    }
  }
  const std::set<std::string> distinct(names.begin(), names.end());
  require(distinct.size() == names.size() && names.size() <= maximum_files, code,
          "A theme names at most 12 distinct files");
  return names;
}

void read_fonts(const Json& definition, const ThemeReader& reader, Theme& theme) {
  if (!definition.contains("fonts")) {
    return;
  }
  const Json& fonts = definition.at("fonts");
  const auto read = [&](const char* name, std::optional<std::string>& font) {
    if (fonts.contains(name)) {
      font = reader(read_file_name(fonts.at(name), FileKind::font), maximum_font_bytes);
      const std::string_view start = std::string_view(*font).substr(0, 4);
      require(start == std::string_view("\0\1\0\0", 4) || start == "OTTO" || start == "true", code,
              "Theme fonts must be TrueType or OpenType files");
    }
  };
  read("regular", theme.regular_font);
  read("bold", theme.bold_font);
  read("title", theme.title_font);
}

void require_bitmap(std::string_view bytes, std::uint32_t most_width, std::uint32_t most_height) {
  constexpr std::uint64_t bitmap_header_bytes = 54;
  require(bytes.size() >= bitmap_header_bytes && bytes.starts_with("BM"), code, "Theme images are BMP files");
  const std::uint64_t width = number_at(bytes, 18, 4);
  const std::uint64_t height = number_at(bytes, 22, 4);
  require(width != 0 && height != 0 && width <= most_width && height <= most_height, code,
          "Theme image is larger than " + std::to_string(most_width) + "×" + std::to_string(most_height) + " pixels");
  const std::uint64_t stride = (width * 3 + 3) / 4 * 4;
  require(bytes.size() == bitmap_header_bytes + stride * height && number_at(bytes, 2, 4) == bytes.size() &&
              number_at(bytes, 10, 4) == bitmap_header_bytes && number_at(bytes, 14, 4) == 40 &&
              number_at(bytes, 26, 2) == 1 && number_at(bytes, 28, 2) == 24 && number_at(bytes, 30, 4) == 0,
          code, "Theme images must be uncompressed 24-bit BMP files");
}

ThemeImage read_image(const Json& image, const ThemeReader& reader, std::uint32_t width, std::uint32_t height) {
  const std::string& name = read_image_name(image);
  require(!image.contains("pixel_art") || image.at("pixel_art").is_boolean(), code, "Theme pixel_art is true or false");
  ThemeImage read;
  read.pixel_art = image.contains("pixel_art") && image.at("pixel_art").get<bool>();
  read.bytes = reader(name, (std::uint64_t{width} * 3 + 3) / 4 * 4 * height + 54);
  require_bitmap(read.bytes, width, height);
  return read;
}

void read_images(const Json& definition, const ThemeReader& reader, Theme& theme) {
  if (!definition.contains("images")) {
    return;
  }
  const Json& images = definition.at("images");
  if (images.contains("icon")) {
    theme.icon = read_image(images.at("icon"), reader, 256, 256);
  }
  if (images.contains("banner")) {
    theme.banner = read_image(images.at("banner"), reader, 2048, 1024);
  }
}

void read_notices(const Json& definition, const ThemeReader& reader, Theme& theme) {
  if (definition.contains("notices")) {
    for (const Json& notice : definition.at("notices")) {
      theme.notices.push_back(reader(read_file_name(notice, FileKind::notice), maximum_notice_bytes));
    }
  }
}

void require_readable(const Theme& theme) {
  const std::vector<LowContrast> low = low_contrasts(theme);
  if (low.empty()) {
    return;
  }
  fail(std::string(code), low.front().needed < text_contrast
                              ? "Theme focus colour is below 3:1 against the background or panel"
                              : "Theme contrast is below 4.5:1 for " + low.front().pair);
}

double luminance(const Rgb& color) {
  const auto linear = [](std::uint8_t channel) {
    const double c = channel / 255.0;
    return c <= 0.04045 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
  };
  return 0.2126 * linear(color.red) + 0.7152 * linear(color.green) + 0.0722 * linear(color.blue);
}

Theme& current_theme() {
  static Theme current;
  return current;
}

template <typename Work>
auto guarded(Work work) {
  return refuse_malformed(code, "Theme definition is malformed", work);
}

}  // namespace

double contrast(const Rgb& first, const Rgb& second) {
  const double a = luminance(first);
  const double b = luminance(second);
  return (std::max(a, b) + 0.05) / (std::min(a, b) + 0.05);
}

std::vector<std::string> theme_files(const Json& definition) {
  return guarded([&] { return collect_files(object(definition, "definition")); });
}

std::vector<LowContrast> low_contrasts(const Theme& theme) {
  std::vector<LowContrast> low;
  const auto measure = [&](const char* pair, const Rgb& front, const Rgb& back, double needed) {
    const double ratio = contrast(front, back);
    if (ratio < needed) {
      low.push_back({pair, ratio, needed});
    }
  };
  for (const ReadablePair& pair : readable_pairs) {
    measure(pair.name, theme.*pair.front, theme.*pair.back, text_contrast);
  }
  if (theme.button) {
    measure("text on button", theme.text, *theme.button, text_contrast);
  }
  measure("focus on background", theme.focus, theme.background, focus_contrast);
  measure("focus on panel", theme.focus, theme.panel, focus_contrast);
  return low;
}

Theme read_theme(const Json& definition, const ThemeReader& reader) {
  return guarded([&] {
    object(definition, "definition");
    require(is_integer(definition.at("schema_version"), 1) && is_text(definition.at("kind"), "ravok-theme"), code,
            "Unsupported theme schema");
    collect_files(definition);
    Theme theme;
    read_colors(definition, theme);
    read_shapes(definition, theme);
    read_text_sizes(definition, theme);
    read_fonts(definition, reader, theme);
    read_images(definition, reader, theme);
    read_notices(definition, reader, theme);
    return theme;
  });
}

Theme parse_theme(const Json& definition, const ThemeReader& reader) {
  Theme theme = read_theme(definition, reader);
  require_readable(theme);
  return theme;
}

const Theme& theme() { return current_theme(); }

void set_theme(Theme value) { current_theme() = std::move(value); }

}  // namespace ravok
