// A theme that is accepted keeps every bound and is easy to read, which a second, naive check confirms, and asks only
// for files that it names.
//
// An input is the definition, a NUL, and the files in the order in which they are asked for: each three bytes with its
// length, the lowest first, and its content. The last may be shorter than its length says, and all further ones are
// empty.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "domain/error.hpp"
#include "domain/theme.hpp"
#include "property.hpp"

namespace {

using ravok::Json;
using ravok::Rgb;
using ravok::Theme;
using ravok::fuzz::must_hold;

class Files {
 public:
  explicit Files(std::string_view bytes) : rest_(bytes) {}

  ravok::ThemeReader reader() {
    return [this](const std::string& name, std::uint64_t limit) {
      must_hold(limit <= 6'291'510, "every file is bounded");
      names.push_back(name);
      std::string content(next());
      ravok::require(content.size() <= limit, "size_limit", "File exceeds read limit");
      return content;
    };
  }

  std::vector<std::string> names;

 private:
  std::string_view next() {
    std::size_t length = 0;
    for (std::size_t i = 0; i < 3 && i < rest_.size(); ++i) {
      length |= std::size_t{static_cast<unsigned char>(rest_[i])} << (8 * i);
    }
    rest_.remove_prefix(std::min<std::size_t>(3, rest_.size()));
    const std::string_view content = rest_.substr(0, length);
    rest_.remove_prefix(content.size());
    return content;
  }

  std::string_view rest_;
};

void check_names(const std::vector<std::string>& names) {
  must_hold(names.size() <= 12 && std::set<std::string>(names.begin(), names.end()).size() == names.size(),
            "a theme names a few files, each once");
  for (const std::string& name : names) {
    must_hold(!name.empty() && name.size() <= 100 && name[0] != '.' && name != "theme.json" &&
                  name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-") ==
                      std::string::npos,
              "a file's name names nothing outside its folder");
  }
}

void check_readable(const Theme& theme) {
  const std::vector<std::pair<Rgb, Rgb>> pairs = {{theme.text, theme.background},
                                                  {theme.text, theme.panel},
                                                  {theme.text, theme.raised},
                                                  {theme.text, theme.hover},
                                                  {theme.text, theme.button.value_or(theme.panel)},
                                                  {theme.muted, theme.background},
                                                  {theme.muted, theme.panel},
                                                  {theme.warning, theme.panel},
                                                  {theme.success, theme.background},
                                                  {theme.accent_text, theme.accent},
                                                  {theme.accent_text, theme.accent_hover},
                                                  {theme.danger_text, theme.danger},
                                                  {theme.danger_text, theme.danger_hover},
                                                  {theme.ink, theme.paper},
                                                  {theme.ink_muted, theme.paper}};
  for (const auto& [front, back] : pairs) {
    must_hold(ravok::contrast(front, back) >= 4.5, "a theme is easy to read");
  }
  must_hold(ravok::contrast(theme.focus, theme.background) >= 3 && ravok::contrast(theme.focus, theme.panel) >= 3,
            "the focus can be seen");
}

std::size_t number(const std::string& bytes, std::size_t offset, std::size_t size) {
  std::size_t value = 0;
  for (std::size_t i = 0; i < size; ++i) {
    value |= std::size_t{static_cast<unsigned char>(bytes.at(offset + i))} << (8 * i);
  }
  return value;
}

// A reader that trusts the image's header must stay within its bytes.
void check_image(const std::optional<ravok::ThemeImage>& image, std::size_t most_width, std::size_t most_height) {
  if (!image) {
    return;
  }
  const std::size_t width = number(image->bytes, 18, 4);
  const std::size_t height = number(image->bytes, 22, 4);
  must_hold(width >= 1 && width <= most_width && height >= 1 && height <= most_height, "an image is bounded");
  const std::size_t padded = width * 3 % 4 == 0 ? width * 3 : width * 3 + 4 - width * 3 % 4;
  must_hold(image->bytes.size() == 54 + padded * height, "an image has all its pixels and no more");
  must_hold(image->bytes.starts_with("BM") && number(image->bytes, 10, 4) == 54 && number(image->bytes, 28, 2) == 24 &&
                number(image->bytes, 30, 4) == 0,
            "an image is a plain bitmap");
}

void check_font(const std::optional<std::string>& font) {
  must_hold(!font || (font->size() >= 4 && font->size() <= 4'194'304), "a font is bounded");
}

void check(const Theme& theme) {
  for (const std::uint32_t size : {theme.title_size, theme.heading_size, theme.body_size, theme.small_size}) {
    must_hold(size >= 10 && size <= 48, "texts are neither tiny nor huge");
  }
  check_readable(theme);
  check_font(theme.regular_font);
  check_font(theme.bold_font);
  check_font(theme.title_font);
  check_image(theme.icon, 256, 256);
  check_image(theme.banner, 2048, 1024);
  must_hold(std::all_of(theme.notices.begin(), theme.notices.end(),
                        [](const std::string& notice) { return notice.size() <= 262'144; }),
            "a notice is bounded");
}

void read_theme(std::string_view text, Files& files) {
  const Json definition = ravok::parse_json(text, 65'536);
  std::vector<std::string> named;
  try {
    named = ravok::theme_files(definition);
    check_names(named);
  } catch (const ravok::Error& refusal) {
    must_hold(refusal.code == "invalid_theme", "a theme is refused as one");
  }
  try {
    check(ravok::parse_theme(definition, files.reader()));
  } catch (const ravok::Error& refusal) {
    must_hold(refusal.code == "invalid_theme" || refusal.code == "size_limit", "a theme is refused as one");
  }
  for (const std::string& name : files.names) {
    must_hold(std::find(named.begin(), named.end(), name) != named.end(), "only named files are asked for");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t end = std::min(input.find('\0'), size);
  Files files(input.substr(std::min(end + 1, size)));
  try {
    read_theme(input.substr(0, end), files);
  } catch (const ravok::Error&) {
    return 0;
  }
  return 0;
}
